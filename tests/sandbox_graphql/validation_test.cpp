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
    std::string document;
    std::vector<std::pair<std::size_t, std::size_t>> locations;
    std::string message;
  } cases[] = {
      // clang-format off
      {"{ count(params: {}, params: {}) }", {{1, 9}, {1, 21}},
       "There can be only one argument named \"params\"."},
      {"query Q($a: Int, $a: Int, $a: Int) { messages(limit: $a) { totalCount } }",
       {{1, 10}, {1, 19}, {1, 28}},
       "There can be only one variable named \"$a\"."},
      {"{ x: count x: count(params: {archived: true}) }", {{1, 3}, {1, 12}},
       "Fields \"x\" conflict because they have differing arguments. Use different aliases on the "
       "fields to fetch both if this was intentional."},
      {"{ m: message(messageId: \"a\") { t: title t: body } }", {{1, 32}, {1, 41}},
       "Fields \"t\" conflict because \"title\" and \"body\" are different fields. Use different "
       "aliases on the fields to fetch both if this was intentional."},
      {"query Q($a: Int) { count }", {{1, 9}}, "Variable \"$a\" is never used in operation \"Q\"."},
      {"query Q($a: [Nope]) { messages(after: $a) { totalCount } }", {{1, 14}},
       "Unknown type \"Nope\"."},
      {"query Q($a: Message) { count(params: $a) }", {{1, 13}},
       "Variable \"$a\" cannot be non-input type \"Message\"."},
      {"{ count } fragment F on Query { count }", {{1, 11}}, "Fragment \"F\" is never used."},
      {"{ ...F } fragment F on Query { count } fragment F on Query { count }", {{1, 19}, {1, 49}},
       "There can be only one fragment named \"F\"."},
      {"{ ...F } fragment F on Query @skip(if: true) { count }", {{1, 30}},
       "Directive \"@skip\" may not be used on FRAGMENT_DEFINITION."},
      {"{ count @skip(if: false) @skip(if: true) }", {{1, 9}, {1, 26}},
       "The directive \"@skip\" can only be used once at this location."},
      {"{ count @skip(if: false, unless: true) }", {{1, 26}},
       "Unknown argument \"unless\" on directive \"@skip\"."},
      {"{ count @skip }", {{1, 9}},
       "Directive \"@skip\" argument \"if\" of type \"Boolean!\" is required, but it was not "
       "provided."},
      {"query Q { count } { count }", {{1, 19}},
       "This anonymous operation must be the only defined operation."},
      {"query Q { count } mutation Q { markAllRead }", {{1, 7}, {1, 28}},
       "There can be only one operation named \"Q\"."},
      {"{ ...A } fragment A on Query { ...B } fragment B on Query { ...A }", {{1, 32}, {1, 61}},
       "Cannot spread fragment \"A\" within itself via \"B\"."},
      {"{ ...Nope }", {{1, 6}}, "Unknown fragment \"Nope\"."},
      {"{ ...M } fragment M on Message { title }", {{1, 3}},
       "Fragment \"M\" cannot be spread here as objects of type \"Query\" can never be of type "
       "\"Message\"."},
      {"{ ... on Int { count } }", {{1, 10}},
       "Fragment cannot condition on non composite type \"Int\"."},
      {"query Q($n: Int) { messages(after: $n) { totalCount } }", {{1, 9}, {1, 36}},
       "Variable \"$n\" of type \"Int\" used in position expecting type \"String\"."},
      {"query Q($id: String) { message(messageId: $id) { title } }", {{1, 9}, {1, 43}},
       "Variable \"$id\" of type \"String\" used in position expecting type \"String!\"."},
      {"{ message(messageId: $id) { title } }", {{1, 22}, {1, 1}},
       "Variable \"$id\" is not defined."},
      {"{ messages(limit: 3000000000) { totalCount } }", {{1, 19}},
       "Int cannot represent non 32-bit signed integer value: 3000000000"},
      {"{ count(params: {archived: true, archived: false}) }", {{1, 18}, {1, 34}},
       "There can be only one input field named \"archived\"."},
      {"{ count(params: {tenant: \"x\"}) }", {{1, 18}},
       "Field \"tenant\" is not defined by type \"FilterParamsInput\"."},
      {"{ message(messageId: null) { title } }", {{1, 22}},
       "Expected value of type \"String!\", found null."},
      {"{ count(params: [1]) }", {{1, 17}},
       "Expected value of type \"FilterParamsInput\", found [1]."},
      {"{ messages { nodes } }", {{1, 14}},
       "Field \"nodes\" of type \"[Message]\" must have a selection of subfields. Did you mean "
       "\"nodes { ... }\"?"},
      {"{ count { x } }", {{1, 9}},
       "Field \"count\" must not have a selection since type \"Int\" has no subfields."},
      {"{ __type { name } }", {{1, 3}},
       "Field \"__type\" argument \"name\" of type \"String!\" is required, but it was not "
       "provided."},
      // clang-format on
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
