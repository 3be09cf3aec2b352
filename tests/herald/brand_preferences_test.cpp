// The brand and preference clients: what goes on the wire and how answers decode.
#include <gtest/gtest.h>

#include <mutex>
#include <string>
#include <vector>

#include "herald/brand_client.hpp"
#include "herald/endpoints.hpp"
#include "herald/herald_error.hpp"
#include "herald/preference_client.hpp"
#include "platform/executor.hpp"
#include "platform/json.hpp"
#include "support/http_server.hpp"

using herald::HeraldError;
using herald::HeraldUserPreferencesChannel;
using herald::HeraldUserPreferencesStatus;
using testing_support::HttpServer;
using testing_support::ScriptedResponse;

namespace {

herald::HeraldClient::Options options(std::optional<std::string> jwt = "jwt-1",
                                      std::optional<std::string> clientKey = "key-1") {
  return {jwt, clientKey, "user-1", "CONN-1", std::nullopt, false};
}

// A server that answers every request with the body last set.
struct Scripted {
  Scripted()
      : server([this](const auto&) {
          std::lock_guard lock(mutex);
          return answer;
        }) {
    herald::Endpoints::setCurrent(herald::Endpoints::localService(server.baseURL()));
  }
  ~Scripted() { herald::Endpoints::setCurrent(std::nullopt); }
  void answerWith(int status, std::string body = {}) {
    std::lock_guard lock(mutex);
    answer = ScriptedResponse{status, {}, std::move(body)};
  }

  std::mutex mutex;
  ScriptedResponse answer{200, {}, "{}"};
  HttpServer server;
};

const std::string kTopic =
    R"({"default_status":"OPTED_IN","has_custom_routing":true,"custom_routing":["push","fax"],)"
    R"("status":"PAUSED","topic_id":"t-1","topic_name":"Comments","section_name":"Social",)"
    R"("section_id":"s-1"})";

}  // namespace

TEST(BrandClient, TheQuerySplicesTheIdRawAndAsksForAllFiveFields) {
  EXPECT_EQ(herald::BrandClient::getBrandQuery("b-1"), R"(    query GetBrand {
        brand(brandId: "b-1") {
            settings {
                colors {
                    primary
                    secondary
                    tertiary
                }
                inapp {
                    borderRadius
                    disableHeraldFooter
                }
            }
        }
    })");
  // Nothing is escaped: a quote ends the string early.
  EXPECT_NE(herald::BrandClient::getBrandQuery(R"(a"b\)").find(R"(brand(brandId: "a"b\") {)"),
            std::string::npos);

  Scripted s;
  s.answerWith(200, R"({"data":{"brand":{}}})");
  const herald::BrandClient client(options());
  platform::blockOn(client.getBrand("b-1"));
  const auto request = s.server.requests().at(0);
  EXPECT_EQ(request.method, "POST");
  EXPECT_EQ(request.target, "/client/q");
  EXPECT_EQ(request.header("x-herald-user-id"), "user-1");
  EXPECT_EQ(request.header("Authorization"), "Bearer jwt-1");
  EXPECT_FALSE(request.header("x-herald-client-key"));
  EXPECT_EQ(platform::parseJSON(request.body),
            (boost::json::object{{"query", herald::BrandClient::getBrandQuery("b-1")},
                                 {"variables", "{}"}}));
}

TEST(BrandClient, TheFooterShowsUnlessDisabledAndBadAnswersNameTheirKey) {
  Scripted s;
  const herald::BrandClient client(options());
  auto brand = [&](std::string body) {
    s.answerWith(200, std::move(body));
    return platform::blockOn(client.getBrand("b")).data.brand;
  };

  EXPECT_FALSE(brand(R"({"data":{"brand":{}}})")->settings);
  EXPECT_TRUE(herald::HeraldBrandInApp().showHeraldFooter());
  EXPECT_TRUE(brand(R"({"data":{"brand":{"settings":{"inapp":{"disableHeraldFooter":false}}}}})")
                  ->settings->inapp->showHeraldFooter());
  const auto full = brand(
      R"({"data":{"brand":{"settings":{"colors":{"primary":"#9122F7","secondary":"#000"},)"
      R"("inapp":{"borderRadius":"24px","disableHeraldFooter":true}}}}})");
  EXPECT_FALSE(full->settings->inapp->showHeraldFooter());
  EXPECT_EQ(full->settings->colors->primary, "#9122F7");
  // What it encodes decodes back the same, under the same keys and nothing more.
  EXPECT_EQ(full->toJSON(),
            platform::parseJSON(R"({"settings":{"colors":{"primary":"#9122F7"},)"
                                R"("inapp":{"disableHeraldFooter":true}}})"));

  struct Case {
    const char* body;
    const char* path;
  } bad[] = {{R"({"errors":[{"message":"no brand"}]})", "data"},
             {R"({"data":{"brand":null},"errors":[]})", "data.brand"},
             {R"({"data":{"brand":{"settings":{"inapp":{"disableHeraldFooter":"yes"}}}}})",
              "data.brand.settings.inapp.disableHeraldFooter"}};
  for (const auto& c : bad) {
    try {
      brand(c.body);
      ADD_FAILURE() << "taken: " << c.body;
    } catch (const core::DecodingError& e) {
      EXPECT_EQ(e.codingPath(), c.path);
    }
  }
}

TEST(PreferenceClient, PathsCursorsAndBodiesGoOutAsGiven) {
  Scripted s;
  s.answerWith(200, R"({"items":[],"paging":{"more":false}})");
  // Only a client key: REST calls still never carry it.
  const herald::PreferenceClient client(options(std::nullopt, "key-1"));
  platform::blockOn(client.getUserPreferences(std::nullopt));
  platform::blockOn(client.getUserPreferences("Yz0x+MA=="));
  s.answerWith(200, R"({"topic":)" + kTopic + "}");
  platform::blockOn(client.getUserPreferenceTopic("t-1"));
  platform::blockOn(client.putUserPreferenceTopic("t-1", HeraldUserPreferencesStatus::optedOut,
                                                  false, {}));
  platform::blockOn(client.putUserPreferenceTopic(
      "t-1", HeraldUserPreferencesStatus::optedIn, true,
      {HeraldUserPreferencesChannel::directMessage, HeraldUserPreferencesChannel::sms}));

  const auto requests = s.server.requests();
  ASSERT_EQ(requests.size(), 5u);
  const std::vector<std::string> wire{
      "GET /users/user-1/preferences", "GET /users/user-1/preferences?cursor=Yz0x+MA==",
      "GET /users/user-1/preferences/t-1", "PUT /users/user-1/preferences/t-1",
      "PUT /users/user-1/preferences/t-1"};
  for (std::size_t i = 0; i < requests.size(); ++i) {
    EXPECT_EQ(requests[i].method + " " + requests[i].target, wire[i]);
    EXPECT_FALSE(requests[i].header("x-herald-client-key"));
    EXPECT_FALSE(requests[i].header("Authorization"));
  }
  EXPECT_EQ(requests[3].body,
            R"({"topic":{"status":"OPTED_OUT","has_custom_routing":false,"custom_routing":[]}})");
  EXPECT_EQ(requests[4].body, R"({"topic":{"status":"OPTED_IN","has_custom_routing":true,)"
                              R"("custom_routing":["direct_message","sms"]}})");

  // Only 200 counts, for an update too.
  s.answerWith(204);
  try {
    platform::blockOn(client.putUserPreferenceTopic("t-1", HeraldUserPreferencesStatus::optedIn,
                                                    false, {}));
    ADD_FAILURE() << "a 204 was taken";
  } catch (const HeraldError& e) {
    EXPECT_EQ(e, HeraldError(204, "Unknown Error"));
  }
  s.answerWith(400, R"({"message":"Topic t-1 is required","type":"invalid_request_error"})");
  try {
    platform::blockOn(client.getUserPreferenceTopic("t-1"));
    ADD_FAILURE() << "a 400 was taken";
  } catch (const HeraldError& e) {
    EXPECT_EQ(e, HeraldError(400, "Topic t-1 is required", "invalid_request_error"));
  }
}

TEST(PreferenceClient, UnfamiliarValuesDecodeAsUnknownAndEveryTopicKeyIsRequired) {
  const auto topic = core::decodeJSON<herald::HeraldUserPreferencesTopicResponse>(
                         R"({"topic":)" + kTopic + "}")
                         .topic;
  EXPECT_EQ(topic->status, HeraldUserPreferencesStatus::unknown);
  EXPECT_EQ(topic->defaultStatus, HeraldUserPreferencesStatus::optedIn);
  EXPECT_EQ(topic->customRouting, (std::vector{HeraldUserPreferencesChannel::push,
                                               HeraldUserPreferencesChannel::unknown}));
  EXPECT_EQ(herald::kPreferencesChannelAllCases,
            (std::array{HeraldUserPreferencesChannel::push, HeraldUserPreferencesChannel::sms,
                        HeraldUserPreferencesChannel::email,
                        HeraldUserPreferencesChannel::directMessage,
                        HeraldUserPreferencesChannel::webhook}));

  const auto full = platform::parseJSON(kTopic).as_object();
  for (const auto& [key, value] : full) {
    auto missing = full;
    missing.erase(key);
    try {
      core::decodeValue<std::shared_ptr<herald::HeraldUserPreferences>>(boost::json::object{
          {"items", boost::json::array{full, missing}}, {"paging", {{"more", false}}}});
      ADD_FAILURE() << "a topic without " << key << " was taken";
    } catch (const core::DecodingError& e) {
      EXPECT_EQ(e.kind(), core::DecodingError::Kind::keyNotFound);
      EXPECT_EQ(e.codingPath(), "items[1]." + std::string(key));
    }
  }
  // A status must still be a string.
  auto numeric = full;
  numeric["status"] = 3;
  EXPECT_THROW(core::decodeValue<std::shared_ptr<herald::HeraldUserPreferencesTopic>>(numeric),
               core::DecodingError);
  // A page encodes with the keys it came with (the unknown status as "UNKNOWN").
  const auto page = core::decodeJSON<std::shared_ptr<herald::HeraldUserPreferences>>(
      R"({"items":[)" + kTopic + R"(],"paging":{"cursor":"c","more":true}})");
  EXPECT_EQ(page->toJSON().at("paging"), platform::parseJSON(R"({"cursor":"c","more":true})"));
  EXPECT_EQ(page->toJSON().at("items").at(0).at("status"), "UNKNOWN");
  EXPECT_EQ(page->toJSON().at("items").at(0).at("custom_routing"),
            platform::parseJSON(R"(["push","unknown"])"));
}
