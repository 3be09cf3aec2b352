// What a GraphQL request costs the sandbox from text to answer (parse, validate the whole
// document, weigh, run against a fixture): the client's own documents, and the documents that
// used to crash or freeze it. Beside it, the reference implementation (graphql-js on node,
// Debian's node-graphql) parsing and validating the same documents, timed inside one batch
// run of node; the ratios (ours, whole request / reference, validation only) are printed last.

#include <benchmark/benchmark.h>

#include <boost/json.hpp>
#include <cstdio>
#include <filesystem>
#include <fstream>
#include <map>
#include <sstream>
#include <string>
#include <vector>

#include "graphql/execution.hpp"
#include "graphql/schemas.hpp"
#include "graphql/validation.hpp"
#include "platform/json.hpp"

namespace {

namespace json = boost::json;
using namespace sandbox::graphql;

std::string pairs(int levels) {
  std::string text = "{ ...F0a ...F0b }";
  for (int i = 0; i <= levels; ++i)
    for (const char* side : {"a", "b"})
      text +=
          " fragment F" + std::to_string(i) + side + " on Query { " +
          (i == levels ? std::string("count")
                       : "...F" + std::to_string(i + 1) + "a ...F" + std::to_string(i + 1) + "b") +
          " }";
  return text;
}

std::string repeated(const std::string& part, int times, const std::string& open = "{",
                     const std::string& close = " }") {
  std::string text = open;
  for (int i = 0; i < times; ++i) text += part;
  return text + close;
}

const std::vector<std::pair<std::string, std::string>>& documents() {
  static const std::vector<std::pair<std::string, std::string>> list{
      {"page",
       "query GetMessages($params: FilterParamsInput = {archived: false}, $limit: Int = 10, "
       "$after: String) { count(params: $params) messages(params: $params, limit: $limit, after: "
       "$after) { totalCount pageInfo { startCursor hasNextPage } nodes { messageId read archived "
       "created opened title preview data actions { content data href } trackingIds { "
       "clickTrackingId } } } }"},
      {"count",
       "query GetMessages($params: FilterParamsInput = {status: \"unread\"}) { count(params: "
       "$params) }"},
      {"mutation", "mutation TrackEvent { read(messageId: \"i1\") }"},
      {"pairs22", pairs(22)},
      {"aliases865", repeated(" p: messages(limit: 100) { nodes { messageId } }", 865)},
      {"deepType",
       "query Q($v: " + std::string(30000, '[') + "Int" + std::string(30000, ']') + ") { count }"},
      {"repeated2000", repeated(" count", 2000)},
  };
  return list;
}

// The 865 pages carry distinct aliases, as the hostile document did.
std::string textOf(const std::string& name, const std::string& text) {
  if (name != "aliases865") return text;
  std::string out = "{";
  for (int i = 0; i < 865; ++i)
    out += " p" + std::to_string(i) + ": messages(limit: 100) { nodes { messageId } }";
  return out + " }";
}

class Fixture : public Execution {
 public:
  using Execution::Execution;

 private:
  json::value resolve(const FieldGroup& group) override {
    static const auto data = platform::parseJSON(R"({"count": 3, "read": true,
        "messages": {"totalCount": 3, "pageInfo": {"startCursor": "i1", "hasNextPage": false},
        "nodes": [{"messageId": "i1", "title": "T", "actions": [{"content": "Go"}]}]}})");
    const auto* stored = data.as_object().if_contains(group.field->name);
    if (!stored) return nullptr;
    const auto& root = isMutation() ? schema().mutationType : schema().queryType;
    const auto* named =
        schema().named(schema().field(*schema().type(root), group.field->name)->type);
    return named->isLeaf() ? *stored : selectFrom(named->name, group.subsets, *stored);
  }
};

// The whole request as a route serves it; returns the answer's length (or 0 when refused).
std::size_t serve(const std::string& text) {
  Document document;
  try {
    document = parse(text);
  } catch (const SyntaxError&) {
    return 0;
  }
  if (!validate(sandbox::inboxSchema(), document).empty()) return 0;
  const json::object variables;
  Fixture execution(sandbox::inboxSchema(), document, document.operations.front(), variables);
  if (!execution.prepare().empty()) return 0;
  return platform::toJSON(execution.run()).size();
}

void BM_Serve(benchmark::State& state, std::string text) {
  for (auto _ : state) benchmark::DoNotOptimize(serve(text));
  state.SetLabel(std::to_string(text.size()) + " bytes, " + (serve(text) ? "answered" : "refused"));
}

// graphql-js's time per document, measured inside one node run over all of them.
std::map<std::string, double> reference() {
  std::map<std::string, double> times;
  const auto input = std::filesystem::temp_directory_path() / "graphql-bench-input.jsonl";
  {
    std::ofstream file(input);
    file << platform::toJSON(json::object{{"sdl", printSchema(sandbox::inboxSchema())}}) << "\n";
    for (const auto& [name, text] : documents())
      if (name != "repeated2000")  // 22 s a run on graphql-js 16.6: left out of the batch
        file << platform::toJSON(json::object{{"name", name}, {"query", textOf(name, text)}})
             << "\n";
  }
  const std::string command = "NODE_PATH=/usr/share/nodejs node '" +
                              std::string(GRAPHQL_REFERENCE_BENCH) + "' < '" + input.string() +
                              "' 2>/dev/null";
  FILE* pipe = ::popen(command.c_str(), "r");
  if (!pipe) return times;
  std::string output;
  char buffer[4096];
  for (std::size_t n; (n = std::fread(buffer, 1, sizeof buffer, pipe)) > 0;)
    output.append(buffer, n);
  ::pclose(pipe);
  std::filesystem::remove(input);
  std::istringstream lines(output);
  for (std::string line; std::getline(lines, line);) {
    const auto parsed = platform::parseJSON(line).as_object();
    const std::string name(parsed.at("name").as_string());
    if (const auto* us = parsed.if_contains("microseconds"))
      times[name] = us->to_number<double>();
    else
      std::printf("reference %s: %s\n", name.c_str(),
                  std::string(parsed.at("failed").as_string()).c_str());
  }
  return times;
}

class Reporter : public benchmark::ConsoleReporter {
 public:
  void ReportRuns(const std::vector<Run>& runs) override {
    for (const auto& run : runs)
      if (run.run_type == Run::RT_Iteration)
        microseconds[run.run_name.function_name + "/" + run.run_name.args] =
            run.GetAdjustedRealTime();
    ConsoleReporter::ReportRuns(runs);
  }
  std::map<std::string, double> microseconds;
};

}  // namespace

int main(int argc, char** argv) {
  for (const auto& [name, text] : documents())
    benchmark::RegisterBenchmark(("serve/" + name).c_str(), BM_Serve, textOf(name, text))
        ->Unit(benchmark::kMicrosecond);
  benchmark::Initialize(&argc, argv);
  if (benchmark::ReportUnrecognizedArguments(argc, argv)) return 1;
  Reporter reporter;
  benchmark::RunSpecifiedBenchmarks(&reporter);
  const auto theirs = reference();
  if (theirs.empty())
    std::printf("the reference is not installed (nodejs, node-graphql): no ratios\n");
  for (const auto& [name, text] : documents()) {
    double ours = 0;
    for (const auto& [key, us] : reporter.microseconds)
      if (key.starts_with("serve/" + name)) ours = us;
    const auto reference = theirs.find(name);
    if (reference == theirs.end()) {
      std::printf("%-13s ours %10.1f us   reference: not run\n", name.c_str(), ours);
      continue;
    }
    std::printf("%-13s ours %10.1f us   reference (validation only) %10.1f us   ratio %.2f\n",
                name.c_str(), ours, reference->second, ours / reference->second);
  }
  benchmark::Shutdown();
  return 0;
}
