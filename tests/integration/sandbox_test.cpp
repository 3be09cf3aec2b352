#include <gtest/gtest.h>

#include <boost/json.hpp>
#include <filesystem>
#include <fstream>

#include "integration/processes.hpp"
#include "platform/json.hpp"
#include "platform/notification.hpp"
#include "platform/paths.hpp"
#include "platform/url_loading.hpp"

namespace {

using namespace integration;
namespace json = boost::json;

platform::DataResult send(const std::string& url, const std::string& method = "GET",
                          std::optional<std::string> body = std::nullopt) {
  auto request = platform::URLRequest::make(url);
  request.method = method;
  request.body = std::move(body);
  return platform::URLSession::shared().dataSync(request);
}

TEST(Sandbox, TrackingTakesTheFiveEventsAndExplainsWhatIsWrongWithAnyOtherBody) {
  Sandbox sandbox;
  const auto ok = send(sandbox.url() + "/track/a", "POST", R"({"event":"READ"})");
  EXPECT_EQ(ok.response.statusCode, 200);

  struct Case {
    std::string body;
    std::string expected;
  } cases[] = {
      {R"({"event":"delivered"})", "not \"delivered\""},
      {R"({"event":)", "line 1, column 10"},
      {R"(["DELIVERED"])", "not an array"},
      {R"({"type":"DELIVERED"})", "no \"event\""},
  };
  for (const auto& c : cases) {
    const auto refused = send(sandbox.url() + "/track/a", "POST", c.body);
    EXPECT_EQ(refused.response.statusCode, 400) << c.body;
    EXPECT_EQ(refused.response.mimeType(), "application/json");
    const auto error = platform::parseJSON(refused.data).as_object();
    EXPECT_EQ(error.at("type"), "invalid_request_error");
    EXPECT_NE(std::string(error.at("message").as_string()).find(c.expected), std::string::npos)
        << refused.data;
  }

  // The journal holds every request but its own, in order, and can be emptied.
  const auto journal = sandbox.journal();
  ASSERT_EQ(journal.size(), 5u);
  EXPECT_EQ(journal[0].at("body"), R"({"event":"READ"})");
  EXPECT_EQ(journal[4].at("body"), R"({"type":"DELIVERED"})");
  EXPECT_EQ(send(sandbox.url() + "/_sandbox/requests", "DELETE").response.statusCode, 200);
  EXPECT_TRUE(sandbox.journal().empty());
  EXPECT_EQ(sandbox.stop(), 0);
}

// The URL line promises that SIGINT and SIGTERM are handled from then on.
TEST(Sandbox, StopsCleanlyOnSigtermRightAfterItsURL) {
  for (int start = 0; start < 20; ++start) {
    Sandbox sandbox;
    ASSERT_EQ(sandbox.stop(), 0) << "start " << start;
  }
}

class SandboxFiles : public ::testing::Test {
 protected:
  void SetUp() override {
    root_ = platform::temporaryDirectory() / ("sandbox-test-" + platform::newUUID());
    std::filesystem::create_directories(root_ / "media");
    std::ofstream(root_ / "media" / "note.txt") << "0123456789abcdefghij";
    std::ofstream(root_.parent_path() / (root_.filename().string() + ".secret")) << "secret";
    sandbox_.emplace(std::vector<std::string>{"--files", root_.string()});
  }
  void TearDown() override {
    sandbox_.reset();
    std::filesystem::remove(root_.parent_path() / (root_.filename().string() + ".secret"));
    std::filesystem::remove_all(root_);
  }

  std::string raw(const std::string& target) {
    return rawExchange(
        sandbox_->port(),
        "GET " + target + " HTTP/1.1\r\nHost: 127.0.0.1\r\nConnection: close\r\n\r\n");
  }

  std::filesystem::path root_;
  std::optional<Sandbox> sandbox_;
};

TEST_F(SandboxFiles, ServesFilesByTypeButNothingOutsideTheRoot) {
  const auto file = send(sandbox_->url() + "/files/media/note.txt");
  EXPECT_EQ(file.response.statusCode, 200);
  EXPECT_EQ(file.response.mimeType(), "text/plain");
  EXPECT_EQ(file.data, "0123456789abcdefghij");

  const auto secret = "/files/../" + root_.filename().string() + ".secret";
  for (const auto& target : {secret, std::string("/files/media/%2e%2e/%2E%2E/etc/passwd")}) {
    const auto answer = raw(target);
    EXPECT_TRUE(answer.starts_with("HTTP/1.1 400 ")) << target << "\n" << answer;
    EXPECT_EQ(answer.find("\r\n\r\nsecret"), std::string::npos);
  }
  EXPECT_EQ(send(sandbox_->url() + "/files/media/none.txt").response.statusCode, 404);
}

// A link is judged by where it leads: within the folder it is served like the file it names,
// out of it the answer is 403, whether the link names a file or a folder on the way.
TEST_F(SandboxFiles, SymbolicLinksAreServedOnlyWhenTheyStayInsideTheFolder) {
  namespace fs = std::filesystem;
  const auto secret = root_.filename().string() + ".secret";
  fs::create_symlink("note.txt", root_ / "media" / "alias.txt");
  fs::create_directory_symlink("media", root_ / "inside");
  fs::create_symlink("../../" + secret, root_ / "media" / "out.txt");
  fs::create_symlink(root_.parent_path() / secret, root_ / "absolute.txt");
  fs::create_directory_symlink("../..", root_ / "media" / "up");

  for (const std::string path : {"/files/media/alias.txt", "/files/inside/note.txt"}) {
    const auto file = send(sandbox_->url() + path);
    EXPECT_EQ(file.response.statusCode, 200) << path;
    EXPECT_EQ(file.data, "0123456789abcdefghij") << path;
  }
  const std::string outside[] = {"/files/media/out.txt", "/files/absolute.txt",
                                 "/files/media/up/" + secret};
  for (const auto& path : outside) {
    const auto answer = raw(path);
    EXPECT_TRUE(answer.starts_with("HTTP/1.1 403 ")) << path << "\n" << answer;
    EXPECT_EQ(answer.find("\r\n\r\nsecret"), std::string::npos);
  }

  // The folder itself may be named through a link.
  fs::create_directory_symlink(root_, root_.string() + ".link");
  Sandbox linked({"--files", root_.string() + ".link"});
  EXPECT_EQ(send(linked.url() + "/files/inside/note.txt").response.statusCode, 200);
  EXPECT_EQ(send(linked.url() + "/files/media/out.txt").response.statusCode, 403);
  fs::remove(root_.string() + ".link");
}

TEST_F(SandboxFiles, TroubleParametersBendAnyAnswer) {
  const auto unavailable = send(sandbox_->url() + "/files/media/note.txt?status=503");
  EXPECT_EQ(unavailable.response.statusCode, 503);
  EXPECT_EQ(unavailable.data, "0123456789abcdefghij");

  // The whole length is announced, seven bytes come, then the connection closes.
  const auto cut = raw("/files/media/note.txt?truncate=7");
  EXPECT_TRUE(cut.starts_with("HTTP/1.1 200 ")) << cut;
  EXPECT_NE(cut.find("Content-Length: 20\r\n"), std::string::npos) << cut;
  EXPECT_TRUE(cut.ends_with("\r\n\r\n0123456")) << cut;
  EXPECT_THROW(send(sandbox_->url() + "/files/media/note.txt?truncate=7"), platform::Error);

  const auto bad = send(sandbox_->url() + "/track/x?delay=soon", "POST", R"({"event":"READ"})");
  EXPECT_EQ(bad.response.statusCode, 400);
  EXPECT_NE(bad.data.find("delay"), std::string::npos);
}

TEST_F(SandboxFiles, GeneratedMediaHasTheSizeAskedAndPassesAttachmentChecks) {
  for (const std::string name : {"4096.jpg", "300.png", "64.gif", "2048.mp4"}) {
    const auto media = send(sandbox_->url() + "/_sandbox/bytes/" + name);
    ASSERT_EQ(media.response.statusCode, 200) << name;
    EXPECT_EQ(media.data.size(), std::stoul(name));
    const auto path = root_ / name;
    std::ofstream(path, std::ios::binary) << media.data;
    EXPECT_NO_THROW(platform::NotificationAttachment::make("a", platform::fileURL(path))) << name;
  }
  EXPECT_EQ(send(sandbox_->url() + "/_sandbox/bytes/10.jpg").response.mimeType(), "image/jpeg");
  EXPECT_EQ(send(sandbox_->url() + "/_sandbox/bytes/big.jpg").response.statusCode, 400);
}

}  // namespace
