#pragma once

#include "platform/system_log.hpp"

namespace imaging::internal {

// Where images that cannot be read, or read only in part, are reported: one line each.
inline const platform::SystemLog& log() {
  static const platform::SystemLog instance("app.herald.imaging", "Image");
  return instance;
}

}  // namespace imaging::internal
