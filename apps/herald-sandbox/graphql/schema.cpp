#include "schema.hpp"

#include <algorithm>
#include <stdexcept>

#include "typeref.hpp"

namespace sandbox::graphql {
namespace {

constexpr std::string_view kDefaultDeprecation = "No longer supported";

InputValue includeDeprecated() {
  return {"includeDeprecated", "Boolean", "", "false"};
}

// The standard scalars this service uses, and the introspection types, worded as the
// reference implementation words them so that tools see the same descriptions.
void addBuiltIns(std::vector<TypeDefinition>& types) {
  auto scalar = [&](std::string name, std::string description) {
    types.push_back({TypeKind::scalar, std::move(name), std::move(description), {}, {}, {}, {}});
  };
  auto object = [&](std::string name, std::string description,
                    std::vector<FieldDefinition> fields) {
    types.push_back(
        {TypeKind::object, std::move(name), std::move(description), std::move(fields), {}, {}, {}});
  };
  auto enumeration = [&](std::string name, std::string description,
                         std::vector<EnumValueDefinition> values) {
    types.push_back({TypeKind::enumeration,
                     std::move(name),
                     std::move(description),
                     {},
                     {},
                     std::move(values),
                     {}});
  };
  scalar("String",
         "The `String` scalar type represents textual data, represented as UTF-8 character "
         "sequences. The String type is most often used by GraphQL to represent free-form "
         "human-readable text.");
  scalar("Int",
         "The `Int` scalar type represents non-fractional signed whole numeric values. Int can "
         "represent values between -(2^31) and 2^31 - 1.");
  scalar("Boolean", "The `Boolean` scalar type represents `true` or `false`.");
  object("__Schema",
         "A GraphQL Schema defines the capabilities of a GraphQL server. It exposes all "
         "available types and directives on the server, as well as the entry points for query, "
         "mutation, and subscription operations.",
         {{"description", "String", "", {}, {}},
          {"types", "[__Type!]!", "A list of all types supported by this server.", {}, {}},
          {"queryType", "__Type!", "The type that query operations will be rooted at.", {}, {}},
          {"mutationType",
           "__Type",
           "If this server supports mutation, the type that mutation operations will be rooted "
           "at.",
           {},
           {}},
          {"subscriptionType",
           "__Type",
           "If this server support subscription, the type that subscription operations will be "
           "rooted at.",
           {},
           {}},
          {"directives",
           "[__Directive!]!",
           "A list of all directives supported by this server.",
           {},
           {}}});
  object("__Type",
         "The fundamental unit of any GraphQL Schema is the type. There are many kinds of types "
         "in GraphQL as represented by the `__TypeKind` enum.\n\nDepending on the kind of a "
         "type, certain fields describe information about that type. Scalar types provide no "
         "information beyond a name, description and optional `specifiedByURL`, while Enum "
         "types provide their values. Object and Interface types provide the fields they "
         "describe. Abstract types, Union and Interface, provide the Object types possible at "
         "runtime. List and NonNull types compose other types.",
         {{"kind", "__TypeKind!", "", {}, {}},
          {"name", "String", "", {}, {}},
          {"description", "String", "", {}, {}},
          {"specifiedByURL", "String", "", {}, {}},
          {"fields", "[__Field!]", "", {includeDeprecated()}, {}},
          {"interfaces", "[__Type!]", "", {}, {}},
          {"possibleTypes", "[__Type!]", "", {}, {}},
          {"enumValues", "[__EnumValue!]", "", {includeDeprecated()}, {}},
          {"inputFields", "[__InputValue!]", "", {includeDeprecated()}, {}},
          {"ofType", "__Type", "", {}, {}}});
  enumeration(
      "__TypeKind", "An enum describing what kind of type a given `__Type` is.",
      {{"SCALAR", "Indicates this type is a scalar.", {}},
       {"OBJECT",
        "Indicates this type is an object. `fields` and `interfaces` are valid fields.",
        {}},
       {"INTERFACE",
        "Indicates this type is an interface. `fields`, `interfaces`, and `possibleTypes` are "
        "valid fields.",
        {}},
       {"UNION", "Indicates this type is a union. `possibleTypes` is a valid field.", {}},
       {"ENUM", "Indicates this type is an enum. `enumValues` is a valid field.", {}},
       {"INPUT_OBJECT",
        "Indicates this type is an input object. `inputFields` is a valid field.",
        {}},
       {"LIST", "Indicates this type is a list. `ofType` is a valid field.", {}},
       {"NON_NULL", "Indicates this type is a non-null. `ofType` is a valid field.", {}}});
  object("__Field",
         "Object and Interface types are described by a list of Fields, each of which has a "
         "name, potentially a list of arguments, and a return type.",
         {{"name", "String!", "", {}, {}},
          {"description", "String", "", {}, {}},
          {"args", "[__InputValue!]!", "", {includeDeprecated()}, {}},
          {"type", "__Type!", "", {}, {}},
          {"isDeprecated", "Boolean!", "", {}, {}},
          {"deprecationReason", "String", "", {}, {}}});
  object("__InputValue",
         "Arguments provided to Fields or Directives and the input fields of an InputObject are "
         "represented as Input Values which describe their type and optionally a default value.",
         {{"name", "String!", "", {}, {}},
          {"description", "String", "", {}, {}},
          {"type", "__Type!", "", {}, {}},
          {"defaultValue",
           "String",
           "A GraphQL-formatted string representing the default value for this input value.",
           {},
           {}},
          {"isDeprecated", "Boolean!", "", {}, {}},
          {"deprecationReason", "String", "", {}, {}}});
  object("__EnumValue",
         "One possible value for a given Enum. Enum values are unique values, not a placeholder "
         "for a string or numeric value. However an Enum value is returned in a JSON response as "
         "a string.",
         {{"name", "String!", "", {}, {}},
          {"description", "String", "", {}, {}},
          {"isDeprecated", "Boolean!", "", {}, {}},
          {"deprecationReason", "String", "", {}, {}}});
  object("__Directive",
         "A Directive provides a way to describe alternate runtime execution and type "
         "validation behavior in a GraphQL document.\n\nIn some cases, you need to provide "
         "options to alter GraphQL's execution behavior in ways field arguments will not "
         "suffice, such as conditionally including or skipping a field. Directives provide this "
         "by describing additional information to the executor.",
         {{"name", "String!", "", {}, {}},
          {"description", "String", "", {}, {}},
          {"isRepeatable", "Boolean!", "", {}, {}},
          {"locations", "[__DirectiveLocation!]!", "", {}, {}},
          {"args", "[__InputValue!]!", "", {includeDeprecated()}, {}}});
  std::vector<EnumValueDefinition> locations;
  for (const auto& [name, where] : std::vector<std::pair<const char*, const char*>>{
           {"QUERY", "a query operation"},
           {"MUTATION", "a mutation operation"},
           {"SUBSCRIPTION", "a subscription operation"},
           {"FIELD", "a field"},
           {"FRAGMENT_DEFINITION", "a fragment definition"},
           {"FRAGMENT_SPREAD", "a fragment spread"},
           {"INLINE_FRAGMENT", "an inline fragment"},
           {"VARIABLE_DEFINITION", "a variable definition"},
           {"SCHEMA", "a schema definition"},
           {"SCALAR", "a scalar definition"},
           {"OBJECT", "an object type definition"},
           {"FIELD_DEFINITION", "a field definition"},
           {"ARGUMENT_DEFINITION", "an argument definition"},
           {"INTERFACE", "an interface definition"},
           {"UNION", "a union definition"},
           {"ENUM", "an enum definition"},
           {"ENUM_VALUE", "an enum value definition"},
           {"INPUT_OBJECT", "an input object type definition"},
           {"INPUT_FIELD_DEFINITION", "an input object field definition"}})
    locations.push_back({name, std::string("Location adjacent to ") + where + ".", {}});
  enumeration("__DirectiveLocation",
              "A Directive can be adjacent to many parts of the GraphQL language, a "
              "__DirectiveLocation describes one such possible adjacencies.",
              std::move(locations));
}

std::vector<DirectiveDefinition> standardDirectives() {
  const std::vector<std::string> conditional{"FIELD", "FRAGMENT_SPREAD", "INLINE_FRAGMENT"};
  return {
      {"include",
       "Directs the executor to include this field or fragment only when the `if` argument is "
       "true.",
       conditional,
       {{"if", "Boolean!", "Included when true.", {}}},
       false},
      {"skip",
       "Directs the executor to skip this field or fragment when the `if` argument is true.",
       conditional,
       {{"if", "Boolean!", "Skipped when true.", {}}},
       false},
      {"deprecated",
       "Marks an element of a GraphQL schema as no longer supported.",
       {"FIELD_DEFINITION", "ARGUMENT_DEFINITION", "INPUT_FIELD_DEFINITION", "ENUM_VALUE"},
       {{"reason", "String",
         "Explains why this element was deprecated, usually also including a suggestion for how "
         "to access supported similar data. Formatted using the Markdown syntax, as specified "
         "by [CommonMark](https://commonmark.org/).",
         "\"No longer supported\""}},
       false},
      {"specifiedBy",
       "Exposes a URL that specifies the behavior of this scalar.",
       {"SCALAR"},
       {{"url", "String!", "The URL that specifies the behavior of this scalar.", {}}},
       false},
  };
}

template <typename Named>
const Named* findNamed(const std::vector<Named>& items, std::string_view name) {
  for (const auto& item : items)
    if (item.name == name) return &item;
  return nullptr;
}

// A description as a block string, laid out as the reference implementation lays it out, so
// that printing, building and printing again gives the same text.
std::string blockString(const std::string& text, const std::string& indentation) {
  std::string escaped;
  for (std::size_t i = 0; i < text.size(); ++i) {
    if (text.compare(i, 3, "\"\"\"") == 0) {
      escaped += "\\\"\"\"";
      i += 2;
    } else {
      escaped += text[i];
    }
  }
  const bool multiLine = escaped.find('\n') != std::string::npos || text.size() > 70 ||
                         (!text.empty() && (text.back() == '"' || text.back() == '\\'));
  std::string out = "\"\"\"";
  if (multiLine && !(escaped.find('\n') == std::string::npos && !text.empty() &&
                     (text.front() == ' ' || text.front() == '\t')))
    out += "\n";
  out += escaped;
  if (multiLine) out += "\n";
  out += "\"\"\"";
  std::string indented;
  for (const char c : out) {
    indented += c;
    if (c == '\n') indented += indentation;
  }
  return indented;
}

std::string description(const std::string& text, const std::string& indentation, bool first) {
  if (text.empty()) return "";
  const std::string prefix = !indentation.empty() && !first ? "\n" + indentation : indentation;
  return prefix + blockString(text, indentation) + "\n";
}

std::string quoted(std::string_view text) {
  std::string out = "\"";
  for (const char c : text) {
    if (c == '"' || c == '\\') out += '\\';
    out += c;
  }
  return out + "\"";
}

std::string deprecated(const std::optional<std::string>& reason) {
  if (!reason) return "";
  if (*reason == kDefaultDeprecation) return " @deprecated";
  return " @deprecated(reason: " + quoted(*reason) + ")";
}

std::string inputValue(const InputValue& value) {
  return value.name + ": " + value.type + (value.defaultValue ? " = " + *value.defaultValue : "");
}

std::string arguments(const std::vector<InputValue>& args, const std::string& indentation) {
  if (args.empty()) return "";
  bool described = false;
  for (const auto& arg : args) described = described || !arg.description.empty();
  std::string out = "(";
  if (!described) {
    for (std::size_t i = 0; i < args.size(); ++i) out += (i ? ", " : "") + inputValue(args[i]);
    return out + ")";
  }
  out += "\n";
  for (std::size_t i = 0; i < args.size(); ++i)
    out += (i ? "\n" : "") + description(args[i].description, "  " + indentation, i == 0) + "  " +
           indentation + inputValue(args[i]);
  return out + "\n" + indentation + ")";
}

std::string block(const std::vector<std::string>& lines) {
  if (lines.empty()) return "";
  std::string out = " {\n";
  for (std::size_t i = 0; i < lines.size(); ++i) out += (i ? "\n" : "") + lines[i];
  return out + "\n}";
}

std::string printType(const TypeDefinition& type) {
  std::string out = description(type.description, "", true);
  std::vector<std::string> lines;
  switch (type.kind) {
    case TypeKind::scalar:
      out += "scalar " + type.name;
      if (type.specifiedBy) out += " @specifiedBy(url: " + quoted(*type.specifiedBy) + ")";
      return out;
    case TypeKind::enumeration:
      for (std::size_t i = 0; i < type.enumValues.size(); ++i) {
        const auto& value = type.enumValues[i];
        lines.push_back(description(value.description, "  ", i == 0) + "  " + value.name +
                        deprecated(value.deprecation));
      }
      return out + "enum " + type.name + block(lines);
    case TypeKind::inputObject:
      for (std::size_t i = 0; i < type.inputFields.size(); ++i) {
        const auto& field = type.inputFields[i];
        lines.push_back(description(field.description, "  ", i == 0) + "  " + inputValue(field));
      }
      return out + "input " + type.name + block(lines);
    default:
      for (std::size_t i = 0; i < type.fields.size(); ++i) {
        const auto& field = type.fields[i];
        lines.push_back(description(field.description, "  ", i == 0) + "  " + field.name +
                        arguments(field.arguments, "  ") + ": " + field.type +
                        deprecated(field.deprecation));
      }
      return out + "type " + type.name + block(lines);
  }
}

}  // namespace

std::string_view kindName(TypeKind kind) {
  switch (kind) {
    case TypeKind::scalar:
      return "SCALAR";
    case TypeKind::object:
      return "OBJECT";
    case TypeKind::interface:
      return "INTERFACE";
    case TypeKind::unionType:
      return "UNION";
    case TypeKind::enumeration:
      return "ENUM";
    case TypeKind::inputObject:
      return "INPUT_OBJECT";
    case TypeKind::list:
      return "LIST";
    case TypeKind::nonNull:
      return "NON_NULL";
  }
  return "SCALAR";
}

const InputValue* FieldDefinition::argument(std::string_view name) const {
  return findNamed(arguments, name);
}
const FieldDefinition* TypeDefinition::field(std::string_view name) const {
  return findNamed(fields, name);
}
const InputValue* TypeDefinition::inputField(std::string_view name) const {
  return findNamed(inputFields, name);
}
bool TypeDefinition::isBuiltIn() const {
  return name.starts_with("__") || name == "String" || name == "Int" || name == "Boolean";
}
const InputValue* DirectiveDefinition::argument(std::string_view name) const {
  return findNamed(arguments, name);
}
bool DirectiveDefinition::allowedOn(std::string_view location) const {
  for (const auto& allowed : locations)
    if (allowed == location) return true;
  return false;
}

const TypeDefinition* Schema::type(std::string_view name) const {
  const auto found = byName_.find(name);
  return found == byName_.end() ? nullptr : &types[found->second];
}

const DirectiveDefinition* Schema::directive(std::string_view name) const {
  return findNamed(directives, name);
}

const FieldDefinition* Schema::field(const TypeDefinition& type, std::string_view name) const {
  if (type.kind != TypeKind::object) return nullptr;
  if (name == "__typename") return &typename_;
  if (type.name == queryType) {
    if (name == "__schema") return &schemaField_;
    if (name == "__type") return &typeField_;
  }
  return type.field(name);
}

const TypeDefinition* Schema::named(std::string_view typeRef) const {
  return type(typeref::named(typeRef));
}

void Schema::index() {
  byName_.clear();
  for (std::size_t i = 0; i < types.size(); ++i) byName_[types[i].name] = i;
  typename_ = {"__typename", "String!", "The name of the current Object type at runtime.", {}, {}};
  schemaField_ = {
      "__schema", "__Schema!", "Access the current type schema of this server.", {}, {}};
  typeField_ = {"__type",
                "__Type",
                "Request the type information of a single type.",
                {{"name", "String!", "", {}}},
                {}};
}

SchemaBuilder& SchemaBuilder::object(std::string name, std::string description,
                                     std::vector<FieldDefinition> fields) {
  types_.push_back(
      {TypeKind::object, std::move(name), std::move(description), std::move(fields), {}, {}, {}});
  return *this;
}

SchemaBuilder& SchemaBuilder::input(std::string name, std::string description,
                                    std::vector<InputValue> fields) {
  types_.push_back({TypeKind::inputObject,
                    std::move(name),
                    std::move(description),
                    {},
                    std::move(fields),
                    {},
                    {}});
  return *this;
}

SchemaBuilder& SchemaBuilder::scalar(std::string name, std::string description,
                                     std::optional<std::string> specifiedBy) {
  types_.push_back({TypeKind::scalar,
                    std::move(name),
                    std::move(description),
                    {},
                    {},
                    {},
                    std::move(specifiedBy)});
  return *this;
}

SchemaBuilder& SchemaBuilder::enumeration(std::string name, std::string description,
                                          std::vector<EnumValueDefinition> values) {
  types_.push_back({TypeKind::enumeration,
                    std::move(name),
                    std::move(description),
                    {},
                    {},
                    std::move(values),
                    {}});
  return *this;
}

Schema SchemaBuilder::build(std::string queryType, std::string mutationType,
                            std::string description) {
  Schema schema;
  schema.description = std::move(description);
  schema.types = std::move(types_);
  addBuiltIns(schema.types);
  schema.directives = standardDirectives();
  // A standard scalar nothing refers to is left out, as the reference implementation leaves
  // it out: introspection then lists the same types.
  std::erase_if(schema.types, [&](const TypeDefinition& type) {
    if (type.kind != TypeKind::scalar || !type.isBuiltIn()) return false;
    auto refers = [&](const std::string& ref) { return typeref::named(ref) == type.name; };
    for (const auto& other : schema.types) {
      for (const auto& field : other.fields) {
        if (refers(field.type)) return false;
        for (const auto& arg : field.arguments)
          if (refers(arg.type)) return false;
      }
      for (const auto& field : other.inputFields)
        if (refers(field.type)) return false;
    }
    return true;
  });
  schema.queryType = std::move(queryType);
  schema.mutationType = std::move(mutationType);
  schema.index();
  // A reference to a type the schema lacks is a mistake in this program, found at start-up.
  auto check = [&](const std::string& ref, const std::string& where) {
    if (!schema.named(ref))
      throw std::logic_error("GraphQL schema: " + where + " refers to unknown type " + ref);
  };
  for (const auto& type : schema.types) {
    for (const auto& field : type.fields) {
      check(field.type, type.name + "." + field.name);
      for (const auto& arg : field.arguments) check(arg.type, type.name + "." + field.name);
    }
    for (const auto& field : type.inputFields) check(field.type, type.name + "." + field.name);
  }
  return schema;
}

std::string printSchema(const Schema& schema) {
  std::string out;
  auto add = [&](const std::string& part) { out += (out.empty() ? "" : "\n\n") + part; };
  if (!schema.description.empty() || schema.queryType != "Query" ||
      (!schema.mutationType.empty() && schema.mutationType != "Mutation")) {
    std::string definition =
        description(schema.description, "", true) + "schema {\n  query: " + schema.queryType + "\n";
    if (!schema.mutationType.empty()) definition += "  mutation: " + schema.mutationType + "\n";
    add(definition + "}");
  }
  for (const auto& type : schema.types)
    if (!type.isBuiltIn()) add(printType(type));
  return out + "\n";
}

}  // namespace sandbox::graphql
