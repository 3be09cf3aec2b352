#include "logwell/console_destination.hpp"

#include "logwell/internal/output.hpp"
#include "logwell/internal/schemes.hpp"
#include "platform/system_log.hpp"

namespace logwell {

ConsoleDestination::ConsoleDestination() {
  setUseTerminalColors(false);
}

void ConsoleDestination::setUseNSLog(bool value) {
  useNSLog_ = value;
  if (value) logPrintWay = LogPrintWay::nslog();
}

void ConsoleDestination::setUseTerminalColors(bool value) {
  useTerminalColors_ = value;
  for (int i = 0; i <= rawValue(Level::fault); ++i) {
    const auto level = static_cast<Level>(i);
    levelColor[level] = value ? detail::terminalColor(level) : detail::emojiColor(level);
  }
  if (value) {
    reset = detail::terminalReset;
    escape = detail::terminalEscape;
  }
}

std::optional<std::string> ConsoleDestination::send(Level level, std::string_view msg,
                                                    std::string_view thread, std::string_view file,
                                                    std::string_view function, int line,
                                                    const Context& context) {
  auto text = BaseDestination::send(level, msg, thread, file, function, line, context);
  if (!text) return std::nullopt;
  switch (logPrintWay.kind) {
    case LogPrintWay::Kind::nslog:
      platform::nslog(*text);
      break;
    case LogPrintWay::Kind::print:
      detail::printLine(*text, output ? output : stdout);
      break;
    case LogPrintWay::Kind::logger: {
      using platform::LogType;
      LogType type = LogType::fault;
      switch (level) {
        case Level::verbose:
        case Level::debug:
          type = LogType::debug;
          break;
        case Level::info:
          type = LogType::info;
          break;
        case Level::warning:
        case Level::error:
          type = LogType::error;
          break;
        case Level::critical:
        case Level::fault:
          type = LogType::fault;
          break;
      }
      if (platform::SystemLog::isEnabled(type))
        platform::SystemLog(logPrintWay.subsystem, logPrintWay.category).log(type, *text);
      break;
    }
  }
  return text;
}

}  // namespace logwell
