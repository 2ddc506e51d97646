#include "config/local_config.h"

#include <gtest/gtest.h>
#include <stdlib.h>

#include <cstdio>
#include <filesystem>
#include <map>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "log_capture.h"

namespace rulenlu {
namespace {

using std::string_literals::operator""s;

const char kDocument[] =
    "{\n"
    "  \"version\": 9,\n"
    "  \"vocabMap\": {\"person\": [\"Tom\", \"\xE5\xBC\xA0\xE4\xB8\x89\"]},\n"
    "  \"regexVocabMap\": {\"number\": [\"[0-9]+\"]},\n"
    "  \"intentMap\": {\"call\": {\"name\": \"make_call\",\n"
    "                           \"slots\": [{\"name\": \"who\", \"tag\": \"person\"}],\n"
    "                           \"regexRules\": [\"call <person>\"]}},\n"
    "  \"variableEntrys\": [{\"key\": \"d\", \"value\": \"[0-9]\"}]\n"
    "}\n";

// A fresh directory for each test, removed with its files afterwards.
class LoadLocalNluConfigTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = ::testing::TempDir() + "local_config_XXXXXX";
    ASSERT_NE(mkdtemp(pattern.data()), nullptr);
    dir_ = pattern;
  }
  void TearDown() override {
    if (!dir_.empty()) std::filesystem::remove_all(dir_);
  }

  std::string Write(const std::string& name, const std::string& bytes) {
    const std::string path = dir_ + "/" + name;
    FILE* file = std::fopen(path.c_str(), "wb");
    EXPECT_NE(file, nullptr) << path;
    if (file == nullptr) return path;
    EXPECT_EQ(std::fwrite(bytes.data(), 1, bytes.size(), file), bytes.size());
    std::fclose(file);
    return path;
  }

  std::string dir_;
};

std::string WithCrLf(const std::string& text) {
  std::string out;
  for (char c : text) {
    if (c == '\n') out += '\r';
    out += c;
  }
  return out;
}

void ExpectTheDocument(const NluConfig& config) {
  EXPECT_EQ(config.version, 9);
  EXPECT_EQ(
      config.vocabMap,
      (std::map<std::string, std::set<std::u16string>>{{"person", {u"Tom", u"\u5f20\u4e09"}}}));
  EXPECT_EQ(config.regexVocabMap,
            (std::map<std::string, std::vector<std::u16string>>{{"number", {u"[0-9]+"}}}));
  ASSERT_EQ(config.intentMap.size(), 1u);
  const IntentConfig& call = config.intentMap.at("call");
  EXPECT_EQ(call.name, "make_call");
  EXPECT_EQ(call.slots, (std::vector<std::pair<std::string, std::string>>{{"who", "person"}}));
  EXPECT_EQ(call.regexRules, std::vector<std::u16string>{u"call <person>"});
  EXPECT_TRUE(call.blackList.empty());
  EXPECT_EQ(config.variableEntrys,
            (std::vector<std::pair<std::string, std::u16string>>{{"d", u"[0-9]"}}));
}

TEST_F(LoadLocalNluConfigTest, ReadsDocumentsWithEitherLineEnd) {
  for (const std::string& text : {std::string(kDocument), WithCrLf(kDocument)}) {
    const std::string path = Write("nlu.json", text);
    LogCapture log;
    std::shared_ptr<NluConfig> config = LoadLocalNluConfig(path);
    ASSERT_NE(config, nullptr) << text;
    ExpectTheDocument(*config);
    EXPECT_EQ(log.out(), "");
    EXPECT_EQ(log.err(), "");
  }
}

TEST_F(LoadLocalNluConfigTest, OpensNonAsciiPaths) {
  const std::string sub = dir_ + "/\xE9\x85\x8D\xE7\xBD\xAE \xC3\xA9";
  ASSERT_TRUE(std::filesystem::create_directory(sub));
  const std::string path =
      Write("\xE9\x85\x8D\xE7\xBD\xAE \xC3\xA9/nlu \xF0\x9F\x98\x80.json", kDocument);
  LogCapture log;
  std::shared_ptr<NluConfig> config = LoadLocalNluConfig(path);
  ASSERT_NE(config, nullptr);
  ExpectTheDocument(*config);
  EXPECT_EQ(log.out(), "");
}

TEST_F(LoadLocalNluConfigTest, ReportsFilesThatCannotBeRead) {
  Write("present.json", kDocument);
  for (const std::string& path :
       {dir_ + "/missing.json", dir_, dir_ + "/present.json/x", ""s, dir_ + "/missing/"}) {
    LogCapture log;
    EXPECT_EQ(LoadLocalNluConfig(path), nullptr) << path;
    EXPECT_EQ(log.out(), "local config load failed") << path;
    EXPECT_EQ(log.err(), "");
  }
  // A NUL byte ends the path, as it would for any C file name.
  LogCapture log;
  EXPECT_NE(LoadLocalNluConfig(dir_ + "/present.json\0.bak"s), nullptr);
  EXPECT_EQ(log.out(), "");
}

TEST_F(LoadLocalNluConfigTest, RejectsFilesThatAreNotADocument) {
  for (const std::string& text :
       {""s, "\n"s, "\xEF\xBB\xBF"s + kDocument, "[]"s, std::string(kDocument) + "}",
        "{\"version\":1,}"s, "\0{\"version\":1}"s}) {
    const std::string path = Write("bad.json", text);
    LogCapture log;
    EXPECT_EQ(LoadLocalNluConfig(path), nullptr) << text;
    EXPECT_EQ(log.out(), "json is error.") << text;
  }
}

TEST_F(LoadLocalNluConfigTest, EndsTheTextAtTheFirstNulByte) {
  LogCapture log;
  std::shared_ptr<NluConfig> config =
      LoadLocalNluConfig(Write("a.json", std::string(kDocument) + '\0' + "garbage {"));
  ASSERT_NE(config, nullptr);
  ExpectTheDocument(*config);
  EXPECT_EQ(LoadLocalNluConfig(Write("b.json", "{\"version\":3\0}"s)), nullptr);
  EXPECT_EQ(log.out(), "json is error.");
}

TEST_F(LoadLocalNluConfigTest, ReadsLargeFilesWhole) {
  // Many times any single read, with the version at the very end.
  std::string text = "{\"vocabMap\":{\"v\":[";
  for (int i = 0; i < 50000; ++i) text += (i ? ",\"" : "\"") + std::to_string(i) + "\"";
  text += "]},\"version\":77}";
  ASSERT_GT(text.size(), 300000u);
  std::shared_ptr<NluConfig> config = LoadLocalNluConfig(Write("big.json", text));
  ASSERT_NE(config, nullptr);
  EXPECT_EQ(config->version, 77);
  ASSERT_EQ(config->vocabMap.at("v").size(), 50000u);
  EXPECT_EQ(config->vocabMap.at("v").count(u"49999"), 1u);
}

TEST_F(LoadLocalNluConfigTest, PassesConversionErrorsOn) {
  const std::string path = Write("utf8.json", "{\"vocabMap\":{\"v\":[\"\xFF\"]}}");
  LogCapture log;
  try {
    LoadLocalNluConfig(path);
    ADD_FAILURE() << "invalid UTF-8 accepted";
  } catch (const std::range_error& e) {
    EXPECT_STREQ(e.what(), "bad conversion");
  }
  EXPECT_EQ(log.out(), "");
}

}  // namespace
}  // namespace rulenlu
