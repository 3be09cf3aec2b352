#pragma once
// A serial queue backed by one worker thread: jobs run one at a time, in submission order.
// A synchronous job runs on the caller's thread while the queue is held, so that a caller
// that waits anyway does not pay two thread switches.
//
// Queued entries are copied into slots that keep their buffers from one use to the next, so
// that logging does not allocate once the queue has warmed up.

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

  /// Copies the entry (and its context) into the queue.
  void async(const Entry& entry);
  void async(std::function<void()> block);
  /// Runs `block` on the calling thread once every job submitted before has run.
  void sync(const std::function<void()>& block);

  /// The label of the queue whose work runs on this thread, or null.
  static const std::string* currentLabel() noexcept;

  /// Jobs waiting beyond this make a producer wait for the worker.
  static constexpr std::size_t capacity = 4096;

 private:
  struct State;
  std::shared_ptr<State> state_;
  std::thread worker_;

  static void run(const std::shared_ptr<State>& state);
};

}  // namespace logwell::detail
