#pragma once
/// A small downloader for notification media: loads merged per URL, priorities, fetch
/// policies over the session's URL cache, and a step that saves what arrived to a file.
///
///   auto client = rich_push::AssetsClient::live(rich_push::url_session::uncached(),
///                                               rich_push::mainQueue());
///   auto cancel = client.file("https://cdn.test/clip.mp4",
///                             platform::fileURL(dir) + "/",  // a directory: named by digest
///                             rich_push::AssetsClient::Priority::userInitiated,
///                             rich_push::AssetsClient::FetchPolicy::standard,
///                             [](const rich_push::Result<std::string>& saved) {
///                               if (saved.ok()) use(saved.value());  // a file URL
///                             });
///
/// Completions run on the result queue given to `live`, never inside the call that started
/// the load. A caller that cancels is not called back.

#include <chrono>
#include <cstddef>
#include <exception>
#include <functional>
#include <memory>
#include <optional>
#include <stdexcept>
#include <string>

#include "platform/url_loading.hpp"

namespace rich_push {

/// A value or the error that stands in its place.
template <class T>
class Result {
 public:
  static Result success(T value) { return Result(std::move(value), nullptr); }
  static Result failure(std::exception_ptr error) { return Result(std::nullopt, error); }
  template <class E>
  static Result failure(E error) {
    return failure(std::make_exception_ptr(std::move(error)));
  }

  bool ok() const { return error_ == nullptr; }
  /// The value; rethrows the error of a failure.
  const T& value() const {
    if (error_) std::rethrow_exception(error_);
    return *value_;
  }
  std::exception_ptr error() const { return error_; }
  /// The error's message (its `what()`); empty for a success.
  std::string errorDescription() const;

 private:
  Result(std::optional<T> value, std::exception_ptr error)
      : value_(std::move(value)), error_(error) {}
  std::optional<T> value_;
  std::exception_ptr error_;
};

/// Where completions are delivered: takes a block and runs it later, on its own thread.
using ResultQueue = std::function<void(std::function<void()>)>;
/// The platform's main queue as a result queue.
ResultQueue mainQueue();

struct AssetsClient {
  enum class Priority { background, userInitiated };
  enum class FetchPolicy { standard, cacheOnly, cacheElseLoad };
  class Error;
  class Live;

  using Cancel = std::function<void()>;
  using FileCompletion = std::function<void(const Result<std::string>& fileURL)>;
  using DataCompletion = std::function<void(const Result<platform::DataResult>&)>;
  /// A load stops with `url_error::dataLengthExceedsMaximum` as soon as its body passes this.
  using ByteLimit = std::optional<std::size_t>;

  /// Loads `url` and saves the body. A `destinationURL` (a file URL) ending in "/" names a
  /// directory: the file is named by the digest of `url`, with the URL's extension or else
  /// the response's content type's. Any other destination is the file itself. Directories
  /// are created. An HTTP status outside 200…299 is a failure and nothing is written.
  std::function<Cancel(const std::string& url, const std::string& destinationURL, Priority,
                       FetchPolicy, ByteLimit, FileCompletion)>
      getFile;
  /// Loads `url`; the response may carry any HTTP status.
  std::function<Cancel(const std::string& url, Priority, FetchPolicy, ByteLimit, DataCompletion)>
      getData;
  /// Drops the cached response of `url`.
  std::function<void(const std::string& url)> remove;
  /// Empties the cache.
  std::function<void()> removeAll;

  Cancel file(const std::string& url, const std::string& destinationURL, Priority priority,
              FetchPolicy fetchPolicy, FileCompletion completion, ByteLimit maxBytes = {}) const {
    return getFile(url, destinationURL, priority, fetchPolicy, maxBytes, std::move(completion));
  }
  Cancel data(const std::string& url, Priority priority, FetchPolicy fetchPolicy,
              DataCompletion completion, ByteLimit maxBytes = {}) const {
    return getData(url, priority, fetchPolicy, maxBytes, std::move(completion));
  }

  /// A client over one `Live` instance that loads through `session` and delivers on
  /// `resultQueue`. `timeout` is the idle time-out of each request.
  static AssetsClient live(std::shared_ptr<platform::URLSession> session, ResultQueue resultQueue,
                           std::chrono::milliseconds timeout = std::chrono::seconds(60));
  /// The same over a `Live` instance the caller keeps (to look at what is in flight).
  static AssetsClient live(std::shared_ptr<Live> instance);
};

/// 0.5 for background, 1.0 for userInitiated.
float rawValue(AssetsClient::Priority priority);
/// Exactly 0.5 and 1.0 name a priority; anything else is none.
std::optional<AssetsClient::Priority> priorityFromRawValue(float rawValue);
/// standard: the protocol's policy; cacheOnly: cached data, never load; cacheElseLoad: cached
/// data, else load.
platform::CachePolicy cachePolicy(AssetsClient::FetchPolicy policy);

class AssetsClient::Error : public std::runtime_error {
 public:
  enum class Code { noCacheData };
  explicit Error(Code code);
  Code code() const { return code_; }

 private:
  Code code_;
};

/// Sessions for the client: one without a URL cache, and one with a named cache of its own
/// (memory, and disk under the caches directory in a folder called `name`).
namespace url_session {
std::shared_ptr<platform::URLSession> uncached(
    platform::URLSessionConfiguration configuration = {});
/// Throws `std::invalid_argument` when `name` is not a single folder name.
std::shared_ptr<platform::URLSession> cached(const std::string& name,
                                             platform::URLSessionConfiguration configuration,
                                             std::size_t memoryCapacity, std::size_t diskCapacity);
}  // namespace url_session

template <class T>
std::string Result<T>::errorDescription() const {
  if (!error_) return {};
  try {
    std::rethrow_exception(error_);
  } catch (const std::exception& e) {
    return e.what();
  } catch (...) {
    return "unknown error";
  }
}

}  // namespace rich_push
