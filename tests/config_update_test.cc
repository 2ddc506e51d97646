#include "services/config_update.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cstdint>
#include <map>
#include <memory>
#include <string>
#include <thread>
#include <typeinfo>
#include <vector>

#include "fake_host.h"
#include "log_capture.h"
#include "services/remote_config_cache.h"
#include "services/service_manager.h"

namespace rulenlu {
namespace {

using std::chrono::milliseconds;
using std::chrono::seconds;

constexpr char kCacheKey[] = "wr_nlu_remote_config";

ServiceManagerHolder& Holder() { return ServiceManagerHolder::Instance(); }

bool Contains(const std::vector<std::string>& names, const std::string& name) {
  for (const std::string& each : names) {
    if (each == name) return true;
  }
  return false;
}

int Count(const std::string& text, const std::string& part) {
  int count = 0;
  for (size_t at = text.find(part); at != std::string::npos; at = text.find(part, at + 1)) {
    ++count;
  }
  return count;
}

// Each test runs against a fresh fake client whose manager is attached.
class HostTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Holder().ResetForTesting();
    ASSERT_TRUE(Holder().Attach(&host_.manager));
  }
  void TearDown() override {
    EXPECT_TRUE(WaitForRemoteConfigUpdates(seconds(30)));
    host_.http->ForgetAll();
    Holder().ResetForTesting();
  }

  std::string StorageMissingLog() const {
    return fake::ExpectedLookupLog(fake::kStorageServiceName,
                                   typeid(cp::StorageServiceInterface).hash_code(), nullptr,
                                   nullptr);
  }

  fake::FakeHost host_;
};

using RemoteConfigCacheTest = HostTest;

TEST_F(RemoteConfigCacheTest, ReadsTheEntryUnderItsKey) {
  std::string value;
  {
    LogCapture capture;
    EXPECT_FALSE(ReadRemoteConfigCache(value));  // absent
    EXPECT_EQ(value, "");
    EXPECT_EQ(capture.out(), host_.StorageLookupLog());
  }
  host_.kv->Set("other_key", "{}");
  host_.kv->Set(kCacheKey, "");
  {
    LogCapture capture;
    EXPECT_FALSE(ReadRemoteConfigCache(value));  // empty reads like absent
    EXPECT_EQ(value, "");
  }
  host_.kv->Set(kCacheKey, "not json at all");
  {
    LogCapture capture;
    EXPECT_TRUE(ReadRemoteConfigCache(value));  // no validation here
    EXPECT_EQ(value, "not json at all");
    EXPECT_EQ(capture.out(), host_.StorageLookupLog());
  }
  EXPECT_EQ(host_.kv->reads(), 3);
  EXPECT_EQ(host_.kv->writes(), 0);
  EXPECT_EQ(host_.storage_service->live_handles(), 0);
}

TEST_F(RemoteConfigCacheTest, WritesTheEntryAsGiven) {
  LogCapture capture;
  const std::string body("{\"version\":3}\0tail", 18);
  EXPECT_TRUE(WriteRemoteConfigCache(body));
  EXPECT_EQ(host_.kv->Get(kCacheKey), body);
  EXPECT_TRUE(WriteRemoteConfigCache(""));
  EXPECT_EQ(host_.kv->Get(kCacheKey), "");
  EXPECT_EQ(host_.kv->size(), 1u);
  // The store's refusal is passed on.
  host_.kv->set_accept_writes(false);
  EXPECT_FALSE(WriteRemoteConfigCache("lost"));
  EXPECT_EQ(host_.kv->Get(kCacheKey), "");
  EXPECT_EQ(host_.kv->writes(), 3);
  EXPECT_EQ(capture.out(),
            host_.StorageLookupLog() + host_.StorageLookupLog() + host_.StorageLookupLog());
}

TEST_F(RemoteConfigCacheTest, UnreachableStorageFailsWithItsReason) {
  std::string value = "untouched";
  host_.kv->Set(kCacheKey, "doc");

  Holder().ResetForTesting();  // no manager at all
  {
    LogCapture capture;
    EXPECT_FALSE(ReadRemoteConfigCache(value));
    EXPECT_FALSE(WriteRemoteConfigCache("new"));
    EXPECT_EQ(capture.out(),
              StorageMissingLog() + "storage is null" + StorageMissingLog() + "storage is null");
  }
  ASSERT_TRUE(Holder().Attach(&host_.manager));

  host_.storage_service->Withdraw(fake::kStorageServiceName);  // service without its interface
  {
    LogCapture capture;
    EXPECT_FALSE(ReadRemoteConfigCache(value));
    const std::string log = capture.out();
    EXPECT_EQ(log.substr(log.size() - 15), "storage is null");
    EXPECT_EQ(log.find("kv_storage"), std::string::npos);
  }
  host_.storage_service->Offer<cp::StorageServiceInterface>(fake::kStorageServiceName,
                                                            host_.storage);

  host_.storage->set_kv_missing(true);
  {
    LogCapture capture;
    EXPECT_FALSE(ReadRemoteConfigCache(value));
    EXPECT_FALSE(WriteRemoteConfigCache("new"));
    EXPECT_EQ(capture.out(), host_.StorageLookupLog() + "kv_storage is null" +
                                 host_.StorageLookupLog() + "kv_storage is null");
  }
  EXPECT_EQ(value, "untouched");
  EXPECT_EQ(host_.kv->Get(kCacheKey), "doc");
  EXPECT_EQ(host_.kv->reads(), 0);
  EXPECT_EQ(host_.kv->writes(), 0);
}

class ConfigUpdateTest : public HostTest {
 protected:
  // Publishes `record` and runs one pass for `running_version`; returns the log text.
  std::string RunPass(int64_t running_version, const std::string& record) {
    host_.gray->Set("wren", "loom_nlu_config", record);
    LogCapture capture;
    UpdateRemoteConfig(running_version);
    EXPECT_EQ(capture.err(), "");
    return capture.out();
  }

  // The log of a pass that requests the download of `url` for `version`.
  std::string DownloadLog(const std::string& url, const std::string& version) const {
    return "config update." + host_.GrayLookupLog() + "update new config. url=" + url +
           ", version=" + version + host_.HttpLookupLog();
  }

  bool HttpLookedUp() const {
    return Contains(host_.manager.requested_names(), fake::kHttpServiceName);
  }
};

TEST_F(ConfigUpdateTest, StopsWithoutGrayService) {
  const std::string missing = fake::ExpectedLookupLog(
      fake::kGrayServiceName, typeid(cp::GrayServiceInterface).hash_code(), nullptr, nullptr);
  Holder().ResetForTesting();
  EXPECT_EQ(RunPass(1, "{\"version\":2,\"url\":\"U\"}"),
            "config update." + missing + "gray is null.");
  ASSERT_TRUE(Holder().Attach(&host_.manager));

  host_.manager.RemoveService(fake::kGrayServiceName);
  EXPECT_EQ(RunPass(1, "{\"version\":2,\"url\":\"U\"}"),
            "config update." +
                fake::ExpectedLookupLog(fake::kGrayServiceName,
                                        typeid(cp::GrayServiceInterface).hash_code(),
                                        &host_.manager, nullptr) +
                "gray is null.");
  EXPECT_TRUE(host_.gray->calls().empty());
  EXPECT_FALSE(HttpLookedUp());
}

TEST_F(ConfigUpdateTest, StopsOnEmptyValue) {
  LogCapture capture;
  UpdateRemoteConfig(4);  // nothing published: the service answers the default
  EXPECT_EQ(capture.out(), "config update." + host_.GrayLookupLog() + "value is empty.");
  const std::vector<fake::FakeGrayService::Call> calls = host_.gray->calls();
  ASSERT_EQ(calls.size(), 1u);
  EXPECT_EQ(calls[0].name_space, "wren");
  EXPECT_EQ(calls[0].key, "loom_nlu_config");
  EXPECT_EQ(calls[0].default_value, "");
  EXPECT_FALSE(HttpLookedUp());
}

TEST_F(ConfigUpdateTest, RejectsMalformedRecords) {
  const std::vector<std::string> records = {
      "{\"version\":\"7\",\"url\":\"U\"}",                // version as a string
      "{\"version\":7.0,\"url\":\"U\"}",                  // floating point
      "{\"version\":9223372036854775808,\"url\":\"U\"}",  // beyond the signed range
      "{\"version\":true,\"url\":\"U\"}",
      "[7,\"U\"]",
      "{\"version\":7}",  // same version, but no url
      "{\"url\":\"U\"}",
      "{\"version\":7,\"url\":5}",
      "{\"version\":7,\"url\":null}",
      "{\"Version\":7,\"url\":\"U\"}",                    // names are case-sensitive
      "{\"version\":\"7\",\"version\":7,\"url\":\"U\"}",  // the first occurrence counts
      "{\"version\":7,\"url\":\"U\",}",
      "{\"version\":7,\"url\":\"U\"} x",
      "\"text\"",
      "not json",
  };
  for (const std::string& record : records) {
    EXPECT_EQ(RunPass(7, record),
              "config update." + host_.GrayLookupLog() + "json is error. data=" + record)
        << record;
  }
  EXPECT_FALSE(HttpLookedUp());
  EXPECT_EQ(host_.http->sent_count(), 0u);
}

TEST_F(ConfigUpdateTest, SameVersionStops) {
  EXPECT_EQ(RunPass(7, "{\"version\":7,\"url\":\"U\"}"),
            "config update." + host_.GrayLookupLog() + "version is same. 7");
  EXPECT_EQ(RunPass(7, "{\"version\":7,\"version\":8,\"url\":\"U\"}"),
            "config update." + host_.GrayLookupLog() + "version is same. 7");
  EXPECT_EQ(RunPass(-3, "{\"extra\":[1],\"url\":\"U\",\"version\":-3}"),
            "config update." + host_.GrayLookupLog() + "version is same. -3");
  EXPECT_FALSE(HttpLookedUp());
}

TEST_F(ConfigUpdateTest, AnyOtherVersionRequestsTheDownload) {
  // A lower published version replaces the cache as well as a higher one.
  EXPECT_EQ(RunPass(8, "{\"version\":7,\"url\":\"U\"}"), DownloadLog("U", "7"));
  EXPECT_EQ(RunPass(6, "{\"url\":\"http://h/v7\",\"version\":7}"), DownloadLog("http://h/v7", "7"));
  // The first "version" and the first "url" count; the url ends at its first NUL.
  EXPECT_EQ(RunPass(7, "{\"version\":8,\"version\":7,\"url\":\"A\",\"url\":\"B\"}"),
            DownloadLog("A", "8"));
  EXPECT_EQ(RunPass(1, "{\"version\":-9223372036854775808,\"url\":\"http://h/c\\u0000tail\"}"),
            DownloadLog("http://h/c", "-9223372036854775808"));
  ASSERT_EQ(host_.http->sent_count(), 4u);
  EXPECT_EQ(host_.http->sent(0).request->GetUrl(), "U");
  EXPECT_EQ(host_.http->sent(1).request->GetUrl(), "http://h/v7");
  EXPECT_EQ(host_.http->sent(2).request->GetUrl(), "A");
  EXPECT_EQ(host_.http->sent(3).request->GetUrl(), "http://h/c");
  EXPECT_EQ(host_.kv->writes(), 0);  // nothing delivered yet
}

TEST_F(ConfigUpdateTest, StopsWithoutHttpService) {
  host_.manager.RemoveService(fake::kHttpServiceName);
  EXPECT_EQ(RunPass(2, "{\"version\":3,\"url\":\"U\"}"),
            "config update." + host_.GrayLookupLog() + "update new config. url=U, version=3" +
                fake::ExpectedLookupLog(fake::kHttpServiceName,
                                        typeid(cp::HttpServiceInterface).hash_code(),
                                        &host_.manager, nullptr) +
                "http is null.");
  EXPECT_EQ(host_.http->sent_count(), 0u);
}

TEST_F(ConfigUpdateTest, RequestAnswersFixedValues) {
  RunPass(1, "{\"version\":2,\"url\":\"https://example.test/nlu.json\"}");
  ASSERT_EQ(host_.http->sent_count(), 1u);
  const std::shared_ptr<cp::RequestInterface> request = host_.http->sent(0).request;
  EXPECT_EQ(request->GetUrl(), "https://example.test/nlu.json");
  EXPECT_EQ(request->GetUrl(), "https://example.test/nlu.json");  // a copy each time
  EXPECT_EQ(request->GetMethod(), 1);
  EXPECT_EQ(request->GetHeaders(), (std::map<std::string, std::string>{}));
  EXPECT_EQ(request->GetBody(), "");
  EXPECT_EQ(request->GetContentType(), "");
  EXPECT_EQ(request->GetDownloadPath(), "");
  EXPECT_FALSE(request->IsDeferrable());
  EXPECT_EQ(request->GetTimeoutSeconds(), 300);
}

TEST_F(ConfigUpdateTest, SuccessStoresTheBodyAsItCame) {
  const std::vector<std::string> bodies = {
      "{\"version\":9,\"vocabMap\":{}}",
      "",  // stored too: the next start-up finds no usable copy
      "<html>not json</html>",
      std::string("{\"version\":1}\0after", 19),
  };
  int writes = 0;
  for (const std::string& body : bodies) {
    host_.http->SucceedInSend(body);
    EXPECT_EQ(RunPass(1, "{\"version\":2,\"url\":\"U\"}"),
              DownloadLog("U", "2") + "http request success." + host_.StorageLookupLog());
    EXPECT_EQ(host_.kv->writes(), ++writes);
    EXPECT_EQ(host_.kv->Get(kCacheKey), body);
  }
  // The progress notification is accepted and changes nothing.
  host_.http->sent(0).callback->OnProgress(10, 100);
  EXPECT_EQ(host_.kv->writes(), writes);
}

TEST_F(ConfigUpdateTest, FailureStoresNothing) {
  host_.kv->Set(kCacheKey, "earlier document");
  host_.http->FailInSend("connection reset");
  EXPECT_EQ(RunPass(1, "{\"version\":2,\"url\":\"U\"}"),
            DownloadLog("U", "2") + "http request error. connection reset");
  EXPECT_EQ(host_.kv->writes(), 0);
  EXPECT_EQ(host_.kv->Get(kCacheKey), "earlier document");
  EXPECT_EQ(host_.http->sent_count(), 1u);
}

TEST_F(ConfigUpdateTest, CallbackLivesOnlyThroughTheClientsCopy) {
  RunPass(1, "{\"version\":2,\"url\":\"U\"}");
  ASSERT_EQ(host_.http->sent_count(), 1u);
  const std::weak_ptr<cp::RequestInterface> request = host_.http->sent(0).request;
  const std::weak_ptr<cp::ResponseCallback> callback = host_.http->sent(0).callback;
  EXPECT_EQ(request.use_count(), 1);
  EXPECT_EQ(callback.use_count(), 1);

  // The response arrives later, on a thread of the client's.
  {
    LogCapture capture;
    std::thread client([this] { host_.http->DeliverSuccess(0, "{\"version\":2}"); });
    client.join();
    EXPECT_EQ(capture.out(), "http request success." + host_.StorageLookupLog());
  }
  EXPECT_EQ(host_.kv->Get(kCacheKey), "{\"version\":2}");
  {
    LogCapture capture;
    host_.http->DeliverFailure(0, "late failure");
    EXPECT_EQ(capture.out(), "http request error. late failure");
  }
  EXPECT_EQ(host_.kv->writes(), 1);

  host_.http->ForgetAll();
  EXPECT_TRUE(request.expired());
  EXPECT_TRUE(callback.expired());
}

TEST_F(ConfigUpdateTest, BackgroundPassRunsAndIsWaitedFor) {
  host_.gray->Set("wren", "loom_nlu_config", "{\"version\":5,\"url\":\"U\"}");
  host_.http->SucceedInSend("downloaded");
  {
    LogCapture capture;
    StartRemoteConfigUpdate(4);
    ASSERT_TRUE(WaitForRemoteConfigUpdates(seconds(30)));
    EXPECT_EQ(capture.out(),
              DownloadLog("U", "5") + "http request success." + host_.StorageLookupLog());
  }
  EXPECT_EQ(host_.kv->Get(kCacheKey), "downloaded");

  // Passes still running are waited for, however many were started.
  host_.gray->Hold();
  {
    LogCapture capture;
    StartRemoteConfigUpdate(5);
    StartRemoteConfigUpdate(5);
    host_.gray->WaitForCalls(3);
    EXPECT_FALSE(WaitForRemoteConfigUpdates(milliseconds(20)));
    host_.gray->Release();
    ASSERT_TRUE(WaitForRemoteConfigUpdates(seconds(30)));
    // The two passes' lines may interleave; each pass wrote its whole set.
    const std::string same = "config update." + host_.GrayLookupLog() + "version is same. 5";
    const std::string out = capture.out();
    EXPECT_EQ(out.size(), 2 * same.size());
    EXPECT_EQ(Count(out, "config update."), 2);
    EXPECT_EQ(Count(out, "version is same. 5"), 2);
  }
  EXPECT_EQ(host_.gray->calls().size(), 3u);
  EXPECT_EQ(host_.http->sent_count(), 1u);
}

TEST_F(ConfigUpdateTest, BackgroundPassSwallowsFailures) {
  host_.gray->set_throw_on_call(true);
  LogCapture capture;
  StartRemoteConfigUpdate(1);
  ASSERT_TRUE(WaitForRemoteConfigUpdates(seconds(30)));
  // The pass ends where the client threw, and nothing more is printed.
  EXPECT_EQ(capture.out(), "config update." + host_.GrayLookupLog());
  EXPECT_EQ(capture.err(), "");
  EXPECT_EQ(host_.gray->calls().size(), 1u);
  EXPECT_EQ(host_.gray_service->live_handles(), 0);
}

}  // namespace
}  // namespace rulenlu
