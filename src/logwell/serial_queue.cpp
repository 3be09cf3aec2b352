#include "logwell/internal/serial_queue.hpp"

#include <pthread.h>
#include <sched.h>
#include <sys/mman.h>

#include <algorithm>
#include <condition_variable>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <exception>
#include <mutex>
#include <new>
#include <stdexcept>
#include <utility>
#include <vector>

#include "logwell/base_destination.hpp"

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

// Held for a handful of instructions (a bump of the write position), so spinning beats
// sleeping in the kernel; a holder that lost its processor is waited for by yielding.
class SpinLock {
 public:
  void lock() noexcept {
    for (int spins = 0; flag_.exchange(true, std::memory_order_acquire);) {
      while (flag_.load(std::memory_order_relaxed)) {
        if (++spins > 64) sched_yield();
      }
    }
  }
  void unlock() noexcept { flag_.store(false, std::memory_order_release); }

 private:
  std::atomic<bool> flag_{false};
};

enum Kind : std::uint32_t { unwritten = 0, entryKind, blockKind, ticketKind, endKind };

// Every record starts with this; `kind` stays `unwritten` until the producer has copied the
// rest, and is stored last.
struct Header {
  std::atomic<std::uint32_t> kind;
  std::uint32_t size;
};

struct EntryFields {
  Context* context;  // null when absent
  std::int32_t line;
  std::uint32_t sizes[4];  // message, thread, file and function, one after the other
  Level level;
};

constexpr std::size_t alignUp(std::size_t n, std::size_t to) {
  return (n + to - 1) / to * to;
}
constexpr std::size_t kEntryPrefix = alignUp(sizeof(Header) + sizeof(EntryFields), 8);
constexpr std::size_t kPointerRecord = alignUp(sizeof(Header) + sizeof(void*), 8);
constexpr std::size_t kPage = 4096;
constexpr std::size_t kLargestChunk = 64 * 1024;

// A synchronous caller waiting for its turn (on the caller's stack).
struct Ticket {
  bool granted = false;  // under the queue's ticket mutex
};

// A mapping of its own, so that unmapping it surely gives its pages back to the system.
struct Chunk {
  Chunk* next = nullptr;
  std::size_t mapped;    // the whole mapping, this header included
  std::size_t capacity;  // bytes for records; an end marker always fits past them
  std::size_t used = 0;  // bytes reserved; under the queue's lock

  static constexpr std::size_t headerSize = 64;

  explicit Chunk(std::size_t bytes)
      : mapped(bytes), capacity(bytes - headerSize - sizeof(Header)) {}

  std::byte* data() { return reinterpret_cast<std::byte*>(this) + headerSize; }
  Header& at(std::size_t offset) { return *reinterpret_cast<Header*>(data() + offset); }

  static Chunk* map(std::size_t bytes) {
    // Populated at once: one system call instead of a page fault per page.
    void* memory = ::mmap(nullptr, bytes, PROT_READ | PROT_WRITE,
                          MAP_PRIVATE | MAP_ANONYMOUS | MAP_POPULATE, -1, 0);
    if (memory == MAP_FAILED) throw std::bad_alloc();
    return new (memory) Chunk(bytes);
  }
  static void unmap(Chunk* chunk) {
    if (chunk) ::munmap(chunk, chunk->mapped);
  }
  // A spare chunk is used again from a clean state: the worker reads an unwritten kind as
  // "nothing yet".
  void reset() {
    std::memset(data(), 0, used + sizeof(Header));
    next = nullptr;
    used = 0;
  }
};

// A block or a waiting caller that was in a chunk of dropped entries: it still runs, in its
// place between the chunk being read and the ones after.
struct Rescued {
  std::uint32_t kind;
  void* pointer;
};

}  // namespace

struct SerialQueue::State {
  std::string label;
  EntryHandler handler;
  BatchEnd batchEnd;
  Retainer retainer;

  std::atomic<std::size_t> budget{BaseDestination::defaultQueueBudget};
  std::atomic<OverflowPolicy> policy{BaseDestination::defaultOverflowPolicy};
  // Dropped since the last notice: the oldest ones are reported where they were, before the
  // chunk that follows them; the newest ones once the worker has caught up (or before a
  // block, such as a flush), since everything still waiting came before them.
  std::atomic<std::size_t> droppedOldest{0};
  std::atomic<std::size_t> droppedNewest{0};
  std::atomic<std::size_t> held{0};  // mirror of live + spare bytes, for readers off the lock

  SpinLock lock;
  // Under `lock`:
  Chunk* reading = nullptr;  // the chunk the worker reads; null until the first record
  Chunk* tail = nullptr;     // the chunk producers write
  // Chunks already read, linked by `next`, kept for the next ones needed until the worker
  // catches up: unmapping costs every core a TLB flush, mapping costs page faults.
  Chunk* spare = nullptr;
  std::size_t spareBytes = 0;
  std::size_t live = 0;  // bytes mapped from `reading` to `tail`
  std::vector<Rescued> rescued;
  std::shared_ptr<void> keepAlive;

  std::atomic<std::uint32_t> wake{0};  // bumped to wake a sleeping worker
  std::atomic<bool> sleeping{false};
  std::atomic<std::uint32_t> freed{0};  // bumped when chunks are given back
  std::atomic<bool> stopping{false};

  std::mutex ticketMutex;
  std::condition_variable ticketCv;
  std::uint64_t ticketsDone = 0;

  ~State() {
    for (Chunk* c = reading; c;) Chunk::unmap(std::exchange(c, c->next));
    releaseSpares();
  }

  std::size_t chunkSize(std::size_t record) const {
    const std::size_t normal = std::clamp(
        budget.load(std::memory_order_relaxed) / 8 / kPage * kPage, kPage, kLargestChunk);
    return std::max(normal, alignUp(record + Chunk::headerSize + sizeof(Header), kPage));
  }

  void account() { held.store(live + spareBytes, std::memory_order_relaxed); }

  void keepSpare(Chunk* chunk) {
    chunk->next = spare;
    spare = chunk;
    spareBytes += chunk->mapped;
  }
  Chunk* takeSpare() {
    Chunk* chunk = spare;
    spare = chunk->next;
    spareBytes -= chunk->mapped;
    return chunk;
  }
  // Gives back the spares past the first `kept`.
  void releaseSpares(std::size_t kept = 0) {
    Chunk** link = &spare;
    for (; *link && kept > 0; --kept) link = &(*link)->next;
    for (Chunk* c = std::exchange(*link, nullptr); c;) {
      spareBytes -= c->mapped;
      Chunk::unmap(std::exchange(c, c->next));
    }
  }

  // Drops the oldest chunk nobody writes or reads any more; false when there is none.
  // Under `lock`.
  bool dropOldestChunk() {
    Chunk* victim = reading ? reading->next : nullptr;
    if (!victim || victim == tail) return false;
    std::size_t entries = 0;
    for (std::size_t offset = 0; offset < victim->used;) {
      Header& h = victim->at(offset);
      std::uint32_t kind;
      // A producer may still be copying a record it reserved before the chunk filled up.
      while ((kind = h.kind.load(std::memory_order_acquire)) == unwritten) sched_yield();
      if (kind == endKind) break;
      void* pointer;
      std::memcpy(&pointer, &h + 1, sizeof pointer);
      if (kind == entryKind) {
        ++entries;
        delete static_cast<Context*>(pointer);
      } else {
        rescued.push_back({kind, pointer});
      }
      offset += h.size;
    }
    droppedOldest.fetch_add(entries, std::memory_order_relaxed);
    reading->next = victim->next;
    live -= victim->mapped;
    retire(victim);
    return true;
  }

  // Keeps a chunk that was read as a spare, or gives it back. Under `lock`.
  void retire(Chunk* chunk) {
    if (chunk->mapped == chunkSize(0))
      keepSpare(chunk);
    else
      Chunk::unmap(chunk);
    account();
  }

  // Reserves `size` bytes for a record; null when the entry is dropped. `neverDrop` is for
  // blocks and waiting callers, which go past the budget rather than be lost.
  std::byte* reserve(std::size_t size, bool neverDrop) {
    for (;;) {
      std::unique_lock guard(lock);
      if (!keepAlive && retainer) keepAlive = retainer();
      if (tail && tail->used + size <= tail->capacity) {
        std::byte* at = tail->data() + tail->used;
        tail->used += size;
        return at;
      }
      std::size_t want = chunkSize(size);
      const std::size_t limit = budget.load(std::memory_order_relaxed);
      // With nothing waiting past the chunk being read, there is nothing to drop or to wait
      // for: the chunk is allowed past the budget.
      const bool over = want > limit || (live + want > limit && reading != tail);
      if (over && neverDrop) {
        want = alignUp(size + Chunk::headerSize + sizeof(Header), kPage);
      } else if (over) {
        const auto chosen = policy.load(std::memory_order_relaxed);
        if (want > limit) {
          // Alone larger than the whole budget: waiting would never end.
        } else if (chosen == OverflowPolicy::dropOldest) {
          if (dropOldestChunk()) continue;
        } else if (chosen == OverflowPolicy::block && currentQueue != this) {
          // (On its own worker, waiting would wait for ourselves: that entry is dropped.)
          const auto seen = freed.load(std::memory_order_acquire);
          guard.unlock();
          freed.wait(seen, std::memory_order_acquire);
          continue;
        }
        droppedNewest.fetch_add(1, std::memory_order_relaxed);
        return nullptr;
      }
      Chunk* fresh = nullptr;
      if (spare && spare->mapped == want) {
        fresh = takeSpare();
        guard.unlock();
        fresh->reset();
      } else {
        live += want;  // counted now, so that others see the budget taken
        guard.unlock();
        try {
          fresh = Chunk::map(want);
        } catch (...) {
          guard.lock();
          live -= want;
          throw;
        }
        guard.lock();
        live -= want;
      }
      if (!guard.owns_lock()) guard.lock();
      if (tail && tail->used + size <= tail->capacity) {
        // Another producer opened a chunk meanwhile.
        if (fresh->mapped == chunkSize(0))
          keepSpare(fresh);
        else
          Chunk::unmap(fresh);
        account();
        continue;
      }
      live += fresh->mapped;
      if (tail) {
        tail->next = fresh;
        Header& end = tail->at(tail->used);
        end.size = 0;
        end.kind.store(endKind, std::memory_order_release);
      } else {
        reading = fresh;
      }
      tail = fresh;
      account();
      std::byte* at = tail->data();
      tail->used = size;
      return at;
    }
  }

  void publish(std::byte* at, std::uint32_t kind, std::size_t size) {
    auto& h = *reinterpret_cast<Header*>(at);
    h.size = static_cast<std::uint32_t>(size);
    // Sequentially consistent, as the worker's store of `sleeping` and its last look at the
    // record: either it sees the record or we see it sleeping.
    h.kind.store(kind, std::memory_order_seq_cst);
    // Only the first producer to find it asleep wakes it: until it runs again, which on a
    // busy machine can take a while, the others would each pay a system call.
    if (sleeping.load(std::memory_order_seq_cst) &&
        sleeping.exchange(false, std::memory_order_seq_cst)) {
      wake.fetch_add(1, std::memory_order_release);
      wake.notify_one();
    }
  }

  // A block or a waiting caller: one pointer after the header.
  void pushPointer(std::uint32_t kind, void* pointer) {
    std::byte* at = reserve(kPointerRecord, true);
    std::memcpy(at + sizeof(Header), &pointer, sizeof pointer);
    publish(at, kind, kPointerRecord);
  }
};

SerialQueue::SerialQueue(std::string label, EntryHandler handler, BatchEnd batchEnd,
                         Retainer retainer)
    : state_(std::make_shared<State>()) {
  state_->label = std::move(label);
  state_->handler = std::move(handler);
  state_->batchEnd = std::move(batchEnd);
  state_->retainer = std::move(retainer);
  worker_ = std::thread([state = state_] { run(state); });
}

SerialQueue::~SerialQueue() {
  state_->stopping.store(true);
  state_->wake.fetch_add(1);
  state_->wake.notify_one();
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

QueueDefaults& queueDefaults() {
  static QueueDefaults defaults{{BaseDestination::defaultQueueBudget},
                                {BaseDestination::defaultOverflowPolicy}};
  return defaults;
}

void SerialQueue::checkBudget(std::size_t bytes) {
  if (bytes < minBudget)
    throw std::invalid_argument("logwell: a queue budget of " + std::to_string(bytes) +
                                " bytes is below the least, " + std::to_string(minBudget));
}

std::size_t SerialQueue::budget() const {
  return state_->budget.load();
}

void SerialQueue::setBudget(std::size_t bytes) {
  checkBudget(bytes);
  state_->budget.store(bytes);
  // Callers waiting for room may have it now.
  state_->freed.fetch_add(1, std::memory_order_release);
  state_->freed.notify_all();
}

OverflowPolicy SerialQueue::policy() const {
  return state_->policy.load();
}

void SerialQueue::setPolicy(OverflowPolicy policy) {
  state_->policy.store(policy);
  state_->freed.fetch_add(1, std::memory_order_release);
  state_->freed.notify_all();
}

std::size_t SerialQueue::bytesHeld() const {
  return state_->held.load(std::memory_order_relaxed);
}

void SerialQueue::async(const Entry& e) {
  const std::string_view parts[4] = {e.message, e.thread, e.file, e.function};
  std::size_t text = 0;
  for (const auto& part : parts) text += part.size();
  const std::size_t size = alignUp(kEntryPrefix + text, 8);
  if (size > UINT32_MAX) {
    state_->droppedNewest.fetch_add(1, std::memory_order_relaxed);
    return;
  }
  std::byte* at = state_->reserve(size, false);
  if (!at) return;
  EntryFields fields{nullptr, e.line, {}, e.level};
  // Copied first: should it throw, the record still goes out, without its context.
  try {
    if (e.context->hasValue()) fields.context = new Context(*e.context);
  } catch (...) {
  }
  auto* out = reinterpret_cast<char*>(at + kEntryPrefix);
  for (int i = 0; i < 4; ++i) {
    fields.sizes[i] = static_cast<std::uint32_t>(parts[i].size());
    // An empty view may hold no pointer, which memcpy must not be given.
    if (!parts[i].empty()) std::memcpy(out, parts[i].data(), parts[i].size());
    out += parts[i].size();
  }
  std::memcpy(at + sizeof(Header), &fields, sizeof fields);
  state_->publish(at, entryKind, size);
}

void SerialQueue::async(std::function<void()> block) {
  state_->pushPointer(blockKind, new std::function<void()>(std::move(block)));
}

void SerialQueue::sync(const std::function<void()>& block) {
  State& s = *state_;
  if (currentQueue == &s) {
    block();
    return;
  }
  Ticket ticket;
  s.pushPointer(ticketKind, &ticket);
  {
    std::unique_lock lock(s.ticketMutex);
    s.ticketCv.wait(lock, [&] { return ticket.granted; });
  }
  struct Release {
    State& s;
    ~Release() {
      {
        std::lock_guard lock(s.ticketMutex);
        ++s.ticketsDone;
      }
      s.ticketCv.notify_all();
    }
  } release{s};
  OnQueue on(&s, &s.label);
  block();
}

void SerialQueue::run(const std::shared_ptr<State>& state) {
  State& s = *state;
  // Thread names are limited to 15 bytes; the full label is the queue's.
  pthread_setname_np(pthread_self(), "logwell-queue");
  OnQueue on(&s, &s.label);
  const Context noContext;
  std::string notice;
  bool batchOpen = false;
  auto guarded = [&](auto&& work) {
    try {
      work();
    } catch (...) {
      reportEscapedException(s.label);
    }
  };
  auto endBatch = [&] {
    if (std::exchange(batchOpen, false) && s.batchEnd) guarded(s.batchEnd);
  };
  auto reportDropped = [&](bool caughtUp) {
    std::size_t dropped = s.droppedOldest.exchange(0, std::memory_order_relaxed);
    if (caughtUp) dropped += s.droppedNewest.exchange(0, std::memory_order_relaxed);
    if (dropped == 0) return false;
    guarded([&] {
      notice = droppedNotice(dropped);
      s.handler(Entry{Level::warning, notice, s.label, {}, {}, 0, &noContext});
    });
    batchOpen = true;
    return true;
  };
  auto runPointer = [&](std::uint32_t kind, void* pointer) {
    endBatch();
    if (kind == blockKind) {
      std::unique_ptr<std::function<void()>> block(static_cast<std::function<void()>*>(pointer));
      guarded(*block);
      return;
    }
    std::unique_lock lock(s.ticketMutex);
    const auto done = s.ticketsDone;
    static_cast<Ticket*>(pointer)->granted = true;
    s.ticketCv.notify_all();
    s.ticketCv.wait(lock, [&] { return s.ticketsDone != done; });
  };

  Chunk* chunk = nullptr;
  std::size_t offset = 0;
  for (;;) {
    if (!chunk) {
      std::lock_guard guard(s.lock);
      chunk = s.reading;
    }
    Header* h = chunk ? &chunk->at(offset) : nullptr;
    const std::uint32_t kind = h ? h->kind.load(std::memory_order_acquire) : unwritten;

    if (kind == endKind) {
      std::vector<Rescued> rescued;
      {
        std::lock_guard guard(s.lock);
        Chunk* read = std::exchange(chunk, chunk->next);
        s.reading = chunk;
        s.live -= read->mapped;
        s.retire(read);
        rescued.swap(s.rescued);
      }
      offset = 0;
      s.freed.fetch_add(1, std::memory_order_release);
      s.freed.notify_all();
      for (const auto& r : rescued) runPointer(r.kind, r.pointer);
      // Whatever was dropped came before the entries of the next chunk.
      reportDropped(false);
      continue;
    }

    if (kind == entryKind) {
      EntryFields fields;
      std::memcpy(&fields, h + 1, sizeof fields);
      std::string_view rest(reinterpret_cast<const char*>(h) + kEntryPrefix,
                            h->size - kEntryPrefix);
      std::string_view parts[4];
      for (int i = 0; i < 4; ++i) {
        parts[i] = rest.substr(0, fields.sizes[i]);
        rest.remove_prefix(fields.sizes[i]);
      }
      const std::unique_ptr<Context> context(fields.context);
      batchOpen = true;
      guarded([&] {
        s.handler(Entry{fields.level, parts[0], parts[1], parts[2], parts[3], fields.line,
                        context ? context.get() : &noContext});
      });
      offset += h->size;
      continue;
    }

    if (kind == blockKind || kind == ticketKind) {
      reportDropped(true);
      void* pointer;
      std::memcpy(&pointer, h + 1, sizeof pointer);
      offset += h->size;
      runPointer(kind, pointer);
      continue;
    }

    // Nothing more to read for now.
    endBatch();
    if (reportDropped(true)) continue;
    std::shared_ptr<void> release;
    bool empty;
    {
      std::lock_guard guard(s.lock);
      empty = !chunk || (chunk == s.tail && offset == chunk->used);
      if (empty) {
        release = std::move(s.keepAlive);
        // After a burst, the chunk being written and two spares stay mapped: a producer that
        // keeps about the worker's pace would otherwise map and unmap a chunk each time.
        s.releaseSpares(2);
        s.account();
      }
    }
    // May destroy the owner, and with it the queue handle (which then detaches us).
    release.reset();
    if (!empty) {
      // A producer reserved the next record and is still copying it.
      sched_yield();
      continue;
    }
    if (s.stopping.load()) break;
    const auto seen = s.wake.load(std::memory_order_acquire);
    s.sleeping.store(true, std::memory_order_seq_cst);
    bool more;
    {
      std::lock_guard guard(s.lock);
      if (!chunk) chunk = s.reading;
      more = chunk && chunk->at(offset).kind.load(std::memory_order_seq_cst) != unwritten;
    }
    if (!more && !s.stopping.load()) s.wake.wait(seen, std::memory_order_acquire);
    s.sleeping.store(false, std::memory_order_relaxed);
  }
}

}  // namespace logwell::detail
