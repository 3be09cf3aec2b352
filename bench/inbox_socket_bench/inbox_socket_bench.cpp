// How much the inbox socket adds to reading frames: the local service sends a burst of 10,000
// "message" frames to one subscribed connection, and the time runs from asking for the burst
// to the last frame handled. The socket hands each frame to `receivedMessage` as a decoded
// `InboxMessage`; the floor is a plain Beast client on the same loopback that reads each
// frame and parses it with Boost.JSON, which any client must at least do.
//
//   build/bin/inbox_socket_bench                  (finds herald-sandbox beside itself)
//   build/bin/inbox_socket_bench --benchmark_repetitions=5

#include <benchmark/benchmark.h>

#include <atomic>
#include <boost/asio/connect.hpp>
#include <boost/asio/io_context.hpp>
#include <boost/asio/ip/tcp.hpp>
#include <boost/beast/core/flat_buffer.hpp>
#include <boost/beast/websocket/stream.hpp>
#include <boost/json.hpp>
#include <chrono>
#include <condition_variable>
#include <mutex>
#include <string>
#include <thread>

#include "herald/endpoints.hpp"
#include "herald/inbox_socket.hpp"
#include "platform/executor.hpp"
#include "platform/url_loading.hpp"
#include "support/local_service.hpp"
#include "support/ratio_reporter.hpp"

namespace {

namespace net = boost::asio;
using bench_support::Sandbox;
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
