#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <stdlib.h>

#include <algorithm>
#include <atomic>
#include <chrono>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "devhost/dev_host.h"
#include "log_capture.h"
#include "rulenlu/host_services.h"
#include "subprocess.h"
#include "test_env.h"

namespace rulenlu::devhost {
namespace {

namespace fs = std::filesystem;
using namespace std::literals;
using Response = std::shared_ptr<cp::ResponseInterface>;

// The interface `name` of the service `name`, the way the library looks services up.
template <typename T>
std::shared_ptr<T> Lookup(DevHost& host, const std::string& name) {
  const auto handle = host.manager()->GetService(name)->GetInterface(name);
  return std::shared_ptr<T>(handle, static_cast<T*>(handle->Get()));
}

// The key-value store of the storage service of `host`.
std::shared_ptr<cp::KvStorageInterface> Kv(DevHost& host) {
  return Lookup<cp::StorageServiceInterface>(host, cp::StorageServiceInterface::kServiceName)
      ->GetKvStorage();
}

// A request that is its own callback. `dump` gets "<OnSuccess|OnFailure> <status> [<body>]
// <error>", and a note when the call comes while the host holds no copies of the request and
// the callback.
struct Call final : cp::RequestInterface, cp::ResponseCallback, std::enable_shared_from_this<Call> {
  explicit Call(std::string url) : url(std::move(url)) {}
  std::string GetUrl() override { return url; }
  int32_t GetMethod() override { return method; }
  std::map<std::string, std::string> GetHeaders() override { return headers; }
  std::string GetBody() override { return ""; }
  std::string GetContentType() override { return ""; }
  std::string GetDownloadPath() override { return ""; }
  bool IsDeferrable() override { return false; }
  int32_t GetTimeoutSeconds() override { return timeout_seconds; }
  void OnSuccess(const Response& response) override { Record("OnSuccess ", *response); }
  void OnFailure(const Response& response) override { Record("OnFailure ", *response); }
  void OnProgress(int64_t, int64_t) override {}
  void Record(const std::string& name, cp::ResponseInterface& r) {
    dump += name + std::to_string(r.GetStatusCode()) + " [" + r.GetBody() + "] " + r.GetError();
    if (weak_from_this().use_count() < 3) dump += " unheld";
    if (throws) throw std::runtime_error("callback trouble");
  }

  std::string url, dump;
  std::map<std::string, std::string> headers;
  int32_t method = 1, timeout_seconds = 30;
  bool throws = false;
};

// A host over a fresh directory, and a local HTTP server.
class DevHostTest : public testing::Test {
 protected:
  void SetUp() override {
    dir_ = MakeTempDir("devhost_");
    ASSERT_NE(dir_, "");
    host_ = std::make_unique<DevHost>(dir_);
    server_.Get("/hello", [](const auto&, auto& res) { res.body = "hello"; });
    server_.Get("/to(.*)", [](const auto& req, auto& res) { res.set_redirect(req.matches[1]); });
    server_.Get("/slow", [this](const auto&, auto& res) {
      for (int i = 0; i < 20000 && !open_; ++i) std::this_thread::sleep_for(1ms);
      res.body = "late";
    });
    base_ = ServeOnLoopback(server_, listener_);
    ASSERT_NE(base_, "");
  }
  void TearDown() override {
    open_ = true;
    server_.stop();
    if (listener_.joinable()) listener_.join();
    host_.reset();
    fs::remove_all(dir_);
  }

  std::string Path(const std::string& name) const { return dir_ + "/" + name; }
  auto Http() const {
    return Lookup<cp::HttpServiceInterface>(*host_, cp::HttpServiceInterface::kServiceName);
  }
  auto To(const std::string& path) const { return std::make_shared<Call>(base_ + path); }
  // Sends `call`, waits for its outcome and returns its dump.
  std::string Fetch(const std::shared_ptr<Call>& call) {
    EXPECT_TRUE(Http()->Send(call, call));
    EXPECT_TRUE(host_->WaitIdle(20s));
    return call->dump;
  }

  std::string dir_, base_;
  std::unique_ptr<DevHost> host_;
  httplib::Server server_;
  std::thread listener_;
  std::atomic<bool> open_{false};  // lets requests to /slow through
};

TEST_F(DevHostTest, KeyValuesAreWholeRawFilesUnderDistinctNames) {
  EXPECT_EQ(host_->manager()->GetService("cp::StorageServiceInterface"), nullptr);
  EXPECT_EQ(host_->manager()
                ->GetService(cp::GrayServiceInterface::kServiceName)
                ->GetInterface(cp::StorageServiceInterface::kServiceName),
            nullptr);
  const std::map<std::string, std::string> cases = {
      {"A-z_0.9", "A-z_0.9"}, {"...", "..."},         {".", "%2E"},         {"..", "%2E%2E"},
      {"a/b", "a%2Fb"},       {"a%2Fb", "a%252Fb"},   {"../up", "..%2Fup"}, {"x y", "x%20y"},
      {"~t", "%7Et"},         {"\xC3\xBC", "%C3%BC"}, {"n\0l"s, "n%00l"}};
  const auto kv = Kv(*host_);
  for (const auto& [key, file] : cases) {
    ASSERT_TRUE(kv->Write(key, key + "\0\xFF\r\n"s)) << file;
    EXPECT_EQ(ReadFileBytes(Path("kv/" + file)), key + "\0\xFF\r\n"s);
    EXPECT_EQ(kv->Read(key), key + "\0\xFF\r\n"s);
  }
  EXPECT_FALSE(kv->Write("", "x"));              // the empty key has no file of its own
  fs::create_directories(Path("kv/victim/in"));  // a failed replacement leaves no temporary
  EXPECT_FALSE(kv->Write("victim", "x"));

  // Concurrent writers of one key: the entry always holds one of the values whole.
  const std::vector<std::string> values = {std::string(50000, 'a'), std::string(90000, 'b')};
  std::atomic<int> torn{0};
  const auto write = [&](const std::string& value) {
    for (int round = 0; round < 30; ++round) {
      EXPECT_TRUE(kv->Write("shared", value));
      torn += std::count(values.begin(), values.end(), kv->Read("shared")) == 0;
    }
  };
  std::thread other(write, values[1]);
  write(values[0]);
  other.join();
  EXPECT_EQ(torn, 0);
  // Nothing landed elsewhere, and no write left a temporary behind.
  EXPECT_EQ(std::distance(fs::directory_iterator(Path("kv")), {}), cases.size() + 2);
}

TEST_F(DevHostTest, OpeningTheStoreRemovesTemporariesOfInterruptedWrites) {
  host_.reset();
  fs::create_directories(Path("kv"));
  // File name, and whether it is an entry that stays: temporaries hold '~', which entry names
  // always escape.
  const std::vector<std::pair<std::string, bool>> files = {
      {"entry", true},         {"entry~Xy12ab", false}, {"%7Et", true},          {"~", false},
      {"a%7Eb~123456", false}, {"n%00l", true},         {"%7E%7E~Q0aZ9z", false}};
  for (const auto& [name, stays] : files) std::ofstream(Path("kv/" + name)) << name;
  LogCapture log;
  host_ = std::make_unique<DevHost>(dir_);
  std::vector<std::string> left;
  for (const auto& entry : fs::directory_iterator(Path("kv"))) {
    left.push_back(entry.path().filename().string());
  }
  std::vector<std::string> expected;
  for (const auto& [name, stays] : files) {
    if (stays) expected.push_back(name);
  }
  EXPECT_THAT(left, testing::UnorderedElementsAreArray(expected));
  const auto kv = Kv(*host_);
  EXPECT_EQ(kv->Read("~t"), "%7Et");
  EXPECT_EQ(log.err(), "");
}

TEST_F(DevHostTest, StoreLogsItsOwnFailuresOnStderr) {
  const auto kv = Kv(*host_);
  std::ofstream(Path("plain")) << "not a directory";
  fs::create_directories(Path("kv/dir"));
  LogCapture log;
  EXPECT_EQ(kv->Read("absent"), "");  // an entry never written is no failure
  EXPECT_EQ(log.err(), "");
  EXPECT_EQ(kv->Read("dir"), "");
  EXPECT_FALSE(kv->Write("dir", "x"));
  // A host whose state directory is a file cannot list, create or read its store.
  DevHost broken(Path("plain"));
  const auto broken_kv = Kv(broken);
  EXPECT_FALSE(broken_kv->Write("k", "v"));
  EXPECT_THAT(log.err(),
              testing::MatchesRegex("devhost: cannot read .*/kv/dir: Is a directory\n"
                                    "devhost: cannot rename onto .*/kv/dir: Is a directory\n"
                                    "devhost: cannot list .*/plain/kv: .*\n"
                                    "devhost: cannot create .*/plain/kv: .*\n"));
  EXPECT_EQ(log.out(), "");
}

TEST_F(DevHostTest, GrayValuesComeFromTheFileAtEachLookup) {
  const auto gray =
      Lookup<cp::GrayServiceInterface>(*host_, cp::GrayServiceInterface::kServiceName);
  EXPECT_EQ(gray->GetValue("wren", "loom_nlu_config", "dflt"), "dflt");  // no file yet
  std::ofstream(Path("gray.json")) << R"({"ns": {"k": "v", "number": 7, "empty": "",
      "dup": "first", "dup": "second"}, "other": {"k": "elsewhere"}, "flat": 1})";
  const char* const cases[][2] = {{"ns", "k"},      {"ns", "empty"},  {"ns", "dup"},
                                  {"ns", "number"}, {"ns", "absent"}, {"other", "k"},
                                  {"NS", "k"},      {"flat", "k"}};
  std::string seen;
  for (const auto& [space, key] : cases) seen += gray->GetValue(space, key, "d") + ",";
  EXPECT_EQ(seen, "v,,first,d,d,elsewhere,d,d,");
  // Edits take effect at the next lookup; values hold any bytes JSON can escape; a bad file,
  // even one nested deeper than the stack could follow, yields the default.
  for (const auto& [text, value] : std::map<std::string, std::string>{
           {R"({"wren": {"loom_nlu_config": "v2\u0000\u00fc"}})", "v2\0\xC3\xBC"s},
           {R"({"wren": {"loom_nlu_config": "v"})", "d"},
           {R"([{"wren": {"loom_nlu_config": "v"}}])", "d"},
           {std::string(200000, '[') + std::string(200000, ']'), "d"}}) {
    std::ofstream(Path("gray.json")) << text;
    EXPECT_EQ(gray->GetValue("wren", "loom_nlu_config", "d"), value) << text.substr(0, 40);
  }
}

TEST_F(DevHostTest, HttpTransfersReportTheirOutcome) {
  // Refused requests are not started and get no callback.
  const auto bad_method = To("/hello"), bad_value = To("/hello"), bad_name = To("/hello");
  EXPECT_FALSE(Http()->Send(bad_method, nullptr) || Http()->Send(nullptr, bad_method));
  bad_method->method = 3;
  bad_value->headers = {{"X-Bad", "a\r\nInjected: yes"}};
  bad_name->headers = {{"X:Bad", "a"}};
  for (const auto& call : {bad_method, bad_value, bad_name}) EXPECT_FALSE(Http()->Send(call, call));
  EXPECT_EQ(Fetch(To("/hello")) + Fetch(To("/to/hello")),
            "OnSuccess 200 [hello] OnSuccess 200 [hello] ");
  EXPECT_EQ(Fetch(To("/missing")), "OnFailure 404 [] HTTP 404");
  EXPECT_EQ(bad_method->dump + bad_value->dump + bad_name->dump, "");
  // The request's timeout bounds the whole transfer; redirects are bounded and stay within
  // http and https.
  auto slow = To("/slow");
  slow->timeout_seconds = 1;
  for (const auto& [call, error] : std::map<std::shared_ptr<Call>, std::string>{
           {slow, "timed out"},
           {To("/to/to/to/to/to/to/to/hello"), "redirect"},
           {To("/toftp://127.0.0.1/f"), "ftp"},
           {std::make_shared<Call>("file:///etc/hostname"), "file"}}) {
    EXPECT_THAT(Fetch(call), testing::MatchesRegex("OnFailure 0 \\[\\] .*" + error + ".*"));
  }

  // The host waits for the transfers in flight, callbacks included.
  const auto late = To("/slow");
  ASSERT_TRUE(Http()->Send(late, late));
  EXPECT_FALSE(host_->WaitIdle(50ms));
  open_ = true;
  host_.reset();
  EXPECT_EQ(late->dump, "OnSuccess 200 [late] ");
  // A callback that throws is reported and does not end the host.
  LogCapture log;
  host_ = std::make_unique<DevHost>(dir_);
  const auto thrower = To("/hello");
  thrower->throws = true;
  EXPECT_EQ(Fetch(thrower) + Fetch(To("/hello")), "OnSuccess 200 [hello] OnSuccess 200 [hello] ");
  EXPECT_EQ(log.err(), "devhost: response callback threw: callback trouble\n");
}

}  // namespace
}  // namespace rulenlu::devhost
