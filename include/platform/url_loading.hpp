#pragma once
/// URL loading over libcurl: requests with ordered headers, a body, an idle time-out and a
/// priority hint; responses with the HTTP status (none for a non-HTTP load such as
/// `file://`); data tasks that can be cancelled; an awaitable and a blocking form.
///
///   auto request = platform::URLRequest::make("http://127.0.0.1:8080/track");
///   request.method = "POST";
///   request.addValue("application/json", "Content-Type");
///   request.body = R"({"event":"DELIVERED"})";
///   auto [data, response] = co_await platform::URLSession::shared().data(request);
///
/// Failures are `platform::Error` values in `url_error::domain` (time-out -1001, cannot
/// connect -1004, cancelled -999, …).
///
/// What a load promises the server:
/// - a request whose method is not safe to repeat (anything but GET, HEAD, PUT, DELETE,
///   OPTIONS) is sent at most once: when a kept-alive connection dies after the request may
///   have been read, the load fails with `networkConnectionLost` instead of sending it again;
/// - redirects are followed (at most 10), but a request other than GET and HEAD follows only
///   307 and 308, which keep the method and the body; a 301, 302 or 303, after which the
///   body would be dropped, fails with `badServerResponse` naming the status and the target.

#include <boost/asio/awaitable.hpp>
#include <chrono>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "platform/error.hpp"

namespace platform {

enum class CachePolicy {
  useProtocolCachePolicy,
  reloadIgnoringLocalCacheData,
  returnCacheDataElseLoad,
  returnCacheDataDontLoad,
  reloadIgnoringLocalAndRemoteCacheData,
};

using HeaderFields = std::vector<std::pair<std::string, std::string>>;

/// The body limit of a request that sets none: no load holds more than this in memory.
inline constexpr std::size_t kDefaultMaxResponseBytes = 64 << 20;

/// What happens when a body grows past `URLRequest::maxResponseBytes`.
enum class ResponseOverflow {
  fail,      ///< the load fails with `dataLengthExceedsMaximum`
  truncate,  ///< the load ends there and succeeds with the first bytes; the rest is discarded
};

struct URLRequest {
  std::string url;
  std::string method = "GET";
  HeaderFields headers;  ///< in the order added; sent exactly so
  std::optional<std::string> body;
  /// Idle time-out: the load fails when no byte arrives for this long.
  std::chrono::milliseconds timeout{60'000};
  CachePolicy cachePolicy = CachePolicy::useProtocolCachePolicy;
  /// Hint between 0 and 1; a running task's priority can be raised.
  float priority = 0.5f;
  /// The transfer stops as soon as the body grows past this; `responseOverflow` says what
  /// the caller then gets. None: no limit at all (only for a caller that streams nowhere
  /// near memory, which no caller here does).
  std::optional<std::size_t> maxResponseBytes = kDefaultMaxResponseBytes;
  ResponseOverflow responseOverflow = ResponseOverflow::fail;

  /// A request for `url`; throws `invalidURLError()` when the text is not a URL.
  static URLRequest make(std::string_view url);

  /// Adds a header field (never replaces one already there). Throws `platform::Error`
  /// (`url_error::badURL`) when the field or value holds CR, LF or NUL: such a value would
  /// put lines of its own into the request. A header put into `headers` directly is checked
  /// the same way when the load starts, and the load fails before anything is sent.
  void addValue(std::string value, std::string field);
  /// The first value of a header field, compared without case.
  std::optional<std::string> value(std::string_view field) const;
};

struct URLResponse {
  std::string url;
  /// None for a load that is not HTTP (a `file://` URL).
  std::optional<long> statusCode;
  HeaderFields headers;
  /// The body was cut at the request's limit (`ResponseOverflow::truncate`).
  bool truncated = false;
  std::optional<std::string> value(std::string_view field) const;
  /// The content type without parameters, lower-cased ("image/jpeg").
  std::string mimeType() const;
};

struct DataResult {
  std::string data;
  URLResponse response;
};

/// One load. Created suspended by `URLSession::dataTask`; `resume` starts it.
class DataTask {
 public:
  virtual ~DataTask() = default;
  virtual void resume() = 0;
  /// Stops the load; the completion is called with a `cancelled` error if it has not run.
  virtual void cancel() = 0;
  virtual void setPriority(float priority) = 0;
  virtual float priority() const = 0;
  virtual const URLRequest& request() const = 0;
};

/// A store of responses looked up by URL, with memory and disk capacities in bytes.
class URLCache {
 public:
  virtual ~URLCache() = default;
  virtual std::optional<DataResult> cachedResponse(const URLRequest& request) = 0;
  virtual void storeCachedResponse(const DataResult& response, const URLRequest& request) = 0;
  virtual void removeCachedResponse(const URLRequest& request) = 0;
  virtual void removeAllCachedResponses() = 0;
};

struct URLSessionConfiguration {
  std::shared_ptr<URLCache> urlCache;  ///< none: nothing is cached
  static URLSessionConfiguration defaultConfiguration();
};

using DataTaskCompletion =
    std::function<void(std::string data, std::optional<URLResponse>, std::optional<Error>)>;

class URLSession {
 public:
  explicit URLSession(URLSessionConfiguration configuration = {});
  ~URLSession();
  URLSession(const URLSession&) = delete;
  URLSession& operator=(const URLSession&) = delete;

  /// The process's shared session (no cache).
  static URLSession& shared();

  const URLSessionConfiguration& configuration() const { return configuration_; }

  /// A suspended task; `completion` runs once, on the session's own thread.
  std::shared_ptr<DataTask> dataTask(URLRequest request, DataTaskCompletion completion);

  /// Loads `request`; throws `platform::Error`. Cancelling the awaiting coroutine (through
  /// its cancellation slot) cancels the load.
  boost::asio::awaitable<DataResult> data(URLRequest request);

  /// Loads `request` and blocks the calling thread until it ends; throws `platform::Error`.
  DataResult dataSync(URLRequest request);

  struct Loader;  // the thread that drives libcurl; defined in the source file

 private:
  URLSessionConfiguration configuration_;
  std::shared_ptr<Loader> loader_;
};

}  // namespace platform
