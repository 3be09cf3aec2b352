// The costs that matter for logging, each beside a reference measured in the same run:
//   caller  what a logging thread pays per entry with one asynchronous destination that
//           formats and discards, against spdlog's asynchronous logger with the same fields
//           and a sink that formats and discards;
//   format  the default format alone, against spdlog's pattern formatter;
//   file    the file destination (which opens, appends and closes for every entry), against
//           a loop that opens, appends the same line and closes;
//   burst   1,000,000 entries from 4 threads at once into the file destination, with the
//           default queue (64 MB, block) and with dropOldest, beside spdlog's asynchronous logger
//           writing a file with a queue of as many bytes, under its block and its overrun policies:
//           the caller's cost per entry (median and 99th percentile) and the entries lost.
// The ratios are printed last ("ratio caller: 0.85" means logwell costs 85% of the reference).

#include <benchmark/benchmark.h>
#include <fcntl.h>
#include <spdlog/async.h>
#include <spdlog/async_logger.h>
#include <spdlog/pattern_formatter.h>
#include <spdlog/sinks/base_sink.h>
#include <spdlog/sinks/basic_file_sink.h>
#include <spdlog/spdlog.h>
#include <sys/file.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <functional>
#include <map>
#include <mutex>
#include <optional>
#include <thread>
#include <vector>

#include "logwell/logwell.hpp"
#include "platform/paths.hpp"

namespace {

constexpr const char* kMessage = "user 42 signed in from the notification extension";
// The default logwell format, field for field: time, coloured level, file, function, line.
constexpr const char* kSpdlogPattern = "%H:%M:%S.%e %^%l%$ %s.%!:%# - %v";

// Formats every entry and throws the line away.
class FormattingNullSink : public spdlog::sinks::base_sink<spdlog::details::null_mutex> {
 protected:
  void sink_it_(const spdlog::details::log_msg& msg) override {
    spdlog::memory_buf_t line;
    formatter_->format(msg, line);
    benchmark::DoNotOptimize(line.data());
  }
  void flush_() override {}
};

void BM_CallerLogwell(benchmark::State& state) {
  auto sink = std::make_shared<logwell::BaseDestination>();  // formats, writes nowhere
  logwell::Logwell::addDestination(sink);
  for (auto _ : state) logwell::Logwell::info(kMessage);
  // Outside the timed loop: the entries still queued are written before the next run.
  logwell::Logwell::flush(60);
  logwell::Logwell::removeAllDestinations();
}

void BM_CallerSpdlog(benchmark::State& state) {
  auto pool = std::make_shared<spdlog::details::thread_pool>(8192, 1);
  auto sink = std::make_shared<FormattingNullSink>();
  auto logger = std::make_shared<spdlog::async_logger>("bench", sink, pool,
                                                       spdlog::async_overflow_policy::block);
  logger->set_pattern(kSpdlogPattern);
  for (auto _ : state) SPDLOG_LOGGER_INFO(logger, kMessage);
  logger->flush();
  logger.reset();
  pool.reset();  // joins the worker once the queue is drained
}

void BM_FormatLogwell(benchmark::State& state) {
  logwell::BaseDestination d;
  std::string line;
  for (auto _ : state) {
    line.clear();
    d.formatMessage(line, d.format, logwell::Level::info, kMessage, "", __FILE__,
                    "BM_FormatLogwell()", __LINE__);
    benchmark::DoNotOptimize(line.data());
  }
}

void BM_FormatSpdlog(benchmark::State& state) {
  spdlog::pattern_formatter formatter(kSpdlogPattern);
  spdlog::details::log_msg msg(spdlog::source_loc{__FILE__, __LINE__, "BM_FormatSpdlog"}, "bench",
                               spdlog::level::info, kMessage);
  spdlog::memory_buf_t line;
  for (auto _ : state) {
    msg.time = spdlog::log_clock::now();  // as a logger stamps each entry
    line.clear();
    formatter.format(msg, line);
    benchmark::DoNotOptimize(line.data());
  }
}

std::filesystem::path benchFile(const char* name) {
  auto path = platform::temporaryDirectory() / (std::string(name) + "-" + platform::newUUID());
  return path;
}

void BM_FileLogwell(benchmark::State& state) {
  const auto path = benchFile("logwell-bench.log");
  logwell::FileDestination d(path.string());
  for (auto _ : state)
    d.send(logwell::Level::info, kMessage, "", __FILE__, "BM_FileLogwell()", __LINE__);
  std::filesystem::remove(path);
}

// The floor: open, append and close the same line, optionally under the lock the file
// destination takes against other writers of the file.
void fileFloor(benchmark::State& state, const char* name, bool locked) {
  const auto path = benchFile(name);
  logwell::BaseDestination d;
  const std::string line = d.formatMessage(d.format, logwell::Level::info, kMessage, "", __FILE__,
                                           "BM_FileLogwell()", __LINE__) +
                           "\n";
  for (auto _ : state) {
    const int fd = ::open(path.c_str(), O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0600);
    if (locked) ::flock(fd, LOCK_EX);
    benchmark::DoNotOptimize(::write(fd, line.data(), line.size()));
    ::close(fd);
  }
  std::filesystem::remove(path);
}

void BM_FileFloor(benchmark::State& state) {
  fileFloor(state, "floor-bench.log", false);
}
void BM_FileFloorLocked(benchmark::State& state) {
  fileFloor(state, "floor-locked-bench.log", true);
}

BENCHMARK(BM_CallerLogwell);
BENCHMARK(BM_CallerSpdlog);
BENCHMARK(BM_FormatLogwell);
BENCHMARK(BM_FormatSpdlog);
BENCHMARK(BM_FileLogwell);
BENCHMARK(BM_FileFloor);
BENCHMARK(BM_FileFloorLocked);

// What a burst cost its callers, and what it lost.
struct Burst {
  double median = 0, p99 = 0;  // nanoseconds per call
  std::size_t lost = 0;
  std::size_t peakQueueBytes = 0;  // logwell only: the most its queue held, sampled each ms
};

constexpr int kBurstThreads = 4;
constexpr std::size_t kBurstEntries = 1'000'000;

std::size_t linesIn(const std::filesystem::path& path) {
  std::ifstream in(path);
  std::size_t lines = 0;
  for (std::string line; std::getline(in, line);) ++lines;
  return lines;
}

// Times every call of `log` on `kBurstThreads` threads started together; `drain` waits until
// the destination has written everything, then the lines in `path` are counted.
Burst burst(const std::filesystem::path& path, const std::function<void()>& log,
            const std::function<void()>& drain,
            const std::function<std::size_t()>& queueBytes = {}) {
  using Clock = std::chrono::steady_clock;
  const std::size_t each = kBurstEntries / kBurstThreads;
  std::vector<std::vector<std::int64_t>> costs(kBurstThreads);
  std::atomic<int> ready{0};
  std::atomic<bool> drained{false};
  std::size_t peak = 0;
  std::thread sampler([&] {
    while (queueBytes && !drained) {
      peak = std::max(peak, queueBytes());
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
  });
  std::vector<std::thread> threads;
  for (int t = 0; t < kBurstThreads; ++t)
    threads.emplace_back([&, t] {
      auto& mine = costs[t];
      mine.reserve(each);
      ++ready;
      while (ready < kBurstThreads) std::this_thread::yield();
      for (std::size_t i = 0; i < each; ++i) {
        const auto start = Clock::now();
        log();
        mine.push_back(
            std::chrono::duration_cast<std::chrono::nanoseconds>(Clock::now() - start).count());
      }
    });
  for (auto& t : threads) t.join();
  drain();
  drained = true;
  sampler.join();
  std::vector<std::int64_t> all;
  for (auto& c : costs) all.insert(all.end(), c.begin(), c.end());
  auto at = [&](double q) {
    auto nth = all.begin() + static_cast<std::ptrdiff_t>(q * static_cast<double>(all.size() - 1));
    std::nth_element(all.begin(), nth, all.end());
    return static_cast<double>(*nth);
  };
  Burst result{at(0.5), at(0.99), 0, peak};
  const std::size_t written = linesIn(path);
  result.lost = written >= kBurstEntries ? 0 : kBurstEntries - written;
  std::filesystem::remove(path);
  return result;
}

Burst burstLogwell(logwell::OverflowPolicy policy) {
  const auto path = benchFile("logwell-burst.log");
  auto file = std::make_shared<logwell::FileDestination>(path.string());
  file->setOverflowPolicy(policy);
  logwell::Logwell::addDestination(file);
  return burst(
      path, [] { logwell::Logwell::info(kMessage); },
      [] {
        logwell::Logwell::flush(600);
        logwell::Logwell::removeAllDestinations();
      },
      [&] { return file->queueBytesHeld(); });
}

// spdlog's queue holds messages of a fixed size; it gets as many as fit in the bytes logwell's
// queue may take.
Burst burstSpdlog(spdlog::async_overflow_policy policy) {
  const auto path = benchFile("spdlog-burst.log");
  const std::size_t slots =
      logwell::BaseDestination::defaultQueueBudget / sizeof(spdlog::details::async_msg);
  auto pool = std::make_shared<spdlog::details::thread_pool>(slots, 1);
  auto sink = std::make_shared<spdlog::sinks::basic_file_sink_mt>(path.string());
  auto logger = std::make_shared<spdlog::async_logger>("burst", sink, pool, policy);
  logger->set_pattern(kSpdlogPattern);
  return burst(
      path, [&] { SPDLOG_LOGGER_INFO(logger, kMessage); },
      [&] {
        logger->flush();
        logger.reset();
        pool.reset();  // joins the worker once the queue is drained
        sink->flush();
      });
}

// Keeps the time per iteration of every run (the median over repetitions), and prints as the
// console does.
class RatioReporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    ConsoleReporter::ReportRuns(runs);
    for (const auto& run : runs)
      if (run.run_type == Run::RT_Iteration && !run.error_occurred)
        samples_[run.run_name.function_name].push_back(
            run.GetAdjustedRealTime() * benchmark::GetTimeUnitMultiplier(benchmark::kNanosecond) /
            benchmark::GetTimeUnitMultiplier(run.time_unit));
  }

  std::optional<double> nanoseconds(const std::string& name) const {
    const auto it = samples_.find(name);
    if (it == samples_.end() || it->second.empty()) return std::nullopt;
    auto values = it->second;
    std::nth_element(values.begin(), values.begin() + values.size() / 2, values.end());
    return values[values.size() / 2];
  }

 private:
  std::map<std::string, std::vector<double>> samples_;
};

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  benchmark::Shutdown();

  auto ratio = [&](const char* name, const char* ours, const char* reference, double aim) {
    const auto a = reporter.nanoseconds(ours), b = reporter.nanoseconds(reference);
    if (!a || !b || *b <= 0) return;
    std::printf("ratio %s: %.2f (%.0f ns vs %.0f ns; aim at most %.1f)\n", name, *a / *b, *a, *b,
                aim);
  };
  ratio("caller", "BM_CallerLogwell", "BM_CallerSpdlog", 1.0);
  ratio("format", "BM_FormatLogwell", "BM_FormatSpdlog", 1.5);
  ratio("file", "BM_FileLogwell", "BM_FileFloor", 1.2);
  ratio("file vs locked floor", "BM_FileLogwell", "BM_FileFloorLocked", 1.2);

  std::printf("\nburst of %zu entries from %d threads into a file (caller's ns per entry):\n",
              kBurstEntries, kBurstThreads);
  const Burst ours = burstLogwell(logwell::BaseDestination::defaultOverflowPolicy);
  // The policy that never waits, for the trade-off: what it loses in the same burst.
  const Burst oldest = burstLogwell(logwell::OverflowPolicy::dropOldest);
  const Burst block = burstSpdlog(spdlog::async_overflow_policy::block);
  const Burst overrun = burstSpdlog(spdlog::async_overflow_policy::overrun_oldest);
  auto row = [](const char* name, const Burst& b) {
    std::printf("  %-34s median %6.0f  p99 %7.0f  lost %zu", name, b.median, b.p99, b.lost);
    if (b.peakQueueBytes > 0) std::printf("  queue peak %.1f MB", b.peakQueueBytes / 1048576.0);
    std::printf("\n");
  };
  row("logwell (64 MB, block)", ours);
  row("logwell (64 MB, dropOldest)", oldest);
  row("spdlog async (same bytes, block)", block);
  row("spdlog async (same bytes, overrun)", overrun);
  std::printf("ratio burst median vs spdlog block: %.2f (aim at most 1.0)\n",
              ours.median / std::max(block.median, 1.0));
  std::printf("ratio burst median vs spdlog overrun: %.2f (aim at most 1.0)\n",
              ours.median / std::max(overrun.median, 1.0));
  return 0;
}
