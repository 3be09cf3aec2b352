#pragma once
/// An actor: state that only one strand touches. Each public operation of an actor class
/// runs its body through `run`, which hops onto the actor's strand and hands the result back
/// to the caller's executor; `exclusive` also keeps every other exclusive body of the same
/// actor out until it ends, across its suspensions (a sign-in that awaits the network is not
/// interleaved with a sign-out).
///
///   class Counter {
///    public:
///     boost::asio::awaitable<int> next() {
///       return actor_.run([this]() -> boost::asio::awaitable<int> { co_return ++count_; });
///     }
///    private:
///     platform::Actor actor_;
///     int count_ = 0;  // touched on actor_'s strand only
///   };
///
/// An exclusive body must not await another exclusive body of its own actor (it would wait
/// for itself); call the unguarded inner function instead.

#include <boost/asio/any_completion_handler.hpp>
#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/async_result.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/post.hpp>
#include <boost/asio/strand.hpp>
#include <boost/asio/use_awaitable.hpp>
#include <deque>
#include <memory>
#include <type_traits>
#include <utility>

#include "platform/executor.hpp"

namespace platform {

class Actor {
 public:
  using Strand = boost::asio::strand<boost::asio::any_io_executor>;

  explicit Actor(boost::asio::any_io_executor executor = sharedExecutor())
      : gate_(std::make_shared<Gate>(boost::asio::make_strand(std::move(executor)))) {}

  const Strand& strand() const { return gate_->strand; }
  /// True while the calling thread runs a handler of this actor's strand.
  bool isCurrent() const { return gate_->strand.running_in_this_thread(); }

  /// Runs `body()` (a callable returning `awaitable<T>`) on the strand.
  template <class Body>
  auto run(Body body) -> std::invoke_result_t<Body> {
    return boost::asio::co_spawn(gate_->strand, std::move(body), boost::asio::use_awaitable);
  }

  /// Runs `body()` on the strand once no other exclusive body of this actor is running.
  template <class Body>
  auto exclusive(Body body) -> std::invoke_result_t<Body> {
    return run([gate = gate_, body = std::move(body)]() mutable -> std::invoke_result_t<Body> {
      co_await gate->enter();
      Leave leave{gate};
      co_return co_await body();
    });
  }

 private:
  struct Gate {
    explicit Gate(Strand s) : strand(std::move(s)) {}
    Strand strand;
    bool busy = false;                                                  // strand only
    std::deque<boost::asio::any_completion_handler<void()>> waiting;  // strand only

    // Called on the strand.
    boost::asio::awaitable<void> enter() {
      if (!busy) {
        busy = true;
        co_return;
      }
      co_await boost::asio::async_initiate<decltype(boost::asio::use_awaitable), void()>(
          [this](auto handler) { waiting.emplace_back(std::move(handler)); },
          boost::asio::use_awaitable);
    }
    // Called on the strand; the next waiter inherits `busy`.
    void leave() {
      if (waiting.empty()) {
        busy = false;
        return;
      }
      auto next = std::move(waiting.front());
      waiting.pop_front();
      boost::asio::post(strand, std::move(next));
    }
  };
  struct Leave {
    std::shared_ptr<Gate> gate;
    ~Leave() { gate->leave(); }
  };

  std::shared_ptr<Gate> gate_;
};

}  // namespace platform
