// The inbox's GraphQL route, as the service answers the inbox client's queries and mutations,
// and the sandbox's route that puts messages into a user's inbox.
//
// Requests are checked as a GraphQL server checks them before running anything: a document
// that does not parse, a field the type does not have (such as "content { title }" asked of
// a type without it), an unknown argument or a value of the wrong type is answered with 400
// and {"errors": [...]} and no "data", and no mutation runs. What can only fail while running
// (a message that is not there, a cursor that names none) is a field error: its field is null
// in "data" and the error is listed beside it, with 200.

#include <algorithm>
#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "graphql/request.hpp"
#include "inbox.hpp"
#include "platform/json.hpp"
#include "routes.hpp"

namespace sandbox {
namespace {

namespace json = boost::json;
using graphql::FieldGroup;
using graphql::Location;
using graphql::Selection;
using graphql::Sets;

// The same path as the client's localInboxGraphQLPath constant.
constexpr const char* kGraphQLPath = "/inbox/q";
constexpr std::int64_t kDefaultLimit = 10;
constexpr std::int64_t kMaxLimit = 100;

class InboxExecution : public graphql::Execution {
 public:
  InboxExecution(Inbox& inbox, const graphql::Call& call)
      : Execution(inboxSchema(), call.document, call.operation, call.variables),
        user_(call.user),
        inbox_(inbox),
        source_(call.request.header("x-herald-client-source-id")) {}

 private:
  json::value resolve(const FieldGroup& group) override {
    return isMutation() ? mutate(group) : query(group);
  }

  // What the schema cannot say: a status is "read" or "unread". A field error, since a
  // GraphQL server would take any string there and the resolver refuse it.
  static std::optional<std::string> statusProblem(const json::object& arguments) {
    const auto* params = arguments.if_contains("params");
    if (!params || !params->is_object()) return std::nullopt;
    const auto* status = params->as_object().if_contains("status");
    if (!status || !status->is_string() || status->as_string() == "read" ||
        status->as_string() == "unread")
      return std::nullopt;
    return "params.status takes \"read\" or \"unread\", not " + platform::toJSON(*status) + ".";
  }

  struct Filter {
    std::optional<std::string> tenant;
    std::optional<std::string> status;
    bool archived = false;  // the feed leaves archived messages out unless asked for them
  };

  static Filter filter(const json::object& arguments) {
    Filter result;
    const auto* params = arguments.if_contains("params");
    if (!params || !params->is_object()) return result;
    const auto& object = params->as_object();
    if (const auto* tenant = object.if_contains("accountId"); tenant && tenant->is_string())
      result.tenant = std::string(tenant->as_string());
    if (const auto* status = object.if_contains("status"); status && status->is_string())
      result.status = std::string(status->as_string());
    if (const auto* archived = object.if_contains("archived"); archived && archived->is_bool())
      result.archived = archived->as_bool();
    return result;
  }

  const std::string& user() const { return user_; }

  std::vector<InboxMessage> matching(const Filter& filter) const {
    std::vector<InboxMessage> result;
    for (auto& message : inbox_.messages(user())) {
      if (filter.tenant && message.tenant != filter.tenant) continue;
      if (message.archived.has_value() != filter.archived) continue;
      if (filter.status && (*filter.status == "read") != message.read.has_value()) continue;
      result.push_back(std::move(message));
    }
    return result;
  }

  json::value query(const FieldGroup& group) {
    const auto arguments = args(group, "Query");
    const auto& name = group.field->name;
    if (const auto problem = statusProblem(arguments)) {
      fail(*problem, group.field->location, json::array{json::string(group.key)});
      return nullptr;
    }
    if (name == "count") return static_cast<std::int64_t>(matching(filter(arguments)).size());
    if (name == "message") {
      const std::string id(arguments.at("messageId").as_string());
      for (const auto& message : inbox_.messages(user()))
        if (message.messageId == id) return selectMessage(message, group.subsets);
      return nullptr;
    }
    return page(group, arguments);
  }

  // One page, newest first, of the messages after the cursor. A cursor is the id of the last
  // message of the page before, so it stays valid while new messages arrive at the top.
  json::value page(const FieldGroup& group, const json::object& arguments) {
    const json::array path{json::string(group.key)};
    const auto* limitArgument = arguments.if_contains("limit");
    const auto limit =
        limitArgument && limitArgument->is_int64() ? limitArgument->as_int64() : kDefaultLimit;
    if (limit < 0 || limit > kMaxLimit) {
      fail("limit must be from 0 to " + std::to_string(kMaxLimit) + ", not " +
               std::to_string(limit) + ".",
           group.field->location, path);
      return nullptr;
    }
    auto messages = matching(filter(arguments));
    const auto total = messages.size();
    if (const auto* after = arguments.if_contains("after"); after && after->is_string()) {
      const std::string cursor(after->as_string());
      std::optional<InboxMessage> anchor;
      for (auto& message : inbox_.messages(user()))
        if (message.messageId == cursor) anchor = std::move(message);
      if (!anchor) {
        fail("after: \"" + cursor + "\" is no cursor of this inbox.", group.field->location, path);
        return nullptr;
      }
      std::erase_if(messages, [&](const InboxMessage& m) {
        return m.createdMillis != anchor->createdMillis ? m.createdMillis > anchor->createdMillis
                                                        : m.sequence >= anchor->sequence;
      });
    }
    const bool hasNextPage = messages.size() > static_cast<std::size_t>(limit);
    if (hasNextPage) messages.resize(static_cast<std::size_t>(limit));

    json::object result;
    for (const auto& inner : collect("MessageConnection", group.subsets)) {
      const auto& name = inner.field->name;
      if (name == "__typename") {
        result[inner.key] = "MessageConnection";
      } else if (name == "totalCount") {
        result[inner.key] = static_cast<std::int64_t>(total);
      } else if (name == "nodes") {
        json::array nodes;
        for (const auto& message : messages) nodes.push_back(selectMessage(message, inner.subsets));
        result[inner.key] = std::move(nodes);
      } else {
        json::object info;
        for (const auto& leaf : collect("PageInfo", inner.subsets)) {
          if (leaf.field->name == "__typename")
            info[leaf.key] = "PageInfo";
          else if (leaf.field->name == "hasNextPage")
            info[leaf.key] = hasNextPage;
          else
            info[leaf.key] =
                messages.empty() ? json::value(nullptr) : json::value(messages.back().messageId);
        }
        result[inner.key] = std::move(info);
      }
    }
    return result;
  }

  static json::value text(const std::optional<std::string>& value) {
    return value ? json::value(*value) : json::value(nullptr);
  }

  json::array selectActions(const json::array& actions, const Sets& sets) {
    json::array result;
    for (const auto& action : actions) {
      json::object out;
      for (const auto& field : collect("Action", sets)) {
        const auto* value = action.as_object().if_contains(field.field->name);
        out[field.key] = field.field->name == "__typename" ? json::value("Action")
                         : value                           ? *value
                                                           : json::value(nullptr);
      }
      result.push_back(std::move(out));
    }
    return result;
  }

  json::object selectMessage(const InboxMessage& message, const Sets& sets) {
    json::object out;
    for (const auto& group : collect("Message", sets)) {
      const auto& name = group.field->name;
      auto& slot = out[group.key];
      if (name == "__typename")
        slot = "Message";
      else if (name == "messageId")
        slot = message.messageId;
      else if (name == "title")
        slot = text(message.title);
      else if (name == "body")
        slot = text(message.body);
      else if (name == "preview")
        slot = text(message.preview);
      else if (name == "created")
        slot = message.created;
      else if (name == "read")
        slot = text(message.read);
      else if (name == "opened")
        slot = text(message.opened);
      else if (name == "archived")
        slot = text(message.archived);
      else if (name == "data")
        slot = message.data ? json::value(*message.data) : nullptr;
      else if (name == "actions")
        slot = selectActions(message.actions, group.subsets);
      else if (name == "trackingIds") {
        json::object ids;
        for (const auto& leaf : collect("TrackingIds", group.subsets)) {
          const auto found = message.trackingIds.find(leaf.field->name);
          ids[leaf.key] = leaf.field->name == "__typename"     ? json::value("TrackingIds")
                          : found != message.trackingIds.end() ? json::value(found->second)
                                                               : json::value(nullptr);
        }
        slot = std::move(ids);
      } else {  // content
        json::object content;
        for (const auto& leaf : collect("MessageContent", group.subsets)) {
          const auto& part = leaf.field->name;
          content[leaf.key] = part == "__typename" ? json::value("MessageContent")
                              : part == "title"    ? text(message.title)
                              : part == "body"     ? text(message.body)
                              : part == "preview"
                                  ? text(message.preview)
                                  : json::value(selectActions(message.actions, leaf.subsets));
        }
        slot = std::move(content);
      }
    }
    return out;
  }

  // Mutations run one after another in the order written, as GraphQL asks.
  json::value mutate(const FieldGroup& group) {
    const auto arguments = args(group, "Mutation");
    const auto& name = group.field->name;
    const auto now = timestampNow();
    if (name == "markAllRead") {
      inbox_.changeAll(user(), [&](InboxMessage& m) {
        if (!m.read) m.read = now;
      });
      inbox_.announce(user(), "mark-all-read", nullptr, source_);
      return true;
    }
    const std::string id(arguments.at("messageId").as_string());
    std::optional<std::string> refusal;
    const auto changed = inbox_.change(user(), id, [&](InboxMessage& m) {
      if (name == "read") {
        if (!m.read) m.read = now;
      } else if (name == "unread") {
        m.read.reset();
      } else if (name == "opened") {
        if (!m.opened) m.opened = now;
      } else if (name == "archive") {
        if (!m.archived) m.archived = now;
      } else {  // clicked
        const auto* tracking = arguments.if_contains("trackingId");
        const auto expected = m.trackingIds.find("clickTrackingId");
        if (tracking && tracking->is_string() &&
            (expected == m.trackingIds.end() || tracking->as_string() != expected->second))
          refusal = "trackingId \"" + std::string(tracking->as_string()) +
                    "\" is not the click tracking id of message \"" + id + "\".";
        else
          m.clicked = now;
      }
    });
    if (!changed || refusal) {
      fail(refusal ? *refusal : "User \"" + user() + "\" has no message \"" + id + "\".",
           group.field->location, json::array{json::string(group.key)});
      return nullptr;
    }
    // Every mutation that answers true is an event for the user's other connections, also
    // when the message was already so: they hear what clients ask, as the service tells them.
    inbox_.announce(user(), name == "clicked" ? std::string_view("click") : std::string_view(name),
                    &*changed, source_);
    return true;
  }

  std::string user_;
  Inbox& inbox_;
  std::optional<std::string> source_;  ///< "x-herald-client-source-id", told with each change
};

// GraphQL runs on several workers at once. The inbox guards each change itself; a mutation
// of several fields must also not interleave with another request's mutation of the same
// inbox, so the mutations of one user take turns.
class MutationTurns {
 public:
  std::unique_lock<std::mutex> take(const std::string& user) {
    std::shared_ptr<std::mutex> turn;
    {
      std::lock_guard lock(mutex_);
      auto& slot = turns_[user];
      if (!slot) slot = std::make_shared<std::mutex>();
      turn = slot;
    }
    return std::unique_lock(*turn);  // the map keeps the mutex for as long as the process
  }

 private:
  std::mutex mutex_;
  std::map<std::string, std::shared_ptr<std::mutex>> turns_;
};

Response graphQL(Accounts& accounts, Inbox& inbox, const graphql::Limits& limits,
                 MutationTurns& turns, const Request& request) {
  return graphql::answer(accounts, inboxSchema(), limits, request, [&](const graphql::Call& call) {
    std::unique_lock<std::mutex> turn;
    if (call.operation.kind == graphql::Operation::Kind::mutation) turn = turns.take(call.user);
    InboxExecution execution(inbox, call);
    return graphql::execute(execution, call.limits);
  });
}

std::optional<std::string> optionalText(const json::object& body, std::string_view key) {
  const auto* value = body.if_contains(key);
  if (!value || value->is_null()) return std::nullopt;
  if (!value->is_string())
    throw BadRequest("\"" + std::string(key) + "\" must be a string, not " +
                     platform::describeJSONKind(*value));
  return std::string(value->as_string());
}

Response addMessage(Inbox& inbox, const Request& request) {
  const auto segments = request.segments();
  if (segments.size() != 4 || segments[2].empty() || segments[3] != "messages")
    return Response::error(404, "no route for " + request.method + " " + request.path +
                                    " (the path is /_sandbox/users/<user id>/messages)");
  const auto body = request.jsonObject();
  static const std::set<std::string_view> known{"title", "body",    "preview", "actions",
                                                "data",  "created", "tenant"};
  for (const auto& [key, value] : body)
    if (!known.count(std::string_view(key)))
      throw BadRequest("unknown key \"" + std::string(key) +
                       "\" (a message has title, body, preview, actions, data, created, tenant)");
  InboxMessage message;
  message.user = segments[2];
  message.title = optionalText(body, "title");
  message.body = optionalText(body, "body");
  message.preview = optionalText(body, "preview");
  message.tenant = optionalText(body, "tenant");
  if (message.tenant && message.tenant->empty())
    throw BadRequest("\"tenant\" must not be empty (leave it out for no tenant)");
  if (const auto created = optionalText(body, "created")) {
    if (!parseTimestamp(*created))
      throw BadRequest(
          "\"created\" must be a time as \"2026-11-23T13:41:44.123Z\" (seconds, "
          "optional fraction, Z or +HH:MM), not \"" +
          *created + "\"");
    message.created = *created;
  }
  if (const auto* data = body.if_contains("data"); data && !data->is_null()) {
    if (!data->is_object())
      throw BadRequest("\"data\" must be an object, not " + platform::describeJSONKind(*data));
    message.data = data->as_object();
  }
  if (const auto* actions = body.if_contains("actions"); actions && !actions->is_null()) {
    if (!actions->is_array())
      throw BadRequest("\"actions\" must be an array, not " + platform::describeJSONKind(*actions));
    for (const auto& action : actions->as_array()) {
      if (!action.is_object())
        throw BadRequest("each action must be an object, not " +
                         platform::describeJSONKind(action));
      for (const auto& [key, value] : action.as_object()) {
        const bool isData = key == "data";
        if (!isData && key != "content" && key != "href" && key != "background_color" &&
            key != "style")
          throw BadRequest("unknown action key \"" + std::string(key) +
                           "\" (an action has content, href, data, background_color, style)");
        if (isData ? !(value.is_object() || value.is_null())
                   : !(value.is_string() || value.is_null()))
          throw BadRequest("action \"" + std::string(key) + "\" must be " +
                           (isData ? "an object" : "a string") + ", not " +
                           platform::describeJSONKind(value));
      }
      message.actions.push_back(action);
    }
  }
  return Response::json(200,
                        toJSON(addInboxMessage(inbox, std::move(message), trackingBase(request))));
}

}  // namespace

InboxMessage addInboxMessage(Inbox& inbox, InboxMessage message, const std::string& trackingBase) {
  return inbox.add(std::move(message), [&](const std::string& id) {
    std::map<std::string, std::string> ids;
    for (const auto& [field, event] : {std::pair{"archiveTrackingId", "archive"},
                                       {"openTrackingId", "open"},
                                       {"clickTrackingId", "click"},
                                       {"deliverTrackingId", "deliver"},
                                       {"unreadTrackingId", "unread"},
                                       {"readTrackingId", "read"}})
      ids[field] = trackingBase + id + "/" + event;
    return ids;
  });
}

void addInboxRoutes(Router& router, Accounts& accounts, Inbox& inbox,
                    const graphql::Limits& limits) {
  static MutationTurns turns;
  router.add(
      "POST", kGraphQLPath,
      [&](const Request& request, std::string_view) {
        return graphQL(accounts, inbox, limits, turns, request);
      },
      Router::Runs::onWorker);
  router.add(
      "POST", "/_sandbox/users/*/messages",
      [&inbox](const Request& request, std::string_view) { return addMessage(inbox, request); });
}

}  // namespace sandbox
