#include "config/config_selection.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <fstream>
#include <memory>
#include <string>

#include "fake_host.h"
#include "log_capture.h"
#include "services/service_manager.h"

namespace rulenlu {
namespace {

using std::string_literals::operator""s;

TEST(LoadNluConfig, PrefersAParsingCachedCopyAndFallsBackToTheLocalFile) {
  fake::FakeHost host;
  ServiceManagerHolder& holder = ServiceManagerHolder::Instance();
  holder.ResetForTesting();
  ASSERT_TRUE(holder.Attach(&host.manager));
  const std::string path =
      ::testing::TempDir() + "config_selection_" + std::to_string(getpid()) + ".json";
  const char* const kLocal = "{\"version\":9}";
  const std::string use_local = "use local config. version=9";
  struct Case {
    const char* cached;  // the cache is left as it is when null
    const char* local;   // no file when null
    int64_t version;     // -1 for no configuration
    std::string log;     // after the storage lookup
  };
  const Case cases[] = {
      // While nothing is cached yet.
      {nullptr, kLocal, 9, "remote config load failed" + use_local},
      {nullptr, nullptr, -1, "remote config load failed"s + "local config load failed"},
      {"", kLocal, 9, "remote config load failed" + use_local},  // an empty copy is no copy
      // A cached copy that parses wins whatever its version; the local file is not even read.
      {"{\"version\":5}", kLocal, 5, "use remote config. version=5"},
      {"{\"version\":12}", nullptr, 12, "use remote config. version=12"},
      {"<html>", kLocal, 9, "json is error." + use_local},
      {"{\"vocabMap\":{\"p\":[\"\xFF\"]}}", kLocal, 9,
       "remote config is invalid: bad conversion" + use_local},
      {"not json", "also not json", -1, "json is error."s + "json is error."},
  };
  for (const Case& c : cases) {
    if (c.cached != nullptr) host.kv->Set("wr_nlu_remote_config", c.cached);
    std::remove(path.c_str());
    if (c.local != nullptr) std::ofstream(path, std::ios::binary) << c.local;
    LogCapture log;
    std::shared_ptr<NluConfig> config = LoadNluConfig(path);
    EXPECT_EQ(config ? config->version : -1, c.version) << c.log;
    EXPECT_EQ(log.out(), host.StorageLookupLog() + c.log);
    EXPECT_EQ(log.err(), "");
  }
  EXPECT_EQ(host.kv->writes(), 0);
  holder.ResetForTesting();
  std::remove(path.c_str());
}

}  // namespace
}  // namespace rulenlu
