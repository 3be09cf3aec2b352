// herald ui beside herald inbox watch, end to end against the local service, one program at a
// time in the same run. herald ui runs on a real pseudo-terminal (80x24, xterm-256color,
// C.UTF-8), so it believes a person is looking; the watch runs on pipes.
//
// (a) Socket to screen: a message put into ada's inbox through the service
//     (POST /_sandbox/users/ada/messages) until its title's bytes are in what herald ui writes
//     to the terminal; the peer is the same message until its line is on the watch's standard
//     output ("socket to screen").
// (b) Key to service: `r` pressed in herald ui (the top message toggles read and unread) until
//     the service's journal holds the answered mutation, polled; the peer is `read ID` /
//     `unread ID` on the watch's standard input until its answer line, which follows the
//     mutation's answer ("key to service"). The watch is also measured as herald ui is (its
//     journal polled), which leaves out what the polling costs; and the key until herald ui's
//     first redraw, which does not wait for the service.
// (c) What the terminal costs: one redraw's bytes through a pseudo-terminal beside a pipe.
//
// Each benchmark's counters hold the median and 90th percentile of its iterations, the bytes
// herald ui writes for a new message, and the service's own time for a mutation (from its
// journal); the last lines compare the medians. Every wait is bounded: a program that does not
// show what it should ends its benchmark with an error, never a hang.
//
//   build/bin/screens_bench --benchmark_repetitions=3 --benchmark_report_aggregates_only=true
//   build/bin/screens_bench --benchmark_filter=Key       (finds herald and herald-sandbox
//                                                          beside itself)

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <poll.h>
#include <pty.h>
#include <signal.h>
#include <stdlib.h>
#include <sys/ioctl.h>
#include <sys/wait.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <boost/json.hpp>
#include <cerrno>
#include <chrono>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <functional>
#include <map>
#include <optional>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/json.hpp"
#include "platform/paths.hpp"
#include "support/local_service.hpp"
#include "support/ratio_reporter.hpp"

namespace {

using Clock = std::chrono::steady_clock;
using namespace std::chrono_literals;
namespace json = boost::json;

constexpr auto kWait = 10s;  // the longest any one thing may take
// No output for this long: the program has done what the last step asked of it. Waited for
// between iterations, outside the time measured, so that one iteration's redraws do not run
// into the next one's.
constexpr auto kQuiet = 50ms;
constexpr auto kJournalPoll = 200us;
constexpr int kIterations = 60;
constexpr const char* kUser = "ada";
// The Home key as xterm sends it in the keypad mode ncurses turns on.
constexpr const char* kHome = "\x1bOH";

bench_support::Sandbox* sandbox = nullptr;
std::filesystem::path configDir;

std::filesystem::path besideThisProgram(const std::string& name) {
  return std::filesystem::read_symlink("/proc/self/exe").parent_path() / name;
}

double milliseconds(Clock::duration elapsed) {
  return std::chrono::duration<double, std::milli>(elapsed).count();
}

// The latencies of each benchmark over all its repetitions, for medians over iterations
// (Google Benchmark's own statistics are over repetitions); `thisRun` holds one repetition's.
std::map<std::string, std::vector<double>> samples;
std::vector<double> thisRun;

double percentile(std::vector<double> values, double p) {
  if (values.empty()) return 0;
  std::sort(values.begin(), values.end());
  const auto at = static_cast<std::size_t>(p * static_cast<double>(values.size() - 1) + 0.5);
  return values[std::min(at, values.size() - 1)];
}

void record(benchmark::State& state, Clock::duration elapsed) {
  state.SetIterationTime(std::chrono::duration<double>(elapsed).count());
  thisRun.push_back(milliseconds(elapsed));
}

void summarise(benchmark::State& state, const std::string& name) {
  state.counters["median_ms"] = percentile(thisRun, 0.5);
  state.counters["p90_ms"] = percentile(thisRun, 0.9);
  auto& all = samples[name];
  all.insert(all.end(), thisRun.begin(), thisRun.end());
  thisRun.clear();
}

// The environment of the programs: this one, with the terminal described as the benchmark
// sets it up whatever the shell that started the benchmark has.
std::vector<std::string> environment() {
  std::vector<std::string> result;
  for (char** entry = environ; *entry; ++entry) {
    const std::string_view text(*entry);
    const auto name = text.substr(0, text.find('='));
    if (name == "TERM" || name == "LANG" || name.starts_with("LC_") || name == "NO_COLOR" ||
        name == "COLUMNS" || name == "LINES")
      continue;
    result.emplace_back(text);
  }
  result.emplace_back("TERM=xterm-256color");
  result.emplace_back("LANG=C.UTF-8");
  return result;
}

std::vector<char*> pointers(std::vector<std::string>& words) {
  std::vector<char*> result;
  for (auto& word : words) result.push_back(word.data());
  result.push_back(nullptr);
  return result;
}

// herald with this benchmark's service and configuration, then `args`.
std::vector<std::string> herald(std::vector<std::string> args) {
  std::vector<std::string> argv{besideThisProgram("herald").string(), "--config-dir",
                                configDir.string(), "--endpoint", sandbox->url};
  argv.insert(argv.end(), args.begin(), args.end());
  return argv;
}

// A program started for one benchmark: on a pseudo-terminal (its standard input, output and
// error) or on pipes (standard input and output; its standard error is dropped). Everything
// it writes is read as it comes, so that it never blocks on a full terminal or pipe.
class Program {
 public:
  enum class On { terminal, pipes };

  Program(std::vector<std::string> argv, On on) {
    auto env = environment();
    const auto argvPointers = pointers(argv);
    const auto envPointers = pointers(env);
    if (on == On::terminal) {
      winsize size{};
      size.ws_row = 24;
      size.ws_col = 80;
      // forkpty sets the size on the terminal (TIOCSWINSZ) before the program starts.
      pid_ = ::forkpty(&output_, nullptr, nullptr, &size);
      if (pid_ == 0) {
        ::execve(argvPointers[0], argvPointers.data(), envPointers.data());
        ::_exit(127);
      }
      if (pid_ < 0) throw std::runtime_error(std::string("forkpty: ") + std::strerror(errno));
      input_ = output_;
    } else {
      int in[2], out[2];
      if (::pipe2(in, O_CLOEXEC) != 0 || ::pipe2(out, O_CLOEXEC) != 0)
        throw std::runtime_error("pipe failed");
      pid_ = ::fork();
      if (pid_ == 0) {
        // Only async-signal-safe calls between fork and exec: the benchmark has threads.
        ::dup2(in[0], STDIN_FILENO);
        ::dup2(out[1], STDOUT_FILENO);
        const int null = ::open("/dev/null", O_WRONLY);
        ::dup2(null, STDERR_FILENO);
        ::execve(argvPointers[0], argvPointers.data(), envPointers.data());
        ::_exit(127);
      }
      ::close(in[0]);
      ::close(out[1]);
      if (pid_ < 0) {
        ::close(in[1]);
        ::close(out[0]);
        throw std::runtime_error(std::string("fork: ") + std::strerror(errno));
      }
      input_ = in[1];
      output_ = out[0];
    }
    ::fcntl(output_, F_SETFL, ::fcntl(output_, F_GETFL) | O_NONBLOCK);
  }

  Program(const Program&) = delete;
  Program& operator=(const Program&) = delete;

  ~Program() {
    if (!exited_) {
      ::kill(pid_, SIGTERM);
      if (!wait(5s)) {
        ::kill(pid_, SIGKILL);
        ::waitpid(pid_, nullptr, 0);
      }
    }
    if (input_ != output_) ::close(input_);
    ::close(output_);
  }

  // Until the program has ended (at most `limit`), reading what it writes meanwhile: herald
  // ui gives the terminal back on its way out, and would block on a full one. Its exit
  // status, or none when it is still running.
  std::optional<int> wait(Clock::duration limit) {
    const auto deadline = Clock::now() + limit;
    int status = 0;
    while (!exited_) {
      const auto ended = ::waitpid(pid_, &status, WNOHANG);
      if (ended == pid_) {
        exited_ = true;
        exitStatus_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
        break;
      }
      if (Clock::now() > deadline) return std::nullopt;
      if (!read(10ms) && gone_) std::this_thread::sleep_for(1ms);
    }
    return exitStatus_;
  }

  void write(std::string_view bytes) {
    while (!bytes.empty()) {
      const auto n = ::write(input_, bytes.data(), bytes.size());
      if (n < 0 && errno == EINTR) continue;
      if (n <= 0) throw std::runtime_error(std::string("cannot write to the program: ") +
                                           std::strerror(errno));
      bytes.remove_prefix(static_cast<std::size_t>(n));
    }
  }

  // Reads what has come, waiting at most `limit` for it; false when nothing came.
  bool read(std::chrono::microseconds limit) {
    pollfd fd{output_, POLLIN, 0};
    const timespec timeout{static_cast<time_t>(limit.count() / 1000000),
                           static_cast<long>(limit.count() % 1000000) * 1000};
    if (gone_ || ::ppoll(&fd, 1, &timeout, nullptr) <= 0) return false;
    bool any = false;
    char buffer[16384];
    for (;;) {
      const auto n = ::read(output_, buffer, sizeof buffer);
      if (n > 0) {
        text_.append(buffer, static_cast<std::size_t>(n));
        any = true;
        continue;
      }
      // The end of a pipe is 0, of a terminal whose program has gone EIO.
      if (n == 0 || (errno != EAGAIN && errno != EINTR)) gone_ = true;
      if (n == 0 || errno != EINTR) break;
    }
    return any;
  }

  // Until `text` is in what the program wrote since the last forget(), by `deadline`.
  bool waitFor(std::string_view text, Clock::time_point deadline) {
    for (;;) {
      if (text_.find(text, searched_) != std::string::npos) return true;
      // The next search starts where a match could still begin.
      searched_ = text_.size() >= text.size() ? text_.size() - text.size() + 1 : 0;
      const auto left = deadline - Clock::now();
      if (left <= Clock::duration::zero() || gone_) return false;
      read(std::chrono::duration_cast<std::chrono::microseconds>(left));
    }
  }

  // The next whole line (pipes) that `matches`, by `deadline`; the lines before it are passed
  // over.
  std::optional<std::string> nextLine(const std::function<bool(const std::string&)>& matches,
                                      Clock::time_point deadline) {
    for (;;) {
      for (auto end = text_.find('\n', lineStart_); end != std::string::npos;
           end = text_.find('\n', lineStart_)) {
        std::string line = text_.substr(lineStart_, end - lineStart_);
        lineStart_ = end + 1;
        if (matches(line)) return line;
      }
      const auto left = deadline - Clock::now();
      if (left <= Clock::duration::zero() || gone_) return std::nullopt;
      read(std::chrono::duration_cast<std::chrono::microseconds>(left));
    }
  }

  // Reads until the program has written nothing for kQuiet (at most kWait), then forgets it;
  // how many bytes it wrote since the last forget().
  std::size_t settle() {
    const auto deadline = Clock::now() + kWait;
    while (read(kQuiet) && Clock::now() < deadline) {
    }
    const auto written = text_.size();
    forget();
    return written;
  }

  void forget() {
    text_.clear();
    searched_ = lineStart_ = 0;
  }

  const std::string& text() const { return text_; }

 private:
  pid_t pid_ = -1;
  int input_ = -1, output_ = -1;
  bool gone_ = false;  // its output has ended
  bool exited_ = false;
  int exitStatus_ = -1;
  std::string text_;
  std::size_t searched_ = 0, lineStart_ = 0;
};

// `text` with its control bytes written out, for an error.
std::string visible(std::string_view text) {
  std::string result;
  for (const char c : text) {
    if (c == '\x1b')
      result += "\\e";
    else if (static_cast<unsigned char>(c) < 0x20)
      result += "\\x" + std::string(1, "0123456789abcdef"[c >> 4]) + "0123456789abcdef"[c & 15];
    else
      result += c;
  }
  return result;
}

// ---- the service ------------------------------------------------------------------------

int subscribedConnections() {
  const auto all = json::parse(sandbox->send("GET", "/_sandbox/realtime")).at("connections");
  return static_cast<int>(std::count_if(all.as_array().begin(), all.as_array().end(),
                                        [](const json::value& c) {
                                          return c.at("user") == kUser &&
                                                 c.at("subscribed") == true;
                                        }));
}

// Bounded: until `count` connections of the user are subscribed (1: the program under
// measure is live; 0: the one before it has gone, so that nothing else hears the messages).
void waitForConnections(int count) {
  const auto deadline = Clock::now() + kWait;
  while (subscribedConnections() != count) {
    if (Clock::now() > deadline)
      throw std::runtime_error("the service never had " + std::to_string(count) +
                               " live connection(s) of " + kUser);
    std::this_thread::sleep_for(5ms);
  }
}

std::string addMessage(const std::string& title) {
  const auto answer = sandbox->post("/_sandbox/users/" + std::string(kUser) + "/messages",
                                    platform::toJSON(json::object{{"title", title}}));
  return std::string(json::parse(answer).at("messageId").as_string());
}

// A title for iteration `k` that is in no other iteration's, and that differs from the one
// before it in every column: ncurses writes only the cells that changed, and the newest
// message's row held the previous newest one. Each of eight decimal digits of k is shifted by
// k: from one k to the next, a digit moves by 0, 1 or -9, so its letter moves by 1, 2 or -8.
std::string uniqueTitle(int k) {
  std::string title(8, 'A');
  int rest = k;
  for (int i = 7; i >= 0; --i, rest /= 10) title[static_cast<std::size_t>(i)] =
      static_cast<char>('A' + (rest % 10 + k) % 26);
  return title;
}
int nextTitle = 0;

// The journal entry of the answered inbox mutation `read` or `unread` of `messageId`; none
// yet.
std::optional<json::object> answeredMutation(const std::string& messageId) {
  const auto journal = json::parse(sandbox->send("GET", "/_sandbox/requests"));
  for (const auto& entry : journal.as_array()) {
    const auto& object = entry.as_object();
    if (object.at("path") != "/inbox/q" || !object.contains("status")) continue;
    const std::string body(object.at("body").as_string());
    if (body.find("mutation") == std::string::npos ||
        body.find("read(") == std::string::npos || body.find(messageId) == std::string::npos)
      continue;
    return object;
  }
  return std::nullopt;
}

double serviceMilliseconds(const json::object& entry) {
  return entry.at("answered").to_number<double>() - entry.at("received").to_number<double>();
}

// ---- the programs, ready ------------------------------------------------------------------

std::unique_ptr<Program> startScreens() {
  waitForConnections(0);
  auto program = std::make_unique<Program>(
      herald({"ui", "--log", (configDir / "ui.log").string()}), Program::On::terminal);
  // "Live" is the status line once the inbox has loaded; the socket may subscribe after it.
  if (!program->waitFor("Live", Clock::now() + kWait))
    throw std::runtime_error("herald ui never said Live; it wrote: " + program->text());
  waitForConnections(1);
  program->settle();
  return program;
}

std::unique_ptr<Program> startWatch() {
  waitForConnections(0);
  auto program = std::make_unique<Program>(herald({"inbox", "watch"}), Program::On::pipes);
  if (!program->waitFor("onFeedChanged", Clock::now() + kWait))
    throw std::runtime_error("herald inbox watch never listed the feed; it wrote: " +
                             program->text());
  waitForConnections(1);
  program->settle();
  return program;
}

// ---- (a) socket to screen ---------------------------------------------------------------

void messageArrives(benchmark::State& state, const std::string& name,
                    std::unique_ptr<Program> (*start)(), bool keepAtTop) {
  std::vector<double> written;
  try {
    const auto program = start();
    for (auto _ : state) {
      const auto title = uniqueTitle(nextTitle++);
      if (keepAtTop) {
        // At the head of the list the cursor stays there and each new message is drawn in
        // view; Home makes sure it is there whatever a run before left.
        program->write(kHome);
        program->settle();
      }
      program->forget();
      const auto started = Clock::now();
      addMessage(title);
      if (!program->waitFor(title, started + kWait)) {
        state.SkipWithError(("the title " + title + " was not written within 10 s; it wrote " +
                             visible(program->text()))
                                .c_str());
        break;
      }
      record(state, Clock::now() - started);
      written.push_back(static_cast<double>(program->settle()));
    }
  } catch (const std::exception& e) {
    state.SkipWithError(e.what());
  }
  summarise(state, name);
  state.counters["bytes"] = percentile(written, 0.5);
}

void BM_MessageToWatchLine(benchmark::State& state) {
  messageArrives(state, "BM_MessageToWatchLine", startWatch, false);
}
void BM_MessageToScreen(benchmark::State& state) {
  messageArrives(state, "BM_MessageToScreen", startScreens, true);
}

// ---- (b) key to service -----------------------------------------------------------------

// Each iteration starts with an empty journal, so that polling it stays as cheap as it can.
void forgetRequests() { sandbox->send("DELETE", "/_sandbox/requests"); }

// The service's answered mutation of `id`, polled (bounded) while the program's output is
// read: herald ui redraws at once, before its request is even sent, and must not block on a
// full terminal.
std::optional<json::object> pollJournal(Program& program, const std::string& id,
                                        Clock::time_point deadline) {
  std::optional<json::object> entry;
  while (!(entry = answeredMutation(id)) && Clock::now() < deadline) program.read(kJournalPoll);
  return entry;
}

// `r` in herald ui, or `read ID` / `unread ID` to the watch, on the newest message (posted
// before the program starts: the top row, where the cursor starts), until the watch's answer
// line, or, polled, the service's journal holds the answered mutation, or (herald ui) the
// screen changes.
enum class Through { key, command };
enum class Until { answerLine, journal, screen };

void toggleRead(benchmark::State& state, const std::string& name, Through through,
                Until until) {
  std::vector<double> service;
  try {
    const auto id = addMessage(uniqueTitle(nextTitle++));
    const auto program = through == Through::key ? startScreens() : startWatch();
    bool read = false;
    for (auto _ : state) {
      read = !read;
      const std::string command = (read ? "read " : "unread ") + id;
      forgetRequests();
      program->forget();
      const auto started = Clock::now();
      program->write(through == Through::key ? "r" : command + "\n");
      std::optional<json::object> entry;
      if (until == Until::screen) {
        if (!program->read(kWait)) {
          state.SkipWithError("herald ui did not redraw within 10 s of the key");
          break;
        }
      } else if (until == Until::journal) {
        entry = pollJournal(*program, id, started + kWait);
        if (!entry) {
          state.SkipWithError(("the service had no " + command + " within 10 s").c_str());
          break;
        }
      } else {
        const auto answer = program->nextLine(
            [&](const std::string& line) {
              return line.find("\"command\"") != std::string::npos &&
                     line.find(command) != std::string::npos;
            },
            started + kWait);
        if (!answer) {
          state.SkipWithError(("no answer to " + command + " within 10 s").c_str());
          break;
        }
        const auto* ok = json::parse(*answer).as_object().if_contains("ok");
        if (ok == nullptr || !ok->is_bool() || !ok->as_bool()) {
          state.SkipWithError(("the watch refused " + command + ": " + *answer).c_str());
          break;
        }
      }
      record(state, Clock::now() - started);
      if (!entry) entry = answeredMutation(id);
      if (entry) service.push_back(serviceMilliseconds(*entry));
      program->settle();
    }
  } catch (const std::exception& e) {
    state.SkipWithError(e.what());
  }
  summarise(state, name);
  state.counters["service_ms"] = percentile(service, 0.5);
}

void BM_CommandToWatchAnswer(benchmark::State& state) {
  toggleRead(state, "BM_CommandToWatchAnswer", Through::command, Until::answerLine);
}
// The watch measured as herald ui is: what the journal's polling itself costs.
void BM_CommandToJournal(benchmark::State& state) {
  toggleRead(state, "BM_CommandToJournal", Through::command, Until::journal);
}
void BM_KeyToService(benchmark::State& state) {
  toggleRead(state, "BM_KeyToService", Through::key, Until::journal);
}
// The key until herald ui's first redraw (the row's mark, the count), which does not wait for
// the service.
void BM_KeyToScreen(benchmark::State& state) {
  toggleRead(state, "BM_KeyToScreen", Through::key, Until::screen);
}

// ---- the terminal itself ----------------------------------------------------------------

// One redraw's bytes (about what herald ui writes for a new message) written and read back in
// this process, through a pseudo-terminal in raw mode and through a pipe: what the terminal
// adds to every redraw.
constexpr std::size_t kRedrawBytes = 1024;

void hop(benchmark::State& state, const std::string& name, bool terminal) {
  int writeEnd = -1, readEnd = -1;
  if (terminal) {
    termios raw{};
    ::cfmakeraw(&raw);
    winsize size{24, 80, 0, 0};
    if (::openpty(&readEnd, &writeEnd, nullptr, &raw, &size) != 0) {
      state.SkipWithError("openpty failed");
      return;
    }
  } else {
    int ends[2];
    if (::pipe(ends) != 0) {
      state.SkipWithError("pipe failed");
      return;
    }
    readEnd = ends[0];
    writeEnd = ends[1];
  }
  const std::string bytes(kRedrawBytes, 'x');
  char buffer[kRedrawBytes];
  for (auto _ : state) {
    const auto started = Clock::now();
    if (::write(writeEnd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size())) {
      state.SkipWithError("short write");
      break;
    }
    std::size_t got = 0;
    pollfd fd{readEnd, POLLIN, 0};
    while (got < bytes.size() && ::poll(&fd, 1, 1000) > 0) {
      const auto n = ::read(readEnd, buffer, sizeof buffer);
      if (n <= 0) break;
      got += static_cast<std::size_t>(n);
    }
    if (got < bytes.size()) {
      state.SkipWithError("the bytes did not come through within 1 s");
      break;
    }
    record(state, Clock::now() - started);
  }
  summarise(state, name);
  ::close(writeEnd);
  ::close(readEnd);
}

void BM_PipeHop(benchmark::State& state) { hop(state, "BM_PipeHop", false); }
void BM_TerminalHop(benchmark::State& state) { hop(state, "BM_TerminalHop", true); }

void printMedianRatio(const std::string& label, const std::string& peer,
                      const std::string& screens) {
  const auto base = samples.find(peer), it = samples.find(screens);
  if (base == samples.end() || it == samples.end() || base->second.empty() ||
      it->second.empty())
    return;
  const auto p = percentile(base->second, 0.5), s = percentile(it->second, 0.5);
  std::printf("median %s: herald ui %.2f ms, herald inbox watch %.2f ms, ratio %.2f\n",
              label.c_str(), s, p, s / p);
}

}  // namespace

BENCHMARK(BM_MessageToWatchLine)->UseManualTime()->Unit(benchmark::kMillisecond)
    ->Iterations(kIterations);
BENCHMARK(BM_MessageToScreen)->UseManualTime()->Unit(benchmark::kMillisecond)
    ->Iterations(kIterations);
BENCHMARK(BM_CommandToWatchAnswer)->UseManualTime()->Unit(benchmark::kMillisecond)
    ->Iterations(kIterations);
BENCHMARK(BM_CommandToJournal)->UseManualTime()->Unit(benchmark::kMillisecond)
    ->Iterations(kIterations);
BENCHMARK(BM_KeyToService)->UseManualTime()->Unit(benchmark::kMillisecond)
    ->Iterations(kIterations);
BENCHMARK(BM_KeyToScreen)->UseManualTime()->Unit(benchmark::kMillisecond)
    ->Iterations(kIterations);
BENCHMARK(BM_PipeHop)->UseManualTime()->Unit(benchmark::kMicrosecond)->Iterations(1000);
BENCHMARK(BM_TerminalHop)->UseManualTime()->Unit(benchmark::kMicrosecond)->Iterations(1000);

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  // A program that has gone must not end the benchmark through a write to its input.
  ::signal(SIGPIPE, SIG_IGN);
  try {
    bench_support::Sandbox local;
    sandbox = &local;
    std::string pattern = (platform::temporaryDirectory() / "screens-bench-XXXXXX").string();
    if (::mkdtemp(pattern.data()) == nullptr) throw std::runtime_error("mkdtemp failed");
    configDir = pattern;
    {
      Program signIn(herald({"signin", "--user", kUser, "--jwt", local.token(kUser)}),
                     Program::On::pipes);
      const auto status = signIn.wait(kWait);
      if (status != 0)
        throw std::runtime_error("herald signin " +
                                 (status ? "ended with " + std::to_string(*status)
                                         : std::string("did not end within 10 s")));
    }
    bench_support::RatioReporter reporter;
    benchmark::RunSpecifiedBenchmarks(&reporter);
    reporter.printRatios("BM_MessageToWatchLine", {{"BM_MessageToScreen", "socket to screen"}});
    reporter.printRatios("BM_CommandToWatchAnswer", {{"BM_KeyToService", "key to service"}});
    printMedianRatio("socket to screen", "BM_MessageToWatchLine", "BM_MessageToScreen");
    printMedianRatio("key to service", "BM_CommandToWatchAnswer", "BM_KeyToService");
    printMedianRatio("key to service (the watch's journal polled too)", "BM_CommandToJournal",
                     "BM_KeyToService");
    reporter.printRatios("BM_PipeHop", {{"BM_TerminalHop", "terminal to pipe"}});
    std::error_code ignored;
    std::filesystem::remove_all(configDir, ignored);
  } catch (const std::exception& e) {
    std::fprintf(stderr, "screens_bench: %s\n", e.what());
    return 1;
  }
  benchmark::Shutdown();
  return 0;
}
