// Drives the `rulenlu parse` command as scripts do: stdout carries one JSON line per query and
// nothing else; exit status 0, 1 or 2. The answers and log lines over whole query streams are the
// golden test's; the installed tool's version line is checked by the packaging test.
#include <gtest/gtest.h>
#include <poll.h>
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

// A client that writes a query and waits for its answer gets it while stdin stays open, also
// when the query came in pieces.
TEST(CliParse, AnswersEachLineBeforeWaitingForMoreInput) {
  int to_tool[2], from_tool[2];
  ASSERT_EQ(pipe(to_tool), 0);
  ASSERT_EQ(pipe(from_tool), 0);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_adddup2(&actions, to_tool[0], 0);
  posix_spawn_file_actions_adddup2(&actions, from_tool[1], 1);
  for (const int fd : {to_tool[0], to_tool[1], from_tool[0], from_tool[1]}) {
    posix_spawn_file_actions_addclose(&actions, fd);
  }
  const std::vector<std::string> args = {kCli, "parse", "--quiet", "--config", kExample};
  std::vector<char*> argv;
  for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
  argv.push_back(nullptr);
  pid_t pid = 0;
  ASSERT_EQ(posix_spawn(&pid, kCli.c_str(), &actions, nullptr, argv.data(), environ), 0);
  posix_spawn_file_actions_destroy(&actions);
  close(to_tool[0]);
  close(from_tool[1]);
  // The next answer line, or "" when none comes within ten seconds.
  std::string buffered;
  auto answer = [&] {
    for (size_t end; (end = buffered.find('\n')) == std::string::npos;) {
      pollfd ready = {from_tool[0], POLLIN, 0};
      char chunk[4096];
      const ssize_t got = poll(&ready, 1, 10000) == 1 ? read(from_tool[0], chunk, sizeof chunk) : 0;
      if (got <= 0) return std::string();
      buffered.append(chunk, static_cast<size_t>(got));
    }
    const std::string line = buffered.substr(0, buffered.find('\n'));
    buffered.erase(0, line.size() + 1);
    return line;
  };
  auto send = [&](const std::string& text) {
    return write(to_tool[1], text.data(), text.size()) == static_cast<ssize_t>(text.size());
  };
  ASSERT_TRUE(send("call Tom\n"));
  EXPECT_NE(answer().find("\"intent\":\"call_contact\""), std::string::npos);
  ASSERT_TRUE(send("x\nca"));
  EXPECT_NE(answer().find("\"text\":\"x\""), std::string::npos);
  ASSERT_TRUE(send("ll Tom\n"));
  EXPECT_NE(answer().find("\"text\":\"call Tom\""), std::string::npos);
  close(to_tool[1]);
  EXPECT_EQ(answer(), "");
  close(from_tool[0]);
  int status = 0;
  waitpid(pid, &status, 0);
  EXPECT_TRUE(WIFEXITED(status) && WEXITSTATUS(status) == 0);
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
