#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "config/config_parser.h"
#include "engine/nlu_engine.h"
#include "log_capture.h"
#include "result_dump.h"

namespace rulenlu {
namespace {

constexpr char kCallConfig[] = R"json({"version": 42,
  "regexVocabMap": {"time": ["\\b(1[0-2]|0?[1-9])(:[0-5][0-9])? ?(am|pm)"]},
  "vocabMap": {"call_verb": ["call"], "contact": ["Tom", "Anna"]},
  "intentMap": {"call_contact": {"slots": [{"tag": "call_verb"}, {"tag": "contact"}, {"tag": "time"}],
                                 "regexRules": ["<call_verb> <contact>( at <time>)?"]}}})json";

std::unique_ptr<NluEngine> BuildEngine(const std::string& document) {
  std::optional<NluConfig> config = ParseNluConfig(document);
  if (!config.has_value()) return nullptr;
  return std::make_unique<NluEngine>(std::move(*config));
}

// The answers, the configuration's version and the engine's log lines are checked over whole
// workloads by the golden test; these are what its queries do not reach.
TEST(NluEngine, ReadsTheQueryUpToItsFirstNulAndAnswersTheEmptyQuery) {
  auto engine = BuildEngine(kCallConfig);
  LogCapture quiet;
  EXPECT_EQ(DumpResult(engine->Process(std::string("call Tom\0 at 5pm", 16))),
            "42|call_contact|call Tom|call_verb=call@0+4;contact=Tom@5+3;");
  EXPECT_EQ(DumpResult(engine->Process(std::string())), "42|unknown||");
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
    EXPECT_EQ(DumpResult(engine->Process(std::string("Tom \xC3"))), "0|||");
    EXPECT_EQ(engine->Understand("b\xED\xA0\x80").status, kStatusTaggerFailed);
    EXPECT_EQ(capture.err(), "tagger process exception!\ntagger process exception!\n");
    EXPECT_EQ(capture.out(), "result :\n");
  }
  {
    LogCapture capture;  // the rule that does not compile is tried: the parser fails
    EXPECT_EQ(DumpResult(engine->Process(std::string("oops"))), "0|||");
    EXPECT_EQ(engine->Understand("oops").status, kStatusParserFailed);
    EXPECT_EQ(capture.err(), "regex parser process exception!\nregex parser process exception!\n");
  }
  {
    LogCapture capture;  // queries that never reach that rule are unaffected
    EXPECT_EQ(DumpResult(engine->Process(std::string("Tom"))), "7|c_call|Tom|contact=Tom@0+3;");
    EXPECT_EQ(capture.err(), "");
  }
  {
    LogCapture capture;  // `.` splits a surrogate pair: the slot has no UTF-8 form
    EXPECT_EQ(DumpResult(engine->Process(std::string("\xF0\x9F\x98\x80"))), "0|||");
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
  EXPECT_EQ(DumpResult(engine->Process("call Tom " + std::string(100000, '7'))),
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

}  // namespace
}  // namespace rulenlu
