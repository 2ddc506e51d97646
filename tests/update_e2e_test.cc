// The configuration update from end to end: the real command-line tool, started as the client
// starts the engine, against a real HTTP server and a state directory of its own.
#include <gtest/gtest.h>
#include <httplib.h>
#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <string>
#include <thread>
#include <vector>

#include "subprocess.h"
#include "test_env.h"

namespace rulenlu {
namespace {

// A contact vocabulary and a rule to call one; `contacts` is a JSON array of names.
std::string ConfigDocument(int version, const std::string& contacts) {
  return "{\"version\": " + std::to_string(version) +
         ",\r\n \"vocabMap\": {\"contact\": " + contacts +
         "},\r\n \"regexVocabMap\": {\"number\": [\"[0-9]+\"]},\r\n \"intentMap\": {\"call\": "
         "{\"name\": \"call\", \"regexRules\": "
         "[\"call <contact>\", \"dial <number>\"], \"slots\": [{\"name\": \"who\", \"tag\": "
         "\"contact\"}, {\"name\": \"num\", \"tag\": \"number\"}]}}}\n";
}

// The tool's answer to "call <contact>" under a configuration of `version`: the call intent
// with its contact slot when `known`, else unknown.
std::string CallAnswer(int version, const std::string& contact, bool known) {
  const std::string slot = "{\"key\":\"contact\",\"value\":\"" + contact +
                           "\",\"start\":5,\"length\":" + std::to_string(contact.size()) + "}";
  return "{\"version\":" + std::to_string(version) + ",\"intent\":\"" +
         (known ? "call" : "unknown") + "\",\"text\":\"call " + contact + "\",\"slots\":[" +
         (known ? slot : "") + "]}\n";
}

// Whether `needles` occur in `haystack` in this order, each after the end of the one before.
::testing::AssertionResult InOrder(const std::string& haystack,
                                   const std::vector<std::string>& needles) {
  size_t at = 0;
  for (const std::string& needle : needles) {
    if ((at = haystack.find(needle, at)) == std::string::npos) {
      return ::testing::AssertionFailure() << "\"" << needle << "\" missing in order:\n"
                                           << haystack;
    }
    at += needle.size();
  }
  return ::testing::AssertionSuccess();
}

class UpdateEndToEndTest : public testing::Test {
 protected:
  void SetUp() override {
    dir_ = MakeTempDir("update_e2e_");
    ASSERT_NE(dir_, "");
    std::ofstream(dir_ + "/v1.json") << ConfigDocument(1, R"(["Alice"])");
    server_.Get("/config.json", [this](const httplib::Request&, httplib::Response& res) {
      ++hits_;
      res.set_content(ReadFileBytes(dir_ + "/served.json"), "application/json");
    });
    base_ = ServeOnLoopback(server_, listener_);
    ASSERT_NE(base_, "");
  }

  void TearDown() override {
    server_.stop();
    if (listener_.joinable()) listener_.join();
    std::error_code ignored;
    std::filesystem::remove_all(dir_, ignored);
  }

  std::string Url(const std::string& path) const { return base_ + path; }

  // Serves `body` at /config.json and publishes `version` at `path` as the gray-release record.
  void Publish(const std::string& body, int version, const std::string& path) {
    std::ofstream(dir_ + "/served.json", std::ios::binary) << body;
    std::filesystem::create_directories(dir_ + "/state");
    std::ofstream(dir_ + "/state/gray.json")
        << R"({"wren": {"loom_nlu_config": "{\"version\":)" << version << R"(,\"url\":\")"
        << Url(path) << R"(\"}"}})";
  }

  // Runs the tool on `query`, which must succeed.
  ProcessResult Parse(const std::string& query) const {
    ProcessResult run = RunProcess({RULENLU_CLI_PATH, "parse", "--config", dir_ + "/v1.json",
                                    "--state", dir_ + "/state", "--wait-update", "10", query});
    EXPECT_EQ(run.exit_code, 0) << run.err;
    return run;
  }

  std::string Cached() const { return ReadFileBytes(dir_ + "/state/kv/wr_nlu_remote_config"); }

  std::string dir_, base_;
  httplib::Server server_;
  std::thread listener_;
  std::atomic<int> hits_{0};
};

TEST_F(UpdateEndToEndTest, DownloadedConfigTakesOverAtTheNextStart) {
  // Nothing at the published address: the local file answers and nothing is stored.
  Publish(ConfigDocument(2, R"(["Bob"])"), 2, "/missing.json");
  ProcessResult run = Parse("call Alice");
  EXPECT_EQ(run.out, CallAnswer(1, "Alice", true));
  EXPECT_TRUE(InOrder(run.err, {"update new config. url=" + Url("/missing.json") + ", version=2",
                                "http request error. HTTP 404"}));
  EXPECT_FALSE(std::filesystem::exists(dir_ + "/state/kv/wr_nlu_remote_config"));

  // Bytes a re-encoding or re-serialisation would change: CR LF, a non-ASCII name.
  const std::string v2 = ConfigDocument(2, "[\"Alice\", \"Bob\", \"Zo\xC3\xAB\"]");
  Publish(v2, 2, "/config.json");

  // The next start still has only the local file; its update stores the published document.
  run = Parse("call Bob");
  EXPECT_EQ(run.out, CallAnswer(1, "Bob", false));
  EXPECT_TRUE(InOrder(
      run.err,
      {"remote config load failed", "use local config. version=1", "config update.",
       "update new config. url=" + Url("/config.json") + ", version=2", "http request success."}));
  EXPECT_EQ(Cached(), v2);

  // Second start: the stored copy wins, and the record names what is running.
  run = Parse("call Bob");
  EXPECT_EQ(run.out, CallAnswer(2, "Bob", true));
  EXPECT_TRUE(InOrder(run.err, {"use remote config. version=2", "version is same. 2"}));
  EXPECT_EQ(run.err.find("use local config"), std::string::npos) << run.err;
  EXPECT_EQ(hits_, 1);
}

}  // namespace
}  // namespace rulenlu
