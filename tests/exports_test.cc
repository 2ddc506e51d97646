#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <string>
#include <typeinfo>

#include "fake_host.h"
#include "log_capture.h"
#include "result_dump.h"
#include "rulenlu/engine_api.h"
#include "rulenlu/host_services.h"
#include "services/config_update.h"
#include "services/service_manager.h"

namespace rulenlu {
namespace {

constexpr char kCacheKey[] = "wr_nlu_remote_config";
constexpr auto kPatience = std::chrono::seconds(20);

// What an engine logs while it is built from a configuration without regex vocabularies.
constexpr char kEngineInitLog[] =
    "NluEngine: start tagger init\n3333333333333333333333333\nNluEngine: start parser init\n";

// A configuration that parses but cannot build an engine: its regex vocabulary does not compile.
constexpr char kPoisonedConfig[] = R"json({"version": 5, "regexVocabMap": {"broken": ["("]}})json";
// What building an engine from it logs before the failure.
constexpr char kPoisonedInitLog[] =
    "NluEngine: start tagger init\n3333333333333333333333333\nnew regex:(\npattern:(\n";

// The log of a cache read while no manager is attached.
std::string NoCacheLog() {
  const size_t hash = typeid(cp::StorageServiceInterface).hash_code();
  return fake::ExpectedLookupLog(cp::StorageServiceInterface::kServiceName, hash, nullptr,
                                 nullptr) +
         "storage is null" + "remote config load failed";
}

// A configuration of `version` with one intent, "call <contact>", for Tom and Anna.
std::string CallConfig(int version) {
  return R"({"version": )" + std::to_string(version) +
         R"(, "vocabMap": {"contact": ["Tom", "Anna"]},
      "intentMap": {"call": {"slots": [{"tag": "contact"}], "regexRules": ["call <contact>"]}}})";
}

// Matches `head`, then a reason of at least one character, then `tail`.
testing::Matcher<const std::string&> WithReason(const std::string& head, const std::string& tail) {
  return testing::AllOf(testing::StartsWith(head), testing::EndsWith(tail),
                        testing::SizeIs(testing::Gt(head.size() + tail.size())));
}

std::string Ask(const std::string& query) { return AskAndDump(::Process, query); }

// Every test starts with no manager attached and a local file of version 9 with Tom and Anna.
// The current engine persists between tests, so each test builds its own before asking.
class ExportsTest : public testing::Test {
 protected:
  void SetUp() override { WriteLocal(CallConfig(9)); }
  void TearDown() override {
    EXPECT_TRUE(WaitForRemoteConfigUpdates(kPatience));
    ServiceManagerHolder::Instance().ResetForTesting();
    std::remove(local_path_.c_str());
  }

  void WriteLocal(const std::string& text) {
    std::ofstream(local_path_, std::ios::binary | std::ios::trunc) << text;
  }

  // Runs InitEngin on the local file and the update pass it starts; returns all they logged.
  std::string Init() {
    LogCapture capture;
    InitEngin(local_path_.c_str());
    EXPECT_TRUE(WaitForRemoteConfigUpdates(kPatience));
    EXPECT_EQ(capture.err(), "");
    return capture.out();
  }

  fake::FakeHost host_;
  const std::string local_path_ = testing::TempDir() + "exports_" + std::to_string(getpid()) + "_" +
                                  testing::UnitTest::GetInstance()->current_test_info()->name();
};

TEST_F(ExportsTest, InitFromLocalFileWithoutManager) {
  const size_t gray_hash = typeid(cp::GrayServiceInterface).hash_code();
  EXPECT_EQ(Init(), NoCacheLog() + "use local config. version=9" + kEngineInitLog +
                        "config update." +
                        fake::ExpectedLookupLog(cp::GrayServiceInterface::kServiceName, gray_hash,
                                                nullptr, nullptr) +
                        "gray is null.");
  LogCapture capture;
  EXPECT_EQ(Ask("call Anna"), "9|call|call Anna|contact=Anna@5+4;");
  EXPECT_EQ(Ask("call \xC3"), "0|||");  // every failure gives the empty result
  EXPECT_EQ(capture.out(), "result :call\nslotkey:contact, slotvalue:Anna\nresult :\n");
  EXPECT_EQ(capture.err(), "tagger process exception!\n");
}

TEST_F(ExportsTest, CachedCopyWinsWhenItBuildsAndEachPassRunsBesideItsEngine) {
  ASSERT_TRUE(AttachServiceManager(&host_.manager));
  // The pass runs with the version of the engine that was built: the local one.
  host_.gray->Set("wren", "loom_nlu_config", R"({"version": 9, "url": "U"})");
  host_.kv->Set(kCacheKey, kPoisonedConfig);
  host_.gray->Hold(true);
  {
    LogCapture capture;
    InitEngin(local_path_.c_str());  // returns while its pass is held inside the client
    EXPECT_TRUE(host_.gray->WaitForCalls(1));
    EXPECT_FALSE(WaitForRemoteConfigUpdates(std::chrono::milliseconds(0)));
    host_.gray->Hold(false);
    ASSERT_TRUE(WaitForRemoteConfigUpdates(kPatience));
    EXPECT_THAT(capture.out(),
                WithReason(host_.StorageLookupLog() + "use remote config. version=5" +
                               kPoisonedInitLog + "remote config cannot build engine: ",
                           "use local config. version=9" + std::string(kEngineInitLog) +
                               "config update." + host_.GrayLookupLog() + "version is same. 9"));
  }
  // A cached copy that builds wins; then a different published version is downloaded, and the
  // download is what the next start-up builds from.
  host_.kv->Set(kCacheKey, CallConfig(5));
  const std::string download_log = "config update." + host_.GrayLookupLog() +
                                   "update new config. url=U, version=9" + host_.HttpLookupLog();
  EXPECT_EQ(Init(), host_.StorageLookupLog() + "use remote config. version=5" + kEngineInitLog +
                        download_log);
  {
    LogCapture quiet;
    fake::Deliver(*host_.http->sent().at(0).callback, true, CallConfig(12));
  }
  EXPECT_EQ(Init(), host_.StorageLookupLog() + "use remote config. version=12" + kEngineInitLog +
                        download_log);
  LogCapture quiet;
  EXPECT_EQ(Ask("call Tom"), "12|call|call Tom|contact=Tom@5+3;");
}

TEST_F(ExportsTest, WithoutUsableConfigurationNoEngineIsEverBuilt) {
  // Only a fresh copy of this program is sure to have no engine yet. It reports what each
  // InitEngin logged (its pass included) and the answer at the end.
  GTEST_FLAG_SET(death_test_style, "threadsafe");
  WriteLocal(kPoisonedConfig);
  const auto run_in_fresh_process = [this] {
    std::string report;
    for (const char* path : {static_cast<const char*>(nullptr), local_path_.c_str()}) {
      LogCapture capture;
      InitEngin(path);
      WaitForRemoteConfigUpdates(kPatience);
      report += capture.out() + "|" + capture.err() + "\n";
    }
    std::fputs((report + Ask("call Tom")).c_str(), stderr);
    std::exit(0);
  };
  EXPECT_EXIT(
      run_in_fresh_process(), testing::ExitedWithCode(0),
      WithReason(NoCacheLog() + "local config load failed|\n" + NoCacheLog() +
                     "use local config. version=5" + kPoisonedInitLog + "engine build failed: ",
                 "|\n0|||"));
}

TEST_F(ExportsTest, BuildEnginBuildsFromMemoryWithoutTheServices) {
  ASSERT_TRUE(AttachServiceManager(&host_.manager));
  Utf8NluConfig config;
  config.version = 42;  // not taken: results report 0
  config.variableEntrys = {{"hour", "(1[0-2]|[1-9])"}};
  config.regexVocabMap = {{"time", {"${hour} ?(am|pm)"}}, {"day", {"tomorrow"}}};
  config.intentMap["r\xC3\xA9union"] =
      Utf8IntentConfig{"Meet", {{"a", "day"}, {"b", "time"}}, {"meet (<day> )?at <time>"}, {}};
  LogCapture capture;
  BuildEngin(&config);
  EXPECT_TRUE(WaitForRemoteConfigUpdates(kPatience));  // a pass, if one started, logs here
  // Regex vocabulary names in name order, then the engine, then the width of a text unit.
  EXPECT_EQ(capture.out(),
            "day\ntime\nNluEngine: start tagger init\n3333333333333333333333333\n"
            "new regex:tomorrow\nnew regex:(1[0-2]|[1-9]) ?(am|pm)\npattern:tomorrow\n"
            "pattern:(1[0-2]|[1-9]) ?(am|pm)\nNluEngine: start parser init\nsizeof wchar_t:2\n");
  EXPECT_EQ(Ask("meet tomorrow at 5 pm"),
            "0|r\xC3\xA9union|meet tomorrow at 5 pm|day=tomorrow@5+8;time=5 pm@17+4;");
}

}  // namespace
}  // namespace rulenlu
