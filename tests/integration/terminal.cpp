#include "integration/terminal.hpp"

#include <signal.h>
#include <unistd.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <sstream>
#include <stdexcept>
#include <thread>

#include "integration/processes.hpp"

namespace integration {
namespace {

using Clock = std::chrono::steady_clock;

// tmux reads an argument that ends in ';' as the end of a command (and drops the ';'), and
// one that ends in "\;" as ending in ';'. Anything of the test's own (the program's
// arguments, its environment, keys, text) goes through this so that it arrives as written.
std::string escapeArgument(std::string argument) {
  if (!argument.empty() && argument.back() == ';') argument.insert(argument.size() - 1, "\\");
  return argument;
}

std::string temporaryBase() {
  // A unix socket's path holds at most 107 bytes: a long TMPDIR is not worth failing over.
  const char* dir = std::getenv("TMPDIR");
  if (dir && *dir && std::string(dir).size() < 64) return dir;
  return "/tmp";
}

int toInt(const std::string& text, const std::string& what) {
  try {
    return std::stoi(text);
  } catch (const std::exception&) {
    throw std::runtime_error("tmux gave no number for " + what + ": \"" + text + "\"");
  }
}

}  // namespace

bool processRunning(pid_t pid) {
  std::ifstream stat("/proc/" + std::to_string(pid) + "/stat");
  std::string line;
  if (!std::getline(stat, line)) return false;
  const auto close = line.rfind(')');
  return close != std::string::npos && close + 2 < line.size() && line[close + 2] != 'Z' &&
         line[close + 2] != 'X';
}

Terminal::Terminal(const std::vector<std::string>& argv, const TerminalOptions& options) {
  if (argv.empty()) throw std::invalid_argument("Terminal: no program to run");
  if (argv.front().find('=') != std::string::npos)
    throw std::invalid_argument("Terminal: a program name with '=' would be read as a variable: " +
                                argv.front());
  if (options.cols <= 0 || options.rows <= 0)
    throw std::invalid_argument("Terminal: the size must be positive");
  for (const auto& [name, value] : options.environment)
    if (name.empty() || name.find('=') != std::string::npos)
      throw std::invalid_argument("Terminal: bad environment variable name \"" + name + "\"");

  std::string pattern = temporaryBase() + "/herald-terminal-XXXXXX";
  if (!::mkdtemp(pattern.data())) throw std::runtime_error("Terminal: cannot create " + pattern);
  dir_ = pattern;
  socket_ = dir_ + "/socket";

  // The program runs through env: the pane gets the environment of the test, which must not
  // decide the outcome (COLUMNS and LINES would override the pane's size, NO_COLOR a test's
  // colours), then the defaults, then the test's own variables, which win over both.
  //
  // A shell around it writes the exit status to a file: tmux may never learn the status of a
  // pane whose terminal closed before it reaped the program.
  std::vector<std::string> command{"sh",           "-c",   "\"$@\"; echo $? >\"$0\"",
                                   dir_ + "/status", "env",  "-u",
                                   "COLUMNS",      "-u",   "LINES",
                                   "-u",           "NO_COLOR", "--",
                                   "LANG=C.UTF-8", "LC_ALL=C.UTF-8"};
  for (const auto& [name, value] : options.environment) command.push_back(name + "=" + value);
  command.insert(command.end(), argv.begin(), argv.end());

  // Options are set before the session exists: a program that ends at once must still leave
  // its pane. No status line, so that the pane is the whole window.
  std::vector<std::string> args{"start-server",
                                ";",
                                "set-option",
                                "-g",
                                "remain-on-exit",
                                "on",
                                ";",
                                "set-option",
                                "-g",
                                "status",
                                "off",
                                ";",
                                "new-session",
                                "-d",
                                "-x",
                                std::to_string(options.cols),
                                "-y",
                                std::to_string(options.rows),
                                "-P",
                                "-F",
                                "#{pane_id}",
                                "--"};
  for (const auto& word : command) args.push_back(escapeArgument(word));
  try {
    pane_ = tmux(args);
    while (!pane_.empty() && (pane_.back() == '\n' || pane_.back() == '\r')) pane_.pop_back();
    if (pane_.empty()) throw std::runtime_error("tmux new-session named no pane");
  } catch (...) {
    // The server may be up without a session: it ends by itself, but not its directory.
    try {
      tmux({"kill-server"});
    } catch (const std::exception&) {
    }
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
    throw;
  }
}

Terminal::~Terminal() {
  pid_t program = -1, group = -1;
  try {
    if (!exited()) {
      group = panePid();
      program = pid();
    }
  } catch (const std::exception&) {
  }
  try {
    tmux({"kill-server"});
  } catch (const std::exception&) {
  }
  // The server hangs up on the program; one that ignores that is killed with its process
  // group (the pane made its shell a group leader), so that no test leaves a process behind.
  if (program > 0 && group > 0) {
    auto deadline = Clock::now() + 1s;
    while (processRunning(program) && Clock::now() < deadline) std::this_thread::sleep_for(10ms);
    if (processRunning(program)) {
      ::kill(-group, SIGKILL);
      deadline = Clock::now() + 5s;
      while (processRunning(program) && Clock::now() < deadline) std::this_thread::sleep_for(10ms);
    }
  }
  std::error_code ignored;
  std::filesystem::remove_all(dir_, ignored);
}

std::string Terminal::tmux(const std::vector<std::string>& args) {
  // TMUX unset: the server copies the environment of the client that starts it, and a test
  // run from inside tmux must not hand the program the outer server's.
  std::vector<std::string> argv{"/usr/bin/env", "-u",    "TMUX", "tmux",
                                "-S",           socket_, "-f",   "/dev/null"};
  argv.insert(argv.end(), args.begin(), args.end());
  const auto finished = run(argv, {}, 10s);
  if (finished.exitCode != 0) {
    std::string what = "tmux";
    for (const auto& arg : args) what += " " + arg;
    throw std::runtime_error(what + " failed (" + std::to_string(finished.exitCode) +
                             "): " + finished.err);
  }
  return finished.out;
}

std::string Terminal::format(const std::string& spec) {
  auto text = tmux({"display-message", "-p", "-t", pane_, spec});
  while (!text.empty() && (text.back() == '\n' || text.back() == '\r')) text.pop_back();
  return text;
}

void Terminal::sendKeyList(const std::vector<std::string>& keys) {
  if (keys.empty()) return;
  std::vector<std::string> args{"send-keys", "-t", pane_, "--"};
  for (const auto& key : keys) {
    if (key.empty()) throw std::invalid_argument("Terminal::sendKeys: an empty key name");
    args.push_back(escapeArgument(key));
  }
  tmux(args);
}

void Terminal::typeText(const std::string& text) {
  if (text.empty()) return;
  tmux({"send-keys", "-t", pane_, "-l", "--", escapeArgument(text)});
}

std::string Terminal::capture() {
  lastCapture_ = tmux({"capture-pane", "-p", "-t", pane_});
  return lastCapture_;
}

std::string Terminal::captureWithEscapes() {
  lastCapture_ = tmux({"capture-pane", "-p", "-e", "-t", pane_});
  return lastCapture_;
}

bool Terminal::waitFor(const std::string& text, std::chrono::milliseconds limit) {
  return waitFor([&](const std::string& screen) { return screen.find(text) != std::string::npos; },
                 limit);
}

bool Terminal::waitFor(const std::function<bool(const std::string&)>& holds,
                       std::chrono::milliseconds limit) {
  const auto deadline = Clock::now() + limit;
  while (true) {
    if (holds(capture())) return true;
    if (Clock::now() >= deadline) return false;
    std::this_thread::sleep_for(50ms);
  }
}

bool Terminal::waitForExit(std::chrono::milliseconds limit) {
  const auto deadline = Clock::now() + limit;
  while (true) {
    if (exited()) return true;
    if (Clock::now() >= deadline) return false;
    std::this_thread::sleep_for(50ms);
  }
}

void Terminal::resize(int cols, int rows) {
  if (cols <= 0 || rows <= 0)
    throw std::invalid_argument("Terminal::resize: the size must be positive");
  // On a window with no client, resize-window also makes its size manual, so it stays.
  tmux({"resize-window", "-t", pane_, "-x", std::to_string(cols), "-y", std::to_string(rows)});
}

std::pair<int, int> Terminal::size() {
  const auto text = format("#{pane_width} #{pane_height}");
  const auto space = text.find(' ');
  if (space == std::string::npos) throw std::runtime_error("tmux gave no pane size: " + text);
  return {toInt(text.substr(0, space), "pane_width"), toInt(text.substr(space + 1), "pane_height")};
}

pid_t Terminal::panePid() {
  return toInt(format("#{pane_pid}"), "pane_pid");
}

pid_t childOf(pid_t parent) {
  for (const auto& entry : std::filesystem::directory_iterator("/proc")) {
    std::ifstream stat(entry.path() / "stat");
    std::string line;
    if (!std::getline(stat, line)) continue;
    // "pid (name) state ppid ...": the name may hold spaces, so read after its bracket.
    std::istringstream rest(line.substr(line.rfind(')') + 1));
    std::string state;
    pid_t ppid = -1;
    rest >> state >> ppid;
    if (ppid == parent) return toInt(entry.path().filename().string(), "pid");
  }
  return -1;
}

pid_t Terminal::pid() {
  // The program is the one child of the pane's shell; it may take a moment to be started.
  const pid_t shell = panePid();
  const auto deadline = Clock::now() + 2s;
  while (true) {
    if (const pid_t program = childOf(shell); program > 0) return program;
    if (Clock::now() >= deadline) return shell;
    std::this_thread::sleep_for(10ms);
  }
}

bool Terminal::exited() {
  return format("#{pane_dead}") == "1";
}

std::optional<int> Terminal::exitStatus() {
  // The shell writes the file before it ends, so a dead pane without one ended otherwise.
  if (!exited()) return std::nullopt;
  std::ifstream file(dir_ + "/status");
  std::string text;
  if (!std::getline(file, text) || text.empty()) return std::nullopt;
  return toInt(text, "exit status");
}

bool Terminal::alternateScreen() {
  return format("#{alternate_on}") == "1";
}

bool Terminal::cursorVisible() {
  return format("#{cursor_flag}") == "1";
}

}  // namespace integration
