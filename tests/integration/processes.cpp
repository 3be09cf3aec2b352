#include "integration/processes.hpp"

#include <gtest/gtest.h>

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <csignal>
#include <cstdlib>
#include <sstream>
#include <stdexcept>

#include "platform/json.hpp"
#include "platform/url_loading.hpp"

namespace integration {
namespace {

using Clock = std::chrono::steady_clock;

struct Pipe {
  int fd[2] = {-1, -1};
  Pipe() {
    if (::pipe2(fd, O_CLOEXEC) != 0) throw std::runtime_error("pipe failed");
  }
  ~Pipe() { closeBoth(); }
  void closeBoth() {
    for (int& f : fd)
      if (f >= 0) ::close(std::exchange(f, -1));
  }
};

pid_t spawn(const std::vector<std::string>& argv, int in, int out, int err) {
  std::vector<char*> args;
  for (const auto& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  const pid_t pid = ::fork();
  if (pid < 0) throw std::runtime_error("fork failed");
  if (pid == 0) {
    ::signal(SIGPIPE, SIG_DFL);
    if (in >= 0) ::dup2(in, 0);
    if (out >= 0) ::dup2(out, 1);
    if (err >= 0) ::dup2(err, 2);
    ::execv(args[0], args.data());
    ::_exit(127);
  }
  return pid;
}

int waitFor(pid_t pid, Clock::time_point deadline) {
  int status = 0;
  while (::waitpid(pid, &status, WNOHANG) == 0) {
    if (Clock::now() >= deadline) {
      ::kill(pid, SIGKILL);
      ::waitpid(pid, &status, 0);
      return -1;
    }
    ::usleep(5000);
  }
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

int remainingMs(Clock::time_point deadline) {
  const auto left = std::chrono::duration_cast<std::chrono::milliseconds>(deadline - Clock::now());
  return left.count() > 0 ? static_cast<int>(left.count()) : 0;
}

}  // namespace

std::string program(const std::string& name) {
  const char* dir = std::getenv("HERALD_BIN_DIR");
  if (!dir) throw std::runtime_error("HERALD_BIN_DIR is not set");
  return std::string(dir) + "/" + name;
}

Finished run(const std::vector<std::string>& argv, const std::string& input,
             std::chrono::milliseconds limit) {
  const auto deadline = Clock::now() + limit;
  Pipe in, out, err;
  const pid_t pid = spawn(argv, in.fd[0], out.fd[1], err.fd[1]);
  ::close(std::exchange(in.fd[0], -1));
  ::close(std::exchange(out.fd[1], -1));
  ::close(std::exchange(err.fd[1], -1));
  // Payloads are small: the pipe holds them whole, so writing first cannot block.
  if (!input.empty()) {
    [[maybe_unused]] const auto n = ::write(in.fd[1], input.data(), input.size());
  }
  ::close(std::exchange(in.fd[1], -1));

  Finished result;
  pollfd fds[2] = {{out.fd[0], POLLIN, 0}, {err.fd[0], POLLIN, 0}};
  std::string* sinks[2] = {&result.out, &result.err};
  int open = 2;
  while (open > 0 && Clock::now() < deadline) {
    if (::poll(fds, 2, remainingMs(deadline)) <= 0) break;
    for (int i = 0; i < 2; ++i) {
      if (fds[i].fd < 0 || !(fds[i].revents & (POLLIN | POLLHUP))) continue;
      char buffer[4096];
      const auto n = ::read(fds[i].fd, buffer, sizeof buffer);
      if (n <= 0) {
        fds[i].fd = -1;
        --open;
      } else {
        sinks[i]->append(buffer, static_cast<std::size_t>(n));
      }
    }
  }
  result.exitCode = waitFor(pid, deadline);
  return result;
}

namespace {

std::string readWhole(const std::string& path) {
  std::string text;
  const int fd = ::open(path.c_str(), O_RDONLY | O_CLOEXEC);
  if (fd < 0) return text;
  char buffer[4096];
  for (ssize_t n; (n = ::read(fd, buffer, sizeof buffer)) > 0;)
    text.append(buffer, static_cast<std::size_t>(n));
  ::close(fd);
  return text;
}

int openOutput(const std::string& path) {
  const int fd = ::open(path.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0600);
  if (fd < 0) throw std::runtime_error("cannot create " + path);
  return fd;
}

}  // namespace

Background::Background(const std::vector<std::string>& argv, bool withInput) {
  static int made = 0;
  const auto stem = std::string(::getenv("TMPDIR") ? ::getenv("TMPDIR") : "/tmp") +
                    "/herald-background-" + std::to_string(::getpid()) + "-" +
                    std::to_string(made++);
  outPath_ = stem + ".out";
  errPath_ = stem + ".err";
  const int out = openOutput(outPath_), err = openOutput(errPath_);
  int in = -1;
  if (withInput) {
    Pipe input;
    in = std::exchange(input.fd[0], -1);
    input_ = std::exchange(input.fd[1], -1);
  } else {
    in = ::open("/dev/null", O_RDONLY | O_CLOEXEC);
  }
  pid_ = spawn(argv, in, out, err);
  ::close(in);
  ::close(out);
  ::close(err);
}

Background::~Background() {
  if (input_ >= 0) ::close(input_);
  if (pid_ > 0) {
    ::kill(pid_, SIGKILL);
    ::waitpid(pid_, nullptr, 0);
  }
  ::unlink(outPath_.c_str());
  ::unlink(errPath_.c_str());
}

std::string Background::out() const { return readWhole(outPath_); }

void Background::closeInput() {
  if (input_ >= 0) ::close(std::exchange(input_, -1));
}

bool Background::write(const std::string& text) {
  if (input_ < 0) return false;
  // A program that has ended makes the write fail (EPIPE) instead of killing the test; the
  // children get the default back (spawn). Commands are short: the pipe takes them whole.
  static const bool ignored = (std::signal(SIGPIPE, SIG_IGN), true);
  (void)ignored;
  return ::write(input_, text.data(), text.size()) == static_cast<ssize_t>(text.size());
}
std::string Background::err() const { return readWhole(errPath_); }

bool Background::waitForOutput(const std::string& text, std::chrono::milliseconds limit) const {
  const auto deadline = Clock::now() + limit;
  while (out().find(text) == std::string::npos && err().find(text) == std::string::npos) {
    if (Clock::now() >= deadline) return false;
    ::usleep(10'000);
  }
  return true;
}

Finished Background::stop(int signal, std::chrono::milliseconds limit) {
  Finished result;
  if (pid_ > 0) {
    ::kill(pid_, signal);
    result.exitCode = waitFor(std::exchange(pid_, -1), Clock::now() + limit);
  }
  result.out = out();
  result.err = err();
  return result;
}

std::vector<std::string> lines(const std::string& text) {
  std::vector<std::string> result;
  std::istringstream in(text);
  for (std::string line; std::getline(in, line);)
    if (!line.empty()) result.push_back(line);
  return result;
}

Sandbox::Sandbox(const std::vector<std::string>& extraArgs) : extraArgs_(extraArgs) {
  launch("0");
}

void Sandbox::killAndStartAgain() {
  const auto samePort = std::to_string(port());
  ::kill(pid_, SIGKILL);
  waitFor(std::exchange(pid_, -1), Clock::now() + 10s);
  launch(samePort);
}

void Sandbox::launch(const std::string& port) {
  std::vector<std::string> argv{program("herald-sandbox"), "--port", port};
  argv.insert(argv.end(), extraArgs_.begin(), extraArgs_.end());
  Pipe out;
  pid_ = spawn(argv, -1, out.fd[1], -1);
  ::close(std::exchange(out.fd[1], -1));
  // The first line is the base URL; it comes once the port is bound.
  const auto deadline = Clock::now() + 10s;
  std::string text;
  while (text.find('\n') == std::string::npos && Clock::now() < deadline) {
    pollfd fd{out.fd[0], POLLIN, 0};
    if (::poll(&fd, 1, remainingMs(deadline)) <= 0) break;
    char buffer[256];
    const auto n = ::read(out.fd[0], buffer, sizeof buffer);
    if (n <= 0) break;
    text.append(buffer, static_cast<std::size_t>(n));
  }
  if (text.find('\n') == std::string::npos) {
    stop();
    throw std::runtime_error("herald-sandbox did not print its URL");
  }
  url_ = text.substr(0, text.find('\n'));
}

Sandbox::~Sandbox() {
  // A service that does not stop cleanly (a crash on the way out, a hang) fails the test
  // that used it, whatever the test itself checked.
  if (pid_ >= 0) {
    EXPECT_EQ(stop(), 0) << "herald-sandbox did not exit 0 on SIGTERM";
  }
}

int Sandbox::port() const {
  return std::stoi(url_.substr(url_.rfind(':') + 1));
}

boost::json::array Sandbox::journal() const {
  auto request = platform::URLRequest::make(url_ + "/_sandbox/requests");
  auto result = platform::URLSession::shared().dataSync(request);
  return platform::parseJSON(result.data).as_array();
}

int Sandbox::stop() {
  if (pid_ < 0) return -1;
  ::kill(pid_, SIGTERM);
  const int status = waitFor(std::exchange(pid_, -1), Clock::now() + 10s);
  return status;
}

std::string rawExchange(int port, const std::string& request, std::chrono::milliseconds limit) {
  const int fd = ::socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  sockaddr_in addr{};
  addr.sin_family = AF_INET;
  addr.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  addr.sin_port = htons(static_cast<std::uint16_t>(port));
  if (::connect(fd, reinterpret_cast<sockaddr*>(&addr), sizeof addr) != 0) {
    ::close(fd);
    throw std::runtime_error("cannot connect to the sandbox");
  }
  [[maybe_unused]] auto sent = ::send(fd, request.data(), request.size(), MSG_NOSIGNAL);
  const auto deadline = Clock::now() + limit;
  std::string received;
  while (Clock::now() < deadline) {
    pollfd p{fd, POLLIN, 0};
    if (::poll(&p, 1, remainingMs(deadline)) <= 0) break;
    char buffer[4096];
    const auto n = ::recv(fd, buffer, sizeof buffer, 0);
    if (n <= 0) break;
    received.append(buffer, static_cast<std::size_t>(n));
  }
  ::close(fd);
  return received;
}

boost::json::object Answer::object() const {
  return platform::parseJSON(body).as_object();
}

boost::json::value Answer::data() const {
  return object().at("data");
}

std::string Answer::firstError() const {
  return std::string(object().at("errors").at(0).at("message").as_string());
}

Answer call(const std::string& url, const std::string& method, std::optional<std::string> body,
            const Headers& headers) {
  auto request = platform::URLRequest::make(url);
  request.method = method;
  request.body = std::move(body);
  for (const auto& [name, value] : headers) request.addValue(value, name);
  auto result = platform::URLSession::shared().dataSync(request);
  return {result.response.statusCode.value_or(0), std::move(result.data)};
}

}  // namespace integration
