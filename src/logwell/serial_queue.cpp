#include "logwell/internal/serial_queue.hpp"

#include <pthread.h>

#include <algorithm>
#include <cstdint>
#include <cstdio>
#include <exception>
#include <utility>

namespace logwell::detail {
namespace {

thread_local const void* currentQueue = nullptr;
thread_local const std::string* currentQueueLabel = nullptr;

// Marks the calling thread as running a queue's work, for as long as it lives.
class OnQueue {
 public:
  OnQueue(const void* queue, const std::string* label)
      : queue_(std::exchange(currentQueue, queue)),
        label_(std::exchange(currentQueueLabel, label)) {}
  ~OnQueue() {
    currentQueue = queue_;
    currentQueueLabel = label_;
  }

 private:
  const void* queue_;
  const std::string* label_;
};

void reportEscapedException(const std::string& label) {
  try {
    throw;
  } catch (const std::exception& e) {
    std::fprintf(stderr, "%s: a block threw: %s\n", label.c_str(), e.what());
  } catch (...) {
    std::fprintf(stderr, "%s: a block threw\n", label.c_str());
  }
}

// A synchronous caller waiting for its turn: the worker grants it, then waits for the
// queue's `grantedDone` (the ticket itself lives on the caller's stack and is gone once the
// caller is done).
struct Ticket {
  bool granted = false;
};

struct Job {
  enum class Kind : unsigned char { entry, block, ticket };
  Kind kind = Kind::entry;
  Level level = Level::verbose;
  int line = 0;
  // message, thread, file and function, one after the other
  std::string text;
  std::uint32_t sizes[4] = {};
  Context context;
  std::function<void()> block;
  Ticket* ticket = nullptr;

  void fill(const Entry& e) {
    kind = Kind::entry;
    level = e.level;
    line = e.line;
    const std::string_view parts[4] = {e.message, e.thread, e.file, e.function};
    text.clear();
    for (int i = 0; i < 4; ++i) {
      text.append(parts[i]);
      sizes[i] = static_cast<std::uint32_t>(parts[i].size());
    }
    if (e.context->hasValue()) context = *e.context;
  }

  Entry view() const {
    std::string_view rest = text;
    std::string_view parts[4];
    for (int i = 0; i < 4; ++i) {
      parts[i] = rest.substr(0, sizes[i]);
      rest.remove_prefix(sizes[i]);
    }
    return Entry{level, parts[0], parts[1], parts[2], parts[3], line, &context};
  }

  // Frees what the job held but keeps the text buffer for the next entry.
  void recycle() {
    if (context.hasValue()) context = Context();
    if (block) block = nullptr;
    ticket = nullptr;
    if (text.capacity() > 2048) std::string().swap(text);
  }
};

// The jobs waiting for the worker, oldest first, in a ring of slots. Slots outside the live
// range keep their (recycled) job as a spare, so that its buffers serve the next entry.
class Ring {
 public:
  std::size_t size() const { return count_; }
  Job& at(std::size_t i) { return *slots_[index(i)]; }

  Job& pushBack() {
    if (count_ == slots_.size()) grow();
    auto& slot = slots_[index(count_)];
    if (!slot) slot = std::make_unique<Job>();
    ++count_;
    return *slot;
  }

  // Moves the oldest job out into `out`, leaving `out`'s old job behind as a spare.
  void popFront(std::unique_ptr<Job>& out) {
    std::swap(out, slots_[head_]);
    head_ = (head_ + 1) % slots_.size();
    --count_;
  }

  // Removes the oldest job of kind `entry`, keeping the order of the others; false when there
  // is none. Jobs of other kinds are few (blocks, waiting callers), so the search is short.
  bool dropOldestEntry() {
    std::size_t i = 0;
    while (i < count_ && at(i).kind != Job::Kind::entry) ++i;
    if (i == count_) return false;
    for (; i > 0; --i) std::swap(slots_[index(i)], slots_[index(i - 1)]);
    slots_[head_]->recycle();
    head_ = (head_ + 1) % slots_.size();
    --count_;
    return true;
  }

 private:
  std::size_t index(std::size_t i) const { return (head_ + i) % slots_.size(); }

  void grow() {
    std::vector<std::unique_ptr<Job>> bigger(std::max<std::size_t>(64, slots_.size() * 2));
    for (std::size_t i = 0; i < count_; ++i) bigger[i] = std::move(slots_[index(i)]);
    slots_ = std::move(bigger);
    head_ = 0;
  }

  std::vector<std::unique_ptr<Job>> slots_;
  std::size_t head_ = 0;
  std::size_t count_ = 0;
};

}  // namespace

struct SerialQueue::State {
  std::string label;
  EntryHandler handler;
  Retainer retainer;

  std::mutex mutex;
  std::condition_variable workerCv;  // jobs arrived, or the queue was released
  std::condition_variable waitCv;    // a ticket granted or done
  Ring pending;
  std::size_t pendingEntries = 0;  // the jobs of kind `entry` in `pending`
  std::size_t dropped = 0;         // since the worker last took jobs
  std::shared_ptr<void> keepAlive;
  bool busy = false;
  bool workerWaiting = false;
  bool grantedDone = false;  // the caller holding the queue through a ticket has finished
  bool stopping = false;

  // Appends one job under the lock; `fill` writes it. Never waits for the worker.
  template <class Fill>
  void push(bool entry, Fill&& fill) {
    std::unique_lock lock(mutex);
    if (!keepAlive && retainer) {
      lock.unlock();
      auto retained = retainer();
      lock.lock();
      if (!keepAlive) keepAlive = std::move(retained);
    }
    if (entry) {
      if (pendingEntries >= maxEntries && pending.dropOldestEntry()) {
        --pendingEntries;
        ++dropped;
      }
      ++pendingEntries;
    }
    fill(pending.pushBack());
    const bool wake = workerWaiting && !busy;
    lock.unlock();
    if (wake) workerCv.notify_one();
  }
};

SerialQueue::SerialQueue(std::string label, EntryHandler handler, Retainer retainer)
    : state_(std::make_shared<State>()) {
  state_->label = std::move(label);
  state_->handler = std::move(handler);
  state_->retainer = std::move(retainer);
  worker_ = std::thread([state = state_] { run(state); });
}

SerialQueue::~SerialQueue() {
  {
    std::lock_guard lock(state_->mutex);
    state_->stopping = true;
  }
  state_->workerCv.notify_one();
  // The owner may be released by the worker itself, after its last job.
  if (worker_.get_id() == std::this_thread::get_id())
    worker_.detach();
  else if (worker_.joinable())
    worker_.join();
}

const std::string& SerialQueue::label() const {
  return state_->label;
}

const std::string* SerialQueue::currentLabel() noexcept {
  return currentQueueLabel;
}

std::string SerialQueue::droppedNotice(std::size_t count) {
  return "logwell: dropped " + std::to_string(count) + (count == 1 ? " entry" : " entries") +
         " while this destination was behind";
}

void SerialQueue::async(const Entry& entry) {
  state_->push(true, [&](Job& job) { job.fill(entry); });
}

void SerialQueue::async(std::function<void()> block) {
  state_->push(false, [&](Job& job) {
    job.kind = Job::Kind::block;
    job.block = std::move(block);
  });
}

void SerialQueue::sync(const std::function<void()>& block) {
  State& s = *state_;
  if (currentQueue == &s) {
    block();
    return;
  }
  Ticket ticket;
  std::unique_lock lock(s.mutex);
  const bool idle = s.pending.size() == 0 && !s.busy;
  if (idle) {
    s.busy = true;
  } else {
    Job& job = s.pending.pushBack();
    job.kind = Job::Kind::ticket;
    job.ticket = &ticket;
    if (s.workerWaiting && !s.busy) s.workerCv.notify_one();
    s.waitCv.wait(lock, [&] { return ticket.granted; });
  }
  lock.unlock();

  struct Release {
    State& s;
    bool idle;
    ~Release() {
      std::unique_lock lock(s.mutex);
      if (idle) {
        s.busy = false;
        const bool wake = s.pending.size() > 0 && s.workerWaiting;
        lock.unlock();
        if (wake) s.workerCv.notify_one();
      } else {
        s.grantedDone = true;
        lock.unlock();
        s.waitCv.notify_all();
      }
    }
  } release{s, idle};
  OnQueue on(&s, &s.label);
  block();
}

void SerialQueue::run(const std::shared_ptr<State>& state) {
  State& s = *state;
  // Thread names are limited to 15 bytes; the full label is the queue's.
  pthread_setname_np(pthread_self(), "logwell-queue");
  OnQueue on(&s, &s.label);
  std::vector<std::unique_ptr<Job>> batch(takenAtOnce);
  const Context noContext;
  std::string notice;
  auto guarded = [&](auto&& work) {
    try {
      work();
    } catch (...) {
      reportEscapedException(s.label);
    }
  };
  for (;;) {
    std::unique_lock lock(s.mutex);
    while ((s.pending.size() == 0 || s.busy) && !(s.stopping && s.pending.size() == 0)) {
      s.workerWaiting = true;
      s.workerCv.wait(lock);
      s.workerWaiting = false;
    }
    if (s.pending.size() == 0) break;  // stopping
    const std::size_t taken = std::min(s.pending.size(), takenAtOnce);
    for (std::size_t i = 0; i < taken; ++i) {
      s.pending.popFront(batch[i]);
      if (batch[i]->kind == Job::Kind::entry) --s.pendingEntries;
    }
    const std::size_t dropped = std::exchange(s.dropped, 0);
    s.busy = true;
    lock.unlock();

    // The dropped entries were older than every job still waiting: say so before them.
    if (dropped > 0)
      guarded([&] {
        notice = droppedNotice(dropped);
        s.handler(Entry{Level::warning, notice, s.label, {}, {}, 0, &noContext});
      });
    for (std::size_t i = 0; i < taken; ++i) {
      Job& job = *batch[i];
      guarded([&] {
        switch (job.kind) {
          case Job::Kind::entry:
            s.handler(job.view());
            break;
          case Job::Kind::block:
            job.block();
            break;
          case Job::Kind::ticket: {
            std::unique_lock l(s.mutex);
            s.grantedDone = false;
            job.ticket->granted = true;
            s.waitCv.notify_all();
            s.waitCv.wait(l, [&] { return s.grantedDone; });
            break;
          }
        }
      });
      job.recycle();
    }

    std::shared_ptr<void> release;
    lock.lock();
    s.busy = false;
    if (s.pending.size() == 0) release = std::move(s.keepAlive);
    lock.unlock();
    // May destroy the owner, and with it the queue handle (which then detaches us).
    release.reset();
  }
}

}  // namespace logwell::detail
