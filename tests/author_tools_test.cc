// Drives the configuration authors' subcommands as separate processes: `rulenlu test`,
// `rulenlu check` and `rulenlu explain`.
#include <gtest/gtest.h>

#include <fstream>
#include <string>
#include <vector>

#include "subprocess.h"

namespace rulenlu {
namespace {

const std::string kCli = RULENLU_CLI_PATH;
const std::string kRoot = RULENLU_SOURCE_DIR;
const std::string kExample = kRoot + "/examples/collab.json";

// Writes `content` to a new file in a scratch directory and returns its path.
std::string WriteScratch(const std::string& name, const std::string& content) {
  static const std::string dir = MakeTempDir("rulenlu-tools-");
  const std::string path = dir + "/" + name;
  std::ofstream(path, std::ios::binary) << content;
  return path;
}

std::string LastLine(const std::string& text) {
  const size_t end = text.empty() || text.back() != '\n' ? text.size() : text.size() - 1;
  const size_t begin = text.rfind('\n', end == 0 ? 0 : end - 1);
  return text.substr(begin == std::string::npos ? 0 : begin + 1, end - (begin + 1));
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

}  // namespace
}  // namespace rulenlu
