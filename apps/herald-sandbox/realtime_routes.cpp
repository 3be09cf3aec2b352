// Trouble on request for the realtime socket, and the list of its connections, so that tests
// can make a connection misbehave and wait (bounded) until a subscription has arrived.

#include <set>
#include <string>

#include "platform/json.hpp"
#include "realtime.hpp"
#include "routes.hpp"

namespace sandbox {
namespace {

namespace json = boost::json;

// Room for the benchmark's 10,000 frames many times over; more is a typing mistake.
constexpr std::int64_t kMaxRepeat = 1'000'000;
constexpr std::int64_t kMaxSize = 64 * 1024 * 1024;
// Every copy sent is kept in the journal too.
constexpr std::size_t kMaxTotalBytes = 256u * 1024 * 1024;
// {"type":"message","messageId":"large","body":""}: the frame that `size` pads.
constexpr std::string_view kLargeHead = R"({"type":"message","messageId":"large","body":")";
constexpr std::string_view kLargeTail = R"("})";

std::int64_t integer(const json::value& value, std::string_view key, std::int64_t low,
                     std::int64_t high) {
  if (!value.is_int64() || value.as_int64() < low || value.as_int64() > high)
    throw BadRequest("\"" + std::string(key) + "\" must be an integer from " + std::to_string(low) +
                     " to " + std::to_string(high) + ", not " + platform::toJSON(value));
  return value.as_int64();
}

bool isValidCloseCode(std::int64_t code) {
  return (code >= 1000 && code <= 1003) || (code >= 1007 && code <= 1014) ||
         (code >= 3000 && code <= 4999);
}

std::string fromHex(std::string_view text) {
  auto digit = [](char c) -> int {
    if (c >= '0' && c <= '9') return c - '0';
    if (c >= 'a' && c <= 'f') return c - 'a' + 10;
    if (c >= 'A' && c <= 'F') return c - 'A' + 10;
    return -1;
  };
  std::string bytes;
  for (std::size_t i = 0; i + 1 < text.size(); i += 2) {
    const int high = digit(text[i]), low = digit(text[i + 1]);
    if (high < 0 || low < 0) break;
    bytes += static_cast<char>(high * 16 + low);
  }
  if (bytes.size() * 2 != text.size())
    throw BadRequest("\"binary\" must be the bytes in hex (\"00ff\"), an even number of digits");
  return bytes;
}

RealtimeOrder orderFrom(const json::object& body) {
  static const std::set<std::string_view> kinds{"close", "reset", "end", "text",
                                                "frame", "binary", "size", "stall"};
  std::string kind;
  for (const auto& [key, value] : body) {
    if (key == "repeat") continue;
    if (!kinds.count(std::string_view(key)))
      throw BadRequest("unknown key \"" + std::string(key) +
                       "\" (one of close, reset, end, text, frame, binary, size, stall; repeat)");
    if (!kind.empty())
      throw BadRequest("one order at a time: \"" + kind + "\" and \"" + std::string(key) + "\"");
    kind = key;
  }
  if (kind.empty())
    throw BadRequest(
        "the body must hold one of close, reset, end, text, frame, binary, size, stall");
  const auto& value = body.at(kind);

  RealtimeOrder order;
  if (kind == "close") {
    const auto* fields = value.if_object();
    const auto* code = fields ? fields->if_contains("code") : nullptr;
    if (!code) throw BadRequest("\"close\" must be {\"code\": 4000, \"reason\": \"...\"}");
    if (!code->is_int64() || !isValidCloseCode(code->as_int64()))
      throw BadRequest("\"close\".\"code\" must be a close code that may be sent (1000-1003, " +
                       std::string("1007-1014, 3000-4999), not ") + platform::toJSON(*code));
    std::string reason;
    if (const auto* given = fields->if_contains("reason"); given && !given->is_null()) {
      if (!given->is_string()) throw BadRequest("\"close\".\"reason\" must be a string");
      reason = given->as_string();
      if (reason.size() > 123) throw BadRequest("\"close\".\"reason\" may hold at most 123 bytes");
    }
    for (const auto& [key, ignored] : *fields)
      if (key != "code" && key != "reason")
        throw BadRequest("unknown key \"close\".\"" + std::string(key) + "\" (code, reason)");
    order = {RealtimeOrder::Kind::close, std::make_shared<const std::string>(std::move(reason)),
             static_cast<std::uint16_t>(code->as_int64()), 1};
  } else if (kind == "reset" || kind == "stall" || kind == "end") {
    if (value != json::value(true)) throw BadRequest("\"" + kind + "\" must be true");
    order.kind = kind == "reset"  ? RealtimeOrder::Kind::reset
                 : kind == "end" ? RealtimeOrder::Kind::end
                                 : RealtimeOrder::Kind::stall;
  } else if (kind == "text") {
    if (!value.is_string()) throw BadRequest("\"text\" must be a string");
    order.payload = std::make_shared<const std::string>(value.as_string());
  } else if (kind == "frame") {
    order.payload = std::make_shared<const std::string>(platform::toJSON(value));
  } else if (kind == "binary") {
    if (!value.is_string()) throw BadRequest("\"binary\" must be a string of hex digits");
    order.kind = RealtimeOrder::Kind::binary;
    order.payload = std::make_shared<const std::string>(fromHex(value.as_string()));
  } else {  // size
    const auto bytes = integer(value, "size",
                               static_cast<std::int64_t>(kLargeHead.size() + kLargeTail.size()),
                               kMaxSize);
    std::string text(kLargeHead);
    text.append(static_cast<std::size_t>(bytes) - kLargeHead.size() - kLargeTail.size(), 'x');
    text += kLargeTail;
    order.payload = std::make_shared<const std::string>(std::move(text));
  }
  if (const auto* repeat = body.if_contains("repeat")) {
    if (order.kind != RealtimeOrder::Kind::text && order.kind != RealtimeOrder::Kind::binary)
      throw BadRequest("\"repeat\" goes with text, frame, binary or size, not with \"" + kind +
                       "\"");
    order.count = static_cast<std::size_t>(integer(*repeat, "repeat", 1, kMaxRepeat));
    if (order.payload->size() > kMaxTotalBytes / order.count)
      throw BadRequest("at most " + std::to_string(kMaxTotalBytes) +
                       " bytes can be sent at once (repeat times the frame's size)");
  }
  return order;
}

}  // namespace

void addRealtimeRoutes(Router& router, Realtime& realtime) {
  router.add("POST", "/_sandbox/realtime/*", [&realtime](const Request& request,
                                                           std::string_view user) {
    if (user.empty() || user.find('/') != std::string_view::npos)
      return Response::error(404, "the path is /_sandbox/realtime/<user id>");
    const auto order = orderFrom(request.jsonObject());
    const std::string id(user);
    const auto reached = realtime.perform(id, order);
    if (reached == 0)
      return Response::error(404, "no connection is subscribed to user \"" + id + "\"");
    return Response::json(200, json::object{{"connections", reached}});
  });
  router.add("GET", "/_sandbox/realtime", [&realtime](const Request&, std::string_view) {
    return Response::json(200, realtime.connections());
  });
  // The server takes the socket's upgrades before routing; what reaches here is a plain GET.
  for (const auto* path : {"/realtime", "/realtime/"})
    router.add("GET", path, [](const Request&, std::string_view) {
      auto response = Response::error(
          426, "the realtime socket takes a WebSocket upgrade (Upgrade: websocket)");
      response.headers.emplace_back("Upgrade", "websocket");
      return response;
    });
}

}  // namespace sandbox
