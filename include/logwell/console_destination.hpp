#pragma once
/// Writes each line to the console: standard output (or another stream), the `nslog` line on
/// standard error, or the system log with a subsystem and category.
///
///   auto console = std::make_shared<logwell::ConsoleDestination>();
///   console->setUseTerminalColors(true);   // 256-colour escapes instead of emoji
///   console->logPrintWay = logwell::ConsoleDestination::LogPrintWay::logger("com.app", "push");
///   logwell::Logwell::addDestination(console);

#include <cstdio>
#include <string>

#include "logwell/base_destination.hpp"

namespace logwell {

class ConsoleDestination : public BaseDestination {
 public:
  struct LogPrintWay {
    enum class Kind { logger, nslog, print };
    Kind kind = Kind::print;
    std::string subsystem;  ///< only for `logger`
    std::string category;   ///< only for `logger`

    static LogPrintWay logger(std::string subsystem, std::string category) {
      return {Kind::logger, std::move(subsystem), std::move(category)};
    }
    static LogPrintWay nslog() { return {Kind::nslog, {}, {}}; }
    static LogPrintWay print() { return {Kind::print, {}, {}}; }
    friend bool operator==(const LogPrintWay&, const LogPrintWay&) = default;
  };

  /// The emoji colour scheme, printing to standard output.
  ConsoleDestination();

  LogPrintWay logPrintWay = LogPrintWay::print();
  /// Where the `print` way writes; standard output by default.
  std::FILE* output = stdout;

  bool useNSLog() const { return useNSLog_; }
  /// True also switches `logPrintWay` to `nslog`; false leaves it as it is.
  void setUseNSLog(bool value);

  bool useTerminalColors() const { return useTerminalColors_; }
  /// True: terminal colours for every level, with `escape` and `reset` set. False: the emoji
  /// scheme, leaving `escape` and `reset` as they are.
  void setUseTerminalColors(bool value);

  std::optional<std::string> send(Level level, std::string_view msg, std::string_view thread,
                                  std::string_view file, std::string_view function, int line,
                                  const Context& context = {}) override;

 private:
  bool useNSLog_ = false;
  bool useTerminalColors_ = false;
};

}  // namespace logwell
