#pragma once
// What the command tells a person (or a script, with --json): results on standard output,
// errors and log lines on standard error, and the exit status that goes with each error.

#include <boost/json/object.hpp>
#include <cstdio>
#include <exception>
#include <optional>
#include <stdexcept>
#include <string>
#include <string_view>

#include "platform/system_log.hpp"

namespace cli {

/// Writes `line` and a line end in one write, then flushes: log lines come from other
/// threads while the main thread reports, and a line must not be split between them.
void writeLine(std::FILE* stream, std::string line);

/// Text from the service on one line of the terminal: a line break or another control
/// character in it would pass for a line of our own, so each becomes a space.
std::string oneLine(std::string_view text);

/// The exit status every command shares.
enum ExitStatus : int {
  success = 0,
  /// The service refused a request.
  refused = 1,
  /// The command line or one of its values is wrong.
  usage = 2,
  /// The service could not be reached, or did not answer in time.
  unreachable = 3,
  /// A file of the configuration folder could not be read or written.
  storage = 4,
};

/// A wrong command line or value; the message says what is wrong and how to get it right.
struct UsageError : std::runtime_error {
  using std::runtime_error::runtime_error;
};

/// An error as it is reported: code (none when there is none to give), message and type.
struct Failure {
  std::optional<long> code;
  std::string message;
  std::optional<std::string> type;
  ExitStatus status = refused;

  /// Sorts what a library call threw: a `HeraldError` with a negative code or a URL-loading
  /// `platform::Error` could not reach the service; a user-defaults error is the
  /// configuration folder's; any other `HeraldError` is the service's refusal.
  static Failure from(std::exception_ptr error);
  static Failure usageError(std::string message);
  static Failure storageError(std::string message);
};

class Reporter {
 public:
  explicit Reporter(bool json) : json_(json) {}

  bool json() const { return json_; }

  /// One result: `text` for a person, or `fields` as one JSON line.
  void result(std::string_view text, const boost::json::object& fields) const;
  /// A note for a person that is no result (text mode only; JSON output stays results).
  void note(std::string_view text) const;
  /// One error on standard error: "herald: <context>: <message> (code, type)", or the JSON
  /// line {"error": {"code", "message", "type"}} with `extra` beside "error".
  void failure(const Failure& failure, std::string_view context = {},
               const boost::json::object& extra = {}) const;

  /// A system-log sink for this output: error and fault lines always, debug and info lines
  /// only when `everything` (--show-logs). Text lines read "subsystem[category] level:
  /// message"; JSON lines are {"log": {"subsystem", "category", "level", "message"}}.
  platform::LogSink logSink(bool everything) const;

 private:
  bool json_;
};

}  // namespace cli
