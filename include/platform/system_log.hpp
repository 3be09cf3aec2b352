#pragma once
/// The system log: messages with a subsystem, a category and a level. By default they go to
/// syslog(3); a program may send them to standard error, and a test installs a sink that
/// captures them.
///
///   platform::SystemLog log("com.example.sdk", "HeraldSDK");
///   log.debug("request sent");
///   platform::SystemLog::ScopedSink capture([&](const platform::LogRecord& r) { ... });

#include <functional>
#include <mutex>
#include <string>
#include <string_view>
#include <vector>

namespace platform {

enum class LogType { debug, info, error, fault };

std::string_view toString(LogType type);

struct LogRecord {
  std::string subsystem;
  std::string category;
  LogType type;
  std::string message;
};

using LogSink = std::function<void(const LogRecord&)>;

class SystemLog {
 public:
  SystemLog(std::string subsystem, std::string category);

  const std::string& subsystem() const { return subsystem_; }
  const std::string& category() const { return category_; }

  void log(LogType type, std::string_view message) const;
  void debug(std::string_view message) const { log(LogType::debug, message); }
  void info(std::string_view message) const { log(LogType::info, message); }
  void error(std::string_view message) const { log(LogType::error, message); }
  void fault(std::string_view message) const { log(LogType::fault, message); }

  /// Whether messages of `type` are kept at all (debug is kept only when enabled).
  static bool isEnabled(LogType type);
  static void setDebugEnabled(bool enabled);

  /// Replaces the sink of every log; an empty sink restores syslog(3).
  static void setSink(LogSink sink);
  /// Writes every message to standard error: "time subsystem[category] level: message".
  static void routeToStandardError();

  /// Installs a sink for the lifetime of the object and restores the previous one after.
  class ScopedSink {
   public:
    explicit ScopedSink(LogSink sink);
    ~ScopedSink();
    ScopedSink(const ScopedSink&) = delete;
    ScopedSink& operator=(const ScopedSink&) = delete;

   private:
    LogSink previous_;
    bool debugWasEnabled_;
  };

 private:
  std::string subsystem_;
  std::string category_;
};

/// A sink that keeps every record, safe to read from the test's thread.
class CapturedLog {
 public:
  CapturedLog();
  std::vector<LogRecord> records() const;
  /// Messages of one category, in order.
  std::vector<std::string> messages(std::string_view category = {}) const;
  void clear();

 private:
  mutable std::mutex mutex_;
  std::vector<LogRecord> records_;
  SystemLog::ScopedSink sink_;
};

/// One line on standard error with the time and the process name, like the phone's NSLog.
void nslog(std::string_view message);

}  // namespace platform
