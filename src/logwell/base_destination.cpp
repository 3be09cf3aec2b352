#include "logwell/base_destination.hpp"

#include <boost/json/object.hpp>
#include <charconv>
#include <cmath>
#include <cstdio>
#include <utility>

#include "logwell/internal/entry.hpp"
#include "logwell/internal/format_state.hpp"
#include "logwell/internal/output.hpp"
#include "logwell/internal/serial_queue.hpp"
#include "logwell/internal/text.hpp"
#include "platform/json.hpp"
#include "platform/paths.hpp"

namespace logwell {

static_assert(BaseDestination::minQueueBudget == detail::SerialQueue::minBudget);

namespace {

template <class Strings>
auto& levelField(Strings& s, Level level) {
  switch (level) {
    case Level::verbose:
      return s.verbose;
    case Level::debug:
      return s.debug;
    case Level::info:
      return s.info;
    case Level::warning:
      return s.warning;
    case Level::error:
      return s.error;
    case Level::critical:
      return s.critical;
    case Level::fault:
      break;
  }
  return s.fault;
}

// The file name of a path: its last "/"-component.
std::string_view fileName(std::string_view file) {
  const auto slash = file.rfind('/');
  return slash == std::string_view::npos ? file : file.substr(slash + 1);
}

std::int64_t nowMilliseconds() {
  using namespace std::chrono;
  return duration_cast<milliseconds>(system_clock::now().time_since_epoch()).count();
}

}  // namespace

std::string_view defaultLevelString(Level level) noexcept {
  static const BaseDestination::LevelString defaults;
  return defaults[level];
}

const std::string& BaseDestination::LevelString::operator[](Level level) const {
  return levelField(*this, level);
}
std::string& BaseDestination::LevelString::operator[](Level level) {
  return levelField(*this, level);
}
const std::string& BaseDestination::LevelColor::operator[](Level level) const {
  return levelField(*this, level);
}
std::string& BaseDestination::LevelColor::operator[](Level level) {
  return levelField(*this, level);
}

BaseDestination::BaseDestination()
    : calendar(detail::defaultCalendarType()),
      startDate(std::chrono::steady_clock::now()),
      formatState_(std::make_unique<detail::FormatState>()) {
  queue_ = std::make_unique<detail::SerialQueue>(
      "logwell-queue-" + platform::newUUID(),
      [this](const detail::Entry& entry) {
        deliveringBatch_ = true;
        deliver(entry);
        deliveringBatch_ = false;
      },
      [this] { batchEnded(); },
      [this]() -> std::shared_ptr<void> { return weak_from_this().lock(); });
  queue_->setBudget(detail::queueDefaults().budget.load());
  queue_->setPolicy(detail::queueDefaults().policy.load());
}

std::size_t BaseDestination::queueBudget() const {
  return queue_->budget();
}
void BaseDestination::setQueueBudget(std::size_t bytes) {
  queue_->setBudget(bytes);
}
OverflowPolicy BaseDestination::overflowPolicy() const {
  return queue_->policy();
}
void BaseDestination::setOverflowPolicy(OverflowPolicy policy) {
  queue_->setPolicy(policy);
}
std::size_t BaseDestination::queueBytesHeld() const {
  return queue_->bytesHeld();
}

BaseDestination::~BaseDestination() = default;

const std::string& BaseDestination::queueLabel() const {
  return queue_->label();
}

std::optional<std::string> BaseDestination::send(Level level, std::string_view msg,
                                                 std::string_view thread, std::string_view file,
                                                 std::string_view function, int line,
                                                 const Context& context) {
  if (format.starts_with("$J"))
    return messageToJSON(level, msg, thread, file, function, line, context);
  std::string out = takeLineBuffer();
  formatMessage(out, format, level, msg, thread, file, function, line, context);
  return out;
}

std::string BaseDestination::takeLineBuffer() {
  std::string buffer = std::move(spareLine_);
  buffer.clear();
  return buffer;
}

void BaseDestination::deliver(const detail::Entry& e) {
  auto line = send(e.level, e.message, e.thread, e.file, e.function, e.line, *e.context);
  // Keep the buffer for the next line, unless one huge entry made it huge.
  if (line && line->capacity() <= 4096) spareLine_ = std::move(*line);
}

void BaseDestination::submit(const detail::Entry& entry) {
  if (asynchronously())
    queue_->async(entry);
  else
    queue_->sync([&] { deliver(entry); });
}

void BaseDestination::execute(bool synchronously, std::function<void()> block) {
  if (synchronously)
    queue_->sync(block);
  else
    queue_->async(std::move(block));
}

void BaseDestination::runSynchronously(const std::function<void()>& block) {
  queue_->sync(block);
}

bool BaseDestination::shouldLevelBeLogged(Level level, std::string_view path,
                                          std::string_view function,
                                          std::optional<std::string_view> message) {
  const bool levelPasses = rawValue(level) >= rawValue(minLevel);
  auto levelCheck = [&] {
    if (debugPrint)
      detail::printLine(levelPasses ? "filters are empty and level >= minLevel"
                                    : "filters are empty and level < minLevel");
    return levelPasses;
  };
  if (filters.empty()) return levelCheck();

  using Kind = FilterValidator::Result::Kind;
  using Type = FilterValidator::ValidationType;
  const FilterValidator::Input input{&filters, level, path, function, message};

  // An excluded filter vetoes the entry as soon as it applies (for an `Excludes` filter:
  // as soon as one of its texts is missing), whatever its level.
  const auto excluded = FilterValidator::validate(input, Type::excluded);
  const bool vetoed = excluded.kind == Kind::allFiltersMatch ||
                      (excluded.kind == Kind::someFiltersMatch &&
                       excluded.data.fullMatchCount + excluded.data.conditionMatchCount > 0);
  if (vetoed) {
    if (debugPrint) detail::printLine("filters are not empty and message was excluded");
    return false;
  }
  const auto required = FilterValidator::validate(input, Type::required);
  if (required.kind == Kind::allFiltersMatch) return true;
  if (required.kind == Kind::someFiltersMatch) return false;

  const auto optional = FilterValidator::validate(input, Type::nonRequired);
  switch (optional.kind) {
    case Kind::allFiltersMatch:
      return true;
    case Kind::noFiltersMatchingType:
      return levelCheck();
    case Kind::someFiltersMatch:
      if (optional.data.fullMatchCount > 0) return true;
      if (optional.data.conditionMatchCount > 0) return false;
      return levelCheck();
  }
  return levelCheck();
}

void BaseDestination::addFilter(std::shared_ptr<FilterType> filter) {
  filters.push_back(std::move(filter));
}

void BaseDestination::removeFilter(const std::shared_ptr<FilterType>& filter) {
  std::erase(filters, filter);
}

std::string BaseDestination::formatMessage(std::string_view fmt, Level level, std::string_view msg,
                                           std::string_view thread, std::string_view file,
                                           std::string_view function, int line,
                                           const Context& context) {
  std::string out;
  formatMessage(out, fmt, level, msg, thread, file, function, line, context);
  return out;
}

void BaseDestination::formatMessage(std::string& out, std::string_view fmt, Level level,
                                    std::string_view msg, std::string_view thread,
                                    std::string_view file, std::string_view function, int line,
                                    const Context& context) {
  auto& compiled = formatState_->compiled;
  if (!compiled.valid || compiled.source != fmt) compiled = detail::compileFormat(fmt);

  std::int64_t now = 0;
  bool haveNow = false;
  auto date = [&](std::string_view pattern, std::string_view zone) -> const std::string& {
    if (!haveNow) {
      now = nowMilliseconds();
      haveNow = true;
    }
    return formatState_->date.format(pattern, zone, calendar, now);
  };

  for (const auto& p : compiled.phrases) {
    switch (p.token) {
      case 'I':
      case 'd':
      case 'z':
        out += p.text;
        break;
      case 'L':
        detail::appendPadded(out, levelString[level], p.padding);
        out += p.text;
        break;
      case 'M':
        detail::appendPadded(out, msg, p.padding);
        out += p.text;
        break;
      case 'T':
        detail::appendPadded(out, thread, p.padding);
        out += p.text;
        break;
      case 'N': {
        const auto name = fileName(file);
        detail::appendPadded(out, name.substr(0, name.find('.')), p.padding);
        out += p.text;
        break;
      }
      case 'n':
        detail::appendPadded(out, fileName(file), p.padding);
        out += p.text;
        break;
      case 'F':
        detail::appendPadded(out, function, p.padding);
        out += p.text;
        break;
      case 'l': {
        char digits[16];
        const auto end = std::to_chars(digits, digits + sizeof digits, line).ptr;
        detail::appendPadded(out, std::string_view(digits, end - digits), p.padding);
        out += p.text;
        break;
      }
      case 'D':
        detail::appendPadded(out, date(p.text, {}), p.padding);
        break;
      case 'Z':
        detail::appendPadded(out, date(p.text, "UTC"), p.padding);
        break;
      case 'U':
        detail::appendPadded(out, uptime(), p.padding);
        out += p.text;
        break;
      case 'C':
        out += escape;
        out += colorForLevel(level);
        out += p.text;
        break;
      case 'c':
        out += reset;
        out += p.text;
        break;
      case 'X':
        detail::appendPadded(out, context ? context.description() : std::string(), p.padding);
        out += p.text;
        break;
      default:
        out += p.text;
        break;
    }
  }
  detail::trimTrailingWhiteSpace(out);
}

std::optional<std::string> BaseDestination::messageToJSON(Level level, std::string_view msg,
                                                          std::string_view thread,
                                                          std::string_view file,
                                                          std::string_view function, int line,
                                                          const Context& context) {
  using namespace std::chrono;
  const double timestamp =
      static_cast<double>(
          duration_cast<microseconds>(system_clock::now().time_since_epoch()).count()) /
      1e6;
  boost::json::object dict;
  dict["timestamp"] = timestamp;
  dict["level"] = rawValue(level);
  dict["message"] = msg;
  dict["thread"] = thread;
  dict["file"] = file;
  dict["function"] = function;
  dict["line"] = line;
  if (context) dict["context"] = context.value();
  const boost::json::value value(std::move(dict));
  if (!detail::isJSONSerializable(value)) {
    detail::printLine("Logwell could not create JSON from dict.");
    return std::nullopt;
  }
  return platform::toJSON(value);
}

std::string BaseDestination::formatDate(std::string_view dateFormat, std::string_view timeZone) {
  return formatState_->date.format(dateFormat, timeZone, calendar, nowMilliseconds());
}

std::string BaseDestination::uptime() const {
  const double seconds =
      std::chrono::duration<double>(std::chrono::steady_clock::now() - startDate).count();
  const double whole = std::floor(seconds);
  const auto total = static_cast<long long>(whole);
  const int hours = static_cast<int>(total / 3600);
  const int minutes = static_cast<int>(total / 60 % 60);
  const int secs = static_cast<int>(total % 60);
  const int millis = static_cast<int>((seconds - whole) * 1000);
  char buffer[48];
  std::snprintf(buffer, sizeof buffer, "%.2d:%.2d:%.2d.%03d", hours, minutes, secs, millis);
  return buffer;
}

}  // namespace logwell
