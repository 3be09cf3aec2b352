#include "logwell/logwell.hpp"

#include <pthread.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <charconv>
#include <condition_variable>
#include <cstdlib>
#include <cstring>
#include <mutex>

#include "logwell/internal/entry.hpp"
#include "logwell/internal/serial_queue.hpp"
#include "logwell/internal/text.hpp"
#include "platform/main_queue.hpp"

namespace logwell {
namespace {

using Destinations = std::vector<std::shared_ptr<BaseDestination>>;

// The set is copied on write; every thread keeps the last snapshot it saw and only takes the
// lock again when the version has moved, so logging reads the set with one atomic load.
struct Registry {
  std::mutex mutex;
  std::shared_ptr<const Destinations> current = std::make_shared<const Destinations>();
  std::atomic<std::uint64_t> version{1};
  bool exitHookInstalled = false;
};

Registry& registry() {
  static Registry* r = new Registry();  // never destroyed: threads may log during exit
  return *r;
}

struct SnapshotCache {
  std::uint64_t version = 0;
  std::shared_ptr<const Destinations> set;
  int depth = 0;  // nested dispatch (a destination logging) keeps the outer snapshot
};
thread_local SnapshotCache snapshotCache;

const Destinations& snapshot() {
  auto& cache = snapshotCache;
  auto& reg = registry();
  if (cache.depth == 0 && cache.version != reg.version.load(std::memory_order_acquire)) {
    std::lock_guard lock(reg.mutex);
    cache.set = reg.current;
    cache.version = reg.version.load(std::memory_order_relaxed);
  }
  static const Destinations empty;
  return cache.set ? *cache.set : empty;
}

template <class Change>
void update(Change change) {
  auto& reg = registry();
  std::lock_guard lock(reg.mutex);
  auto next = std::make_shared<Destinations>(*reg.current);
  if (!change(*next)) return;
  reg.current = std::move(next);
  reg.version.fetch_add(1, std::memory_order_release);
  if (!reg.exitHookInstalled) {
    reg.exitHookInstalled = true;
    // Entries still queued when the program ends are written, within a bound.
    std::atexit([] { Logwell::flush(2); });
  }
}

// Asking the kernel costs a system call per entry; a thread's identity does not change,
// except in the child of a fork, where the forking thread becomes the process's main one.
struct ThreadIdentity {
  pid_t tid = 0;
  bool processMain = false;
  bool known = false;
};
thread_local ThreadIdentity threadIdentity;

const ThreadIdentity& currentThread() {
  static const bool atforkInstalled = [] {
    ::pthread_atfork(nullptr, nullptr, [] { threadIdentity.known = false; });
    return true;
  }();
  (void)atforkInstalled;
  if (!threadIdentity.known) {
    threadIdentity.tid = static_cast<pid_t>(::syscall(SYS_gettid));
    threadIdentity.processMain = threadIdentity.tid == ::getpid();
    threadIdentity.known = true;
  }
  return threadIdentity;
}

const std::string& threadDescription() {
  thread_local const std::string description = [] {
    std::string out = "Thread " + std::to_string(currentThread().tid);
    char name[32] = {};
    char processName[32] = {};
    if (pthread_getname_np(pthread_self(), name, sizeof name) == 0 && name[0]) {
      // Unnamed threads carry the process's name: only a name of its own is worth showing.
      std::FILE* comm = std::fopen("/proc/self/comm", "r");
      if (comm) {
        if (std::fgets(processName, sizeof processName, comm)) {
          processName[std::strcspn(processName, "\n")] = 0;
        }
        std::fclose(comm);
      }
      if (std::strcmp(name, processName) != 0) out += std::string(" (") + name + ")";
    }
    return out;
  }();
  return description;
}

std::string_view currentThreadName() {
  if (currentThread().processMain || platform::MainQueue::shared().isMainThread()) return {};
  if (const auto* label = detail::SerialQueue::currentLabel()) return *label;
  return threadDescription();
}

// Most entries of a thread come from a few functions: remember the last one stripped.
detail::StrippedFunction stripParameters(std::string_view function) {
  struct Cache {
    std::string input;
    std::size_t offset = 0, length = 0;
    bool parentheses = false;
  };
  thread_local Cache cache;
  if (function != cache.input) {
    const auto s = detail::stripFunctionParameters(function);
    cache.input.assign(function);
    cache.offset = static_cast<std::size_t>(s.base.data() - function.data());
    cache.length = s.base.size();
    cache.parentheses = s.addParentheses;
  }
  return {function.substr(cache.offset, cache.length), cache.parentheses};
}

}  // namespace

namespace detail {
std::string numberText(long long value) {
  return std::to_string(value);
}
std::string numberText(unsigned long long value) {
  return std::to_string(value);
}
std::string numberText(double value) {
  char buffer[32];
  const auto end = std::to_chars(buffer, buffer + sizeof buffer, value).ptr;
  return std::string(buffer, end);
}
}  // namespace detail

std::vector<std::shared_ptr<BaseDestination>> Logwell::destinations() {
  auto& reg = registry();
  std::lock_guard lock(reg.mutex);
  return *reg.current;
}

bool Logwell::addDestination(std::shared_ptr<BaseDestination> destination) {
  bool added = false;
  update([&](Destinations& set) {
    if (!destination || std::find(set.begin(), set.end(), destination) != set.end()) return false;
    set.push_back(std::move(destination));
    return added = true;
  });
  return added;
}

bool Logwell::removeDestination(const std::shared_ptr<BaseDestination>& destination) {
  bool removed = false;
  update([&](Destinations& set) { return removed = std::erase(set, destination) > 0; });
  return removed;
}

void Logwell::removeAllDestinations() {
  update([](Destinations& set) {
    const bool any = !set.empty();
    set.clear();
    return any;
  });
}

std::size_t Logwell::countDestinations() {
  auto& reg = registry();
  std::lock_guard lock(reg.mutex);
  return reg.current->size();
}

void Logwell::setQueueBudget(std::size_t bytes) {
  detail::SerialQueue::checkBudget(bytes);
  detail::queueDefaults().budget.store(bytes);
  for (const auto& destination : destinations()) destination->setQueueBudget(bytes);
}

void Logwell::setOverflowPolicy(OverflowPolicy policy) {
  detail::queueDefaults().policy.store(policy);
  for (const auto& destination : destinations()) destination->setOverflowPolicy(policy);
}

std::string Logwell::threadName() {
  return std::string(currentThreadName());
}

void Logwell::dispatch(Level level, detail::LazyMessage& message, std::string_view file,
                       std::string_view function, int line, Context&& context) {
  const Destinations& set = snapshot();
  if (set.empty()) return;
  struct Depth {
    Depth() { ++snapshotCache.depth; }
    ~Depth() { --snapshotCache.depth; }
  } depth;

  const std::string_view thread = currentThreadName();
  // The stripped function text, built once the first destination takes the entry.
  char functionBuffer[160];
  std::string functionStorage;
  std::string_view stripped;
  bool made = false;
  for (const auto& destination : set) {
    // Without filters the level alone decides: no need to make the message.
    if (destination->minLevelRejects(level)) continue;
    if (!destination->shouldLevelBeLogged(level, file, function, message.text())) continue;
    if (!made) {
      const auto s = stripParameters(function);
      const std::size_t size = s.base.size() + (s.addParentheses ? 2 : 0);
      char* out = functionBuffer;
      if (size > sizeof functionBuffer) {
        functionStorage.resize(size);
        out = functionStorage.data();
      }
      std::copy(s.base.begin(), s.base.end(), out);
      if (s.addParentheses) std::copy_n("()", 2, out + s.base.size());
      stripped = std::string_view(out, size);
      made = true;
    }
    destination->submit(
        detail::Entry{level, message.text(), thread, file, stripped, line, &context});
  }
}

bool Logwell::flush(std::int64_t secondTimeout) {
  struct Group {
    std::mutex mutex;
    std::condition_variable done;
    std::size_t remaining = 0;
  };
  auto group = std::make_shared<Group>();
  const auto destinations = Logwell::destinations();
  group->remaining = destinations.size();
  for (const auto& destination : destinations) {
    destination->execute(!destination->asynchronously(), [group] {
      std::lock_guard lock(group->mutex);
      if (--group->remaining == 0) group->done.notify_all();
    });
  }
  using namespace std::chrono;
  const auto limit = seconds(std::clamp<std::int64_t>(secondTimeout, 0, 100LL * 365 * 24 * 3600));
  std::unique_lock lock(group->mutex);
  return group->done.wait_until(lock, steady_clock::now() + limit,
                                [&] { return group->remaining == 0; });
}

std::shared_ptr<ConsoleDestination> addStandardErrorConsole(Level minLevel) {
  auto console = std::make_shared<ConsoleDestination>();
  console->output = stderr;
  // A person reading standard error wants the entry's context too (what exactly failed).
  console->format += " $X";
  console->minLevel = minLevel;
  if (::isatty(STDERR_FILENO)) console->setUseTerminalColors(true);
  Logwell::addDestination(console);
  return console;
}

}  // namespace logwell
