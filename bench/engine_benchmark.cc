// Speed of the hot operations on the example and the two benchmark workloads.
//
//   ./build/bench/engine_benchmark [--benchmark_filter=...]
#include <benchmark/benchmark.h>

#include <algorithm>
#include <chrono>
#include <fstream>
#include <map>
#include <memory>
#include <string>
#include <vector>

#include "base/error.h"
#include "base/file.h"
#include "base/log.h"
#include "base/text.h"
#include "config/config_parser.h"
#include "engine/nlu_engine.h"
#include "nlu/regex_parser.h"
#include "nlu/tagger.h"

namespace rulenlu {
namespace {

class NullSink : public LogSink {
 public:
  void Write(LogStream, std::string_view) override {}
};

// A configuration and its queries, relative to the source tree.
struct Workload {
  const char* config;
  const char* queries;
};
const std::map<std::string, Workload> kWorkloads = {
    {"example", {"examples/collab.json", "examples/queries.txt"}},
    {"shared", {"bench/workload/config.json", "bench/workload/queries.txt"}},
    {"many_rules", {"bench/many_rules/config.json", "bench/many_rules/queries.txt"}}};

std::string SourcePath(const char* relative) {
  return std::string(RULENLU_SOURCE_DIR) + "/" + relative;
}

void SilenceLog() {
  static NullSink sink;
  SetLogSink(&sink);
}

// The engine of a workload, built once and kept.
const NluEngine& EngineOf(const std::string& name) {
  static std::map<std::string, std::unique_ptr<NluEngine>>* engines =
      new std::map<std::string, std::unique_ptr<NluEngine>>;
  std::unique_ptr<NluEngine>& engine = (*engines)[name];
  if (engine == nullptr) {
    SilenceLog();
    engine = std::make_unique<NluEngine>(
        *ParseNluConfig(ReadWholeFile(SourcePath(kWorkloads.at(name).config))));
  }
  return *engine;
}

std::vector<std::string> QueriesOf(const std::string& name) {
  std::ifstream in(SourcePath(kWorkloads.at(name).queries));
  std::vector<std::string> queries;
  for (std::string line; std::getline(in, line);) queries.push_back(line);
  return queries;
}

// Whole queries as the host sees them (log lines dropped), one query per iteration, cycling
// through the workload's queries. Reports the 99th percentile of single queries as a counter.
void BM_Process(benchmark::State& state, const std::string& name) {
  const NluEngine& engine = EngineOf(name);
  const std::vector<std::string> queries = QueriesOf(name);
  std::vector<double> nanos;
  nanos.reserve(1 << 20);
  size_t i = 0;
  for (auto _ : state) {
    const auto begin = std::chrono::steady_clock::now();
    benchmark::DoNotOptimize(engine.Process(queries[i]));
    nanos.push_back(
        std::chrono::duration<double, std::nano>(std::chrono::steady_clock::now() - begin).count());
    i = (i + 1) % queries.size();
  }
  std::sort(nanos.begin(), nanos.end());
  state.counters["p99_us"] = nanos.empty() ? 0 : nanos[nanos.size() * 99 / 100] / 1000;
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK_CAPTURE(BM_Process, example, std::string("example"));
BENCHMARK_CAPTURE(BM_Process, shared, std::string("shared"));
BENCHMARK_CAPTURE(BM_Process, many_rules, std::string("many_rules"));

// The tagger and the parser of a workload, built once and kept, with its queries in UTF-16.
struct Stages {
  std::unique_ptr<Tagger> tagger;
  std::unique_ptr<RegexParser> parser;
  std::vector<std::u16string> queries;
};

const Stages& StagesOf(const std::string& name) {
  static std::map<std::string, Stages>* all = new std::map<std::string, Stages>;
  Stages& stages = (*all)[name];
  if (stages.tagger == nullptr) {
    SilenceLog();
    NluConfig config = *ParseNluConfig(ReadWholeFile(SourcePath(kWorkloads.at(name).config)));
    stages.tagger =
        std::make_unique<Tagger>(config.vocabMap, config.regexVocabMap, config.variableEntrys);
    stages.parser = std::make_unique<RegexParser>(config.intentMap, stages.tagger->vocab_names());
    for (const std::string& query : QueriesOf(name)) {
      try {
        stages.queries.push_back(Utf8ToUtf16(query));
      } catch (const ConversionError&) {
        // Malformed on purpose: the tagger never sees it.
      }
    }
  }
  return stages;
}

// The tagger alone.
void BM_Tag(benchmark::State& state, const std::string& name) {
  const Stages& stages = StagesOf(name);
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(stages.tagger->Tag(stages.queries[i]));
    i = (i + 1) % stages.queries.size();
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK_CAPTURE(BM_Tag, shared, std::string("shared"));
BENCHMARK_CAPTURE(BM_Tag, many_rules, std::string("many_rules"));

// The parser alone, over tags made ahead.
void BM_Parse(benchmark::State& state, const std::string& name) {
  const Stages& stages = StagesOf(name);
  std::vector<std::vector<QueryTag>> tags;
  for (const std::u16string& query : stages.queries) {
    try {
      tags.push_back(stages.tagger->Tag(query));
    } catch (const Error&) {
      tags.emplace_back();  // the query fails in the tagger; the parser sees no tags
    }
  }
  size_t i = 0;
  for (auto _ : state) {
    benchmark::DoNotOptimize(stages.parser->Parse(stages.queries[i], tags[i]));
    i = (i + 1) % stages.queries.size();
  }
  state.SetItemsProcessed(state.iterations());
}
BENCHMARK_CAPTURE(BM_Parse, shared, std::string("shared"));
BENCHMARK_CAPTURE(BM_Parse, many_rules, std::string("many_rules"));

// Start-up: parsing the document and building the engine.
void BM_StartUp(benchmark::State& state, const std::string& name) {
  SilenceLog();
  const std::string document = ReadWholeFile(SourcePath(kWorkloads.at(name).config));
  for (auto _ : state) NluEngine engine(*ParseNluConfig(document));
}
BENCHMARK_CAPTURE(BM_StartUp, shared, std::string("shared"))->Unit(benchmark::kMillisecond);
BENCHMARK_CAPTURE(BM_StartUp, many_rules, std::string("many_rules"))->Unit(benchmark::kMillisecond);

void BM_ParseConfig(benchmark::State& state) {
  SilenceLog();
  const std::string document = ReadWholeFile(SourcePath(kWorkloads.at("shared").config));
  for (auto _ : state) benchmark::DoNotOptimize(ParseNluConfig(document));
  state.SetBytesProcessed(state.iterations() * static_cast<int64_t>(document.size()));
}
BENCHMARK(BM_ParseConfig)->Unit(benchmark::kMillisecond);

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
