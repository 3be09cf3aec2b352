#pragma once
/// A running asynchronous task with a handle, and waiting for it with a time limit.
///
///   auto task = core::Task<Image>::spawn(downloadImage(url));
///   try {
///     Image image = co_await task.value(std::chrono::seconds(5));
///   } catch (const core::TimeoutError&) {
///     // the download goes on in the background; its result is dropped
///   }
///
///   core::Result<Image> r = co_await task.result(std::chrono::seconds(5));  // never throws
///
/// The rules of the race:
/// - the task runs as its own operation (on a strand of the executor it was spawned on), so
///   it outlives a race it lost: a time-out leaves it running;
/// - when the task wins, the timer is cancelled at once;
/// - cancelling the waiting coroutine (through its cancellation slot) cancels the task too,
///   and the wait ends with `boost::asio::error::operation_aborted`.

#include <array>
#include <atomic>
#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/append.hpp>
#include <boost/asio/associated_cancellation_slot.hpp>
#include <boost/asio/associated_executor.hpp>
#include <boost/asio/async_result.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/basic_waitable_timer.hpp>
#include <boost/asio/bind_cancellation_slot.hpp>
#include <boost/asio/cancellation_signal.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/deferred.hpp>
#include <boost/asio/experimental/concurrent_channel.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/this_coro.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <boost/system/system_error.hpp>
#include <chrono>
#include <concepts>
#include <cstdint>
#include <exception>
#include <memory>
#include <mutex>
#include <optional>
#include <tuple>
#include <type_traits>
#include <variant>
#include <vector>

#include "platform/executor.hpp"

namespace core {

/// The timer won the race.
struct TimeoutError : std::exception {
  const char* what() const noexcept override { return "the task did not finish in time"; }
};

/// Success with a value (nothing for `Result<void>`) or failure with an error.
template <class T>
class Result {
 public:
  using Value = std::conditional_t<std::is_void_v<T>, std::monostate, T>;

  /// Success with a default value (lets a result cross `co_spawn`, which needs one).
  Result() requires std::default_initializable<Value> : storage_(std::in_place_index<0>) {}

  static Result success(Value value = {}) { return Result(std::move(value)); }
  static Result failure(std::exception_ptr error) { return Result(std::move(error)); }

  bool isSuccess() const noexcept { return storage_.index() == 0; }
  /// The failure, or null on success.
  std::exception_ptr error() const noexcept {
    const auto* e = std::get_if<std::exception_ptr>(&storage_);
    return e ? *e : nullptr;
  }
  /// The value; rethrows the failure.
  decltype(auto) get() const {
    if (!isSuccess()) std::rethrow_exception(error());
    if constexpr (std::is_void_v<T>) {
      return;
    } else {
      return std::get<0>(storage_);
    }
  }

 private:
  explicit Result(Value value) : storage_(std::in_place_index<0>, std::move(value)) {}
  explicit Result(std::exception_ptr error) : storage_(std::in_place_index<1>, std::move(error)) {}
  std::variant<Value, std::exception_ptr> storage_;
};

/// The outcome of the race between a task and the clock: the task's result, or none when
/// the time ran out first.
template <class T>
struct TimeoutResult {
  std::optional<Result<T>> task;
  bool isTimeout() const noexcept { return !task; }
};

namespace detail {

/// A waiter's completion handler with its type erased. Completing posts the handler to its
/// own executor, so a waiter never resumes inside the task's strand or a cancellation.
class WaiterCompletion {
 public:
  virtual ~WaiterCompletion() = default;
  virtual void complete(boost::system::error_code error) = 0;
};

template <class Handler>
class WaiterCompletionFor final : public WaiterCompletion {
 public:
  WaiterCompletionFor(Handler handler, boost::asio::any_io_executor fallback)
      : handler_(std::move(handler)), fallback_(std::move(fallback)) {}
  void complete(boost::system::error_code error) override {
    // A handler without an executor of its own (a parallel group's) would otherwise land on
    // Asio's system executor: threads outside the pool, racing the waiter's coroutine.
    auto executor = boost::asio::get_associated_executor(handler_, fallback_);
    boost::asio::post(executor, boost::asio::append(std::move(handler_), error));
  }

 private:
  Handler handler_;
  boost::asio::any_io_executor fallback_;
};

template <class T>
struct TaskState {
  struct Waiter {
    std::uint64_t id;
    std::unique_ptr<WaiterCompletion> completion;
  };

  explicit TaskState(boost::asio::any_io_executor executor)
      : strand(boost::asio::make_strand(std::move(executor))) {}

  void finish(Result<T> outcome) {
    std::vector<Waiter> ready;
    {
      std::lock_guard lock(mutex);
      result.emplace(std::move(outcome));
      ready.swap(waiters);
    }
    for (auto& waiter : ready) waiter.completion->complete({});
  }

  void abandon(std::uint64_t id) {
    std::unique_ptr<WaiterCompletion> completion;
    {
      std::lock_guard lock(mutex);
      for (auto it = waiters.begin(); it != waiters.end(); ++it) {
        if (it->id == id) {
          completion = std::move(it->completion);
          waiters.erase(it);
          break;
        }
      }
    }
    if (completion) completion->complete(boost::asio::error::operation_aborted);
  }

  /// Completes with success once the task has finished, or with `operation_aborted` when the
  /// wait is cancelled; the task itself is not touched.
  /// A handler without an executor of its own completes on `fallback`.
  template <class Token>
  static auto asyncWait(std::shared_ptr<TaskState> state, boost::asio::any_io_executor fallback,
                        Token&& token) {
    return boost::asio::async_initiate<Token, void(boost::system::error_code)>(
        [](auto handler, std::shared_ptr<TaskState> state, boost::asio::any_io_executor fallback) {
          using Handler = decltype(handler);
          auto slot = boost::asio::get_associated_cancellation_slot(handler);
          auto completion = std::make_unique<WaiterCompletionFor<Handler>>(std::move(handler),
                                                                           std::move(fallback));
          std::unique_lock lock(state->mutex);
          if (state->result) {
            lock.unlock();
            completion->complete({});
            return;
          }
          const auto id = state->nextWaiter++;
          // The slot outlives this wait; its handler finds nothing to abandon once the wait
          // is over, and it is replaced by the waiter's next operation.
          if (slot.is_connected()) {
            slot.assign(
                [weak = std::weak_ptr<TaskState>(state), id](boost::asio::cancellation_type) {
                  if (auto s = weak.lock()) s->abandon(id);
                });
          }
          state->waiters.push_back({id, std::move(completion)});
        },
        token, std::move(state), std::move(fallback));
  }

  Result<T> takeResult() {
    std::lock_guard lock(mutex);
    return *result;
  }

  std::mutex mutex;
  std::optional<Result<T>> result;
  std::vector<Waiter> waiters;
  std::uint64_t nextWaiter = 0;
  boost::asio::strand<boost::asio::any_io_executor> strand;
  // Emitted only on `strand`, where the task runs.
  boost::asio::cancellation_signal signal;
};

}  // namespace detail

/// A handle to a running task; copies share it.
template <class T>
class Task {
 public:
  /// Starts `body` on a strand of `executor` (the shared executor by default).
  ///
  ///   auto task = core::Task<int>::spawn(compute());
  static Task spawn(boost::asio::awaitable<T> body,
                    boost::asio::any_io_executor executor = platform::sharedExecutor()) {
    auto state = std::make_shared<State>(std::move(executor));
    // The operation's cancellation state lives inside `state->signal`, so its completion
    // handler keeps the state: a body that finishes without suspending is followed by one more
    // step on the strand, after the result is set and possibly after the last handle is gone.
    boost::asio::co_spawn(state->strand, run(std::move(body), state),
                          boost::asio::bind_cancellation_slot(
                              state->signal.slot(), [keep = state](std::exception_ptr) {}));
    return Task(std::move(state));
  }

  /// Asks the task to stop: its pending operation is cancelled (terminal cancellation).
  void cancel() const {
    boost::asio::post(state_->strand, [state = state_] {
      bool finished;
      {
        std::lock_guard lock(state->mutex);
        finished = state->result.has_value();
      }
      if (!finished) state->signal.emit(boost::asio::cancellation_type::terminal);
    });
  }

  bool isFinished() const {
    std::lock_guard lock(state_->mutex);
    return state_->result.has_value();
  }

  /// Waits for the task without a limit; rethrows its error. Cancelling the caller cancels
  /// the task.
  boost::asio::awaitable<T> value() const {
    auto state = state_;
    try {
      co_await State::asyncWait(state, state->strand.get_inner_executor(),
                                boost::asio::use_awaitable);
    } catch (...) {
      cancel();  // the caller was cancelled, and the task goes with it
      throw;
    }
    co_return state->takeResult().get();
  }

  /// Waits at most `after` on `Clock`; throws `TimeoutError` when the time runs out first,
  /// the task's own error when it failed. `tolerance` is accepted for symmetry with the
  /// platform's sleep and not used: the timer fires as soon as it is due.
  template <class Clock = std::chrono::steady_clock>
  boost::asio::awaitable<T> value(typename Clock::duration after,
                                  std::optional<typename Clock::duration> tolerance = std::nullopt,
                                  Clock clock = Clock{}) const {
    auto outcome = co_await race<Clock>(after, tolerance, clock);
    if (outcome.isTimeout()) throw TimeoutError{};
    co_return outcome.task->get();
  }

  /// The same race without throwing: success with the value, failure with `TimeoutError`, the
  /// task's error, or `operation_aborted` when the waiting coroutine was cancelled.
  template <class Clock = std::chrono::steady_clock>
  boost::asio::awaitable<Result<T>> result(
      typename Clock::duration after,
      std::optional<typename Clock::duration> tolerance = std::nullopt,
      Clock clock = Clock{}) const {
    std::exception_ptr failure;
    try {
      auto outcome = co_await race<Clock>(after, tolerance, clock);
      if (!outcome.isTimeout()) co_return std::move(*outcome.task);
      failure = std::make_exception_ptr(TimeoutError{});
    } catch (...) {
      failure = std::current_exception();
    }
    co_return Result<T>::failure(failure);
  }

  /// The race itself: the task's result, or a time-out.
  template <class Clock = std::chrono::steady_clock>
  boost::asio::awaitable<TimeoutResult<T>> race(typename Clock::duration after,
                                                std::optional<typename Clock::duration> = {},
                                                Clock = Clock{}) const {
    namespace asio = boost::asio;
    using Strand = asio::strand<asio::any_io_executor>;
    enum Winner : int { none, task, clock };
    // Both contestants report on one strand, so that the winner alone stops the other and
    // wakes the waiting coroutine (through a channel that keeps the word if the coroutine is
    // not waiting yet). The record lives until the last of its handlers ran.
    struct Race {
      Race(Strand strand, typename Clock::duration after)
          : deadline(strand, after), wake(strand, 1) {}
      asio::basic_waitable_timer<Clock, asio::wait_traits<Clock>, Strand> deadline;
      asio::experimental::concurrent_channel<void(boost::system::error_code)> wake;
      asio::cancellation_signal stopWaiting;
      std::atomic<int> winner{none};
    };
    auto state = state_;
    auto strand = asio::make_strand(co_await asio::this_coro::executor);
    auto contest = std::make_shared<Race>(strand, after);

    // Both contestants enter from one handler on the strand: a task that has already finished
    // reports there at once, and must not find the timer not yet armed, which would leave it
    // running for the whole duration.
    asio::post(strand, [state, strand, contest] {
      State::asyncWait(state, strand,
                       asio::bind_cancellation_slot(
                           contest->stopWaiting.slot(), [contest](boost::system::error_code error) {
                             int expected = none;
                             if (error || !contest->winner.compare_exchange_strong(expected, task))
                               return;
                             contest->deadline.cancel();
                             contest->wake.try_send(boost::system::error_code{});
                           }));
      contest->deadline.async_wait([contest](boost::system::error_code error) {
        int expected = none;
        if (error || !contest->winner.compare_exchange_strong(expected, clock)) return;
        contest->stopWaiting.emit(asio::cancellation_type::terminal);
        contest->wake.try_send(boost::system::error_code{});
      });
    });

    try {
      co_await contest->wake.async_receive(asio::use_awaitable);
    } catch (const boost::system::system_error&) {
      // The waiting coroutine was cancelled; handled below.
    }

    switch (contest->winner.load()) {
      case task:
        co_return TimeoutResult<T>{state->takeResult()};
      case clock:
        co_return TimeoutResult<T>{};
      default:
        break;
    }
    // Nobody won: the waiting coroutine itself was cancelled, and the task goes with it.
    asio::post(strand, [contest] {
      int expected = none;
      if (!contest->winner.compare_exchange_strong(expected, clock)) return;
      contest->stopWaiting.emit(asio::cancellation_type::terminal);
      contest->deadline.cancel();
    });
    cancel();
    throw boost::system::system_error(asio::error::operation_aborted);
  }

 private:
  using State = detail::TaskState<T>;

  explicit Task(std::shared_ptr<State> state) : state_(std::move(state)) {}

  static boost::asio::awaitable<void> run(boost::asio::awaitable<T> body,
                                          std::shared_ptr<State> state) {
    std::optional<Result<T>> outcome;
    try {
      if constexpr (std::is_void_v<T>) {
        co_await std::move(body);
        outcome.emplace(Result<T>::success());
      } else {
        outcome.emplace(Result<T>::success(co_await std::move(body)));
      }
    } catch (...) {
      outcome.emplace(Result<T>::failure(std::current_exception()));
    }
    state->finish(std::move(*outcome));
  }

  std::shared_ptr<State> state_;
};

}  // namespace core
