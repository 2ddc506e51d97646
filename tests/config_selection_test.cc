#include "config/config_selection.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <string>
#include <typeinfo>

#include "fake_host.h"
#include "log_capture.h"
#include "services/service_manager.h"

namespace rulenlu {
namespace {

constexpr char kCacheKey[] = "wr_nlu_remote_config";

ServiceManagerHolder& Holder() { return ServiceManagerHolder::Instance(); }

// Each test has a local file with version 9 and an attached client whose cache is empty.
class ConfigSelectionTest : public ::testing::Test {
 protected:
  void SetUp() override {
    Holder().ResetForTesting();
    ASSERT_TRUE(Holder().Attach(&host_.manager));
    const std::string test_name = ::testing::UnitTest::GetInstance()->current_test_info()->name();
    local_path_ = ::testing::TempDir() + "selection_" + test_name + ".json";
    missing_path_ = ::testing::TempDir() + "selection_" + test_name + "_missing.json";
    WriteLocal("{\"version\":9,\"vocabMap\":{\"place\":[\"local\"]}}");
  }
  void TearDown() override {
    Holder().ResetForTesting();
    std::remove(local_path_.c_str());
  }

  void WriteLocal(const std::string& text) {
    std::ofstream file(local_path_, std::ios::binary | std::ios::trunc);
    file << text;
  }

  // Runs the selection on `path`; stores the log text in `log`.
  std::shared_ptr<NluConfig> Load(const std::string& path, std::string* log) {
    LogCapture capture;
    std::shared_ptr<NluConfig> config = LoadNluConfig(path);
    *log = capture.out();
    EXPECT_EQ(capture.err(), "");
    return config;
  }

  fake::FakeHost host_;
  std::string local_path_;
  std::string missing_path_;
};

TEST_F(ConfigSelectionTest, ParsingCachedCopyWinsWhateverItsVersion) {
  std::string log;
  host_.kv->Set(kCacheKey, "{\"version\":5,\"vocabMap\":{\"place\":[\"remote\"]}}");
  std::shared_ptr<NluConfig> config = Load(local_path_, &log);
  ASSERT_NE(config, nullptr);
  EXPECT_EQ(config->version, 5);
  EXPECT_EQ(config->vocabMap.at("place").count(u"remote"), 1u);
  EXPECT_EQ(log, host_.StorageLookupLog() + "use remote config. version=5");

  // The local file is not even looked at.
  host_.kv->Set(kCacheKey, "{\"version\":12}");
  config = Load(missing_path_, &log);
  ASSERT_NE(config, nullptr);
  EXPECT_EQ(config->version, 12);
  EXPECT_EQ(log, host_.StorageLookupLog() + "use remote config. version=12");
  EXPECT_EQ(host_.kv->writes(), 0);
}

TEST_F(ConfigSelectionTest, FallsBackToLocalFile) {
  std::string log;
  // Nothing cached.
  std::shared_ptr<NluConfig> config = Load(local_path_, &log);
  ASSERT_NE(config, nullptr);
  EXPECT_EQ(config->version, 9);
  EXPECT_EQ(config->vocabMap.at("place").count(u"local"), 1u);
  EXPECT_EQ(log,
            host_.StorageLookupLog() + "remote config load failed" + "use local config. version=9");

  // An empty cached copy is no copy.
  host_.kv->Set(kCacheKey, "");
  config = Load(local_path_, &log);
  ASSERT_NE(config, nullptr);
  EXPECT_EQ(log,
            host_.StorageLookupLog() + "remote config load failed" + "use local config. version=9");

  // A cached copy that is not a configuration document.
  for (const char* cached : {"<html>", "[1,2]", "{\"version\":5"}) {
    host_.kv->Set(kCacheKey, cached);
    config = Load(local_path_, &log);
    ASSERT_NE(config, nullptr) << cached;
    EXPECT_EQ(config->version, 9);
    EXPECT_EQ(log, host_.StorageLookupLog() + "json is error." + "use local config. version=9")
        << cached;
  }

  // A cached copy whose words are not valid UTF-8.
  host_.kv->Set(kCacheKey, "{\"version\":5,\"vocabMap\":{\"place\":[\"\xFF\"]}}");
  config = Load(local_path_, &log);
  ASSERT_NE(config, nullptr);
  EXPECT_EQ(config->version, 9);
  EXPECT_EQ(log, host_.StorageLookupLog() + "remote config is invalid: bad conversion" +
                     "use local config. version=9");
}

TEST_F(ConfigSelectionTest, FallsBackWhenStorageIsUnreachable) {
  std::string log;
  Holder().ResetForTesting();
  std::shared_ptr<NluConfig> config = Load(local_path_, &log);
  ASSERT_NE(config, nullptr);
  EXPECT_EQ(config->version, 9);
  EXPECT_EQ(
      log,
      fake::ExpectedLookupLog(fake::kStorageServiceName,
                              typeid(cp::StorageServiceInterface).hash_code(), nullptr, nullptr) +
          "storage is null" + "remote config load failed" + "use local config. version=9");
  ASSERT_TRUE(Holder().Attach(&host_.manager));

  host_.storage->set_kv_missing(true);
  host_.kv->Set(kCacheKey, "{\"version\":5}");
  config = Load(local_path_, &log);
  ASSERT_NE(config, nullptr);
  EXPECT_EQ(config->version, 9);
  EXPECT_EQ(log, host_.StorageLookupLog() + "kv_storage is null" + "remote config load failed" +
                     "use local config. version=9");
}

TEST_F(ConfigSelectionTest, NeitherSourceYieldsNothing) {
  std::string log;
  EXPECT_EQ(Load(missing_path_, &log), nullptr);
  EXPECT_EQ(log,
            host_.StorageLookupLog() + "remote config load failed" + "local config load failed");

  host_.kv->Set(kCacheKey, "not json");
  WriteLocal("also not json");
  EXPECT_EQ(Load(local_path_, &log), nullptr);
  EXPECT_EQ(log, host_.StorageLookupLog() + "json is error." + "json is error.");
}

}  // namespace
}  // namespace rulenlu
