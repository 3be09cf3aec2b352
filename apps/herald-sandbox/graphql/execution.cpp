#include "execution.hpp"

#include <algorithm>
#include <charconv>
#include <climits>
#include <cmath>
#include <cstdint>
#include <cstdlib>

#include "introspection.hpp"
#include "platform/json.hpp"
#include "typeref.hpp"

namespace sandbox::graphql {
namespace {

namespace json = boost::json;

// A list whose length only the data knows (a message's actions) is weighed as this long.
constexpr std::size_t kListEstimate = 10;

// Why a JSON value cannot stand for the input type `type`, or nothing; input objects get
// their defaults filled in. `path` names where inside the variable the fault is.
std::optional<std::string> coerce(const Schema& schema, json::value& value, std::string_view type,
                                  std::string& path) {
  if (value.is_null()) {
    if (typeref::isNonNull(type))
      return "Expected non-nullable type \"" + std::string(type) + "\" not to be null.";
    return std::nullopt;
  }
  type = typeref::nullable(type);
  if (typeref::isList(type)) {
    const auto item = typeref::ofType(type);
    if (!value.is_array()) {
      json::value single = value;
      if (auto problem = coerce(schema, single, item, path)) return problem;
      value = json::array{std::move(single)};
      return std::nullopt;
    }
    auto& items = value.as_array();
    for (std::size_t i = 0; i < items.size(); ++i) {
      const auto length = path.size();
      path += "[" + std::to_string(i) + "]";
      if (auto problem = coerce(schema, items[i], item, path)) return problem;
      path.resize(length);
    }
    return std::nullopt;
  }
  const auto* named = schema.type(type);
  if (!named) return "Unknown type \"" + std::string(type) + "\".";
  const auto text = platform::toJSON(value);
  switch (named->kind) {
    case TypeKind::inputObject: {
      if (!value.is_object()) return "Expected type \"" + named->name + "\" to be an object.";
      auto& object = value.as_object();
      for (const auto& [key, field] : object)
        if (!named->inputField(key))
          return "Field \"" + std::string(key) + "\" is not defined by type \"" + named->name +
                 "\".";
      for (const auto& field : named->inputFields) {
        auto* given = object.if_contains(field.name);
        if (!given) {
          if (typeref::isNonNull(field.type) && !field.defaultValue)
            return "Field \"" + field.name + "\" of required type \"" + field.type +
                   "\" was not provided.";
          continue;
        }
        const auto length = path.size();
        path += "." + field.name;
        if (auto problem = coerce(schema, *given, field.type, path)) return problem;
        path.resize(length);
      }
      return std::nullopt;
    }
    case TypeKind::enumeration:
      if (!value.is_string())
        return "Enum \"" + named->name + "\" cannot represent non-string value: " + text + ".";
      for (const auto& candidate : named->enumValues)
        if (candidate.name == value.as_string()) return std::nullopt;
      return "Value " + text + " does not exist in \"" + named->name + "\" enum.";
    default:
      break;
  }
  if (named->name == "Int") {
    if (value.is_double() && std::floor(value.as_double()) == value.as_double() &&
        std::abs(value.as_double()) < 1e15)
      value = static_cast<std::int64_t>(value.as_double());
    if (value.is_uint64() && value.as_uint64() <= INT32_MAX)
      value = static_cast<std::int64_t>(value.as_uint64());
    if (!value.is_int64() && !value.is_uint64() && !value.is_double())
      return "Int cannot represent non-integer value: " + text;
    if (!value.is_int64() || value.as_int64() < INT32_MIN || value.as_int64() > INT32_MAX)
      return (value.is_double() ? "Int cannot represent non-integer value: "
                                : "Int cannot represent non 32-bit signed integer value: ") +
             text;
  } else if (named->name == "String") {
    if (!value.is_string()) return "String cannot represent a non string value: " + text;
  } else if (named->name == "Boolean") {
    if (!value.is_bool()) return "Boolean cannot represent a non boolean value: " + text;
  }
  return std::nullopt;  // JSON: any value
}

bool hasSelections(const Sets& sets) {
  for (const auto* set : sets)
    if (!set->empty()) return true;
  return false;
}

}  // namespace

json::object errorObject(const std::string& message, std::vector<Location> locations,
                         json::array path) {
  json::object error{{"message", message}};
  if (!locations.empty()) {
    json::array list;
    for (const auto& location : locations)
      list.push_back(json::object{{"line", static_cast<std::int64_t>(location.line)},
                                  {"column", static_cast<std::int64_t>(location.column)}});
    error["locations"] = std::move(list);
  }
  if (!path.empty()) error["path"] = std::move(path);
  return error;
}

Execution::Execution(const Schema& schema, const Document& document, const Operation& operation,
                     const json::object& variables)
    : schema_(schema), operation_(operation), givenVariables_(variables) {
  // The last of a name is the one spread, as validation reads it.
  for (const auto& fragment : document.fragments) fragments_[fragment.name] = &fragment;
}

std::string_view Execution::rootType() const {
  return isMutation() ? std::string_view(schema_.mutationType) : schema_.queryType;
}

json::array Execution::prepare(const ExecutionLimits& limits) {
  if (rootType().empty()) {
    errors_.push_back(errorObject("Schema is not configured to execute mutation operation.",
                                  {operation_.location}));
    return std::move(errors_);
  }
  coerceVariables();
  if (!errors_.empty()) return std::move(errors_);
  const auto weight = cost(rootType(), Sets{&operation_.selections}, 1, std::nullopt, limits.cost);
  if (weight > limits.cost) {
    auto error = errorObject(
        "The operation asks for more than " + std::to_string(limits.cost) +
            " values (fields times the page and list sizes above them); this service answers "
            "at most " +
            std::to_string(limits.cost) +
            " (its cost limit). Ask for smaller pages or fewer "
            "aliases.",
        {operation_.location});
    error["extensions"] = json::object{{"code", "QUERY_TOO_COSTLY"},
                                       {"cost", static_cast<std::uint64_t>(weight)},
                                       {"limit", static_cast<std::uint64_t>(limits.cost)}};
    errors_.push_back(std::move(error));
  }
  return std::move(errors_);
}

// The values the answer may hold. Stops counting once past `limit`, so a query built to be
// huge costs no more to weigh than one just over the limit.
std::size_t Execution::cost(std::string_view type, const Sets& sets, std::size_t multiplier,
                            std::optional<std::size_t> page, std::size_t limit) {
  std::size_t total = 0;
  const auto* parent = schema_.type(type);
  if (!parent) return 0;
  for (const auto& group : collect(type, sets)) {
    if (total > limit) break;
    total += multiplier;
    const auto* definition = schema_.field(*parent, group.field->name);
    if (!definition || !hasSelections(group.subsets)) continue;
    auto childPage = page;
    if (definition->argument("limit")) {
      const auto arguments = args(group, type);
      if (const auto* given = arguments.if_contains("limit"); given && given->is_int64())
        childPage = static_cast<std::size_t>(std::max<std::int64_t>(given->as_int64(), 0));
    }
    auto childMultiplier = multiplier;
    if (typeref::isList(definition->type)) {
      const auto size = typeref::named(definition->type).starts_with("__")
                            ? introspectionListSize(schema_, definition->name)
                        : childPage ? *childPage
                                    : kListEstimate;
      childMultiplier =
          std::min<std::size_t>(multiplier * std::max<std::size_t>(size, 1), limit + 1);
      childPage.reset();
    }
    total +=
        cost(typeref::named(definition->type), group.subsets, childMultiplier, childPage, limit);
  }
  return total;
}

json::object Execution::run() {
  json::object data;
  for (const auto& group : collect(rootType(), Sets{&operation_.selections})) {
    const auto& name = group.field->name;
    if (name == "__typename")
      data[group.key] = rootType();
    else if (name == "__schema" || name == "__type")
      data[group.key] = introspect(*this, group);
    else
      data[group.key] = resolve(group);
  }
  json::object answer{{"data", std::move(data)}};
  if (!errors_.empty()) answer["errors"] = std::move(errors_);
  return answer;
}

void Execution::fail(const std::string& message, Location location, json::array path) {
  errors_.push_back(errorObject(message, {location}, std::move(path)));
}

void Execution::coerceVariables() {
  for (const auto& definition : operation_.variables) {
    const auto quoted = "Variable \"$" + definition.name + "\"";
    const auto* given = givenVariables_.if_contains(definition.name);
    if (!given) {
      if (definition.defaultValue) {
        variables_[definition.name] = literal(*definition.defaultValue);
      } else if (typeref::isNonNull(definition.type)) {
        errors_.push_back(
            errorObject(quoted + " of required type \"" + definition.type + "\" was not provided.",
                        {definition.location}));
      }
      continue;
    }
    if (given->is_null() && typeref::isNonNull(definition.type)) {
      errors_.push_back(
          errorObject(quoted + " of non-null type \"" + definition.type + "\" must not be null.",
                      {definition.location}));
      continue;
    }
    json::value value = *given;
    std::string path;
    if (auto problem = coerce(schema_, value, definition.type, path)) {
      errors_.push_back(errorObject(
          quoted + " got invalid value " + platform::toJSON(*given) +
              (path.empty() ? "" : " at \"" + definition.name + path + "\"") + "; " + *problem,
          {definition.location}));
      continue;
    }
    variables_[definition.name] = std::move(value);
  }
}

// A literal as JSON, with the variables in it replaced by their values; validation has
// checked its shape and type.
json::value Execution::literal(const Value& value) {
  using Kind = Value::Kind;
  switch (value.kind) {
    case Kind::null:
      return nullptr;
    case Kind::boolean:
      return value.boolean;
    case Kind::string:
    case Kind::enumeration:
      return json::string(value.text);
    case Kind::integer: {
      std::int64_t number = 0;
      const auto* end = value.text.data() + value.text.size();
      const auto [last, error] = std::from_chars(value.text.data(), end, number);
      if (error == std::errc() && last == end) return number;
      [[fallthrough]];
    }
    case Kind::floating: {
      const double number = std::strtod(value.text.c_str(), nullptr);
      return std::isfinite(number) ? json::value(number) : json::value(nullptr);
    }
    case Kind::variable: {
      const auto found = variables_.find(value.text);
      return found == variables_.end() ? json::value(nullptr) : found->second;
    }
    case Kind::list: {
      json::array items;
      for (const auto& item : value.items) items.push_back(literal(item));
      return items;
    }
    case Kind::object: {
      json::object fields;
      for (const auto& [name, field, location] : value.fields) {
        // A variable left out leaves its field out, as if it were not written.
        if (field.kind == Kind::variable && !variables_.count(field.text)) continue;
        fields[name] = literal(field);
      }
      return fields;
    }
  }
  return nullptr;
}

json::object Execution::args(const FieldGroup& group, std::string_view type) {
  json::object result;
  const auto* parent = schema_.type(type);
  const auto* definition = parent ? schema_.field(*parent, group.field->name) : nullptr;
  if (!definition) return result;
  for (const auto& argument : definition->arguments) {
    const Argument* given = nullptr;
    for (const auto& candidate : group.field->arguments)
      if (candidate.name == argument.name) given = &candidate;
    const bool absent = !given || (given->value.kind == Value::Kind::variable &&
                                   !variables_.count(given->value.text));
    if (absent) {
      if (argument.defaultValue) {
        const auto parsed = parse("{f(a: " + *argument.defaultValue + ")}");
        result[argument.name] =
            literal(parsed.operations.front().selections.front().arguments.front().value);
      }
      continue;
    }
    auto value = literal(given->value);
    std::string path;
    if (auto problem = coerce(schema_, value, argument.type, path)) {
      fail("Argument \"" + argument.name + "\" has invalid value " + printValue(given->value) +
               "; " + *problem,
           given->location, json::array{json::string(group.key)});
      continue;
    }
    result[argument.name] = std::move(value);
  }
  return result;
}

// Whether @skip and @include leave the selection in.
bool Execution::included(const std::vector<Directive>& directives) {
  for (const auto& directive : directives) {
    if (directive.name != "skip" && directive.name != "include") continue;
    for (const auto& argument : directive.arguments) {
      const auto value = literal(argument.value);
      if (argument.name == "if" && value.is_bool() && value.as_bool() == (directive.name == "skip"))
        return false;
    }
  }
  return true;
}

void Execution::collectInto(std::string_view type, const std::vector<Selection>& set,
                            std::vector<FieldGroup>& groups,
                            std::vector<std::string_view>& visited) {
  for (const auto& selection : set) {
    if (!included(selection.directives)) continue;
    switch (selection.kind) {
      case Selection::Kind::field: {
        auto found = std::find_if(groups.begin(), groups.end(), [&](const FieldGroup& g) {
          return g.key == selection.responseKey();
        });
        if (found == groups.end()) {
          groups.push_back(FieldGroup{selection.responseKey(), &selection, {}});
          found = groups.end() - 1;
        }
        found->subsets.push_back(&selection.selections);
        break;
      }
      case Selection::Kind::fragmentSpread: {
        // Each fragment once per collection, however often and wherever it is spread.
        if (std::find(visited.begin(), visited.end(), selection.name) != visited.end()) break;
        visited.push_back(selection.name);
        const auto fragment = fragments_.find(selection.name);
        if (fragment != fragments_.end() && fragment->second->typeCondition == type)
          collectInto(type, fragment->second->selections, groups, visited);
        break;
      }
      case Selection::Kind::inlineFragment:
        if (selection.typeCondition.empty() || selection.typeCondition == type)
          collectInto(type, selection.selections, groups, visited);
        break;
    }
  }
}

std::vector<FieldGroup> Execution::collect(std::string_view type, const Sets& sets) {
  std::vector<FieldGroup> groups;
  std::vector<std::string_view> visited;
  for (const auto* set : sets) collectInto(type, *set, groups, visited);
  return groups;
}

json::value Execution::selectFrom(std::string_view type, const Sets& sets,
                                  const json::value& source) {
  if (source.is_array()) {
    json::array items;
    for (const auto& item : source.as_array()) items.push_back(selectFrom(type, sets, item));
    return items;
  }
  if (!source.is_object()) return nullptr;
  const auto* parent = schema_.type(type);
  json::object out;
  for (const auto& group : collect(type, sets)) {
    const auto& name = group.field->name;
    if (name == "__typename") {
      out[group.key] = type;
      continue;
    }
    const auto* definition = schema_.field(*parent, name);
    const auto* value = source.as_object().if_contains(name);
    if (!value || value->is_null())
      out[group.key] = nullptr;
    else if (schema_.named(definition->type)->isLeaf())
      out[group.key] = *value;
    else
      out[group.key] = selectFrom(typeref::named(definition->type), group.subsets, *value);
  }
  return out;
}

}  // namespace sandbox::graphql
