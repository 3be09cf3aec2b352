#pragma once
#include <boost/asio/co_spawn.hpp>
#include <boost/asio/use_future.hpp>

namespace platform {

template <class T>
T blockOn(boost::asio::awaitable<T> task) {
  auto future = boost::asio::co_spawn(sharedExecutor(), std::move(task), boost::asio::use_future);
  return future.get();
}

}  // namespace platform
