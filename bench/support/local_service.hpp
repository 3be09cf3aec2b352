#pragma once
// herald-sandbox from the folder of the benchmark program, for the life of the benchmark, and
// the few admin calls the benchmarks make of it.
//
//   bench_support::Sandbox sandbox;
//   herald::Endpoints::setCurrent(herald::Endpoints::localService(sandbox.url));
//   const auto jwt = sandbox.token("ada");

#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <boost/json.hpp>
#include <chrono>
#include <filesystem>
#include <stdexcept>
#include <string>
#include <thread>

#include "platform/url_loading.hpp"

extern char** environ;

namespace bench_support {

class Sandbox {
 public:
  Sandbox() {
    const auto program = std::filesystem::read_symlink("/proc/self/exe").parent_path() /
                         "herald-sandbox";
    int out[2];
    if (::pipe(out) != 0) throw std::runtime_error("pipe failed");
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, out[1], STDOUT_FILENO);
    posix_spawn_file_actions_addclose(&actions, out[0]);
    const std::string path = program.string();
    char* argv[] = {const_cast<char*>(path.c_str()), const_cast<char*>("--port"),
                    const_cast<char*>("0"), nullptr};
    if (posix_spawn(&pid_, path.c_str(), &actions, nullptr, argv, environ) != 0)
      throw std::runtime_error("cannot start " + path);
    posix_spawn_file_actions_destroy(&actions);
    ::close(out[1]);
    std::string text;
    pollfd fd{out[0], POLLIN, 0};
    while (text.find('\n') == std::string::npos && ::poll(&fd, 1, 10000) > 0) {
      char buffer[128];
      const auto n = ::read(out[0], buffer, sizeof buffer);
      if (n <= 0) break;
      text.append(buffer, static_cast<std::size_t>(n));
    }
    ::close(out[0]);
    if (text.find('\n') == std::string::npos) throw std::runtime_error("no URL from " + path);
    url = text.substr(0, text.find('\n'));
  }
  ~Sandbox() {
    ::kill(pid_, SIGTERM);
    ::waitpid(pid_, nullptr, 0);
  }

  std::string post(const std::string& path, const std::string& body = {}) const {
    return send("POST", path, body);
  }
  std::string send(const std::string& method, const std::string& path,
                   const std::string& body = {}) const {
    auto request = platform::URLRequest::make(url + path);
    request.method = method;
    request.body = body;
    auto result = platform::URLSession::shared().dataSync(request);
    if (result.response.statusCode != 200)
      throw std::runtime_error(method + " " + path + ": " + result.data);
    return result.data;
  }
  std::string token(const std::string& user) const {
    return std::string(boost::json::parse(post("/_sandbox/users/" + user + "/token"))
                           .at("jwt")
                           .as_string());
  }
  // Bounded: until a connection of `user` is subscribed.
  void waitForSubscription(const std::string& user) const {
    using Clock = std::chrono::steady_clock;
    const auto deadline = Clock::now() + std::chrono::seconds(10);
    while (Clock::now() < deadline) {
      auto request = platform::URLRequest::make(url + "/_sandbox/realtime");
      const auto all = boost::json::parse(platform::URLSession::shared().dataSync(request).data)
                           .at("connections")
                           .as_array();
      for (const auto& c : all)
        if (c.at("user") == user.c_str() && c.at("subscribed") == true) return;
      std::this_thread::sleep_for(std::chrono::milliseconds(10));
    }
    throw std::runtime_error("no subscription arrived");
  }

  std::string url;

 private:
  pid_t pid_ = -1;
};

}  // namespace bench_support
