// The live inbox against the local service, in one run:
//
// (a) Start: every answer of the service comes 200 ms late. The time runs from asking for a
//     refresh to the listener's `onFeedChanged`; the floor is one request answered 200 ms
//     late. The three first loads are in flight at once, so the start should cost about one
//     late request, not three ("ratio start").
// (b) A message operation on a feed of 10,000 messages: `readMessage` / `unreadMessage` on the
//     oldest message (the longest look-up) and on the newest, with the local change, the
//     listener's two callbacks and the request; the floor is the same request made directly
//     with the client ("ratio operation ..."). The resident memory the 10,000 messages take is
//     printed per 1,000 (the heap they take).
//
//   build/bin/inbox_module_bench                  (finds herald-sandbox beside itself)
//   build/bin/inbox_module_bench --benchmark_repetitions=5

#include <benchmark/benchmark.h>
#include <malloc.h>
#include <stdlib.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <filesystem>
#include <string>

#include "herald/endpoints.hpp"
#include "herald/herald.hpp"
#include "herald/inbox_client.hpp"
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
constexpr int kFeed = 10000;

bench_support::Sandbox* sandbox = nullptr;

// Every answer of the inbox endpoint `delay` seconds late, for the next `times` requests.
void lateAnswers(double delay, int times) {
  sandbox->post("/_sandbox/trouble",
                boost::json::serialize(boost::json::object{
                    {"path", "/inbox/q"}, {"delay", delay}, {"times", times}}));
}

// The heap in use, which is what the feed takes of the resident memory: the resident size
// itself moves in pages and stays up once the allocator has the memory, so it would charge
// one benchmark with what an earlier one freed.
double heapKilobytes() {
  const auto info = ::mallinfo2();
  return static_cast<double>(info.uordblks + info.hblkhd) / 1024.0;
}

// A facade of its own over a store in a temporary folder, signed in as `user`, with one
// listener that counts what it hears.
struct Session : bench_support::OwnFacade {
  explicit Session(const std::string& user) {
    platform::blockOn(herald->signIn(user, std::nullopt, sandbox->token(user), std::nullopt));
    listener = platform::blockOn(herald->addInboxListener({
        .onFeedChanged = [this](const herald::InboxMessageSet&) { ++feedChanges; },
        .onMessageChanged = [this](herald::InboxMessageFeed, std::int64_t,
                                   const herald::InboxMessagePtr&) { ++messageChanges; },
    }));
    drainUntil([this] { return feedChanges > 0; });
  }
  template <class Done>
  static void drainUntil(Done done) {
    if (!platform::MainQueue::shared().runUntil(done, std::chrono::seconds(30)))
      throw std::runtime_error("the inbox did not answer within 30 s");
  }

  ~Session() { close(); }

  std::shared_ptr<herald::HeraldInboxListener> listener;
  int feedChanges = 0;
  int messageChanges = 0;
};

void BM_OneLateRequest(benchmark::State& state) {
  herald::HeraldClient client(sandbox->token("floor"), std::nullopt, "floor", "bench",
                              std::nullopt, false);
  const auto inbox = client.inbox();
  for (auto _ : state) {
    lateAnswers(0.2, 1);
    const auto start = Clock::now();
    benchmark::DoNotOptimize(platform::blockOn(inbox->getUnreadMessageCount()));
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
  }
}

void BM_Start(benchmark::State& state) {
  Session session("starter");
  for (auto _ : state) {
    const auto before = session.feedChanges;
    lateAnswers(0.2, 3);
    const auto start = Clock::now();
    platform::spawnDetached(
        [herald = session.herald]() -> boost::asio::awaitable<void> { co_await herald->refreshInbox(); });
    Session::drainUntil([&] { return session.feedChanges > before; });
    state.SetIterationTime(std::chrono::duration<double>(Clock::now() - start).count());
    platform::waitForIdle(std::chrono::seconds(5));
  }
}

herald::InboxMessagePtr made(int i) {
  const auto id = "msg_" + std::to_string(1000000 + i);
  herald::HeraldTrackingIds tracking;
  tracking.clickTrackingId = "https://track.example/c/" + id;
  return std::make_shared<herald::InboxMessage>(
      id, "Ada commented on your edit #" + std::to_string(i), "Love the colours in this one",
      "Love the colours", std::nullopt,
      boost::json::object{{"type", "comment"}, {"edit_id", i}}, tracking,
      "2026-11-23T13:04:05.678Z");
}

void BM_RequestAlone(benchmark::State& state) {
  herald::HeraldClient client(sandbox->token("floor"), std::nullopt, "floor", "bench",
                              std::nullopt, false);
  const auto inbox = client.inbox();
  bool read = false;
  for (auto _ : state) {
    read = !read;
    if (read)
      platform::blockOn(inbox->read("msg_1000000"));
    else
      platform::blockOn(inbox->unread("msg_1000000"));
  }
}

void operationOn10000(benchmark::State& state, bool newest) {
  Session session("reader");
  const auto module = session.herald->inboxModule();
  const auto heapBefore = heapKilobytes();
  for (int i = 0; i < kFeed; ++i) platform::blockOn(module->insertArrived(made(i)));
  platform::MainQueue::shared().runFor(std::chrono::milliseconds(50));
  const auto heapAfter = heapKilobytes();
  // The oldest message sits last: its look-up walks the whole feed; the newest is first.
  const std::string target = "msg_" + std::to_string(1000000 + (newest ? kFeed - 1 : 0));
  bool read = false;
  for (auto _ : state) {
    read = !read;
    if (read)
      platform::blockOn(session.herald->readMessage(target));
    else
      platform::blockOn(session.herald->unreadMessage(target));
    platform::MainQueue::shared().runFor(std::chrono::seconds(0));
  }
  state.counters["KiB per 1000 messages"] = (heapAfter - heapBefore) * 1000.0 / kFeed;
}

void BM_OperationOnOldest(benchmark::State& state) { operationOn10000(state, false); }
void BM_OperationOnNewest(benchmark::State& state) { operationOn10000(state, true); }

}  // namespace

BENCHMARK(BM_OneLateRequest)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(10);
BENCHMARK(BM_Start)->UseManualTime()->Unit(benchmark::kMillisecond)->Iterations(10);
BENCHMARK(BM_RequestAlone)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_OperationOnOldest)->Unit(benchmark::kMicrosecond)->UseRealTime();
BENCHMARK(BM_OperationOnNewest)->Unit(benchmark::kMicrosecond)->UseRealTime();

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  bench_support::Sandbox local;
  sandbox = &local;
  herald::Endpoints::setCurrent(herald::Endpoints::localService(local.url));
  bench_support::RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.printRatios("BM_OneLateRequest", {{"BM_Start", "start"}});
  reporter.printRatios("BM_RequestAlone", {{"BM_OperationOnOldest", "operation on the oldest"},
                                           {"BM_OperationOnNewest", "operation on the newest"}});
  benchmark::Shutdown();
  return 0;
}
