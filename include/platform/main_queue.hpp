#pragma once
/// The main queue: one serial event loop that the application runs on its main thread.
/// Listener callbacks, timers of the user interface and rich-push completions run here.
///
/// Programs call `run()` on their main thread; tests drain it with `runUntil` or `runFor`:
///
///   auto& main = platform::MainQueue::shared();
///   main.post([] { std::puts("on the main thread"); });
///   main.runFor(std::chrono::milliseconds(10));

#include <boost/asio/any_io_executor.hpp>

#include <atomic>
#include <chrono>
#include <functional>
#include <memory>

namespace platform {

/// A block of work that can be cancelled until it starts (the phone's dispatch work item).
class WorkItem {
 public:
  explicit WorkItem(std::function<void()> block) : block_(std::move(block)) {}
  /// Runs the block unless it was cancelled.
  void perform();
  /// The block will not run if it has not started yet; cancelling after it ran does nothing.
  void cancel() noexcept { cancelled_ = true; }
  bool isCancelled() const noexcept { return cancelled_; }

 private:
  std::function<void()> block_;
  std::atomic<bool> cancelled_{false};
};

class MainQueue {
 public:
  using Clock = std::chrono::steady_clock;

  static MainQueue& shared();

  boost::asio::any_io_executor executor();

  /// Runs `block` later on the main queue, never inside this call.
  void post(std::function<void()> block);
  /// Runs `item` on the main queue once `delay` has passed, unless it is cancelled first.
  void postAfter(Clock::duration delay, std::shared_ptr<WorkItem> item);
  void postAfter(Clock::duration delay, std::function<void()> block);

  /// Runs the queue on the calling thread until `stop()`.
  void run();
  /// Runs ready and due work for at most `limit`; returns the number of blocks run.
  std::size_t runFor(Clock::duration limit);
  /// Runs the queue until `done()` holds or `limit` has passed; returns `done()`.
  bool runUntil(const std::function<bool()>& done, Clock::duration limit);
  /// Makes `run()` return.
  void stop();

  /// True on the thread that is running the queue.
  bool isMainThread() const;

  MainQueue(const MainQueue&) = delete;
  MainQueue& operator=(const MainQueue&) = delete;
  ~MainQueue();

 private:
  MainQueue();
  struct State;
  std::unique_ptr<State> state_;
};

}  // namespace platform
