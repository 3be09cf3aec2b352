// The live inbox coming back after an outage, against the local service, in one run:
//
// (a) Reconnect: the realtime upgrades and the inbox queries are refused (503) while the
//     connection is dropped; then the refusals stop. The time runs from the service accepting
//     again to the listener's `onConnectionChanged(live)`, less what was left of the back-off
//     wait the inbox had announced (`retryIn`): what remains is one start, so the floor is a
//     start asked for by the application (refresh to "live"): "ratio reconnect".
// (b) Outage cost: the requests (upgrades and queries) the inbox makes during an outage of
//     6 s and of 12 s, with the back-off scaled down tenfold (100 ms first, 3 s cap): the
//     same counts as a 60 s and a 120 s outage with the shipped 1 s / 30 s. Bounded by the
//     back-off, the count grows by about one per cap/2 of outage; a fixed 1 s retry would
//     make one per second of it (counter "fixed 1 s retry").
//
//   build/bin/inbox_reconnect_bench

#include <benchmark/benchmark.h>
#include <stdlib.h>

#include <chrono>
#include <filesystem>
#include <string>

#include "herald/endpoints.hpp"
#include "herald/herald.hpp"
#include "platform/executor.hpp"
#include "platform/main_queue.hpp"
#include "platform/notification_center.hpp"
#include "platform/paths.hpp"
#include "platform/user_defaults.hpp"
#include "support/local_service.hpp"
#include "support/own_facade.hpp"
#include "support/ratio_reporter.hpp"

namespace {

using Clock = std::chrono::steady_clock;
using State = herald::InboxConnectionState;

bench_support::Sandbox* sandbox = nullptr;

void refuseEverything() {
  for (const char* path : {"/realtime/", "/inbox/q"})
    sandbox->post("/_sandbox/trouble", boost::json::serialize(boost::json::object{
                                           {"path", path}, {"status", 503}, {"always", true}}));
}
void acceptAgain() { sandbox->send("DELETE", "/_sandbox/trouble"); }

std::size_t requestsSoFar() {
  std::size_t count = 0;
  // Named: a temporary's array trips GCC 12's maybe-uninitialized in a range-for.
  const auto journal = boost::json::parse(sandbox->send("GET", "/_sandbox/requests"));
  for (const auto& entry : journal.as_array()) {
    const std::string_view path = entry.at("path").as_string();
    if (path == "/inbox/q" || path.starts_with("/realtime")) ++count;
  }
  return count;
}

// A facade of its own, signed in, with one listener that keeps the last connection state.
struct Session : bench_support::OwnFacade {
  explicit Session(std::chrono::milliseconds base, std::chrono::milliseconds cap) {
    herald::InboxConnectionOptions options;
    options.retryBase = base;
    options.retryCap = cap;
    options.stablePeriod = std::chrono::milliseconds(200);
    platform::blockOn(herald->inboxModule()->setOptions(options));
    platform::blockOn(herald->signIn("ada", std::nullopt, sandbox->token("ada"), std::nullopt));
    listener = platform::blockOn(herald->addInboxListener({
        .onConnectionChanged =
            [this](State s, double retryIn) {
              state = s;
              if (s == State::reconnecting)
                retryAt = Clock::now() + std::chrono::duration_cast<Clock::duration>(
                                             std::chrono::duration<double>(retryIn));
            },
    }));
    waitFor(State::live);
  }
  void waitFor(State wanted) {
    if (!platform::MainQueue::shared().runUntil([&] { return state == wanted; },
                                                std::chrono::seconds(60)))
      throw std::runtime_error("the inbox did not come to the state within 60 s");
  }

  ~Session() { close(); }

  std::shared_ptr<herald::HeraldInboxListener> listener;
  State state = State::offline;
  Clock::time_point retryAt;
};

void BM_Start(benchmark::State& state) {
  Session session(std::chrono::milliseconds(100), std::chrono::seconds(3));
  for (auto _ : state) {
    const auto start = Clock::now();
    platform::spawnDetached([herald = session.herald]() -> boost::asio::awaitable<void> {
      co_await herald->refreshInbox();
    });
    session.state = State::connecting;
    session.waitFor(State::live);
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
    platform::waitForIdle(std::chrono::seconds(5));
  }
}

void BM_Reconnect(benchmark::State& state) {
  Session session(std::chrono::milliseconds(100), std::chrono::seconds(3));
  double waited = 0;
  for (auto _ : state) {
    refuseEverything();
    sandbox->post("/_sandbox/realtime/ada", R"({"reset": true})");
    session.waitFor(State::reconnecting);
    platform::MainQueue::shared().runFor(std::chrono::milliseconds(400));
    acceptAgain();
    const auto accepting = Clock::now();
    const auto announced = session.retryAt;
    session.waitFor(State::live);
    const auto backOffLeft = std::max(Clock::duration::zero(), announced - accepting);
    waited += std::chrono::duration<double>(backOffLeft).count();
    state.SetIterationTime(
        std::chrono::duration<double>(Clock::now() - accepting - backOffLeft).count());
    platform::waitForIdle(std::chrono::seconds(5));
  }
  state.counters["back-off left ms"] = 1000 * waited / static_cast<double>(state.iterations());
}

void outage(benchmark::State& state, std::chrono::seconds length) {
  Session session(std::chrono::milliseconds(100), std::chrono::seconds(3));
  double requests = 0;
  for (auto _ : state) {
    refuseEverything();
    sandbox->send("DELETE", "/_sandbox/requests");
    sandbox->post("/_sandbox/realtime/ada", R"({"reset": true})");
    platform::MainQueue::shared().runFor(length);
    requests += static_cast<double>(requestsSoFar());
    acceptAgain();
    session.waitFor(State::live);
    // Stable again, so the next outage starts the back-off over.
    platform::MainQueue::shared().runFor(std::chrono::milliseconds(300));
  }
  state.counters["requests"] = requests / static_cast<double>(state.iterations());
  state.counters["fixed 1 s retry"] = static_cast<double>(length.count()) * 10;
}

void BM_Outage60s(benchmark::State& state) { outage(state, std::chrono::seconds(6)); }
void BM_Outage120s(benchmark::State& state) { outage(state, std::chrono::seconds(12)); }

}  // namespace

BENCHMARK(BM_Start)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(10);
BENCHMARK(BM_Reconnect)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(10);
BENCHMARK(BM_Outage60s)->Unit(benchmark::kMillisecond)->Iterations(3);
BENCHMARK(BM_Outage120s)->Unit(benchmark::kMillisecond)->Iterations(3);

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  bench_support::Sandbox local;
  sandbox = &local;
  herald::Endpoints::setCurrent(herald::Endpoints::localService(local.url));
  bench_support::RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.printRatios("BM_Start", {{"BM_Reconnect", "reconnect"}});
  benchmark::Shutdown();
  return 0;
}
