#pragma once
// Every request the sandbox received, so that tests and the demo can see exactly what a
// client sent, and when.

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <chrono>
#include <cstdint>
#include <mutex>

#include "http.hpp"

namespace sandbox {

class Journal {
 public:
  using Clock = std::chrono::steady_clock;
  /// Names an entry for answered(); one that clear() forgot names nothing.
  using EntryId = std::uint64_t;

  /// Keeps the request with "received": milliseconds from the journal's start (the
  /// sandbox's) to `received`.
  EntryId record(const Request& request, Clock::time_point received);
  /// Adds "answered" (milliseconds, as "received") and "status" to the request's entry;
  /// nothing when the entry has been cleared since.
  void answered(EntryId entry, int status, Clock::time_point at);
  /// Keeps an entry of another kind (a WebSocket frame) in its place among the requests.
  void record(boost::json::object entry);
  /// [{"method", "path" (with query, as sent), "headers": [[name, value], ...], "body",
  ///   "received", "answered"?, "status"?}, ...]
  boost::json::array entries() const;
  /// Forgets every request; returns how many there were.
  std::size_t clear();

 private:
  double sinceStart(Clock::time_point at) const;

  const Clock::time_point start_ = Clock::now();
  mutable std::mutex mutex_;
  boost::json::array entries_;
  EntryId firstId_ = 0;  ///< the id of entries_[0]: ids go on counting across clear()
};

}  // namespace sandbox
