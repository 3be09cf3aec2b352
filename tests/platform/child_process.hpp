#pragma once
// Runs a piece of a test in a forked child, for what only another process can show (a
// second writer, a dropped privilege, a resource limit). The child's text comes back
// through a pipe; every wait is bounded so that a stuck child fails the test instead of
// hanging it.

#include <poll.h>
#include <signal.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <chrono>
#include <exception>
#include <functional>
#include <stdexcept>
#include <string>

namespace test_support {

struct ChildResult {
  int exitCode = -1;  ///< -1 when the child did not exit normally
  std::string output;
};

class ChildProcess {
 public:
  using Write = std::function<void(const std::string&)>;

  /// Forks; the child runs `body(write)`, where `write` sends text back, and exits with its
  /// return value (an escaping exception's what() is sent and the exit code is 99).
  explicit ChildProcess(const std::function<int(const Write&)>& body) {
    int fds[2];
    if (::pipe(fds) != 0) throw std::runtime_error("pipe failed");
    pid_ = ::fork();
    if (pid_ < 0) throw std::runtime_error("fork failed");
    if (pid_ == 0) {
      ::close(fds[0]);
      Write write = [fd = fds[1]](const std::string& text) {
        for (std::size_t done = 0; done < text.size();) {
          const ssize_t n = ::write(fd, text.data() + done, text.size() - done);
          if (n <= 0) return;
          done += static_cast<std::size_t>(n);
        }
      };
      int code = 99;
      try {
        code = body(write);
      } catch (const std::exception& e) {
        write(e.what());
      }
      ::_exit(code);  // none of the parent's atexit handlers or static destructors
    }
    ::close(fds[1]);
    fd_ = fds[0];
  }

  ~ChildProcess() {
    if (pid_ > 0) {
      ::kill(pid_, SIGKILL);
      ::waitpid(pid_, nullptr, 0);
    }
    if (fd_ >= 0) ::close(fd_);
  }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  /// Collects the child's text until it exits; kills it after `limit`.
  ChildResult finish(std::chrono::seconds limit = std::chrono::seconds(60)) {
    ChildResult result;
    const auto deadline = std::chrono::steady_clock::now() + limit;
    for (;;) {
      const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(
          deadline - std::chrono::steady_clock::now());
      pollfd p{fd_, POLLIN, 0};
      const int ready = left.count() > 0 ? ::poll(&p, 1, static_cast<int>(left.count())) : 0;
      if (ready < 0 && errno == EINTR) continue;
      if (ready <= 0) {
        ::kill(pid_, SIGKILL);
        result.output += "[killed after the time limit]";
        break;
      }
      char buffer[4096];
      const ssize_t n = ::read(fd_, buffer, sizeof buffer);
      if (n <= 0) break;
      result.output.append(buffer, static_cast<std::size_t>(n));
    }
    int status = 0;
    ::waitpid(pid_, &status, 0);
    pid_ = -1;
    if (WIFEXITED(status)) result.exitCode = WEXITSTATUS(status);
    return result;
  }

 private:
  pid_t pid_ = -1;
  int fd_ = -1;
};

/// Runs `body` in a child and waits for it.
inline ChildResult runInChild(const std::function<int(const ChildProcess::Write&)>& body) {
  return ChildProcess(body).finish();
}

}  // namespace test_support
