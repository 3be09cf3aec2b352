// `herald ui` in a real terminal (tmux) against the sandbox: what the screens show, what the
// keys send to the service, and how the terminal is left. Every check reads the screen as
// captured text; every wait is bounded.

#include <gtest/gtest.h>

#include <boost/json.hpp>
#include <algorithm>
#include <cctype>
#include <csignal>
#include <filesystem>
#include <regex>

#include "integration/processes.hpp"
#include "integration/terminal.hpp"
#include "platform/json.hpp"
#include "platform/paths.hpp"

namespace {

using namespace integration;
namespace json = boost::json;

// The rows of a captured screen.
std::vector<std::string> rows(const std::string& screen) {
  std::vector<std::string> result;
  std::size_t start = 0;
  while (start <= screen.size()) {
    const auto end = std::min(screen.find('\n', start), screen.size());
    result.push_back(screen.substr(start, end - start));
    start = end + 1;
  }
  return result;
}

// The first row holding `text`, or "".
std::string rowWith(const std::string& screen, const std::string& text) {
  for (const auto& row : rows(screen))
    if (row.find(text) != std::string::npos) return row;
  return "";
}

class Screens : public ::testing::Test {
 protected:
  void SetUp() override {
    dir_ = platform::temporaryDirectory() / ("herald-screens-test-" + platform::newUUID());
    std::filesystem::create_directories(dir_);
    const auto minted = call(sandbox_.url() + "/_sandbox/users/ada/token", "POST");
    ASSERT_EQ(minted.status, 200) << minted.body;
    jwt_ = std::string(minted.object().at("jwt").as_string());
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  void signIn() {
    const auto f = run(herald({"signin", "--user", "ada", "--jwt", jwt_}));
    ASSERT_EQ(f.exitCode, 0) << f.err;
  }

  std::vector<std::string> herald(const std::vector<std::string>& args) const {
    std::vector<std::string> argv{program("herald"), "--config-dir", (dir_ / "config").string(),
                                  "--endpoint", sandbox_.url()};
    argv.insert(argv.end(), args.begin(), args.end());
    return argv;
  }
  // `ui` run by a shell that then says how it ended and in which modes the terminal was
  // left, and stays (tmux may not learn a program's status when its pane closes first).
  std::vector<std::string> uiThenReport(const std::vector<std::string>& args = {},
                                        const std::string& environment = "") const {
    std::string line = environment;
    for (const auto& word : ui(args)) line += " '" + word + "'";
    return {"sh", "-c", line + "; echo \"exit $?\"; stty -a; sleep 30"};
  }
  std::vector<std::string> ui(const std::vector<std::string>& args = {}) const {
    std::vector<std::string> argv{"ui", "--log", (dir_ / "ui.log").string()};
    argv.insert(argv.end(), args.begin(), args.end());
    return herald(argv);
  }

  std::string addMessage(const std::string& title, bool withAction = false) const {
    json::object message{{"title", title}, {"preview", "about " + title}};
    if (withAction)
      message["actions"] = json::array{json::object{{"content", "View"},
                                                    {"href", "https://example.com/" + title}}};
    const auto answer = call(sandbox_.url() + "/_sandbox/users/ada/messages", "POST",
                             platform::toJSON(message));
    EXPECT_EQ(answer.status, 200) << answer.body;
    return std::string(answer.object().at("messageId").as_string());
  }

  // The inbox mutations the service received, as "read(messageId:\"i1\")".
  std::vector<std::string> mutations() const {
    std::vector<std::string> result;
    for (const auto& entry : sandbox_.journal()) {
      if (entry.at("path") != "/inbox/q") continue;
      std::string body(entry.at("body").as_string());
      if (body.find("mutation") == std::string::npos) continue;
      const std::string query(platform::parseJSON(body).at("query").as_string());
      std::string text(query.substr(query.find('{') + 1));
      text = text.substr(0, text.rfind('}'));
      text.erase(std::remove_if(text.begin(), text.end(), ::isspace), text.end());
      result.push_back(text);
    }
    return result;
  }
  std::size_t feedPageRequests() const {
    std::size_t count = 0;
    for (const auto& entry : sandbox_.journal()) {
      if (entry.at("path") != "/inbox/q") continue;
      const std::string body(entry.at("body").as_string());
      // The unread count's query has the same name, but no page size.
      if (body.find("query GetMessages(") != std::string::npos &&
          body.find("$limit") != std::string::npos)
        ++count;
    }
    return count;
  }

  json::object topic(const std::string& id) const {
    const auto f = run(herald({"--json", "prefs", "get", id}));
    EXPECT_EQ(f.exitCode, 0) << f.err;
    return platform::parseJSON(f.out).at("topic").as_object();
  }

  Sandbox sandbox_;
  std::filesystem::path dir_;
  std::string jwt_;
};

TEST_F(Screens, TheInboxListsMessagesWithUnreadMarksAndTakesNewOnesLive) {
  const auto first = addMessage("First");
  addMessage("Second", true);
  addMessage("Third");
  signIn();
  ASSERT_EQ(run(herald({"inbox", "read", first})).exitCode, 0);

  Terminal term(ui());
  ASSERT_TRUE(term.waitFor("Inbox (2)")) << term.lastCapture();
  ASSERT_TRUE(term.waitFor("Live")) << term.lastCapture();
  auto screen = term.capture();
  EXPECT_EQ(rows(screen)[2].rfind(" \u25cf Third", 0), 0u) << screen;
  EXPECT_NE(rowWith(screen, "Second").find("\u25cf"), std::string::npos) << screen;
  EXPECT_EQ(rowWith(screen, "First").find("\u25cf"), std::string::npos) << screen;
  EXPECT_NE(screen.find("about Second"), std::string::npos) << screen;
  EXPECT_NE(screen.find("[ View ]"), std::string::npos) << screen;
  EXPECT_TRUE(std::regex_search(rowWith(screen, "Third"), std::regex(" [0-9]+s$"))) << screen;
  EXPECT_NE(rows(screen)[23].find("Powered by Herald"), std::string::npos) << screen;

  // Sent through the service while nobody touches a key: on top, and counted.
  addMessage("Breaking");
  ASSERT_TRUE(term.waitFor([](const std::string& s) {
    return rows(s)[2].find("\u25cf Breaking") != std::string::npos &&
           s.find("Inbox (3)") != std::string::npos;
  })) << term.lastCapture();
}

TEST_F(Screens, ReadingOpeningAndArchivingFromTheKeyboardReachTheService) {
  addMessage("Older");
  const auto newest = addMessage("Newest", true);
  signIn();
  Terminal term(ui({"--page-size", "5"}));
  ASSERT_TRUE(term.waitFor("Inbox (2)")) << term.lastCapture();

  term.sendKeys("r");
  ASSERT_TRUE(term.waitFor("Inbox (1)")) << term.lastCapture();
  EXPECT_EQ(rowWith(term.capture(), "Newest").find("\u25cf"), std::string::npos);
  term.sendKeys("r");
  ASSERT_TRUE(term.waitFor("Inbox (2)")) << term.lastCapture();

  // Enter opens it: read, opened and clicked; its first action's link is shown.
  term.sendKeys("Enter");
  ASSERT_TRUE(term.waitFor("Link: https://example.com/Newest")) << term.lastCapture();
  ASSERT_TRUE(term.waitFor("Inbox (1)")) << term.lastCapture();
  term.sendKeys("Escape");

  term.sendKeys("a");
  ASSERT_TRUE(term.waitFor("Archived Newest")) << term.lastCapture();
  EXPECT_EQ(term.capture().find("  Newest"), std::string::npos) << term.lastCapture();
  term.sendKeys("Tab");
  ASSERT_TRUE(term.waitFor([](const std::string& s) {
    return rows(s)[2].find("Newest") != std::string::npos;
  })) << term.lastCapture();

  const std::string id = "(messageId:\"" + newest + "\")";
  const auto sent = mutations();
  const auto has = [&](const std::string& field) {
    return std::find(sent.begin(), sent.end(), field + id) != sent.end();
  };
  for (const char* field : {"read", "unread", "opened", "archive"}) EXPECT_TRUE(has(field)) << field;
  EXPECT_TRUE(std::any_of(sent.begin(), sent.end(), [&](const std::string& m) {
    return m.rfind("clicked(messageId:\"" + newest + "\"", 0) == 0;
  })) << platform::toJSON(json::value_from(sent));
}

TEST_F(Screens, ThePaginationRowFetchesTheNextPageWhenItComesIntoView) {
  // Three rows a message (title, preview, button): a page of four fills 12 of the 20 rows,
  // so the row below asks for a second page at once, and then no more until End.
  for (int i = 1; i <= 12; ++i) addMessage("Message " + std::to_string(i), true);
  signIn();
  Terminal term(ui({"--page-size", "4"}));
  ASSERT_TRUE(term.waitFor("Message 12")) << term.lastCapture();
  EXPECT_EQ(term.capture().find("Message 1 "), std::string::npos);

  // Moving to the end brings the row into view again, page after page, until none is left.
  for (int presses = 0; presses < 10; ++presses) {
    term.sendKeys("End");
    if (term.waitFor("Message 1 ", 2s)) break;
  }
  ASSERT_TRUE(term.waitFor("Message 1 ")) << term.lastCapture();
  EXPECT_EQ(term.capture().find("Loading more"), std::string::npos) << term.lastCapture();
  EXPECT_EQ(feedPageRequests(), 3u);
}

TEST_F(Screens, ThePreferencesSheetSavesAChoiceAndShowsTheServicesRefusal) {
  signIn();
  Terminal term(ui());
  ASSERT_TRUE(term.waitFor("Inbox (0)")) << term.lastCapture();
  term.sendKeys("p");
  ASSERT_TRUE(term.waitFor("Comments on your photos")) << term.lastCapture();
  EXPECT_NE(term.capture().find("Activity"), std::string::npos);
  EXPECT_NE(rowWith(term.capture(), "Receipts and billing").find("REQUIRED"), std::string::npos)
      << term.lastCapture();

  // Comments: the own channels were push; email is added (the fourth line down).
  term.sendKeys("Enter");
  ASSERT_TRUE(term.waitFor("[ Save ]")) << term.lastCapture();
  term.sendKeys("Down", "Down", "Down", "Down", "Space", "s");
  ASSERT_TRUE(term.waitFor("Saved Comments on your photos")) << term.lastCapture();
  auto stored = topic("comments");
  EXPECT_EQ(stored.at("custom_routing"), platform::parseJSON(R"(["push", "email"])"));
  EXPECT_EQ(stored.at("status"), "OPTED_IN");
  ASSERT_TRUE(term.waitFor([](const std::string& s) {
    return rowWith(s, "Comments on your photos").find("Push, Email") != std::string::npos;
  })) << term.lastCapture();

  // Then off.
  term.sendKeys("Enter", "Space", "s");
  ASSERT_TRUE(term.waitFor([](const std::string& s) {
    return rowWith(s, "Comments on your photos").find("Off") != std::string::npos;
  })) << term.lastCapture();
  EXPECT_EQ(topic("comments").at("status"), "OPTED_OUT");

  // A required topic cannot be opted out of: the service says so, the sheet shows it.
  term.sendKeys("End", "Enter", "Space", "s");
  ASSERT_TRUE(term.waitFor("Refused: topic \"billing\" is required")) << term.lastCapture();
  EXPECT_EQ(topic("billing").at("status"), "REQUIRED");
}

TEST_F(Screens, TheBrandTintsTheScreensAndMayHideTheFooter) {
  ASSERT_EQ(call(sandbox_.url() + "/_sandbox/brands/quiet", "PUT",
                 R"({"settings": {"colors": {"primary": "#9122F7"},
                                  "inapp": {"disableHeraldFooter": true}}})")
                .status,
            200);
  ASSERT_EQ(call(sandbox_.url() + "/_sandbox/brands/loud", "PUT",
                 R"({"settings": {"colors": {"primary": "#9122F7"}}})")
                .status,
            200);
  signIn();
  {
    Terminal term(ui({"--brand", "quiet"}), {.environment = {{"TERM", "tmux-256color"}}});
    ASSERT_TRUE(term.waitFor("Live")) << term.lastCapture();
    EXPECT_EQ(term.capture().find("Powered by Herald"), std::string::npos) << term.lastCapture();
    // #9122F7 is 93 of the 256 colours: the header bar's background.
    EXPECT_NE(term.captureWithEscapes().find("48;5;93"), std::string::npos);
  }
  {
    Terminal term(ui({"--brand", "loud"}), {.environment = {{"NO_COLOR", "1"}}});
    ASSERT_TRUE(term.waitFor("Powered by Herald")) << term.lastCapture();
    // Bold, dim and reverse only: no colour at all, not even the default pair written out.
    const auto escapes = term.captureWithEscapes();
    EXPECT_FALSE(std::regex_search(escapes, std::regex("[\\[;][34][0-7][;m]|[34]8;5;")))
        << escapes;
  }
  {
    Terminal term(uiThenReport({}, "TERM=dumb"));
    ASSERT_TRUE(term.waitFor("exit 2")) << term.lastCapture();
    EXPECT_NE(term.capture().find("TERM is dumb"), std::string::npos) << term.lastCapture();
  }
}

TEST_F(Screens, ALostConnectionIsShownAndTheInboxComesBackByItself) {
  signIn();
  Terminal term(ui());
  ASSERT_TRUE(term.waitFor("Live")) << term.lastCapture();
  ASSERT_EQ(call(sandbox_.url() + "/_sandbox/realtime/ada", "POST",
                 R"({"close": {"code": 4000, "reason": "maintenance"}})")
                .status,
            200);
  ASSERT_TRUE(term.waitFor("Connection lost, retrying in")) << term.lastCapture();
  ASSERT_TRUE(term.waitFor("Live")) << term.lastCapture();

  // While the service refuses the reload the inbox keeps trying; R tries at once.
  ASSERT_EQ(call(sandbox_.url() + "/_sandbox/trouble", "POST",
                 R"({"path": "/inbox/q", "status": 503, "always": true})")
                .status,
            200);
  term.sendKeys("R");
  ASSERT_TRUE(term.waitFor("Connection lost, retrying in")) << term.lastCapture();
  ASSERT_EQ(call(sandbox_.url() + "/_sandbox/trouble", "DELETE").status, 200);
  term.sendKeys("R");
  ASSERT_TRUE(term.waitFor("Live")) << term.lastCapture();
  addMessage("After the break");
  ASSERT_TRUE(term.waitFor("After the break")) << term.lastCapture();
}

TEST_F(Screens, AServiceOutOfReachIsSaidInFullAndTriedAgain) {
  signIn();
  ASSERT_EQ(sandbox_.stop(), 0);
  Terminal term(ui());
  ASSERT_TRUE(term.waitFor("Could not load the inbox:")) << term.lastCapture();
  EXPECT_NE(term.capture().find("Could not connect to the server"), std::string::npos)
      << term.lastCapture();
  ASSERT_TRUE(term.waitFor("Could not load the inbox, retrying in")) << term.lastCapture();
}

TEST_F(Screens, NobodySignedInIsToldTheCommandToRun) {
  Terminal term(uiThenReport());
  ASSERT_TRUE(term.waitFor("Nobody is signed in.")) << term.lastCapture();
  EXPECT_NE(term.capture().find("signin --user ID"), std::string::npos) << term.lastCapture();
  term.sendKeys("q");
  ASSERT_TRUE(term.waitFor("exit 0")) << term.lastCapture();
}

TEST_F(Screens, TheTerminalIsGivenBackOnEveryWayOutAndResizesAreDrawnAtOnce) {
  signIn();
  for (const int signal : {0, SIGTERM, SIGSEGV}) {
    Terminal term(uiThenReport());
    ASSERT_TRUE(term.waitFor("Live")) << term.lastCapture();
    if (signal == 0) {
      term.resize(100, 30);
      ASSERT_TRUE(term.waitFor([](const std::string& s) {
        // The user's name at the new right edge.
        return rows(s).size() >= 30 && rows(s)[0].size() > 90;
      })) << term.lastCapture();
      term.sendKeys("q");
    } else {
      const auto program = childOf(term.pid());
      ASSERT_GT(program, 0);
      ::kill(program, signal);
    }
    ASSERT_TRUE(term.waitFor("exit ")) << term.lastCapture();
    const auto screen = term.capture();
    EXPECT_NE(screen.find(signal == SIGSEGV ? "exit 139" : "exit 0"), std::string::npos) << screen;
    EXPECT_FALSE(term.alternateScreen()) << signal;
    EXPECT_TRUE(term.cursorVisible()) << signal;
    EXPECT_NE(screen.find(" icanon"), std::string::npos) << screen;
    EXPECT_NE(screen.find(" echo "), std::string::npos) << screen;
  }
}

}  // namespace
