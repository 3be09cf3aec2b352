#pragma once
// A serial queue backed by one worker thread: jobs run one at a time, in submission order.
// A synchronous job runs on the caller's thread while the worker waits for it, so that the
// job never overlaps another one.
//
// Waiting jobs are records in a list of chunks of memory that the queue maps while it needs
// them and unmaps once the worker is through them, so that a burst takes memory and gives it
// back. Producers share one short critical section (a bump of the write position); they copy
// their entry outside it and publish it with one atomic store, and the worker reads it in
// place. The chunks together never exceed the queue's budget in bytes; when an entry does not
// fit, the overflow policy decides. Blocks and synchronous callers are never dropped, and may
// go past the budget by a page each.

#include <atomic>
#include <cstddef>
#include <functional>
#include <memory>
#include <string>
#include <thread>

#include "logwell/internal/entry.hpp"
#include "logwell/level.hpp"

namespace logwell {
enum class OverflowPolicy : unsigned char;
}

namespace logwell::detail {

class SerialQueue {
 public:
  using EntryHandler = std::function<void(const Entry&)>;
  /// Called when the entries handed in a row end: before a block, before the worker waits,
  /// before a synchronous caller runs. A destination may keep lines until then.
  using BatchEnd = std::function<void()>;
  /// Gives a strong reference to the owner while jobs are pending, so that entries already
  /// queued are still written after the owner's last user lets go of it.
  using Retainer = std::function<std::shared_ptr<void>()>;

  SerialQueue(std::string label, EntryHandler handler, BatchEnd batchEnd, Retainer retainer);
  ~SerialQueue();
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  const std::string& label() const;

  /// Copies the entry (and its context) into the queue; when the budget is full, drops it,
  /// drops older ones or waits, as the policy says.
  void async(const Entry& entry);
  void async(std::function<void()> block);
  /// Runs `block` on the calling thread once every job submitted before has run.
  void sync(const std::function<void()>& block);

  std::size_t budget() const;
  /// Throws std::invalid_argument below `minBudget`.
  void setBudget(std::size_t bytes);
  static void checkBudget(std::size_t bytes);
  OverflowPolicy policy() const;
  void setPolicy(OverflowPolicy policy);

  /// The bytes the queue holds mapped now (waiting records, and chunks kept for reuse until
  /// the worker catches up).
  std::size_t bytesHeld() const;

  /// The label of the queue whose work runs on this thread, or null.
  static const std::string* currentLabel() noexcept;

  static constexpr std::size_t minBudget = 64 * 1024;

  /// The line the handler gets in place of `count` dropped entries.
  static std::string droppedNotice(std::size_t count);

 private:
  struct State;
  std::shared_ptr<State> state_;
  std::thread worker_;

  static void run(const std::shared_ptr<State>& state);
};

/// What a new queue starts with; `Logwell::setQueueBudget` and `setOverflowPolicy` change it.
struct QueueDefaults {
  std::atomic<std::size_t> budget;
  std::atomic<OverflowPolicy> policy;
};
QueueDefaults& queueDefaults();

}  // namespace logwell::detail
