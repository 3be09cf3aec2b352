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
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdlib>
#include <map>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "graphql.hpp"
#include "inbox.hpp"
#include "platform/json.hpp"
#include "routes.hpp"

namespace sandbox {
namespace {

namespace json = boost::json;
using graphql::Location;
using graphql::Selection;

// The same path as the client's localInboxGraphQLPath constant.
constexpr const char* kGraphQLPath = "/inbox/q";
constexpr std::int64_t kDefaultLimit = 10;
constexpr std::int64_t kMaxLimit = 100;

json::object errorObject(const std::string& message, std::optional<Location> location = {},
                         json::array path = {}) {
  json::object error{{"message", message}};
  if (location)
    error["locations"] =
        json::array{json::object{{"line", static_cast<std::int64_t>(location->line)},
                                 {"column", static_cast<std::int64_t>(location->column)}}};
  if (!path.empty()) error["path"] = std::move(path);
  return error;
}

Response requestErrors(json::array errors) {
  return Response::json(400, json::object{{"errors", std::move(errors)}});
}

// The schema: the fields of each output type with their arguments. Leaf types are the
// scalars; "JSON" is any JSON value. List-valued fields are marked in the resolvers.
struct ArgumentSpec {
  std::string_view name;
  std::string_view type;
  bool required = false;
};
struct FieldSpec {
  std::string_view name;
  std::string_view type;
  std::vector<ArgumentSpec> arguments;
};

const std::map<std::string_view, std::vector<FieldSpec>>& schema() {
  static const auto types = [] {
    std::map<std::string_view, std::vector<FieldSpec>> t;
    const std::vector<ArgumentSpec> byId{{"messageId", "String", true}};
    t["Query"] = {{"count", "Int", {{"params", "FilterParamsInput"}}},
                  {"messages",
                   "MessageConnection",
                   {{"params", "FilterParamsInput"}, {"limit", "Int"}, {"after", "String"}}},
                  {"message", "Message", byId}};
    t["Mutation"] = {
        {"clicked", "Boolean", {{"messageId", "String", true}, {"trackingId", "String"}}},
        {"read", "Boolean", byId},
        {"unread", "Boolean", byId},
        {"opened", "Boolean", byId},
        {"archive", "Boolean", byId},
        {"markAllRead", "Boolean", {}}};
    t["MessageConnection"] = {
        {"totalCount", "Int", {}}, {"pageInfo", "PageInfo", {}}, {"nodes", "Message", {}}};
    t["PageInfo"] = {{"startCursor", "String", {}}, {"hasNextPage", "Boolean", {}}};
    t["Message"] = {{"messageId", "String", {}},
                    {"title", "String", {}},
                    {"body", "String", {}},
                    {"preview", "String", {}},
                    {"data", "JSON", {}},
                    {"actions", "Action", {}},
                    {"trackingIds", "TrackingIds", {}},
                    {"created", "String", {}},
                    {"read", "String", {}},
                    {"opened", "String", {}},
                    {"archived", "String", {}},
                    {"content", "MessageContent", {}}};
    t["MessageContent"] = {{"title", "String", {}},
                           {"body", "String", {}},
                           {"preview", "String", {}},
                           {"actions", "Action", {}}};
    t["Action"] = {{"content", "String", {}},
                   {"href", "String", {}},
                   {"background_color", "String", {}},
                   {"style", "String", {}},
                   {"data", "JSON", {}}};
    t["TrackingIds"] = {{"archiveTrackingId", "String", {}}, {"openTrackingId", "String", {}},
                        {"clickTrackingId", "String", {}},   {"deliverTrackingId", "String", {}},
                        {"unreadTrackingId", "String", {}},  {"readTrackingId", "String", {}}};
    return t;
  }();
  return types;
}

bool isLeaf(std::string_view type) {
  return type == "Int" || type == "String" || type == "Boolean" || type == "JSON";
}

const FieldSpec* findField(std::string_view type, std::string_view name) {
  const auto& fields = schema().at(type);
  for (const auto& field : fields)
    if (field.name == name) return &field;
  return nullptr;
}

// The inputs' fields; every one may be null or left out.
const std::map<std::string_view, std::string_view> kFilterFields{
    {"accountId", "String"}, {"status", "String"}, {"archived", "Boolean"}};

// Why `value` cannot stand for `type`, or nothing when it can. Null is left to the caller.
std::optional<std::string> checkInput(const json::value& value, std::string_view type) {
  if (value.is_null()) return std::nullopt;
  if (type == "Int") {
    if (!value.is_int64() || value.as_int64() < INT32_MIN || value.as_int64() > INT32_MAX)
      return "Int cannot represent " + platform::toJSON(value) +
             " (a whole number of 32 bits is needed).";
  } else if (type == "String") {
    if (!value.is_string())
      return "String cannot represent a non string value: " + platform::toJSON(value) + ".";
  } else if (type == "Boolean") {
    if (!value.is_bool())
      return "Boolean cannot represent a non boolean value: " + platform::toJSON(value) + ".";
  } else if (type == "FilterParamsInput") {
    if (!value.is_object())
      return "FilterParamsInput must be an input object, not " + platform::toJSON(value) + ".";
    for (const auto& [key, field] : value.as_object()) {
      const auto known = kFilterFields.find(std::string_view(key));
      if (known == kFilterFields.end())
        return "Field \"" + std::string(key) +
               "\" is not defined by type \"FilterParamsInput\" (it has accountId, status, "
               "archived).";
      if (auto problem = checkInput(field, known->second))
        return "In field \"" + std::string(key) + "\": " + *problem;
      if (key == "status" && field.is_string() && field.as_string() != "read" &&
          field.as_string() != "unread")
        return "In field \"status\": it takes \"read\" or \"unread\", not " +
               platform::toJSON(field) + ".";
    }
  } else {
    return "Unknown type \"" + std::string(type) + "\".";
  }
  return std::nullopt;
}

using Sets = std::vector<const std::vector<Selection>*>;

// Fields of one response key, merged from every place they were asked for.
struct FieldGroup {
  std::string key;
  const Selection* field = nullptr;
  Sets subsets;
};

class Execution {
 public:
  /// `source` is the request's client source id, told with every change made.
  Execution(Inbox& inbox, std::string user, std::optional<std::string> source,
            const graphql::Document& document, const graphql::Operation& operation,
            const json::object& variables)
      : inbox_(inbox),
        user_(std::move(user)),
        source_(std::move(source)),
        document_(document),
        operation_(operation) {
    for (const auto& definition : operation.variables) {
      definitions_[definition.name] = &definition;
      json::value value = nullptr;
      if (const auto* given = variables.if_contains(definition.name)) {
        value = *given;
      } else if (definition.defaultValue) {
        value = literal(*definition.defaultValue, definition.location);
      }
      if (value.is_null() && definition.nonNull) {
        errors_.push_back(errorObject("Variable \"$" + definition.name + "\" of required type \"" +
                                          definition.type + "\" was not provided.",
                                      definition.location));
        continue;
      }
      if (definition.type != definition.namedType &&
          definition.type != definition.namedType + "!") {
        errors_.push_back(errorObject("Variable \"$" + definition.name + "\": list types (\"" +
                                          definition.type + "\") are not taken anywhere here.",
                                      definition.location));
        continue;
      }
      if (auto problem = checkInput(value, definition.namedType))
        errors_.push_back(
            errorObject("Variable \"$" + definition.name + "\" got an invalid value: " + *problem,
                        definition.location));
      variables_[definition.name] = std::move(value);
    }
  }

  /// Every reason not to run the operation; empty when it may run.
  json::array validate() {
    validating_ = true;
    validateSet(rootType(), Sets{&operation_.selections});
    validating_ = false;
    return std::move(errors_);
  }

  /// {"data": ..., "errors": [...]} of a validated operation.
  json::object run() {
    json::object data;
    for (const auto& group : collect(rootType(), Sets{&operation_.selections})) {
      if (group.field->name == "__typename") {
        data[group.key] = rootType();
        continue;
      }
      data[group.key] =
          operation_.kind == graphql::Operation::Kind::mutation ? mutate(group) : query(group);
    }
    json::object answer{{"data", std::move(data)}};
    if (!errors_.empty()) answer["errors"] = std::move(errors_);
    return answer;
  }

 private:
  std::string_view rootType() const {
    return operation_.kind == graphql::Operation::Kind::mutation ? "Mutation" : "Query";
  }

  void fail(const std::string& message, Location location, json::array path = {}) {
    errors_.push_back(errorObject(message, location, std::move(path)));
  }

  // A literal as JSON, with the variables in it replaced by their values.
  json::value literal(const graphql::Value& value, Location where) {
    using Kind = graphql::Value::Kind;
    switch (value.kind) {
      case Kind::null:
        return nullptr;
      case Kind::boolean:
        return value.boolean;
      case Kind::string:
        return json::string(value.text);
      case Kind::integer: {
        std::int64_t number = 0;
        const auto* end = value.text.data() + value.text.size();
        const auto [last, error] = std::from_chars(value.text.data(), end, number);
        if (error == std::errc() && last == end) return number;
        [[fallthrough]];  // beyond 64 bits: a double, which Int then refuses
      }
      case Kind::floating: {
        const double number = std::strtod(value.text.c_str(), nullptr);
        if (std::isfinite(number)) return number;
        fail("The number " + value.text.substr(0, 20) + (value.text.size() > 20 ? "…" : "") +
                 " is out of range.",
             value.location);
        return nullptr;
      }
      case Kind::enumeration:
        // No enum types here: an enum literal fits nowhere, so it is kept apart from strings.
        fail("Enum value " + value.text + " fits no argument here; strings are quoted.",
             value.location);
        return nullptr;
      case Kind::variable: {
        const auto found = variables_.find(value.text);
        if (found == variables_.end()) {
          if (!definitions_.count(value.text))
            fail("Variable \"$" + value.text + "\" is not defined by operation \"" +
                     operation_.name + "\".",
                 value.location);
          return nullptr;
        }
        return found->second;
      }
      case Kind::list: {
        json::array items;
        for (const auto& item : value.items) items.push_back(literal(item, where));
        return items;
      }
      case Kind::object: {
        json::object fields;
        for (const auto& [name, field] : value.fields) {
          if (fields.contains(name))
            fail("There can be only one input field named \"" + name + "\".", field.location);
          fields[name] = literal(field, where);
        }
        return fields;
      }
    }
    return nullptr;
  }

  void checkVariableType(const graphql::Value& value, std::string_view type) {
    if (value.kind != graphql::Value::Kind::variable) return;
    const auto found = definitions_.find(value.text);
    if (found != definitions_.end() && found->second->namedType != type)
      fail("Variable \"$" + value.text + "\" of type \"" + found->second->type +
               "\" used in position expecting type \"" + std::string(type) + "\".",
           value.location);
  }

  json::object arguments(const Selection& field, const FieldSpec& spec) {
    json::object result;
    for (const auto& argument : field.arguments) {
      const ArgumentSpec* known = nullptr;
      for (const auto& candidate : spec.arguments)
        if (candidate.name == argument.name) known = &candidate;
      if (!known) {
        fail("Unknown argument \"" + argument.name + "\" on field \"" + field.name + "\".",
             argument.location);
        continue;
      }
      if (validating_) checkVariableType(argument.value, known->type);
      auto value = literal(argument.value, argument.location);
      if (auto problem = checkInput(value, known->type))
        fail("Argument \"" + argument.name + "\" has an invalid value: " + *problem,
             argument.value.location);
      result[argument.name] = std::move(value);
    }
    for (const auto& expected : spec.arguments) {
      const auto* given = result.if_contains(expected.name);
      if (expected.required && (!given || given->is_null()))
        fail("Field \"" + field.name + "\" argument \"" + std::string(expected.name) +
                 "\" of type \"" + std::string(expected.type) + "!\" is required, but " +
                 (given ? "it is null." : "it was not provided."),
             field.location);
    }
    return result;
  }

  // Whether @skip and @include leave the selection in.
  bool included(const std::vector<graphql::Directive>& directives) {
    bool keep = true;
    for (const auto& directive : directives) {
      if (directive.name != "skip" && directive.name != "include") {
        fail("Unknown directive \"@" + directive.name + "\".", directive.location);
        continue;
      }
      std::optional<bool> condition;
      for (const auto& argument : directive.arguments) {
        const auto value = literal(argument.value, argument.location);
        if (argument.name == "if" && value.is_bool()) condition = value.as_bool();
      }
      if (!condition) {
        fail("Directive \"@" + directive.name + "\" needs the Boolean argument \"if\".",
             directive.location);
        continue;
      }
      if (*condition == (directive.name == "skip")) keep = false;
    }
    return keep;
  }

  void collectInto(std::string_view type, const std::vector<Selection>& set,
                   std::vector<FieldGroup>& groups, std::set<std::string>& spreading) {
    for (const auto& selection : set) {
      if (!included(selection.directives)) continue;
      if (selection.kind == Selection::Kind::field) {
        auto found = std::find_if(groups.begin(), groups.end(), [&](const FieldGroup& g) {
          return g.key == selection.responseKey();
        });
        if (found == groups.end()) {
          groups.push_back(FieldGroup{selection.responseKey(), &selection, {}});
          found = groups.end() - 1;
        } else if (found->field->name != selection.name) {
          fail("Fields \"" + found->key + "\" conflict because " + found->field->name + " and " +
                   selection.name + " are different fields.",
               selection.location);
        }
        found->subsets.push_back(&selection.selections);
        continue;
      }
      const std::vector<Selection>* inner = &selection.selections;
      std::string condition = selection.typeCondition;
      if (selection.kind == Selection::Kind::fragmentSpread) {
        const graphql::Fragment* fragment = nullptr;
        for (const auto& candidate : document_.fragments)
          if (candidate.name == selection.name) fragment = &candidate;
        if (!fragment) {
          fail("Unknown fragment \"" + selection.name + "\".", selection.location);
          continue;
        }
        if (spreading.count(fragment->name)) {
          fail("Cannot spread fragment \"" + fragment->name + "\" within itself.",
               selection.location);
          continue;
        }
        if (!included(fragment->directives)) continue;
        inner = &fragment->selections;
        condition = fragment->typeCondition;
        spreading.insert(fragment->name);
        if (condition.empty() || condition == type)
          collectInto(type, *inner, groups, spreading);
        else if (!schema().count(condition))
          fail("Unknown type \"" + condition + "\".", selection.location);
        else
          fail("Fragment \"" + fragment->name + "\" cannot be spread here as objects of type \"" +
                   std::string(type) + "\" can never be of type \"" + condition + "\".",
               selection.location);
        spreading.erase(fragment->name);
        continue;
      }
      if (condition.empty() || condition == type)
        collectInto(type, *inner, groups, spreading);
      else
        fail("An inline fragment on \"" + condition + "\" cannot be spread within \"" +
                 std::string(type) + "\".",
             selection.location);
    }
  }

  std::vector<FieldGroup> collect(std::string_view type, const Sets& sets) {
    std::vector<FieldGroup> groups;
    std::set<std::string> spreading;
    for (const auto* set : sets) collectInto(type, *set, groups, spreading);
    return groups;
  }

  static bool hasSelections(const Sets& sets) {
    for (const auto* set : sets)
      if (!set->empty()) return true;
    return false;
  }

  void validateSet(std::string_view type, const Sets& sets) {
    for (const auto& group : collect(type, sets)) {
      const auto& field = *group.field;
      if (field.name == "__typename") {
        if (hasSelections(group.subsets))
          fail(
              "Field \"__typename\" must not have a selection since type \"String\" has no "
              "subfields.",
              field.location);
        continue;
      }
      const auto* spec = findField(type, field.name);
      if (!spec) {
        fail("Cannot query field \"" + field.name + "\" on type \"" + std::string(type) + "\".",
             field.location);
        continue;
      }
      arguments(field, *spec);
      if (isLeaf(spec->type) && hasSelections(group.subsets))
        fail("Field \"" + field.name + "\" must not have a selection since type \"" +
                 std::string(spec->type) + "\" has no subfields.",
             field.location);
      else if (!isLeaf(spec->type) && !hasSelections(group.subsets))
        fail("Field \"" + field.name + "\" of type \"" + std::string(spec->type) +
                 "\" must have a selection of subfields.",
             field.location);
      else if (!isLeaf(spec->type))
        validateSet(spec->type, group.subsets);
    }
  }

  json::object args(const FieldGroup& group, std::string_view type) {
    return arguments(*group.field, *findField(type, group.field->name));
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

  std::vector<InboxMessage> matching(const Filter& filter) const {
    std::vector<InboxMessage> result;
    for (auto& message : inbox_.messages(user_)) {
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
    if (name == "count") return static_cast<std::int64_t>(matching(filter(arguments)).size());
    if (name == "message") {
      const std::string id(arguments.at("messageId").as_string());
      for (const auto& message : inbox_.messages(user_))
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
      for (auto& message : inbox_.messages(user_))
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
      inbox_.changeAll(user_, [&](InboxMessage& m) {
        if (!m.read) m.read = now;
      });
      inbox_.announce(user_, "mark-all-read", nullptr, source_);
      return true;
    }
    const std::string id(arguments.at("messageId").as_string());
    std::optional<std::string> refusal;
    const auto changed = inbox_.change(user_, id, [&](InboxMessage& m) {
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
      fail(refusal ? *refusal : "User \"" + user_ + "\" has no message \"" + id + "\".",
           group.field->location, json::array{json::string(group.key)});
      return nullptr;
    }
    // Every mutation that answers true is an event for the user's other connections, also
    // when the message was already so: they hear what clients ask, as the service tells them.
    inbox_.announce(user_, name == "clicked" ? std::string_view("click") : std::string_view(name),
                    &*changed, source_);
    return true;
  }

  Inbox& inbox_;
  std::string user_;
  std::optional<std::string> source_;
  const graphql::Document& document_;
  const graphql::Operation& operation_;
  std::map<std::string, const graphql::VariableDefinition*> definitions_;
  std::map<std::string, json::value> variables_;
  json::array errors_;
  bool validating_ = false;
};

// The request's variables: a JSON object, or (as the inbox client sends them) a string that
// holds one; none at all is an empty object.
std::optional<json::object> variablesOf(const json::object& body) {
  const auto* given = body.if_contains("variables");
  if (!given || given->is_null()) return json::object{};
  if (given->is_object()) return given->as_object();
  if (!given->is_string()) return std::nullopt;
  if (given->as_string().empty()) return json::object{};
  const auto parsed = platform::tryParseJSON(given->as_string());
  if (!parsed || !parsed->is_object()) return std::nullopt;
  return parsed->as_object();
}

Response graphQL(Accounts& accounts, Inbox& inbox, const Request& request) {
  const auto user = request.header("x-herald-user-id");
  if (!user || user->empty())
    return Response::error(400, "the request has no x-herald-user-id header naming the user");
  if (auto refusal = accounts.authorize(request, *user, ClientKey::accepted)) return *refusal;

  const auto parsed = platform::tryParseJSON(request.body);
  if (!parsed || !parsed->is_object())
    return requestErrors({errorObject(
        "The body must be a JSON object {\"query\": \"...\", \"variables\": {...}}.")});
  const auto& body = parsed->as_object();
  const auto* query = body.if_contains("query");
  if (!query || !query->is_string())
    return requestErrors(
        {errorObject("The body must hold the document as a string in \"query\".")});
  const auto variables = variablesOf(body);
  if (!variables)
    return requestErrors(
        {errorObject("\"variables\" must be an object, or a string that holds a JSON object.")});
  const auto* operationName = body.if_contains("operationName");
  if (operationName && !operationName->is_null() && !operationName->is_string())
    return requestErrors({errorObject("\"operationName\" must be a string.")});

  graphql::Document document;
  try {
    document = graphql::parse(query->as_string());
  } catch (const graphql::SyntaxError& e) {
    return requestErrors({errorObject(e.what(), e.location)});
  }
  const graphql::Operation* operation = nullptr;
  if (operationName && operationName->is_string()) {
    for (const auto& candidate : document.operations)
      if (candidate.name == operationName->as_string()) operation = &candidate;
    if (!operation)
      return requestErrors({errorObject("Unknown operation named \"" +
                                        std::string(operationName->as_string()) + "\".")});
  } else if (document.operations.size() == 1) {
    operation = &document.operations.front();
  } else {
    return requestErrors(
        {errorObject(document.operations.empty()
                         ? "The document holds no operation, only fragments."
                         : "Must provide operation name if query contains multiple operations.")});
  }
  if (operation->kind == graphql::Operation::Kind::subscription)
    return requestErrors({errorObject(
        "Subscriptions are not served here: new messages come over the realtime socket.",
        operation->location)});

  Execution execution(inbox, *user, request.header("x-herald-client-source-id"), document,
                      *operation, *variables);
  auto errors = execution.validate();
  if (!errors.empty()) return requestErrors(std::move(errors));
  return Response::json(200, execution.run());
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

void addInboxRoutes(Router& router, Accounts& accounts, Inbox& inbox) {
  router.add("POST", kGraphQLPath, [&](const Request& request, std::string_view) {
    return graphQL(accounts, inbox, request);
  });
  router.add(
      "POST", "/_sandbox/users/*/messages",
      [&inbox](const Request& request, std::string_view) { return addMessage(inbox, request); });
}

}  // namespace sandbox
