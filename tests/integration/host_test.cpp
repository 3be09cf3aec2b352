#include <gtest/gtest.h>

#include <boost/json.hpp>
#include <filesystem>
#include <fstream>

#include "integration/processes.hpp"
#include "platform/json.hpp"
#include "platform/paths.hpp"

namespace {

using namespace integration;
namespace json = boost::json;

class Host : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = platform::temporaryDirectory() / ("host-test-" + platform::newUUID());
    std::filesystem::create_directories(dir_);
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  std::string write(const std::string& name, const std::string& text) {
    const auto path = dir_ / name;
    std::ofstream(path) << text;
    return path.string();
  }

  static Finished host(std::vector<std::string> args, const std::string& input = {}) {
    args.insert(args.begin(), program("notification-service"));
    return run(args, input);
  }

  // The "content" of each JSON line, checking that calls count up from 1.
  static std::vector<json::object> contents(const Finished& f) {
    std::vector<json::object> result;
    for (const auto& line : lines(f.out)) {
      auto v = platform::parseJSON(line).as_object();
      EXPECT_EQ(v.at("call"), json::value(result.size() + 1)) << line;
      result.push_back(v.at("content").as_object());
    }
    return result;
  }

  std::filesystem::path dir_;
};

TEST_F(Host, RefusesWhatIsNotAJSONObjectWithOneLineThatSaysWhy) {
  struct Case {
    std::string path;
    std::string expected;
  } cases[] = {
      {write("syntax.json", "{\n  \"aps\": {\"alert\": \"x\"\n  oops}"), "line 3, column 3"},
      {write("array.json", "[{\"aps\": {}}]"), "not an array"},
      {write("aps.json", R"({"aps": {"alert": {"title": 5}}})"), "\"aps.alert.title\""},
      {(dir_ / "missing.json").string(), "No such file or directory"},
  };
  for (const auto& c : cases) {
    const auto f = host({"--deadline", "1", c.path});
    EXPECT_EQ(f.exitCode, 2) << c.path;
    EXPECT_EQ(f.out, "") << c.path;
    ASSERT_EQ(lines(f.err).size(), 1u) << f.err;
    EXPECT_NE(f.err.find(c.expected), std::string::npos) << f.err;
  }
}

TEST_F(Host, ReadsStandardInputAndTakesAPlainAlertAsTheBody) {
  const std::string payload =
      R"({"aps": {"alert": "Hi", "badge": 0, "mutable-content": 1}, "n": 3.25})";
  const auto f = host({"--extension", "plain", "-"}, payload);
  ASSERT_EQ(f.exitCode, 0) << f.err;
  const auto delivered = contents(f);
  ASSERT_EQ(delivered.size(), 1u);
  EXPECT_EQ(delivered[0], platform::parseJSON(R"({
      "title": null, "subtitle": null, "body": "Hi", "badge": 0, "sound": null,
      "threadIdentifier": null, "categoryIdentifier": null,
      "userInfo": {"aps": {"alert": "Hi", "badge": 0, "mutable-content": 1}, "n": 3.25},
      "attachments": [], "communication": null})"));
  // Numbers reach the output as they were written.
  EXPECT_NE(f.out.find("\"n\":3.25}"), std::string::npos) << f.out;
}

#ifdef WITH_BASE_EXTENSION

TEST_F(Host, BaseReportsTheDeliveryOnceThenShowsTheContentUnchanged) {
  Sandbox sandbox;
  const std::string payload = R"({"aps": {"alert": {"title": "New follower", "subtitle": "Ana",
      "body": "Ana follows you"}, "badge": 4, "sound": "default", "thread-id": "t-1",
      "category": "FOLLOW", "mutable-content": 1},
      "trackingUrl": ")" + sandbox.url() +
                              R"(/track/msg-1", "user_name": "Ana"})";
  const auto f = host({"--extension", "base", write("p.json", payload)});
  ASSERT_EQ(f.exitCode, 0) << f.err;

  const auto delivered = contents(f);
  ASSERT_EQ(delivered.size(), 1u) << f.out;
  const auto& c = delivered[0];
  EXPECT_EQ(c.at("title"), "New follower");
  EXPECT_EQ(c.at("subtitle"), "Ana");
  EXPECT_EQ(c.at("body"), "Ana follows you");
  EXPECT_EQ(c.at("badge"), 4);
  EXPECT_EQ(c.at("sound"), "default");
  EXPECT_EQ(c.at("threadIdentifier"), "t-1");
  EXPECT_EQ(c.at("categoryIdentifier"), "FOLLOW");
  EXPECT_EQ(c.at("userInfo"), platform::parseJSON(payload));
  EXPECT_EQ(c.at("attachments"), json::array());

  const auto journal = sandbox.journal();
  ASSERT_EQ(journal.size(), 1u) << json::serialize(journal);
  const auto& post = journal[0].as_object();
  EXPECT_EQ(post.at("method"), "POST");
  EXPECT_EQ(post.at("path"), "/track/msg-1");
  EXPECT_EQ(platform::parseJSON(post.at("body").as_string()),
            platform::parseJSON(R"({"event":"DELIVERED"})"));
  std::vector<std::string> names;
  for (const auto& header : post.at("headers").as_array()) {
    const auto name = std::string(header.as_array()[0].as_string());
    if (name == "Host" || name == "Content-Length") continue;  // the transport's own
    names.push_back(name);
    if (name == "Content-Type") {
      EXPECT_EQ(header.as_array()[1], "application/json");
    }
    if (name == "User-Agent") {
      EXPECT_NE(header.as_array()[1], "");
    }
  }
  EXPECT_EQ(names, (std::vector<std::string>{"User-Agent", "Content-Type"}));
}

TEST_F(Host, DeadlineDeliversWhileTheReportStallsAndTheReportDeliversAgain) {
  Sandbox sandbox;
  const std::string payload =
      R"({"aps": {"alert": "late", "mutable-content": 1}, "trackingUrl": ")" + sandbox.url() +
      R"(/track/m?delay=1.5"})";
  const auto f = host({"--extension", "base", "--deadline", "0.3", write("p.json", payload)});
  ASSERT_EQ(f.exitCode, 0) << f.err;
  const auto delivered = contents(f);
  ASSERT_EQ(delivered.size(), 2u) << f.out;
  EXPECT_EQ(delivered[0], delivered[1]);
  EXPECT_EQ(delivered[0].at("body"), "late");
  // The first call cannot come before the deadline, nor the second before the server answered.
  const auto out = lines(f.out);
  EXPECT_GE(platform::parseJSON(out[0]).at("elapsed_ms").to_number<double>(), 300);
  EXPECT_GE(platform::parseJSON(out[1]).at("elapsed_ms").to_number<double>(), 1500);
  EXPECT_EQ(sandbox.journal().size(), 1u);
}

// The base extension hands the content back only after its report: no answer may keep it.
TEST_F(Host, BaseDeliversWhateverTheTrackingUrlAnswers) {
  std::string deep = R"("x")";
  for (int i = 0; i < 100; ++i) deep = "[" + deep + "]";
  const std::string payload = R"({"aps": {"alert": "hi", "mutable-content": 1}, "deep": )" + deep +
                              R"(, "trackingUrl": "file:///dev/zero"})";
  const auto f = host({"--extension", "base", write("p.json", payload)});
  ASSERT_EQ(f.exitCode, 0) << f.err;
  ASSERT_EQ(contents(f).size(), 1u) << f.out;
  EXPECT_EQ(contents(f)[0].at("userInfo"), platform::parseJSON(payload));
}

TEST_F(Host, ExitsWith3WhenTheHandlerIsNeverCalled) {
  // Without a mutable copy the base extension delivers nothing, not even at the deadline.
  const auto f = host({"--extension", "base", "--no-mutable-copy", "--deadline", "0.1", "--grace",
                       "0.1", write("p.json", R"({"aps": {"alert": "x", "mutable-content": 1}})")});
  EXPECT_EQ(f.exitCode, 3);
  EXPECT_EQ(f.out, "");
  EXPECT_EQ(lines(f.err).size(), 1u) << f.err;
}

#endif

#ifdef WITH_RICH_PUSH_EXTENSION

TEST_F(Host, KeepsStandardOutputForContentLinesWhenTheExtensionPrints) {
  // The rich-push service prints a failed download; its completion comes on the main queue.
  Sandbox sandbox;
  const std::string payload = R"({"aps": {"alert": "media", "mutable-content": 1},
      "rp": {"att": {"url": ")" +
                              sandbox.url() +
                              R"(/_sandbox/bytes/64.jpg?status=500", "type": "jpg"}}})";
  const auto f = run({"/usr/bin/env", "XDG_CACHE_HOME=" + (dir_ / "cache").string(),
                      program("notification-service"), "--extension", "rich-push", "--deadline",
                      "5", write("p.json", payload)});
  ASSERT_EQ(f.exitCode, 0) << f.err;
  const auto delivered = contents(f);
  ASSERT_EQ(delivered.size(), 1u) << f.out;
  EXPECT_EQ(delivered[0].at("attachments"), json::array());
  EXPECT_NE(f.err.find("500"), std::string::npos) << f.err;
}

#endif

}  // namespace
