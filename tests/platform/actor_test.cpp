#include "platform/actor.hpp"

#include <gtest/gtest.h>

#include <boost/asio/detached.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/steady_timer.hpp>
#include <boost/asio/this_coro.hpp>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "platform/executor.hpp"

using boost::asio::awaitable;
using boost::asio::use_awaitable;
using namespace std::chrono_literals;

namespace {

awaitable<void> pause(std::chrono::milliseconds duration) {
  boost::asio::steady_timer timer(co_await boost::asio::this_coro::executor, duration);
  co_await timer.async_wait(use_awaitable);
}

template <class T>
bool ready(std::future<T>& f) {
  return f.wait_for(10s) == std::future_status::ready;
}

}  // namespace

TEST(Actor, RunGoesOntoTheStrandAndResumesTheCallerOnItsOwnExecutor) {
  platform::Actor actor;
  boost::asio::io_context caller;
  std::thread::id before, inside, after;
  bool insideOnStrand = false, afterOnStrand = true;
  int result = 0;
  std::string failure;
  boost::asio::co_spawn(
      caller,
      [&]() -> awaitable<void> {
        before = std::this_thread::get_id();
        result = co_await actor.run([&]() -> awaitable<int> {
          inside = std::this_thread::get_id();
          insideOnStrand = actor.isCurrent();
          co_return 42;
        });
        after = std::this_thread::get_id();
        afterOnStrand = actor.isCurrent();
        try {
          co_await actor.run([]() -> awaitable<void> {
            throw std::runtime_error("from the strand");
            co_return;
          });
        } catch (const std::runtime_error& e) {
          failure = e.what();
        }
      },
      boost::asio::detached);
  caller.run_for(10s);  // returns as soon as the coroutine is done

  EXPECT_EQ(result, 42);
  EXPECT_TRUE(insideOnStrand);
  EXPECT_NE(inside, before);  // a thread of the shared executor, not the caller's
  EXPECT_EQ(after, before);
  EXPECT_FALSE(afterOnStrand);
  EXPECT_EQ(failure, "from the strand");
}

TEST(Actor, ExclusiveBodiesNeverOverlapEvenWhenTheySuspend) {
  platform::Actor actor;
  std::vector<std::string> events;  // touched on the actor's strand only
  auto body = [&](std::string name) {
    return [&, name]() -> awaitable<void> {
      events.push_back("enter " + name);
      co_await pause(20ms);  // the strand is free meanwhile; the gate is not
      events.push_back("leave " + name);
    };
  };
  std::vector<std::future<void>> calls;
  for (const char* name : {"a", "b", "c"})
    calls.push_back(platform::spawnFuture(actor.exclusive(body(name))));
  for (auto& call : calls) ASSERT_TRUE(ready(call));

  ASSERT_EQ(events.size(), 6u);
  for (std::size_t i = 0; i < events.size(); i += 2) {
    ASSERT_EQ(events[i].rfind("enter ", 0), 0u) << events[i];
    EXPECT_EQ(events[i + 1], "leave " + events[i].substr(6)) << "bodies overlapped";
  }
}

TEST(Actor, AnExclusiveBodyThatThrowsLetsTheNextOneIn) {
  platform::Actor actor;
  std::promise<void> entered;
  auto failing = platform::spawnFuture(actor.exclusive([&]() -> awaitable<void> {
    entered.set_value();
    co_await pause(20ms);
    throw std::runtime_error("sign-in failed");
  }));
  auto enteredFuture = entered.get_future();
  ASSERT_TRUE(ready(enteredFuture));
  // Queued behind the failing body, which holds the gate.
  auto next = platform::spawnFuture(actor.exclusive([]() -> awaitable<int> { co_return 7; }));
  auto third = platform::spawnFuture(actor.exclusive([]() -> awaitable<int> { co_return 8; }));

  ASSERT_TRUE(ready(failing));
  EXPECT_THROW(failing.get(), std::runtime_error);
  ASSERT_TRUE(ready(next)) << "the gate stayed shut after the exception";
  EXPECT_EQ(next.get(), 7);
  ASSERT_TRUE(ready(third));
  EXPECT_EQ(third.get(), 8);
}
