#include "platform/url_cache.hpp"

#include <algorithm>
#include <boost/json.hpp>
#include <fstream>
#include <iterator>
#include <sstream>
#include <vector>

#include "platform/paths.hpp"

namespace platform {
namespace {

// One file per response: a line of JSON with the URL, status and headers, then the body.
constexpr std::string_view kSuffix = ".cached";

std::string fileNameFor(const std::string& url) {
  return sha256Hex(url) + std::string(kSuffix);
}

std::size_t memoryCost(const std::string& url, const DataResult& response) {
  std::size_t cost = url.size() + response.data.size() + response.response.url.size();
  for (const auto& [k, v] : response.response.headers) cost += k.size() + v.size();
  return cost;
}

std::string encodeHead(const std::string& url, const URLResponse& response) {
  boost::json::object head;
  head["url"] = url;
  head["responseURL"] = response.url;
  if (response.statusCode)
    head["statusCode"] = *response.statusCode;
  else
    head["statusCode"] = nullptr;
  boost::json::array headers;
  for (const auto& [k, v] : response.headers) headers.push_back(boost::json::array{k, v});
  head["headers"] = std::move(headers);
  return boost::json::serialize(head);
}

// None when the file is not one of ours or does not belong to `url` (a damaged or foreign
// file is a miss, never an error for the caller).
std::optional<DataResult> decode(const std::string& contents, const std::string& url) {
  const auto newline = contents.find('\n');
  if (newline == std::string::npos) return std::nullopt;
  boost::system::error_code ec;
  auto head = boost::json::parse(std::string_view(contents).substr(0, newline), ec);
  if (ec || !head.is_object()) return std::nullopt;
  const auto& object = head.get_object();
  const auto* storedURL = object.if_contains("url");
  const auto* responseURL = object.if_contains("responseURL");
  const auto* status = object.if_contains("statusCode");
  const auto* headers = object.if_contains("headers");
  if (!storedURL || !storedURL->is_string() || storedURL->get_string() != url) return std::nullopt;
  if (!responseURL || !responseURL->is_string() || !status || !headers || !headers->is_array())
    return std::nullopt;
  DataResult result;
  result.response.url = std::string(responseURL->get_string());
  if (status->is_int64()) result.response.statusCode = status->get_int64();
  for (const auto& pair : headers->get_array()) {
    if (!pair.is_array() || pair.get_array().size() != 2 || !pair.get_array()[0].is_string() ||
        !pair.get_array()[1].is_string())
      return std::nullopt;
    result.response.headers.emplace_back(std::string(pair.get_array()[0].get_string()),
                                         std::string(pair.get_array()[1].get_string()));
  }
  result.data = contents.substr(newline + 1);
  return result;
}

}  // namespace

PersistentURLCache::PersistentURLCache(std::size_t memoryCapacity, std::size_t diskCapacity,
                                       std::filesystem::path directory)
    : memoryCapacity_(memoryCapacity),
      diskCapacity_(diskCapacity),
      directory_(std::move(directory)) {
  loadDiskIndex();
}

std::size_t PersistentURLCache::currentMemoryUsage() const {
  std::lock_guard lock(mutex_);
  return memoryUsage_;
}

std::size_t PersistentURLCache::currentDiskUsage() const {
  std::lock_guard lock(mutex_);
  return diskUsage_;
}

std::optional<DataResult> PersistentURLCache::cachedResponse(const URLRequest& request) {
  std::lock_guard lock(mutex_);
  if (auto it = memoryIndex_.find(request.url); it != memoryIndex_.end()) {
    memory_.splice(memory_.end(), memory_, it->second);
    touchOnDisk(request.url);
    return *it->second->response;
  }
  auto fromDisk = readFromDisk(request.url);
  if (fromDisk) keepInMemory(request.url, std::make_shared<const DataResult>(*fromDisk));
  return fromDisk;
}

void PersistentURLCache::storeCachedResponse(const DataResult& response,
                                             const URLRequest& request) {
  std::lock_guard lock(mutex_);
  keepInMemory(request.url, std::make_shared<const DataResult>(response));
  writeToDisk(request.url, response);
}

void PersistentURLCache::removeCachedResponse(const URLRequest& request) {
  std::lock_guard lock(mutex_);
  dropFromMemory(request.url);
  dropFromDisk(fileNameFor(request.url));
}

void PersistentURLCache::removeAllCachedResponses() {
  std::lock_guard lock(mutex_);
  memory_.clear();
  memoryIndex_.clear();
  memoryUsage_ = 0;
  while (!disk_.empty()) dropFromDisk(disk_.front().name);
}

void PersistentURLCache::keepInMemory(const std::string& url,
                                      std::shared_ptr<const DataResult> response) {
  dropFromMemory(url);
  const auto cost = memoryCost(url, *response);
  if (cost > memoryCapacity_) return;
  memory_.push_back(MemoryEntry{url, std::move(response), cost});
  memoryIndex_[url] = std::prev(memory_.end());
  memoryUsage_ += cost;
  while (memoryUsage_ > memoryCapacity_) dropFromMemory(memory_.front().url);
}

void PersistentURLCache::dropFromMemory(std::string url) {
  auto it = memoryIndex_.find(url);
  if (it == memoryIndex_.end()) return;
  memoryUsage_ -= it->second->cost;
  memory_.erase(it->second);
  memoryIndex_.erase(it);
}

void PersistentURLCache::loadDiskIndex() {
  std::error_code ec;
  struct Found {
    std::filesystem::file_time_type time;
    std::string name;
    std::size_t size;
  };
  std::vector<Found> found;
  for (std::filesystem::directory_iterator it(directory_, ec), end; !ec && it != end;
       it.increment(ec)) {
    const auto name = it->path().filename().string();
    std::error_code fileError;
    if (!it->is_regular_file(fileError)) continue;
    if (name.find(".tmp-") != std::string::npos) {
      // Left behind by a process that stopped while writing.
      std::filesystem::remove(it->path(), fileError);
      continue;
    }
    if (!name.ends_with(kSuffix)) continue;
    const auto size = it->file_size(fileError);
    const auto time = it->last_write_time(fileError);
    if (!fileError) found.push_back({time, name, static_cast<std::size_t>(size)});
  }
  std::sort(found.begin(), found.end(),
            [](const Found& a, const Found& b) { return a.time < b.time; });
  for (auto& f : found) {
    disk_.push_back(DiskEntry{std::move(f.name), f.size});
    diskIndex_[disk_.back().name] = std::prev(disk_.end());
    diskUsage_ += f.size;
  }
  // The capacity may be smaller than the one the files were written under.
  while (diskUsage_ > diskCapacity_ && !disk_.empty()) dropFromDisk(disk_.front().name);
}

void PersistentURLCache::dropFromDisk(std::string name) {  // a copy: callers pass list items
  auto it = diskIndex_.find(name);
  if (it == diskIndex_.end()) return;
  diskUsage_ -= it->second->size;
  disk_.erase(it->second);
  diskIndex_.erase(it);
  std::error_code ec;
  std::filesystem::remove(directory_ / name, ec);
}

std::optional<DataResult> PersistentURLCache::readFromDisk(const std::string& url) {
  const auto name = fileNameFor(url);
  auto it = diskIndex_.find(name);
  if (it == diskIndex_.end()) return std::nullopt;
  std::ifstream in(directory_ / name, std::ios::binary);
  std::string contents((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  auto result = in.bad() ? std::nullopt : decode(contents, url);
  if (!result) {
    dropFromDisk(name);
    return std::nullopt;
  }
  touchOnDisk(url);
  return result;
}

void PersistentURLCache::touchOnDisk(const std::string& url) {
  const auto name = fileNameFor(url);
  auto it = diskIndex_.find(name);
  if (it == diskIndex_.end()) return;
  disk_.splice(disk_.end(), disk_, it->second);
  std::error_code ec;
  // Recency survives the process through the file's time.
  std::filesystem::last_write_time(directory_ / name, std::filesystem::file_time_type::clock::now(),
                                   ec);
}

void PersistentURLCache::writeToDisk(const std::string& url, const DataResult& response) {
  const auto name = fileNameFor(url);
  dropFromDisk(name);
  std::string contents = encodeHead(url, response.response);
  contents += '\n';
  contents += response.data;
  if (contents.size() > diskCapacity_) return;

  std::error_code ec;
  std::filesystem::create_directories(directory_, ec);
  if (ec) return;
  // Written aside and renamed, so that a reader never sees half a response.
  const auto temporary = directory_ / (name + ".tmp-" + newUUID());
  {
    std::ofstream out(temporary, std::ios::binary | std::ios::trunc);
    out.write(contents.data(), static_cast<std::streamsize>(contents.size()));
    out.close();
    if (!out) {
      std::filesystem::remove(temporary, ec);
      return;
    }
  }
  std::filesystem::rename(temporary, directory_ / name, ec);
  if (ec) {
    std::filesystem::remove(temporary, ec);
    return;
  }
  disk_.push_back(DiskEntry{name, contents.size()});
  diskIndex_[name] = std::prev(disk_.end());
  diskUsage_ += contents.size();
  while (diskUsage_ > diskCapacity_ && !disk_.empty()) dropFromDisk(disk_.front().name);
}

}  // namespace platform
