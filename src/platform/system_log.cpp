#include "platform/system_log.hpp"

#include <syslog.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <ctime>
#include <fstream>
#include <utility>

namespace platform {
namespace {

struct Registry {
  std::mutex mutex;
  LogSink sink;
  bool debugEnabled = false;
};

Registry& registry() {
  static Registry* r = new Registry();
  return *r;
}

int syslogPriority(LogType type) {
  switch (type) {
    case LogType::debug: return LOG_DEBUG;
    case LogType::info: return LOG_INFO;
    case LogType::error: return LOG_ERR;
    case LogType::fault: return LOG_CRIT;
  }
  return LOG_INFO;
}

std::string timestamp() {
  using namespace std::chrono;
  const auto now = system_clock::now();
  const auto t = system_clock::to_time_t(now);
  const auto ms = duration_cast<milliseconds>(now.time_since_epoch()).count() % 1000;
  std::tm tm{};
  localtime_r(&t, &tm);
  char buf[64];
  std::snprintf(buf, sizeof buf, "%04d-%02d-%02d %02d:%02d:%02d.%03d", tm.tm_year + 1900,
                tm.tm_mon + 1, tm.tm_mday, tm.tm_hour, tm.tm_min, tm.tm_sec, static_cast<int>(ms));
  return buf;
}

std::string processName() {
  std::ifstream comm("/proc/self/comm");
  std::string name;
  std::getline(comm, name);
  return name.empty() ? "process" : name;
}

}  // namespace

std::string_view toString(LogType type) {
  switch (type) {
    case LogType::debug: return "debug";
    case LogType::info: return "info";
    case LogType::error: return "error";
    case LogType::fault: return "fault";
  }
  return "info";
}

SystemLog::SystemLog(std::string subsystem, std::string category)
    : subsystem_(std::move(subsystem)), category_(std::move(category)) {}

bool SystemLog::isEnabled(LogType type) {
  if (type != LogType::debug) return true;
  std::lock_guard lock(registry().mutex);
  return registry().debugEnabled;
}

void SystemLog::setDebugEnabled(bool enabled) {
  std::lock_guard lock(registry().mutex);
  registry().debugEnabled = enabled;
}

void SystemLog::log(LogType type, std::string_view message) const {
  LogSink sink;
  {
    std::lock_guard lock(registry().mutex);
    if (type == LogType::debug && !registry().debugEnabled && !registry().sink) return;
    sink = registry().sink;
  }
  if (sink) {
    sink(LogRecord{subsystem_, category_, type, std::string(message)});
    return;
  }
  syslog(syslogPriority(type), "%s[%s] %.*s", subsystem_.c_str(), category_.c_str(),
         static_cast<int>(message.size()), message.data());
}

void SystemLog::setSink(LogSink sink) {
  std::lock_guard lock(registry().mutex);
  registry().sink = std::move(sink);
}

void SystemLog::routeToStandardError() {
  setDebugEnabled(true);
  setSink([](const LogRecord& r) {
    const auto line = timestamp() + " " + r.subsystem + "[" + r.category + "] " +
                      std::string(toString(r.type)) + ": " + r.message + "\n";
    std::fwrite(line.data(), 1, line.size(), stderr);
  });
}

SystemLog::ScopedSink::ScopedSink(LogSink sink) {
  std::lock_guard lock(registry().mutex);
  previous_ = std::exchange(registry().sink, std::move(sink));
  debugWasEnabled_ = std::exchange(registry().debugEnabled, true);
}

SystemLog::ScopedSink::~ScopedSink() {
  std::lock_guard lock(registry().mutex);
  registry().sink = std::move(previous_);
  registry().debugEnabled = debugWasEnabled_;
}

CapturedLog::CapturedLog()
    : sink_([this](const LogRecord& record) {
        std::lock_guard lock(mutex_);
        records_.push_back(record);
      }) {}

std::vector<LogRecord> CapturedLog::records() const {
  std::lock_guard lock(mutex_);
  return records_;
}

std::vector<std::string> CapturedLog::messages(std::string_view category) const {
  std::lock_guard lock(mutex_);
  std::vector<std::string> out;
  for (const auto& r : records_)
    if (category.empty() || r.category == category) out.push_back(r.message);
  return out;
}

void CapturedLog::clear() {
  std::lock_guard lock(mutex_);
  records_.clear();
}

void nslog(std::string_view message) {
  static const std::string name = processName();
  const auto line = timestamp() + " " + name + "[" + std::to_string(getpid()) + "] " +
                    std::string(message) + "\n";
  std::fwrite(line.data(), 1, line.size(), stderr);
}

}  // namespace platform
