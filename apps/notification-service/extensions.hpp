#pragma once
// The extension classes the host can load, by the name given with --extension.

#include <memory>
#include <span>
#include <string_view>

#include "platform/extension.hpp"

namespace host {

struct ExtensionEntry {
  std::string_view name;
  std::string_view summary;
  std::unique_ptr<platform::NotificationServiceExtension> (*make)();
};

/// Every extension built into this host, the default first.
std::span<const ExtensionEntry> extensions();
/// The entry named `name`; none when this host has no such extension.
const ExtensionEntry* findExtension(std::string_view name);
/// The extension used when --extension is not given.
const ExtensionEntry& defaultExtension();

}  // namespace host
