#include <gtest/gtest.h>

#include <string>
#include <thread>
#include <vector>

#include "config/config_parser.h"
#include "engine/nlu_engine.h"
#include "log_capture.h"
#include "result_dump.h"

namespace rulenlu {
namespace {

constexpr char kCallConfig[] = R"json({
  "version": 42,
  "variableEntrys": [
    {"key": "hour", "value": "(1[0-2]|0?[1-9])"},
    {"key": "minute", "value": "[0-5][0-9]"}
  ],
  "regexVocabMap": {"time": ["\\b${hour}(:${minute})? ?(am|pm)"]},
  "vocabMap": {
    "call_verb": ["call", "ring", "video call"],
    "contact": ["Tom", "Anna", "Jos\u00e9", "\u674e\u4f1f"]
  },
  "intentMap": {
    "call_contact": {
      "name": "Call a contact",
      "slots": [{"name": "verb", "tag": "call_verb"}, {"name": "contact", "tag": "contact"},
                {"name": "time", "tag": "time"}],
      "regexRules": ["<call_verb> <contact>( at <time>)?"]
    }
  }
})json";

std::unique_ptr<NluEngine> BuildEngine(const std::string& document) {
  std::optional<NluConfig> config = ParseNluConfig(document);
  if (!config.has_value()) return nullptr;
  return std::make_unique<NluEngine>(std::move(*config));
}

std::string Dump(const NluResult& result) { return DumpResult(result); }

TEST(NluEngine, InitLogsEachStageInOrder) {
  LogCapture capture;
  ASSERT_NE(BuildEngine(kCallConfig), nullptr);
  EXPECT_EQ(capture.out(),
            "NluEngine: start tagger init\n"
            "3333333333333333333333333\n"
            "new regex:\\b(1[0-2]|0?[1-9])(:[0-5][0-9])? ?(am|pm)\n"
            "pattern:\\b(1[0-2]|0?[1-9])(:[0-5][0-9])? ?(am|pm)\n"
            "NluEngine: start parser init\n");
  EXPECT_EQ(capture.err(), "");
}

TEST(NluEngine, AnswersWithSlotsAndLogsThem) {
  auto engine = BuildEngine(kCallConfig);
  ASSERT_NE(engine, nullptr);
  LogCapture capture;
  const NluResult result = engine->Process(std::string("call Jos\xC3\xA9 at 5pm"));
  EXPECT_EQ(Dump(result),
            "42|call_contact|call Jos\xC3\xA9 at 5pm|call_verb=call@0+4;contact=Jos\xC3\xA9@5+4;"
            "time=5pm@13+3;");
  EXPECT_EQ(capture.out(),
            "result :call_contact\n"
            "slotkey:call_verb, slotvalue:call\n"
            "slotkey:contact, slotvalue:Jos\xC3\xA9\n"
            "slotkey:time, slotvalue:5pm\n");
}

TEST(NluEngine, UnmatchedQueryIsUnknownWithTheConfigurationVersion) {
  auto engine = BuildEngine(kCallConfig);
  LogCapture capture;
  EXPECT_EQ(Dump(engine->Process(std::string("what is the weather"))),
            "42|unknown|what is the weather|");
  // Tags exist, but the rule must match the whole rewritten query.
  EXPECT_EQ(Dump(engine->Process(std::string("please call Tom"))), "42|unknown|please call Tom|");
  EXPECT_EQ(Dump(engine->Process(std::string(""))), "42|unknown||");
  EXPECT_EQ(capture.out(), "result :unknown\nresult :unknown\nresult :unknown\n");
}

TEST(NluEngine, CountsOffsetsInUtf16Units) {
  auto engine = BuildEngine(kCallConfig);
  // U+1F4C5 is two UTF-16 units; U+674E U+4F1F one each.
  const std::string query = "ring \xE6\x9D\x8E\xE4\xBC\x9F at 10:30pm";
  EXPECT_EQ(Dump(engine->Process(query)),
            "42|call_contact|" + query +
                "|call_verb=ring@0+4;contact=\xE6\x9D\x8E\xE4\xBC\x9F@5+2;time=10:30pm@11+7;");
  auto astral = BuildEngine(R"json({"vocabMap": {"contact": ["Tom"]},
      "intentMap": {"i": {"slots": [{"tag": "contact"}], "regexRules": ["..<contact>"]}}})json");
  EXPECT_EQ(Dump(astral->Process(std::string("\xF0\x9F\x93\x85Tom"))),
            "0|i|\xF0\x9F\x93\x85Tom|contact=Tom@2+3;");
}

TEST(NluEngine, ReadsTheQueryUpToItsFirstNul) {
  auto engine = BuildEngine(kCallConfig);
  EXPECT_EQ(Dump(engine->Process(std::string("call Tom\0 at 5pm", 16))),
            "42|call_contact|call Tom|call_verb=call@0+4;contact=Tom@5+3;");
}

TEST(NluEngine, EveryStageFailureGivesTheEmptyResult) {
  auto engine = BuildEngine(R"json({
    "version": 7,
    "regexVocabMap": {"any": ["."]},
    "vocabMap": {"contact": ["Tom"], "broken": ["oops"]},
    "intentMap": {
      "a_broken": {"slots": [{"tag": "broken"}], "regexRules": ["(<broken>"]},
      "b_any": {"slots": [{"tag": "any"}], "regexRules": ["(<any>)+"]},
      "c_call": {"slots": [{"tag": "contact"}], "regexRules": ["<contact>"]}
    }})json");
  ASSERT_NE(engine, nullptr);
  {
    LogCapture capture;  // invalid UTF-8: the tagger fails
    EXPECT_EQ(Dump(engine->Process(std::string("Tom \xC3"))), "0|||");
    EXPECT_EQ(engine->Understand("b\xED\xA0\x80").status, kStatusTaggerFailed);
    EXPECT_EQ(capture.err(), "tagger process exception!\ntagger process exception!\n");
    EXPECT_EQ(capture.out(), "result :\n");
  }
  {
    LogCapture capture;  // the rule that does not compile is tried: the parser fails
    EXPECT_EQ(Dump(engine->Process(std::string("oops"))), "0|||");
    EXPECT_EQ(engine->Understand("oops").status, kStatusParserFailed);
    EXPECT_EQ(capture.err(), "regex parser process exception!\nregex parser process exception!\n");
  }
  {
    LogCapture capture;  // queries that never reach that rule are unaffected
    EXPECT_EQ(Dump(engine->Process(std::string("Tom"))), "7|c_call|Tom|contact=Tom@0+3;");
    EXPECT_EQ(capture.err(), "");
  }
  {
    LogCapture capture;  // `.` splits a surrogate pair: the slot has no UTF-8 form
    EXPECT_EQ(Dump(engine->Process(std::string("\xF0\x9F\x98\x80"))), "0|||");
    EXPECT_EQ(capture.out(), "result :b_any\n");
    EXPECT_EQ(capture.err(), "result conversion exception!\n");
  }
}

// Queries of any length get their answer, and no pattern or rule makes a query hang: each one
// ends with an answer or with its stage's failure (time is bounded by the test's timeout).
TEST(NluEngine, AnswersLongQueriesAndEndsHostileMatches) {
  LogCapture capture;
  std::string words;  // a megabyte of words, the last two a call
  while (words.size() < 1000000) words += "Tom Anna ";
  words += "call Tom";
  auto engine = BuildEngine(kCallConfig);
  const PipelineOutcome long_query = engine->Understand(words);
  EXPECT_EQ(long_query.status, kStatusOk);
  EXPECT_EQ(long_query.candidate.intent, "unknown");
  EXPECT_EQ(Dump(engine->Process("call Tom " + std::string(100000, '7'))),
            "42|unknown|call Tom " + std::string(100000, '7') + "|");

  const std::string a30(30, 'a');
  // A regex vocabulary or a rule that backtracks catastrophically in a naive matcher, the query
  // it meets, and what the query ends with: no answer is lost to a hang.
  const struct {
    std::string pattern, rule, query;
    int status;
  } cases[] = {
      {"(a+)+b", "<r>", a30, kStatusOk},
      {"^(a|a?)+$", "<r>", a30, kStatusOk},
      {"(.*)+b", "<r>", a30, kStatusOk},
      {"x", "((<w>)*)*<w>b", a30, kStatusOk},
      {"x", "(<w>|(<w>)?)+c", a30, kStatusOk},
      // A repeat too large for the matcher does not compile: the rule fails when reached.
      {"x", "<w>(a?){13000}", "a", kStatusParserFailed},
  };
  for (const auto& c : cases) {
    auto hostile = BuildEngine(R"({"regexVocabMap": {"r": [")" + c.pattern +
                               R"("]}, "vocabMap": {"w": ["a"]}, "intentMap": {"i": {"slots": )"
                               R"([{"tag": "r"}, {"tag": "w"}], "regexRules": [")" +
                               c.rule + R"("]}}})");
    ASSERT_NE(hostile, nullptr) << c.pattern;
    EXPECT_EQ(hostile->Understand(c.query).status, c.status) << c.pattern << " " << c.rule;
  }
}

TEST(NluEngine, HostileConfigurationsStartAndHostileQueriesFailInTheTagger) {
  // Every prefix a ... a^2048 as one vocabulary; 30 variables, each twice the one before.
  std::string words = "\"a\"";
  for (int n = 2; n <= 2048; ++n) words += ", \"" + std::string(n, 'a') + "\"";
  std::string variables = R"({"key": "v0", "value": "0123456789"})";
  for (int i = 1; i < 30; ++i) {
    const std::string previous = "${v" + std::to_string(i - 1) + "}";
    variables +=
        R"(, {"key": "v)" + std::to_string(i) + R"(", "value": ")" + previous + previous + "\"}";
  }
  LogCapture capture;
  auto engine = BuildEngine(R"({"version": 5, "variableEntrys": [)" + variables +
                            R"(], "regexVocabMap": {"r": ["${v29}"]}, "vocabMap": {"a": [)" +
                            words + R"(]}, "intentMap": {"p": {"slots": [{"tag": "a"}],
                            "regexRules": ["(<a>)+"]}}})");
  ASSERT_NE(engine, nullptr);
  EXPECT_EQ(capture.out(),
            "NluEngine: start tagger init\n3333333333333333333333333\n"
            "variable expansion too long: ${v8} in variable v9 exceeds 4096 units\n"
            "NluEngine: start parser init\n");
  // 2,080 tags: answered by the longest one.
  const std::string a64(64, 'a');
  EXPECT_EQ(Dump(engine->Process(a64)), "5|p|" + a64 + "|a=" + a64 + "@0+64;");
  // Two million tags: refused past the bound.
  EXPECT_EQ(engine->Understand(std::string(2048, 'a')).status, kStatusTaggerFailed);
  EXPECT_EQ(capture.err(), "tagger process exception!\n");
}

TEST(NluEngine, AnswersTheSameFromManyThreads) {
  auto engine = BuildEngine(kCallConfig);
  const std::vector<std::string> queries = {"call Tom",
                                            "ring Anna at 7am",
                                            "video call Jos\xC3\xA9 at 11:15 pm",
                                            "call nobody",
                                            "call \xE6\x9D\x8E\xE4\xBC\x9F",
                                            "Tom \xC3",
                                            "",
                                            "ring Tom at 13pm"};
  std::vector<std::string> expected;
  {
    LogCapture quiet;
    for (const std::string& query : queries) expected.push_back(Dump(engine->Process(query)));
  }
  EXPECT_EQ(expected[1],
            "42|call_contact|ring Anna at 7am|call_verb=ring@0+4;contact=Anna@5+4;"
            "time=7am@13+3;");
  LogCapture quiet;
  std::vector<int> mismatches(8, 0);
  std::vector<std::thread> threads;
  for (int t = 0; t < 8; ++t) {
    threads.emplace_back([&, t] {
      for (int round = 0; round < 200; ++round) {
        const size_t i = static_cast<size_t>(round + t) % queries.size();
        if (Dump(engine->Process(queries[i])) != expected[i]) ++mismatches[t];
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (int count : mismatches) EXPECT_EQ(count, 0);
}

}  // namespace
}  // namespace rulenlu
