#include "introspection.hpp"

#include <algorithm>
#include <string>
#include <variant>

#include "typeref.hpp"

namespace sandbox::graphql {
namespace {

namespace json = boost::json;

/// A type reference with its wrappers ("[Message]!"); LIST and NON_NULL peel one each.
struct TypeRef {
  std::string_view ref;
};
using Source = std::variant<const Schema*, TypeRef, const FieldDefinition*, const InputValue*,
                            const EnumValueDefinition*, const DirectiveDefinition*>;

class Introspection {
 public:
  explicit Introspection(Execution& execution)
      : execution_(execution), schema_(execution.schema()) {}

  json::value root(const FieldGroup& group) {
    if (group.field->name == "__schema") return object("__Schema", group.subsets, &schema_);
    const auto arguments = execution_.args(group, schema_.queryType);
    const auto* name = arguments.if_contains("name");
    if (!name || !name->is_string() || !schema_.type(name->as_string())) return nullptr;
    return object("__Type", group.subsets, TypeRef{schema_.type(name->as_string())->name});
  }

 private:
  json::value object(std::string_view type, const Sets& sets, const Source& source) {
    json::object out;
    for (const auto& group : execution_.collect(type, sets)) {
      const auto& name = group.field->name;
      out[group.key] = name == "__typename" ? json::value(type) : field(type, group, source);
    }
    return out;
  }

  template <typename Item>
  json::value list(std::string_view type, const FieldGroup& group, const std::vector<Item>& items,
                   bool deprecatedFilter) {
    bool includeDeprecated = true;
    if (deprecatedFilter) {
      const auto arguments = execution_.args(group, type);
      const auto* flag = arguments.if_contains("includeDeprecated");
      includeDeprecated = flag && flag->is_bool() && flag->as_bool();
    }
    json::array out;
    const auto itemType =
        typeref::named(schema_.field(*schema_.type(type), group.field->name)->type);
    for (const auto& item : items) {
      if constexpr (requires { item.deprecation; })
        if (!includeDeprecated && item.deprecation) continue;
      out.push_back(object(itemType, group.subsets, Source(&item)));
    }
    return out;
  }

  static json::value text(const std::string& value) {
    return value.empty() ? json::value(nullptr) : json::value(value);
  }
  static json::value reason(const std::optional<std::string>& value) {
    return value ? json::value(*value) : json::value(nullptr);
  }

  json::value typeRef(const FieldGroup& group, std::string_view ref) {
    return object("__Type", group.subsets, TypeRef{ref});
  }

  json::value field(std::string_view type, const FieldGroup& group, const Source& source) {
    const auto& name = group.field->name;
    if (const auto* schema = std::get_if<const Schema*>(&source)) {
      if (name == "description") return text((*schema)->description);
      if (name == "types") {
        json::array out;
        for (const auto& t : (*schema)->types)
          out.push_back(object("__Type", group.subsets, TypeRef{t.name}));
        return out;
      }
      if (name == "queryType") return typeRef(group, (*schema)->queryType);
      if (name == "mutationType")
        return (*schema)->mutationType.empty() ? json::value(nullptr)
                                               : typeRef(group, (*schema)->mutationType);
      if (name == "subscriptionType") return nullptr;
      return list(type, group, (*schema)->directives, false);  // directives
    }
    if (const auto* ref = std::get_if<TypeRef>(&source)) return typeField(type, group, ref->ref);
    if (const auto* f = std::get_if<const FieldDefinition*>(&source)) {
      if (name == "name") return json::value((*f)->name);
      if (name == "description") return text((*f)->description);
      if (name == "args") return list(type, group, (*f)->arguments, true);
      if (name == "type") return typeRef(group, (*f)->type);
      if (name == "isDeprecated") return (*f)->deprecation.has_value();
      return reason((*f)->deprecation);
    }
    if (const auto* v = std::get_if<const InputValue*>(&source)) {
      if (name == "name") return json::value((*v)->name);
      if (name == "description") return text((*v)->description);
      if (name == "type") return typeRef(group, (*v)->type);
      if (name == "defaultValue")
        return (*v)->defaultValue ? json::value(*(*v)->defaultValue) : json::value(nullptr);
      if (name == "isDeprecated") return false;
      return nullptr;  // deprecationReason
    }
    if (const auto* e = std::get_if<const EnumValueDefinition*>(&source)) {
      if (name == "name") return json::value((*e)->name);
      if (name == "description") return text((*e)->description);
      if (name == "isDeprecated") return (*e)->deprecation.has_value();
      return reason((*e)->deprecation);
    }
    const auto* d = std::get<const DirectiveDefinition*>(source);
    if (name == "name") return json::value(d->name);
    if (name == "description") return text(d->description);
    if (name == "isRepeatable") return d->repeatable;
    if (name == "args") return list(type, group, d->arguments, true);
    json::array locations;
    for (const auto& location : d->locations) locations.push_back(json::value(location));
    return locations;
  }

  json::value typeField(std::string_view type, const FieldGroup& group, std::string_view ref) {
    const auto& name = group.field->name;
    const bool nonNull = typeref::isNonNull(ref);
    const bool isList = !nonNull && typeref::isList(ref);
    if (nonNull || isList) {
      if (name == "kind")
        return json::value(kindName(nonNull ? TypeKind::nonNull : TypeKind::list));
      if (name == "ofType") return typeRef(group, typeref::ofType(ref));
      if (name == "fields" || name == "interfaces" || name == "possibleTypes" ||
          name == "enumValues" || name == "inputFields" || name == "name" ||
          name == "description" || name == "specifiedByURL")
        return nullptr;
    }
    const auto& t = *schema_.type(ref);
    if (name == "kind") return json::value(kindName(t.kind));
    if (name == "name") return json::value(t.name);
    if (name == "description") return text(t.description);
    if (name == "specifiedByURL") return t.specifiedBy ? json::value(*t.specifiedBy) : nullptr;
    if (name == "fields")
      return t.kind == TypeKind::object ? list(type, group, t.fields, true) : json::value(nullptr);
    if (name == "interfaces")
      return t.kind == TypeKind::object ? json::value(json::array{}) : json::value(nullptr);
    if (name == "possibleTypes") return nullptr;
    if (name == "enumValues")
      return t.kind == TypeKind::enumeration ? list(type, group, t.enumValues, true)
                                             : json::value(nullptr);
    if (name == "inputFields")
      return t.kind == TypeKind::inputObject ? list(type, group, t.inputFields, true)
                                             : json::value(nullptr);
    return nullptr;  // ofType of a named type
  }

  Execution& execution_;
  const Schema& schema_;
};

}  // namespace

json::value introspect(Execution& execution, const FieldGroup& field) {
  return Introspection(execution).root(field);
}

std::size_t introspectionListSize(const Schema& schema, std::string_view field) {
  std::size_t size = 0;
  if (field == "types") return schema.types.size();
  if (field == "directives") return schema.directives.size();
  if (field == "locations") return 19;
  for (const auto& type : schema.types) {
    if (field == "fields") size = std::max(size, type.fields.size());
    if (field == "enumValues") size = std::max(size, type.enumValues.size());
    if (field == "inputFields") size = std::max(size, type.inputFields.size());
    if (field == "args")
      for (const auto& f : type.fields) size = std::max(size, f.arguments.size());
  }
  if (field == "args")
    for (const auto& d : schema.directives) size = std::max(size, d.arguments.size());
  return size;
}

}  // namespace sandbox::graphql
