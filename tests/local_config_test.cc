#include "config/local_config.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <stdlib.h>

#include <filesystem>
#include <fstream>
#include <set>
#include <stdexcept>
#include <string>

#include "base/error.h"
#include "log_capture.h"

namespace rulenlu {
namespace {

using std::string_literals::operator""s;

// A fresh directory for each test, removed with its files afterwards.
class LoadLocalNluConfigTest : public ::testing::Test {
 protected:
  void SetUp() override { ASSERT_NE(mkdtemp(dir_.data()), nullptr); }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  std::string Write(const std::string& name, const std::string& bytes) {
    std::ofstream(dir_ + "/" + name, std::ios::binary) << bytes;
    return dir_ + "/" + name;
  }

  // Loads `path`, expecting `log` on standard output and nothing on standard error.
  std::optional<NluConfig> Load(const std::string& path, const std::string& log) {
    LogCapture capture;
    std::optional<NluConfig> config = LoadLocalNluConfig(path);
    EXPECT_EQ(capture.out(), log) << path;
    EXPECT_EQ(capture.err(), "");
    return config;
  }

  std::string dir_ = ::testing::TempDir() + "local_config_XXXXXX";
};

TEST_F(LoadLocalNluConfigTest, ReadsTheWholeFileUpToItsFirstNulByte) {
  // Far more than any single read, with the version at the very end, in a non-ASCII path.
  std::string words = "\"0\"";
  for (int i = 1; i < 50000; ++i) words += ",\"" + std::to_string(i) + "\"";
  const auto document = [&](const std::string& eol) {
    return "{\"vocabMap\": {\"person\": [\"Tom\", \"\xE5\xBC\xA0\xE4\xB8\x89\"]," + eol +
           "\"many\": [" + words + "]}," + eol + "\"version\": 9}" + eol;
  };
  ASSERT_TRUE(std::filesystem::create_directory(dir_ + "/\xE9\x85\x8D\xE7\xBD\xAE \xC3\xA9"));
  for (const std::string& text : {document("\n"), document("\r\n"), document("") + "\0{"s}) {
    const std::string path =
        Write("\xE9\x85\x8D\xE7\xBD\xAE \xC3\xA9/nlu \xF0\x9F\x98\x80.json", text);
    std::optional<NluConfig> config = Load(path, "");
    ASSERT_NE(config, std::nullopt);
    EXPECT_EQ(config->version, 9);
    EXPECT_EQ(config->vocabMap.at("person"), (WordList{u"Tom", u"\u5f20\u4e09"}));
    EXPECT_EQ(config->vocabMap.at("many").size(), 50000u);
  }
}

TEST_F(LoadLocalNluConfigTest, ReportsFilesThatCannotBeReadOrParsed) {
  const std::string present = Write("present.json", "{\"version\":3}");
  for (const std::string& path : {dir_ + "/none", dir_, present + "/x", ""s, dir_ + "/none/"})
    EXPECT_EQ(Load(path, "local config load failed"), std::nullopt);
  // A NUL byte ends the path, as it would for any C file name.
  EXPECT_NE(Load(present + "\0.bak"s, ""), std::nullopt);
  for (const std::string& text : {""s, "\xEF\xBB\xBF{}"s, "\0{}"s, "{\"version\":3\0}"s})
    EXPECT_EQ(Load(Write("bad.json", text), "json is error."), std::nullopt);
  // Conversion errors pass to the caller, unlogged.
  const std::string invalid = Write("utf8.json", "{\"vocabMap\":{\"v\":[\"\xFF\"]}}");
  LogCapture log;
  EXPECT_THAT([&] { LoadLocalNluConfig(invalid); },
              testing::ThrowsMessage<ConversionError>(testing::StrEq("bad conversion")));
  EXPECT_EQ(log.out(), "");
}

}  // namespace
}  // namespace rulenlu
