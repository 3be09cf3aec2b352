#pragma once
// Every request the sandbox received, so that tests and the demo can see exactly what a
// client sent.

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <mutex>

#include "http.hpp"

namespace sandbox {

class Journal {
 public:
  void record(const Request& request);
  /// Keeps an entry of another kind (a WebSocket frame) in its place among the requests.
  void record(boost::json::object entry);
  /// [{"method", "path" (with query, as sent), "headers": [[name, value], ...], "body"}, ...]
  boost::json::array entries() const;
  /// Forgets every request; returns how many there were.
  std::size_t clear();

 private:
  mutable std::mutex mutex_;
  boost::json::array entries_;
};

}  // namespace sandbox
