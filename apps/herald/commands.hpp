#pragma once
// The commands of `herald`, over the client library. Each takes values that the command
// line has already checked and returns the exit status; what it has to say goes through the
// reporter.

#include <signal.h>

#include <boost/asio/awaitable.hpp>
#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "device_tokens.hpp"
#include "herald/herald_client.hpp"
#include "herald/preference_client.hpp"
#include "report.hpp"

namespace cli {

/// What every command works with.
struct Context {
  const Reporter& report;
  DeviceTokens& device;
  bool showLogs = false;
};

struct SignInRequest {
  std::string userId;
  std::optional<std::string> tenantId;
  /// Empty when only a client key is given.
  std::string accessToken;
  std::optional<std::string> clientKey;
  /// The platform's raw token (bytes), to keep and register.
  std::optional<std::string> apnsToken;
  /// (provider key, token) to keep and register.
  std::vector<std::pair<std::string, std::string>> tokens;
};

/// Keeps the given tokens on the device, signs the user in (which registers every token the
/// device has) and reports what each registration gave.
boost::asio::awaitable<int> signIn(SignInRequest request, Context& context);
/// Signs the user out; the device keeps its tokens for the next sign-in.
boost::asio::awaitable<int> signOut(Context& context);
/// Who is signed in, from the stored credentials.
int whoAmI(Context& context);

/// Keeps a provider's token on the device and, when a user is signed in, signs in again from
/// the stored credentials (as an application does at launch) and registers it.
boost::asio::awaitable<int> setToken(std::string providerKey, std::string token, Context& context);
/// The same for the platform's raw token.
boost::asio::awaitable<int> setAPNSToken(std::string rawToken, Context& context);
/// The device's token for a provider; no network.
int getToken(const std::string& providerKey, Context& context);

/// A session taken up again: the client, or none with `status` saying why (already reported).
struct Session {
  std::shared_ptr<herald::HeraldClient> client;
  int status = ExitStatus::success;
};

/// Signs in again from the stored credentials, as `token set` does (the device's tokens are
/// registered again; a refusal is reported and does not stop the caller). Throws
/// `HeraldError::noUserSignedIn()` when nobody is signed in.
boost::asio::awaitable<Session> resumeSession(Context& context);

/// While it lives, SIGINT and SIGTERM end the process at once with exit status 0: for the
/// steps before a long-running command's own loop (which handles them itself) that may wait
/// on a service that does not answer. Every line written so far is out already.
class EndOnSignal {
 public:
  EndOnSignal();
  ~EndOnSignal();
  EndOnSignal(const EndOnSignal&) = delete;
  EndOnSignal& operator=(const EndOnSignal&) = delete;

 private:
  struct sigaction interrupt_ {};
  struct sigaction terminate_ {};
};

/// What `herald inbox` is asked to do.
struct InboxRequest {
  enum class Kind { list, count, get, read, unread, open, archive, click, readAll };
  Kind kind = Kind::list;
  /// list: the archive instead of the feed.
  bool archived = false;
  /// list: the page size, 1…100 (none: the client's default).
  std::optional<long long> limit;
  /// list: the cursor of the page to fetch (none: the first page).
  std::optional<std::string> after;
  std::string messageId;
};

/// One inbox operation of the signed-in user, through a session taken up again. The live
/// inbox is loaded first (its socket closed at once: a command hears no news); its changes
/// go through the facade. `list --after` and `get` ask the GraphQL client instead.
int inbox(InboxRequest request, Context& context);

/// The account's brand: its primary colour and whether the service's footer shows.
boost::asio::awaitable<int> brand(std::string brandId, Context& context);

/// What `herald prefs` is asked to do.
struct PreferencesRequest {
  enum class Kind { list, get, set };
  Kind kind = Kind::list;
  /// list: every page, following the cursor, instead of the first.
  bool all = false;
  std::string topicId;
  /// set: the status and, when `channelsGiven`, the user's own channels (in any order).
  herald::HeraldUserPreferencesStatus status = herald::HeraldUserPreferencesStatus::optedIn;
  bool channelsGiven = false;
  std::vector<herald::HeraldUserPreferencesChannel> channels;
};

/// One preferences operation of the signed-in user, through a session taken up again.
boost::asio::awaitable<int> preferences(PreferencesRequest request, Context& context);

/// What `herald inbox watch` is asked to do.
struct WatchRequest {
  /// The socket's frames themselves instead of the live inbox.
  bool raw = false;
  /// Seconds between keep-alive messages (--raw only; the live inbox keeps its own).
  double keepAlive = 300;
};

/// The live inbox (or, with `raw`, `watchRawInbox`). Runs the main queue on the calling
/// (main) thread.
int watchInbox(const WatchRequest& request, Context& context);

/// Prints the signed-in user's realtime frames until SIGINT or SIGTERM (exit 0) or until the
/// connection ends (exit 3).
int watchRawInbox(const WatchRequest& request, Context& context);

/// Registers one listener with every callback and prints each call as a JSON line; runs the
/// commands given on standard input, one a line, each answered by a JSON line. Ends with
/// SIGINT or SIGTERM (exit 0); the end of the input does not end it.
int watchLiveInbox(const WatchRequest& request, Context& context);

/// What `herald ui` is asked to do.
struct ScreensRequest {
  std::string brandId;
  std::optional<long long> pageSize;
  std::string logFile;
  /// The global options given, to repeat in the sign-in command the screen shows.
  std::string endpoint, configDir;
};

/// The inbox and preferences screens for the signed-in user (signed in again from the stored
/// credentials first), until the user quits. Runs the main queue on the calling (main)
/// thread.
int screens(const ScreensRequest& request, Context& context);

}  // namespace cli
