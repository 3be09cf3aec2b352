#pragma once
/// The live downloader behind `AssetsClient::live`. One download runs per URL, fetch policy
/// and size limit however many callers ask for it; a caller asking with a higher priority
/// raises the running download's priority; the download stops when its last caller cancels.
///
///   auto live = rich_push::AssetsClient::Live::make(rich_push::url_session::uncached(),
///                                                   rich_push::mainQueue());
///   auto client = rich_push::AssetsClient::live(live);
///   client.data(url, Priority::background, FetchPolicy::standard, completion);
///   live->inFlightCount();  // 1 while it loads

#include <cstdint>
#include <mutex>
#include <unordered_map>
#include <utility>
#include <vector>

#include "rich_push/assets_client.hpp"

namespace rich_push {

class AssetsClient::Live : public std::enable_shared_from_this<AssetsClient::Live> {
 public:
  struct TaskKey {
    std::string url;
    FetchPolicy fetchPolicy;
    ByteLimit maxBytes;
    bool operator==(const TaskKey&) const = default;
  };

  static std::shared_ptr<Live> make(std::shared_ptr<platform::URLSession> session,
                                    ResultQueue resultQueue,
                                    std::chrono::milliseconds timeout = std::chrono::seconds(60));
  /// Stops every download still running; their callers are not called back.
  ~Live();
  Live(const Live&) = delete;
  Live& operator=(const Live&) = delete;

  Cancel getData(const std::string& url, Priority priority, FetchPolicy fetchPolicy,
                 ByteLimit maxBytes, DataCompletion completion);
  Cancel getFile(const std::string& url, const std::string& destinationURL, Priority priority,
                 FetchPolicy fetchPolicy, ByteLimit maxBytes, FileCompletion completion);
  void remove(const std::string& url);
  void removeAll();

  /// Downloads running now.
  std::size_t inFlightCount() const;
  /// The priority of the download running for `key`; none when there is none.
  std::optional<float> inFlightPriority(const TaskKey& key) const;
  const std::shared_ptr<platform::URLSession>& session() const { return session_; }

 private:
  using Shared = std::shared_ptr<const Result<platform::DataResult>>;
  // Called once with the outcome, on the thread that finished the load.
  using Waiter = std::function<void(Shared)>;

  struct KeyHash {
    std::size_t operator()(const TaskKey& key) const;
  };
  struct Entry {
    std::uint64_t id;
    std::shared_ptr<platform::DataTask> task;
    std::vector<std::pair<std::string, Waiter>> waiters;  // under a UUID each
  };

  Live(std::shared_ptr<platform::URLSession> session, ResultQueue resultQueue,
       std::chrono::milliseconds timeout);

  Cancel load(const std::string& url, Priority priority, FetchPolicy fetchPolicy,
              ByteLimit maxBytes, Waiter waiter);
  Cancel cancelFor(const TaskKey& key, std::uint64_t entryId, const std::string& waiterId);
  void finished(const TaskKey& key, std::uint64_t entryId, std::string data,
                std::optional<platform::URLResponse> response,
                std::optional<platform::Error> error);

  std::unordered_map<TaskKey, Entry, KeyHash> inFlight_;
  mutable std::mutex lock_;
  std::shared_ptr<platform::URLSession> session_;
  ResultQueue resultQueue_;
  std::chrono::milliseconds timeout_;
  std::uint64_t nextEntryId_ = 1;
};

}  // namespace rich_push
