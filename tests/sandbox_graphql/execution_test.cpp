// Running what validated: the cost weighed before anything runs, exactly the fields asked
// answered, and introspection read from the same description.
#include <gtest/gtest.h>

#include <string>

#include "graphql/schemas.hpp"
#include "platform/json.hpp"
#include "test_support.hpp"

namespace {

namespace json = boost::json;
using graphql_test::run;

json::object fixture() {
  return platform::parseJSON(R"({
    "count": 2,
    "messages": {"totalCount": 2, "pageInfo": {"startCursor": "i2", "hasNextPage": false},
                 "nodes": [{"messageId": "i2", "title": "B", "actions": [{"href": "x"}]},
                           {"messageId": "i1", "title": "A"}]},
    "message": {"messageId": "i1", "title": "A", "content": {"title": "A"}}
  })")
      .as_object();
}

TEST(GraphQLExecution, WhatAQueryMayAskForIsWeighedBeforeAnythingRuns) {
  // 865 aliased pages of 100 built 94 MB on the service's only thread.
  std::string pages = "{";
  for (int i = 0; i < 865; ++i)
    pages += " p" + std::to_string(i) + ": messages(limit: 100) { nodes { messageId } }";
  const auto refused = run(sandbox::inboxSchema(), pages + " }", {.fixture = fixture()});
  EXPECT_EQ(refused.phase, "execution");
  ASSERT_EQ(refused.errors.size(), 1u);
  const auto& error = refused.errors[0].as_object();
  EXPECT_EQ(error.at("extensions").at("code"), "QUERY_TOO_COSTLY");
  EXPECT_EQ(error.at("extensions").at("limit"), 50000);
  EXPECT_GT(error.at("extensions").at("cost").to_number<double>(), 50000);
  EXPECT_NE(graphql_test::firstMessage(refused).find("(its cost limit)"), std::string::npos);
  // A page size given by a variable counts as given.
  graphql_test::Options small{.fixture = fixture()};
  small.execution.cost = 150;
  const std::string page = "query Q($n: Int) { messages(limit: $n) { nodes { messageId title } } }";
  small.variables = {{"n", 100}};
  EXPECT_EQ(run(sandbox::inboxSchema(), page, small).phase, "execution");
  small.variables = {{"n", 50}};
  EXPECT_EQ(run(sandbox::inboxSchema(), page, small).phase, "ok");
  // The standard introspection of the whole schema fits in the default limit.
  EXPECT_EQ(run(sandbox::inboxSchema(),
                "{ __schema { types { name fields(includeDeprecated: true) { name args { name "
                "type { name ofType { name ofType { name } } } } type { kind name ofType { kind "
                "name ofType { kind name } } } } } } }")
                .phase,
            "ok");
}

TEST(GraphQLExecution, AnswersHoldExactlyWhatWasAskedThroughAliasesFragmentsAndDirectives) {
  const auto answer = run(sandbox::inboxSchema(),
                          "query Q($skip: Boolean = true) { n: count ...P ...P "
                          "messages { nodes { id: messageId, ... on Message { title } "
                          "title @skip(if: $skip) actions { __typename href } } } } "
                          "fragment P on Query { count __typename }",
                          {.fixture = fixture()});
  ASSERT_EQ(answer.phase, "ok") << graphql_test::firstMessage(answer);
  EXPECT_EQ(answer.data, platform::parseJSON(R"({"n": 2, "count": 2, "__typename": "Query",
      "messages": {"nodes": [{"id": "i2", "title": "B", "actions": [{"__typename": "Action",
      "href": "x"}]}, {"id": "i1", "title": "A", "actions": null}]}})"));
}

TEST(GraphQLExecution, VariablesAreCoercedAgainstTheSchemaWithThePlaceOfTheFault) {
  const std::string query =
      "query Q($p: FilterParamsInput, $id: String!) { count(params: $p) message(messageId: $id) "
      "{ title } }";
  struct Case {
    std::string variables, message;
  } cases[] = {
      {R"({"id": "i1", "p": {"archived": "yes"}})",
       "Variable \"$p\" got invalid value {\"archived\":\"yes\"} at \"p.archived\"; Boolean "
       "cannot represent a non boolean value: \"yes\""},
      {R"({"id": "i1", "p": {"tenant": "x"}})",
       "Variable \"$p\" got invalid value {\"tenant\":\"x\"}; Field \"tenant\" is not defined by "
       "type \"FilterParamsInput\"."},
      {R"({})", "Variable \"$id\" of required type \"String!\" was not provided."},
      {R"({"id": null})", "Variable \"$id\" of non-null type \"String!\" must not be null."},
  };
  for (const auto& c : cases) {
    const auto outcome =
        run(sandbox::inboxSchema(), query,
            {.variables = platform::parseJSON(c.variables).as_object(), .fixture = fixture()});
    EXPECT_EQ(outcome.phase, "execution") << c.variables;
    EXPECT_EQ(graphql_test::firstMessage(outcome), c.message);
  }
}

TEST(GraphQLExecution, IntrospectionReadsTheSchemaThatValidationReads) {
  const auto answer = run(sandbox::inboxSchema(),
                          "{ __schema { queryType { name } mutationType { name } "
                          "subscriptionType { name } } "
                          "__type(name: \"MessageConnection\") { kind fields { name type { kind "
                          "name ofType { kind name } } } } "
                          "missing: __type(name: \"Nope\") { name } }");
  ASSERT_EQ(answer.phase, "ok") << graphql_test::firstMessage(answer);
  EXPECT_EQ(answer.data.at("__schema"), platform::parseJSON(R"({"queryType": {"name": "Query"},
      "mutationType": {"name": "Mutation"}, "subscriptionType": null})"));
  EXPECT_EQ(answer.data.at("__type").at("fields").at(2),
            platform::parseJSON(R"({"name": "nodes", "type": {"kind": "LIST", "name": null,
                "ofType": {"kind": "OBJECT", "name": "Message"}}})"));
  EXPECT_EQ(answer.data.at("missing"), nullptr);
  EXPECT_EQ(run(sandbox::brandSchema(), "{ __schema { mutationType { name } } }")
                .data.at("__schema")
                .at("mutationType"),
            nullptr);
}

}  // namespace
