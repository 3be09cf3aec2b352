#pragma once
#include <future>
#include <memory>
#include <type_traits>

namespace platform {

// The completion runs on the pool thread that finished the task. Asio's `use_future` would
// hand it to the system executor instead, whose static context can be torn down at exit
// while a pool thread (the pool lives for the whole process) still finishes a task.
template <class T>
std::future<T> spawnFuture(boost::asio::awaitable<T> task) {
  auto promise = std::make_shared<std::promise<T>>();
  auto future = promise->get_future();
  if constexpr (std::is_void_v<T>) {
    boost::asio::co_spawn(sharedExecutor(), std::move(task), [promise](std::exception_ptr error) {
      if (error)
        promise->set_exception(error);
      else
        promise->set_value();
    });
  } else {
    boost::asio::co_spawn(sharedExecutor(), std::move(task),
                          [promise](std::exception_ptr error, T value) {
                            if (error)
                              promise->set_exception(error);
                            else
                              promise->set_value(std::move(value));
                          });
  }
  return future;
}

template <class T>
T blockOn(boost::asio::awaitable<T> task) {
  return spawnFuture(std::move(task)).get();
}

}  // namespace platform
