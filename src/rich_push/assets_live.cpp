#include "rich_push/assets_live.hpp"

#include <boost/asio/post.hpp>
#include <boost/url/parse.hpp>
#include <cerrno>
#include <cstring>
#include <filesystem>
#include <fstream>

#include "platform/executor.hpp"
#include "platform/paths.hpp"
#include "rich_push/utils.hpp"

namespace rich_push {
namespace {

using platform::url_error::domain;

// The query item by which a URL asks to bypass every cache.
bool disablesCaching(const std::string& url) {
  auto parsed = boost::urls::parse_uri_reference(url);
  if (!parsed) return false;
  for (const auto& param : parsed->params())
    if (param.has_value && param.key == "cache" && param.value == "false") return true;
  return false;
}

std::string extensionForContentType(const std::string& mimeType) {
  static constexpr std::pair<std::string_view, std::string_view> kTable[] = {
      {"image/gif", "gif"},       {"image/jpeg", "jpg"},     {"image/png", "png"},
      {"image/svg+xml", "svg"},   {"text/javascript", "js"}, {"text/css", "css"},
      {"text/html", "html"},      {"font/otf", "otf"},       {"font/ttf", "ttf"},
      {"font/woff", "woff"},      {"font/woff2", "woff2"},   {"application/json", "json"},
      {"application/zip", "zip"},
  };
  for (const auto& [type, extension] : kTable)
    if (mimeType == type) return std::string(extension);
  return {};
}

platform::Error fileError(std::string description, const std::string& url) {
  boost::json::object info;
  info["NSErrorFailingURLStringKey"] = url;
  return platform::Error(domain, platform::url_error::cannotWriteToFile, std::move(description),
                         std::move(info));
}

Result<std::string> saveToFile(const Result<platform::DataResult>& loaded,
                               const std::string& sourceURL, const std::string& destinationURL) {
  if (!loaded.ok()) return Result<std::string>::failure(loaded.error());
  const auto& [data, response] = loaded.value();
  // An error page is not the asset: saving it would put HTML where a picture belongs.
  if (response.statusCode && (*response.statusCode < 200 || *response.statusCode > 299)) {
    boost::json::object info;
    info["NSErrorFailingURLStringKey"] = sourceURL;
    info["statusCode"] = *response.statusCode;
    return Result<std::string>::failure(platform::Error(
        domain, platform::url_error::badServerResponse,
        "The server answered HTTP " + std::to_string(*response.statusCode) + " for " + sourceURL,
        std::move(info)));
  }
  const auto destination = platform::pathFromFileURL(destinationURL);
  if (!destination || destination->empty())
    return Result<std::string>::failure(
        fileError("The destination is not a file URL: " + destinationURL, sourceURL));

  const bool isDirectory = destinationURL.ends_with('/');
  const auto directory = isDirectory ? *destination : destination->parent_path();
  std::error_code ec;
  std::filesystem::create_directories(directory, ec);
  if (ec)
    return Result<std::string>::failure(fileError(
        "Cannot create the folder " + directory.string() + ": " + ec.message(), sourceURL));

  std::filesystem::path file = *destination;
  if (isDirectory) {
    auto name = sha256Hex(sourceURL);
    auto extension = platform::pathExtension(sourceURL);
    if (extension.empty()) extension = extensionForContentType(response.mimeType());
    if (!extension.empty()) name += "." + extension;
    file = directory / name;
  }

  // Written aside and renamed: two callers saving to one file never interleave, and a reader
  // never sees half a file.
  const auto temporary =
      directory / ("." + file.filename().string() + ".part-" + platform::newUUID());
  std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
  out.write(data.data(), static_cast<std::streamsize>(data.size()));
  out.close();
  const int writeErrno = errno;
  if (!out) {
    std::filesystem::remove(temporary, ec);
    return Result<std::string>::failure(
        fileError("Cannot write " + file.string() + ": " + std::strerror(writeErrno), sourceURL));
  }
  std::filesystem::rename(temporary, file, ec);
  if (ec) {
    std::error_code ignored;
    std::filesystem::remove(temporary, ignored);
    return Result<std::string>::failure(
        fileError("Cannot write " + file.string() + ": " + ec.message(), sourceURL));
  }
  return Result<std::string>::success(platform::fileURL(file));
}

}  // namespace

std::size_t AssetsClient::Live::KeyHash::operator()(const TaskKey& key) const {
  auto h = std::hash<std::string>{}(key.url);
  h ^= std::hash<int>{}(static_cast<int>(key.fetchPolicy)) + 0x9e3779b9 + (h << 6) + (h >> 2);
  if (key.maxBytes) h ^= std::hash<std::size_t>{}(*key.maxBytes) + 0x9e3779b9 + (h << 6) + (h >> 2);
  return h;
}

AssetsClient::Live::Live(std::shared_ptr<platform::URLSession> session, ResultQueue resultQueue,
                         std::chrono::milliseconds timeout)
    : session_(std::move(session)), resultQueue_(std::move(resultQueue)), timeout_(timeout) {}

std::shared_ptr<AssetsClient::Live> AssetsClient::Live::make(
    std::shared_ptr<platform::URLSession> session, ResultQueue resultQueue,
    std::chrono::milliseconds timeout) {
  if (!session) throw std::invalid_argument("AssetsClient::Live needs a URL session");
  if (!resultQueue) throw std::invalid_argument("AssetsClient::Live needs a result queue");
  return std::shared_ptr<Live>(new Live(std::move(session), std::move(resultQueue), timeout));
}

AssetsClient::Live::~Live() {
  std::vector<std::shared_ptr<platform::DataTask>> running;
  {
    std::lock_guard guard(lock_);
    for (auto& [key, entry] : inFlight_) running.push_back(entry.task);
    inFlight_.clear();
  }
  for (auto& task : running) task->cancel();
}

AssetsClient::Cancel AssetsClient::Live::getData(const std::string& url, Priority priority,
                                                 FetchPolicy fetchPolicy, ByteLimit maxBytes,
                                                 DataCompletion completion) {
  return load(url, priority, fetchPolicy, maxBytes,
              [queue = resultQueue_, completion = std::move(completion)](Shared outcome) {
                queue([completion, outcome] { completion(*outcome); });
              });
}

AssetsClient::Cancel AssetsClient::Live::getFile(const std::string& url,
                                                 const std::string& destinationURL,
                                                 Priority priority, FetchPolicy fetchPolicy,
                                                 ByteLimit maxBytes, FileCompletion completion) {
  return load(url, priority, fetchPolicy, maxBytes,
              [queue = resultQueue_, url, destinationURL,
               completion = std::move(completion)](Shared outcome) {
                // Disk writes stay off both the loader's thread and the result queue.
                boost::asio::post(platform::sharedExecutor(), [=] {
                  auto saved = saveToFile(*outcome, url, destinationURL);
                  queue([completion, saved = std::move(saved)] { completion(saved); });
                });
              });
}

void AssetsClient::Live::remove(const std::string& url) {
  if (const auto& cache = session_->configuration().urlCache) {
    platform::URLRequest request;
    request.url = url;
    cache->removeCachedResponse(request);
  }
}

void AssetsClient::Live::removeAll() {
  if (const auto& cache = session_->configuration().urlCache) cache->removeAllCachedResponses();
}

std::size_t AssetsClient::Live::inFlightCount() const {
  std::lock_guard guard(lock_);
  return inFlight_.size();
}

std::optional<float> AssetsClient::Live::inFlightPriority(const TaskKey& key) const {
  std::lock_guard guard(lock_);
  auto it = inFlight_.find(key);
  if (it == inFlight_.end()) return std::nullopt;
  return it->second.task->priority();
}

AssetsClient::Cancel AssetsClient::Live::load(const std::string& url, Priority priority,
                                              FetchPolicy fetchPolicy, ByteLimit maxBytes,
                                              Waiter waiter) {
  TaskKey key{url, fetchPolicy, maxBytes};
  const auto waiterId = platform::newUUID();
  const float raw = rawValue(priority);
  std::shared_ptr<platform::DataTask> started;
  std::uint64_t entryId = 0;
  {
    std::lock_guard guard(lock_);
    if (auto it = inFlight_.find(key); it != inFlight_.end()) {
      auto& entry = it->second;
      if (raw > entry.task->priority()) entry.task->setPriority(raw);
      entry.waiters.emplace_back(waiterId, std::move(waiter));
      return cancelFor(key, entry.id, waiterId);
    }
    if (platform::isValidURL(url)) {
      auto request = platform::URLRequest::make(url);
      request.timeout = timeout_;
      request.cachePolicy = cachePolicy(fetchPolicy);
      request.priority = raw;
      request.maxResponseBytes = maxBytes;
      if (disablesCaching(url)) {
        request.cachePolicy = platform::CachePolicy::reloadIgnoringLocalAndRemoteCacheData;
        // Caches between us and the server must not answer either.
        request.addValue("no-cache", "Cache-Control");
      }
      entryId = nextEntryId_++;
      started = session_->dataTask(
          std::move(request), [weak = weak_from_this(), key, entryId](
                                  std::string data, std::optional<platform::URLResponse> response,
                                  std::optional<platform::Error> error) {
            if (auto self = weak.lock())
              self->finished(key, entryId, std::move(data), std::move(response), std::move(error));
          });
      Entry entry{entryId, started, {}};
      entry.waiters.emplace_back(waiterId, std::move(waiter));
      inFlight_.emplace(key, std::move(entry));
    }
  }
  if (!started) {
    waiter(std::make_shared<const Result<platform::DataResult>>(
        Result<platform::DataResult>::failure(platform::invalidURLError())));
    return [] {};
  }
  // Outside the lock: a cache answer completes the task inside `resume`.
  started->resume();
  return cancelFor(key, entryId, waiterId);
}

AssetsClient::Cancel AssetsClient::Live::cancelFor(const TaskKey& key, std::uint64_t entryId,
                                                   const std::string& waiterId) {
  return [weak = weak_from_this(), key, entryId, waiterId] {
    auto self = weak.lock();
    if (!self) return;
    std::shared_ptr<platform::DataTask> stop;
    {
      std::lock_guard guard(self->lock_);
      auto it = self->inFlight_.find(key);
      if (it == self->inFlight_.end() || it->second.id != entryId) return;
      auto& waiters = it->second.waiters;
      std::erase_if(waiters, [&](const auto& w) { return w.first == waiterId; });
      if (!waiters.empty()) return;
      stop = std::move(it->second.task);
      self->inFlight_.erase(it);
    }
    stop->cancel();
  };
}

void AssetsClient::Live::finished(const TaskKey& key, std::uint64_t entryId, std::string data,
                                  std::optional<platform::URLResponse> response,
                                  std::optional<platform::Error> error) {
  std::vector<std::pair<std::string, Waiter>> waiters;
  platform::URLRequest request;
  {
    std::lock_guard guard(lock_);
    auto it = inFlight_.find(key);
    if (it == inFlight_.end() || it->second.id != entryId) return;
    waiters = std::move(it->second.waiters);
    request = it->second.task->request();
    inFlight_.erase(it);
  }

  Shared outcome;
  if (response && !error) {
    platform::DataResult result{std::move(data), std::move(*response)};
    const auto& status = result.response.statusCode;
    const bool success = !status || (*status >= 200 && *status <= 299);
    // Only what the cache lacks is stored, so an answer that came from it is not rewritten;
    // error pages are never stored, or a passing outage would outlive itself.
    if (const auto& cache = session_->configuration().urlCache;
        cache && success && !cache->cachedResponse(request))
      cache->storeCachedResponse(result, request);
    outcome = std::make_shared<const Result<platform::DataResult>>(
        Result<platform::DataResult>::success(std::move(result)));
  } else {
    auto failure = error ? std::move(*error)
                         : platform::Error(domain, platform::url_error::unknown,
                                           "The load ended without a response or an error.");
    outcome = std::make_shared<const Result<platform::DataResult>>(
        Result<platform::DataResult>::failure(std::move(failure)));
  }
  for (auto& [id, waiter] : waiters) waiter(outcome);
}

}  // namespace rich_push
