#pragma once
// Trouble on request: query parameters that make any answer of the sandbox slow, wrong or
// cut short, so that clients can be tested against a misbehaving service.

#include <chrono>
#include <cstddef>
#include <optional>

#include "http.hpp"

namespace sandbox {

struct Trouble {
  /// delay=SECONDS: wait this long before answering at all.
  std::chrono::milliseconds delay{0};
  /// stall=SECONDS: send the status line and headers, then wait this long before the body.
  std::chrono::milliseconds stall{0};
  /// status=CODE: answer with this status instead of the route's.
  std::optional<int> status;
  /// truncate=BYTES: announce the whole body, send only this many bytes of it, then close.
  std::optional<std::size_t> truncate;
};

/// Reads the trouble parameters of `request`; throws BadRequest for a malformed value.
Trouble troubleFrom(const Request& request);

}  // namespace sandbox
