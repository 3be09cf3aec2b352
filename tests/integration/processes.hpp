#pragma once
// Child processes and raw HTTP for the integration tests: the real programs from
// HERALD_BIN_DIR, run with bounded waits.

#include <sys/types.h>

#include <boost/json/array.hpp>
#include <boost/json/object.hpp>
#include <chrono>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "herald/inbox_module.hpp"

namespace integration {

using namespace std::chrono_literals;

/// Realtime options scaled down so losses are noticed and recovered from within a test.
inline herald::InboxConnectionOptions connectionOptions(std::chrono::milliseconds retryBase,
                                                        std::chrono::milliseconds retryCap,
                                                        std::chrono::milliseconds stablePeriod,
                                                        std::chrono::milliseconds deadPeer,
                                                        std::chrono::milliseconds handshake) {
  herald::InboxConnectionOptions options;
  options.retryBase = retryBase;
  options.retryCap = retryCap;
  options.stablePeriod = stablePeriod;
  options.socket.idleTimeout = deadPeer;
  options.socket.handshakeTimeout = handshake;
  return options;
}

/// HERALD_BIN_DIR/name
std::string program(const std::string& name);

struct Finished {
  int exitCode = -1;  ///< -1 when the process was killed at the time limit or by a signal
  std::string out;
  std::string err;
};

/// Runs argv to its end (killing it after `limit`), feeding `input` to its standard input.
Finished run(const std::vector<std::string>& argv, const std::string& input = {},
             std::chrono::milliseconds limit = 30s);

/// A program running in the background, its standard output and error going to files, for
/// commands that run until they are told to stop.
///
///   Background watch({program("herald"), "inbox", "watch", "--raw"});
///   ASSERT_TRUE(watch.waitForOutput("\"type\":\"message\""));
///   const auto finished = watch.stop(SIGINT);
class Background {
 public:
  /// With `withInput`, standard input is a pipe that `write` feeds; else /dev/null.
  explicit Background(const std::vector<std::string>& argv, bool withInput = false);
  /// Kills the program if it still runs.
  ~Background();
  Background(const Background&) = delete;
  Background& operator=(const Background&) = delete;

  std::string out() const;
  std::string err() const;
  /// Writes `text` to the program's standard input; false when it cannot take it whole.
  bool write(const std::string& text);
  /// Ends the program's standard input.
  void closeInput();
  /// Waits (at most `limit`) until standard output or error holds `text`.
  bool waitForOutput(const std::string& text, std::chrono::milliseconds limit = 10s) const;
  /// Sends `signal` (0: none) and waits (at most `limit`) for the program to end; killed
  /// at the limit.
  Finished stop(int signal, std::chrono::milliseconds limit = 10s);

 private:
  pid_t pid_ = -1;
  int input_ = -1;
  std::string outPath_, errPath_;
};

/// Non-empty lines of a text.
std::vector<std::string> lines(const std::string& text);

/// herald-sandbox running in the background for the life of the object.
class Sandbox {
 public:
  explicit Sandbox(const std::vector<std::string>& extraArgs = {});
  ~Sandbox();
  Sandbox(const Sandbox&) = delete;
  Sandbox& operator=(const Sandbox&) = delete;

  const std::string& url() const { return url_; }
  int port() const;
  /// The requests it received, from GET /_sandbox/requests.
  boost::json::array journal() const;
  /// Sends SIGTERM and returns the exit status (-1 if it had to be killed).
  int stop();
  /// Kills it with SIGKILL (its state goes with it) and starts it again on the same port.
  void killAndStartAgain();

 private:
  void launch(const std::string& port);

  std::vector<std::string> extraArgs_;
  pid_t pid_ = -1;
  std::string url_;
};

/// An HTTP answer: status and body.
struct Answer {
  long status = 0;
  std::string body;
  /// The body as a JSON object (throws when it is not one).
  boost::json::object object() const;
  /// A GraphQL answer's "data", and the message of its first error.
  boost::json::value data() const;
  std::string firstError() const;
};

using Headers = std::vector<std::pair<std::string, std::string>>;

/// One request through the client's URL loading; throws `platform::Error` when no answer
/// comes.
Answer call(const std::string& url, const std::string& method = "GET",
            std::optional<std::string> body = std::nullopt, const Headers& headers = {});

/// Sends `request` as written to 127.0.0.1:port and returns every byte received until the
/// server closes the connection (bounded by `limit`).
std::string rawExchange(int port, const std::string& request,
                        std::chrono::milliseconds limit = 10s);

}  // namespace integration
