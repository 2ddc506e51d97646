#include "services/config_update.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <vector>

#include "fake_host.h"
#include "log_capture.h"
#include "services/remote_config_cache.h"
#include "services/service_manager.h"

namespace rulenlu {
namespace {

constexpr char kCacheKey[] = "wr_nlu_remote_config";
constexpr char kPublished[] = R"({"version":2,"url":"U"})";

// Each test runs against a fresh fake client whose manager is attached.
class ConfigUpdateTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_TRUE(ServiceManagerHolder::Instance().Attach(&host_.manager)); }
  void TearDown() override {
    EXPECT_TRUE(WaitForRemoteConfigUpdates(std::chrono::seconds(30)));
    ServiceManagerHolder::Instance().ResetForTesting();
  }

  // Publishes `record` (unless null) and runs one pass for `running_version`; returns the log.
  std::string RunPass(int64_t running_version, const char* record) {
    if (record != nullptr) host_.gray->Set("wren", "loom_nlu_config", record);
    LogCapture capture;
    UpdateRemoteConfig(running_version);
    EXPECT_EQ(capture.err(), "");
    return capture.out();
  }

  // The log of a pass that reads the gray-release record and then logs `decision`.
  std::string PassLog(const std::string& decision) const {
    return "config update." + host_.GrayLookupLog() + decision;
  }

  // The log of a pass that requests the download of `url` for `version`.
  std::string DownloadLog(const std::string& url, const std::string& version) const {
    return PassLog("update new config. url=" + url + ", version=" + version) +
           host_.HttpLookupLog();
  }

  fake::FakeHost host_;
};

TEST_F(ConfigUpdateTest, CacheKeepsTheEntryAsItIs) {
  LogCapture capture;
  host_.kv->Set(kCacheKey, "");
  EXPECT_EQ(ReadRemoteConfigCache(), "");
  host_.kv->Set(kCacheKey, "not json at all");
  EXPECT_EQ(ReadRemoteConfigCache(), "not json at all");  // nothing is validated
  const std::string body("{\"version\":3}\0tail", 18);
  EXPECT_TRUE(WriteRemoteConfigCache(body));
  EXPECT_EQ(host_.kv->Read(kCacheKey), body);
  host_.kv->refuse_writes = true;  // the store's refusal is passed on
  EXPECT_FALSE(WriteRemoteConfigCache("lost"));
  EXPECT_EQ(host_.kv->Read(kCacheKey), body);
  // Without the storage interface or the store, the reason is logged and nothing is touched.
  host_.storage_service->offered = false;
  EXPECT_FALSE(WriteRemoteConfigCache("new"));
  host_.storage_service->offered = true;
  host_.storage->kv_missing = true;
  EXPECT_EQ(ReadRemoteConfigCache(), "");
  EXPECT_FALSE(WriteRemoteConfigCache("new"));
  EXPECT_EQ(host_.kv->writes, 2);
  // Every access looks the storage up afresh.
  const std::string lookup = host_.StorageLookupLog();
  EXPECT_EQ(capture.out(), lookup + lookup + lookup + lookup + lookup + "storage is null" + lookup +
                               "kv_storage is null" + lookup + "kv_storage is null");
}

TEST_F(ConfigUpdateTest, PassDownloadsOnlyAnotherVersionFromAUsableRecord) {
  // Nothing published: the service answers the default.
  EXPECT_EQ(RunPass(4, nullptr), PassLog("value is empty."));
  host_.gray_service->offered = false;
  EXPECT_EQ(RunPass(1, kPublished), PassLog("gray is null."));
  host_.gray_service->offered = true;
  host_.http_service->offered = false;
  EXPECT_EQ(RunPass(1, kPublished), DownloadLog("U", "2") + "http is null.");
  host_.http_service->offered = true;
  // Only an object whose first "version" is a signed 64-bit integer and whose "url" is a string.
  for (const char* record :
       {R"({"version":"7","url":"U"})", R"({"version":7.0,"url":"U"})", R"("text")",
        R"({"version":9223372036854775808,"url":"U"})", R"({"version":true,"url":"U"})",
        R"({"version":7})", R"({"url":"U"})", R"({"version":7,"url":null})", R"([7,"U"])",
        R"({"Version":7,"url":"U"})", R"({"version":"7","version":7,"url":"U"})", "not json",
        R"({"version":7,"url":"U",})", R"({"version":7,"url":"U"} x)"}) {
    EXPECT_EQ(RunPass(7, record), PassLog(std::string("json is error. data=") + record)) << record;
  }
  // The first "version" and the first "url" count; the url ends at its first NUL.
  EXPECT_EQ(RunPass(7, R"({"version":7,"url":"U"})"), PassLog("version is same. 7"));
  EXPECT_EQ(RunPass(-3, R"({"extra":[1],"url":"U","version":-3})"), PassLog("version is same. -3"));
  EXPECT_EQ(RunPass(8, R"({"version":7,"url":"U"})"), DownloadLog("U", "7"));  // older too
  EXPECT_EQ(RunPass(7, R"({"version":8,"version":7,"url":"A","url":"B"})"), DownloadLog("A", "8"));
  EXPECT_EQ(RunPass(1, R"({"version":-9223372036854775808,"url":"http://h/c\u0000tail"})"),
            DownloadLog("http://h/c", "-9223372036854775808"));
  EXPECT_EQ(host_.http->sent().at(2).request->GetUrl(), "http://h/c");
  // A plain GET of the body, in memory, within five minutes.
  const std::shared_ptr<cp::RequestInterface> request = host_.http->sent()[0].request;
  EXPECT_EQ(request->GetMethod(), 1);
  EXPECT_EQ(request->GetTimeoutSeconds(), 300);
  EXPECT_FALSE(request->IsDeferrable());
  EXPECT_EQ(request->GetBody() + request->GetContentType() + request->GetDownloadPath(), "");
  EXPECT_TRUE(request->GetHeaders().empty());
}

TEST_F(ConfigUpdateTest, ResponseStoresTheBodyAsItCame) {
  host_.http->AnswerInSend(false, "connection reset");
  EXPECT_EQ(RunPass(1, kPublished), DownloadLog("U", "2") + "http request error. connection reset");
  int writes = 0;
  for (const std::string& body :
       {std::string("<html>not json"), std::string(), std::string("{\"version\":1}\0after", 19)}) {
    host_.http->AnswerInSend(true, body);
    EXPECT_EQ(RunPass(1, kPublished),
              DownloadLog("U", "2") + "http request success." + host_.StorageLookupLog());
    EXPECT_EQ(host_.kv->writes, ++writes);
    EXPECT_EQ(host_.kv->Read(kCacheKey), body);
  }
  // The library keeps neither the request nor the callback: the client's copies are the only ones.
  const std::weak_ptr<cp::RequestInterface> request = host_.http->sent().back().request;
  const std::weak_ptr<cp::ResponseCallback> callback = host_.http->sent().back().callback;
  EXPECT_EQ(request.use_count(), 1);
  EXPECT_EQ(callback.use_count(), 1);
  // A later outcome may arrive on a thread of the client's; a failure stores nothing.
  LogCapture capture;
  std::thread([&callback] { fake::Deliver(*callback.lock(), true, "{\"version\":2}"); }).join();
  fake::Deliver(*callback.lock(), false, "late failure");
  callback.lock()->OnProgress(10, 100);
  EXPECT_EQ(capture.out(), "http request success." + host_.StorageLookupLog() +
                               "http request error. late failure");
  EXPECT_EQ(host_.kv->Read(kCacheKey), "{\"version\":2}");
  EXPECT_EQ(host_.kv->writes, ++writes);
}

TEST_F(ConfigUpdateTest, BackgroundPassesSwallowFailuresAndAreWaitedFor) {
  LogCapture capture;
  // A failing client ends the pass where it threw, with what it threw logged.
  host_.gray->throw_on_call = true;
  StartRemoteConfigUpdate(1);
  ASSERT_TRUE(WaitForRemoteConfigUpdates(std::chrono::seconds(30)));
  const std::string failed =
      PassLog("config update failed checking for a new configuration: gray service failed");
  EXPECT_EQ(capture.out(), failed);
  host_.gray->throw_on_call = false;
  // Passes still running are waited for, however many were started.
  host_.gray->Set("wren", "loom_nlu_config", R"({"version":5,"url":"U"})");
  host_.gray->Hold(true);
  StartRemoteConfigUpdate(5);
  StartRemoteConfigUpdate(5);
  EXPECT_TRUE(host_.gray->WaitForCalls(3));
  EXPECT_FALSE(WaitForRemoteConfigUpdates(std::chrono::milliseconds(20)));
  host_.gray->Hold(false);
  ASSERT_TRUE(WaitForRemoteConfigUpdates(std::chrono::seconds(30)));
  // The two passes' lines may interleave; each pass wrote its whole set.
  const std::string out = capture.out().substr(failed.size());
  EXPECT_EQ(out.size(), 2 * PassLog("version is same. 5").size());
  EXPECT_NE(out.find("version is same. 5"), out.rfind("version is same. 5"));
  EXPECT_EQ(capture.err(), "");
}

}  // namespace
}  // namespace rulenlu
