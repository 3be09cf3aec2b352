// How much the inbox socket adds to reading frames: the local service sends a burst of 10,000
// "message" frames to one subscribed connection, and the time runs from asking for the burst
// to the last frame handled. The socket hands each frame to `receivedMessage` as a decoded
// `InboxMessage`; the floor is a plain Beast client on the same loopback that reads each
// frame and parses it with Boost.JSON, which any client must at least do.
//
//   build/bin/inbox_socket_bench                  (finds herald-sandbox beside itself)
//   build/bin/inbox_socket_bench --benchmark_repetitions=5

#include <benchmark/benchmark.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <atomic>
#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <boost/json.hpp>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <mutex>
#include <stdexcept>
#include <string>
#include <thread>

#include "herald/endpoints.hpp"
#include "herald/inbox_socket.hpp"
#include "platform/executor.hpp"
#include "platform/url_loading.hpp"
#include "support/ratio_reporter.hpp"

extern char** environ;

namespace {

namespace net = boost::asio;
namespace websocket = boost::beast::websocket;
using Clock = std::chrono::steady_clock;

constexpr int kFrames = 10000;

// A message as the service sends it, beside "type".
const std::string& burstBody() {
  static const std::string body = [] {
    boost::json::object frame{
        {"type", "message"},
        {"messageId", "msg_1000001"},
        {"title", "Ada commented on your edit"},
        {"preview", "Love the colours in this one"},
        {"body", "Love the colours in this one, especially the sky. Could you share the preset "
                 "you used for the highlights?"},
        {"created", "2026-11-23T13:04:05.678Z"},
        {"read", nullptr},
        {"archived", nullptr},
        {"opened", nullptr},
        {"actions", boost::json::array{boost::json::object{
                        {"content", "Reply"},
                        {"href", "kelvara://comments/msg_1000001"},
                        {"data", boost::json::object{{"kind", "reply"}}}}}},
        {"data", boost::json::object{{"type", "comment"}, {"edit_id", 42}}},
        {"trackingIds", boost::json::object{{"clickTrackingId",
                                             "https://track.example/c/msg_1000001/9f8e7d6c"}}}};
    return boost::json::serialize(boost::json::object{{"repeat", kFrames}, {"frame", frame}});
  }();
  return body;
}

// herald-sandbox from the folder of this program, for the life of the benchmark.
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
    auto request = platform::URLRequest::make(url + path);
    request.method = "POST";
    request.body = body;
    auto result = platform::URLSession::shared().dataSync(request);
    if (result.response.statusCode != 200)
      throw std::runtime_error("POST " + path + ": " + result.data);
    return result.data;
  }
  std::string token(const std::string& user) const {
    return std::string(boost::json::parse(post("/_sandbox/users/" + user + "/token"))
                           .at("jwt")
                           .as_string());
  }
  // Bounded: until a connection of `user` is subscribed.
  void waitForSubscription(const std::string& user) const {
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

Sandbox* sandbox = nullptr;

void BM_BeastFloor(benchmark::State& state) {
  const auto jwt = sandbox->token("floor");
  const auto port = sandbox->url.substr(sandbox->url.rfind(':') + 1);
  net::io_context io;
  websocket::stream<net::ip::tcp::socket> ws(io);
  net::ip::tcp::resolver resolver(io);
  net::connect(ws.next_layer(), resolver.resolve("127.0.0.1", port));
  ws.read_message_max(16 * 1024 * 1024);
  ws.handshake("127.0.0.1:" + port, "/realtime/?auth=" + jwt);
  ws.write(net::buffer(std::string(
      R"({"action":"subscribe","data":{"userAgent":"bench/1","channel":"floor","event":"*","version":5}})")));
  sandbox->waitForSubscription("floor");
  boost::beast::flat_buffer buffer;
  std::size_t parsed = 0;
  for (auto _ : state) {
    const auto start = Clock::now();
    sandbox->post("/_sandbox/realtime/floor", burstBody());
    for (int i = 0; i < kFrames; ++i) {
      buffer.clear();
      ws.read(buffer);
      const auto data = buffer.cdata();
      const auto value = boost::json::parse(
          std::string_view(static_cast<const char*>(data.data()), data.size()));
      parsed += value.is_object();
    }
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
  }
  benchmark::DoNotOptimize(parsed);
  ws.close(websocket::close_code::normal);
  state.counters["frames/s"] = benchmark::Counter(static_cast<double>(kFrames * state.iterations()),
                                                  benchmark::Counter::kIsRate);
}

void BM_InboxSocket(benchmark::State& state) {
  herald::HeraldClient::Options options{sandbox->token("socket"), std::nullopt, "socket",
                                        std::nullopt, std::nullopt, false};
  auto socket = herald::InboxSocket::create(options);
  // What an application does at the least: take the message; the waiting thread is woken
  // once, by the last one.
  std::mutex mutex;
  std::condition_variable done;
  std::atomic<int> received = 0;
  socket->receivedMessage = [&](herald::InboxMessagePtr message) {
    benchmark::DoNotOptimize(message);
    if (received.fetch_add(1, std::memory_order_relaxed) + 1 == kFrames) {
      std::lock_guard lock(mutex);
      done.notify_all();
    }
  };
  platform::blockOn(socket->connect());
  platform::blockOn(socket->sendSubscribe(5));
  sandbox->waitForSubscription("socket");
  for (auto _ : state) {
    received = 0;
    const auto start = Clock::now();
    sandbox->post("/_sandbox/realtime/socket", burstBody());
    std::unique_lock lock(mutex);
    if (!done.wait_for(lock, std::chrono::seconds(60), [&] { return received.load() == kFrames; })) {
      state.SkipWithError("the burst did not arrive within 60 s");
      break;
    }
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
  }
  socket->disconnect();
  state.counters["frames/s"] = benchmark::Counter(static_cast<double>(kFrames * state.iterations()),
                                                  benchmark::Counter::kIsRate);
}

BENCHMARK(BM_BeastFloor)->UseManualTime()->MeasureProcessCPUTime()->Unit(benchmark::kMillisecond)->Iterations(5);
BENCHMARK(BM_InboxSocket)->UseManualTime()->MeasureProcessCPUTime()->Unit(benchmark::kMillisecond)->Iterations(5);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  Sandbox local;
  sandbox = &local;
  herald::Endpoints::setCurrent(herald::Endpoints::localService(local.url));
  bench_support::RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.printRatios("BM_BeastFloor", {{"BM_InboxSocket", "inbox socket / Beast floor"}});
  benchmark::Shutdown();
  return 0;
}
