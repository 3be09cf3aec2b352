#include "extensions.hpp"

// Each library brings its extension only when it is part of the build; CMake defines the
// matching HOST_WITH_* macro. To add one: include its header under the macro, add one entry
// below, and guard the link in CMakeLists.txt with if(TARGET ...). The first entry is the
// default, so the most complete extension goes first.
#ifdef HOST_WITH_SERVICE
#include "herald_service/notification_service.hpp"
#endif
#ifdef HOST_WITH_BASE
#include "herald/notification_service_extension.hpp"
#endif
#ifdef HOST_WITH_RICH_PUSH
#include "rich_push/rich_push_service.hpp"
#endif

namespace host {
namespace {

template <class Extension>
std::unique_ptr<platform::NotificationServiceExtension> make() {
  return std::make_unique<Extension>();
}

constexpr ExtensionEntry kExtensions[] = {
#ifdef HOST_WITH_SERVICE
    {"service",
     "the application's extension: rich push first; otherwise reports the delivery, shows the "
     "sender's picture or initials and attaches the JPEG thumbnail",
     make<herald_service::NotificationService>},
#endif
#ifdef HOST_WITH_BASE
    {"base", "reports the delivery to the payload's trackingUrl, then shows the content unchanged",
     make<herald::HeraldNotificationServiceExtension>},
#endif
#ifdef HOST_WITH_RICH_PUSH
    {"rich-push",
     "attaches the media named under \"rp\" -> \"att\"; shows other notifications unchanged",
     make<rich_push::NotificationService>},
#endif
    {"plain", "the platform's default: shows the content unchanged and reports nothing",
     make<platform::NotificationServiceExtension>},
};

}  // namespace

std::span<const ExtensionEntry> extensions() {
  return kExtensions;
}

const ExtensionEntry* findExtension(std::string_view name) {
  for (const auto& entry : kExtensions)
    if (entry.name == name) return &entry;
  return nullptr;
}

const ExtensionEntry& defaultExtension() {
  return kExtensions[0];
}

}  // namespace host
