// The sandbox's brand and preference routes, and `herald brand` / `herald prefs` against them.
#include <gtest/gtest.h>

#include <boost/json.hpp>
#include <filesystem>
#include <set>
#include <string>
#include <vector>

#include "integration/processes.hpp"
#include "platform/json.hpp"
#include "platform/paths.hpp"

namespace {

using namespace integration;
namespace json = boost::json;

// The brand client's query, pieced together as the client does.
std::string brandQuery(const std::string& id) {
  return "    query GetBrand {\n        brand(brandId: \"" + id +
         "\") {\n            settings {\n                colors {\n                    "
         "primary\n                    secondary\n                    tertiary\n          "
         "      }\n                inapp {\n                    borderRadius\n            "
         "        disableHeraldFooter\n                }\n            }\n        }\n    }";
}

// `count` topics "t000", "t001", …; every fifth one required.
std::string topics(int count) {
  json::array list;
  for (int i = 0; i < count; ++i) {
    char id[8];
    std::snprintf(id, sizeof id, "t%03d", i);
    list.push_back(json::object{{"topic_id", id},
                                {"topic_name", std::string("Topic ") + id},
                                {"section_id", "s" + std::to_string(i / 100)},
                                {"section_name", "Section " + std::to_string(i / 100)},
                                {"default_status", i % 5 == 0 ? "REQUIRED" : "OPTED_OUT"}});
  }
  return platform::toJSON(json::object{{"topics", list}});
}

class BrandsAndPreferences : public ::testing::Test {
 protected:
  void SetUp() override {
    const auto minted = call(url("/_sandbox/users/ada/token"), "POST");
    ASSERT_EQ(minted.status, 200) << minted.body;
    jwt_ = std::string(minted.object().at("jwt").as_string());
  }
  std::string url(const std::string& path) const { return sandbox_.url() + path; }
  Headers bearer() const { return {{"Authorization", "Bearer " + jwt_}}; }
  Answer askBrand(const std::string& id, Headers headers) const {
    return call(url("/client/q"), "POST",
                platform::toJSON(json::object{{"query", brandQuery(id)}, {"variables", "{}"}}),
                headers);
  }
  Answer askBrand(const std::string& id) const {
    auto headers = bearer();
    headers.emplace_back("x-herald-user-id", "ada");
    return askBrand(id, headers);
  }
  Answer put(const std::string& path, const std::string& body, const Headers& headers = {}) const {
    return call(url(path), "PUT", body, headers);
  }

  Sandbox sandbox_;
  std::string jwt_;
};

TEST_F(BrandsAndPreferences, TheBrandQueryIsAnsweredWithTheFieldsItAskedFor) {
  ASSERT_EQ(put("/_sandbox/brands/b1",
                R"({"settings": {"colors": {"primary": "#9122F7"}, "inapp": {"disableHeraldFooter": true}}})")
                .status,
            200);
  ASSERT_EQ(put("/_sandbox/brands/plain", "{}").status, 200);
  EXPECT_EQ(askBrand("b1").data(),
            platform::parseJSON(R"({"brand": {"settings": {
                "colors": {"primary": "#9122F7", "secondary": null, "tertiary": null},
                "inapp": {"borderRadius": null, "disableHeraldFooter": true}}}})"));
  EXPECT_EQ(askBrand("plain").data(), platform::parseJSON(R"({"brand": {"settings": null}})"));

  // An unknown brand is a field error beside a null brand.
  const auto unknown = askBrand("nope");
  EXPECT_EQ(unknown.status, 200);
  EXPECT_EQ(unknown.data(), platform::parseJSON(R"({"brand": null})"));
  EXPECT_NE(unknown.firstError().find("\"nope\""), std::string::npos) << unknown.body;
  EXPECT_EQ(unknown.object().at("errors").at(0).at("path"), json::array{"brand"});

  // The id is spliced in as it is: a quote ends the string and the rest is no GraphQL.
  const auto quoted = askBrand(R"(b"1)");
  EXPECT_EQ(quoted.status, 400) << quoted.body;
  EXPECT_NE(quoted.firstError().find("Syntax Error"), std::string::npos) << quoted.body;
  EXPECT_EQ(quoted.object().at("errors").at(0).at("locations"),
            platform::parseJSON(R"([{"line": 2, "column": 27}])"));

  // The client key stands in for a token here; nothing at all does not.
  EXPECT_EQ(askBrand("b1", {{"x-herald-user-id", "ada"}, {"x-herald-client-key", "sandbox-client-key"}})
                .status,
            200);
  EXPECT_EQ(askBrand("b1", {{"x-herald-user-id", "ada"}}).status, 401);
  // A brand that the client could not read is refused when it is set.
  const auto bad = put("/_sandbox/brands/b2", R"({"settings": {"inapp": {"disableHeraldFooter": "yes"}}})");
  EXPECT_EQ(bad.status, 400);
  EXPECT_NE(bad.body.find("disableHeraldFooter"), std::string::npos) << bad.body;
}

TEST_F(BrandsAndPreferences, TopicsPageWithAnOpaqueCursorAndRequiredOnesStayIn) {
  // The bundled sample until topics are set.
  const auto sample = call(url("/users/ada/preferences"), "GET", std::nullopt, bearer());
  ASSERT_EQ(sample.status, 200) << sample.body;
  EXPECT_EQ(sample.object().at("items").as_array().size(), 8u);
  EXPECT_EQ(sample.object().at("paging"), (json::object{{"more", false}}));

  ASSERT_EQ(put("/_sandbox/topics", topics(250)).status, 200);
  std::vector<std::string> seen;
  std::optional<std::string> cursor, firstCursor;
  int pages = 0;
  do {
    const auto page = call(url("/users/ada/preferences") + (cursor ? "?cursor=" + *cursor : ""),
                           "GET", std::nullopt, bearer());
    ASSERT_EQ(page.status, 200) << page.body;
    ++pages;
    const auto answer = page.object();
    for (const auto& item : answer.at("items").as_array())
      seen.emplace_back(item.at("topic_id").as_string());
    const auto& paging = answer.at("paging").as_object();
    cursor.reset();
    if (paging.at("more").as_bool()) cursor = std::string(paging.at("cursor").as_string());
    if (!firstCursor) firstCursor = cursor;
  } while (cursor && pages < 20);
  EXPECT_EQ(pages, 5);
  ASSERT_EQ(seen.size(), 250u);
  EXPECT_EQ(std::set<std::string>(seen.begin(), seen.end()).size(), 250u);
  EXPECT_EQ(seen.front(), "t000");
  EXPECT_EQ(seen.back(), "t249");

  // A choice is kept for its user only; a required topic cannot be opted out of.
  const auto choice =
      R"({"topic": {"status": "OPTED_IN", "has_custom_routing": true, "custom_routing": ["push", "sms"]}})";
  const auto chosen = put("/users/ada/preferences/t001", choice, bearer());
  ASSERT_EQ(chosen.status, 200) << chosen.body;
  EXPECT_EQ(chosen.object().at("topic").at("status"), "OPTED_IN");
  EXPECT_EQ(chosen.object().at("topic").at("custom_routing"), (json::array{"push", "sms"}));
  const auto required = put(
      "/users/ada/preferences/t005",
      R"({"topic": {"status": "OPTED_OUT", "has_custom_routing": false, "custom_routing": []}})",
      bearer());
  EXPECT_EQ(required.status, 400);
  EXPECT_NE(required.object().at("message").as_string().find("required"), std::string::npos);
  EXPECT_EQ(required.object().at("type"), "invalid_request_error");
  EXPECT_EQ(call(url("/users/ada/preferences/t005"), "GET", std::nullopt, bearer())
                .object()
                .at("topic")
                .at("status"),
            "REQUIRED");
  EXPECT_EQ(call(url("/users/ada/preferences/none"), "GET", std::nullopt, bearer()).status, 404);
  EXPECT_EQ(put("/users/ada/preferences/none", choice, bearer()).status, 404);
  const auto odd = put("/users/ada/preferences/t001",
                       R"({"topic": {"status": "OPTED_IN", "has_custom_routing": true, "custom_routing": ["fax"]}})",
                       bearer());
  EXPECT_EQ(odd.status, 400);
  EXPECT_NE(odd.body.find("fax"), std::string::npos);

  // REST credentials: the user's own token, never the client key.
  EXPECT_EQ(call(url("/users/ada/preferences"), "GET", std::nullopt,
                 {{"x-herald-client-key", "sandbox-client-key"}})
                .status,
            401);
  EXPECT_EQ(call(url("/users/bob/preferences/t001"), "GET", std::nullopt, bearer()).status, 403);

  // Replacing the topics ends the cursors given for the old ones.
  ASSERT_EQ(put("/_sandbox/topics", topics(60)).status, 200);
  EXPECT_EQ(
      call(url("/users/ada/preferences?cursor=" + *firstCursor), "GET", std::nullopt, bearer())
          .status,
      400);
  EXPECT_EQ(call(url("/users/ada/preferences?cursor=made-up"), "GET", std::nullopt, bearer())
                .status,
            400);
}

TEST_F(BrandsAndPreferences, TheHeraldCommandWalksEveryPageAndWritesChannelsInItsOwnOrder) {
  const auto dir = platform::temporaryDirectory() / ("herald-prefs-test-" + platform::newUUID());
  const auto herald = [&](std::vector<std::string> args) {
    std::vector<std::string> argv{program("herald"), "--config-dir", (dir / "config").string(),
                                  "--endpoint", sandbox_.url()};
    argv.insert(argv.end(), args.begin(), args.end());
    return run(argv);
  };
  ASSERT_EQ(herald({"signin", "--user", "ada", "--jwt", jwt_}).exitCode, 0);
  ASSERT_EQ(put("/_sandbox/topics", topics(250)).status, 200);
  ASSERT_EQ(put("/_sandbox/brands/b1", R"({"settings": {"inapp": {"disableHeraldFooter": true}}})")
                .status,
            200);
  ASSERT_EQ(put("/_sandbox/brands/b2", R"({"settings": {"colors": {"primary": "#123456"}}})")
                .status,
            200);
  call(url("/_sandbox/requests"), "DELETE");

  const auto all = herald({"prefs", "list", "--all"});
  ASSERT_EQ(all.exitCode, 0) << all.err;
  EXPECT_EQ(lines(all.out).size(), 251u);
  EXPECT_EQ(lines(all.out).back(), "250 topics in 5 pages");
  // The first read has no cursor; each next one the cursor of the answer before, unchanged.
  std::vector<std::string> reads;
  for (const auto& entry : sandbox_.journal())
    if (entry.at("path").as_string().starts_with("/users/ada/preferences"))
      reads.emplace_back(entry.at("path").as_string());
  ASSERT_EQ(reads.size(), 5u);
  EXPECT_EQ(reads[0], "/users/ada/preferences");
  const auto first = call(url(reads[0]), "GET", std::nullopt, bearer());
  EXPECT_EQ(reads[1], "/users/ada/preferences?cursor=" +
                          std::string(first.object().at("paging").at("cursor").as_string()));

  const auto page = herald({"--json", "prefs", "list"});
  ASSERT_EQ(page.exitCode, 0) << page.err;
  const auto listed = platform::parseJSON(page.out);
  EXPECT_EQ(listed.at("items").as_array().size(), 50u);
  EXPECT_EQ(listed.at("paging").at("more"), true);

  call(url("/_sandbox/requests"), "DELETE");
  ASSERT_EQ(herald({"prefs", "set", "t001", "--status", "optedIn", "--channels",
                    "webhook,directMessage,push,email"})
                .exitCode,
            0);
  ASSERT_EQ(herald({"prefs", "set", "t002", "--status", "optedOut"}).exitCode, 0);
  std::vector<std::string> bodies;
  for (const auto& entry : sandbox_.journal())
    if (entry.at("method") == "PUT") bodies.emplace_back(entry.at("body").as_string());
  EXPECT_EQ(bodies, (std::vector<std::string>{
                        R"({"topic":{"status":"OPTED_IN","has_custom_routing":true,)"
                        R"("custom_routing":["push","email","direct_message","webhook"]}})",
                        R"({"topic":{"status":"OPTED_OUT","has_custom_routing":false,)"
                        R"("custom_routing":[]}})"}));
  const auto got = herald({"--json", "prefs", "get", "t001"});
  EXPECT_EQ(platform::parseJSON(got.out).at("topic").at("status"), "OPTED_IN");

  // The service's refusal is exit 1; a bad value on the command line is exit 2 and sends
  // nothing.
  const auto required = herald({"prefs", "set", "t005", "--status", "optedOut"});
  EXPECT_EQ(required.exitCode, 1);
  EXPECT_NE(required.err.find("required"), std::string::npos) << required.err;
  const auto status = herald({"prefs", "set", "t001", "--status", "OPTED_IN"});
  EXPECT_EQ(status.exitCode, 2);
  EXPECT_NE(status.err.find("optedIn or optedOut"), std::string::npos) << status.err;
  const auto channel = herald({"prefs", "set", "t001", "--status", "optedIn", "--channels", "push,fax"});
  EXPECT_EQ(channel.exitCode, 2);
  EXPECT_NE(channel.err.find("push, sms, email, directMessage, webhook"), std::string::npos)
      << channel.err;

  const auto hidden = herald({"brand", "b1"});
  EXPECT_EQ(lines(hidden.out), (std::vector<std::string>{"brand b1", "  primary colour: (none)",
                                                         "  footer: hidden"}));
  const auto shown = herald({"--json", "brand", "b2"});
  EXPECT_EQ(platform::parseJSON(shown.out),
            platform::parseJSON(R"({"brandId": "b2", "showHeraldFooter": true,
                "brand": {"settings": {"colors": {"primary": "#123456"}}}})"));
  const auto unknown = herald({"brand", "b3"});
  EXPECT_EQ(unknown.exitCode, 1);
  EXPECT_NE(unknown.err.find("no brand b3"), std::string::npos) << unknown.err;
  std::filesystem::remove_all(dir);
}

}  // namespace
