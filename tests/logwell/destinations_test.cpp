#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <spawn.h>
#include <sys/resource.h>
#include <sys/stat.h>
#include <sys/wait.h>

#include <filesystem>
#include <fstream>
#include <future>
#include <map>
#include <numeric>
#include <regex>
#include <set>

#include "logwell/logwell.hpp"
#include "platform/json.hpp"
#include "platform/paths.hpp"
#include "platform/system_log.hpp"
#include "support.hpp"

extern char** environ;

namespace fs = std::filesystem;
using logwell::Level;

namespace {

struct TempDir {
  fs::path path = fs::temp_directory_path() / ("logwell-test-" + platform::newUUID());
  TempDir() { fs::create_directories(path); }
  ~TempDir() { fs::remove_all(path); }
};

std::vector<std::string> linesOf(const fs::path& file) {
  std::ifstream in(file);
  std::vector<std::string> lines;
  for (std::string line; std::getline(in, line);) lines.push_back(line);
  return lines;
}

std::set<std::string> namesIn(const fs::path& dir) {
  std::set<std::string> names;
  for (const auto& e : fs::directory_iterator(dir)) names.insert(e.path().filename().string());
  return names;
}

// A file destination writing the bare message, one per line.
struct PlainFile : logwell::FileDestination {
  explicit PlainFile(std::string url) : FileDestination(std::move(url)) { format = "$M"; }
};

void send(logwell::BaseDestination& d, std::string_view msg, Level level = Level::info) {
  d.send(level, msg, "", "/a/b.cpp", "f()", 1);
}

using Lines = std::vector<std::string>;

}  // namespace

TEST(FileDestination, RotatesBySizeKeepingTheConfiguredNumberOfFiles) {
  TempDir dir;
  PlainFile d(platform::fileURL(dir.path / "app.log"));
  d.logFileAmount = 3;
  d.logFileMaxSize = 10;
  for (auto m : {"aaaa", "bbbb", "cccc"}) send(d, m);  // exactly 10 bytes is not too large
  EXPECT_EQ(linesOf(dir.path / "app.log"), (Lines{"aaaa", "bbbb", "cccc"}));
  for (auto m : {"dddd", "eeeeeeeee", "ffff", "gggg", "hhhhhhhhh", "iiii"}) send(d, m);

  EXPECT_EQ(namesIn(dir.path), (std::set<std::string>{"app.log", "app.1.log", "app.2.log"}));
  EXPECT_EQ(linesOf(dir.path / "app.2.log"), (Lines{"dddd", "eeeeeeeee"}));
  EXPECT_EQ(linesOf(dir.path / "app.1.log"), (Lines{"ffff", "gggg", "hhhhhhhhh"}));
  EXPECT_EQ(linesOf(dir.path / "app.log"), (Lines{"iiii"}));
}

TEST(FileDestination, ANameWithoutExtensionAndTheOneByteOverTheLimit) {
  TempDir dir;
  PlainFile d(platform::fileURL(dir.path / "app"));
  d.logFileAmount = 2;
  d.logFileMaxSize = 10;
  send(d, "123456789");
  send(d, "a");  // the file held exactly 10 bytes
  EXPECT_EQ(namesIn(dir.path), std::set<std::string>{"app"});
  d.logFileMaxSize = 11;  // the file now holds 12
  send(d, "b");
  EXPECT_EQ(namesIn(dir.path), (std::set<std::string>{"app", "app.1."}));
  EXPECT_EQ(linesOf(dir.path / "app.1."), (Lines{"123456789", "a"}));
  EXPECT_EQ(linesOf(dir.path / "app"), Lines{"b"});
}

TEST(FileDestination, DefaultAmountNeverRotatesAndNewFilesArePrivate) {
  TempDir dir;
  const auto path = dir.path / "nested" / "deeper" / "app.log";
  PlainFile d(path.string());
  d.logFileMaxSize = 1;
  for (auto m : {"one", "two", "three"}) send(d, m);
  EXPECT_EQ(linesOf(path), (Lines{"one", "two", "three"}));
  EXPECT_EQ(namesIn(path.parent_path()).size(), 1u);
  struct stat info {};
  ASSERT_EQ(::stat(path.c_str(), &info), 0);
  EXPECT_EQ(info.st_mode & 0777, 0600u);

  EXPECT_TRUE(d.deleteLogFile());
  EXPECT_FALSE(fs::exists(path));
  EXPECT_TRUE(d.deleteLogFile());  // nothing to delete
}

TEST(FileDestination, DefaultsToTheCachesDirectoryAndReportsFailedWrites) {
  TempDir dir;
  const char* old = std::getenv("XDG_CACHE_HOME");
  const std::string saved = old ? old : "";
  ::setenv("XDG_CACHE_HOME", dir.path.c_str(), 1);
  logwell::FileDestination cached;
  old ? ::setenv("XDG_CACHE_HOME", saved.c_str(), 1) : ::unsetenv("XDG_CACHE_HOME");
  EXPECT_EQ(cached.logFileURL, platform::fileURL(dir.path / "logwell.log"));

  const std::string url = platform::fileURL(dir.path);  // a directory cannot be appended to
  PlainFile broken(url);
  logwell_test::CaptureStream out(stdout);
  EXPECT_EQ(broken.send(Level::info, "lost", "", "", "", 1), "lost");
  EXPECT_EQ(out.text(), "Logwell File Destination could not write to file " + url + ".\n");
}

TEST(FileDestination, ColouredFilesLeaveCriticalAndFaultUncoloured) {
  TempDir dir;
  logwell::FileDestination d(platform::fileURL(dir.path / "c.log"));
  d.format = "$C$L$c";
  d.setColored(true);
  for (auto level : {Level::error, Level::critical, Level::fault}) send(d, "", level);
  d.setColored(false);
  send(d, "", Level::error);
  EXPECT_EQ(linesOf(dir.path / "c.log"),
            (Lines{"\x1b[38;5;197mERROR\x1b[0m", "\x1b[38;5;CRITICAL\x1b[0m",
                   "\x1b[38;5;FAULT\x1b[0m", "ERROR"}));
}

// The child side of the tests below: when the test binary is started with
// LOGWELL_CHILD_FILE set, it appends numbered lines to that file (rotating it when
// LOGWELL_CHILD_AMOUNT and LOGWELL_CHILD_MAX_SIZE say so) and exits before any test runs, so
// the child is not a test of its own.
[[maybe_unused]] const bool childWriter = [] {
  const char* file = std::getenv("LOGWELL_CHILD_FILE");
  if (!file) return false;
  {
    PlainFile d(std::string{file});
    if (const char* amount = std::getenv("LOGWELL_CHILD_AMOUNT"))
      d.logFileAmount = std::stoi(amount);
    if (const char* max = std::getenv("LOGWELL_CHILD_MAX_SIZE")) d.logFileMaxSize = std::stoi(max);
    const int lines = std::stoi(std::getenv("LOGWELL_CHILD_LINES"));
    const std::string tag = std::getenv("LOGWELL_CHILD_TAG");
    const std::string padding(200, tag[0]);
    for (int i = 0; i < lines; ++i) send(d, tag + " " + std::to_string(i) + " " + padding);
  }
  std::exit(0);
}();

// Waits a bounded time for a child, killing it if it hangs, and expects it to have exited 0.
void expectCleanExit(pid_t pid) {
  int status = 0;
  const bool ended =
      logwell_test::eventually([&] { return ::waitpid(pid, &status, WNOHANG) == pid; });
  if (!ended) ::kill(pid, SIGKILL), ::waitpid(pid, &status, 0);
  EXPECT_TRUE(ended && WIFEXITED(status) && WEXITSTATUS(status) == 0);
}

// Runs two child writers, tagged A and B, at the same time and waits for both.
void runTwoWriters(const std::string& file, int lines, std::vector<std::string> extraEnv = {}) {
  std::vector<pid_t> children;
  for (std::string tag : {"A", "B"}) {
    std::vector<std::string> env(extraEnv);
    for (char** e = environ; *e; ++e) env.emplace_back(*e);
    for (auto v : {"FILE=" + file, "TAG=" + tag, "LINES=" + std::to_string(lines)})
      env.push_back("LOGWELL_CHILD_" + v);
    std::vector<char*> envp;
    for (auto& e : env) envp.push_back(e.data());
    envp.push_back(nullptr);
    std::string self = "/proc/self/exe";
    std::vector<char*> argv{self.data(), nullptr};
    pid_t pid = 0;
    ASSERT_EQ(::posix_spawn(&pid, self.c_str(), nullptr, nullptr, argv.data(), envp.data()), 0);
    children.push_back(pid);
  }
  for (pid_t pid : children) expectCleanExit(pid);
}

// Checks that the lines of both writers are whole and that each writer's numbers run from 0
// to `lines` - 1 in order.
void expectEveryLineOnceInOrder(const std::vector<std::string>& all, int lines) {
  const std::regex shape(R"(([AB]) (\d+) (A{200}|B{200}))");
  std::map<std::string, std::vector<int>> seen;
  for (const auto& line : all) {
    std::smatch m;
    ASSERT_TRUE(std::regex_match(line, m, shape)) << line.substr(0, 40);
    ASSERT_EQ(m[3].str()[0], m[1].str()[0]);
    seen[m[1]].push_back(std::stoi(m[2]));
  }
  std::vector<int> expected(lines);
  std::iota(expected.begin(), expected.end(), 0);
  EXPECT_EQ(seen["A"], expected);
  EXPECT_EQ(seen["B"], expected);
}

TEST(FileDestination, AppendsFromTwoProcessesWithoutLosingOrMixingLines) {
  TempDir dir;
  const auto file = (dir.path / "shared.log").string();
  runTwoWriters(file, 1000);
  expectEveryLineOnceInOrder(linesOf(file), 1000);
}

TEST(FileDestination, TwoProcessesRotatingOneFileKeepEveryLine) {
  TempDir dir;
  const auto file = dir.path / "shared.log";
  // About 100 rotations, each one racing the other process; enough files to keep them all.
  const int amount = 160;
  runTwoWriters(file.string(), 2000,
                {"LOGWELL_CHILD_AMOUNT=" + std::to_string(amount), "LOGWELL_CHILD_MAX_SIZE=8192"});
  std::vector<std::string> all;
  for (int k = amount - 1; k >= 0; --k) {
    const auto rotated = k == 0 ? file : dir.path / ("shared." + std::to_string(k) + ".log");
    for (auto& line : linesOf(rotated)) all.push_back(std::move(line));
  }
  EXPECT_LE(namesIn(dir.path).size(), static_cast<std::size_t>(amount));
  expectEveryLineOnceInOrder(all, 2000);
}

TEST(FileDestination, AFullDiskLosesWholeEntriesAndTheFileStaysLineAligned) {
  TempDir dir;
  const auto path = dir.path / "full.log";
  PlainFile d(path.string());
  int printed[2];
  ASSERT_EQ(::pipe(printed), 0);
  std::fflush(stdout);
  const pid_t pid = ::fork();
  if (pid == 0) {
    // The limit on file size makes a write short, then fail with EFBIG, as a full disk does.
    ::dup2(printed[1], STDOUT_FILENO);
    ::signal(SIGXFSZ, SIG_IGN);
    rlimit saved{};
    ::getrlimit(RLIMIT_FSIZE, &saved);
    rlimit small = saved;
    small.rlim_cur = 100;
    ::setrlimit(RLIMIT_FSIZE, &small);
    for (char c : {'a', 'b', 'c', 'd', 'e'}) send(d, std::string(29, c));  // 30 bytes each
    ::setrlimit(RLIMIT_FSIZE, &saved);
    send(d, "room again");
    ::_exit(0);
  }
  ::close(printed[1]);
  ASSERT_GT(pid, 0);
  expectCleanExit(pid);

  EXPECT_EQ(linesOf(path), (Lines{std::string(29, 'a'), std::string(29, 'b'), std::string(29, 'c'),
                                  "room again"}));
  const std::string failed =
      "Logwell File Destination could not write to file " + path.string() + ".\n";
  std::string said(4096, '\0');
  const ssize_t n = ::read(printed[0], said.data(), said.size());  // the child has ended
  ::close(printed[0]);
  said.resize(n > 0 ? static_cast<std::size_t>(n) : 0);
  EXPECT_EQ(said, failed + failed);
}

TEST(FileDestination, ADirectoryOrAReaderlessFifoIsNeverRotatedAndFailsAsAWrite) {
  TempDir dir;
  const auto folder = dir.path / "folder";
  fs::create_directories(folder / "inside");
  const auto fifo = dir.path / "fifo";
  ASSERT_EQ(::mkfifo(fifo.c_str(), 0600), 0);
  for (const auto& path : {folder, fifo}) {
    PlainFile d(path.string());
    d.logFileAmount = 3;
    d.logFileMaxSize = -1;  // always too large
    logwell_test::CaptureStream out(stdout);
    // A FIFO without a reader must not hold the destination's queue.
    auto sent =
        std::async(std::launch::async, [&] { return d.send(Level::info, "x", "", "", "", 1); });
    const bool done = sent.wait_for(std::chrono::seconds(10)) == std::future_status::ready;
    if (!done) {  // let it go
      const int reader = ::open(fifo.c_str(), O_RDONLY | O_NONBLOCK);
      sent.wait();
      ::close(reader);
    }
    EXPECT_TRUE(done) << path;
    EXPECT_EQ(sent.get(), "x");
    EXPECT_EQ(out.text(),
              "Logwell File Destination could not write to file " + path.string() + ".\n");
  }
  EXPECT_EQ(namesIn(dir.path), (std::set<std::string>{"folder", "fifo"}));
  EXPECT_TRUE(fs::is_directory(folder / "inside"));
}

TEST(ConsoleDestination, ColourSchemesAndPrintWays) {
  logwell::ConsoleDestination d;
  d.format = "$C$L$c $M";
  EXPECT_EQ(*d.send(Level::debug, "x", "", "", "", 1), "\xF0\x9F\x92\x9A DEBUG x");
  EXPECT_EQ(*d.send(Level::fault, "x", "", "", "", 1), "\xE2\x9D\xA4\xEF\xB8\x8F FAULT x");
  d.setUseTerminalColors(true);
  EXPECT_EQ(*d.send(Level::warning, "x", "", "", "", 1), "\x1b[38;5;178mWARNING\x1b[0m x");
  d.setUseTerminalColors(false);  // back to emoji, escape and reset stay
  EXPECT_EQ(*d.send(Level::info, "x", "", "", "", 1), "\x1b[38;5;\xF0\x9F\x92\x99 INFO\x1b[0m x");

  logwell::ConsoleDestination plain;
  plain.format = "$M";
  logwell_test::CaptureStream out(stdout);
  logwell_test::CaptureStream err(stderr);
  send(plain, "to stdout");
  plain.setUseNSLog(true);
  plain.setUseNSLog(false);  // stays on nslog
  send(plain, "to nslog");
  plain.logPrintWay = logwell::ConsoleDestination::LogPrintWay::print();
  plain.output = stderr;
  send(plain, "to stderr");
  EXPECT_EQ(out.text(), "to stdout\n");
  EXPECT_TRUE(
      std::regex_match(err.text(), std::regex(R"(\S+ \S+ \S+\[\d+\] to nslog\nto stderr\n)")));
}

TEST(ConsoleDestination, LoggerWayMapsLevelsToSystemLogTypes) {
  platform::CapturedLog captured;
  logwell::ConsoleDestination d;
  d.format = "$M";
  d.logPrintWay = logwell::ConsoleDestination::LogPrintWay::logger("com.app", "push");
  for (int i = 0; i <= 6; ++i) d.send(static_cast<Level>(i), std::to_string(i), "", "", "", 1);
  std::string types;
  for (const auto& r : captured.records()) {
    EXPECT_EQ(r.subsystem + "/" + r.category, "com.app/push");
    types += std::string(platform::toString(r.type)) + " ";
  }
  EXPECT_EQ(types, "debug debug info error error fault fault ");
}

TEST(CloudLogDestination, WritesTheStructuredShapeOrTheFallback) {
  logwell::CloudLogDestination d("svc");
  d.setAsynchronously(true);
  EXPECT_FALSE(d.asynchronously());
  logwell_test::CaptureStream out(stdout);
  const logwell::Context context{{"user", "ada"}, {"httpRequest", {{"status", 500}}}, {"other", 1}};
  auto line = d.send(Level::error, "upload failed", "t", "/src/a.cpp", "run()", 12, context);
  EXPECT_EQ(
      *line,
      R"j({"context":{"reportLocation":{"filePath":"/src/a.cpp","lineNumber":12,)j"
      R"j("functionName":"run()"},"httpRequest":{"status":500},"user":"ada"},)j"
      R"j("serviceContext":{"service":"svc"},"message":"upload failed","severity":"ERROR"})j");
  auto plain = d.send(Level::verbose, "m", "", "f", "g", 1, std::string("just text"));
  EXPECT_EQ(*plain,
            R"j({"context":{"reportLocation":{"filePath":"f","lineNumber":1,"functionName":"g"}},)j"
            R"j("serviceContext":{"service":"svc"},"message":"m","severity":"DEBUG"})j");
  auto fallback = d.send(Level::info, "bad \xFF", "", "/a.cpp", "f()", 3);
  EXPECT_EQ(*fallback,
            R"j({"context":{"reportLocation":{"filePath": "/a.cpp","functionName":"f()",)j"
            R"j("lineNumber":3},"severity":"CRITICAL","message":"Error encoding JSON log entry. )j"
            R"j(You may be losing log messages!"})j");
  EXPECT_EQ(out.text(), *line + "\n" + *plain + "\n" + *fallback + "\n");

  std::string severities;
  for (auto level : {Level::info, Level::warning, Level::critical, Level::fault}) {
    logwell_test::CaptureStream quiet(stdout);
    severities +=
        platform::parseJSON(*d.send(level, "m", "", "", "", 1)).at("severity").as_string().c_str() +
        std::string(" ");
  }
  EXPECT_EQ(severities, "INFO WARNING CRITICAL FAULT ");
}
