#include "engine/config_selection.h"

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

TEST(SelectNluConfig, PrefersAParsingCachedCopyAndFallsBackToTheLocalFile) {
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
    bool from_cache;
    std::string log;  // after the storage lookup
  };
  const Case cases[] = {
      // While nothing is cached yet.
      {nullptr, kLocal, 9, false, "remote config load failed" + use_local},
      {nullptr, nullptr, -1, false, "remote config load failed"s + "local config load failed"},
      {"", kLocal, 9, false, "remote config load failed" + use_local},  // an empty copy is no copy
      // A cached copy that parses wins whatever its version; the local file is not even read.
      {"{\"version\":5}", kLocal, 5, true, "use remote config. version=5"},
      {"{\"version\":12}", nullptr, 12, true, "use remote config. version=12"},
      {"<html>", kLocal, 9, false, "json is error." + use_local},
      {"{\"vocabMap\":{\"p\":[\"\xFF\"]}}", kLocal, 9, false,
       "remote config is invalid: bad conversion" + use_local},
      {"not json", "also not json", -1, false, "json is error."s + "json is error."},
  };
  for (const Case& c : cases) {
    if (c.cached != nullptr) host.kv->Set("wr_nlu_remote_config", c.cached);
    std::remove(path.c_str());
    if (c.local != nullptr) std::ofstream(path, std::ios::binary) << c.local;
    LogCapture log;
    const std::optional<ConfigSelection> selection = SelectNluConfig(path);
    EXPECT_EQ(selection ? selection->config.version : -1, c.version) << c.log;
    EXPECT_EQ(selection ? selection->from_cache : false, c.from_cache) << c.log;
    EXPECT_EQ(log.out(), host.StorageLookupLog() + c.log);
    EXPECT_EQ(log.err(), "");
  }
  EXPECT_EQ(host.kv->writes, 0);
  holder.ResetForTesting();
  std::remove(path.c_str());
}

}  // namespace
}  // namespace rulenlu
