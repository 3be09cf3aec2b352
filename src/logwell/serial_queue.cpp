#include "logwell/internal/serial_queue.hpp"

#include <pthread.h>

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

struct Slots {
  std::vector<Job> jobs;
  std::size_t count = 0;

  Job& next() {
    if (count == jobs.size()) jobs.emplace_back();
    return jobs[count++];
  }
};

}  // namespace

struct SerialQueue::State {
  std::string label;
  EntryHandler handler;
  Retainer retainer;

  std::mutex mutex;
  std::condition_variable workerCv;  // jobs arrived, or the queue was released
  std::condition_variable waitCv;    // space, a ticket granted or done
  Slots pending;
  std::shared_ptr<void> keepAlive;
  bool busy = false;
  bool workerWaiting = false;
  std::size_t spaceWaiters = 0;
  bool grantedDone = false;  // the caller holding the queue through a ticket has finished
  bool stopping = false;

  // Appends one job under the lock; `fill` writes it.
  template <class Fill>
  void push(Fill&& fill) {
    std::unique_lock lock(mutex);
    if (pending.count >= capacity && currentQueue != this) {
      ++spaceWaiters;
      waitCv.wait(lock, [&] { return pending.count < capacity; });
      --spaceWaiters;
    }
    if (!keepAlive && retainer) {
      lock.unlock();
      auto retained = retainer();
      lock.lock();
      if (!keepAlive) keepAlive = std::move(retained);
    }
    fill(pending.next());
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

void SerialQueue::async(const Entry& entry) {
  state_->push([&](Job& job) { job.fill(entry); });
}

void SerialQueue::async(std::function<void()> block) {
  state_->push([&](Job& job) {
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
  const bool idle = s.pending.count == 0 && !s.busy;
  if (idle) {
    s.busy = true;
  } else {
    Job& job = s.pending.next();
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
        const bool wake = s.pending.count > 0 && s.workerWaiting;
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
  Slots batch;
  for (;;) {
    std::unique_lock lock(s.mutex);
    while ((s.pending.count == 0 || s.busy) && !(s.stopping && s.pending.count == 0)) {
      s.workerWaiting = true;
      s.workerCv.wait(lock);
      s.workerWaiting = false;
    }
    if (s.pending.count == 0) break;  // stopping
    std::swap(batch, s.pending);
    s.busy = true;
    const bool wakeProducers = s.spaceWaiters > 0;
    lock.unlock();
    if (wakeProducers) s.waitCv.notify_all();

    for (std::size_t i = 0; i < batch.count; ++i) {
      Job& job = batch.jobs[i];
      try {
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
      } catch (...) {
        reportEscapedException(s.label);
      }
      job.recycle();
    }
    batch.count = 0;

    std::shared_ptr<void> release;
    lock.lock();
    s.busy = false;
    if (s.pending.count == 0) release = std::move(s.keepAlive);
    lock.unlock();
    // May destroy the owner, and with it the queue handle (which then detaches us).
    release.reset();
  }
}

}  // namespace logwell::detail
