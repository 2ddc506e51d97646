// Queries on many threads while another thread keeps replacing the engine: every answer comes
// from one whole engine, and every replaced engine is destroyed. Meant to run under
// ThreadSanitizer too (scripts/sanitize.sh).
#include <gtest/gtest.h>
#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <fstream>
#include <map>
#include <set>
#include <string>
#include <thread>
#include <vector>

#include "base/log.h"
#include "engine/engine_slot.h"
#include "result_dump.h"
#include "rulenlu/engine_api.h"
#include "services/config_update.h"

namespace rulenlu {
namespace {

constexpr int kQueryThreads = 8;
constexpr int kRebuilds = 300;

// Drops every line: the queries log one result line each.
class NullSink : public LogSink {
 public:
  void Write(LogStream, std::string_view) override {}
};

Utf8NluConfig MakeConfig(const std::map<std::string, std::set<std::string>>& vocabs,
                         const std::string& intent, const std::string& rule) {
  Utf8NluConfig config;
  config.vocabMap = vocabs;
  Utf8IntentConfig& call = config.intentMap[intent];
  for (const auto& [name, words] : vocabs) call.slots.emplace_back(name, name);
  call.regexRules = {rule};
  return config;
}

TEST(EngineStressTest, QueriesSeeWholeEnginesWhileEnginesAreReplacedAndReclaimed) {
  NullSink sink;
  SetLogSink(&sink);
  const std::string local_path = testing::TempDir() + "stress_" + std::to_string(getpid());
  std::ofstream(local_path, std::ios::binary | std::ios::trunc)
      << R"({"version": 7, "vocabMap": {"contact": ["Tom"]},
            "intentMap": {"call_a": {"slots": [{"tag": "contact"}],
                                     "regexRules": ["call <contact>"]}}})";
  // Three engines that answer the query differently in every field but the text.
  const Utf8NluConfig a = MakeConfig({{"contact", {"Tom"}}}, "call_a", "call <contact>");
  const Utf8NluConfig b =
      MakeConfig({{"person", {"Tom"}}, {"verb", {"call"}}}, "call_b", "<verb> <person>");
  const std::set<std::string> whole_answers = {
      "0|call_a|call Tom|contact=Tom@5+3;",
      "0|call_b|call Tom|verb=call@0+4;person=Tom@5+3;",
      "7|call_a|call Tom|contact=Tom@5+3;",
  };
  BuildEngin(&a);
  ASSERT_EQ(LiveEnginesForTesting(), 1u);

  std::atomic<bool> done{false};
  std::atomic<long> answered{0};
  std::vector<std::string> strays(kQueryThreads);
  std::vector<std::thread> threads;
  for (int t = 0; t < kQueryThreads; ++t) {
    threads.emplace_back([&, t] {
      while (!done.load()) {
        NluResult result;
        Process("call Tom", result);
        const std::string answer = DumpResult(result);
        if (whole_answers.count(answer) == 0 && strays[t].empty()) strays[t] = answer;
        answered.fetch_add(1);
      }
    });
  }
  size_t most_live = 0;
  for (int i = 0; i < kRebuilds; ++i) {
    if (i % 50 == 49) {
      InitEngin(local_path.c_str());  // the file's engine, plus an update pass with no manager
    } else {
      BuildEngin(i % 2 == 0 ? &b : &a);
    }
    // The engine just replaced is gone by the time the call returns.
    most_live = std::max(most_live, LiveEnginesForTesting());
  }
  done.store(true);
  for (std::thread& thread : threads) thread.join();
  EXPECT_TRUE(WaitForRemoteConfigUpdates(std::chrono::seconds(20)));
  SetLogSink(nullptr);
  std::remove(local_path.c_str());

  for (int t = 0; t < kQueryThreads; ++t) EXPECT_EQ(strays[t], "") << "thread " << t;
  EXPECT_GT(answered.load(), 0);
  EXPECT_EQ(most_live, 1u);
  EXPECT_EQ(LiveEnginesForTesting(), 1u);
}

}  // namespace
}  // namespace rulenlu
