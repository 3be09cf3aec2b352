#include "platform/executor.hpp"

#include <boost/asio/thread_pool.hpp>

#include <condition_variable>
#include <mutex>

#include "platform/system_log.hpp"

namespace platform {
namespace {

struct Tasks {
  std::mutex mutex;
  std::condition_variable idle;
  std::size_t running = 0;
};

Tasks& tasks() {
  static Tasks* t = new Tasks();
  return *t;
}

}  // namespace

boost::asio::any_io_executor sharedExecutor() {
  // Never destroyed: detached tasks may outlive main's locals; the process exit ends them.
  static boost::asio::thread_pool* pool = new boost::asio::thread_pool(4);
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
  std::lock_guard lock(tasks().mutex);
  if (--tasks().running == 0) tasks().idle.notify_all();
}

}  // namespace detail

std::size_t runningTasks() {
  std::lock_guard lock(tasks().mutex);
  return tasks().running;
}

bool waitForIdle(std::chrono::steady_clock::duration limit) {
  std::unique_lock lock(tasks().mutex);
  return tasks().idle.wait_for(lock, limit, [] { return tasks().running == 0; });
}

}  // namespace platform
