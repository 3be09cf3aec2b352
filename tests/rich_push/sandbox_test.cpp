// The whole path against the local service: a real listener, generated media and trouble
// asked for in the query.

#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>

#include "platform/paths.hpp"
#include "rich_push/rich_push_service.hpp"
#include "test_env.hpp"

using namespace rich_push;
using namespace rich_push_test;

namespace {

// herald-sandbox as a child; its first line of output is its base URL.
class Sandbox {
 public:
  Sandbox() {
    const char* bin = std::getenv("HERALD_BIN_DIR");
    const std::string program = std::string(bin ? bin : ".") + "/herald-sandbox";
    if (::access(program.c_str(), X_OK) != 0) return;
    int out[2];
    if (::pipe(out) != 0) return;
    pid_ = ::fork();
    if (pid_ == 0) {
      ::dup2(out[1], STDOUT_FILENO);
      ::close(out[0]);
      ::close(out[1]);
      ::execl(program.c_str(), program.c_str(), static_cast<char*>(nullptr));
      ::_exit(127);
    }
    ::close(out[1]);
    output_ = ::fdopen(out[0], "r");
    char line[256] = {};
    pollfd ready{out[0], POLLIN, 0};
    if (output_ && ::poll(&ready, 1, 10'000) == 1 && std::fgets(line, sizeof line, output_))
      baseURL_ = line;
    while (!baseURL_.empty() && (baseURL_.back() == '\n' || baseURL_.back() == '\r'))
      baseURL_.pop_back();
  }
  ~Sandbox() {
    if (pid_ > 0) {
      ::kill(pid_, SIGTERM);
      ::waitpid(pid_, nullptr, 0);
    }
    if (output_) std::fclose(output_);
  }
  const std::string& baseURL() const { return baseURL_; }

 private:
  pid_t pid_ = -1;
  FILE* output_ = nullptr;
  std::string baseURL_;
};

class RichPushSandboxTest : public TempCachesTest {};

}  // namespace

TEST_F(RichPushSandboxTest, AttachesGeneratedMediaAndSurvivesItsTrouble) {
  Sandbox sandbox;
  if (sandbox.baseURL().empty()) GTEST_SKIP() << "herald-sandbox is not built";
  auto client = AssetsClient::live(url_session::uncached(), mainQueue(), 300ms);
  auto deliver = [&](const std::string& path, const std::string& type) {
    platform::MutableNotificationContent content;
    content.userInfo["rp"] = {{"att", {{"url", sandbox.baseURL() + path}, {"type", type}}}};
    std::vector<platform::NotificationContent> delivered;
    EXPECT_TRUE(richPushHandle(
        {"id", content.copy()}, [&](const auto& c) { delivered.push_back(c); }, client));
    EXPECT_TRUE(drainUntil([&] { return !delivered.empty(); }));
    platform::MainQueue::shared().runFor(50ms);
    EXPECT_EQ(delivered.size(), 1u);
    return delivered.empty() ? std::vector<platform::NotificationAttachment>{}
                             : delivered[0].attachments;
  };

  const auto attached = deliver("/_sandbox/bytes/300000.png", "png");
  ASSERT_EQ(attached.size(), 1u);
  const auto saved = platform::pathFromFileURL(attached[0].url);
  ASSERT_TRUE(saved);
  EXPECT_EQ(saved->parent_path(), caches() / kCacheFolderName);
  EXPECT_EQ(std::filesystem::file_size(*saved), 300000u);

  testing::internal::CaptureStdout();
  EXPECT_TRUE(deliver("/_sandbox/bytes/2048.mp4?stall=3", "mp4").empty());
  EXPECT_TRUE(deliver("/_sandbox/bytes/2048.mp4?truncate=1000", "mp4").empty());
  EXPECT_TRUE(deliver("/_sandbox/bytes/2048.mp4?status=503", "mp4").empty());
  EXPECT_TRUE(deliver("/_sandbox/bytes/5242881.mp3", "mp3").empty());  // one byte too many
  const auto printed = testing::internal::GetCapturedStdout();
  EXPECT_EQ(std::count(printed.begin(), printed.end(), '\n'), 4) << printed;
  EXPECT_NE(printed.find("larger than the allowed 5242880 bytes"), std::string::npos) << printed;
}
