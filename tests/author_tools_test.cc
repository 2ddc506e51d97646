// Drives the configuration authors' subcommands as separate processes: `rulenlu test`,
// `rulenlu check` and `rulenlu explain`.
#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <string>
#include <vector>

#include "subprocess.h"

namespace rulenlu {
namespace {

const std::string kCli = RULENLU_CLI_PATH;
const std::string kRoot = RULENLU_SOURCE_DIR;
const std::string kExample = kRoot + "/examples/collab.json";

// The last line of `text`, "" when it has none.
std::string LastLine(const std::string& text) {
  const std::vector<std::string> lines = SplitLines(text);
  return lines.empty() ? "" : lines.back();
}

TEST(TestCommand, ReportsFailuresAndExitsByOutcome) {
  const struct {
    const char* cases;
    int exit_code;
    const char* summary;     // the last line of stdout; "" when nothing is run
    const char* diagnostic;  // expected in the output, stdout then stderr
  } kRuns[] = {
      {R"({"query": "call Tom", "intent": "call_contact"})"
       "\n\n"
       R"({"query": "call Tom", "intent": "call_contact", "slots": [{"key": "call_verb", )"
       R"("value": "call", "start": 0, "length": 4}, {"key": "contact", "value": "Tom"}]})"
       "\r\n",
       0, "2 passed, 0 failed", ""},
      {R"({"query": "call Tom", "intent": "open_app"})"
       "\n"
       R"({"query": "call Bob", "intent": "unknown", "slots": []})",
       1, "1 passed, 1 failed",
       ":1: FAIL \"call Tom\"\n  expected: intent open_app, any slots\n"
       "  got:      intent call_contact, slots [call_verb=\"call\"(0,4) contact=\"Tom\"(5,3)]\n"},
      // Slots are compared in order, with their positions when given.
      {R"({"query": "call Tom", "intent": "call_contact", "slots": [{"key": "contact", "value": "Tom"}, {"key": "call_verb", "value": "call"}]})",
       1, "0 passed, 1 failed", "slots [contact=\"Tom\" call_verb=\"call\"]"},
      {R"({"query": "call Tom", "intent": "call_contact", "slots": [{"key": "call_verb", "value": "call", "length": 3}, {"key": "contact", "value": "Tom"}]})",
       1, "0 passed, 1 failed", "call_verb=\"call\"(?,3)"},
      {R"({"query": "call Tom", "intent": "call_contact", "slots": [{"key": "call_verb", "value": "call"}]})",
       1, "0 passed, 1 failed", "FAIL"},
      // Invalid lines: nothing runs, each line is named.
      {"{\"query\": \"call Tom\", \"intent\": \"call_contact\"}\n{\"query\": \"x\"}\n", 2, "",
       ":2: invalid case: missing \"intent\""},
      {"{\"query\": \"x\", \"intent\": \"y\", \"slot\": []}", 2, "", ":1: invalid case: unknown"},
      {"\n[1]", 2, "", ":2: invalid case: not a JSON object"},
      {"{\"query\": \"x\", \"intent\": 3}", 2, "", "\"intent\" is not a string"},
      {"{\"query\": \"x\", \"intent\": \"y\", \"slots\": [{\"key\": \"k\", \"value\": \"v\", "
       "\"start\": 1.5}]}",
       2, "", "\"start\" is not an integer"},
      {"{\"query\": \"x\",", 2, "", ":1: invalid case: not JSON"},
  };
  for (const auto& run : kRuns) {
    const std::string cases = WriteScratch("cases.jsonl", run.cases);
    const ProcessResult result = RunProcess({kCli, "test", "--config", kExample, cases});
    EXPECT_EQ(result.exit_code, run.exit_code) << run.cases << "\n" << result.out << result.err;
    EXPECT_EQ(LastLine(result.out), run.summary) << run.cases;
    EXPECT_NE((result.out + result.err).find(run.diagnostic), std::string::npos)
        << run.cases << "\n"
        << result.out << result.err;
  }
}

TEST(TestCommand, ExitsWithTwoWhenItCannotRun) {
  const std::string cases = WriteScratch("ok.jsonl", R"({"query": "q", "intent": "unknown"})");
  const std::vector<std::vector<std::string>> argvs = {
      {kCli, "test", "--config", kExample},
      {kCli, "test", cases},
      {kCli, "test", "--config", kExample, "/nonexistent/cases.jsonl"},
      {kCli, "test", "--config", "/nonexistent/config.json", cases},
  };
  for (const auto& argv : argvs) {
    const ProcessResult result = RunProcess(argv);
    EXPECT_EQ(result.exit_code, 2) << argv.back() << result.err;
    EXPECT_EQ(result.out, "");
    EXPECT_NE(result.err, "");
  }
}

// The findings of `rulenlu check` without the file name, each line as "LINE:COLUMN: ...".
struct CheckRun {
  int exit_code;
  std::vector<std::string> lines;
};

CheckRun Check(const std::string& document) {
  const std::string path = WriteScratch("config.json", document);
  const ProcessResult result = RunProcess({kCli, "check", "--config", path});
  CheckRun run{result.exit_code, SplitLines(result.out)};
  for (std::string& line : run.lines) {
    if (line.rfind(path + ":", 0) == 0) line.erase(0, path.size() + 1);
  }
  return run;
}

TEST(CheckCommand, ReportsEachFindingAtItsValue) {
  const struct {
    const char* document;
    std::vector<std::string> findings;  // then the summary line
  } kCases[] = {
      {"{\"version\": 1,\n  \"vocabMap\": {\"a\": [\"x\",]}}",
       {"2:26: error: JSON does not parse: Invalid value.", "1 error, 0 warnings"}},
      {"[1]",
       {"1:1: error: the document is not a JSON object: the engine rejects it",
        "1 error, 0 warnings"}},
      {R"({"regexVocabMap": {"t": ["([0-9]"]}, "intentMap": {"i": {"slots": [{"tag": "t"}], "regexRules": ["<t>"]}}})",
       {"1:26: error: pattern 1 of regex vocabulary \"t\" does not compile (unmatched '('): "
        "the engine does not start",
        "1 error, 0 warnings"}},
      {R"({"vocabMap": {"v": ["x"]}, "intentMap": {"i": {"slots": [{"tag": "v"}], "regexRules": ["<v>(", "<v>"]}}})",
       {"1:88: error: rule 1 of intent \"i\" does not compile (unmatched '('): "
        "every query that reaches it fails",
        "1 error, 0 warnings"}},
      {"{\"variableEntrys\": [{\"key\": \"a\", \"value\": \"${b}x\"}, {\"key\": \"b\", \"value\": "
       "\"y\"}],\n \"regexVocabMap\": {\"t\": [\"${a}\", \"${zz}\"]}, \"intentMap\": {\"i\": "
       "{\"slots\": [{\"tag\": \"t\"}], \"regexRules\": [\"<t>\"]}}}",
       {"1:43: error: variable \"a\" refers to ${b}, which is defined only later: every regex "
        "vocabulary is switched off",
        "2:26: error: pattern 1 of regex vocabulary \"t\" refers to ${a}, whose own value does "
        "not expand: every regex vocabulary is switched off",
        "2:34: error: pattern 2 of regex vocabulary \"t\" refers to ${zz}, which is not defined: "
        "every regex vocabulary is switched off",
        "3 errors, 0 warnings"}},
      {"{\"variableEntrys\": [{\"key\": \"a\", \"value\": \"\"}],\n \"regexVocabMap\": {\"t\": "
       "[\"x\", \"\"]}, \"intentMap\": {\"i\": {\"slots\": [{\"tag\": \"t\"}], \"regexRules\": "
       "[\"<t>\"]}}}",
       {"1:43: error: variable \"a\" has an empty value: every regex vocabulary is switched off",
        "2:31: error: pattern 2 of regex vocabulary \"t\" is empty: every regex vocabulary is "
        "switched off",
        "2 errors, 0 warnings"}},
      // Empty at the start of a text, at a word boundary, as an empty alternative; [0-9]+ never.
      {R"({"regexVocabMap": {"t": ["a*", "\\b", "x|", "[0-9]+"]}, "intentMap": {"i": {"slots": [{"tag": "t"}], "regexRules": ["<t>"]}}})",
       {"1:26: error: pattern 1 of regex vocabulary \"t\" can match empty text: every query in "
        "which it does fails",
        "1:32: error: pattern 2 of regex vocabulary \"t\" can match empty text: every query in "
        "which it does fails",
        "1:39: error: pattern 3 of regex vocabulary \"t\" can match empty text: every query in "
        "which it does fails",
        "3 errors, 0 warnings"}},
      // Markers: bracket expressions hold none.
      {R"({"vocabMap": {"v": ["x"], "w": ["y"]}, "intentMap": {"i": {"slots": [{"tag": "v"}], "regexRules": ["<v> <nope> [^<>]+ <w>"]}, "j": {"slots": [{"tag": "w"}], "regexRules": ["<w>"]}}})",
       {"1:100: error: rule 1 of intent \"i\": <nope> names no vocabulary",
        "1:100: error: rule 1 of intent \"i\": <w> names a vocabulary that the slots of intent "
        "\"i\" do not accept: the rule cannot match it",
        "2 errors, 0 warnings"}},
      {R"({"vocabMap": {"v": ["x"]}, "intentMap": {"i": {"slots": [{"tag": "v"}, {"tag": "vv"}], "regexRules": ["<v>"]}}})",
       {"1:80: warning: \"tag\" of slot 2 of intent \"i\" names no vocabulary: \"vv\"",
        "0 errors, 1 warning"}},
      {"{\"vocabMap\": {\"v\": [\"\xff\"]}, \"intentMap\": {\"i\": {\"slots\": [{\"tag\": \"v\"}], "
       "\"regexRules\": [\"<v>\"]}}}",
       {"1:21: error: word \"\xff\" of vocabulary \"v\" is not valid UTF-8: the engine does not "
        "load the configuration",
        "1 error, 0 warnings"}},
      {"{\"vocabmap\": {}, \"vocabMap\": {\"v\": [\"x\"]}, \"intentMap\": {\"i\": {\"slot\": [], "
       "\"slots\": [{\"name\": \"s\", \"tag\": \"v\", \"type\": 1}], \"regexRules\": [\"<v>\"]}},\n"
       " \"variableEntrys\": [{\"key\": \"a\", \"value\": \"1\", \"note\": \"\"}], \"vocabMap\": "
       "{}}",
       {"1:2: warning: unknown key \"vocabmap\" in the document: ignored",
        "1:64: warning: unknown key \"slot\" in intent \"i\": ignored",
        "1:112: warning: unknown key \"type\" in slot 1 of intent \"i\": ignored",
        "2:48: warning: unknown key \"note\" in variable entry 1: ignored",
        "2:62: warning: key \"vocabMap\" repeated in the document: ignored, the first one counts",
        "0 errors, 5 warnings"}},
      {"{\"version\": \"3\", \"vocabMap\": {\"v\": [\"x\", 5], \"w\": \"y\"}, \"regexVocabMap\": "
       "[], "
       "\"variableEntrys\": [3, {\"key\": \"a\"}],\n \"intentMap\": {\"i\": {\"name\": 1, "
       "\"slots\": "
       "[{\"tag\": \"v\"}, 7, {\"tag\": 2}], \"regexRules\": \"<v>\", \"blackList\": [1]}, \"j\": "
       "5}}",
       {"1:13: warning: \"version\" is not an integer: the version counts as 0",
        "1:42: warning: element 2 of vocabulary \"v\" is not a string: ignored",
        "1:51: warning: vocabulary \"w\" is not an array: ignored",
        "1:74: warning: \"regexVocabMap\" is not an object: it is ignored",
        "1:97: warning: variable entry 1 is not an object: ignored",
        "1:100: warning: variable entry 2 lacks a string \"key\" or \"value\": ignored",
        "2:21: warning: intent \"i\" has no rules: it never matches",
        "2:30: warning: \"name\" of intent \"i\" is not a string: ignored",
        "2:57: warning: slot 2 of intent \"i\" is not an object: ignored",
        "2:68: warning: \"tag\" of slot 3 of intent \"i\" is not a string: taken as \"\"",
        "2:87: warning: \"regexRules\" of intent \"i\" is not an array: ignored",
        "2:108: warning: element 1 of \"blackList\" of intent \"i\" is not a string: ignored",
        "2:118: warning: intent \"j\" is not an object: ignored", "0 errors, 13 warnings"}},
      {"{\"variableEntrys\": [{\"key\": \"a\", \"value\": \"1\"}, {\"key\": \"a\", \"value\": "
       "\"2\"}],\n"
       " \"vocabMap\": {\"v\": [\"x\", \"y\", \"x\"], \"unused\": [\"z\"]}, \"regexVocabMap\": "
       "{\"t\": "
       "[\"${a}\"]},\n \"intentMap\": {\"i\": {\"slots\": [{\"tag\": \"v\"}], \"regexRules\": "
       "[\"<v>\", \"<v>y\", \"<v>\"]}, \"none\": {\"slots\": [{\"tag\": \"v\"}]}, \"none\": "
       "{\"regexRules\": []}}}",
       {"1:57: warning: variable \"a\" is defined again: the first definition counts (both must "
        "expand)",
        "2:31: warning: word \"x\" repeats an earlier word of vocabulary \"v\"",
        "2:37: warning: vocabulary \"unused\" is accepted by no intent's slots: its tags never "
        "reach a rule",
        "2:73: warning: regex vocabulary \"t\" is accepted by no intent's slots: its tags never "
        "reach a rule",
        "3:77: warning: rule 3 of intent \"i\" repeats rule 1: it never adds a match",
        "3:86: warning: intent \"none\" is defined again later: this definition is ignored",
        "3:129: warning: intent \"none\" has no rules: it never matches", "0 errors, 7 warnings"}},
  };
  for (const auto& c : kCases) {
    const CheckRun run = Check(c.document);
    EXPECT_EQ(run.lines, c.findings) << c.document;
    const bool errors = c.findings.back().rfind("0 errors", 0) != 0;
    EXPECT_EQ(run.exit_code, errors ? 1 : 0) << c.document;
  }
}

TEST(CheckCommand, PassesTheExampleAndFailsWhatCannotBeRead) {
  const ProcessResult example = RunProcess({kCli, "check", "--config", kExample});
  EXPECT_EQ(example.exit_code, 0);
  EXPECT_EQ(example.out, "0 errors, 0 warnings\n");
  EXPECT_EQ(example.err, "");
  const ProcessResult missing = RunProcess({kCli, "check", "--config", "/nonexistent/c.json"});
  EXPECT_EQ(missing.exit_code, 1);
  EXPECT_EQ(missing.out.rfind("/nonexistent/c.json: error: ", 0), 0u) << missing.out;
  EXPECT_EQ(RunProcess({kCli, "check"}).exit_code, 2);
}

// For every query of the shared workload, explain's "result" is parse's line, and the candidate
// it marks as the winner is that result.
TEST(ExplainCommand, JsonResultIsParsesLineOnTheSharedWorkload) {
  const std::string config = kRoot + "/bench/workload/config.json";
  const std::string queries = ReadFileBytes(kRoot + "/bench/workload/queries.txt");
  const ProcessResult parse = RunProcess({kCli, "parse", "--quiet", "--config", config}, queries);
  const ProcessResult explain =
      RunProcess({kCli, "explain", "--json", "--config", config}, queries);
  ASSERT_EQ(parse.exit_code, 0);
  ASSERT_EQ(explain.exit_code, 0);
  EXPECT_EQ(explain.err, "");
  const std::vector<std::string> expected = SplitLines(parse.out);
  const std::vector<std::string> got = SplitLines(explain.out);
  const std::vector<std::string> asked = SplitLines(queries);
  ASSERT_EQ(got.size(), expected.size());
  ASSERT_EQ(got.size(), asked.size());
  size_t winners = 0;
  for (size_t i = 0; i < got.size(); ++i) {
    rapidjson::Document doc;
    rapidjson::Document line;
    ASSERT_FALSE(doc.Parse(got[i].c_str()).HasParseError()) << i;
    ASSERT_FALSE(line.Parse(expected[i].c_str()).HasParseError()) << i;
    ASSERT_TRUE(doc.IsObject() && doc.HasMember("tags") && doc["tags"].IsArray() &&
                doc.HasMember("candidates") && doc["candidates"].IsArray())
        << got[i].substr(0, 200);
    EXPECT_EQ(doc["query"], rapidjson::Value(asked[i].c_str(), doc.GetAllocator())) << i;
    EXPECT_TRUE(doc["result"] == line) << asked[i] << "\n" << expected[i];
    for (const rapidjson::Value& candidate : doc["candidates"].GetArray()) {
      if (!candidate["winner"].GetBool()) continue;
      ++winners;
      EXPECT_TRUE(candidate["intent"] == line["intent"]) << asked[i];
      EXPECT_TRUE(candidate["slots"] == line["slots"]) << asked[i];
    }
  }
  EXPECT_GT(winners, got.size() / 4);  // the workload is mostly understood
}

TEST(ExplainCommand, TextMarksTheWinnerAndShowsAFailingStage) {
  const ProcessResult call = RunProcess({kCli, "explain", "--config", kExample, "call Tom now"});
  ASSERT_EQ(call.exit_code, 0);
  const ProcessResult parse =
      RunProcess({kCli, "parse", "--quiet", "--config", kExample, "call Tom now"});
  EXPECT_EQ(LastLine(call.out), "result " + LastLine(parse.out));
  for (const char* part :
       {"  call_verb     \"call\"  0  4\n", "  * #2  <call_verb> <contact> now\n",
        "      *  call_contact  rule 1 matches\n",
        "  *  1  call_contact  7  2  1  #2  call_verb=\"call\" contact=\"Tom\"\n"}) {
    EXPECT_NE(call.out.find(part), std::string::npos) << part << call.out;
  }

  // A rule that does not compile fails the query in the parser: shown, and the result is
  // parse's empty one.
  const std::string broken = WriteScratch(
      "broken.json",
      R"({"vocabMap": {"v": ["x"], "w": ["y"]}, "intentMap": {"a": {"slots": [{"tag": "v"}], "regexRules": ["<v>(", "<v>"]}, "b": {"slots": [{"tag": "v"}, {"tag": "w"}], "regexRules": ["<v> <w>"]}}})");
  const ProcessResult text = RunProcess({kCli, "explain", "--config", broken, "x y"});
  EXPECT_EQ(text.exit_code, 0);
  EXPECT_NE(text.out.find("a  fails: rule 1 does not compile: "), std::string::npos) << text.out;
  EXPECT_NE(text.out.find("\nfailed in the parser: rule 1 does not compile"), std::string::npos);
  EXPECT_EQ(LastLine(text.out),
            "result {\"version\":0,\"intent\":\"\",\"text\":\"\",\"slots\":[]}");
  const ProcessResult json = RunProcess({kCli, "explain", "--json", "--config", broken, "x y"});
  rapidjson::Document doc;
  ASSERT_FALSE(doc.Parse(json.out.c_str()).HasParseError()) << json.out;
  EXPECT_EQ(std::string(doc["failure"].GetString()).rfind("parser: rule 1", 0), 0u);
  ASSERT_EQ(doc["candidates"].Size(), 1u);  // b's, which the failure keeps from winning
  EXPECT_FALSE(doc["candidates"][0]["winner"].GetBool());

  EXPECT_EQ(RunProcess({kCli, "explain", "--config", "/nonexistent/c.json", "q"}).exit_code, 1);
  EXPECT_EQ(RunProcess({kCli, "explain", "q"}).exit_code, 2);
}

}  // namespace
}  // namespace rulenlu
