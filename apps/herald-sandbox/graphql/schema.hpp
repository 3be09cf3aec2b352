#pragma once
// One description of a GraphQL schema, read by everything that needs to know it: the
// validator, variable coercion, the executor, introspection and the SDL printer. Nothing
// else describes the schema, so what is introspected is what is checked and run.
//
// Type references are GraphQL's own notation ("[String!]!"); typeref.hpp's helpers peel them.
//
//   auto schema = graphql::SchemaBuilder()
//       .object("Query", "The root of reads.", {{"count", "Int!", "How many.", {}}})
//       .build("Query", "");

#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

namespace sandbox::graphql {

/// The eight kinds introspection tells apart; this service declares objects, input objects,
/// scalars and enums.
enum class TypeKind {
  scalar,
  object,
  interface,
  unionType,
  enumeration,
  inputObject,
  list,
  nonNull
};

/// "SCALAR", "OBJECT", …: the name introspection gives a kind.
std::string_view kindName(TypeKind kind);

/// An argument or an input object's field.
struct InputValue {
  std::string name;
  std::string type;
  std::string description;
  /// GraphQL text of the default ("10", "{archived: false}"); none: no default.
  std::optional<std::string> defaultValue;
};

struct FieldDefinition {
  std::string name;
  std::string type;
  std::string description;
  std::vector<InputValue> arguments;
  std::optional<std::string> deprecation;  ///< the reason, when the field is deprecated

  const InputValue* argument(std::string_view name) const;
};

struct EnumValueDefinition {
  std::string name;
  std::string description;
  std::optional<std::string> deprecation;
};

struct TypeDefinition {
  TypeKind kind = TypeKind::object;
  std::string name;
  std::string description;
  std::vector<FieldDefinition> fields;  ///< of an object
  std::vector<InputValue> inputFields;  ///< of an input object
  std::vector<EnumValueDefinition> enumValues;
  std::optional<std::string> specifiedBy;  ///< a scalar's @specifiedBy URL

  const FieldDefinition* field(std::string_view name) const;
  const InputValue* inputField(std::string_view name) const;
  bool isComposite() const { return kind == TypeKind::object; }
  bool isInput() const {
    return kind == TypeKind::scalar || kind == TypeKind::enumeration ||
           kind == TypeKind::inputObject;
  }
  bool isLeaf() const { return kind == TypeKind::scalar || kind == TypeKind::enumeration; }
  bool isBuiltIn() const;  ///< a standard scalar or an introspection type
};

struct DirectiveDefinition {
  std::string name;
  std::string description;
  std::vector<std::string> locations;  ///< "FIELD", "FRAGMENT_SPREAD", …
  std::vector<InputValue> arguments;
  bool repeatable = false;

  const InputValue* argument(std::string_view name) const;
  bool allowedOn(std::string_view location) const;
};

class Schema {
 public:
  std::string description;
  std::vector<TypeDefinition> types;  ///< in the order declared, introspection's last
  std::vector<DirectiveDefinition> directives;
  std::string queryType;
  std::string mutationType;  ///< empty: no mutations

  const TypeDefinition* type(std::string_view name) const;
  const DirectiveDefinition* directive(std::string_view name) const;
  /// The field `name` of `type` as a selection sees it: the type's own, or a meta-field
  /// (__typename on every object, __schema and __type on the query root).
  const FieldDefinition* field(const TypeDefinition& type, std::string_view name) const;
  /// The named type under a reference's wrappers; null when the schema has none so named.
  const TypeDefinition* named(std::string_view typeRef) const;

 private:
  friend class SchemaBuilder;
  void index();
  std::map<std::string, std::size_t, std::less<>> byName_;
  FieldDefinition typename_, schemaField_, typeField_;
};

/// Declares a schema's own types; `build` adds the standard scalars, the standard directives
/// and the introspection types, so that they are checked and served like the rest.
class SchemaBuilder {
 public:
  SchemaBuilder& object(std::string name, std::string description,
                        std::vector<FieldDefinition> fields);
  SchemaBuilder& input(std::string name, std::string description, std::vector<InputValue> fields);
  SchemaBuilder& scalar(std::string name, std::string description,
                        std::optional<std::string> specifiedBy = {});
  SchemaBuilder& enumeration(std::string name, std::string description,
                             std::vector<EnumValueDefinition> values);
  Schema build(std::string queryType, std::string mutationType, std::string description = {});

 private:
  std::vector<TypeDefinition> types_;
};

/// The schema as SDL, without the standard scalars, directives and introspection types.
std::string printSchema(const Schema& schema);

}  // namespace sandbox::graphql
