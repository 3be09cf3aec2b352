// The engine against the reference implementation (graphql-js, Debian's node-graphql) on the
// same printed schemas: a corpus written by hand for each validation rule, and documents
// generated from the schema, each then broken in one way. Both must agree on the phase that
// refuses a document, the errors' number, places and words, and the data of what runs.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <map>
#include <random>
#include <sstream>
#include <string>
#include <vector>

#include "graphql/schemas.hpp"
#include "graphql/typeref.hpp"
#include "platform/json.hpp"
#include "test_support.hpp"

namespace {

namespace json = boost::json;
namespace fs = std::filesystem;
using sandbox::graphql::Schema;

struct Case {
  std::string id;
  std::string schema;  ///< "inbox" or "brand"
  std::string query;
  json::object variables;
  std::optional<std::string> operationName;
};

const Schema& schemaNamed(const std::string& name) {
  return name == "inbox" ? sandbox::inboxSchema() : sandbox::brandSchema();
}

json::object fixtureFor(const std::string& schema) {
  if (schema == "brand")
    return platform::parseJSON(R"({"brand": {"brandId": "b1", "settings": {"colors":
        {"primary": "#111", "secondary": null}, "inapp": {"borderRadius": "4px",
        "disableHeraldFooter": true}}}})")
        .as_object();
  return platform::parseJSON(R"({"count": 3,
    "messages": {"totalCount": 3, "pageInfo": {"startCursor": "i2", "hasNextPage": true},
      "nodes": [{"messageId": "i3", "title": "C", "data": {"k": [1, {"x": null}]},
                 "actions": [{"content": "Go", "href": "app://go", "data": {"a": 1}}],
                 "trackingIds": {"clickTrackingId": "t3"}, "created": "2026-01-03"},
                {"messageId": "i2", "title": null, "read": "2026-01-04", "actions": [],
                 "content": {"title": "B", "actions": [{"style": "bold"}]}}]},
    "message": {"messageId": "i1", "body": "b", "content": {"preview": "p"}},
    "markAllRead": true, "read": true})")
      .as_object();
}

// --- the corpus written by hand -----------------------------------------------------------

std::string slurp(const fs::path& path) {
  std::ifstream file(path);
  return {std::istreambuf_iterator<char>(file), {}};
}

std::vector<Case> handWritten() {
  std::vector<Case> cases;
  for (const auto& entry : fs::recursive_directory_iterator(GRAPHQL_CORPUS_DIR)) {
    if (entry.path().extension() != ".graphql") continue;
    const auto relative = fs::relative(entry.path(), GRAPHQL_CORPUS_DIR);
    Case c{relative.string(), relative.begin()->string(), slurp(entry.path())};
    if (const auto extra = fs::path(entry.path()).replace_extension(".json"); fs::exists(extra)) {
      const auto parsed = platform::parseJSON(slurp(extra)).as_object();
      if (const auto* v = parsed.if_contains("variables")) c.variables = v->as_object();
      if (const auto* o = parsed.if_contains("operationName"))
        c.operationName = std::string(o->as_string());
    }
    cases.push_back(std::move(c));
  }
  std::sort(cases.begin(), cases.end(), [](const Case& a, const Case& b) { return a.id < b.id; });
  return cases;
}

// --- documents generated from the schema, then broken -------------------------------------

class Generator {
 public:
  Generator(const Schema& schema, unsigned seed) : schema_(schema), random_(seed) {}

  // A valid query of the schema: fields with arguments of the right types, aliases, inline
  // fragments, named fragments and directives, variables for some arguments.
  std::string query() {
    variables_.clear();
    fragments_.clear();
    const auto body = selection(*schema_.type(schema_.queryType), 0);
    std::string head = "query Q";
    if (!variables_.empty()) {
      head += "(";
      for (std::size_t i = 0; i < variables_.size(); ++i) head += (i ? ", " : "") + variables_[i];
      head += ")";
    }
    std::string text = head + " " + body;
    for (const auto& fragment : fragments_) text += "\n" + fragment;
    return text;
  }

  std::size_t pick(std::size_t n) {
    return std::uniform_int_distribution<std::size_t>(0, n - 1)(random_);
  }
  bool chance(int percent) { return static_cast<int>(pick(100)) < percent; }

 private:
  std::string literal(std::string_view type) {
    const auto named = sandbox::graphql::typeref::named(type);
    if (sandbox::graphql::typeref::isList(type))
      return "[" +
             literal(sandbox::graphql::typeref::ofType(sandbox::graphql::typeref::nullable(type))) +
             "]";
    if (named == "Int") return std::to_string(pick(50));
    if (named == "Boolean") return chance(50) ? "true" : "false";
    if (named == "String") return "\"s" + std::to_string(pick(9)) + "\"";
    const auto* input = schema_.type(named);
    if (input && input->kind == sandbox::graphql::TypeKind::inputObject) {
      std::string out = "{";
      for (const auto& field : input->inputFields)
        if (chance(50))
          out += (out.size() > 1 ? ", " : "") + field.name + ": " + literal(field.type);
      return out + "}";
    }
    return "null";
  }

  std::string arguments(const sandbox::graphql::FieldDefinition& field) {
    std::string out;
    for (const auto& argument : field.arguments) {
      const bool required = sandbox::graphql::typeref::isNonNull(argument.type);
      if (!required && chance(50)) continue;
      std::string value;
      if (chance(25)) {
        const auto name = "v" + std::to_string(variables_.size());
        variables_.push_back("$" + name + ": " + argument.type +
                             (chance(30) && !required ? " = " + literal(argument.type) : ""));
        value = "$" + name;
      } else {
        value = literal(argument.type);
      }
      out += (out.empty() ? "" : ", ") + argument.name + ": " + value;
    }
    return out.empty() ? "" : "(" + out + ")";
  }

  std::string selection(const sandbox::graphql::TypeDefinition& type, int depth) {
    std::string out = "{";
    const auto count = 1 + pick(3);
    for (std::size_t i = 0; i < count; ++i) {
      const auto roll = pick(10);
      if (roll == 0 && depth < 3) {
        out += " ... on " + type.name + " " + selection(type, depth + 1);
        continue;
      }
      if (roll == 1 && depth < 3 && fragments_.size() < 3) {
        const auto name = "F" + std::to_string(fragments_.size());
        fragments_.push_back("");  // reserve the name before the body takes its own
        const auto index = fragments_.size() - 1;
        fragments_[index] =
            "fragment " + name + " on " + type.name + " " + selection(type, depth + 1);
        out += " ..." + name;
        continue;
      }
      if (roll == 2) {
        out += " __typename";
        continue;
      }
      const auto& field = type.fields[pick(type.fields.size())];
      const auto* result = schema_.named(field.type);
      out += " ";
      if (chance(25)) out += "a" + std::to_string(pick(3)) + "_" + field.name + ": ";
      out += field.name + arguments(field);
      if (chance(10))
        out += std::string(" @") + (chance(50) ? "skip" : "include") +
               "(if: " + (chance(50) ? "true" : "false") + ")";
      if (!result->isLeaf())
        out += " " + (depth < 4 ? selection(*result, depth + 1) : "{ __typename }");
    }
    return out + " }";
  }

  const Schema& schema_;
  std::mt19937 random_;
  std::vector<std::string> variables_;
  std::vector<std::string> fragments_;
};

// The ways of breaking a document, each labelled with what it breaks: a variable to define,
// a selection to put first, a directive after the operation's name, text to append.
struct Break {
  const char *variable, *top, *afterName, *tail;
};
constexpr Break breaks[] = {
    {nullptr, "count(params: {}, params: {})"},            // duplicate argument
    {nullptr, "x: count x: __typename"},                   // aliases that clash
    {nullptr, "message { title }"},                        // required argument dropped
    {nullptr, "messages(limit: \"ten\") { totalCount }"},  // literal of the wrong type
    {"$unused: Int"},                                      // variable never used
    {nullptr, nullptr, nullptr, "\nfragment Unused on Query { count }"},  // fragment never used
    {nullptr, nullptr, " @include(if: true)"},              // directive in the wrong place
    {"$l: [Int]", "messages(limit: $l) { totalCount }"},    // list where a scalar goes
    {nullptr, "nope"},                                      // unknown field
    {nullptr, "count { x }"},                               // a leaf with a selection
    {nullptr, "messages(after: $nowhere) { totalCount }"},  // variable not defined
    {nullptr, "...Cyc", nullptr,                            // a fragment cycle
     "\nfragment Cyc on Query { count ...Cyc2 } fragment Cyc2 on Query { ...Cyc }"},
    {nullptr, "count @skip(if: false, when: true)"},  // unknown directive argument
    {nullptr, nullptr, nullptr, "\n{ count }"},       // two operations, one anonymous
};

std::string breakOnce(std::string text, std::size_t how) {
  const auto& b = breaks[how % std::size(breaks)];
  if (b.variable)
    text.replace(0, text[7] == '(' ? 8 : 7,
                 "query Q(" + std::string(b.variable) + (text[7] == '(' ? ", " : ")"));
  if (b.top) text.insert(text.find('{') + 1, " " + std::string(b.top));
  if (b.afterName) text.insert(text.find(' ', 6), b.afterName);
  if (b.tail) text += b.tail;
  return text;
}

std::vector<Case> generated(std::size_t count) {
  std::vector<Case> cases;
  Generator generator(sandbox::inboxSchema(), 2026);
  for (std::size_t i = 0; i < count; ++i) {
    const auto valid = generator.query();
    cases.push_back({"generated/" + std::to_string(i) + "/valid", "inbox", valid, {}, {}});
    const auto broken = "/broken-" + std::to_string(i % std::size(breaks));
    cases.push_back({"generated/" + std::to_string(i) + broken, "inbox", breakOnce(valid, i)});
  }
  return cases;
}

// --- running the reference ----------------------------------------------------------------

std::string shellQuote(const std::string& text) {
  std::string out = "'";
  for (const char c : text) out += c == '\'' ? std::string("'\\''") : std::string(1, c);
  return out + "'";
}

// Runs the reference once over every line; its answers by id.
std::map<std::string, json::object> reference(const std::vector<json::object>& lines) {
  const auto input =
      fs::temp_directory_path() / ("graphql-ref-" + std::to_string(::getpid()) + ".jsonl");
  {
    std::ofstream file(input);
    for (const auto& line : lines) file << platform::toJSON(line) << "\n";
  }
  const std::string command = "NODE_PATH=/usr/share/nodejs node " +
                              shellQuote(GRAPHQL_REFERENCE_SCRIPT) + " < " +
                              shellQuote(input.string());
  std::map<std::string, json::object> answers;
  FILE* pipe = ::popen(command.c_str(), "r");
  if (!pipe) return answers;
  std::string output;
  char buffer[65536];
  for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;)
    output.append(buffer, n);
  ::pclose(pipe);
  fs::remove(input);
  std::istringstream stream(output);
  for (std::string line; std::getline(stream, line);) {
    auto parsed = platform::parseJSON(line).as_object();
    answers[std::string(parsed.at("id").as_string())] = std::move(parsed);
  }
  return answers;
}

bool referenceAvailable() {
  return std::system(
             "NODE_PATH=/usr/share/nodejs node -e \"require('graphql')\" >/dev/null 2>&1") == 0;
}

// The reference suggests names ("Did you mean …?"); the engine does not.
std::string withoutSuggestion(std::string message) {
  const auto at = message.find(" Did you mean ");
  if (at != std::string::npos && message.back() == '?' &&
      message.find("{ ... }") == std::string::npos)
    message.erase(at);
  return message;
}

// Errors as sorted (message, locations) texts: the two order rules differently.
std::vector<std::string> canonical(const json::array& errors, bool messages) {
  std::vector<std::string> out;
  for (const auto& error : errors) {
    std::string text;
    if (const auto* locations = error.as_object().if_contains("locations"))
      for (const auto& l : locations->as_array())
        text += std::to_string(l.at("line").to_number<int>()) + ":" +
                std::to_string(l.at("column").to_number<int>()) + " ";
    if (messages) text += withoutSuggestion(std::string(error.at("message").as_string()));
    out.push_back(text);
  }
  std::sort(out.begin(), out.end());
  return out;
}

class AgainstTheReference : public ::testing::Test {
 protected:
  void SetUp() override {
    if (!referenceAvailable())
      GTEST_SKIP() << "node with node-graphql is not installed (scripts/bootstrap installs "
                      "nodejs and node-graphql); the comparison with the reference is skipped";
  }
  static std::vector<json::object> schemaLines() {
    std::vector<json::object> lines;
    for (const char* name : {"inbox", "brand"})
      lines.push_back(
          {{"schema", name}, {"sdl", sandbox::graphql::printSchema(schemaNamed(name))}});
    return lines;
  }
};

TEST_F(AgainstTheReference, TheCorpusGetsTheSameVerdictsErrorsAndData) {
  auto cases = handWritten();
  const auto made = generated(130);
  cases.insert(cases.end(), made.begin(), made.end());
  ASSERT_GE(cases.size(), 300u);

  auto lines = schemaLines();
  for (const auto& c : cases) {
    json::object line{{"id", c.id},
                      {"schema", c.schema},
                      {"query", c.query},
                      {"variables", c.variables},
                      {"fixture", fixtureFor(c.schema)}};
    if (c.operationName) line["operationName"] = *c.operationName;
    lines.push_back(std::move(line));
  }
  const auto answers = reference(lines);
  ASSERT_EQ(answers.size(), cases.size()) << "the reference answered fewer documents than given";

  std::map<std::string, int> phases;
  for (const auto& c : cases) {
    const auto& theirs = answers.at(c.id);
    graphql_test::Options options{.variables = c.variables,
                                  .operationName = c.operationName,
                                  .fixture = fixtureFor(c.schema)};
    const auto ours = graphql_test::run(schemaNamed(c.schema), c.query, options);
    const auto phase = std::string(theirs.at("phase").as_string());
    ++phases[phase];
    SCOPED_TRACE(c.id + "\n" + c.query + "\nreference: " + platform::toJSON(theirs));
    EXPECT_EQ(ours.phase, phase) << graphql_test::firstMessage(ours);
    if (ours.phase != phase) continue;
    const auto& theirErrors = theirs.at("errors").as_array();
    // Syntax errors agree on the place; the wording is each parser's own.
    EXPECT_EQ(canonical(ours.errors, phase != "syntax"), canonical(theirErrors, phase != "syntax"));
    if (phase == "ok") {
      EXPECT_EQ(platform::toJSON(ours.data), platform::toJSON(theirs.at("data")));
    }
  }
  // The corpus holds documents of every kind.
  EXPECT_GT(phases["ok"], 50);
  EXPECT_GT(phases["validation"], 100);
  EXPECT_GT(phases["syntax"], 3);
}

TEST_F(AgainstTheReference, ThePrintedSchemaAndTheIntrospectionAreTheReferencesOwn) {
  auto lines = schemaLines();
  for (const char* name : {"inbox", "brand"}) {
    lines.push_back({{"id", std::string("print-") + name}, {"schema", name}, {"print", true}});
    lines.push_back(
        {{"id", std::string("introspect-") + name}, {"schema", name}, {"introspect", true}});
  }
  const auto answers = reference(lines);
  for (const std::string name : {"inbox", "brand"}) {
    const auto& schema = schemaNamed(name);
    EXPECT_EQ(std::string(answers.at("print-" + name).at("sdl").as_string()) + "\n",
              sandbox::graphql::printSchema(schema));
    // The reference's standard introspection query, every option on, answered by both.
    const std::string query = R"(query IntrospectionQuery {
      __schema { description queryType { name } mutationType { name } subscriptionType { name }
        types { ...FullType }
        directives { name description isRepeatable locations args(includeDeprecated: true) { ...InputValue } } } }
    fragment FullType on __Type { kind name description specifiedByURL
      fields(includeDeprecated: true) { name description args(includeDeprecated: true) { ...InputValue }
        type { ...TypeRef } isDeprecated deprecationReason }
      inputFields(includeDeprecated: true) { ...InputValue }
      interfaces { ...TypeRef }
      enumValues(includeDeprecated: true) { name description isDeprecated deprecationReason }
      possibleTypes { ...TypeRef } }
    fragment InputValue on __InputValue { name description type { ...TypeRef } defaultValue isDeprecated deprecationReason }
    fragment TypeRef on __Type { kind name ofType { kind name ofType { kind name ofType { kind name
      ofType { kind name ofType { kind name ofType { kind name ofType { kind name ofType { kind name } } } } } } } } })";
    const auto ours = graphql_test::run(schema, query);
    ASSERT_EQ(ours.phase, "ok") << graphql_test::firstMessage(ours);
    auto theirs = answers.at("introspect-" + name).at("data").at("__schema").as_object();
    auto mine = ours.data.at("__schema").as_object();
    // Types compare as a set keyed by name: each side lists them in its own order.
    auto byName = [](json::object& schemaAnswer) {
      std::map<std::string, std::string> types;
      for (const auto& type : schemaAnswer.at("types").as_array())
        types[std::string(type.at("name").as_string())] = platform::toJSON(type);
      schemaAnswer.erase("types");
      return types;
    };
    EXPECT_EQ(byName(mine), byName(theirs)) << name;
    EXPECT_EQ(platform::toJSON(mine), platform::toJSON(theirs)) << name;
  }
}

}  // namespace
