#include "realtime.hpp"

#include <vector>

#include "platform/json.hpp"

namespace sandbox {
namespace {

namespace json = boost::json;

// A close frame's reason is at most 123 bytes (125 of payload less the code).
constexpr std::size_t kMaxCloseReason = 123;
constexpr std::uint16_t kUnsupportedData = 1003;
constexpr std::uint16_t kPolicyViolation = 1008;

Response unauthenticated(std::string message) {
  return Response::error(401, std::move(message), "authentication_error");
}

std::string_view kindName(FrameKind kind) {
  switch (kind) {
    case FrameKind::text:
      return "text";
    case FrameKind::binary:
      return "binary";
    case FrameKind::close:
      return "close";
    case FrameKind::ping:
      return "ping";
    case FrameKind::pong:
      return "pong";
  }
  return "text";
}

std::string hex(std::string_view bytes) {
  constexpr const char* digits = "0123456789abcdef";
  std::string out;
  out.reserve(bytes.size() * 2);
  for (const unsigned char b : bytes) {
    out += digits[b >> 4];
    out += digits[b & 0xf];
  }
  return out;
}

json::value optional(const std::optional<std::string>& text) {
  return text ? json::value(*text) : json::value(nullptr);
}

RealtimeOrder closeOrder(std::uint16_t code, std::string reason) {
  // Cut on a UTF-8 boundary: the reason must stay valid text.
  if (reason.size() > kMaxCloseReason) {
    auto end = kMaxCloseReason;
    while (end > 0 && (static_cast<unsigned char>(reason[end]) & 0xc0) == 0x80) --end;
    reason.resize(end);
  }
  return {RealtimeOrder::Kind::close, std::make_shared<const std::string>(std::move(reason)), code,
          1};
}

RealtimeOrder textOrder(const json::value& frame) {
  return {RealtimeOrder::Kind::text, std::make_shared<const std::string>(platform::toJSON(frame)),
          0, 1};
}

// The message's fields as the inbox's GraphQL route gives them to a client that asks for
// every field: absent ones as null.
json::object messageFrame(const InboxMessage& message) {
  json::object trackingIds;
  for (const auto& [name, id] : message.trackingIds) trackingIds[name] = id;
  return {{"type", "message"},
          {"messageId", message.messageId},
          {"title", optional(message.title)},
          {"body", optional(message.body)},
          {"preview", optional(message.preview)},
          {"actions", message.actions},
          {"data", message.data ? json::value(*message.data) : json::value(nullptr)},
          {"trackingIds", std::move(trackingIds)},
          {"created", message.created},
          {"read", optional(message.read)},
          {"opened", optional(message.opened)},
          {"archived", optional(message.archived)}};
}

// Why an optional member of the subscribe data has the wrong type, or none.
std::optional<std::string> optionalText(const json::object& data, std::string_view key,
                                        std::optional<std::string>& out) {
  const auto* value = data.if_contains(key);
  if (!value || value->is_null()) return std::nullopt;
  if (!value->is_string())
    return "subscribe: \"" + std::string(key) + "\" must be a string, not " +
           platform::describeJSONKind(*value);
  out = std::string(value->as_string());
  return std::nullopt;
}

}  // namespace

Realtime::Realtime(const Accounts& accounts, Journal& journal)
    : accounts_(accounts), journal_(journal) {}

bool Realtime::isSocketPath(std::string_view path) {
  return path == "/realtime" || path == "/realtime/";
}

std::variant<RealtimeCredential, Response> Realtime::admit(const Request& upgrade) const {
  if (const auto token = upgrade.queryValue("auth")) {
    auto user = accounts_.tokenUser(*token);
    if (auto* refusal = std::get_if<Response>(&user)) return std::move(*refusal);
    return RealtimeCredential{std::move(std::get<std::string>(user))};
  }
  if (const auto key = upgrade.queryValue("clientKey")) {
    if (!accounts_.isClientKey(*key)) return unauthenticated("The client key is not valid");
    return RealtimeCredential{};
  }
  return unauthenticated(
      "No credentials: connect to /realtime/?auth=<access token> or "
      "/realtime/?clientKey=<client key>");
}

std::uint64_t Realtime::open(std::shared_ptr<RealtimeConnection> connection,
                             RealtimeCredential credential, std::string path) {
  std::lock_guard lock(mutex_);
  const auto id = ++lastId_;
  connections_.emplace(id, Connection{std::move(connection), std::move(credential),
                                      std::move(path)});
  return id;
}

void Realtime::journal(const Connection& connection, std::uint64_t id, std::string_view direction,
                       FrameKind kind, std::string_view payload, std::uint16_t closeCode) {
  json::object entry{{"method", "FRAME"},
                     {"path", connection.path},
                     {"connection", id},
                     {"direction", direction},
                     {"kind", kindName(kind)},
                     {"body", kind == FrameKind::binary ? hex(payload) : std::string(payload)}};
  if (kind == FrameKind::close) entry["code"] = closeCode;
  journal_.record(std::move(entry));
}

void Realtime::received(std::uint64_t id, FrameKind kind, std::string_view payload,
                        std::uint16_t closeCode) {
  std::lock_guard lock(mutex_);
  const auto found = connections_.find(id);
  if (found == connections_.end()) return;
  auto& connection = found->second;
  journal(connection, id, "received", kind, payload, closeCode);
  ++connection.framesIn;
  if (connection.stalled) return;
  std::optional<std::pair<std::uint16_t, std::string>> refusal;
  if (kind == FrameKind::binary)
    refusal = {kUnsupportedData, "only text frames are taken here, not binary ones"};
  else if (kind == FrameKind::text)
    refusal = take(connection, payload);
  if (refusal) connection.peer->perform(closeOrder(refusal->first, std::move(refusal->second)));
}

std::optional<std::pair<std::uint16_t, std::string>> Realtime::take(Connection& connection,
                                                                    std::string_view text) {
  auto refuse = [](std::string why) {
    return std::optional<std::pair<std::uint16_t, std::string>>({kPolicyViolation, why});
  };
  const auto parsed = platform::tryParseJSON(text);
  if (!parsed || !parsed->is_object()) return refuse("a frame must be a JSON object");
  const auto& frame = parsed->as_object();
  const auto* action = frame.if_contains("action");
  if (!action || !action->is_string()) return refuse("a frame must name its \"action\"");
  if (action->as_string() == "keepAlive") {
    ++connection.keepAlives;
    return std::nullopt;
  }
  if (action->as_string() != "subscribe")
    return refuse("unknown action \"" + std::string(action->as_string()) +
                  "\" (subscribe, keepAlive)");

  const auto* data = frame.if_contains("data");
  if (!data || !data->is_object()) return refuse("subscribe: \"data\" must be an object");
  const auto& fields = data->as_object();
  const auto* channel = fields.if_contains("channel");
  if (!channel || !channel->is_string() || channel->as_string().empty())
    return refuse("subscribe: \"channel\" must name the user");
  const std::string user(channel->as_string());
  if (connection.credential.tokenUser && *connection.credential.tokenUser != user)
    return refuse("the access token is for user \"" + *connection.credential.tokenUser +
                  "\", not for channel \"" + user + "\"");
  std::optional<std::string> clientKey, clientSourceId, accountId, userAgent;
  for (auto [key, out] : {std::pair{"clientKey", &clientKey},
                          {"clientSourceId", &clientSourceId},
                          {"accountId", &accountId},
                          {"userAgent", &userAgent}})
    if (auto problem = optionalText(fields, key, *out)) return refuse(*problem);
  if (clientKey && !accounts_.isClientKey(*clientKey))
    return refuse("subscribe: \"clientKey\" is not this account's client key");
  std::optional<std::int64_t> version;
  if (const auto* given = fields.if_contains("version"); given && !given->is_null()) {
    if (!given->is_int64()) return refuse("subscribe: \"version\" must be an integer");
    version = given->as_int64();
  }
  // A second subscribe replaces the first.
  connection.subscribed = true;
  connection.user = user;
  connection.clientSourceId = std::move(clientSourceId);
  connection.accountId = std::move(accountId);
  connection.userAgent = std::move(userAgent);
  connection.version = version;
  return std::nullopt;
}

void Realtime::sent(std::uint64_t id, FrameKind kind, std::string_view payload,
                    std::uint16_t closeCode) {
  std::lock_guard lock(mutex_);
  const auto found = connections_.find(id);
  if (found == connections_.end()) return;
  journal(found->second, id, "sent", kind, payload, closeCode);
  ++found->second.framesOut;
}

void Realtime::closed(std::uint64_t id) {
  std::lock_guard lock(mutex_);
  connections_.erase(id);
}

std::size_t Realtime::perform(const std::string& user, const RealtimeOrder& order) {
  std::lock_guard lock(mutex_);
  std::size_t reached = 0;
  for (auto& [id, connection] : connections_) {
    if (!connection.subscribed || connection.user != user) continue;
    if (order.kind == RealtimeOrder::Kind::stall) connection.stalled = true;
    connection.peer->perform(order);
    ++reached;
  }
  return reached;
}

std::size_t Realtime::endAll() {
  std::lock_guard lock(mutex_);
  for (auto& [id, connection] : connections_) connection.peer->end();
  return connections_.size();
}

std::size_t Realtime::openConnections() const {
  std::lock_guard lock(mutex_);
  return connections_.size();
}

void Realtime::forgetAll() {
  decltype(connections_) gone;
  {
    std::lock_guard lock(mutex_);
    gone.swap(connections_);
  }
  // A session may go with its last reference here: not under the lock.
}

json::object Realtime::connections() const {
  std::lock_guard lock(mutex_);
  json::array list;
  for (const auto& [id, c] : connections_)
    list.push_back(json::object{
        {"connection", id},
        {"user", c.subscribed ? json::value(c.user) : json::value(nullptr)},
        {"tokenUser", optional(c.credential.tokenUser)},
        {"clientSourceId", optional(c.clientSourceId)},
        {"accountId", optional(c.accountId)},
        {"userAgent", optional(c.userAgent)},
        {"version", c.version ? json::value(*c.version) : json::value(nullptr)},
        {"subscribed", c.subscribed},
        {"framesIn", c.framesIn},
        {"framesOut", c.framesOut},
        {"keepAlives", c.keepAlives},
        {"stalled", c.stalled}});
  return {{"connections", std::move(list)}};
}

template <class Visit>
void Realtime::forEachReaching(const std::string& user, const std::optional<std::string>& tenant,
                               Visit visit) {
  for (auto& [id, connection] : connections_)
    if (connection.subscribed && connection.user == user &&
        (!connection.accountId || connection.accountId == tenant))
      visit(connection);
}

void Realtime::messageAdded(const InboxMessage& message) {
  std::lock_guard lock(mutex_);
  std::optional<RealtimeOrder> order;  // made once, and only when someone listens
  forEachReaching(message.user, message.tenant, [&](Connection& connection) {
    if (!order) order = textOrder(messageFrame(message));
    connection.peer->perform(*order);
  });
}

void Realtime::messageEvent(const std::string& user, std::string_view event,
                            const InboxMessage* message,
                            const std::optional<std::string>& source) {
  json::object frame{{"type", "event"}, {"event", event}};
  if (message) frame["messageId"] = message->messageId;
  const auto order = textOrder(frame);
  std::lock_guard lock(mutex_);
  // "mark-all-read" marks every message of the user, whatever its tenant.
  auto reach = [&](Connection& connection) {
    if (!source || connection.clientSourceId != source) connection.peer->perform(order);
  };
  if (message) {
    forEachReaching(user, message->tenant, reach);
  } else {
    for (auto& [id, connection] : connections_)
      if (connection.subscribed && connection.user == user) reach(connection);
  }
}

}  // namespace sandbox
