#pragma once
// Trouble on request: query parameters that make any answer of the sandbox slow, wrong or
// cut short, so that clients can be tested against a misbehaving service. Rules set ahead of
// time reach the requests whose URL a test cannot change (every query and mutation of the
// inbox goes to the one URL /inbox/q).

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <chrono>
#include <cstddef>
#include <cstdint>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "http.hpp"

namespace sandbox {

struct Trouble {
  /// delay=SECONDS: wait this long before answering at all.
  std::chrono::milliseconds delay{0};
  /// stall=SECONDS: send the status line and headers, then wait this long before the body.
  std::chrono::milliseconds stall{0};
  /// status=CODE: answer with this status instead of the route's.
  std::optional<int> status;
  /// truncate=BYTES: announce the whole body, send only this many bytes of it, then close.
  std::optional<std::size_t> truncate;
};

/// Reads the trouble parameters of `request`; throws BadRequest for a malformed value.
Trouble troubleFrom(const Request& request);

/// Trouble for the next requests to one path whose body holds a text, set ahead of time. Each
/// key the rule sets wins over the request's own parameter of that name.
struct TroubleRule {
  std::string path;                     ///< the request's path, exactly, without the query
  std::optional<std::string> contains;  ///< a text the request's body must hold
  std::optional<std::chrono::milliseconds> delay, stall;
  std::optional<int> status;
  std::optional<std::size_t> truncate;
  std::optional<std::uint64_t> times;  ///< requests still to take it; none: until cleared

  /// Reads {"path", "contains"?, "delay"?, "stall"?, "status"?, "truncate"?, "times"? (1 by
  /// default) or "always": true}; throws BadRequest saying what is wrong, also for a rule
  /// that makes no trouble or that could never match.
  static TroubleRule fromJSON(const boost::json::object& object);
  /// The same keys, "times" being those left ("always": true instead when there is no end).
  boost::json::object toJSON() const;
  bool matches(const Request& request) const;
  /// `trouble` with this rule's keys put over it.
  Trouble over(Trouble trouble) const;
};

/// The pending rules, shared by every connection.
class TroubleRules {
 public:
  /// Returns how many rules are pending now.
  std::size_t add(TroubleRule rule);
  /// The request's own trouble under the first pending rule that matches it (in the order
  /// they were added), which is used up by one time; requests under /_sandbox/ match none.
  Trouble apply(const Request& request, Trouble own);
  /// [rule.toJSON(), ...] in the order they are tried.
  boost::json::array list() const;
  void clear();

 private:
  mutable std::mutex mutex_;
  std::vector<TroubleRule> rules_;
};

}  // namespace sandbox
