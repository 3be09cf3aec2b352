#include <gtest/gtest.h>

#include <fstream>
#include <sstream>

#include "platform/paths.hpp"
#include "platform/url_cache.hpp"
#include "rich_push/assets_live.hpp"
#include "rich_push/utils.hpp"
#include "test_env.hpp"

using namespace rich_push;
using namespace rich_push_test;
using testing_support::HttpServer;
using testing_support::ScriptedResponse;
using Priority = AssetsClient::Priority;
using FetchPolicy = AssetsClient::FetchPolicy;

namespace {

using Loaded = std::optional<Result<platform::DataResult>>;

// Loads through `client` and waits for the completion.
Loaded load(const AssetsClient& client, const std::string& url, FetchPolicy policy) {
  Loaded out;
  client.data(url, Priority::background, policy, [&](const auto& r) { out = r; });
  EXPECT_TRUE(drainUntil([&] { return out.has_value(); }));
  return out;
}

class AssetsClientTest : public TempCachesTest {};

}  // namespace

TEST_F(AssetsClientTest, CallersOfOneLoadShareOneRequestAndTheHighestPriority) {
  GatedServer gated([](const auto&) { return ScriptedResponse{200, {}, "shared body"}; });
  auto live = AssetsClient::Live::make(url_session::uncached(), mainQueue());
  auto client = AssetsClient::live(live);
  const auto url = gated.url("/clip.mp4");
  std::vector<std::string> seen;
  auto record = [&](const Result<platform::DataResult>& r) { seen.push_back(r.value().data); };
  const AssetsClient::Live::TaskKey key{url, FetchPolicy::standard, std::nullopt};

  client.data(url, Priority::background, FetchPolicy::standard, record);
  ASSERT_TRUE(gated.server().waitForRequests(1));
  EXPECT_EQ(live->inFlightPriority(key), 0.5f);
  client.data(url, Priority::userInitiated, FetchPolicy::standard, record);
  EXPECT_EQ(live->inFlightPriority(key), 1.0f);
  client.data(url, Priority::background, FetchPolicy::standard, record);  // never lowers it
  EXPECT_EQ(live->inFlightPriority(key), 1.0f);
  client.data(url, Priority::background, FetchPolicy::cacheElseLoad, record);  // another load

  gated.open();
  ASSERT_TRUE(drainUntil([&] { return seen.size() == 4; }));
  EXPECT_EQ(seen, std::vector<std::string>(4, "shared body"));
  EXPECT_EQ(gated.server().requests().size(), 2u);
  EXPECT_EQ(live->inFlightCount(), 0u);
}

TEST_F(AssetsClientTest, ADownloadStopsOnlyWhenItsLastCallerCancels) {
  GatedServer gated([](const auto& r) { return ScriptedResponse{200, {}, "body of " + r.target}; });
  auto live = AssetsClient::Live::make(url_session::uncached(), mainQueue());
  auto client = AssetsClient::live(live);
  std::vector<std::string> answered;
  auto caller = [&](const std::string& path, const std::string& name) {
    return client.data(
        gated.url(path), Priority::background, FetchPolicy::standard,
        [&answered, name](const auto& r) { answered.push_back(name + ": " + r.value().data); });
  };

  auto cancelA = caller("/kept", "a");
  caller("/kept", "b");
  auto cancelC = caller("/dropped", "c");
  auto cancelD = caller("/dropped", "d");
  ASSERT_TRUE(gated.server().waitForRequests(2));
  cancelA();
  cancelA();  // a second call changes nothing
  cancelC();
  EXPECT_EQ(live->inFlightCount(), 2u);
  cancelD();
  EXPECT_EQ(live->inFlightCount(), 1u);
  caller("/dropped", "e");  // the stopped one is not joined: a fresh download starts

  gated.open();
  ASSERT_TRUE(drainUntil([&] { return answered.size() == 2; }));
  platform::MainQueue::shared().runFor(100ms);
  std::sort(answered.begin(), answered.end());
  EXPECT_EQ(answered, (std::vector<std::string>{"b: body of /kept", "e: body of /dropped"}));
  EXPECT_EQ(gated.server().requests().size(), 3u);
}

TEST_F(AssetsClientTest, FetchPoliciesUseTheSessionsPersistentCache) {
  int served = 0;
  HttpServer server([&](const auto& request) {
    ++served;
    if (request.target == "/gone") return ScriptedResponse{404, {}, "no"};
    return ScriptedResponse{200, {{"ETag", "v1"}}, "fresh " + std::to_string(served)};
  });
  const auto url = server.baseURL() + "/logo";
  const auto gone = server.baseURL() + "/gone";
  auto client = AssetsClient::live(url_session::cached("logos", {}, 1 << 20, 1 << 20), mainQueue());

  const auto miss = load(client, url, FetchPolicy::cacheOnly);
  EXPECT_NE(miss->errorDescription().find("not in the cache"), std::string::npos);
  EXPECT_EQ(served, 0);
  EXPECT_EQ(load(client, url, FetchPolicy::standard)->value().data, "fresh 1");  // stored
  EXPECT_EQ(load(client, url, FetchPolicy::cacheElseLoad)->value().data, "fresh 1");
  EXPECT_EQ(load(client, url, FetchPolicy::standard)->value().data, "fresh 2");  // not replaced

  // "cache=false" bypasses the cache whatever the policy, and tells caches on the way.
  load(client, url + "?cache=false", FetchPolicy::standard);
  EXPECT_EQ(load(client, url + "?cache=false", FetchPolicy::cacheOnly)->value().data, "fresh 4");
  EXPECT_EQ(server.requests().back().header("Cache-Control"), "no-cache");
  EXPECT_FALSE(server.requests()[0].header("Cache-Control"));

  // A later session finds the response, headers and all; an error page was never stored.
  load(client, gone, FetchPolicy::standard);
  auto later = AssetsClient::live(url_session::cached("logos", {}, 1 << 20, 1 << 20), mainQueue());
  const auto hit = load(later, url, FetchPolicy::cacheOnly);
  EXPECT_EQ(hit->value().data, "fresh 1");
  EXPECT_EQ(hit->value().response.value("ETag"), "v1");
  EXPECT_FALSE(load(later, gone, FetchPolicy::cacheOnly)->ok());
  later.removeAll();
  EXPECT_FALSE(load(later, url, FetchPolicy::cacheOnly)->ok());
}

TEST_F(AssetsClientTest, SavesFilesByDestinationKind) {
  HttpServer server([](const auto& request) {
    if (request.target == "/missing.png") return ScriptedResponse{404, {}, "<html>"};
    const auto type = request.target == "/photo" ? "image/jpeg; charset=binary" : "x/odd";
    return ScriptedResponse{200, {{"Content-Type", type}}, "bytes of " + request.target};
  });
  auto client = AssetsClient::live(url_session::uncached(), mainQueue());
  auto save = [&](const std::string& path, const std::filesystem::path& to, bool isDirectory,
                  AssetsClient::ByteLimit limit = {}) {
    std::optional<Result<std::string>> out;
    client.file(
        server.baseURL() + path, platform::fileURL(to) + (isDirectory ? "/" : ""),
        Priority::userInitiated, FetchPolicy::standard, [&](const auto& r) { out = r; }, limit);
    EXPECT_TRUE(drainUntil([&] { return out.has_value(); }));
    return out->ok() ? platform::pathFromFileURL(out->value()) : std::nullopt;
  };
  auto digest = [&](const std::string& path) { return sha256Hex(server.baseURL() + path); };
  const auto dir = root / "out" / "nested";

  // A folder: the digest, with the URL's own extension first, else the content type's.
  EXPECT_EQ(save("/clip.mp4?v=2", dir, true), dir / (digest("/clip.mp4?v=2") + ".mp4"));
  EXPECT_EQ(save("/photo", dir, true), dir / (digest("/photo") + ".jpg"));
  EXPECT_EQ(save("/odd", dir, true), dir / digest("/odd"));
  std::ifstream in(dir / (digest("/photo") + ".jpg"));
  EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), "bytes of /photo");

  // A file: exactly there. Failures write nothing, not even a part.
  const auto file = root / "elsewhere" / "given.name";
  EXPECT_EQ(save("/photo", file, false), file);
  EXPECT_FALSE(save("/missing.png", file.parent_path() / "x.png", false));
  EXPECT_FALSE(save("/photo", file.parent_path() / "y.png", false, 10));
  EXPECT_EQ(save("/photo", file.parent_path() / "z.png", false, 15), file.parent_path() / "z.png");
  EXPECT_FALSE(save("/photo", file / "under-a-file", false));
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(file.parent_path()), {}), 2);
}

TEST(RichPushUtils, LenientURLsEncodeWhatAURLCannotHold) {
  EXPECT_EQ(parseURL("https://cdn.test/a.jpg?x=1"), "https://cdn.test/a.jpg?x=1");
  EXPECT_EQ(parseURL(" https://cdn.test/a b/é.jpg "), "https://cdn.test/a%20b/%C3%A9.jpg");
  EXPECT_EQ(parseURL("https://cdn.test/100%.jpg?q=%41"), "https://cdn.test/100%25.jpg?q=%41");
  EXPECT_EQ(parseURL("   "), std::nullopt);
  EXPECT_EQ(parseURL("http://[::1/x"), std::nullopt);
}

TEST_F(AssetsClientTest, CacheTiersStayWithinCapacityDroppingTheLeastRecentlyUsed) {
  auto request = [](const std::string& url) {
    return platform::URLRequest{.url = "http://h/" + url};
  };
  auto body = [](char c) { return platform::DataResult{std::string(400, c), {"", 200, {}}}; };
  auto bodyOf = [&](platform::PersistentURLCache& cache, const std::string& url) {
    auto hit = cache.cachedResponse(request(url));
    return hit ? std::optional(hit->data) : std::nullopt;
  };
  {
    platform::PersistentURLCache cache(1000, 1500, root / "c");  // two bodies; three on disk
    for (char c : std::string("ab")) cache.storeCachedResponse(body(c), request({c}));
    ASSERT_TRUE(bodyOf(cache, "a"));  // now the most recent, in both tiers
    for (char c : std::string("cd")) cache.storeCachedResponse(body(c), request({c}));
    EXPECT_LE(cache.currentMemoryUsage(), 1000u);
    EXPECT_LE(cache.currentDiskUsage(), 1500u);
    cache.storeCachedResponse({std::string(2000, 'z'), {}}, request("z"));
    EXPECT_FALSE(bodyOf(cache, "z"));  // larger than either tier
  }
  platform::PersistentURLCache reopened(1000, 1500, root / "c");
  EXPECT_EQ(bodyOf(reopened, "a"), std::string(400, 'a'));
  EXPECT_FALSE(bodyOf(reopened, "b"));
  EXPECT_EQ(bodyOf(reopened, "d"), std::string(400, 'd'));
  reopened.removeAllCachedResponses();
  EXPECT_TRUE(std::filesystem::is_empty(root / "c"));
}
