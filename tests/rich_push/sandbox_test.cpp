#include <gtest/gtest.h>

#include "integration/processes.hpp"
#include "platform/paths.hpp"
#include "test_env.hpp"

using namespace rich_push;
using namespace rich_push_test;

namespace {

using RichPushSandboxTest = RichPushTest;

}  // namespace

TEST_F(RichPushSandboxTest, AttachesGeneratedMediaAndSurvivesItsTrouble) {
  integration::Sandbox sandbox;
  const auto url = sandbox.url() + "/_sandbox/bytes/300000.png";
  ASSERT_TRUE(handle(richPush(url, "png")));
  ASSERT_EQ(delivered.size(), 1u);
  ASSERT_EQ(delivered[0].attachments.size(), 1u);
  const auto saved = cacheFolder() / (sha256Hex(url) + ".png");
  EXPECT_EQ(delivered[0].attachments[0].url, platform::fileURL(saved));
  EXPECT_EQ(std::filesystem::file_size(saved), 300000u);

  testing::internal::CaptureStdout();
  delivered.clear();
  EXPECT_TRUE(handle(richPush(sandbox.url() + "/_sandbox/bytes/2048.mp4?stall=3", "mp4")));
  EXPECT_TRUE(handle(richPush(sandbox.url() + "/_sandbox/bytes/5242881.mp3", "mp3")));
  const auto printed = testing::internal::GetCapturedStdout();
  ASSERT_EQ(delivered.size(), 2u);
  EXPECT_TRUE(delivered[0].attachments.empty() && delivered[1].attachments.empty());
  EXPECT_NE(printed.find("timed out"), std::string::npos) << printed;
  EXPECT_NE(printed.find("larger than the allowed 5242880 bytes"), std::string::npos) << printed;
}
