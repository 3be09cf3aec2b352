// Feeds arbitrary bytes to the inbox socket's frame decoder, as a text frame from the service
// would arrive. Decoding either gives an event or a message or throws `core::DecodingError`;
// any other exception, crash or sanitizer report is a finding. What decodes must survive a
// trip through its own JSON unchanged. Numbers count as equal by value, up to their last bits:
// an integral double is written without a point and comes back as an integer, Boost.JSON 1.81
// may read a number written in its shortest form one unit off, and a number too large for a
// double (9E496) is written as null, as JSON has no infinity.
#include <cmath>
#include <cstddef>
#include <cstdint>
#include <string_view>

#include "herald/inbox_socket.hpp"
#include "platform/json.hpp"

namespace {

bool same(const boost::json::value& a, const boost::json::value& b) {
  if (a.is_double() && !std::isfinite(a.get_double())) return b.is_null();
  if (b.is_double() && !std::isfinite(b.get_double())) return a.is_null();
  if (a.is_number() && b.is_number()) {
    const double x = a.to_number<double>(), y = b.to_number<double>();
    return x == y || std::fabs(x - y) <= 1e-12 * std::fmax(std::fabs(x), std::fabs(y));
  }
  if (a.kind() != b.kind()) return a == b;
  if (a.is_array()) {
    const auto &l = a.get_array(), &r = b.get_array();
    if (l.size() != r.size()) return false;
    for (std::size_t i = 0; i < l.size(); ++i)
      if (!same(l[i], r[i])) return false;
    return true;
  }
  if (a.is_object()) {
    const auto &l = a.get_object(), &r = b.get_object();
    if (l.size() != r.size()) return false;
    for (const auto& [key, value] : l) {
      const auto* other = r.if_contains(key);
      if (!other || !same(value, *other)) return false;
    }
    return true;
  }
  return a == b;
}

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
  if (!same(std::get<herald::InboxMessagePtr>(again)->toJSON(), message->toJSON()))
    __builtin_trap();
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
