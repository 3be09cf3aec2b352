#include "graphql_execution.hpp"

#include <algorithm>
#include <charconv>
#include <cmath>
#include <cstdint>
#include <cstdlib>

#include "platform/json.hpp"

namespace sandbox::graphql {
namespace {

namespace json = boost::json;

bool isLeaf(std::string_view type) {
  return type == "Int" || type == "String" || type == "Boolean" || type == "JSON";
}

bool hasSelections(const Sets& sets) {
  for (const auto* set : sets)
    if (!set->empty()) return true;
  return false;
}

// The request's variables: a JSON object, or (as the service's clients send them) a string
// that holds one; none at all is an empty object.
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

}  // namespace

json::object errorObject(const std::string& message, std::optional<Location> location,
                         json::array path) {
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

Execution::Execution(const Schema& schema, const Call& call)
    : schema_(schema),
      user_(call.user),
      document_(call.document),
      operation_(call.operation),
      givenVariables_(call.variables) {}

json::array Execution::validate() {
  readVariables(givenVariables_);
  if (!schema_.count(rootType())) {
    fail(std::string(isMutation() ? "Mutations" : "Queries") + " are not served here.",
         operation_.location);
    return std::move(errors_);
  }
  validating_ = true;
  validateSet(rootType(), Sets{&operation_.selections});
  validating_ = false;
  return std::move(errors_);
}

json::object Execution::run() {
  json::object data;
  for (const auto& group : collect(rootType(), Sets{&operation_.selections})) {
    if (group.field->name == "__typename") {
      data[group.key] = rootType();
      continue;
    }
    data[group.key] = resolve(group);
  }
  json::object answer{{"data", std::move(data)}};
  if (!errors_.empty()) answer["errors"] = std::move(errors_);
  return answer;
}

std::optional<std::string> Execution::checkInputObject(const json::value&,
                                                       std::string_view type) {
  return "Unknown type \"" + std::string(type) + "\".";
}

std::optional<std::string> Execution::checkInput(const json::value& value,
                                                 std::string_view type) {
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
  } else {
    return checkInputObject(value, type);
  }
  return std::nullopt;
}

void Execution::fail(const std::string& message, Location location, json::array path) {
  errors_.push_back(errorObject(message, location, std::move(path)));
}

const FieldSpec* Execution::findField(std::string_view type, std::string_view name) const {
  const auto fields = schema_.find(type);
  if (fields == schema_.end()) return nullptr;
  for (const auto& field : fields->second)
    if (field.name == name) return &field;
  return nullptr;
}

void Execution::readVariables(const json::object& variables) {
  for (const auto& definition : operation_.variables) {
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

// A literal as JSON, with the variables in it replaced by their values.
json::value Execution::literal(const Value& value, Location where) {
  using Kind = Value::Kind;
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

void Execution::checkVariableType(const Value& value, std::string_view type) {
  if (value.kind != Value::Kind::variable) return;
  const auto found = definitions_.find(value.text);
  if (found != definitions_.end() && found->second->namedType != type)
    fail("Variable \"$" + value.text + "\" of type \"" + found->second->type +
             "\" used in position expecting type \"" + std::string(type) + "\".",
         value.location);
}

json::object Execution::arguments(const Selection& field, const FieldSpec& spec) {
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
bool Execution::included(const std::vector<Directive>& directives) {
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

void Execution::collectInto(std::string_view type, const std::vector<Selection>& set,
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
      const Fragment* fragment = nullptr;
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
      else if (!schema_.count(condition))
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

std::vector<FieldGroup> Execution::collect(std::string_view type, const Sets& sets) {
  std::vector<FieldGroup> groups;
  std::set<std::string> spreading;
  for (const auto* set : sets) collectInto(type, *set, groups, spreading);
  return groups;
}

void Execution::validateSet(std::string_view type, const Sets& sets) {
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

json::object Execution::args(const FieldGroup& group, std::string_view type) {
  return arguments(*group.field, *findField(type, group.field->name));
}

json::value Execution::selectFrom(std::string_view type, const Sets& sets,
                                  const json::value& source) {
  if (source.is_array()) {
    json::array items;
    for (const auto& item : source.as_array()) items.push_back(selectFrom(type, sets, item));
    return items;
  }
  if (!source.is_object()) return nullptr;
  json::object out;
  for (const auto& group : collect(type, sets)) {
    const auto& name = group.field->name;
    if (name == "__typename") {
      out[group.key] = type;
      continue;
    }
    const auto* spec = findField(type, name);
    const auto* value = source.as_object().if_contains(name);
    if (!value || value->is_null())
      out[group.key] = nullptr;
    else
      out[group.key] = isLeaf(spec->type) ? *value : selectFrom(spec->type, group.subsets, *value);
  }
  return out;
}

Response answer(const Accounts& accounts, const Request& request,
                const std::function<Response(const Call&)>& run) {
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

  Document document;
  try {
    document = parse(query->as_string());
  } catch (const SyntaxError& e) {
    return requestErrors({errorObject(e.what(), e.location)});
  }
  const Operation* operation = nullptr;
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
  if (operation->kind == Operation::Kind::subscription)
    return requestErrors({errorObject(
        "Subscriptions are not served here: new messages come over the realtime socket.",
        operation->location)});

  return run(Call{request, *user, document, *operation, *variables});
}

Response execute(Execution& execution) {
  auto errors = execution.validate();
  if (!errors.empty()) return requestErrors(std::move(errors));
  return Response::json(200, execution.run());
}

}  // namespace sandbox::graphql
