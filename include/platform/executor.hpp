#pragma once
/// The shared executor: a small thread pool on which detached asynchronous tasks run (the
/// phone's cooperative pool). `spawnDetached` starts a task there and counts it, so that a
/// host can wait until no work of an extension is still running.
///
///   platform::spawnDetached([]() -> boost::asio::awaitable<void> { co_return; });
///   platform::waitForIdle(std::chrono::seconds(2));

#include <boost/asio/any_io_executor.hpp>
#include <boost/asio/awaitable.hpp>
#include <boost/asio/co_spawn.hpp>
#include <chrono>
#include <exception>
#include <functional>
#include <future>

namespace platform {

boost::asio::any_io_executor sharedExecutor();

namespace detail {
void taskStarted();
void taskFinished(std::exception_ptr error);
}  // namespace detail

/// Starts `task()` (a callable returning `awaitable<void>`) on the shared executor without
/// waiting for it. An escaping exception is written to the system log, never rethrown.
template <class Task>
void spawnDetached(Task task) {
  detail::taskStarted();
  boost::asio::co_spawn(sharedExecutor(), std::move(task),
                        [](std::exception_ptr error) { detail::taskFinished(error); });
}

/// Number of detached tasks that have started and not finished.
std::size_t runningTasks();
/// Blocks until no detached task is running or `limit` has passed; true when idle.
bool waitForIdle(std::chrono::steady_clock::duration limit);
/// Calls `observer` each time the last running detached task finishes, on that task's thread
/// and after the count dropped to zero; one observer per process, an empty one removes it.
/// A host that runs its own loop wakes it from here instead of polling `runningTasks()`.
///
///   platform::setIdleObserver([] { platform::MainQueue::shared().post([] {}); });
void setIdleObserver(std::function<void()> observer);

/// Starts `task` on the shared executor; the future holds its value or its exception.
///
///   auto page = platform::spawnFuture(client.fetchPage());
///   if (page.wait_for(5s) == std::future_status::ready) use(page.get());
template <class T>
std::future<T> spawnFuture(boost::asio::awaitable<T> task);

/// Runs `task` on the shared executor and blocks the caller until it ends; for programs and
/// tests that need an asynchronous result on a plain thread.
template <class T>
T blockOn(boost::asio::awaitable<T> task);

}  // namespace platform

#include "platform/internal/block_on.hpp"
