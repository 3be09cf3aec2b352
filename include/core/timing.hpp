#pragma once
/// Small timing tools for the main queue, and time spans in whole units.
///
///   core::Debouncer search(0.3);            // seconds
///   search.debounce([] { runQuery(); });    // only the last call of a burst runs, 0.3 s later
///
///   core::Throttler taps(1.0);
///   taps.throttle([] { openEditor(); });    // runs now; calls until 1 s after it are dropped
///
///   double week = core::TimePeriod::weeks(1).timeInterval();  // 604800
///   double spin = core::minute(5);                             // 300
///
/// Both classes are meant for the main thread: they run their actions on (or from) the main
/// queue, and their state is not locked.

#include <atomic>
#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>

#include "platform/main_queue.hpp"

namespace core {

/// Runs an action only once calls have stopped for `interval`: each call cancels the one
/// still pending, so the last call of a burst runs, `interval` after it, on the main queue
/// (never inside `debounce`, even with a zero interval). Destroying the debouncer does not
/// cancel a pending action.
class Debouncer {
 public:
  explicit Debouncer(double interval, platform::MainQueue& queue = platform::MainQueue::shared());

  void debounce(std::function<void()> action);

  double interval() const noexcept { return interval_; }

 private:
  platform::MainQueue& queue_;
  std::shared_ptr<platform::WorkItem> workItem_;
  double interval_;
};

/// Runs at most one action per `interval`, at the leading edge: a call when ready runs its
/// action at once on the caller's thread; calls while it runs and for `interval` after it has
/// ended (returned or thrown) are dropped for good. The re-arm is scheduled on the main queue
/// and does nothing once the throttler is gone.
class Throttler {
 public:
  explicit Throttler(double interval, platform::MainQueue& queue = platform::MainQueue::shared());

  void throttle(const std::function<void()>& action);

  double interval() const noexcept { return interval_; }
  bool canExecute() const noexcept { return state_->canExecute; }

 private:
  struct State {
    // Written by the caller and by the re-arm block on the main queue.
    std::atomic<bool> canExecute{true};
  };
  platform::MainQueue& queue_;
  double interval_;
  std::shared_ptr<State> state_;
};

/// Whole-unit time spans: second(n) = n, minute(n) = n × 60, hour(n) = n × 3600,
/// day(n) = n × 86400, weeks(n) = n × 604800, as seconds. The products are computed in
/// 64-bit integers; an overflow is a programming error and stops the program with a message
/// on standard error.
double second(std::int64_t n);
double minute(std::int64_t n);
double hour(std::int64_t n);
double day(std::int64_t n);
double weeks(std::int64_t n);

/// A span in one unit.
///
///   auto p = core::TimePeriod::days(2);
///   p.timeInterval();  // 172800
struct TimePeriod {
  enum class Unit { seconds, minutes, hours, days, weeks };

  Unit unit = Unit::seconds;
  std::int64_t count = 0;

  static TimePeriod seconds(std::int64_t n) { return {Unit::seconds, n}; }
  static TimePeriod minutes(std::int64_t n) { return {Unit::minutes, n}; }
  static TimePeriod hours(std::int64_t n) { return {Unit::hours, n}; }
  static TimePeriod days(std::int64_t n) { return {Unit::days, n}; }
  static TimePeriod weeks(std::int64_t n) { return {Unit::weeks, n}; }

  /// The span in seconds (stops the program on overflow, like the unit functions).
  double timeInterval() const;

  friend bool operator==(const TimePeriod&, const TimePeriod&) = default;
};

}  // namespace core
