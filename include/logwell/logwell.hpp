#pragma once
/// Logwell: leveled logging to any number of destinations, each of which formats and writes
/// on its own serial queue.
///
///   auto console = std::make_shared<logwell::ConsoleDestination>();
///   logwell::Logwell::addDestination(console);
///   logwell::Logwell::info("starting");                            // a value
///   logwell::Logwell::debug([&] { return expensiveDump(); });      // evaluated lazily
///   logwell::Logwell::error("upload failed", {{"user", "ada"}});   // with a context
///   logwell::Logwell::flush(2);                                    // wait up to 2 s
///
/// The message is either a value (text, number, or anything streamable) or a callable that
/// returns one; a callable is invoked at most once per call, and only when some destination
/// may take the entry. File, function and line default to the caller's.

#include <concepts>
#include <cstdint>
#include <memory>
#include <source_location>
#include <sstream>
#include <string>
#include <string_view>
#include <type_traits>
#include <vector>

#include "logwell/base_destination.hpp"
#include "logwell/cloud_log_destination.hpp"
#include "logwell/console_destination.hpp"
#include "logwell/context.hpp"
#include "logwell/file_destination.hpp"
#include "logwell/filter.hpp"
#include "logwell/level.hpp"

namespace logwell {

namespace detail {

std::string numberText(long long value);
std::string numberText(unsigned long long value);
std::string numberText(double value);

/// The text of a message value; `storage` holds it when it is not text already.
template <class T>
std::string_view messageText(T&& value, std::string& storage) {
  using U = std::remove_cvref_t<T>;
  if constexpr (std::is_convertible_v<T, std::string_view>) {
    if constexpr (std::is_same_v<U, std::string> && !std::is_lvalue_reference_v<T>) {
      storage = std::move(value);
      return storage;
    } else {
      return std::string_view(value);
    }
  } else if constexpr (std::is_same_v<U, bool>) {
    return value ? "true" : "false";
  } else if constexpr (std::is_same_v<U, char>) {
    storage.assign(1, value);
    return storage;
  } else if constexpr (std::is_floating_point_v<U>) {
    storage = numberText(static_cast<double>(value));
    return storage;
  } else if constexpr (std::is_integral_v<U> && std::is_signed_v<U>) {
    storage = numberText(static_cast<long long>(value));
    return storage;
  } else if constexpr (std::is_integral_v<U>) {
    storage = numberText(static_cast<unsigned long long>(value));
    return storage;
  } else {
    static_assert(Streamable<U>, "a log message must be text, a number or streamable");
    std::ostringstream out;
    out << value;
    storage = out.str();
    return storage;
  }
}

/// A message that is turned into text only when asked, at most once.
class LazyMessage {
 public:
  template <class M>
  explicit LazyMessage(M& message) noexcept
      : object_(const_cast<void*>(static_cast<const void*>(&message))),
        render_(&render<std::remove_reference_t<M>>) {}

  std::string_view text() {
    if (!done_) {
      text_ = render_(object_, storage_);
      done_ = true;
    }
    return text_;
  }

 private:
  template <class M>
  static std::string_view render(void* object, std::string& storage) {
    auto& message = *static_cast<M*>(object);
    if constexpr (std::is_invocable_v<M&>) {
      decltype(auto) result = message();
      // The result is a temporary: keep its text.
      std::string_view text = messageText(std::forward<decltype(result)>(result), storage);
      if (text.data() != storage.data()) storage.assign(text);
      return storage;
    } else {
      return messageText(message, storage);
    }
  }

  void* object_;
  std::string_view (*render_)(void*, std::string&);
  std::string storage_;
  std::string_view text_;
  bool done_ = false;
};

}  // namespace detail

class Logwell {
 public:
  using Level = logwell::Level;

  static constexpr std::string_view version = "2.1.1";
  static constexpr int build = 2110;

  /// The registered destinations, in the order they were added.
  static std::vector<std::shared_ptr<BaseDestination>> destinations();
  /// False when that very destination (or a null one) is already there.
  static bool addDestination(std::shared_ptr<BaseDestination> destination);
  /// False when it was not there. Entries already queued for it are still written.
  static bool removeDestination(const std::shared_ptr<BaseDestination>& destination);
  static void removeAllDestinations();
  static std::size_t countDestinations();

#define LOGWELL_LEVEL_CALL(name)                                                   \
  template <class M>                                                               \
  static void name(M&& message, Context context = {},                              \
                   std::source_location where = std::source_location::current()) { \
    custom(Level::name, message, where.file_name(), where.function_name(),         \
           static_cast<int>(where.line()), std::move(context));                    \
  }
  LOGWELL_LEVEL_CALL(verbose)
  LOGWELL_LEVEL_CALL(debug)
  LOGWELL_LEVEL_CALL(info)
  LOGWELL_LEVEL_CALL(warning)
  LOGWELL_LEVEL_CALL(error)
  LOGWELL_LEVEL_CALL(critical)
  LOGWELL_LEVEL_CALL(fault)
#undef LOGWELL_LEVEL_CALL

  /// Logs at `level` with the given place. The function text is sent as its base name with
  /// "()" ("void A::load(int)" → "A::load()"); a text without "(" is sent as it is.
  template <class M>
  static void custom(Level level, M&& message, std::string_view file, std::string_view function,
                     int line, Context context = {}) {
    detail::LazyMessage lazy(message);
    dispatch(level, lazy, file, function, line, std::move(context));
  }

  /// Logs at `level` from the caller's place.
  template <class M>
  static void custom(Level level, M&& message, Context context = {},
                     std::source_location where = std::source_location::current()) {
    custom(level, message, where.file_name(), where.function_name(), static_cast<int>(where.line()),
           std::move(context));
  }

  /// Empty on the main thread; the queue's label on a destination's queue; otherwise the
  /// thread's name and id.
  static std::string threadName();

  /// The queue budget in bytes of every registered destination and of those made
  /// afterwards (see `BaseDestination::setQueueBudget`); throws std::invalid_argument below
  /// `BaseDestination::minQueueBudget`.
  static void setQueueBudget(std::size_t bytes);
  /// The overflow policy of every registered destination and of those made afterwards.
  static void setOverflowPolicy(OverflowPolicy policy);

  /// Waits until every destination has handled what was logged before the call, at most
  /// `secondTimeout` seconds; true when all were done in time: every entry logged before
  /// the call is then written, or was counted as dropped.
  static bool flush(std::int64_t secondTimeout);

 private:
  static void dispatch(Level level, detail::LazyMessage& message, std::string_view file,
                       std::string_view function, int line, Context&& context);
};

/// Adds a console destination that prints to standard error (terminal colours when standard
/// error is a terminal) and returns it.
///
///   if (verbose) logwell::addStandardErrorConsole();
std::shared_ptr<ConsoleDestination> addStandardErrorConsole(Level minLevel = Level::verbose);

}  // namespace logwell
