#include "rich_push/assets_client.hpp"

#include "platform/main_queue.hpp"
#include "platform/paths.hpp"
#include "platform/url_cache.hpp"
#include "rich_push/assets_live.hpp"

namespace rich_push {

ResultQueue mainQueue() {
  return [](std::function<void()> block) { platform::MainQueue::shared().post(std::move(block)); };
}

float rawValue(AssetsClient::Priority priority) {
  return priority == AssetsClient::Priority::userInitiated ? 1.0f : 0.5f;
}

std::optional<AssetsClient::Priority> priorityFromRawValue(float rawValue) {
  if (rawValue == 0.5f) return AssetsClient::Priority::background;
  if (rawValue == 1.0f) return AssetsClient::Priority::userInitiated;
  return std::nullopt;
}

platform::CachePolicy cachePolicy(AssetsClient::FetchPolicy policy) {
  switch (policy) {
    case AssetsClient::FetchPolicy::cacheOnly:
      return platform::CachePolicy::returnCacheDataDontLoad;
    case AssetsClient::FetchPolicy::cacheElseLoad:
      return platform::CachePolicy::returnCacheDataElseLoad;
    case AssetsClient::FetchPolicy::standard:
      break;
  }
  return platform::CachePolicy::useProtocolCachePolicy;
}

AssetsClient::Error::Error(Code code)
    : std::runtime_error("The asset is not in the cache."), code_(code) {}

AssetsClient AssetsClient::live(std::shared_ptr<platform::URLSession> session,
                                ResultQueue resultQueue, std::chrono::milliseconds timeout) {
  return live(Live::make(std::move(session), std::move(resultQueue), timeout));
}

AssetsClient AssetsClient::live(std::shared_ptr<Live> instance) {
  AssetsClient client;
  client.getFile = [instance](const std::string& url, const std::string& destinationURL,
                              Priority priority, FetchPolicy fetchPolicy, ByteLimit maxBytes,
                              FileCompletion completion) {
    return instance->getFile(url, destinationURL, priority, fetchPolicy, maxBytes,
                             std::move(completion));
  };
  client.getData = [instance](const std::string& url, Priority priority, FetchPolicy fetchPolicy,
                              ByteLimit maxBytes, DataCompletion completion) {
    return instance->getData(url, priority, fetchPolicy, maxBytes, std::move(completion));
  };
  client.remove = [instance](const std::string& url) { instance->remove(url); };
  client.removeAll = [instance] { instance->removeAll(); };
  return client;
}

namespace url_session {

std::shared_ptr<platform::URLSession> uncached(platform::URLSessionConfiguration configuration) {
  configuration.urlCache = nullptr;
  return std::make_shared<platform::URLSession>(std::move(configuration));
}

std::shared_ptr<platform::URLSession> cached(const std::string& name,
                                             platform::URLSessionConfiguration configuration,
                                             std::size_t memoryCapacity, std::size_t diskCapacity) {
  // The name becomes a folder of the caches directory and must stay one.
  if (name.empty() || name == "." || name == ".." ||
      name.find_first_of(std::string_view("/\\\0", 3)) != std::string::npos)
    throw std::invalid_argument("A URL cache name must be a single folder name, not \"" + name +
                                "\"");
  const auto root = platform::cachesDirectory().value_or(platform::temporaryDirectory());
  configuration.urlCache =
      std::make_shared<platform::PersistentURLCache>(memoryCapacity, diskCapacity, root / name);
  return std::make_shared<platform::URLSession>(std::move(configuration));
}

}  // namespace url_session
}  // namespace rich_push
