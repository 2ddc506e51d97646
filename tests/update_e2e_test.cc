// The configuration update from end to end: the real command-line tool, started as the client
// starts the engine, against a real HTTP server and a state directory of its own.
#include <gtest/gtest.h>
#include <httplib.h>
#include <stdlib.h>

#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

#include "subprocess.h"

namespace rulenlu {
namespace {

namespace fs = std::filesystem;

constexpr char kCachePath[] = "kv/wr_nlu_remote_config";

// A contact vocabulary and a rule to call one; `contacts` is a JSON array of names.
std::string ConfigDocument(int version, const std::string& contacts,
                           const std::string& number_pattern) {
  return "{\"version\": " + std::to_string(version) +
         ",\r\n \"vocabMap\": {\"contact\": " + contacts +
         "},\r\n \"regexVocabMap\": {\"number\": [\"" + number_pattern +
         "\"]},\r\n \"intentMap\": {\"call\": {\"name\": \"call\", \"regexRules\": "
         "[\"call <contact>\", \"dial <number>\"], \"slots\": [{\"name\": \"who\", \"tag\": "
         "\"contact\"}, {\"name\": \"num\", \"tag\": \"number\"}]}}}\n";
}

// The tool's answer to "call <contact>" under a configuration of `version`: the call intent
// with its contact slot when `known`, else unknown.
std::string CallAnswer(int version, const std::string& contact, bool known) {
  const std::string text = "call " + contact;
  std::string answer = "{\"version\":" + std::to_string(version) + ",\"intent\":\"" +
                       (known ? "call" : "unknown") + "\",\"text\":\"" + text + "\",\"slots\":[";
  if (known) {
    answer += "{\"key\":\"contact\",\"value\":\"" + contact +
              "\",\"start\":5,\"length\":" + std::to_string(contact.size()) + "}";
  }
  return answer + "]}\n";
}

// Whether `needles` occur in `haystack` in this order, each after the end of the one before.
::testing::AssertionResult InOrder(const std::string& haystack,
                                   const std::vector<std::string>& needles) {
  size_t from = 0;
  for (const std::string& needle : needles) {
    const size_t at = haystack.find(needle, from);
    if (at == std::string::npos) {
      return ::testing::AssertionFailure() << "\"" << needle << "\" missing (in order) from:\n"
                                           << haystack;
    }
    from = at + needle.size();
  }
  return ::testing::AssertionSuccess();
}

class UpdateEndToEndTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = testing::TempDir() + "update_e2e_XXXXXX";
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    dir_ = pattern;
    state_ = dir_ + "/state";
    local_config_ = dir_ + "/v1.json";
    std::ofstream(local_config_, std::ios::binary) << ConfigDocument(1, R"(["Alice"])", "[0-9]+");

    server_.Get("/config.json", [this](const httplib::Request&, httplib::Response& res) {
      ++hits_;
      std::lock_guard<std::mutex> lock(body_mutex_);
      res.set_content(body_, "application/json");
    });
    port_ = server_.bind_to_any_port("127.0.0.1");
    ASSERT_GT(port_, 0);
    listener_ = std::thread([this] { server_.listen_after_bind(); });
    // stop() is lost on a server that is not running yet.
    const auto deadline = std::chrono::steady_clock::now() + std::chrono::seconds(10);
    while (!server_.is_running() && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ASSERT_TRUE(server_.is_running());
  }

  void TearDown() override {
    server_.stop();
    if (listener_.joinable()) listener_.join();
    std::error_code ignored;
    fs::remove_all(dir_, ignored);
  }

  std::string Url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
  }

  void Serve(const std::string& body) {
    std::lock_guard<std::mutex> lock(body_mutex_);
    body_ = body;
  }

  // Publishes `record` as the gray-release value of the configuration.
  void PublishRecord(const std::string& record) const {
    std::string escaped;
    for (char c : record) {
      if (c == '"' || c == '\\') escaped.push_back('\\');
      escaped.push_back(c);
    }
    fs::create_directories(state_);
    std::ofstream(state_ + "/gray.json", std::ios::binary | std::ios::trunc)
        << R"({"wren": {"loom_nlu_config": ")" << escaped << "\"}}";
  }

  void PublishVersion(int version, const std::string& path) const {
    PublishRecord("{\"version\":" + std::to_string(version) + ",\"url\":\"" + Url(path) + "\"}");
  }

  ProcessResult Parse(const std::string& query) const {
    return RunProcess({RULENLU_CLI_PATH, "parse", "--config", local_config_, "--state", state_,
                       "--wait-update", "10", query});
  }

  std::string Cached() const { return ReadWholeFile(state_ + "/" + kCachePath); }
  bool HasCache() const { return fs::exists(state_ + "/" + kCachePath); }

  std::string dir_;
  std::string state_;
  std::string local_config_;
  httplib::Server server_;
  std::thread listener_;
  int port_ = 0;
  std::atomic<int> hits_{0};
  std::mutex body_mutex_;
  std::string body_;
};

TEST_F(UpdateEndToEndTest, DownloadedConfigTakesOverAtTheNextStart) {
  // Bytes a re-encoding or re-serialisation would change: CR LF, a non-ASCII name.
  const std::string v2 = ConfigDocument(2, "[\"Alice\", \"Bob\", \"Zo\xC3\xAB\"]", "[0-9]+");
  Serve(v2);
  PublishVersion(2, "/config.json");

  // First start: only the local file exists; the update stores the published document.
  ProcessResult run = Parse("call Bob");
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(run.out, CallAnswer(1, "Bob", false));
  EXPECT_TRUE(InOrder(
      run.err,
      {"remote config load failed", "use local config. version=1", "config update.",
       "update new config. url=" + Url("/config.json") + ", version=2", "http request success."}));
  EXPECT_EQ(Cached(), v2);
  EXPECT_EQ(hits_, 1);

  // Second start: the stored copy wins, and the record names what is running.
  run = Parse("call Bob");
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(run.out, CallAnswer(2, "Bob", true));
  EXPECT_TRUE(InOrder(run.err, {"use remote config. version=2", "version is same. 2"}));
  EXPECT_EQ(run.err.find("use local config"), std::string::npos) << run.err;
  EXPECT_EQ(run.err.find("update new config"), std::string::npos) << run.err;
  EXPECT_EQ(hits_, 1);
  EXPECT_EQ(Cached(), v2);

  // A published document whose pattern does not compile is still stored as it came...
  const std::string v3 = ConfigDocument(3, R"(["Alice", "Bob"])", "[0-9");
  Serve(v3);
  PublishVersion(3, "/config.json");
  run = Parse("call Bob");
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(run.out, CallAnswer(2, "Bob", true));
  EXPECT_TRUE(InOrder(run.err, {"use remote config. version=2",
                                "update new config. url=" + Url("/config.json") + ", version=3",
                                "http request success."}));
  EXPECT_EQ(Cached(), v3);
  EXPECT_EQ(hits_, 2);

  // ...but the next start cannot build it and falls back to the local file.
  run = Parse("call Bob");
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(run.out, CallAnswer(1, "Bob", false));
  EXPECT_TRUE(InOrder(run.err, {"use remote config. version=3",
                                "remote config cannot build engine:", "use local config. version=1",
                                "config update."}));
}

TEST_F(UpdateEndToEndTest, FailedUpdatesStoreNothing) {
  Serve(ConfigDocument(2, R"(["Bob"])", "[0-9]+"));

  // The server has nothing at the published address.
  PublishVersion(2, "/missing.json");
  ProcessResult run = Parse("call Alice");
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(run.out, CallAnswer(1, "Alice", true));
  EXPECT_TRUE(InOrder(run.err, {"update new config. url=" + Url("/missing.json") + ", version=2",
                                "http request error. HTTP 404"}));
  EXPECT_EQ(run.err.find("http request success."), std::string::npos) << run.err;
  EXPECT_FALSE(HasCache());

  // A record that is not JSON is reported whole and requests nothing.
  PublishRecord("version 2 at /config.json");
  run = Parse("call Bob");
  EXPECT_EQ(run.exit_code, 0) << run.err;
  EXPECT_EQ(run.out, CallAnswer(1, "Bob", false));
  EXPECT_TRUE(
      InOrder(run.err, {"config update.", "json is error. data=version 2 at /config.json"}));
  EXPECT_EQ(run.err.find("update new config"), std::string::npos) << run.err;
  EXPECT_EQ(hits_, 0);
  EXPECT_FALSE(HasCache());
}

}  // namespace
}  // namespace rulenlu
