#pragma once
// GraphQL executable documents as plain values. The grammar itself lives in parser.cpp only,
// since the parsing library is heavy to compile; everything else sees these structs.

#include <cstddef>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace sandbox::graphql {

/// 1-based line and column (in bytes) of a token in the document.
struct Location {
  std::size_t line = 0;
  std::size_t column = 0;
};

struct ObjectField;

/// A literal or a variable, as written in an argument or a default value.
struct Value {
  enum class Kind { null, integer, floating, string, boolean, enumeration, list, object, variable };
  Kind kind = Kind::null;
  /// A string's decoded contents, an enum value's or a variable's name (without "$"), or a
  /// number as written ("-12", "1.5e3").
  std::string text;
  bool boolean = false;
  std::vector<Value> items;         ///< a list's items
  std::vector<ObjectField> fields;  ///< an object's fields, in order
  bool block = false;               ///< a string written as """block"""
  Location location;
};

/// One "name: value" of an input object.
struct ObjectField {
  std::string name;
  Value value;
  Location location;
};

struct Argument {
  std::string name;
  Value value;
  Location location;
};

struct Directive {
  std::string name;
  std::vector<Argument> arguments;
  Location location;
};

/// A field, a fragment spread or an inline fragment of a selection set.
struct Selection {
  enum class Kind { field, fragmentSpread, inlineFragment };
  Kind kind = Kind::field;
  std::string alias;          ///< a field's alias; empty when it has none
  std::string name;           ///< a field's name or a spread fragment's name
  std::string typeCondition;  ///< an inline fragment's "on Type"; empty when it has none
  std::vector<Argument> arguments;
  std::vector<Directive> directives;
  std::vector<Selection> selections;
  Location location;
  Location nameLocation;           ///< a field's or a spread fragment's name
  Location typeConditionLocation;  ///< an inline fragment's type name
  Location selectionsLocation;     ///< the "{" of its selection set, when it has one

  /// The key of the field in the answer: its alias, or else its name.
  const std::string& responseKey() const { return alias.empty() ? name : alias; }
};

struct VariableDefinition {
  std::string name;  ///< without "$"
  std::string type;  ///< as written, without blanks: "Int", "[String!]!"
  std::optional<Value> defaultValue;
  std::vector<Directive> directives;
  Location location;           ///< of the "$"
  Location typeLocation;       ///< of the type
  Location namedTypeLocation;  ///< of the name inside the type's brackets
};

struct Operation {
  enum class Kind { query, mutation, subscription };
  Kind kind = Kind::query;
  std::string name;  ///< empty for an anonymous operation
  std::vector<VariableDefinition> variables;
  std::vector<Directive> directives;
  std::vector<Selection> selections;
  Location location;
  Location nameLocation;
};

struct Fragment {
  std::string name;
  std::string typeCondition;
  std::vector<Directive> directives;
  std::vector<Selection> selections;
  Location location;
  Location nameLocation;
  Location typeConditionLocation;
};

struct Document {
  std::vector<Operation> operations;
  std::vector<Fragment> fragments;
};

/// GraphQL text of a value, as the reference implementation prints it: "{a: [1, \"x\"]}".
std::string printValue(const Value& value);

/// A document that is not GraphQL, or one larger or deeper than the parser takes.
class SyntaxError : public std::runtime_error {
 public:
  SyntaxError(const std::string& message, Location where)
      : std::runtime_error(message), location(where) {}
  Location location;
};

/// What the parser takes. Every rule of the grammar that can nest (selection sets, list and
/// object values, list types) counts against the one depth, so no document can exhaust the
/// stack however it nests, and every later pass may recurse over the tree.
struct ParseLimits {
  std::size_t bytes = 64 * 1024;
  std::size_t tokens = 15000;
  int depth = 32;
};

/// Parses an executable document (operations and fragments). Throws SyntaxError with the
/// place of the first token that does not fit, or naming the limit a document goes over.
///
///   auto document = graphql::parse("query { count(params: {archived: true}) }");
Document parse(std::string_view text, const ParseLimits& limits = {});

}  // namespace sandbox::graphql
