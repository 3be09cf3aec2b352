#include "logwell/internal/serial_queue.hpp"

#include <pthread.h>

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
}  // namespace

// A synchronous caller waiting for its turn: the worker grants it and waits until done.
struct Ticket {
  bool granted = false;
  bool done = false;
};

struct SerialQueue::Job {
  EntryRef entry;
  std::function<void()> block;
  Ticket* ticket = nullptr;
};

struct SerialQueue::State {
  std::string label;
  EntryHandler handler;
  Retainer retainer;

  std::mutex mutex;
  std::condition_variable workerCv;  // jobs arrived, or the queue was released
  std::condition_variable waitCv;    // space, a ticket granted or done, the queue released
  std::vector<Job> jobs;
  std::shared_ptr<void> keepAlive;
  bool busy = false;
  bool workerWaiting = false;
  std::size_t spaceWaiters = 0;
  std::size_t syncWaiters = 0;
  bool stopping = false;
};

SerialQueue::SerialQueue(std::string label, EntryHandler handler, Retainer retainer)
    : state_(std::make_shared<State>()) {
  state_->label = std::move(label);
  state_->handler = std::move(handler);
  state_->retainer = std::move(retainer);
  state_->jobs.reserve(64);
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

void SerialQueue::async(EntryRef entry) {
  push(Job{std::move(entry), {}, nullptr});
}

void SerialQueue::async(std::function<void()> block) {
  push(Job{EntryRef(), std::move(block), nullptr});
}

void SerialQueue::push(Job&& job) {
  State& s = *state_;
  std::shared_ptr<void> retained;
  std::unique_lock lock(s.mutex);
  if (s.jobs.size() >= capacity && currentQueue != &s) {
    ++s.spaceWaiters;
    s.waitCv.wait(lock, [&] { return s.jobs.size() < capacity; });
    --s.spaceWaiters;
  }
  if (!s.keepAlive && s.retainer) {
    lock.unlock();
    retained = s.retainer();
    lock.lock();
    if (!s.keepAlive) s.keepAlive = std::move(retained);
  }
  s.jobs.push_back(std::move(job));
  const bool wake = s.workerWaiting && !s.busy;
  lock.unlock();
  if (wake) s.workerCv.notify_one();
}

void SerialQueue::sync(const std::function<void()>& block) {
  State& s = *state_;
  if (currentQueue == &s) {
    block();
    return;
  }
  std::unique_lock lock(s.mutex);
  Ticket ticket;
  const bool idle = s.jobs.empty() && !s.busy;
  if (idle) {
    s.busy = true;
  } else {
    s.jobs.push_back(Job{EntryRef(), {}, &ticket});
    if (s.workerWaiting && !s.busy) s.workerCv.notify_one();
    ++s.syncWaiters;
    s.waitCv.wait(lock, [&] { return ticket.granted; });
    --s.syncWaiters;
  }
  lock.unlock();

  struct Release {
    State& s;
    bool idle;
    Ticket& ticket;
    ~Release() {
      std::unique_lock lock(s.mutex);
      if (idle) {
        s.busy = false;
        const bool wake = !s.jobs.empty() && s.workerWaiting;
        lock.unlock();
        if (wake) s.workerCv.notify_one();
      } else {
        ticket.done = true;
        lock.unlock();
        s.waitCv.notify_all();
      }
    }
  } release{s, idle, ticket};
  OnQueue on(&s, &s.label);
  block();
}

void SerialQueue::run(const std::shared_ptr<State>& state) {
  State& s = *state;
  {
    // Thread names are limited to 15 bytes; the full label is the queue's.
    pthread_setname_np(pthread_self(), "logwell-queue");
  }
  OnQueue on(&s, &s.label);
  std::vector<Job> batch;
  batch.reserve(64);
  for (;;) {
    std::unique_lock lock(s.mutex);
    while ((s.jobs.empty() || s.busy) && !(s.stopping && s.jobs.empty())) {
      s.workerWaiting = true;
      s.workerCv.wait(lock);
      s.workerWaiting = false;
    }
    if (s.jobs.empty()) break;  // stopping
    batch.swap(s.jobs);
    s.busy = true;
    const bool wakeProducers = s.spaceWaiters > 0;
    lock.unlock();
    if (wakeProducers) s.waitCv.notify_all();

    for (auto& job : batch) {
      try {
        if (job.entry) {
          s.handler(*job.entry);
        } else if (job.block) {
          job.block();
        } else if (job.ticket) {
          std::unique_lock l(s.mutex);
          job.ticket->granted = true;
          s.waitCv.notify_all();
          s.waitCv.wait(l, [&] { return job.ticket->done; });
        }
      } catch (...) {
        reportEscapedException(s.label);
      }
    }
    batch.clear();

    std::shared_ptr<void> release;
    lock.lock();
    s.busy = false;
    if (s.jobs.empty()) release = std::move(s.keepAlive);
    lock.unlock();
    // May destroy the owner, and with it the queue handle (which then detaches us).
    release.reset();
  }
}

}  // namespace logwell::detail
