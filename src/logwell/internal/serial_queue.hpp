#pragma once
// A serial queue backed by one worker thread: jobs run one at a time, in submission order.
// A synchronous job runs on the caller's thread while the queue is held, so that a caller
// that waits anyway does not pay two thread switches.
//
// Queued entries are copied into slots that keep their buffers from one use to the next, so
// that logging does not allocate once the queue has warmed up.
//
// A producer never waits for the worker: past `maxEntries` waiting entries the oldest one
// is dropped, and the worker hands a line saying how many to the handler before the next
// entry it runs. Blocks and synchronous callers are never dropped.

#include <condition_variable>
#include <cstddef>
#include <functional>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "logwell/internal/entry.hpp"

namespace logwell::detail {

class SerialQueue {
 public:
  using EntryHandler = std::function<void(const Entry&)>;
  /// Gives a strong reference to the owner while jobs are pending, so that entries already
  /// queued are still written after the owner's last user lets go of it.
  using Retainer = std::function<std::shared_ptr<void>()>;

  SerialQueue(std::string label, EntryHandler handler, Retainer retainer);
  ~SerialQueue();
  SerialQueue(const SerialQueue&) = delete;
  SerialQueue& operator=(const SerialQueue&) = delete;

  const std::string& label() const;

  /// Copies the entry (and its context) into the queue; drops the oldest waiting entry when
  /// `maxEntries` are waiting already.
  void async(const Entry& entry);
  void async(std::function<void()> block);
  /// Runs `block` on the calling thread once every job submitted before has run.
  void sync(const std::function<void()>& block);

  /// The label of the queue whose work runs on this thread, or null.
  static const std::string* currentLabel() noexcept;

  /// Entries that may wait for the worker; see `BaseDestination::maxPendingEntries`.
  static constexpr std::size_t maxEntries = 4096;
  /// The worker takes at most this many jobs at a time: the ones it holds can no longer be
  /// dropped, and it stays short so that what is dropped is nearly always the oldest.
  static constexpr std::size_t takenAtOnce = 32;

  /// The line the handler gets in place of `count` dropped entries.
  static std::string droppedNotice(std::size_t count);

 private:
  struct State;
  std::shared_ptr<State> state_;
  std::thread worker_;

  static void run(const std::shared_ptr<State>& state);
};

}  // namespace logwell::detail
