#include <arpa/inet.h>
#include <gtest/gtest.h>
#include <httplib.h>
#include <netinet/in.h>
#include <stdlib.h>
#include <sys/socket.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <condition_variable>
#include <filesystem>
#include <fstream>
#include <map>
#include <memory>
#include <mutex>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "devhost/dev_host.h"
#include "devhost/file_kv_storage.h"
#include "log_capture.h"
#include "rulenlu/host_services.h"

namespace rulenlu::devhost {
namespace {

namespace fs = std::filesystem;

constexpr char kStorageName[] = "class cp::StorageServiceInterface";
constexpr char kGrayName[] = "class cp::GrayServiceInterface";
constexpr char kHttpName[] = "class cp::HttpServiceInterface";
constexpr auto kPatience = std::chrono::seconds(20);

// A fresh directory for one test, removed afterwards.
class DevHostTest : public testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = testing::TempDir() + "devhost_XXXXXX";
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    dir_ = pattern;
  }
  void TearDown() override {
    std::error_code ignored;
    fs::remove_all(dir_, ignored);
  }

  std::string Path(const std::string& name) const { return dir_ + "/" + name; }

  void WriteFile(const std::string& name, const std::string& bytes) const {
    std::ofstream(Path(name), std::ios::binary | std::ios::trunc) << bytes;
  }

  std::string FileContent(const std::string& name) const {
    std::ifstream in(Path(name), std::ios::binary);
    return std::string(std::istreambuf_iterator<char>(in), std::istreambuf_iterator<char>());
  }

  std::set<std::string> Listing(const std::string& name) const {
    std::set<std::string> names;
    for (const auto& entry : fs::directory_iterator(Path(name))) {
      names.insert(entry.path().filename().string());
    }
    return names;
  }

  std::string dir_;
};

// The interface `name` of the service `name`, the way the library looks services up.
template <typename T>
std::shared_ptr<T> Lookup(cp::ServiceManagerInterface* manager, const std::string& name) {
  const std::shared_ptr<cp::ServiceInterface> service = manager->GetService(name);
  if (service == nullptr) return nullptr;
  const std::shared_ptr<cp::InterfaceHandle> handle = service->GetInterface(name);
  if (handle == nullptr) return nullptr;
  return std::shared_ptr<T>(handle, static_cast<T*>(handle->Get()));
}

std::shared_ptr<cp::KvStorageInterface> KvOf(DevHost& host) {
  const auto storage = Lookup<cp::StorageServiceInterface>(host.manager(), kStorageName);
  return storage == nullptr ? nullptr : storage->GetKvStorage();
}

TEST_F(DevHostTest, ServicesAreFoundUnderTheirExactNames) {
  auto host = std::make_unique<DevHost>(dir_);
  cp::ServiceManagerInterface* manager = host->manager();
  EXPECT_EQ(manager->AddRef(), 1u);
  EXPECT_EQ(manager->AddRef(), 2u);
  EXPECT_EQ(manager->Release(), 1u);
  EXPECT_EQ(manager->Release(), 0u);
  EXPECT_EQ(manager->Release(), 0u);

  for (const char* name : {kStorageName, kGrayName, kHttpName}) {
    const auto service = manager->GetService(name);
    ASSERT_NE(service, nullptr) << name;
    EXPECT_NE(service->GetInterface(name), nullptr) << name;
  }
  EXPECT_EQ(manager->GetService("cp::StorageServiceInterface"), nullptr);
  EXPECT_EQ(manager->GetService("class cp::storageserviceinterface"), nullptr);
  EXPECT_EQ(manager->GetService(""), nullptr);
  EXPECT_EQ(manager->GetService(kGrayName)->GetInterface(kStorageName), nullptr);
  EXPECT_EQ(manager->GetService(kStorageName)->GetInterface("StorageServiceInterface"), nullptr);

  // The raw pointers are of the exact interface types asked for.
  const auto storage = Lookup<cp::StorageServiceInterface>(manager, kStorageName);
  ASSERT_NE(storage, nullptr);
  ASSERT_TRUE(storage->GetKvStorage()->Write("k", "v"));
  EXPECT_EQ(FileContent("kv/k"), "v");
  WriteFile("gray.json", R"({"ns": {"k": "gray"}})");
  EXPECT_EQ(Lookup<cp::GrayServiceInterface>(manager, kGrayName)->GetValue("ns", "k", "d"), "gray");
  EXPECT_FALSE(Lookup<cp::HttpServiceInterface>(manager, kHttpName)->Send(nullptr, nullptr));

  // A looked-up service stays usable while it is held, even after its host is gone.
  host.reset();
  EXPECT_EQ(storage->GetKvStorage()->Read("k"), "v");
}

TEST_F(DevHostTest, KeyValuesRoundTripAsRawFiles) {
  DevHost host(dir_);
  const auto kv = KvOf(host);
  ASSERT_NE(kv, nullptr);
  EXPECT_EQ(kv->Read("alpha"), "");
  EXPECT_FALSE(fs::exists(Path("kv")));  // created on the first write only

  ASSERT_TRUE(kv->Write("alpha", "one"));
  EXPECT_EQ(kv->Read("alpha"), "one");
  EXPECT_EQ(FileContent("kv/alpha"), "one");
  ASSERT_TRUE(kv->Write("alpha", "a longer second value"));
  EXPECT_EQ(kv->Read("alpha"), "a longer second value");
  ASSERT_TRUE(kv->Write("alpha", "2"));
  EXPECT_EQ(kv->Read("alpha"), "2");

  const std::string binary("\0\xFF\n{\"a\":1}\r\0", 12);
  ASSERT_TRUE(kv->Write("wr_nlu_remote_config", binary));
  EXPECT_EQ(kv->Read("wr_nlu_remote_config"), binary);
  EXPECT_EQ(FileContent("kv/wr_nlu_remote_config"), binary);

  ASSERT_TRUE(kv->Write("empty", ""));
  EXPECT_TRUE(fs::exists(Path("kv/empty")));
  EXPECT_EQ(fs::file_size(Path("kv/empty")), 0u);
  EXPECT_EQ(kv->Read("empty"), "");

  // The empty key has no file of its own.
  EXPECT_FALSE(kv->Write("", "x"));
  EXPECT_EQ(kv->Read(""), "");

  // Another host over the same directory sees the same entries.
  DevHost again(dir_);
  EXPECT_EQ(KvOf(again)->Read("alpha"), "2");
  EXPECT_EQ((Listing("kv")), (std::set<std::string>{"alpha", "empty", "wr_nlu_remote_config"}));
}

TEST_F(DevHostTest, OddKeysAreEscapedIntoDistinctFileNames) {
  const std::map<std::string, std::string> cases = {
      {"A-z_0.9", "A-z_0.9"},     {"...", "..."},
      {".hidden", ".hidden"},     {".", "%2E"},
      {"..", "%2E%2E"},           {"a/b", "a%2Fb"},
      {"a%2Fb", "a%252Fb"},       {"../up", "..%2Fup"},
      {"x y", "x%20y"},           {"~t", "%7Et"},
      {"\xC3\xBC", "%C3%BC"},     {std::string("n\0l", 3), "n%00l"},
      {"tab\there", "tab%09here"}};
  DevHost host(dir_);
  const auto kv = KvOf(host);
  std::set<std::string> files;
  for (const auto& [key, file] : cases) {
    EXPECT_EQ(FileKvStorage::FileNameOf(key), file);
    ASSERT_TRUE(kv->Write(key, "value of " + key)) << file;
    EXPECT_EQ(FileContent("kv/" + file), "value of " + key);
    files.insert(file);
  }
  for (const auto& [key, file] : cases) EXPECT_EQ(kv->Read(key), "value of " + key) << file;
  // Nothing landed outside the store, and each key has a file of its own.
  EXPECT_EQ(Listing("kv"), files);
  EXPECT_EQ(Listing(""), (std::set<std::string>{"kv"}));
  EXPECT_EQ(FileKvStorage::FileNameOf(""), "");
}

TEST_F(DevHostTest, WritesReplaceWholeAndLeaveNoTemporaries) {
  DevHost host(dir_);
  const auto kv = KvOf(host);
  ASSERT_TRUE(kv->Write("alpha", "old"));

  // A temporary left by a crash mid-write is never read as the entry.
  WriteFile("kv/alpha~Xy12Zq", "torn");
  EXPECT_EQ(kv->Read("alpha"), "old");
  ASSERT_TRUE(kv->Write("alpha", "new"));
  EXPECT_EQ(kv->Read("alpha"), "new");
  EXPECT_EQ((Listing("kv")), (std::set<std::string>{"alpha", "alpha~Xy12Zq"}));
  fs::remove(Path("kv/alpha~Xy12Zq"));

  // A failed replacement keeps nothing of its temporary.
  fs::create_directories(Path("kv/victim/inside"));
  EXPECT_FALSE(kv->Write("victim", "value"));
  EXPECT_FALSE(kv->Write(std::string(300, 'k'), "value"));
  EXPECT_EQ((Listing("kv")), (std::set<std::string>{"alpha", "victim"}));

  // Concurrent writers of one key: the entry always holds one of the values whole.
  std::vector<std::string> values;
  for (char c = 'a'; c < 'e'; ++c) values.push_back(std::string(50000, c));
  std::vector<std::thread> writers;
  std::vector<std::string> torn;
  std::mutex torn_mutex;
  for (const std::string& value : values) {
    writers.emplace_back([&, value] {
      for (int i = 0; i < 15; ++i) {
        EXPECT_TRUE(kv->Write("shared", value));
        const std::string seen = kv->Read("shared");
        if (std::find(values.begin(), values.end(), seen) == values.end()) {
          std::lock_guard<std::mutex> lock(torn_mutex);
          torn.push_back(seen.substr(0, 16));
        }
      }
    });
  }
  for (std::thread& writer : writers) writer.join();
  EXPECT_TRUE(torn.empty()) << torn.front();
  EXPECT_EQ((Listing("kv")), (std::set<std::string>{"alpha", "shared", "victim"}));
}

TEST_F(DevHostTest, UnusableStateDirectoryOnlyFailsQuietly) {
  WriteFile("plain", "not a directory");
  DevHost host(Path("plain"));
  const auto kv = KvOf(host);
  EXPECT_FALSE(kv->Write("alpha", "one"));
  EXPECT_EQ(kv->Read("alpha"), "");
  EXPECT_EQ(Lookup<cp::GrayServiceInterface>(host.manager(), kGrayName)->GetValue("a", "b", "d"),
            "d");
  EXPECT_EQ(FileContent("plain"), "not a directory");

  // With the kv folder taken by a file, writes fail too.
  WriteFile("kv", "in the way");
  DevHost blocked(dir_);
  EXPECT_FALSE(KvOf(blocked)->Write("alpha", "one"));
  EXPECT_EQ(FileContent("kv"), "in the way");
}

TEST_F(DevHostTest, GrayValuesComeFromTheFileAtEachLookup) {
  DevHost host(dir_);
  const auto gray = Lookup<cp::GrayServiceInterface>(host.manager(), kGrayName);
  ASSERT_NE(gray, nullptr);
  EXPECT_EQ(gray->GetValue("wren", "loom_nlu_config", ""), "");  // no file yet
  EXPECT_EQ(gray->GetValue("wren", "loom_nlu_config", "dflt"), "dflt");

  WriteFile("gray.json", R"({
    "wren": {"loom_nlu_config": "{\"version\":7,\"url\":\"http://h/c.json\"}",
             "number": 7, "object": {}, "empty": "", "dup": "first", "dup": "second"},
    "other": {"loom_nlu_config": "elsewhere"},
    "flat": "not an object"})");
  EXPECT_EQ(gray->GetValue("wren", "loom_nlu_config", "d"),
            R"({"version":7,"url":"http://h/c.json"})");
  EXPECT_EQ(gray->GetValue("other", "loom_nlu_config", "d"), "elsewhere");
  EXPECT_EQ(gray->GetValue("wren", "empty", "d"), "");
  EXPECT_EQ(gray->GetValue("wren", "dup", "d"), "first");
  EXPECT_EQ(gray->GetValue("wren", "number", "d"), "d");
  EXPECT_EQ(gray->GetValue("wren", "object", "d"), "d");
  EXPECT_EQ(gray->GetValue("wren", "absent", "d"), "d");
  EXPECT_EQ(gray->GetValue("WREN", "loom_nlu_config", "d"), "d");
  EXPECT_EQ(gray->GetValue("nowhere", "loom_nlu_config", "d"), "d");
  EXPECT_EQ(gray->GetValue("flat", "anything", "d"), "d");

  // Edits take effect at the next lookup; a value may hold any bytes JSON can escape.
  WriteFile("gray.json", R"({"wren": {"loom_nlu_config": "v2\u0000\u00fc"}})");
  EXPECT_EQ(gray->GetValue("wren", "loom_nlu_config", "d"), std::string("v2\0\xC3\xBC", 5));

  for (const std::string& broken :
       {std::string(R"({"wren": {"loom_nlu_config": "v"})"), std::string(""),
        std::string(R"([{"wren": {"loom_nlu_config": "v"}}])"), std::string("\"text\""),
        std::string(R"({"wren": {"loom_nlu_config": "v"}} trailing)")}) {
    WriteFile("gray.json", broken);
    EXPECT_EQ(gray->GetValue("wren", "loom_nlu_config", "d"), "d") << broken;
  }
  // Deep nesting is rejected like any other bad file, without exhausting the stack.
  WriteFile("gray.json", std::string(200000, '[') + std::string(200000, ']'));
  EXPECT_EQ(gray->GetValue("wren", "loom_nlu_config", "d"), "d");
}

// ---- HTTP ----

class TestRequest final : public cp::RequestInterface {
 public:
  explicit TestRequest(std::string url) : url(std::move(url)) {}
  std::string GetUrl() override { return url; }
  int32_t GetMethod() override { return method; }
  std::map<std::string, std::string> GetHeaders() override { return headers; }
  std::string GetBody() override { return body; }
  std::string GetContentType() override { return content_type; }
  std::string GetDownloadPath() override { return download_path; }
  bool IsDeferrable() override { return false; }
  int32_t GetTimeoutSeconds() override { return timeout_seconds; }

  std::string url;
  int32_t method = 1;
  std::map<std::string, std::string> headers;
  std::string body;
  std::string content_type;
  std::string download_path;
  int32_t timeout_seconds = 30;
};

// What a callback saw; shared with the test, which lets go of the callback itself.
struct Delivery {
  std::mutex mutex;
  int calls = 0;
  bool success = false;
  int32_t status = -1;
  std::string body;
  std::string error;
  std::thread::id thread;
  int64_t most_received = -1;
  bool destroyed_after_call = false;
};

class TestCallback final : public cp::ResponseCallback {
 public:
  explicit TestCallback(std::shared_ptr<Delivery> delivery, bool throws = false)
      : delivery_(std::move(delivery)), throws_(throws) {}
  ~TestCallback() override {
    std::lock_guard<std::mutex> lock(delivery_->mutex);
    delivery_->destroyed_after_call = delivery_->calls > 0;
  }
  void OnSuccess(const std::shared_ptr<cp::ResponseInterface>& response) override {
    Record(true, *response);
  }
  void OnFailure(const std::shared_ptr<cp::ResponseInterface>& response) override {
    Record(false, *response);
  }
  void OnProgress(int64_t received, int64_t) override {
    std::lock_guard<std::mutex> lock(delivery_->mutex);
    delivery_->most_received = std::max(delivery_->most_received, received);
  }

 private:
  void Record(bool success, cp::ResponseInterface& response) {
    {
      std::lock_guard<std::mutex> lock(delivery_->mutex);
      ++delivery_->calls;
      delivery_->success = success;
      delivery_->status = response.GetStatusCode();
      delivery_->body = response.GetBody();
      delivery_->error = response.GetError();
      delivery_->thread = std::this_thread::get_id();
    }
    if (throws_) throw std::runtime_error("callback trouble");
  }

  const std::shared_ptr<Delivery> delivery_;
  const bool throws_;
};

// Holds requests to /slow until opened.
class Gate {
 public:
  void Open() {
    std::lock_guard<std::mutex> lock(mutex_);
    open_ = true;
    changed_.notify_all();
  }
  void Pass() {
    std::unique_lock<std::mutex> lock(mutex_);
    changed_.wait_for(lock, kPatience, [&] { return open_; });
  }

 private:
  std::mutex mutex_;
  std::condition_variable changed_;
  bool open_ = false;
};

class DevHostHttpTest : public DevHostTest {
 protected:
  void SetUp() override {
    DevHostTest::SetUp();
    server_.Get("/hello", [](const httplib::Request&, httplib::Response& res) {
      res.set_content(std::string(3000, 'h') + "ello", "text/plain");
    });
    server_.Post("/echo", [](const httplib::Request& req, httplib::Response& res) {
      res.set_content(req.method + "|" + req.get_header_value("X-Test") + "|" +
                          req.get_header_value("Content-Type") + "|" + req.body,
                      "text/plain");
    });
    server_.Get("/echo", [](const httplib::Request& req, httplib::Response& res) {
      res.set_content(req.method + "|" + req.get_header_value("X-Test") + "|" + req.body,
                      "text/plain");
    });
    server_.Get("/slow", [this](const httplib::Request&, httplib::Response& res) {
      gate_.Pass();
      res.set_content("late", "text/plain");
    });
    server_.Get("/redirect", [](const httplib::Request&, httplib::Response& res) {
      res.set_redirect("/hello");
    });
    server_.Get("/loop",
                [](const httplib::Request&, httplib::Response& res) { res.set_redirect("/loop"); });
    server_.Get("/elsewhere", [](const httplib::Request&, httplib::Response& res) {
      res.set_redirect("ftp://127.0.0.1/file");
    });
    port_ = server_.bind_to_any_port("127.0.0.1");
    ASSERT_GT(port_, 0);
    listener_ = std::thread([this] { server_.listen_after_bind(); });
    // stop() is lost on a server that is not running yet.
    const auto deadline = std::chrono::steady_clock::now() + kPatience;
    while (!server_.is_running() && std::chrono::steady_clock::now() < deadline) {
      std::this_thread::sleep_for(std::chrono::milliseconds(1));
    }
    ASSERT_TRUE(server_.is_running());
  }
  void TearDown() override {
    gate_.Open();
    server_.stop();
    if (listener_.joinable()) listener_.join();
    DevHostTest::TearDown();
  }

  std::string Url(const std::string& path) const {
    return "http://127.0.0.1:" + std::to_string(port_) + path;
  }

  // Sends `request` through the host's HTTP service and waits for the outcome.
  std::shared_ptr<Delivery> Fetch(DevHost& host, std::shared_ptr<TestRequest> request) {
    auto delivery = std::make_shared<Delivery>();
    const auto http = Lookup<cp::HttpServiceInterface>(host.manager(), kHttpName);
    EXPECT_TRUE(http->Send(request, std::make_shared<TestCallback>(delivery)));
    EXPECT_TRUE(host.WaitIdle(kPatience));
    return delivery;
  }

  httplib::Server server_;
  std::thread listener_;
  int port_ = 0;
  Gate gate_;
};

TEST_F(DevHostHttpTest, SuccessArrivesOnAWorkerThreadWithTheBody) {
  DevHost host(dir_);
  const auto delivery = Fetch(host, std::make_shared<TestRequest>(Url("/hello")));
  EXPECT_EQ(delivery->calls, 1);
  EXPECT_TRUE(delivery->success);
  EXPECT_EQ(delivery->status, 200);
  EXPECT_EQ(delivery->body, std::string(3000, 'h') + "ello");
  EXPECT_EQ(delivery->error, "");
  EXPECT_NE(delivery->thread, std::this_thread::get_id());
  EXPECT_EQ(delivery->most_received, 3004);
  // The host let go of the callback only after calling it.
  EXPECT_TRUE(delivery->destroyed_after_call);

  const auto redirected = Fetch(host, std::make_shared<TestRequest>(Url("/redirect")));
  EXPECT_TRUE(redirected->success);
  EXPECT_EQ(redirected->body, std::string(3000, 'h') + "ello");

  // Method, headers, content type and body reach the server.
  auto post = std::make_shared<TestRequest>(Url("/echo"));
  post->method = 2;
  post->headers = {{"X-Test", "yes"}};
  post->content_type = "application/json";
  post->body = R"({"q":1})";
  const auto posted = Fetch(host, post);
  EXPECT_TRUE(posted->success);
  EXPECT_EQ(posted->body, R"(POST|yes|application/json|{"q":1})");
  auto get = std::make_shared<TestRequest>(Url("/echo"));
  get->headers = {{"X-Test", "also"}};
  get->body = "ignored for GET";
  EXPECT_EQ(Fetch(host, get)->body, "GET|also|");

  // A download path receives the body instead of the callback.
  auto download = std::make_shared<TestRequest>(Url("/hello"));
  download->download_path = Path("fetched.txt");
  const auto downloaded = Fetch(host, download);
  EXPECT_TRUE(downloaded->success);
  EXPECT_EQ(downloaded->body, "");
  EXPECT_EQ(FileContent("fetched.txt"), std::string(3000, 'h') + "ello");
  download->download_path = Path("no/such/dir/fetched.txt");
  const auto unwritable = Fetch(host, download);
  EXPECT_FALSE(unwritable->success);
  EXPECT_EQ(unwritable->error, "cannot write " + download->download_path);
}

TEST_F(DevHostHttpTest, FailuresArriveThroughOnFailure) {
  DevHost host(dir_);
  const auto missing = Fetch(host, std::make_shared<TestRequest>(Url("/missing")));
  EXPECT_EQ(missing->calls, 1);
  EXPECT_FALSE(missing->success);
  EXPECT_EQ(missing->status, 404);
  EXPECT_EQ(missing->error, "HTTP 404");
  EXPECT_NE(missing->thread, std::this_thread::get_id());

  // A port nobody listens on: the socket is bound to find a free port, then closed.
  const int probe = socket(AF_INET, SOCK_STREAM, 0);
  ASSERT_GE(probe, 0);
  sockaddr_in address{};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  socklen_t length = sizeof address;
  ASSERT_EQ(bind(probe, reinterpret_cast<sockaddr*>(&address), sizeof address), 0);
  ASSERT_EQ(getsockname(probe, reinterpret_cast<sockaddr*>(&address), &length), 0);
  close(probe);
  const auto refused =
      Fetch(host, std::make_shared<TestRequest>(
                      "http://127.0.0.1:" + std::to_string(ntohs(address.sin_port)) + "/"));
  EXPECT_EQ(refused->calls, 1);
  EXPECT_FALSE(refused->success);
  EXPECT_EQ(refused->status, 0);
  EXPECT_NE(refused->error.find("onnect"), std::string::npos) << refused->error;

  // The timeout of the request bounds the whole transfer.
  auto slow = std::make_shared<TestRequest>(Url("/slow"));
  slow->timeout_seconds = 1;
  const auto timed_out = Fetch(host, slow);
  gate_.Open();
  EXPECT_EQ(timed_out->calls, 1);
  EXPECT_FALSE(timed_out->success);
  EXPECT_EQ(timed_out->status, 0);
  EXPECT_NE(timed_out->error.find("timed out"), std::string::npos) << timed_out->error;

  // Redirects are bounded and stay within http and https.
  const auto looping = Fetch(host, std::make_shared<TestRequest>(Url("/loop")));
  EXPECT_FALSE(looping->success);
  EXPECT_NE(looping->error.find("redirect"), std::string::npos) << looping->error;
  const auto elsewhere = Fetch(host, std::make_shared<TestRequest>(Url("/elsewhere")));
  EXPECT_FALSE(elsewhere->success);
  EXPECT_EQ(elsewhere->status, 0);
  const auto file = Fetch(host, std::make_shared<TestRequest>("file:///etc/hostname"));
  EXPECT_FALSE(file->success);
  EXPECT_NE(file->error, "");
}

TEST_F(DevHostHttpTest, RefusedRequestsAreNotStarted) {
  DevHost host(dir_);
  const auto http = Lookup<cp::HttpServiceInterface>(host.manager(), kHttpName);
  auto delivery = std::make_shared<Delivery>();
  const auto callback = std::make_shared<TestCallback>(delivery);
  auto request = std::make_shared<TestRequest>(Url("/hello"));
  EXPECT_FALSE(http->Send(request, nullptr));
  EXPECT_FALSE(http->Send(nullptr, callback));
  request->method = 3;
  EXPECT_FALSE(http->Send(request, callback));
  request->method = 1;
  request->headers = {{"X-Bad", "a\r\nInjected: yes"}};
  EXPECT_FALSE(http->Send(request, callback));
  request->headers = {{"X:Bad", "a"}};
  EXPECT_FALSE(http->Send(request, callback));
  EXPECT_TRUE(host.WaitIdle(kPatience));
  EXPECT_EQ(delivery->calls, 0);
}

TEST_F(DevHostHttpTest, TransfersInFlightAreAwaited) {
  auto delivery = std::make_shared<Delivery>();
  auto host = std::make_unique<DevHost>(dir_);
  {
    const auto http = Lookup<cp::HttpServiceInterface>(host->manager(), kHttpName);
    ASSERT_TRUE(http->Send(std::make_shared<TestRequest>(Url("/slow")),
                           std::make_shared<TestCallback>(delivery)));
  }
  EXPECT_FALSE(host->WaitIdle(std::chrono::milliseconds(50)));
  std::thread opener([this] {
    std::this_thread::sleep_for(std::chrono::milliseconds(100));
    gate_.Open();
  });
  host.reset();  // waits for the slow transfer and its callback
  {
    std::lock_guard<std::mutex> lock(delivery->mutex);
    EXPECT_EQ(delivery->calls, 1);
    EXPECT_EQ(delivery->body, "late");
    EXPECT_TRUE(delivery->destroyed_after_call);
  }
  opener.join();

  // A callback that throws is reported and does not end the host.
  LogCapture log;
  DevHost again(dir_);
  auto thrown = std::make_shared<Delivery>();
  ASSERT_TRUE(Lookup<cp::HttpServiceInterface>(again.manager(), kHttpName)
                  ->Send(std::make_shared<TestRequest>(Url("/hello")),
                         std::make_shared<TestCallback>(thrown, true)));
  EXPECT_TRUE(again.WaitIdle(kPatience));
  EXPECT_EQ(thrown->calls, 1);
  EXPECT_EQ(log.err(), "devhost: response callback threw: callback trouble\n");
}

}  // namespace
}  // namespace rulenlu::devhost
