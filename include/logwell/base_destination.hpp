#pragma once
/// The destination every output derives from: it owns the format, the minimum level, the
/// level strings and colours, the filters, and a serial queue on which its entries are
/// formatted and written one at a time, in the order they were logged.
///
/// The format language: each token starts with "$" and may carry a width ("$5L" right-aligns
/// the level in five characters, "$-5L" left-aligns it):
///   $L level   $M message   $T thread   $N file without suffix   $n file   $F function
///   $l line    $U uptime    $X context  $C colour on   $c colour off
///   $D<date format>$d  local time     $Z<date format>$z  UTC time   (ICU date patterns)
///   $J at the very start: the whole entry as one JSON object.
///
///   auto dest = std::make_shared<logwell::BaseDestination>();
///   dest->format = "$L: $M";
///   dest->formatMessage(dest->format, logwell::Level::info, "x", "", "a.cpp", "f()", 1);
///   // "INFO: x"

#include <chrono>
#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "logwell/context.hpp"
#include "logwell/filter.hpp"
#include "logwell/level.hpp"

namespace logwell {

class Logwell;

/// What an asynchronous destination does with an entry that does not fit in its queue's
/// budget: drop the oldest waiting entries to make room, drop the new entry, or make the
/// caller wait for room.
enum class OverflowPolicy : unsigned char { dropOldest, dropNewest, block };

namespace detail {
class SerialQueue;
struct Entry;
struct FormatState;
}  // namespace detail

class BaseDestination : public std::enable_shared_from_this<BaseDestination> {
 public:
  /// One text per level.
  struct LevelString {
    std::string verbose = "VERBOSE";
    std::string debug = "DEBUG";
    std::string info = "INFO";
    std::string warning = "WARNING";
    std::string error = "ERROR";
    std::string critical = "CRITICAL";
    std::string fault = "FAULT";

    const std::string& operator[](Level level) const;
    std::string& operator[](Level level);
  };

  /// One colour per level; written by the `$C` token after `escape`.
  struct LevelColor {
    std::string verbose, debug, info, warning, error, critical, fault;

    const std::string& operator[](Level level) const;
    std::string& operator[](Level level);
  };

  BaseDestination();
  virtual ~BaseDestination();
  BaseDestination(const BaseDestination&) = delete;
  BaseDestination& operator=(const BaseDestination&) = delete;

  // Configuration. Set it before the destination is added, or from its own queue (through
  // `execute`): entries read it on the logging thread (level, filters) and on the queue.

  std::string format = "$DHH:mm:ss.SSS$d $C$L$c $N.$F:$l - $M";
  Level minLevel = Level::verbose;
  LevelString levelString;
  LevelColor levelColor;
  /// The ICU calendar of the date tokens ("gregorian", "buddhist", …); by default the one of
  /// the user's locale.
  std::string calendar;
  std::string reset;
  std::string escape;
  std::vector<std::shared_ptr<FilterType>> filters;
  /// When true, the filter decision prints its reason on standard output.
  bool debugPrint = false;
  /// The creation instant, base of the `$U` token.
  const std::chrono::steady_clock::time_point startDate;

  /// The entries waiting for an asynchronous destination live in memory that its queue maps
  /// as they come and gives back once they are written, up to a budget in bytes (64 MB by
  /// default: some 300,000 ordinary entries). What happens to an entry that does not fit is
  /// the overflow policy's choice; by default the caller waits for room (`block`), so that a
  /// destination that is merely slower than a burst loses nothing. Dropped entries are
  /// counted, and the destination writes one warning entry with an empty file and function
  /// and line 0 before the next ones it writes (and before any block given to `execute`):
  ///   "logwell: dropped 123 entries while this destination was behind"
  /// An entry larger than the whole budget is dropped under every policy. Blocks given to
  /// `execute` and synchronous callers are never dropped nor made to wait for room: they may
  /// take a page past the budget. `Logwell::setQueueBudget` and
  /// `Logwell::setOverflowPolicy` set both for every destination at once.
  static constexpr std::size_t defaultQueueBudget = 64 * 1024 * 1024;
  static constexpr std::size_t minQueueBudget = 64 * 1024;
  static constexpr OverflowPolicy defaultOverflowPolicy = OverflowPolicy::block;

  std::size_t queueBudget() const;
  /// Throws std::invalid_argument below `minQueueBudget`.
  void setQueueBudget(std::size_t bytes);
  OverflowPolicy overflowPolicy() const;
  void setOverflowPolicy(OverflowPolicy policy);
  /// The memory the queue holds now, in bytes.
  std::size_t queueBytesHeld() const;

  /// Whether entries are handed to the queue without waiting (true by default).
  virtual bool asynchronously() const { return asynchronously_; }
  virtual void setAsynchronously(bool value) { asynchronously_ = value; }

  /// The queue's label, "logwell-queue-" followed by a UUID.
  const std::string& queueLabel() const;

  /// Formats one entry and writes it; returns the line, or nothing when there is none.
  /// Runs on the destination's queue. The base only formats: subclasses write the line.
  virtual std::optional<std::string> send(Level level, std::string_view msg,
                                          std::string_view thread, std::string_view file,
                                          std::string_view function, int line,
                                          const Context& context = {});

  /// Runs `block` on the queue, after everything submitted before it; with `synchronously`
  /// the caller waits (the block then runs on the caller's thread while the queue is held,
  /// and at once when the caller already is on the queue).
  void execute(bool synchronously, std::function<void()> block);

  /// Runs `block` on the queue and returns its result; its exceptions reach the caller.
  template <class F>
  auto executeSynchronously(F&& block) -> decltype(block()) {
    using R = decltype(block());
    if constexpr (std::is_void_v<R>) {
      runSynchronously([&] { block(); });
    } else {
      std::optional<R> result;
      runSynchronously([&] { result.emplace(block()); });
      return std::move(*result);
    }
  }

  /// Whether an entry passes `minLevel` and the filters. An absent message fails every
  /// message filter.
  bool shouldLevelBeLogged(Level level, std::string_view path, std::string_view function,
                           std::optional<std::string_view> message = std::nullopt);

  void addFilter(std::shared_ptr<FilterType> filter);
  /// Removes every occurrence of that very filter object.
  void removeFilter(const std::shared_ptr<FilterType>& filter);

  /// The line the format language makes of an entry (trailing white space removed).
  std::string formatMessage(std::string_view format, Level level, std::string_view msg,
                            std::string_view thread, std::string_view file,
                            std::string_view function, int line, const Context& context = {});
  /// As above, appending to `out` (which keeps its capacity between entries).
  void formatMessage(std::string& out, std::string_view format, Level level, std::string_view msg,
                     std::string_view thread, std::string_view file, std::string_view function,
                     int line, const Context& context = {});

  /// The entry as one JSON object ("timestamp", "level", "message", "thread", "file",
  /// "function", "line" and, when given, "context"); nothing when it cannot be written as
  /// JSON (invalid UTF-8, a number that is not finite).
  std::optional<std::string> messageToJSON(Level level, std::string_view msg,
                                           std::string_view thread, std::string_view file,
                                           std::string_view function, int line,
                                           const Context& context = {});

  /// The current time in an ICU date pattern; `timeZone` is an abbreviation or identifier
  /// ("UTC", "PST", "Europe/Paris"), empty for the zone last set (the local one at first).
  std::string formatDate(std::string_view dateFormat, std::string_view timeZone = {});
  /// Time since `startDate` as "HH:MM:SS.mmm".
  std::string uptime() const;
  const std::string& colorForLevel(Level level) const { return levelColor[level]; }

 protected:
  /// A string with spare capacity, for the line a `send` returns; the queue hands the
  /// returned line back after the entry so that the next entry reuses its buffer.
  std::string takeLineBuffer();

  /// True while `send` runs for an entry that the queue handed over asynchronously: the
  /// line may then be kept until `batchEnded`, which the queue calls once the entries that
  /// were waiting in a row are all sent (before a block, before it waits for more).
  bool deliveringBatch() const { return deliveringBatch_; }
  virtual void batchEnded() {}

 private:
  friend class Logwell;

  void runSynchronously(const std::function<void()>& block);
  void deliver(const detail::Entry& entry);
  void submit(const detail::Entry& entry);
  bool minLevelRejects(Level level) const {
    return filters.empty() && !debugPrint && rawValue(level) < rawValue(minLevel);
  }

  bool asynchronously_ = true;
  bool deliveringBatch_ = false;
  std::unique_ptr<detail::FormatState> formatState_;
  std::string spareLine_;
  std::unique_ptr<detail::SerialQueue> queue_;
};

}  // namespace logwell
