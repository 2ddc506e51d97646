// Drives the `rulenlu parse` command as scripts do: stdout carries one JSON line per query and
// nothing else; exit status 0, 1 or 2. The answers and log lines over whole query streams are the
// golden test's; the installed tool's version line is checked by the packaging test.
#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <string>
#include <vector>

#include "subprocess.h"

namespace rulenlu {
namespace {

const std::string kCli = RULENLU_CLI_PATH;
const std::string kExample = std::string(RULENLU_EXAMPLES_DIR) + "/collab.json";

TEST(CliParse, AnswersTheQueriesGivenAsArgumentsQuietlyWhenAsked) {
  const ProcessResult run = RunProcess({kCli, "parse", "--config", kExample, "call Tom", "x"});
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_EQ(run.out,
            "{\"version\":1,\"intent\":\"call_contact\",\"text\":\"call Tom\",\"slots\":[{\"key\":"
            "\"call_verb\",\"value\":\"call\",\"start\":0,\"length\":4},{\"key\":\"contact\","
            "\"value\":\"Tom\",\"start\":5,\"length\":3}]}\n"
            "{\"version\":1,\"intent\":\"unknown\",\"text\":\"x\",\"slots\":[]}\n");
  EXPECT_EQ(run.err.rfind("NluEngine: start tagger init\n", 0), 0u) << run.err;
  const ProcessResult quiet =
      RunProcess({kCli, "parse", "--quiet", "--config", kExample, "call Tom", "x"});
  EXPECT_EQ(quiet.exit_code, 0);
  EXPECT_EQ(quiet.out, run.out);
  EXPECT_EQ(quiet.err, "");
}

TEST(CliParse, ReadsQueriesFromStdinLineByLine) {
  // CRLF and LF endings, an empty line, a last line without its line end.
  const ProcessResult run = RunProcess({kCli, "parse", "--quiet", "--config", kExample},
                                       "open calendar\r\n\nsay \"hi\"\\\t\r\r\ncall Tom");
  ASSERT_EQ(run.exit_code, 0);
  const std::vector<std::string> lines = SplitLines(run.out);
  ASSERT_EQ(lines.size(), 4u) << run.out;
  std::vector<std::string> texts;
  for (const std::string& line : lines) {
    rapidjson::Document doc;
    ASSERT_FALSE(doc.Parse(line.c_str()).HasParseError()) << line;
    texts.emplace_back(doc["text"].GetString(), doc["text"].GetStringLength());
  }
  EXPECT_EQ(texts, (std::vector<std::string>{"open calendar", "", "say \"hi\"\\\t\r", "call Tom"}));
  EXPECT_NE(lines[0].find("\"intent\":\"open_app\""), std::string::npos);
  EXPECT_NE(lines[3].find("\"intent\":\"call_contact\""), std::string::npos);
}

TEST(CliParse, ExitsWithOneWhenTheConfigurationDoesNotLoad) {
  const std::string not_json = WriteScratch("not_json.json", "{\"version\": 1,");
  const std::string bad_pattern =
      WriteScratch("bad_pattern.json", R"({"regexVocabMap": {"time": ["([0-9]"]}})");
  for (const std::string& config :
       {std::string("/nonexistent/config.json"), not_json, bad_pattern}) {
    const ProcessResult quiet = RunProcess({kCli, "parse", "--quiet", "--config", config, "q"});
    EXPECT_EQ(quiet.exit_code, 1) << config;
    EXPECT_EQ(quiet.out, "") << config;
    const std::vector<std::string> lines = SplitLines(quiet.err);
    ASSERT_EQ(lines.size(), 1u) << quiet.err;
    EXPECT_EQ(lines[0].rfind("rulenlu: ", 0), 0u) << lines[0];
    EXPECT_NE(lines[0].find(config), std::string::npos) << lines[0];
  }
  // Without --quiet the engine's own reason comes first; the message still has a line of its own.
  const ProcessResult loud = RunProcess({kCli, "parse", "--config", not_json, "q"});
  EXPECT_EQ(loud.exit_code, 1);
  EXPECT_EQ(loud.err.rfind("json is error.\nrulenlu: ", 0), 0u) << loud.err;
  // Started as the client starts, with a state directory, it fails the same way.
  const ProcessResult hosted = RunProcess(
      {kCli, "parse", "--config", "/nonexistent/config.json", "--state", testing::TempDir(), "q"});
  EXPECT_EQ(hosted.exit_code, 1);
  EXPECT_EQ(hosted.out, "");
  EXPECT_NE(hosted.err.find("local config load failed\nrulenlu: cannot load configuration "),
            std::string::npos)
      << hosted.err;
}

TEST(CliParse, ExitsWithTwoOnUsageErrors) {
  const std::vector<std::vector<std::string>> usages = {
      {kCli},
      {kCli, "parse"},
      {kCli, "parse", "--config"},
      {kCli, "parse", "--config", kExample, "--bogus", "q"},
      {kCli, "frobnicate", "--config", kExample},
      {kCli, "parse", "--config", kExample, "--wait-update", "3", "q"},
      {kCli, "version", "extra"},
  };
  for (const std::vector<std::string>& argv : usages) {
    const ProcessResult run = RunProcess(argv);
    EXPECT_EQ(run.exit_code, 2) << argv.back();
    EXPECT_EQ(run.out, "");
    EXPECT_NE(run.err.find("Usage: "), std::string::npos) << run.err;
  }
}

}  // namespace
}  // namespace rulenlu
