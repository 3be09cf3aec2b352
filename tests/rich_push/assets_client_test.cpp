#include <gtest/gtest.h>

#include <boost/json/parse.hpp>
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

std::string readFile(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
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

  client.data(url, Priority::background, FetchPolicy::standard, record);
  ASSERT_TRUE(gated.server().waitForRequests(1));
  const AssetsClient::Live::TaskKey key{url, FetchPolicy::standard, std::nullopt};
  EXPECT_EQ(live->inFlightPriority(key), 0.5f);
  client.data(url, Priority::userInitiated, FetchPolicy::standard, record);
  EXPECT_EQ(live->inFlightPriority(key), 1.0f);
  client.data(url, Priority::background, FetchPolicy::standard, record);  // never lowers it
  EXPECT_EQ(live->inFlightPriority(key), 1.0f);
  // Another fetch policy is another load.
  client.data(url, Priority::background, FetchPolicy::cacheElseLoad, record);
  EXPECT_EQ(live->inFlightCount(), 2u);

  gated.open();
  ASSERT_TRUE(drainUntil([&] { return seen.size() == 4; }));
  EXPECT_EQ(seen, std::vector<std::string>(4, "shared body"));
  EXPECT_EQ(gated.server().requests().size(), 2u);
  EXPECT_EQ(live->inFlightCount(), 0u);
}

TEST_F(AssetsClientTest, TheDownloadStopsOnlyWhenItsLastCallerCancels) {
  GatedServer gated([](const auto&) { return ScriptedResponse{200, {}, "body"}; });
  auto live = AssetsClient::Live::make(url_session::uncached(), mainQueue());
  auto client = AssetsClient::live(live);
  const auto url = gated.url("/a.png");
  int first = 0, second = 0, third = 0;

  auto cancelFirst =
      client.data(url, Priority::background, FetchPolicy::standard, [&](const auto&) { ++first; });
  auto cancelSecond =
      client.data(url, Priority::background, FetchPolicy::standard, [&](const auto&) { ++second; });
  ASSERT_TRUE(gated.server().waitForRequests(1));
  cancelFirst();
  cancelFirst();  // a second call changes nothing
  EXPECT_EQ(live->inFlightCount(), 1u);
  cancelSecond();
  EXPECT_EQ(live->inFlightCount(), 0u);

  // A new caller starts a new download, and only it is answered.
  std::string data;
  client.data(url, Priority::background, FetchPolicy::standard, [&](const auto& r) {
    ++third;
    data = r.value().data;
  });
  gated.open();
  ASSERT_TRUE(drainUntil([&] { return third == 1; }));
  platform::MainQueue::shared().runFor(100ms);
  EXPECT_EQ(first + second, 0);
  EXPECT_EQ(data, "body");
  EXPECT_EQ(gated.server().requests().size(), 2u);
}

TEST_F(AssetsClientTest, OneCallerCancellingLeavesTheOthersLoad) {
  GatedServer gated([](const auto&) { return ScriptedResponse{200, {}, "still coming"}; });
  auto client = AssetsClient::live(url_session::uncached(), mainQueue());
  const auto url = gated.url("/a.png");
  int cancelled = 0;
  std::optional<std::string> kept;
  auto cancel = client.data(url, Priority::background, FetchPolicy::standard,
                            [&](const auto&) { ++cancelled; });
  client.data(url, Priority::background, FetchPolicy::standard,
              [&](const auto& r) { kept = r.value().data; });
  cancel();
  gated.open();
  ASSERT_TRUE(drainUntil([&] { return kept.has_value(); }));
  EXPECT_EQ(*kept, "still coming");
  EXPECT_EQ(cancelled, 0);
  EXPECT_EQ(gated.server().requests().size(), 1u);
}

TEST_F(AssetsClientTest, FetchPoliciesUseTheSessionsPersistentCache) {
  int served = 0;
  HttpServer server([&](const auto& request) {
    ++served;
    if (request.target == "/gone") return ScriptedResponse{404, {}, "no"};
    return ScriptedResponse{
        200, {{"Content-Type", "image/png"}, {"ETag", "v1"}}, "fresh " + std::to_string(served)};
  });
  const auto url = server.baseURL() + "/logo";
  auto client = AssetsClient::live(url_session::cached("logos", {}, 1 << 20, 1 << 20), mainQueue());
  auto load = [&](const std::string& u, FetchPolicy policy) {
    std::optional<Result<platform::DataResult>> out;
    client.data(u, Priority::background, policy, [&](const auto& r) { out = r; });
    EXPECT_TRUE(drainUntil([&] { return out.has_value(); }));
    return *out;
  };

  auto miss = load(url, FetchPolicy::cacheOnly);
  ASSERT_FALSE(miss.ok());
  try {
    miss.value();
  } catch (const platform::Error& e) {
    EXPECT_EQ(e.code(), -1008);
  }
  EXPECT_EQ(served, 0);

  EXPECT_EQ(load(url, FetchPolicy::standard).value().data, "fresh 1");  // stored
  EXPECT_EQ(load(url, FetchPolicy::cacheElseLoad).value().data, "fresh 1");
  EXPECT_EQ(load(url, FetchPolicy::standard).value().data, "fresh 2");  // always loads
  EXPECT_EQ(served, 2);

  // "cache=false" bypasses the cache whatever the policy, and says so to caches on the way.
  const auto uncachedURL = url + "?cache=false";
  load(uncachedURL, FetchPolicy::standard);
  EXPECT_EQ(load(uncachedURL, FetchPolicy::cacheOnly).value().data, "fresh 4");
  EXPECT_EQ(server.requests().back().header("Cache-Control"), "no-cache");
  EXPECT_FALSE(server.requests()[0].header("Cache-Control"));

  // An error page is never stored; a later process finds what was, status and headers too.
  load(server.baseURL() + "/gone", FetchPolicy::standard);
  auto later = AssetsClient::live(url_session::cached("logos", {}, 1 << 20, 1 << 20), mainQueue());
  std::optional<Result<platform::DataResult>> hit, gone;
  later.data(url, Priority::background, FetchPolicy::cacheOnly, [&](const auto& r) { hit = r; });
  later.data(server.baseURL() + "/gone", Priority::background, FetchPolicy::cacheOnly,
             [&](const auto& r) { gone = r; });
  ASSERT_TRUE(drainUntil([&] { return hit && gone; }));
  EXPECT_EQ(hit->value().data, "fresh 1");
  EXPECT_EQ(hit->value().response.statusCode, 200);
  EXPECT_EQ(hit->value().response.value("ETag"), "v1");
  EXPECT_FALSE(gone->ok());

  later.remove(url);
  hit.reset();
  later.data(url, Priority::background, FetchPolicy::cacheOnly, [&](const auto& r) { hit = r; });
  ASSERT_TRUE(drainUntil([&] { return hit.has_value(); }));
  EXPECT_FALSE(hit->ok());
}

TEST_F(AssetsClientTest, SavesFilesByDestinationKind) {
  HttpServer server([](const auto& request) {
    if (request.target == "/missing.png")
      return ScriptedResponse{404, {{"Content-Type", "text/html"}}, "<html>"};
    if (request.target == "/big.png") return ScriptedResponse{200, {}, std::string(4096, 'x')};
    const auto type =
        request.target == "/photo" ? "image/jpeg; charset=binary" : "application/x-odd";
    return ScriptedResponse{200, {{"Content-Type", type}}, "bytes of " + request.target};
  });
  auto client = AssetsClient::live(url_session::uncached(), mainQueue());
  const auto dir = root / "out" / "nested";
  auto save = [&](const std::string& path, const std::string& destination,
                  AssetsClient::ByteLimit limit = {}) {
    std::optional<Result<std::string>> out;
    client.file(
        server.baseURL() + path, destination, Priority::userInitiated, FetchPolicy::standard,
        [&](const auto& r) { out = r; }, limit);
    EXPECT_TRUE(drainUntil([&] { return out.has_value(); }));
    return *out;
  };
  const auto dirURL = platform::fileURL(dir) + "/";
  auto digest = [&](const std::string& path) { return sha256Hex(server.baseURL() + path); };

  // A directory: the digest, with the URL's own extension first, else the content type's.
  auto named = save("/clip.mp4?v=2", dirURL);
  EXPECT_EQ(named.value(), platform::fileURL(dir / (digest("/clip.mp4?v=2") + ".mp4")));
  EXPECT_EQ(readFile(dir / (digest("/clip.mp4?v=2") + ".mp4")), "bytes of /clip.mp4?v=2");
  EXPECT_EQ(save("/photo", dirURL).value(), platform::fileURL(dir / (digest("/photo") + ".jpg")));
  EXPECT_EQ(save("/odd", dirURL).value(), platform::fileURL(dir / digest("/odd")));

  // A file: exactly there, folders made on the way.
  const auto file = root / "elsewhere" / "deep" / "given.name";
  EXPECT_EQ(save("/photo", platform::fileURL(file)).value(), platform::fileURL(file));
  EXPECT_EQ(readFile(file), "bytes of /photo");

  // Failures write nothing.
  const auto failed = root / "failed" / "f.png";
  EXPECT_FALSE(save("/missing.png", platform::fileURL(failed)).ok());
  EXPECT_FALSE(save("/big.png", platform::fileURL(failed), 1000).ok());
  EXPECT_FALSE(std::filesystem::exists(failed));
  EXPECT_TRUE(save("/big.png", platform::fileURL(failed), 4096).ok());  // the limit is inclusive
  // Only the file itself: nothing half-written is left beside it.
  EXPECT_EQ(std::distance(std::filesystem::directory_iterator(failed.parent_path()), {}), 1);
  EXPECT_FALSE(save("/photo", platform::fileURL(file / "under-a-file")).ok());
  EXPECT_FALSE(save("/photo", "/not/a/file/url").ok());
  std::optional<Result<std::string>> bad;
  client.file("not a url", dirURL, Priority::background, FetchPolicy::standard,
              [&](const auto& r) { bad = r; });
  EXPECT_FALSE(bad.has_value());  // even a refusal comes later, on the queue
  ASSERT_TRUE(drainUntil([&] { return bad.has_value(); }));
  EXPECT_EQ(bad->errorDescription(), platform::invalidURLError().what());
}

TEST(RichPushUtils, DigAndLenientURLs) {
  auto info =
      boost::json::parse(R"({"rp": {"att": {"url": "u", "n": 1}, "flat": "x"}})").as_object();
  ASSERT_NE(dig(info, StringPath("rp.att.url")), nullptr);
  EXPECT_EQ(dig(info, StringPath("rp.att.url"))->as_string(), "u");
  EXPECT_TRUE(dig(info, StringPath("rp.att"))->is_object());
  EXPECT_EQ(dig(info, StringPath("rp.flat.url")), nullptr);  // through a text
  EXPECT_EQ(dig(info, StringPath("rp.missing.url")), nullptr);
  EXPECT_EQ(dig(info, StringPath("rp..att")), nullptr);

  EXPECT_EQ(parseURL("https://cdn.test/a.jpg?x=1"), "https://cdn.test/a.jpg?x=1");
  EXPECT_EQ(parseURL(" https://cdn.test/a b/é.jpg "), "https://cdn.test/a%20b/%C3%A9.jpg");
  EXPECT_EQ(parseURL("https://cdn.test/100%.jpg?q=%41"), "https://cdn.test/100%25.jpg?q=%41");
  EXPECT_EQ(parseURL(""), std::nullopt);
  EXPECT_EQ(parseURL("   "), std::nullopt);
  EXPECT_EQ(parseURL("http://[::1/x"), std::nullopt);
}

TEST(PersistentURLCache, KeepsEachTierWithinCapacityDroppingTheLeastRecentlyUsed) {
  const auto dir =
      std::filesystem::temp_directory_path() / ("url_cache_test_" + std::to_string(::getpid()));
  std::filesystem::remove_all(dir);
  auto request = [](const std::string& url) {
    platform::URLRequest r;
    r.url = "http://h/" + url;
    return r;
  };
  auto body = [](char c) { return platform::DataResult{std::string(400, c), {"", 200, {}}}; };
  auto bodyOf = [&](platform::PersistentURLCache& cache, const std::string& url) {
    auto hit = cache.cachedResponse(request(url));
    return hit ? std::optional(hit->data) : std::nullopt;
  };
  {
    // Room for two bodies in memory and three on disk.
    platform::PersistentURLCache cache(1000, 1500, dir);
    cache.storeCachedResponse(body('a'), request("a"));
    cache.storeCachedResponse(body('b'), request("b"));
    ASSERT_TRUE(bodyOf(cache, "a"));  // a is now the most recent, in both tiers
    cache.storeCachedResponse(body('c'), request("c"));
    cache.storeCachedResponse(body('d'), request("d"));
    EXPECT_LE(cache.currentMemoryUsage(), 1000u);
    EXPECT_LE(cache.currentDiskUsage(), 1500u);
    cache.storeCachedResponse(platform::DataResult{std::string(2000, 'z'), {}}, request("z"));
    EXPECT_FALSE(bodyOf(cache, "z"));  // larger than either tier
  }
  platform::PersistentURLCache reopened(1000, 1500, dir);
  EXPECT_EQ(bodyOf(reopened, "a"), std::string(400, 'a'));
  EXPECT_FALSE(bodyOf(reopened, "b"));
  EXPECT_EQ(bodyOf(reopened, "d"), std::string(400, 'd'));
  reopened.removeAllCachedResponses();
  EXPECT_FALSE(bodyOf(reopened, "a"));
  EXPECT_TRUE(std::filesystem::is_empty(dir));
  std::filesystem::remove_all(dir);
}
