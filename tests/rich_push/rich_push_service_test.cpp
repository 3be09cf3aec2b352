#include "rich_push/rich_push_service.hpp"

#include <gtest/gtest.h>

#include "platform/paths.hpp"
#include "test_env.hpp"

using namespace rich_push;
using namespace rich_push_test;
using testing_support::HttpServer;
using testing_support::ScriptedResponse;

namespace {

const std::string kVideo = std::string(
                               "\0\0\0\x18"
                               "ftypmp42",
                               12) +
                           std::string(500, 'v');

using RichPushServiceTest = RichPushTest;

}  // namespace

TEST_F(RichPushServiceTest, AttachesVideoWithAThumbnailTimeOnlyForExactLowerCaseTypes) {
  HttpServer server([](const auto&) { return ScriptedResponse{200, {}, kVideo}; });
  const auto url = server.baseURL() + "/media/clip";
  const auto digest = sha256Hex(url);

  testing::internal::CaptureStdout();
  ASSERT_TRUE(handle(richPush(url, "mp4")));
  ASSERT_TRUE(handle(richPush(url, "MP4")));
  EXPECT_EQ(testing::internal::GetCapturedStdout(), "");

  ASSERT_EQ(delivered.size(), 2u);
  EXPECT_EQ(delivered[0].title, "New filters");
  ASSERT_EQ(delivered[0].attachments.size(), 1u);
  EXPECT_EQ(delivered[0].attachments[0].identifier, digest);
  EXPECT_EQ(delivered[0].attachments[0].url, platform::fileURL(cacheFolder() / (digest + ".mp4")));
  EXPECT_EQ(delivered[0].attachments[0].options, (boost::json::object{{"ThumbnailTime", 0}}));
  EXPECT_EQ(std::filesystem::file_size(cacheFolder() / (digest + ".mp4")), kVideo.size());
  ASSERT_EQ(delivered[1].attachments.size(), 1u);
  EXPECT_EQ(delivered[1].attachments[0].url, platform::fileURL(cacheFolder() / (digest + ".MP4")));
  EXPECT_TRUE(delivered[1].attachments[0].options.empty());
}

TEST_F(RichPushServiceTest, LeavesNotificationsWithoutACompleteBlockToTheCaller) {
  HttpServer server([](const auto&) { return ScriptedResponse{200, {}, kVideo}; });
  const auto url = server.baseURL() + "/clip.mp4";
  EXPECT_FALSE(handle(richPush(url, std::nullopt)));
  EXPECT_FALSE(handle(richPush("", "mp4")));
  auto content = richPush(url, "mp4").content->mutableCopy();
  content->copyable = false;
  EXPECT_FALSE(handle({"id", content->copy()}));
  EXPECT_TRUE(delivered.empty());
  EXPECT_TRUE(server.requests().empty());

  // The ready-made extension shows what it does not take, unchanged and at once.
  NotificationService service;
  std::optional<std::string> title;
  service.didReceive(richPush(url, std::nullopt), [&](const auto& c) { title = c.title; });
  EXPECT_EQ(title, "New filters");
}

TEST_F(RichPushServiceTest, EveryTroubleEndsWithOneDeliveryWithoutAttachment) {
  HttpServer server([](const testing_support::RecordedRequest& request) {
    if (request.target == "/missing.mp4") return ScriptedResponse{404, {}, "not here"};
    if (request.target == "/stalled.mp4") return ScriptedResponse{200, {}, kVideo, 2s};
    if (request.target == "/cut.mp4") return ScriptedResponse{200, {}, kVideo, 0ms, 100};
    if (request.target == "/page.jpg") return ScriptedResponse{200, {}, "<html>not a picture"};
    return ScriptedResponse{200, {}, std::string((5 << 20) + 1, 'a')};  // 5 MB + 1 of audio
  });
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"/missing.mp4", "mp4"},
      {"/stalled.mp4", "mp4"},
      {"/cut.mp4", "mp4"},
      {"/page.jpg", "jpg"},
      {"/huge.mp3", "mp3"},
      {"/doc", "txt"},
      {"/x", "../../x"},
      {"/x", "a/b"},
      {"/x", ""},
      {"/x", "mp4.."},
      {"/x", std::string(17, 'a')},
  };
  for (const auto& [path, type] : cases) {
    SCOPED_TRACE(path + " as " + type);
    delivered.clear();
    testing::internal::CaptureStdout();
    EXPECT_TRUE(handle(richPush(server.baseURL() + path, type)));
    const auto printed = testing::internal::GetCapturedStdout();
    ASSERT_EQ(delivered.size(), 1u);
    EXPECT_EQ(delivered[0].title, "New filters");
    EXPECT_TRUE(delivered[0].attachments.empty());
    EXPECT_EQ(std::count(printed.begin(), printed.end(), '\n'), 1) << printed;
    EXPECT_EQ(printed.rfind("RichPush: ", 0), 0u) << printed;
  }
  // Types that are not media, or not safe as a file extension, cost no download.
  EXPECT_EQ(server.requests().size(), 5u);
  for (const auto& entry : std::filesystem::recursive_directory_iterator(root)) {
    if (entry.is_regular_file()) {
      EXPECT_EQ(entry.path().parent_path(), cacheFolder()) << entry.path();
    }
  }
}
