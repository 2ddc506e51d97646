// Speed of the hot operations on the shipped example configuration.
//
//   ./build/bench/engine_benchmark
#include <benchmark/benchmark.h>

#include <fstream>
#include <string>
#include <vector>

#include "base/file.h"
#include "base/log.h"
#include "base/text.h"
#include "config/config_parser.h"
#include "engine/nlu_engine.h"

namespace rulenlu {
namespace {

class NullSink : public LogSink {
 public:
  void Write(LogStream, std::string_view) override {}
};

std::vector<std::string> ExampleQueries() {
  std::ifstream in(std::string(RULENLU_EXAMPLES_DIR) + "/queries.txt");
  std::vector<std::string> queries;
  for (std::string line; std::getline(in, line);) queries.push_back(line);
  return queries;
}

const NluEngine& ExampleEngine() {
  static NluEngine* engine = [] {
    static NullSink sink;
    SetLogSink(&sink);
    return new NluEngine(
        *ParseNluConfig(ReadWholeFile(std::string(RULENLU_EXAMPLES_DIR) + "/collab.json")));
  }();
  return *engine;
}

// One whole query, as the host sees it (log lines dropped).
void BM_ProcessExampleQueries(benchmark::State& state) {
  const NluEngine& engine = ExampleEngine();
  const std::vector<std::string> queries = ExampleQueries();
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(engine.Process(queries[i]));
    i = (i + 1) % queries.size();
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ProcessExampleQueries)->ThreadRange(1, 2)->UseRealTime();

// A query that no vocabulary word appears in: the cost of looking and finding nothing.
void BM_ProcessUntaggedQuery(benchmark::State& state) {
  const NluEngine& engine = ExampleEngine();
  const std::string query = "what is the weather going to be like over the weekend";
  for (auto _ : state) benchmark::DoNotOptimize(engine.Process(query));
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK(BM_ProcessUntaggedQuery);

void BM_ParseExampleConfig(benchmark::State& state) {
  static NullSink sink;
  SetLogSink(&sink);
  const std::string document = ReadWholeFile(std::string(RULENLU_EXAMPLES_DIR) + "/collab.json");
  for (auto _ : state) benchmark::DoNotOptimize(ParseNluConfig(document));
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(document.size()));
}
BENCHMARK(BM_ParseExampleConfig);

void BM_Utf8ToUtf16(benchmark::State& state) {
  const std::string text =
      "schedule a meeting with Zo\xC3\xAB \xC3\x98"
      "degaard tomorrow at 3pm \xF0\x9F\x93\x85";
  for (auto _ : state) benchmark::DoNotOptimize(Utf8ToUtf16(text));
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(text.size()));
}
BENCHMARK(BM_Utf8ToUtf16);

}  // namespace
}  // namespace rulenlu

BENCHMARK_MAIN();
