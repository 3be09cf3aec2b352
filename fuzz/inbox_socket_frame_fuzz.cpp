// Feeds arbitrary bytes to the inbox socket's frame decoder, as a text frame from the service
// would arrive. Decoding either gives an event or a message or throws `core::DecodingError`;
// any other exception, crash or sanitizer report is a finding. What decodes must survive a
// trip through its own JSON unchanged.
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "herald/inbox_socket.hpp"
#include "platform/json.hpp"

namespace {

void checkRoundTrip(const herald::SocketFrame& frame) {
  if (const auto* event = std::get_if<herald::MessageEvent>(&frame)) {
    auto json = event->toJSON();
    json["type"] = "event";
    const auto again = herald::decodeSocketFrame(platform::toJSON(json));
    if (std::get<herald::MessageEvent>(again).toJSON() != event->toJSON()) __builtin_trap();
    return;
  }
  const auto& message = std::get<herald::InboxMessagePtr>(frame);
  auto json = message->toJSON();
  json["type"] = "message";
  const auto again = herald::decodeSocketFrame(platform::toJSON(json));
  if (std::get<herald::InboxMessagePtr>(again)->toJSON() != message->toJSON()) __builtin_trap();
}

}  // namespace

extern "C" int LLVMFuzzerTestOneInput(const std::uint8_t* data, std::size_t size) {
  const std::string_view text(reinterpret_cast<const char*>(data), size);
  try {
    checkRoundTrip(herald::decodeSocketFrame(text));
  } catch (const core::DecodingError&) {
  } catch (...) {
    __builtin_trap();
  }
  return 0;
}
