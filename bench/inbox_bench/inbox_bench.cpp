// How much decoding adds to parsing: a page of 1,000 inbox messages as the service sends it
// (titles, previews, bodies, two actions with data, a data map, tracking ids, times) decoded
// into `InboxResponse` and then `InboxMessageSet`, against `boost::json::parse` of the same
// bytes, which every decode starts with and cannot beat.

#include <benchmark/benchmark.h>

#include <boost/json.hpp>
#include <cstdio>
#include <string>

#include "core/decoding.hpp"
#include "herald/inbox_message.hpp"
#include "support/ratio_reporter.hpp"

namespace {

constexpr int kMessages = 1000;

std::string pageText() {
  boost::json::array nodes;
  for (int i = 0; i < kMessages; ++i) {
    const auto id = "msg_" + std::to_string(1000000 + i);
    boost::json::object message{
        {"messageId", id},
        {"title", "Ada commented on your edit #" + std::to_string(i)},
        {"preview", "Love the colours in this one"},
        {"body", "Love the colours in this one, especially the sky. Could you share the preset "
                 "you used for the highlights?"},
        {"created", "2026-11-23T13:04:05.678Z"},
        {"read", i % 3 == 0 ? boost::json::value("2026-11-23T13:10:00.000Z") : nullptr},
        {"archived", nullptr},
        {"opened", i % 5 == 0 ? boost::json::value("2026-11-23T13:11:00.000Z") : nullptr},
        {"actions",
         boost::json::array{
             boost::json::object{{"content", "Reply"},
                                 {"href", "kelvara://comments/" + id},
                                 {"data", boost::json::object{{"kind", "reply"}, {"id", i}}}},
             boost::json::object{{"content", "View edit"},
                                 {"href", "https://kelvara.example/edits/" + std::to_string(i)},
                                 {"data", nullptr}}}},
        {"data", boost::json::object{{"type", "comment"},
                                     {"edit_id", i},
                                     {"user_name", "Ada Lovelace"},
                                     {"tags", boost::json::array{"sky", "preset", "hdr"}},
                                     {"score", 0.75}}},
        {"trackingIds",
         boost::json::object{
             {"clickTrackingId", "https://track.example/c/" + id + "/9f8e7d6c5b4a"}}}};
    nodes.emplace_back(std::move(message));
  }
  boost::json::object page{
      {"data",
       boost::json::object{
           {"count", kMessages * 3},
           {"messages",
            boost::json::object{
                {"totalCount", kMessages * 3},
                {"pageInfo", boost::json::object{{"startCursor", "msg_1000999"},
                                                 {"hasNextPage", true}}},
                {"nodes", std::move(nodes)}}}}}};
  return boost::json::serialize(page);
}

const std::string& page() {
  static const std::string text = pageText();
  return text;
}

void BM_Floor(benchmark::State& state) {
  for (auto _ : state) {
    auto value = boost::json::parse(page());
    benchmark::DoNotOptimize(value);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * page().size()));
}

void BM_DecodeResponse(benchmark::State& state) {
  for (auto _ : state) {
    auto response = core::decodeJSON<herald::InboxResponse>(page());
    benchmark::DoNotOptimize(response);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * page().size()));
}

void BM_DecodeMessageSet(benchmark::State& state) {
  for (auto _ : state) {
    const auto response = core::decodeJSON<herald::InboxResponse>(page());
    auto set = herald::InboxMessageSet::fromData(response.data.value_or(herald::InboxData{}));
    if (set.messages.size() != kMessages) state.SkipWithError("the page lost messages");
    benchmark::DoNotOptimize(set);
  }
  state.SetBytesProcessed(static_cast<std::int64_t>(state.iterations() * page().size()));
}

BENCHMARK(BM_Floor)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_DecodeResponse)->Unit(benchmark::kMicrosecond);
BENCHMARK(BM_DecodeMessageSet)->Unit(benchmark::kMicrosecond);

}  // namespace

int main(int argc, char** argv) {
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  std::printf("page of %d messages, %zu bytes\n", kMessages, page().size());
  bench_support::RatioReporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  reporter.printRatios("BM_Floor", {{"BM_DecodeResponse", "InboxResponse"},
                                    {"BM_DecodeMessageSet", "InboxMessageSet"}});
  benchmark::Shutdown();
  return 0;
}
