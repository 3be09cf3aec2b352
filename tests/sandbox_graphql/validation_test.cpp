// Validation over the whole document, with the faults a hostile or careless client found:
// what GraphQL refuses is refused wherever it stands, and no document costs more than a
// bounded amount of work however its fragments are spread.
#include "graphql/validation.hpp"

#include <gtest/gtest.h>

#include <algorithm>
#include <string>

#include "graphql/document.hpp"
#include "graphql/schemas.hpp"

namespace {

using namespace sandbox::graphql;

std::vector<Error> check(const std::string& text, const ValidationLimits& limits = {}) {
  return validate(sandbox::inboxSchema(), parse(text), limits);
}

// Fragments in pairs, each spreading both fragments of the next pair: 2^levels paths.
std::string pairs(int levels) {
  std::string text = "{ ...F0a ...F0b }";
  for (int i = 0; i <= levels; ++i)
    for (const char* side : {"a", "b"}) {
      text += " fragment F" + std::to_string(i) + side + " on Query { ";
      text += i == levels ? "count"
                          : "...F" + std::to_string(i + 1) + "a ...F" + std::to_string(i + 1) + "b";
      text += " }";
    }
  return text;
}

TEST(GraphQLValidation, WhatGraphQLRefusesIsRefusedWithThePlacesOfTheFault) {
  struct Case {
    std::string document, message;
    std::vector<std::pair<std::size_t, std::size_t>> locations;
  } cases[] = {
      {"{ count(params: {}, params: {}) }",
       "There can be only one argument named \"params\".",
       {{1, 9}, {1, 21}}},
      {"query Q($a: Int, $a: Int, $a: Int) { messages(limit: $a) { totalCount } }",
       "There can be only one variable named \"$a\".",
       {{1, 10}, {1, 19}, {1, 28}}},
      {"{ x: count x: count(params: {archived: true}) }",
       "Fields \"x\" conflict because they have differing arguments. Use different aliases on the "
       "fields to fetch both if this was intentional.",
       {{1, 3}, {1, 12}}},
      {"{ m: message(messageId: \"a\") { t: title t: body } }",
       "Fields \"t\" conflict because \"title\" and \"body\" are different fields. Use different "
       "aliases on the fields to fetch both if this was intentional.",
       {{1, 32}, {1, 41}}},
      {"query Q($a: Int) { count }", "Variable \"$a\" is never used in operation \"Q\".", {{1, 9}}},
      {"query Q($a: [Nope]) { messages(after: $a) { totalCount } }",
       "Unknown type \"Nope\".",
       {{1, 14}}},
      {"query Q($a: Message) { count(params: $a) }",
       "Variable \"$a\" cannot be non-input type \"Message\".",
       {{1, 13}}},
      {"{ count } fragment F on Query { count }", "Fragment \"F\" is never used.", {{1, 11}}},
      {"{ ...F } fragment F on Query { count } fragment F on Query { count }",
       "There can be only one fragment named \"F\".",
       {{1, 19}, {1, 49}}},
      {"{ ...F } fragment F on Query @skip(if: true) { count }",
       "Directive \"@skip\" may not be used on FRAGMENT_DEFINITION.",
       {{1, 30}}},
      {"{ count @skip(if: false) @skip(if: true) }",
       "The directive \"@skip\" can only be used once at this location.",
       {{1, 9}, {1, 26}}},
      {"{ count @skip(if: false, unless: true) }",
       "Unknown argument \"unless\" on directive \"@skip\".",
       {{1, 26}}},
      {"{ count @skip }",
       "Directive \"@skip\" argument \"if\" of type \"Boolean!\" is required, but it was not "
       "provided.",
       {{1, 9}}},
      {"query Q { count } { count }",
       "This anonymous operation must be the only defined operation.",
       {{1, 19}}},
      {"query Q { count } mutation Q { markAllRead }",
       "There can be only one operation named \"Q\".",
       {{1, 7}, {1, 28}}},
      {"{ ...A } fragment A on Query { ...B } fragment B on Query { ...A }",
       "Cannot spread fragment \"A\" within itself via \"B\".",
       {{1, 32}, {1, 61}}},
      {"{ ...Nope }", "Unknown fragment \"Nope\".", {{1, 6}}},
      {"{ ...M } fragment M on Message { title }",
       "Fragment \"M\" cannot be spread here as objects of type \"Query\" can never be of type "
       "\"Message\".",
       {{1, 3}}},
      {"{ ... on Int { count } }",
       "Fragment cannot condition on non composite type \"Int\".",
       {{1, 10}}},
      {"query Q($n: Int) { messages(after: $n) { totalCount } }",
       "Variable \"$n\" of type \"Int\" used in position expecting type \"String\".",
       {{1, 9}, {1, 36}}},
      {"query Q($id: String) { message(messageId: $id) { title } }",
       "Variable \"$id\" of type \"String\" used in position expecting type \"String!\".",
       {{1, 9}, {1, 43}}},
      {"{ message(messageId: $id) { title } }",
       "Variable \"$id\" is not defined.",
       {{1, 22}, {1, 1}}},
      {"{ messages(limit: 3000000000) { totalCount } }",
       "Int cannot represent non 32-bit signed integer value: 3000000000",
       {{1, 19}}},
      {"{ count(params: {archived: true, archived: false}) }",
       "There can be only one input field named \"archived\".",
       {{1, 18}, {1, 34}}},
      {"{ count(params: {tenant: \"x\"}) }",
       "Field \"tenant\" is not defined by type \"FilterParamsInput\".",
       {{1, 18}}},
      {"{ message(messageId: null) { title } }",
       "Expected value of type \"String!\", found null.",
       {{1, 22}}},
      {"{ count(params: [1]) }",
       "Expected value of type \"FilterParamsInput\", found [1].",
       {{1, 17}}},
      {"{ messages { nodes } }",
       "Field \"nodes\" of type \"[Message]\" must have a selection of subfields. Did you mean "
       "\"nodes { ... }\"?",
       {{1, 14}}},
      {"{ count { x } }",
       "Field \"count\" must not have a selection since type \"Int\" has no subfields.",
       {{1, 9}}},
      {"{ __type { name } }",
       "Field \"__type\" argument \"name\" of type \"String!\" is required, but it was not "
       "provided.",
       {{1, 3}}},
  };
  for (const auto& c : cases) {
    const auto errors = check(c.document);
    const auto found = std::find_if(errors.begin(), errors.end(),
                                    [&](const Error& e) { return e.message == c.message; });
    ASSERT_NE(found, errors.end()) << c.document << "\n"
                                   << (errors.empty() ? "no error" : errors[0].message);
    std::vector<std::pair<std::size_t, std::size_t>> locations;
    for (const auto& l : found->locations) locations.emplace_back(l.line, l.column);
    EXPECT_EQ(locations, c.locations) << c.document;
  }
}

TEST(GraphQLValidation, TheWholeDocumentIsCheckedAndNotOnlyTheOperationThatWouldRun) {
  // This mutation used to run (and mark i1 read) beside a fragment never used.
  EXPECT_EQ(check("mutation { read(messageId: \"i1\") } fragment Unused on Query { count }").size(),
            1u);
  EXPECT_EQ(check("query A { count } query B { nope }").at(0).message,
            "Cannot query field \"nope\" on type \"Query\".");
  // Defaults let a nullable variable fill a non-null place; a fragment's variables are the
  // operation's that spreads it.
  EXPECT_TRUE(check("query Q($id: String = \"i1\") { message(messageId: $id) { ...M } } "
                    "fragment M on Message { title }")
                  .empty());
  EXPECT_TRUE(check("query Q($n: Int) { ...P } fragment P on Query { messages(limit: $n) "
                    "{ totalCount } }")
                  .empty());
  EXPECT_EQ(check("query Q { ...P } fragment P on Query { messages(limit: $n) { totalCount } }")
                .at(0)
                .message,
            "Variable \"$n\" is not defined by operation \"Q\".");
}

TEST(GraphQLValidation, FragmentsSpreadInPairsCostAPairPerLevelNotADoubling) {
  // 22 levels froze the service for 14 s; each level doubled the time. Bounded by a work
  // budget that a doubling would overrun many times over, this validates.
  ValidationLimits limits;
  limits.mergeWork = 20000;
  EXPECT_TRUE(check(pairs(40), limits).empty());
  // Made invalid at the bottom, it is refused as cheaply, with the fault named once.
  auto invalid = pairs(40);
  invalid.replace(invalid.rfind("count"), 5, "nope");
  const auto errors = check(invalid, limits);
  ASSERT_EQ(errors.size(), 1u);
  EXPECT_EQ(errors[0].message, "Cannot query field \"nope\" on type \"Query\".");
}

TEST(GraphQLValidation, WorkThatCannotBeAvoidedStopsAtItsLimitWithAnErrorThatSaysSo) {
  // Copies of one field are compared as one, however many.
  std::string copies = "{";
  for (int i = 0; i < 5000; ++i) copies += " count";
  EXPECT_TRUE(check(copies + " }").empty());
  // Sub-selections under one key must each be compared; past the budget, validation stops.
  std::string nestedCopies = "{";
  for (int i = 0; i < 300; ++i) nestedCopies += " messages { nodes { title } }";
  ValidationLimits limits;
  limits.mergeWork = 5000;
  const auto aborted = check(nestedCopies + " }", limits);
  ASSERT_EQ(aborted.size(), 1u);
  EXPECT_NE(aborted[0].message.find("more than 5000 comparisons (this service's field-merging "
                                    "work limit)"),
            std::string::npos);
  // At most 100 errors, and one more that says validation stopped there.
  std::string unknown = "{";
  for (int i = 0; i < 150; ++i) unknown += " f" + std::to_string(i);
  const auto many = check(unknown + " }");
  ASSERT_EQ(many.size(), 101u);
  EXPECT_EQ(many.back().message,
            "Too many validation errors, error limit reached. Validation aborted.");
}

}  // namespace
