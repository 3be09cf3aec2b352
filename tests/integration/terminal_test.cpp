// The terminal harness itself, with plain shell programs: what the tests of the terminal
// interface count on (keys arrive, the screen is read, the size and the environment are the
// test's, the program's end is seen, nothing is left running).

#include "integration/terminal.hpp"

#include <gtest/gtest.h>

#include <cstdlib>
#include <stdexcept>

namespace {

using namespace integration;

std::vector<std::string> shell(const std::string& script) {
  return {"sh", "-c", script};
}

TEST(Terminal, KeysAndTextReachTheProgramAndItsEndIsRead) {
  Terminal term(shell("echo ready; read line; printf 'got [%s]\\n' \"$line\"; exit 7"));
  ASSERT_TRUE(term.waitFor("ready")) << term.lastCapture();
  EXPECT_FALSE(term.exited());
  EXPECT_EQ(term.exitStatus(), std::nullopt);

  // A trailing ';' ends a tmux command unless escaped; "Enter" typed as text stays text.
  term.typeText("-a;b Enter ;");
  term.sendKeys("Enter");
  ASSERT_TRUE(term.waitFor("got [-a;b Enter ;]")) << term.lastCapture();
  ASSERT_TRUE(term.waitForExit()) << term.lastCapture();
  EXPECT_EQ(term.exitStatus(), 7);
  // The last screen stays readable after the end.
  EXPECT_NE(term.capture().find("got [-a;b Enter ;]"), std::string::npos) << term.lastCapture();

  // A signal's end has no exit status; a program that cannot start ends with 127.
  Terminal interrupted(shell("echo ready; sleep 30"));
  ASSERT_TRUE(interrupted.waitFor("ready")) << interrupted.lastCapture();
  interrupted.sendKeys("C-c");
  ASSERT_TRUE(interrupted.waitForExit());
  EXPECT_EQ(interrupted.exitStatus(), std::nullopt);

  Terminal missing({"/nonexistent/herald-program"});
  ASSERT_TRUE(missing.waitForExit());
  EXPECT_EQ(missing.exitStatus(), 127);

  EXPECT_THROW(Terminal({}), std::invalid_argument);
  EXPECT_THROW(Terminal(shell("true"), {.cols = 0}), std::invalid_argument);
}

TEST(Terminal, SizeIsTheTestsAndFollowsResize) {
  // COLUMNS and LINES of the test's own environment would win over the pane's size.
  ::setenv("COLUMNS", "5", 1);
  ::setenv("LINES", "5", 1);
  Terminal term(shell("tput cols; tput lines; read x; echo \"now $(tput cols)x$(tput lines)\"; "
                      "sleep 30"),
                {.cols = 60, .rows = 20});
  ::unsetenv("COLUMNS");
  ::unsetenv("LINES");
  ASSERT_TRUE(term.waitFor("60\n20\n")) << term.lastCapture();
  EXPECT_EQ(term.size(), std::make_pair(60, 20));

  term.resize(100, 30);
  EXPECT_EQ(term.size(), std::make_pair(100, 30));
  term.sendKeys("Enter");
  ASSERT_TRUE(term.waitFor("now 100x30")) << term.lastCapture();
  // The capture is as wide and as tall as the pane.
  int rows = 0;
  for (char c : term.capture()) rows += c == '\n';
  EXPECT_EQ(rows, 30);
}

TEST(Terminal, EnvironmentHasDefaultsTheTestOverrides) {
  ::setenv("NO_COLOR", "1", 1);
  Terminal plain(shell("echo \"[$TERM|$LANG|$LC_ALL|${NO_COLOR-unset}]\"; sleep 30"));
  ::unsetenv("NO_COLOR");
  ASSERT_TRUE(plain.waitFor("]")) << plain.lastCapture();
  const auto screen = plain.capture();
  EXPECT_NE(screen.find("256color|C.UTF-8|C.UTF-8|unset]"), std::string::npos) << screen;

  Terminal chosen(shell("echo \"[$TERM|$LANG|$NO_COLOR|$EXTRA]\"; sleep 30"),
                  {.environment = {{"TERM", "dumb"}, {"NO_COLOR", "1"}, {"EXTRA", "a b;"}}});
  ASSERT_TRUE(chosen.waitFor("[dumb|C.UTF-8|1|a b;]")) << chosen.lastCapture();
}

TEST(Terminal, ScreenStateColoursAndWideCharacters) {
  Terminal term(
      shell("printf '\\033[?1049h\\033[?25l\\033[31mred\\033[0m 漢字 end\\n'; read x; "
            "printf '\\033[?25h\\033[?1049lback\\n'; sleep 30"));
  ASSERT_TRUE(term.waitFor("red 漢字 end")) << term.lastCapture();
  EXPECT_TRUE(term.alternateScreen());
  EXPECT_FALSE(term.cursorVisible());
  EXPECT_EQ(term.capture().find("\033["), std::string::npos);
  EXPECT_NE(term.captureWithEscapes().find("\033[31mred"), std::string::npos) << term.lastCapture();

  term.sendKeys("Enter");
  ASSERT_TRUE(term.waitFor("back")) << term.lastCapture();
  EXPECT_FALSE(term.alternateScreen());
  EXPECT_TRUE(term.cursorVisible());
  EXPECT_EQ(term.capture().find("漢字"), std::string::npos) << term.lastCapture();
}

TEST(Terminal, NothingIsLeftRunning) {
  // A program that ignores the hangup of the server's end.
  pid_t pid = -1;
  {
    Terminal term(shell("trap '' HUP; echo ready; while :; do sleep 1; done"));
    ASSERT_TRUE(term.waitFor("ready")) << term.lastCapture();
    pid = term.pid();
    EXPECT_TRUE(processRunning(pid));
  }
  EXPECT_FALSE(processRunning(pid));
}

}  // namespace
