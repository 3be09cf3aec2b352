#include "core/timing.hpp"

#include <cstdio>
#include <cstdlib>

namespace core {
namespace {

platform::MainQueue::Clock::duration delayOf(double seconds) {
  if (!(seconds > 0)) return {};  // also NaN
  return std::chrono::duration_cast<platform::MainQueue::Clock::duration>(
      std::chrono::duration<double>(seconds));
}

// Overflow here means a constant was mistyped; there is no sensible value to go on with.
std::int64_t scale(std::int64_t n, std::initializer_list<std::int64_t> factors, const char* unit) {
  std::int64_t product = n;
  for (auto factor : factors) {
    if (__builtin_mul_overflow(product, factor, &product)) {
      std::fprintf(stderr, "Fatal error: %lld %s overflows a 64-bit count of seconds\n",
                   static_cast<long long>(n), unit);
      std::fflush(stderr);
      std::abort();
    }
  }
  return product;
}

}  // namespace

Debouncer::Debouncer(double interval, platform::MainQueue& queue)
    : queue_(queue), interval_(interval) {}

void Debouncer::debounce(std::function<void()> action) {
  if (workItem_) workItem_->cancel();
  workItem_ = std::make_shared<platform::WorkItem>(std::move(action));
  queue_.postAfter(delayOf(interval_), workItem_);
}

Throttler::Throttler(double interval, platform::MainQueue& queue)
    : queue_(queue), interval_(interval), state_(std::make_shared<State>()) {}

void Throttler::throttle(const std::function<void()>& action) {
  if (!state_->canExecute.exchange(false)) return;
  // The interval counts from the end of the action: a slow action that lets the main queue
  // run (a modal loop) must not reopen the throttler before it has even returned. The re-arm
  // is scheduled whether the action returns or throws, and from locals, since the action may
  // well destroy this throttler.
  auto rearm = [&queue = queue_, delay = delayOf(interval_), weak = std::weak_ptr<State>(state_)] {
    queue.postAfter(delay, [weak] {
      if (auto state = weak.lock()) state->canExecute = true;
    });
  };
  try {
    action();
  } catch (...) {
    rearm();
    throw;
  }
  rearm();
}

double second(std::int64_t n) {
  return static_cast<double>(n);
}
double minute(std::int64_t n) {
  return static_cast<double>(scale(n, {60}, "minutes"));
}
double hour(std::int64_t n) {
  return static_cast<double>(scale(n, {60, 60}, "hours"));
}
double day(std::int64_t n) {
  return static_cast<double>(scale(n, {60, 60, 24}, "days"));
}
double weeks(std::int64_t n) {
  return static_cast<double>(scale(n, {60, 60, 24, 7}, "weeks"));
}

double TimePeriod::timeInterval() const {
  switch (unit) {
    case Unit::seconds:
      return core::second(count);
    case Unit::minutes:
      return core::minute(count);
    case Unit::hours:
      return core::hour(count);
    case Unit::days:
      return core::day(count);
    case Unit::weeks:
      return core::weeks(count);
  }
  return 0;
}

}  // namespace core
