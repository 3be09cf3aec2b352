#pragma once
// Helpers of the logging tests: a destination that records what it is sent, and a capture of
// what a process writes on one of its standard streams.

#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <fstream>
#include <future>
#include <mutex>
#include <iterator>
#include <string>
#include <thread>
#include <vector>

#include "logwell/logwell.hpp"

namespace logwell_test {

struct Sent {
  logwell::Level level;
  std::string message, thread, file, function, line;
};

/// Records every entry and its formatted line; can be told to block until a gate opens.
class Recorder : public logwell::BaseDestination {
 public:
  struct Log {
    std::mutex mutex;
    std::vector<Sent> entries;
    std::vector<std::string> lines;
    std::size_t size() {
      std::lock_guard lock(mutex);
      return entries.size();
    }
  };

  explicit Recorder(std::shared_ptr<Log> log = std::make_shared<Log>()) : log(std::move(log)) {
    format = "$M";
  }

  std::shared_ptr<Log> log;
  std::shared_future<void> gate;
  /// Entries whose `send` has begun (it may still wait at the gate).
  std::atomic<std::size_t> started{0};

  std::optional<std::string> send(logwell::Level level, std::string_view msg,
                                  std::string_view thread, std::string_view file,
                                  std::string_view function, int line,
                                  const logwell::Context& context) override {
    ++started;
    if (gate.valid()) gate.wait();
    auto text = BaseDestination::send(level, msg, thread, file, function, line, context);
    std::lock_guard lock(log->mutex);
    log->entries.push_back({level, std::string(msg), std::string(thread), std::string(file),
                            std::string(function), std::to_string(line)});
    log->lines.push_back(text.value_or("<none>"));
    return text;
  }
};

/// Sends one standard stream (stdout or stderr) to a file while it lives.
class CaptureStream {
 public:
  explicit CaptureStream(std::FILE* stream) : stream_(stream) {
    std::fflush(stream_);
    fd_ = fileno(stream_);
    saved_ = ::dup(fd_);
    path_ = "/tmp/logwell-capture-" + std::to_string(::getpid()) + "-" + std::to_string(fd_);
    std::FILE* f = std::fopen(path_.c_str(), "w");
    ::dup2(fileno(f), fd_);
    std::fclose(f);
  }
  ~CaptureStream() { restore(); }

  std::string text() {
    restore();
    std::ifstream in(path_);
    return {std::istreambuf_iterator<char>(in), {}};
  }

 private:
  void restore() {
    if (saved_ < 0) return;
    std::fflush(stream_);
    ::dup2(saved_, fd_);
    ::close(saved_);
    saved_ = -1;
  }

  std::FILE* stream_;
  int fd_ = -1, saved_ = -1;
  std::string path_;
};

/// Polls `done` until it holds or a few seconds have passed.
template <class Pred>
bool eventually(Pred done) {
  const auto limit = std::chrono::steady_clock::now() + std::chrono::seconds(10);
  for (; !done(); std::this_thread::sleep_for(std::chrono::milliseconds(2)))
    if (std::chrono::steady_clock::now() > limit) return false;
  return true;
}

}  // namespace logwell_test
