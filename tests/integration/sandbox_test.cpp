#include <gtest/gtest.h>

#include <algorithm>
#include <boost/json.hpp>
#include <filesystem>
#include <fstream>
#include <thread>

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

// Trouble rules: the inbox sends every query and mutation to the one URL /inbox/q, so a test
// picks out a mutation by its text.
class SandboxTroubleRules : public ::testing::Test {
 protected:
  Answer rule(const std::string& body) {
    return call(sandbox_.url() + "/_sandbox/trouble", "POST", body);
  }
  Answer mutate(const std::string& field) {
    const auto query = "mutation TrackEvent { " + field + "(messageId: \"m1\") }";
    return call(sandbox_.url() + "/inbox/q", "POST",
                platform::toJSON(json::object{{"query", query}, {"variables", "{}"}}),
                {{"x-herald-user-id", "ada"}, {"x-herald-client-key", "sandbox-client-key"}});
  }
  Answer track(const std::string& id) {
    return call(sandbox_.url() + "/track/" + id, "POST", R"({"event":"READ"})");
  }
  // Waits (boundedly) until the journal holds `count` entries.
  json::array journalOf(std::size_t count) {
    for (int tries = 0; tries < 500; ++tries) {
      auto journal = sandbox_.journal();
      if (journal.size() >= count) return journal;
      std::this_thread::sleep_for(10ms);
    }
    return sandbox_.journal();
  }

  Sandbox sandbox_;
};

TEST_F(SandboxTroubleRules, ARuleBendsOnlyTheMatchingRequestsAndOnlyItsNumberOfTimes) {
  EXPECT_EQ(rule(R"({"path": "/inbox/q", "contains": "archive", "status": 500, "times": 2})")
                .object()
                .at("rules"),
            1);
  EXPECT_EQ(rule(R"({"path": "/track/t", "status": 503, "always": true})").object().at("rules"), 2);
  EXPECT_EQ(mutate("read").status, 200);  // another mutation to the same URL
  EXPECT_EQ(mutate("archive").status, 500);
  EXPECT_EQ(call(sandbox_.url() + "/_sandbox/trouble").object().at("rules").at(0).at("times"), 1);
  EXPECT_EQ(mutate("archive").status, 500);
  EXPECT_EQ(mutate("archive").status, 200);  // used up

  // A rule's keys win over the query's, whose other keys still count; "always" lasts.
  for (int i = 0; i < 2; ++i) {
    const auto cut = rawExchange(sandbox_.port(),
                                 "POST /track/t?status=404&truncate=3 HTTP/1.1\r\nHost: x\r\n"
                                 "Content-Length: 16\r\n\r\n{\"event\":\"READ\"}");
    EXPECT_TRUE(cut.starts_with("HTTP/1.1 503 ")) << cut;
    EXPECT_TRUE(cut.ends_with("\r\n\r\n{\"t")) << cut;
  }
  EXPECT_EQ(call(sandbox_.url() + "/_sandbox/trouble", "DELETE").object().at("rules"), 0);
  EXPECT_EQ(track("t").status, 200);

  // The journal keeps the status that was sent.
  std::vector<std::int64_t> statuses;
  for (const auto& entry : sandbox_.journal()) statuses.push_back(entry.at("status").as_int64());
  EXPECT_EQ(statuses, (std::vector<std::int64_t>{200, 500, 500, 200, 503, 503, 200}));
}

TEST_F(SandboxTroubleRules, AWrongRuleIsRefusedWithTheReason) {
  struct Case {
    std::string body;
    std::string expected;
  } cases[] = {
      {R"({"status": 500})", "needs a \"path\""},
      {R"({"path": "/inbox/q"})", "makes no trouble"},
      {R"({"path": "/inbox/q", "delay": 0})", "makes no trouble"},
      {R"({"path": "/inbox/q", "status": 500, "times": 0})", "\"times\" must be"},
      {R"({"path": "/inbox/q", "status": 500, "times": 2, "always": true})", "not both"},
      {R"({"path": "/inbox/q", "status": "500"})", "not a string"},
      {R"({"path": "/inbox/q", "delay": 3601})", "from 0 to 3600"},
      {R"({"path": "/inbox/q", "status": 500, "when": 1})", "unknown key \"when\""},
      {R"({"path": "/_sandbox/requests", "status": 500})", "/_sandbox/"},
      {R"({"path": "/inbox/q?x=1", "status": 500})", "without the query"},
      {R"([])", "not an array"},
  };
  for (const auto& c : cases) {
    const auto refused = rule(c.body);
    EXPECT_EQ(refused.status, 400) << c.body;
    const auto message = std::string(refused.object().at("message").as_string());
    EXPECT_NE(message.find(c.expected), std::string::npos) << c.body << " -> " << message;
  }
  EXPECT_TRUE(call(sandbox_.url() + "/_sandbox/trouble").object().at("rules").as_array().empty());
}

TEST_F(SandboxTroubleRules, TheJournalShowsRequestsThatWereAnsweredTogether) {
  ASSERT_EQ(rule(R"({"path": "/track/slow", "delay": 0.3, "times": 3})").status, 200);
  std::vector<std::thread> clients;
  for (int i = 0; i < 3; ++i)
    clients.emplace_back([this] { EXPECT_EQ(track("slow").status, 200); });
  for (auto& client : clients) client.join();
  const auto journal = sandbox_.journal();
  ASSERT_EQ(journal.size(), 3u);
  double lastReceived = 0, firstAnswered = 1e300;
  for (const auto& entry : journal) {
    lastReceived = std::max(lastReceived, entry.at("received").to_number<double>());
    firstAnswered = std::min(firstAnswered, entry.at("answered").to_number<double>());
  }
  EXPECT_LT(lastReceived, firstAnswered) << json::serialize(journal);

  // A request whose entry was cleared while it waited does not mark the entry after it.
  ASSERT_EQ(call(sandbox_.url() + "/_sandbox/requests", "DELETE").status, 200);
  ASSERT_EQ(rule(R"({"path": "/track/late", "delay": 0.3, "status": 503})").status, 200);
  std::thread late([this] { EXPECT_EQ(track("late").status, 503); });
  ASSERT_EQ(journalOf(1).size(), 1u);
  ASSERT_EQ(call(sandbox_.url() + "/_sandbox/requests", "DELETE").status, 200);
  EXPECT_EQ(track("soon").status, 200);
  late.join();
  const auto after = sandbox_.journal();
  ASSERT_EQ(after.size(), 1u);
  EXPECT_EQ(after[0].at("status"), 200);
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
