// Drives the `rulenlu parse` command as scripts do: stdout carries one JSON line per query and
// nothing else; exit status 0, 1 or 2. `rulenlu version` and `--version` print the version.
#include <gtest/gtest.h>
#include <rapidjson/document.h>

#include <cstdio>
#include <fstream>
#include <string>
#include <vector>

#include "subprocess.h"

namespace rulenlu {
namespace {

const std::string kCli = RULENLU_CLI_PATH;
const std::string kExample = std::string(RULENLU_EXAMPLES_DIR) + "/collab.json";

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  size_t begin = 0;
  for (size_t end; (end = text.find('\n', begin)) != std::string::npos; begin = end + 1) {
    lines.push_back(text.substr(begin, end - begin));
  }
  EXPECT_EQ(begin, text.size()) << "output does not end with a line end";
  return lines;
}

std::string WriteTempFile(const std::string& content) {
  char path[] = "/tmp/rulenlu-cli-XXXXXX";
  const int fd = mkstemp(path);
  if (fd < 0) return "/nonexistent/rulenlu-cli-temp";
  close(fd);
  std::ofstream(path, std::ios::binary) << content;
  return path;
}

TEST(CliParse, PrintsOneCompactJsonLinePerQuery) {
  const ProcessResult run =
      RunProcess({kCli, "parse", "--config", kExample, "call Jos\xC3\xA9 now", "what's up"});
  ASSERT_EQ(run.exit_code, 0) << run.err;
  const std::vector<std::string> lines = Lines(run.out);
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0],
            "{\"version\":1,\"intent\":\"call_contact\",\"text\":\"call Jos\xC3\xA9 now\","
            "\"slots\":[{\"key\":\"call_verb\",\"value\":\"call\",\"start\":0,\"length\":4},"
            "{\"key\":\"contact\",\"value\":\"Jos\xC3\xA9\",\"start\":5,\"length\":4}]}");
  EXPECT_EQ(lines[1], "{\"version\":1,\"intent\":\"unknown\",\"text\":\"what's up\",\"slots\":[]}");
  // The engine's log goes to stderr, in order, ending with the two result lines.
  EXPECT_EQ(run.err.rfind("NluEngine: start tagger init\n", 0), 0u) << run.err;
  const std::string tail =
      "result :call_contact\nslotkey:call_verb, slotvalue:call\n"
      "slotkey:contact, slotvalue:Jos\xC3\xA9\nresult :unknown\n";
  ASSERT_GE(run.err.size(), tail.size());
  EXPECT_EQ(run.err.substr(run.err.size() - tail.size()), tail);

  const ProcessResult quiet = RunProcess({kCli, "parse", "--quiet", "--config", kExample, "x"});
  EXPECT_EQ(quiet.exit_code, 0);
  EXPECT_EQ(quiet.err, "");
  EXPECT_EQ(quiet.out, "{\"version\":1,\"intent\":\"unknown\",\"text\":\"x\",\"slots\":[]}\n");
}

TEST(CliParse, ReadsQueriesFromStdinLineByLine) {
  // CRLF and LF endings, an empty line, a last line without its line end.
  const ProcessResult run = RunProcess({kCli, "parse", "--quiet", "--config", kExample},
                                       "open calendar\r\n\nsay \"hi\"\\\t\r\r\ncall Tom");
  ASSERT_EQ(run.exit_code, 0);
  const std::vector<std::string> lines = Lines(run.out);
  ASSERT_EQ(lines.size(), 4u);
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

TEST(CliParse, AnswersFailedQueriesWithTheEmptyResult) {
  const ProcessResult run = RunProcess({kCli, "parse", "--config", kExample, "call \xC3"});
  EXPECT_EQ(run.exit_code, 0);
  EXPECT_EQ(run.out, "{\"version\":0,\"intent\":\"\",\"text\":\"\",\"slots\":[]}\n");
  EXPECT_NE(run.err.find("tagger process exception!\n"), std::string::npos);
}

TEST(CliParse, ExitsWithOneWhenTheConfigurationDoesNotLoad) {
  const std::string not_json = WriteTempFile("{\"version\": 1,");
  const std::string bad_pattern = WriteTempFile(R"({"regexVocabMap": {"time": ["([0-9]"]}})");
  for (const std::string& config :
       {std::string("/nonexistent/config.json"), not_json, bad_pattern}) {
    const ProcessResult quiet = RunProcess({kCli, "parse", "--quiet", "--config", config, "q"});
    EXPECT_EQ(quiet.exit_code, 1) << config;
    EXPECT_EQ(quiet.out, "") << config;
    const std::vector<std::string> lines = Lines(quiet.err);
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
  std::remove(not_json.c_str());
  std::remove(bad_pattern.c_str());
}

TEST(CliParse, ExitsWithTwoOnUsageErrors) {
  const std::vector<std::vector<std::string>> usages = {
      {kCli},
      {kCli, "parse"},
      {kCli, "parse", "--config"},
      {kCli, "parse", "--config", kExample, "--bogus", "q"},
      {kCli, "frobnicate", "--config", kExample},
      {kCli, "parse", "--config", kExample, "--wait-update", "3", "q"},
  };
  for (const std::vector<std::string>& argv : usages) {
    const ProcessResult run = RunProcess(argv);
    EXPECT_EQ(run.exit_code, 2) << argv.size();
    EXPECT_EQ(run.out, "");
    EXPECT_NE(run.err.find("parse"), std::string::npos) << run.err;
  }
}

TEST(CliVersion, PrintsTheProjectVersion) {
  for (const char* how : {"--version", "version"}) {
    const ProcessResult run = RunProcess({kCli, how});
    EXPECT_EQ(run.exit_code, 0) << how;
    EXPECT_EQ(run.out, "rulenlu " RULENLU_PROJECT_VERSION "\n") << how;
    EXPECT_EQ(run.err, "") << how;
  }
  const ProcessResult extra = RunProcess({kCli, "version", "extra"});
  EXPECT_EQ(extra.exit_code, 2);
  EXPECT_EQ(extra.out, "");
  EXPECT_NE(extra.err.find("extra"), std::string::npos) << extra.err;
}

TEST(CliParse, HandlesALongStreamOfQueries) {
  std::string input;
  const int kQueries = 5000;
  for (int i = 0; i < kQueries; ++i) input += i % 2 ? "call Tom\n" : "open the calendar app\n";
  const ProcessResult run = RunProcess({kCli, "parse", "--quiet", "--config", kExample}, input);
  ASSERT_EQ(run.exit_code, 0);
  const std::vector<std::string> lines = Lines(run.out);
  ASSERT_EQ(lines.size(), static_cast<size_t>(kQueries));
  EXPECT_NE(lines.front().find("\"intent\":\"open_app\""), std::string::npos);
  EXPECT_NE(lines.back().find("\"intent\":\"call_contact\""), std::string::npos);
}

}  // namespace
}  // namespace rulenlu
