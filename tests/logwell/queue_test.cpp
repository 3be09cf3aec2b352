// The queue of an asynchronous destination under bursts: nothing lost while the destination
// keeps up, drops by the chosen policy when it is stuck, and its memory back afterwards.

#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <future>
#include <stdexcept>
#include <thread>

#include "logwell/logwell.hpp"
#include "platform/paths.hpp"
#include "support.hpp"

namespace fs = std::filesystem;
using logwell::Level;
using logwell::Logwell;
using logwell::OverflowPolicy;
using logwell_test::Recorder;

namespace {

class Queue : public ::testing::Test {
 protected:
  void TearDown() override {
    Logwell::flush(10);
    Logwell::removeAllDestinations();
    Logwell::setQueueBudget(logwell::BaseDestination::defaultQueueBudget);
    Logwell::setOverflowPolicy(logwell::BaseDestination::defaultOverflowPolicy);
  }
};

// Holds the destination in its first entry until `open`.
struct Stuck {
  std::promise<void> gate;
  std::shared_ptr<Recorder> recorder = std::make_shared<Recorder>();

  explicit Stuck(std::size_t budget, OverflowPolicy policy) {
    recorder->gate = gate.get_future().share();
    recorder->setQueueBudget(budget);
    recorder->setOverflowPolicy(policy);
    Logwell::addDestination(recorder);
    Logwell::info("stuck");
  }
  bool held() {
    return logwell_test::eventually([&] { return recorder->started == 1; });
  }
  void open() { gate.set_value(); }
};

#if defined(__SANITIZE_THREAD__) || defined(__SANITIZE_ADDRESS__)
// ThreadSanitizer keeps the shadow of memory given back, AddressSanitizer its freed blocks in
// quarantine: the process's size says nothing of the queue's there.
constexpr bool residentSizeTells = false;
#else
constexpr bool residentSizeTells = true;
#endif

std::size_t residentBytes() {
  long pages = 0, resident = 0;
  std::ifstream("/proc/self/statm") >> pages >> resident;
  return static_cast<std::size_t>(resident) * static_cast<std::size_t>(::sysconf(_SC_PAGESIZE));
}

}  // namespace

TEST_F(Queue, ABurstFromEightThreadsIsWrittenWholeAndInEachThreadsOrder) {
  const fs::path path = platform::temporaryDirectory() / ("logwell-burst-" + platform::newUUID());
  auto file = std::make_shared<logwell::FileDestination>(path.string());
  file->format = "$M";
  Logwell::addDestination(file);
  constexpr int threads = 8, each = 20000;
  std::vector<std::thread> loggers;
  for (int t = 0; t < threads; ++t)
    loggers.emplace_back([t] {
      for (int i = 0; i < each; ++i) Logwell::info(std::to_string(t) + " " + std::to_string(i));
    });
  for (auto& l : loggers) l.join();
  ASSERT_TRUE(Logwell::flush(60));

  std::ifstream in(path);
  std::vector<int> next(threads, 0);
  std::size_t lines = 0;
  for (std::string line; std::getline(in, line); ++lines) {
    int t = -1, i = -1;
    ASSERT_EQ(std::sscanf(line.c_str(), "%d %d", &t, &i), 2) << line;
    ASSERT_TRUE(t >= 0 && t < threads) << line;
    ASSERT_EQ(i, next[t]++) << "thread " << t;
  }
  EXPECT_EQ(lines, std::size_t{threads} * each);
  fs::remove(path);
}

TEST_F(Queue, AStuckDestinationDropsByItsPolicyAndReportsTheExactCountOnce) {
  for (const auto policy : {OverflowPolicy::dropOldest, OverflowPolicy::dropNewest}) {
    SCOPED_TRACE(policy == OverflowPolicy::dropOldest ? "dropOldest" : "dropNewest");
    Stuck stuck(logwell::BaseDestination::minQueueBudget, policy);
    ASSERT_TRUE(stuck.held());
    constexpr int total = 20000;  // some 2 MB: far past the budget
    std::atomic<bool> done{false};
    std::thread caller([&] {
      for (int i = 0; i < total; ++i) Logwell::info(i);
      done = true;
    });
    const bool returned = logwell_test::eventually([&] { return done.load(); });
    EXPECT_LE(stuck.recorder->queueBytesHeld(), logwell::BaseDestination::minQueueBudget);
    stuck.open();
    caller.join();
    ASSERT_TRUE(returned) << "the caller waited for the stuck destination";
    ASSERT_TRUE(Logwell::flush(10));
    Logwell::info("after");  // no second notice
    ASSERT_TRUE(Logwell::flush(10));

    // The entries kept, in order, and the one notice in the gap, counting the gap exactly.
    const auto& lines = stuck.recorder->log->lines;
    ASSERT_GE(lines.size(), 3u);
    EXPECT_EQ(lines.front(), "stuck");
    EXPECT_EQ(lines.back(), "after");
    std::vector<int> kept;
    std::size_t noticeAt = 0, notices = 0, counted = 0;
    for (std::size_t k = 1; k + 1 < lines.size(); ++k) {
      if (std::sscanf(lines[k].c_str(), "logwell: dropped %zu entries", &counted) == 1) {
        noticeAt = kept.size();
        ++notices;
        EXPECT_EQ(stuck.recorder->log->entries.at(k).level, Level::warning);
      } else {
        kept.push_back(std::stoi(lines[k]));
      }
    }
    ASSERT_EQ(notices, 1u);
    ASSERT_FALSE(kept.empty());
    EXPECT_EQ(kept.size() + counted, std::size_t{total});
    const int gapStart = noticeAt == 0 ? 0 : kept[noticeAt - 1] + 1;
    const int gapEnd = noticeAt == kept.size() ? total : kept[noticeAt];
    EXPECT_EQ(static_cast<std::size_t>(gapEnd - gapStart), counted);
    for (std::size_t k = 1; k < kept.size(); ++k)
      ASSERT_EQ(kept[k], kept[k - 1] + (k == noticeAt ? 1 + static_cast<int>(counted) : 1));
    if (policy == OverflowPolicy::dropNewest) {
      EXPECT_EQ(kept.front(), 0);
      EXPECT_EQ(gapEnd, total) << "only the newest are dropped";
    } else {
      EXPECT_EQ(kept.back(), total - 1) << "the newest are all kept";
    }
    Logwell::removeAllDestinations();
  }
}

TEST_F(Queue, UnderBlockTheCallerWaitsForRoomAndNothingIsLost) {
  Stuck stuck(logwell::BaseDestination::minQueueBudget, OverflowPolicy::block);
  ASSERT_TRUE(stuck.held());
  constexpr int total = 20000;
  std::atomic<int> logged{0};
  std::thread caller([&] {
    for (int i = 0; i < total; ++i, ++logged) Logwell::info(i);
  });
  // The caller stops once the budget is full, and stays stopped while the destination is.
  ASSERT_TRUE(logwell_test::eventually([&] {
    const int before = logged;
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
    return before > 0 && logged == before;
  }));
  EXPECT_LT(logged, total);
  EXPECT_LE(stuck.recorder->queueBytesHeld(), logwell::BaseDestination::minQueueBudget);
  stuck.open();
  caller.join();
  ASSERT_TRUE(Logwell::flush(10));
  const auto& lines = stuck.recorder->log->lines;
  ASSERT_EQ(lines.size(), std::size_t{total} + 1);
  for (int i = 0; i < total; ++i) ASSERT_EQ(lines[i + 1], std::to_string(i));
}

TEST_F(Queue, MemoryTakenByABurstIsGivenBack) {
  // Counts and keeps nothing, so that what the process holds is the queue's.
  struct Counter : logwell::BaseDestination {
    std::atomic<std::size_t> sent{0};
    std::shared_future<void> gate;
    std::optional<std::string> send(Level, std::string_view, std::string_view, std::string_view,
                                    std::string_view, int, const logwell::Context&) override {
      if (gate.valid()) gate.wait();
      ++sent;
      return std::nullopt;
    }
  };
  auto counter = std::make_shared<Counter>();
  std::promise<void> gate;
  counter->gate = gate.get_future().share();
  Logwell::addDestination(counter);
  Logwell::info("warm up");
  ASSERT_TRUE(logwell_test::eventually([&] { return counter->queueBytesHeld() > 0; }));
  const std::size_t start = residentBytes();

  const std::string message(100, 'm');
  constexpr std::size_t total = 150000;  // some 30 MB waiting, well within the budget
  for (std::size_t i = 0; i < total; ++i) Logwell::info(message);
  const std::size_t peak = residentBytes();
  gate.set_value();
  ASSERT_TRUE(Logwell::flush(30));
  // Once idle, the queue keeps the chunk it writes next and two spares.
  EXPECT_TRUE(logwell_test::eventually([&] { return counter->queueBytesHeld() <= 192 * 1024; }));
  const std::size_t end = residentBytes();

  EXPECT_EQ(counter->sent, total + 1);
  if (residentSizeTells) {
    EXPECT_GT(peak, start + 20 * 1024 * 1024) << "the burst was not held in memory";
    EXPECT_LT(end, start + 2 * 1024 * 1024) << "peak " << peak << ", start " << start;
  }
}

TEST_F(Queue, BudgetsAreCheckedAndTheFacadeSetsThemForEveryDestination) {
  auto before = std::make_shared<Recorder>();
  Logwell::addDestination(before);
  EXPECT_EQ(before->queueBudget(), logwell::BaseDestination::defaultQueueBudget);
  EXPECT_EQ(before->overflowPolicy(), OverflowPolicy::block);
  try {
    Logwell::setQueueBudget(1000);
    ADD_FAILURE() << "a budget of 1000 bytes was taken";
  } catch (const std::invalid_argument& e) {
    EXPECT_STREQ(e.what(), "logwell: a queue budget of 1000 bytes is below the least, 65536");
  }
  EXPECT_THROW(before->setQueueBudget(0), std::invalid_argument);
  EXPECT_EQ(before->queueBudget(), logwell::BaseDestination::defaultQueueBudget);

  Logwell::setQueueBudget(1 << 20);
  Logwell::setOverflowPolicy(OverflowPolicy::dropNewest);
  auto after = std::make_shared<Recorder>();
  for (const auto& d : {before, after}) {
    EXPECT_EQ(d->queueBudget(), 1u << 20);
    EXPECT_EQ(d->overflowPolicy(), OverflowPolicy::dropNewest);
  }
  after->setQueueBudget(logwell::BaseDestination::minQueueBudget);
  EXPECT_EQ(after->queueBudget(), logwell::BaseDestination::minQueueBudget);
  EXPECT_EQ(before->queueBudget(), 1u << 20);
}

TEST_F(Queue, SynchronousAndAsynchronousBlocksNeverOverlapAndKeepEachThreadsOrder) {
  auto d = std::make_shared<logwell::BaseDestination>();
  std::vector<std::pair<int, int>> ran;  // touched only on the queue
  int running = 0, overlaps = 0;
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t)
    threads.emplace_back([&, t] {
      for (int i = 0; i < 500; ++i)
        d->execute(i % 3 == 0, [&, t, i] {
          overlaps += running++ != 0;
          ran.emplace_back(t, i);
          --running;
        });
    });
  for (auto& t : threads) t.join();
  d->executeSynchronously([] {});
  EXPECT_EQ(overlaps, 0);
  ASSERT_EQ(ran.size(), 2000u);
  std::vector<int> next(4, 0);
  for (auto [t, i] : ran) EXPECT_EQ(i, next[t]++);
}
