#include "platform/executor.hpp"

#include <boost/asio/thread_pool.hpp>

#include <condition_variable>
#include <memory>
#include <mutex>

#include "platform/system_log.hpp"

namespace platform {
namespace {

struct Tasks {
  std::mutex mutex;
  std::condition_variable idle;
  std::size_t running = 0;
  std::shared_ptr<const std::function<void()>> observer;
};

Tasks& tasks() {
  static Tasks* t = new Tasks();
  return *t;
}

}  // namespace

boost::asio::any_io_executor sharedExecutor() {
  // Never destroyed: detached tasks may outlive main's locals; the process exit ends them.
  // Made at the first task, not before. Two threads: the tasks here wait on the network far
  // more than they compute, and an extension's process pays for each thread it starts (its
  // stack, its own malloc arena, a clone) when it may live for a single notification.
  static boost::asio::thread_pool* pool = new boost::asio::thread_pool(2);
  return pool->get_executor();
}

namespace detail {

void taskStarted() {
  std::lock_guard lock(tasks().mutex);
  ++tasks().running;
}

void taskFinished(std::exception_ptr error) {
  if (error) {
    try {
      std::rethrow_exception(error);
    } catch (const std::exception& e) {
      SystemLog("platform", "tasks").error(std::string("detached task failed: ") + e.what());
    } catch (...) {
      SystemLog("platform", "tasks").error("detached task failed with an unknown exception");
    }
  }
  std::shared_ptr<const std::function<void()>> observer;
  {
    std::lock_guard lock(tasks().mutex);
    if (--tasks().running != 0) return;
    tasks().idle.notify_all();
    observer = tasks().observer;
  }
  // Outside the lock: the observer may well ask how many tasks are running.
  if (observer && *observer) (*observer)();
}

}  // namespace detail

std::size_t runningTasks() {
  std::lock_guard lock(tasks().mutex);
  return tasks().running;
}

void setIdleObserver(std::function<void()> observer) {
  auto shared = std::make_shared<const std::function<void()>>(std::move(observer));
  std::lock_guard lock(tasks().mutex);
  tasks().observer = std::move(shared);
}

bool waitForIdle(std::chrono::steady_clock::duration limit) {
  std::unique_lock lock(tasks().mutex);
  return tasks().idle.wait_for(lock, limit, [] { return tasks().running == 0; });
}

}  // namespace platform
