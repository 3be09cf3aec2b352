// The parser's limits: every rule of the grammar that nests counts against one depth, so no
// document can exhaust the stack, and size and tokens are bounded before any work is done.
#include <gtest/gtest.h>

#include <string>

#include "graphql/document.hpp"

namespace {

using namespace sandbox::graphql;

std::string nested(int depth, const std::string& open, const std::string& middle,
                   const std::string& close) {
  std::string text;
  for (int i = 0; i < depth; ++i) text += open;
  text += middle;
  for (int i = 0; i < depth; ++i) text += close;
  return text;
}

std::string syntaxError(const std::string& text, const ParseLimits& limits = {}) {
  try {
    parse(text, limits);
  } catch (const SyntaxError& e) {
    return e.what();
  }
  return "";
}

TEST(GraphQLParser, EveryRuleThatNestsCountsAgainstTheOneDepthLimit) {
  // Variable types nested 30,000 deep (60 KB) crashed the service: list types had no bound.
  const std::string deepest[] = {
      "query Q($v: " + nested(30000, "[", "Int", "]") + ") { count }",
      "{ count(params: " + nested(30000, "[", "1", "]") + ") }",
      "{ count(params: " + nested(20000, "{a: ", "1", "}") + ") }",
      nested(15000, "{ a ", "", "}"),
      "{ a " + nested(15000, "... on Query { a ", "", "}") + " }",
  };
  // Past the size limit too, so that the depth limit alone is what stops them.
  ParseLimits large;
  large.bytes = 1 << 20;
  large.tokens = 1 << 20;
  for (const auto& text : deepest) {
    const auto message = syntaxError(text, large);
    EXPECT_NE(message.find("deeper than 32 levels (this service's depth limit)"), std::string::npos)
        << text.substr(0, 60) << ": " << message;
  }
  // Up to the limit, each is read; one level more is not.
  EXPECT_EQ(syntaxError("query Q($v: " + nested(31, "[", "Int", "]") + ") { count }"), "");
  EXPECT_NE(syntaxError("query Q($v: " + nested(32, "[", "Int", "]") + ") { count }"), "");
  const auto document = parse("query Q($v: [[Int!]]! = [[1]] @d) { count }");
  EXPECT_EQ(document.operations.at(0).variables.at(0).type, "[[Int!]]!");
  EXPECT_EQ(document.operations.at(0).variables.at(0).namedTypeLocation.column, 15u);
  EXPECT_EQ(document.operations.at(0).variables.at(0).directives.size(), 1u);
}

TEST(GraphQLParser, SizeAndTokenLimitsNameTheirFigures) {
  std::string many = "{";
  for (int i = 0; i < 60; ++i) many += " a" + std::to_string(i) + ": count";
  many += " }";
  ParseLimits limits;
  limits.tokens = 100;
  EXPECT_EQ(syntaxError(many), "");
  EXPECT_NE(syntaxError(many, limits).find("more than 100 tokens (this service's token limit)"),
            std::string::npos);
  // Blanks, commas and comments are no tokens.
  EXPECT_EQ(syntaxError("{ count ,,,, # " + std::string(500, 'x') + "\n }", limits), "");
  limits.bytes = 20;
  EXPECT_NE(syntaxError("{ count count count count }", limits)
                .find("27 bytes long; this service takes at most 20"),
            std::string::npos);
}

TEST(GraphQLParser, ValuesPrintAsTheReferencePrintsThem) {
  const auto document =
      parse(R"({ f(a: {x: [1, -2.5e3, "q\"\n", true, null, RED, $v], y: """b"""}) })");
  EXPECT_EQ(printValue(document.operations[0].selections[0].arguments[0].value),
            R"({x: [1, -2.5e3, "q\"\n", true, null, RED, $v], y: """b"""})");
}

}  // namespace
