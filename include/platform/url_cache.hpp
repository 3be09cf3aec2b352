#pragma once
/// A URL cache with a memory tier and a disk tier, each within its own capacity in bytes and
/// each evicting its least recently used responses first. Responses are looked up by the
/// request's URL; the disk tier keeps status, headers and body, so a later process finds them.
///
///   auto cache = std::make_shared<platform::PersistentURLCache>(
///       4 << 20, 64 << 20, *platform::cachesDirectory() / "thumbnails");
///   platform::URLSessionConfiguration configuration;
///   configuration.urlCache = cache;
///   platform::URLSession session(configuration);

#include <cstddef>
#include <filesystem>
#include <list>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>

#include "platform/url_loading.hpp"

namespace platform {

class PersistentURLCache : public URLCache {
 public:
  /// `directory` is created when the first response is stored; what an earlier instance
  /// left there is found again (and trimmed to this capacity). A disk capacity of 0 keeps
  /// nothing on disk.
  PersistentURLCache(std::size_t memoryCapacity, std::size_t diskCapacity,
                     std::filesystem::path directory);

  std::optional<DataResult> cachedResponse(const URLRequest& request) override;
  /// Replaces what is stored for the request's URL. A response larger than a tier's whole
  /// capacity is not kept in that tier.
  void storeCachedResponse(const DataResult& response, const URLRequest& request) override;
  void removeCachedResponse(const URLRequest& request) override;
  void removeAllCachedResponses() override;

  std::size_t memoryCapacity() const { return memoryCapacity_; }
  std::size_t diskCapacity() const { return diskCapacity_; }
  std::size_t currentMemoryUsage() const;
  std::size_t currentDiskUsage() const;
  const std::filesystem::path& directory() const { return directory_; }

 private:
  struct MemoryEntry {
    std::string url;
    std::shared_ptr<const DataResult> response;
    std::size_t cost;
  };
  struct DiskEntry {
    std::string name;  // file name in `directory_`
    std::size_t size;
  };

  void loadDiskIndex();
  void keepInMemory(const std::string& url, std::shared_ptr<const DataResult> response);
  void dropFromMemory(std::string url);
  void dropFromDisk(std::string name);
  std::optional<DataResult> readFromDisk(const std::string& url);
  // Marks the response as just used in the disk tier too, so both tiers agree on recency.
  void touchOnDisk(const std::string& url);
  void writeToDisk(const std::string& url, const DataResult& response);

  const std::size_t memoryCapacity_;
  const std::size_t diskCapacity_;
  const std::filesystem::path directory_;

  mutable std::mutex mutex_;
  // Least recently used at the front.
  std::list<MemoryEntry> memory_;
  std::unordered_map<std::string, std::list<MemoryEntry>::iterator> memoryIndex_;
  std::size_t memoryUsage_ = 0;
  std::list<DiskEntry> disk_;
  std::unordered_map<std::string, std::list<DiskEntry>::iterator> diskIndex_;
  std::size_t diskUsage_ = 0;
};

}  // namespace platform
