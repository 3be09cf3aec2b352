#include <algorithm>
#include <cctype>
#include <cstdint>
#include <cstdio>
#include <memory>
#include <tao/pegtl.hpp>
#include <tao/pegtl/contrib/parse_tree.hpp>

#include "document.hpp"

namespace sandbox::graphql {
namespace {

namespace pegtl = tao::pegtl;

// The grammar. Every token swallows the blanks, commas and comments after it (`ign`), so
// that the position after the last `ign` that matched is where the first misfit token starts:
// that is where a syntax error is reported.
namespace grammar {
using namespace pegtl;

struct bom : string<'\xEF', '\xBB', '\xBF'> {};
struct comment : seq<one<'#'>, star<not_one<'\n', '\r'>>> {};
struct ign : star<sor<one<' ', '\t', '\n', '\r', ','>, bom, comment>> {};
template <typename Rule>
struct tok : seq<Rule, ign> {};
template <char C>
struct punct : tok<one<C>> {};

struct name_start : ranges<'a', 'z', 'A', 'Z', '_'> {};
struct name_rest : ranges<'a', 'z', 'A', 'Z', '0', '9', '_'> {};
struct name : seq<name_start, star<name_rest>> {};
template <char... Cs>
struct kw : seq<string<Cs...>, not_at<name_rest>> {};
struct kw_query : kw<'q', 'u', 'e', 'r', 'y'> {};
struct kw_mutation : kw<'m', 'u', 't', 'a', 't', 'i', 'o', 'n'> {};
struct kw_subscription : kw<'s', 'u', 'b', 's', 'c', 'r', 'i', 'p', 't', 'i', 'o', 'n'> {};
struct kw_fragment : kw<'f', 'r', 'a', 'g', 'm', 'e', 'n', 't'> {};
struct kw_on : kw<'o', 'n'> {};
struct kw_true : kw<'t', 'r', 'u', 'e'> {};
struct kw_false : kw<'f', 'a', 'l', 's', 'e'> {};
struct kw_null : kw<'n', 'u', 'l', 'l'> {};
struct ellipsis : tok<string<'.', '.', '.'>> {};

// Numbers: "00", "1.", "0x1" and "1e" are no numbers, and neither is a number run into a name.
struct integer_part : seq<opt<one<'-'>>, sor<one<'0'>, seq<range<'1', '9'>, star<digit>>>> {};
struct fraction : seq<one<'.'>, plus<digit>> {};
struct exponent : seq<one<'e', 'E'>, opt<one<'+', '-'>>, plus<digit>> {};
struct number_end : not_at<sor<one<'.'>, name_start, digit>> {};
struct float_value : seq<integer_part, sor<seq<fraction, opt<exponent>>, exponent>, number_end> {};
struct int_value : seq<integer_part, number_end> {};

struct unicode_escape : seq<one<'u'>, rep<4, xdigit>> {};
struct escape : seq<one<'\\'>, sor<one<'"', '\\', '/', 'b', 'f', 'n', 'r', 't'>, unicode_escape>> {
};
struct string_char : sor<escape, seq<not_at<one<'"', '\\'>>, utf8::ranges<0x20, 0x10FFFF, 0x09>>> {
};
struct string_value : seq<one<'"'>, star<string_char>, one<'"'>> {};
struct block_quote : string<'"', '"', '"'> {};
struct block_char : sor<string<'\\', '"', '"', '"'>,
                        seq<not_at<block_quote>, utf8::ranges<0x20, 0x10FFFF, 0x09, 0x0A, 0x0D>>> {
};
struct block_string : seq<block_quote, star<block_char>, block_quote> {};

struct boolean_value : sor<kw_true, kw_false> {};
struct null_value : kw_null {};
struct enum_value : name {};
struct variable_name : seq<one<'$'>, name> {};

struct value;
struct list_value : seq<punct<'['>, star<value>, punct<']'>> {};
struct object_field_name : name {};
struct object_field : seq<tok<object_field_name>, punct<':'>, value> {};
struct object_value : seq<punct<'{'>, star<object_field>, punct<'}'>> {};
struct value : sor<tok<variable_name>, tok<float_value>, tok<int_value>, tok<block_string>,
                   tok<string_value>, tok<boolean_value>, tok<null_value>, tok<enum_value>,
                   list_value, object_value> {};

struct argument_name : name {};
struct argument : seq<tok<argument_name>, punct<':'>, value> {};
struct arguments : seq<punct<'('>, plus<argument>, punct<')'>> {};
struct directive_name : name {};
struct directive : seq<punct<'@'>, tok<directive_name>, opt<arguments>> {};
struct directives : star<directive> {};

struct named_type : name {};
struct type_ref;
struct list_type : seq<punct<'['>, type_ref, punct<']'>> {};
struct non_null : one<'!'> {};
struct type_ref : seq<sor<list_type, tok<named_type>>, opt<tok<non_null>>> {};
struct type_condition : seq<tok<kw_on>, tok<named_type>> {};

struct selection_set;
struct alias_name : name {};
struct field_name : name {};
struct alias : seq<tok<alias_name>, punct<':'>> {};
struct field : seq<opt<alias>, tok<field_name>, opt<arguments>, directives, opt<selection_set>> {};
struct fragment_name : seq<not_at<kw_on>, name> {};
struct fragment_spread : seq<ellipsis, tok<fragment_name>, directives> {};
struct inline_fragment : seq<ellipsis, opt<type_condition>, directives, selection_set> {};
struct selection : sor<field, fragment_spread, inline_fragment> {};
struct selection_set : seq<punct<'{'>, plus<selection>, punct<'}'>> {};

struct operation_kind : sor<kw_query, kw_mutation, kw_subscription> {};
struct operation_name : name {};
struct default_value : seq<punct<'='>, value> {};
struct variable_definition
    : seq<tok<variable_name>, punct<':'>, type_ref, opt<default_value>, directives> {};
struct variable_definitions : seq<punct<'('>, plus<variable_definition>, punct<')'>> {};
struct operation_definition
    : sor<selection_set, seq<tok<operation_kind>, opt<tok<operation_name>>,
                             opt<variable_definitions>, directives, selection_set>> {};
struct fragment_definition
    : seq<tok<kw_fragment>, tok<fragment_name>, type_condition, directives, selection_set> {};
struct document : seq<ign, plus<sor<operation_definition, fragment_definition>>, eof> {};

template <typename Rule>
using selected = pegtl::parse_tree::selector<
    Rule, pegtl::parse_tree::store_content::on<
              float_value, int_value, string_value, block_string, boolean_value, null_value,
              enum_value, variable_name, list_value, object_field_name, object_field, object_value,
              argument_name, argument, directive_name, directive, named_type, list_type, non_null,
              type_ref, type_condition, alias_name, field_name, field, fragment_name,
              fragment_spread, inline_fragment, selection_set, operation_kind, operation_name,
              default_value, variable_definition, operation_definition, fragment_definition>>;

}  // namespace grammar

struct OverLimit {
  const char* where;
  bool depth;  ///< else tokens
};

struct ParseState {
  const ParseLimits& limits;
  const char* farthest = nullptr;
  int depth = 0;
  std::size_t tokens = 0;
};

template <typename Rule>
struct Control : pegtl::normal<Rule> {};

// Every token ends where the blanks after it begin, so a new farthest end of blanks is one
// more token; backtracking over tokens already counted does not count them again.
template <>
struct Control<grammar::ign> : pegtl::normal<grammar::ign> {
  template <typename Input>
  static void success(const Input& in, ParseState& state) {
    if (in.current() <= state.farthest) return;
    state.farthest = in.current();
    if (++state.tokens > state.limits.tokens) throw OverLimit{in.current(), false};
  }
};

// Only the rules that nest count, so the bound holds however the nesting is spelled.
template <typename Rule>
struct NestingControl : pegtl::normal<Rule> {
  template <typename Input>
  static void start(const Input& in, ParseState& state) {
    if (++state.depth > state.limits.depth) throw OverLimit{in.current(), true};
  }
  template <typename Input>
  static void success(const Input&, ParseState& state) {
    --state.depth;
  }
  template <typename Input>
  static void failure(const Input&, ParseState& state) {
    --state.depth;
  }
};
template <>
struct Control<grammar::selection_set> : NestingControl<grammar::selection_set> {};
template <>
struct Control<grammar::list_value> : NestingControl<grammar::list_value> {};
template <>
struct Control<grammar::object_value> : NestingControl<grammar::object_value> {};
template <>
struct Control<grammar::list_type> : NestingControl<grammar::list_type> {};

Location locate(std::string_view text, std::size_t offset) {
  Location location{1, 1};
  for (std::size_t i = 0; i < offset && i < text.size(); ++i) {
    // "\r\n" is one line break, and so are a lone "\r" and a lone "\n".
    if (text[i] == '\n' || (text[i] == '\r' && (i + 1 >= text.size() || text[i + 1] != '\n'))) {
      ++location.line;
      location.column = 1;
    } else {
      ++location.column;
    }
  }
  return location;
}

template <typename Rule>
bool startsWith(std::string_view rest) {
  pegtl::memory_input in(rest.data(), rest.size(), "");
  return pegtl::parse<Rule>(in);
}

// What stands where the document stops being GraphQL, in the words a reader looks for.
// Where inside a misfit token the fault is, as a lexer finds it: the digit after a leading
// zero, the character where a number stops being one, the end of a string's line.
std::size_t faultInside(std::string_view rest) {
  auto digit = [&](std::size_t i) {
    return i < rest.size() && std::isdigit(static_cast<unsigned char>(rest[i]));
  };
  if (rest.front() == '"') {
    if (rest.starts_with("\"\"\"")) return rest.size();  // unterminated: at the end
    for (std::size_t i = 1; i < rest.size(); ++i) {
      const auto c = static_cast<unsigned char>(rest[i]);
      if (c == '"') return 0;
      if (c == '\\') {
        const char next = i + 1 < rest.size() ? rest[i + 1] : '\0';
        if (std::string_view("\"\\/bfnrt").find(next) != std::string_view::npos && next) {
          ++i;
          continue;
        }
        if (next == 'u' && i + 5 < rest.size() &&
            std::all_of(rest.begin() + static_cast<std::ptrdiff_t>(i) + 2,
                        rest.begin() + static_cast<std::ptrdiff_t>(i) + 6,
                        [](char h) { return std::isxdigit(static_cast<unsigned char>(h)); })) {
          i += 5;
          continue;
        }
        return i;
      }
      if (c == '\n' || c == '\r' || (c < 0x20 && c != '\t')) return i;
    }
    return rest.size();
  }
  std::size_t i = rest.front() == '-' ? 1 : 0;
  if (!digit(i)) return i;
  if (rest[i] == '0') {
    ++i;
    if (digit(i)) return i;
  } else {
    while (digit(i)) ++i;
  }
  if (i < rest.size() && rest[i] == '.') {
    if (!digit(++i)) return i;
    while (digit(i)) ++i;
  }
  if (i < rest.size() && (rest[i] == 'e' || rest[i] == 'E')) {
    ++i;
    if (i < rest.size() && (rest[i] == '+' || rest[i] == '-')) ++i;
    if (!digit(i)) return i;
    while (digit(i)) ++i;
  }
  // A whole number followed by what cannot follow one is faulty there; else the number is
  // fine and merely misplaced.
  const bool runOn = i < rest.size() && (rest[i] == '.' || rest[i] == '_' ||
                                         std::isalnum(static_cast<unsigned char>(rest[i])));
  return runOn ? i : 0;
}

std::string describeMisfit(std::string_view rest) {
  using namespace grammar;
  if (rest.empty()) return "Syntax Error: Unexpected end of document.";
  const unsigned char c = static_cast<unsigned char>(rest.front());
  if (c == '"')
    return startsWith<sor<block_string, string_value>>(rest)
               ? "Syntax Error: Unexpected string."
               : "Syntax Error: Unterminated string, or a string with a control character, a "
                 "bad escape or bytes that are not UTF-8.";
  if (std::isalpha(c) || c == '_') {
    std::size_t n = 1;
    while (n < rest.size() && n < 40 &&
           (std::isalnum(static_cast<unsigned char>(rest[n])) || rest[n] == '_'))
      ++n;
    return "Syntax Error: Unexpected name \"" + std::string(rest.substr(0, n)) + "\".";
  }
  if (std::isdigit(c) || c == '-')
    return startsWith<sor<float_value, int_value>>(rest) ? "Syntax Error: Unexpected number."
                                                         : "Syntax Error: Invalid number.";
  if (c >= 0x20 && c < 0x7f)
    return std::string("Syntax Error: Unexpected \"") + static_cast<char>(c) + "\".";
  char code[8];
  std::snprintf(code, sizeof code, "0x%02X", c);
  return std::string("Syntax Error: Unexpected byte ") + code + ".";
}

using Node = pegtl::parse_tree::node;

// Builds the plain structs from the parse tree; the grammar has checked the shapes, so the
// children are where the rules put them.
class Builder {
 public:
  Document document(const Node& root) {
    Document document;
    for (const auto& child : root.children) {
      if (child->is_type<grammar::operation_definition>())
        document.operations.push_back(operation(*child));
      else
        document.fragments.push_back(fragment(*child));
    }
    return document;
  }

 private:
  static Location at(const Node& node) {
    const auto position = node.begin();
    return {position.line, position.column};
  }

  Operation operation(const Node& node) {
    Operation result;
    result.location = at(node);
    for (const auto& child : node.children) {
      if (child->is_type<grammar::operation_kind>()) {
        const auto kind = child->string_view();
        result.kind = kind == "query"      ? Operation::Kind::query
                      : kind == "mutation" ? Operation::Kind::mutation
                                           : Operation::Kind::subscription;
      } else if (child->is_type<grammar::operation_name>()) {
        result.name = child->string();
        result.nameLocation = at(*child);
      } else if (child->is_type<grammar::variable_definition>()) {
        result.variables.push_back(variableDefinition(*child));
      } else if (child->is_type<grammar::directive>()) {
        result.directives.push_back(directive(*child));
      } else if (child->is_type<grammar::selection_set>()) {
        result.selections = selections(*child);
      }
    }
    return result;
  }

  Fragment fragment(const Node& node) {
    Fragment result;
    result.location = at(node);
    for (const auto& child : node.children) {
      if (child->is_type<grammar::fragment_name>()) {
        result.name = child->string();
        result.nameLocation = at(*child);
      } else if (child->is_type<grammar::type_condition>()) {
        result.typeCondition = child->children.front()->string();
        result.typeConditionLocation = at(*child->children.front());
      } else if (child->is_type<grammar::directive>()) {
        result.directives.push_back(directive(*child));
      } else if (child->is_type<grammar::selection_set>()) {
        result.selections = selections(*child);
      }
    }
    return result;
  }

  VariableDefinition variableDefinition(const Node& node) {
    VariableDefinition result;
    result.location = at(node);
    for (const auto& child : node.children) {
      if (child->is_type<grammar::variable_name>()) {
        result.name = child->string().substr(1);
      } else if (child->is_type<grammar::type_ref>()) {
        result.type = typeText(*child);
        result.typeLocation = at(*child);
        const Node* inner = child.get();
        while (!inner->is_type<grammar::named_type>()) inner = inner->children.front().get();
        result.namedTypeLocation = at(*inner);
      } else if (child->is_type<grammar::directive>()) {
        result.directives.push_back(directive(*child));
      } else if (child->is_type<grammar::default_value>()) {
        result.defaultValue = value(*child->children.front());
        if (holdsVariable(*result.defaultValue))
          throw SyntaxError("Syntax Error: the default value of $" + result.name +
                                " holds a variable; a default must be a constant.",
                            at(*child));
      }
    }
    return result;
  }

  static std::string typeText(const Node& node) {
    if (node.is_type<grammar::named_type>()) return node.string();
    if (node.is_type<grammar::non_null>()) return "!";
    std::string text;
    for (const auto& child : node.children) text += typeText(*child);
    return node.is_type<grammar::list_type>() ? "[" + text + "]" : text;
  }

  static bool holdsVariable(const Value& value) {
    if (value.kind == Value::Kind::variable) return true;
    for (const auto& item : value.items)
      if (holdsVariable(item)) return true;
    for (const auto& field : value.fields)
      if (holdsVariable(field.value)) return true;
    return false;
  }

  Directive directive(const Node& node) {
    Directive result;
    result.location = at(node);
    for (const auto& child : node.children) {
      if (child->is_type<grammar::directive_name>())
        result.name = child->string();
      else
        result.arguments.push_back(argument(*child));
    }
    return result;
  }

  Argument argument(const Node& node) {
    return Argument{node.children.at(0)->string(), value(*node.children.at(1)), at(node)};
  }

  std::vector<Selection> selections(const Node& set) {
    std::vector<Selection> result;
    for (const auto& child : set.children) result.push_back(selection(*child));
    return result;
  }

  Selection selection(const Node& node) {
    Selection result;
    result.location = at(node);
    if (node.is_type<grammar::fragment_spread>()) result.kind = Selection::Kind::fragmentSpread;
    if (node.is_type<grammar::inline_fragment>()) result.kind = Selection::Kind::inlineFragment;
    for (const auto& child : node.children) {
      if (child->is_type<grammar::alias_name>()) {
        result.alias = child->string();
      } else if (child->is_type<grammar::field_name>() ||
                 child->is_type<grammar::fragment_name>()) {
        result.name = child->string();
        result.nameLocation = at(*child);
      } else if (child->is_type<grammar::type_condition>()) {
        result.typeCondition = child->children.front()->string();
        result.typeConditionLocation = at(*child->children.front());
      } else if (child->is_type<grammar::argument>()) {
        result.arguments.push_back(argument(*child));
      } else if (child->is_type<grammar::directive>()) {
        result.directives.push_back(directive(*child));
      } else if (child->is_type<grammar::selection_set>()) {
        result.selections = selections(*child);
        result.selectionsLocation = at(*child);
      }
    }
    return result;
  }

  Value value(const Node& node) {
    Value result;
    result.location = at(node);
    if (node.is_type<grammar::int_value>()) {
      result.kind = Value::Kind::integer;
      result.text = node.string();
    } else if (node.is_type<grammar::float_value>()) {
      result.kind = Value::Kind::floating;
      result.text = node.string();
    } else if (node.is_type<grammar::string_value>()) {
      result.kind = Value::Kind::string;
      result.text = unescape(node.string_view(), result.location);
    } else if (node.is_type<grammar::block_string>()) {
      result.kind = Value::Kind::string;
      result.text = blockStringValue(node.string_view());
      result.block = true;
    } else if (node.is_type<grammar::boolean_value>()) {
      result.kind = Value::Kind::boolean;
      result.boolean = node.string_view() == "true";
    } else if (node.is_type<grammar::null_value>()) {
      result.kind = Value::Kind::null;
    } else if (node.is_type<grammar::enum_value>()) {
      result.kind = Value::Kind::enumeration;
      result.text = node.string();
    } else if (node.is_type<grammar::variable_name>()) {
      result.kind = Value::Kind::variable;
      result.text = node.string().substr(1);
    } else if (node.is_type<grammar::list_value>()) {
      result.kind = Value::Kind::list;
      for (const auto& child : node.children) result.items.push_back(value(*child));
    } else {
      result.kind = Value::Kind::object;
      for (const auto& child : node.children)
        result.fields.push_back(ObjectField{child->children.at(0)->string(),
                                            value(*child->children.at(1)), at(*child)});
    }
    return result;
  }

  static void appendUTF8(std::string& out, std::uint32_t code) {
    if (code < 0x80) {
      out += static_cast<char>(code);
    } else if (code < 0x800) {
      out += static_cast<char>(0xC0 | (code >> 6));
      out += static_cast<char>(0x80 | (code & 0x3F));
    } else if (code < 0x10000) {
      out += static_cast<char>(0xE0 | (code >> 12));
      out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (code & 0x3F));
    } else {
      out += static_cast<char>(0xF0 | (code >> 18));
      out += static_cast<char>(0x80 | ((code >> 12) & 0x3F));
      out += static_cast<char>(0x80 | ((code >> 6) & 0x3F));
      out += static_cast<char>(0x80 | (code & 0x3F));
    }
  }

  // The contents of a quoted string, its escapes decoded. A surrogate pair in two \u escapes
  // is one character; half of one is an error, since it stands for no character at all.
  static std::string unescape(std::string_view quoted, Location location) {
    const auto body = quoted.substr(1, quoted.size() - 2);
    std::string out;
    for (std::size_t i = 0; i < body.size(); ++i) {
      if (body[i] != '\\') {
        out += body[i];
        continue;
      }
      const char kind = body[++i];
      switch (kind) {
        case 'b':
          out += '\b';
          break;
        case 'f':
          out += '\f';
          break;
        case 'n':
          out += '\n';
          break;
        case 'r':
          out += '\r';
          break;
        case 't':
          out += '\t';
          break;
        case 'u': {
          auto code = hex4(body.substr(i + 1, 4));
          i += 4;
          if (code >= 0xD800 && code < 0xDC00 && body.substr(i + 1, 2) == "\\u") {
            const auto low = hex4(body.substr(i + 3, 4));
            if (low >= 0xDC00 && low < 0xE000) {
              code = 0x10000 + ((code - 0xD800) << 10) + (low - 0xDC00);
              i += 6;
            }
          }
          if (code >= 0xD800 && code < 0xE000)
            throw SyntaxError("Syntax Error: a string holds half of a surrogate pair ('\\u" +
                                  std::string(body.substr(i - 3, 4)) + "').",
                              location);
          appendUTF8(out, code);
          break;
        }
        default:
          out += kind;
          break;  // '"', '\\' and '/' stand for themselves
      }
    }
    return out;
  }

  static std::uint32_t hex4(std::string_view digits) {
    std::uint32_t code = 0;
    for (const char c : digits)
      code = code * 16 + static_cast<std::uint32_t>(std::isdigit(static_cast<unsigned char>(c))
                                                        ? c - '0'
                                                        : (std::tolower(c) - 'a' + 10));
    return code;
  }

  // A block string's value: lines split at any line break, the common indentation of all
  // lines but the first removed, blank first and last lines dropped, and \""" read as """.
  static std::string blockStringValue(std::string_view quoted) {
    std::string raw(quoted.substr(3, quoted.size() - 6));
    for (std::size_t at = raw.find("\\\"\"\""); at != std::string::npos;
         at = raw.find("\\\"\"\"", at + 3))
      raw.erase(at, 1);
    std::vector<std::string> lines;
    std::string line;
    for (std::size_t i = 0; i < raw.size(); ++i) {
      if (raw[i] == '\r' || raw[i] == '\n') {
        if (raw[i] == '\r' && i + 1 < raw.size() && raw[i + 1] == '\n') ++i;
        lines.push_back(std::move(line));
        line.clear();
      } else {
        line += raw[i];
      }
    }
    lines.push_back(std::move(line));
    auto indentOf = [](const std::string& l) { return l.find_first_not_of(" \t"); };
    std::size_t common = std::string::npos;
    for (std::size_t i = 1; i < lines.size(); ++i)
      if (const auto indent = indentOf(lines[i]); indent != std::string::npos)
        common = std::min(common, indent);
    if (common != std::string::npos)
      for (std::size_t i = 1; i < lines.size(); ++i) lines[i].erase(0, common);
    auto blank = [&](const std::string& l) { return indentOf(l) == std::string::npos; };
    std::size_t first = 0, last = lines.size();
    while (first < last && blank(lines[first])) ++first;
    while (last > first && blank(lines[last - 1])) --last;
    std::string out;
    for (std::size_t i = first; i < last; ++i) out += (i > first ? "\n" : "") + lines[i];
    return out;
  }
};

}  // namespace

std::string printValue(const Value& value) {
  using Kind = Value::Kind;
  switch (value.kind) {
    case Kind::null:
      return "null";
    case Kind::boolean:
      return value.boolean ? "true" : "false";
    case Kind::variable:
      return "$" + value.text;
    case Kind::integer:
    case Kind::floating:
    case Kind::enumeration:
      return value.text;
    case Kind::string: {
      if (value.block) return "\"\"\"" + value.text + "\"\"\"";
      std::string out = "\"";
      for (const char c : value.text) {
        const auto u = static_cast<unsigned char>(c);
        if (c == '"' || c == '\\') {
          out += '\\';
          out += c;
        } else if (c == '\n') {
          out += "\\n";
        } else if (c == '\t') {
          out += "\\t";
        } else if (c == '\r') {
          out += "\\r";
        } else if (c == '\b') {
          out += "\\b";
        } else if (c == '\f') {
          out += "\\f";
        } else if (u < 0x20 || u == 0x7f) {
          char code[8];
          std::snprintf(code, sizeof code, "\\u%04X", u);
          out += code;
        } else {
          out += c;
        }
      }
      return out + "\"";
    }
    case Kind::list: {
      std::string out = "[";
      for (std::size_t i = 0; i < value.items.size(); ++i)
        out += (i ? ", " : "") + printValue(value.items[i]);
      return out + "]";
    }
    case Kind::object: {
      std::string out = "{";
      for (std::size_t i = 0; i < value.fields.size(); ++i)
        out += (i ? ", " : "") + value.fields[i].name + ": " + printValue(value.fields[i].value);
      return out + "}";
    }
  }
  return "null";
}

Document parse(std::string_view text, const ParseLimits& limits) {
  if (text.size() > limits.bytes)
    throw SyntaxError("The document is " + std::to_string(text.size()) +
                          " bytes long; this service takes at most " +
                          std::to_string(limits.bytes) + " (its document size limit).",
                      Location{1, 1});
  pegtl::memory_input in(text.data(), text.size(), "query");
  ParseState state{limits, text.data()};
  std::unique_ptr<Node> root;
  try {
    root = pegtl::parse_tree::parse<grammar::document, grammar::selected, pegtl::nothing, Control>(
        in, state);
  } catch (const OverLimit& over) {
    const auto where = locate(text, static_cast<std::size_t>(over.where - text.data()));
    if (over.depth)
      throw SyntaxError(
          "Syntax Error: the document nests selections, lists, objects or list types deeper "
          "than " +
              std::to_string(limits.depth) + " levels (this service's depth limit).",
          where);
    throw SyntaxError("Syntax Error: the document holds more than " +
                          std::to_string(limits.tokens) + " tokens (this service's token limit).",
                      where);
  }
  if (!root) {
    const auto offset = static_cast<std::size_t>(state.farthest - text.data());
    const auto rest = text.substr(offset);
    const auto c = rest.empty() ? '\0' : rest.front();
    const auto inside = (c == '"' || c == '-' || std::isdigit(static_cast<unsigned char>(c)))
                            ? faultInside(rest)
                            : 0;
    throw SyntaxError(describeMisfit(rest), locate(text, offset + inside));
  }
  return Builder().document(*root);
}

}  // namespace sandbox::graphql
