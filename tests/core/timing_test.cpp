#include "core/timing.hpp"

#include <gtest/gtest.h>

#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/steady_timer.hpp>
#include <functional>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "core/task_timeout.hpp"
#include "platform/main_queue.hpp"

namespace {

using namespace std::chrono_literals;
namespace asio = boost::asio;

platform::MainQueue& mainQueue() {
  return platform::MainQueue::shared();
}

TEST(DebouncerTest, OnlyTheLastCallOfABurstRuns) {
  core::Debouncer debouncer(0.05);
  std::vector<int> ran;
  for (int i = 0; i < 5; ++i) {
    mainQueue().postAfter(std::chrono::milliseconds(10 * i),
                          [&, i] { debouncer.debounce([&, i] { ran.push_back(i); }); });
  }
  ASSERT_TRUE(mainQueue().runUntil([&] { return !ran.empty(); }, 5s));
  mainQueue().runFor(150ms);
  EXPECT_EQ(ran, std::vector<int>{4});

  // Even without delay the action runs later on the main queue, never inside the call.
  core::Debouncer immediate(0);
  bool onMain = false, ranNow = false;
  immediate.debounce([&] {
    ranNow = true;
    onMain = mainQueue().isMainThread();
  });
  EXPECT_FALSE(ranNow);
  ASSERT_TRUE(mainQueue().runUntil([&] { return ranNow; }, 5s));
  EXPECT_TRUE(onMain);
}

TEST(ThrottlerTest, RunsAtTheLeadingEdgeAndDropsTheRest) {
  core::Throttler throttler(0.05);
  std::vector<int> ran;
  throttler.throttle([&] { ran.push_back(1); });
  throttler.throttle([&] { ran.push_back(2); });
  EXPECT_EQ(ran, std::vector<int>{1});
  ASSERT_TRUE(mainQueue().runUntil([&] { return throttler.canExecute(); }, 5s));
  EXPECT_EQ(ran, std::vector<int>{1});  // the dropped call never comes back
  throttler.throttle([&] { ran.push_back(3); });
  EXPECT_EQ(ran, (std::vector<int>{1, 3}));

  // A throttler that is gone leaves a re-arm behind that must do nothing.
  {
    core::Throttler(0.01).throttle([] {});
  }
  mainQueue().runFor(50ms);
}

TEST(ThrottlerTest, TheIntervalStartsWhenTheActionEnds) {
  core::Throttler throttler(0.02);
  std::vector<std::string> ran;
  throttler.throttle([&] {
    // A slow action that keeps the main queue going (a modal loop) past the interval: calls
    // that arrive meanwhile, or right after it, are still inside the interval.
    bool longerThanTheInterval = false;
    mainQueue().postAfter(40ms, [&] { longerThanTheInterval = true; });
    ASSERT_TRUE(mainQueue().runUntil([&] { return longerThanTheInterval; }, 5s));
    throttler.throttle([&] { ran.push_back("during"); });
    ran.push_back("slow");
  });
  throttler.throttle([&] { ran.push_back("right after"); });
  EXPECT_EQ(ran, std::vector<std::string>{"slow"});
  ASSERT_TRUE(mainQueue().runUntil([&] { return throttler.canExecute(); }, 5s));

  // A throwing action must not leave the throttler closed for good.
  EXPECT_THROW(throttler.throttle([] { throw std::runtime_error("boom"); }), std::runtime_error);
  EXPECT_FALSE(throttler.canExecute());
  ASSERT_TRUE(mainQueue().runUntil([&] { return throttler.canExecute(); }, 5s));
  throttler.throttle([&] { ran.push_back("later"); });
  EXPECT_EQ(ran, (std::vector<std::string>{"slow", "later"}));
}

TEST(TimeUnitsTest, ConvertsAndStopsOnOverflow) {
  GTEST_FLAG_SET(death_test_style, "threadsafe");  // the shared executor may have threads
  EXPECT_EQ(core::TimePeriod::weeks(1).timeInterval(), 604800.0);
  EXPECT_EQ(core::TimePeriod::hours(-2).timeInterval(), -7200.0);
  EXPECT_EQ(core::day(3), 259200.0);
  EXPECT_EQ(core::second(INT64_MAX), static_cast<double>(INT64_MAX));
  EXPECT_DEATH(core::minute(INT64_MAX), "overflows");
  EXPECT_DEATH(core::TimePeriod::weeks(INT64_MAX / 604800 + 1).timeInterval(), "overflows");
}

// The wrapped task: waits on a timer until it is cancelled or `wait` has passed, and reports
// how it ended.
asio::awaitable<int> sleeper(std::chrono::steady_clock::duration wait,
                             std::shared_ptr<std::promise<std::string>> ended) {
  asio::steady_timer timer(co_await asio::this_coro::executor, wait);
  try {
    co_await timer.async_wait(asio::use_awaitable);
  } catch (const boost::system::system_error&) {
    ended->set_value("cancelled");
    throw;
  }
  ended->set_value("finished");
  co_return 42;
}

asio::awaitable<int> immediate(int value) {
  co_return value;
}

asio::awaitable<int> failing() {
  throw std::runtime_error("boom");
  co_return 0;
}

template <class T>
T waitBounded(std::future<T>& future) {
  if (future.wait_for(20s) != std::future_status::ready) throw std::runtime_error("no result");
  return future.get();
}

TEST(TaskTimeoutTest, TheTaskWinsAndTheTimerStops) {
  auto ended = std::make_shared<std::promise<std::string>>();
  auto task = core::Task<int>::spawn(sleeper(0s, ended));
  // A timer left running for an hour would keep this from completing.
  auto value = platform::spawnFuture(task.value(1h));
  EXPECT_EQ(waitBounded(value), 42);

  auto failed = core::Task<int>::spawn(failing());
  auto result = platform::spawnFuture(failed.result(1h));
  auto outcome = waitBounded(result);
  ASSERT_FALSE(outcome.isSuccess());
  EXPECT_THROW(outcome.get(), std::runtime_error);
}

// A body that never suspends finishes inside its first step; the task's operation still
// takes a step after that, which the caller may race by dropping its last handle.
TEST(TaskTimeoutTest, AFinishedTaskMayLoseItsLastHandleAtOnce) {
  for (int i = 0; i < 2000; ++i) {
    auto task = core::Task<int>::spawn(immediate(i));
    const auto limit = std::chrono::steady_clock::now() + 20s;
    while (!task.isFinished()) {
      ASSERT_LT(std::chrono::steady_clock::now(), limit) << "task " << i << " never finished";
    }
  }
}

// Races against tasks that have already finished, on a context run by two threads: the
// thread that is not racing may take up the finished task's report at once. The context runs
// out of work only when no timer is left behind. The window is narrow, hence the count.
TEST(TaskTimeoutTest, ARaceAgainstAFinishedTaskLeavesNoTimerBehind) {
  constexpr int races = 10000;
  asio::io_context pool;
  std::vector<int> values;
  asio::co_spawn(
      pool,
      [&]() -> asio::awaitable<void> {
        for (int i = 0; i < races; ++i) {
          auto task = core::Task<int>::spawn(immediate(i), pool.get_executor());
          co_await task.value();
          values.push_back(co_await task.value(1h));
        }
      },
      asio::detached);
  std::promise<void> firstIdle, secondIdle;
  auto run = [&](std::promise<void>& idle) {
    pool.run();
    idle.set_value();
  };
  std::thread first(run, std::ref(firstIdle)), second(run, std::ref(secondIdle));
  const auto limit = std::chrono::steady_clock::now() + 60s;
  const bool idle = firstIdle.get_future().wait_until(limit) == std::future_status::ready &&
                    secondIdle.get_future().wait_until(limit) == std::future_status::ready;
  if (!idle) pool.stop();
  first.join();
  second.join();
  EXPECT_TRUE(idle) << "a time limit was left running after its race was over";
  ASSERT_EQ(values.size(), std::size_t{races});
  for (int i = 0; i < races; ++i) EXPECT_EQ(values[i], i);
}

TEST(TaskTimeoutTest, TheClockWinsAndTheTaskKeepsRunning) {
  auto ended = std::make_shared<std::promise<std::string>>();
  auto endedFuture = ended->get_future();
  auto task = core::Task<int>::spawn(sleeper(1h, ended));
  auto value = platform::spawnFuture(task.value(20ms));
  EXPECT_THROW(waitBounded(value), core::TimeoutError);
  EXPECT_FALSE(task.isFinished());
  EXPECT_EQ(endedFuture.wait_for(0s), std::future_status::timeout);

  auto result = platform::spawnFuture(task.result(20ms));
  auto outcome = waitBounded(result);
  EXPECT_THROW(outcome.get(), core::TimeoutError);

  task.cancel();
  EXPECT_EQ(waitBounded(endedFuture), "cancelled");
}

TEST(TaskTimeoutTest, CancellingTheCallerCancelsTheTask) {
  auto ended = std::make_shared<std::promise<std::string>>();
  auto endedFuture = ended->get_future();
  auto task = core::Task<int>::spawn(sleeper(1h, ended));

  auto strand = asio::make_strand(platform::sharedExecutor());
  asio::cancellation_signal signal;
  std::promise<std::exception_ptr> callerEnded;
  asio::co_spawn(strand, task.value(1h),
                 asio::bind_cancellation_slot(
                     signal.slot(), [&](std::exception_ptr e, int) { callerEnded.set_value(e); }));
  asio::post(strand, [&] { signal.emit(asio::cancellation_type::terminal); });

  auto callerFuture = callerEnded.get_future();
  auto error = waitBounded(callerFuture);
  EXPECT_EQ(waitBounded(endedFuture), "cancelled");
  try {
    std::rethrow_exception(error);
  } catch (const boost::system::system_error& e) {
    EXPECT_EQ(e.code(), asio::error::operation_aborted);
  } catch (...) {
    ADD_FAILURE() << "the caller ended without the cancellation error";
  }
}

}  // namespace
