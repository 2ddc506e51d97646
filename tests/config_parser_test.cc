#include "config/config_parser.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <set>
#include <stdexcept>
#include <string>
#include <utility>
#include <vector>

#include "config/json.h"
#include "log_capture.h"

namespace rulenlu {
namespace {

using std::string_literals::operator""s;
using Words = std::set<std::u16string>;
using Patterns = std::vector<std::u16string>;
using Slots = std::vector<std::pair<std::string, std::string>>;
using Variables = std::vector<std::pair<std::string, std::u16string>>;

// Parses `text` and checks the log: nothing for a configuration, one "json is error." otherwise.
std::shared_ptr<NluConfig> Parse(const std::string& text) {
  LogCapture log;
  std::shared_ptr<NluConfig> config = ParseNluConfig(text);
  EXPECT_EQ(log.out(), config ? "" : "json is error.") << text.substr(0, 80);
  EXPECT_EQ(log.err(), "");
  return config;
}

void ExpectEmpty(const NluConfig& config) {
  EXPECT_EQ(config.version, 0);
  EXPECT_TRUE(config.vocabMap.empty());
  EXPECT_TRUE(config.regexVocabMap.empty());
  EXPECT_TRUE(config.intentMap.empty());
  EXPECT_TRUE(config.variableEntrys.empty());
}

void ExpectBadConversion(const std::string& text) {
  LogCapture log;
  try {
    ParseNluConfig(text);
    ADD_FAILURE() << "accepted " << text;
  } catch (const std::range_error& e) {
    EXPECT_STREQ(e.what(), "bad conversion") << text;
  }
  EXPECT_EQ(log.out(), "") << text;
}

std::string Repeat(const std::string& piece, size_t times) {
  std::string out;
  out.reserve(piece.size() * times);
  for (size_t i = 0; i < times; ++i) out += piece;
  return out;
}

TEST(ParseNluConfig, RejectsWhatIsNotAJsonObject) {
  const std::vector<std::string> rejected = {
      "",
      "   \n",
      "[]",
      "[{\"version\":1}]",
      "5",
      "\"{}\"",
      "null",
      "true",
      "\xEF\xBB\xBF{}",  // byte-order mark
      "{} x",            // trailing garbage
      "{}{}",            // two roots
      "{\"version\":1} ,",
      "{/* note */}",  // comments
      "// note\n{}",
      "{\"vocabMap\":{\"a\":[\"x\",]}}",  // trailing commas
      "{\"version\":1,}",
      "{\"version\":NaN}",
      "{\"version\":Infinity}",
      "{'version':1}",
      "{version:1}",
      "\v{}",  // not JSON whitespace
      "\f{}",
      "{\"a\":\"unterminated}",
      "{\"a\":\"\\x41\"}",  // unknown escape
      "{\"a\":01}",
      std::string("\0{}", 3),  // the text ends before the document
      "{\"version\":4"s + '\0' + "}",
  };
  for (const std::string& text : rejected) EXPECT_EQ(Parse(text), nullptr) << text;

  // Consecutive failures run together: the line has no terminator.
  LogCapture log;
  EXPECT_EQ(ParseNluConfig("["), nullptr);
  EXPECT_EQ(ParseNluConfig("1"), nullptr);
  EXPECT_EQ(log.out(), "json is error.json is error.");
}

TEST(ParseNluConfig, AcceptsAnyObjectAndReadsUpToTheFirstNul) {
  for (const std::string& text :
       {"{}"s, " \t\r\n{}\r\n \t"s, "{\"other\":[1,{\"x\":null}],\"more\":\"y\"}"s,
        "{\"VocabMap\":{\"a\":[\"x\"]},\"IntentMap\":{\"i\":{}},\"Version\":3,"
        "\"variableEntries\":[{\"key\":\"k\",\"value\":\"v\"}],\"RegexVocabMap\":{\"r\":[\"x\"]}}"s,
        "{}\0garbage"s}) {
    std::shared_ptr<NluConfig> config = Parse(text);
    ASSERT_NE(config, nullptr) << text;
    ExpectEmpty(*config);
  }
  std::shared_ptr<NluConfig> config = Parse("{\"version\":12}\0{\"version\":13}"s);
  ASSERT_NE(config, nullptr);
  EXPECT_EQ(config->version, 12);
}

TEST(ParseNluConfig, TakesVersionOnlyFromASigned64BitInteger) {
  const std::vector<std::pair<std::string, int64_t>> cases = {
      {"7", 7},
      {"-3", -3},
      {"0", 0},
      {"9223372036854775807", std::numeric_limits<int64_t>::max()},
      {"-9223372036854775808", std::numeric_limits<int64_t>::min()},
      {"4294967296", 4294967296},
      {"9223372036854775808", 0},
      {"18446744073709551615", 0},
      {"7.0", 0},
      {"7e0", 0},
      {"\"7\"", 0},
      {"true", 0},
      {"null", 0},
      {"[7]", 0},
      {"{\"version\":7}", 0},
      // The first occurrence counts, whatever follows.
      {"1,\"version\":2", 1},
      {"\"1\",\"version\":2", 0},
      {"-5,\"version\":\"x\"", -5},
  };
  for (const auto& [value, expected] : cases) {
    const std::string text = "{\"version\":" + value + "}";
    std::shared_ptr<NluConfig> config = Parse(text);
    ASSERT_NE(config, nullptr) << text;
    EXPECT_EQ(config->version, expected) << text;
  }
}

TEST(ParseNluConfig, ReadsVocabulariesAsSetsAndRegexVocabulariesAsLists) {
  std::shared_ptr<NluConfig> config = Parse(R"({
    "vocabMap": {
      "person": ["b", "a", "b", 5, null, ["c"], "\u4f1a\u8bae", "\ud83d\ude00"],
      "noWords": [1, {}],
      "notAnArray": "a",
      "alsoNot": {"x": ["a"]},
      "twice": ["first"],
      "twice": ["second", "third"],
      "keptWhenLaterIsNoArray": ["x"],
      "keptWhenLaterIsNoArray": "y"
    },
    "regexVocabMap": {
      "person": ["b", "a", "b", 5, "[0-9]+"],
      "empty": [],
      "notAnArray": "a",
      "twice": ["one", "two"],
      "twice": ["three"]
    }
  })");
  ASSERT_NE(config, nullptr);
  const std::map<std::string, Words> vocab = {
      {"person", {u"a", u"b", u"\u4f1a\u8bae", u"\U0001F600"}},
      {"noWords", {}},
      {"twice", {u"second", u"third"}},
      {"keptWhenLaterIsNoArray", {u"x"}},
  };
  EXPECT_EQ(config->vocabMap, vocab);
  EXPECT_EQ(config->vocabMap["person"].count(u"\U0001F600"), 1u);
  const std::map<std::string, Patterns> regex = {
      {"person", {u"b", u"a", u"b", u"[0-9]+"}},
      {"empty", {}},
      {"twice", {u"three"}},
  };
  EXPECT_EQ(config->regexVocabMap, regex);
  EXPECT_TRUE(config->intentMap.empty());
  EXPECT_TRUE(config->variableEntrys.empty());
}

TEST(ParseNluConfig, SkipsSectionsOfTheWrongType) {
  std::shared_ptr<NluConfig> config = Parse(R"({
    "version": 2,
    "vocabMap": [["a"]],
    "regexVocabMap": ["a"],
    "intentMap": [{"name": "x"}],
    "variableEntrys": {"key": "k", "value": "v"}
  })");
  ASSERT_NE(config, nullptr);
  EXPECT_EQ(config->version, 2);
  config->version = 0;
  ExpectEmpty(*config);

  config = Parse(R"({"vocabMap": "a", "regexVocabMap": 1, "intentMap": null,
                     "variableEntrys": "x"})");
  ASSERT_NE(config, nullptr);
  ExpectEmpty(*config);

  // A section's first occurrence is the one read.
  config = Parse(R"({"vocabMap": {"a": ["x"]}, "vocabMap": {"b": ["y"]},
                     "intentMap": "no", "intentMap": {"i": {}}})");
  ASSERT_NE(config, nullptr);
  EXPECT_EQ(config->vocabMap, (std::map<std::string, Words>{{"a", {u"x"}}}));
  EXPECT_TRUE(config->intentMap.empty());
}

TEST(ParseNluConfig, ReadsIntents) {
  std::shared_ptr<NluConfig> config = Parse(R"({
    "intentMap": {
      "call": {
        "name": "make_call",
        "slots": [{"name": "who", "tag": "person"}, {}, {"name": 5, "tag": "t"},
                  {"name": "n"}, "notAnObject", ["x"], 3, {"tag": "only", "extra": 1}],
        "regexRules": ["call <person>", 7, "ring <person>.*", "call <person>"],
        "blackList": ["never", null, "\u00e9"],
        "other": "ignored"
      },
      "bare": {},
      "wrongTypes": {"name": ["n"], "slots": {"name": "a", "tag": "b"}, "regexRules": "r",
                     "blackList": {"a": "b"}},
      "notAnObject": ["name"],
      "alsoNot": "x"
    }
  })");
  ASSERT_NE(config, nullptr);
  ASSERT_EQ(config->intentMap.size(), 3u);

  const IntentConfig& call = config->intentMap.at("call");
  EXPECT_EQ(call.name, "make_call");
  EXPECT_EQ(call.slots, (Slots{{"who", "person"}, {"", ""}, {"", "t"}, {"n", ""}, {"", "only"}}));
  EXPECT_EQ(call.regexRules, (Patterns{u"call <person>", u"ring <person>.*", u"call <person>"}));
  EXPECT_EQ(call.blackList, (Patterns{u"never", u"\u00e9"}));

  for (const char* key : {"bare", "wrongTypes"}) {
    const IntentConfig& intent = config->intentMap.at(key);
    EXPECT_EQ(intent.name, "") << key;
    EXPECT_TRUE(intent.slots.empty()) << key;
    EXPECT_TRUE(intent.regexRules.empty()) << key;
    EXPECT_TRUE(intent.blackList.empty()) << key;
  }
  EXPECT_TRUE(config->vocabMap.empty());
  EXPECT_TRUE(config->regexVocabMap.empty());
  EXPECT_TRUE(config->variableEntrys.empty());
}

TEST(ParseNluConfig, RepeatedIntentKeyKeepsOnlyTheLastIntent) {
  std::shared_ptr<NluConfig> config = Parse(R"({"intentMap": {
    "i": {"name": "first", "slots": [{"name": "s", "tag": "t"}], "regexRules": ["a"],
          "blackList": ["b"]},
    "j": {"name": "kept"},
    "i": {"name": "second"},
    "k": {"name": "k1", "regexRules": ["r"]},
    "k": "not an object"
  }})");
  ASSERT_NE(config, nullptr);
  ASSERT_EQ(config->intentMap.size(), 3u);
  const IntentConfig& i = config->intentMap.at("i");
  EXPECT_EQ(i.name, "second");
  EXPECT_TRUE(i.slots.empty());
  EXPECT_TRUE(i.regexRules.empty());
  EXPECT_TRUE(i.blackList.empty());
  EXPECT_EQ(config->intentMap.at("j").name, "kept");
  // A later member that is skipped does not touch the earlier one.
  EXPECT_EQ(config->intentMap.at("k").name, "k1");
  EXPECT_EQ(config->intentMap.at("k").regexRules, Patterns{u"r"});
}

TEST(ParseNluConfig, ReadsVariablesInOrderAndDropsIncompleteOnes) {
  std::shared_ptr<NluConfig> config = Parse(R"({"variableEntrys": [
    {"key": "a", "value": "1"},
    {"key": "b"},
    {"key": "c", "value": 2},
    5, "s", null, ["key", "value"],
    {"value": "v"},
    {"key": 3, "value": "x"},
    {"key": "d", "value": "\u4f1a", "extra": true},
    {"key": "a", "value": "again"},
    {"key": "", "value": ""}
  ]})");
  ASSERT_NE(config, nullptr);
  EXPECT_EQ(config->variableEntrys,
            (Variables{{"a", u"1"}, {"d", u"\u4f1a"}, {"a", u"again"}, {"", u""}}));
  EXPECT_TRUE(config->vocabMap.empty());
  EXPECT_TRUE(config->intentMap.empty());
}

TEST(ParseNluConfig, CutsStringsAtTheirFirstNulCharacter) {
  std::shared_ptr<NluConfig> config = Parse(R"({
    "vocabMap": {"v\u0000one": ["a\u0000b", "a", "\u0000x"], "v": ["c"]},
    "regexVocabMap": {"r": ["p\u0000q"]},
    "intentMap": {"i\u0000x": {"name": "n\u0000m", "slots": [{"name": "s\u0000", "tag": "\u0000t"}],
                               "regexRules": ["r\u0000"], "blackList": ["b\u0000c"]}},
    "variableEntrys": [{"key": "k\u0000l", "value": "v\u0000w"}]
  })");
  ASSERT_NE(config, nullptr);
  // "v\u0000one" and "v" are the same name once cut, so the later array wins.
  EXPECT_EQ(config->vocabMap, (std::map<std::string, Words>{{"v", {u"c"}}}));
  EXPECT_EQ(config->regexVocabMap, (std::map<std::string, Patterns>{{"r", {u"p"}}}));
  ASSERT_EQ(config->intentMap.count("i"), 1u);
  const IntentConfig& intent = config->intentMap.at("i");
  EXPECT_EQ(intent.name, "n");
  EXPECT_EQ(intent.slots, (Slots{{"s", ""}}));
  EXPECT_EQ(intent.regexRules, Patterns{u"r"});
  EXPECT_EQ(intent.blackList, Patterns{u"b"});
  EXPECT_EQ(config->variableEntrys, (Variables{{"k", u"v"}}));

  config = Parse(R"({"vocabMap": {"w": ["a\u0000b", "a", "\u0000x", ""]}})");
  ASSERT_NE(config, nullptr);
  EXPECT_EQ(config->vocabMap.at("w"), (Words{u"a", u""}));
}

TEST(ParseNluConfig, ThrowsOnInvalidUtf8InConvertedTextButKeepsNames) {
  for (const std::string& text : {
           "{\"vocabMap\":{\"v\":[\"ok\",\"\xFF\"]}}"s,
           "{\"regexVocabMap\":{\"v\":[\"\xC3\"]}}"s,
           "{\"intentMap\":{\"i\":{\"regexRules\":[\"\xED\xA0\x80\"]}}}"s,
           "{\"intentMap\":{\"i\":{\"blackList\":[\"\xC0\xAF\"]}}}"s,
           "{\"variableEntrys\":[{\"key\":\"k\",\"value\":\"\x80\"}]}"s,
       }) {
    ExpectBadConversion(text);
  }

  // Names stay narrow, so their bytes are kept as they are.
  std::shared_ptr<NluConfig> config = Parse(
      "{\"vocabMap\":{\"\xFF\":[\"a\"]},\"regexVocabMap\":{\"\xC3\":[]},"
      "\"intentMap\":{\"\x80\":{\"name\":\"\xFE\",\"slots\":[{\"name\":\"\xC0\",\"tag\":\"\xF8\"}]}"
      "},"
      "\"variableEntrys\":[{\"key\":\"\xED\xA0\x80\",\"value\":\"v\"}]}"s);
  ASSERT_NE(config, nullptr);
  EXPECT_EQ(config->vocabMap, (std::map<std::string, Words>{{"\xFF", {u"a"}}}));
  EXPECT_EQ(config->regexVocabMap.count("\xC3"), 1u);
  ASSERT_EQ(config->intentMap.count("\x80"), 1u);
  EXPECT_EQ(config->intentMap.at("\x80").name, "\xFE");
  EXPECT_EQ(config->intentMap.at("\x80").slots, (Slots{{"\xC0", "\xF8"}}));
  EXPECT_EQ(config->variableEntrys, (Variables{{"\xED\xA0\x80", u"v"}}));

  // Valid multi-byte text, raw or escaped, converts to the same units.
  config = Parse("{\"vocabMap\":{\"v\":[\"\xE4\xBC\x9A\",\"\\u4f1a\",\"\xF0\x9F\x98\x80\"]}}");
  ASSERT_NE(config, nullptr);
  EXPECT_EQ(config->vocabMap.at("v"), (Words{u"\u4f1a", u"\U0001F600"}));
}

TEST(ParseNluConfig, SurvivesDeepNesting) {
  constexpr size_t kDepth = 1000000;
  // Unterminated: an error, not a crash.
  EXPECT_EQ(Parse(std::string(kDepth, '[')), nullptr);
  // Valid but not an object at the root.
  EXPECT_EQ(Parse(std::string(kDepth, '[') + std::string(kDepth, ']')), nullptr);
  // Valid, with the sections after the deep member still read.
  const std::string deep = Repeat("{\"a\":", kDepth) + "1" + std::string(kDepth, '}');
  std::shared_ptr<NluConfig> config = Parse(deep);
  ASSERT_NE(config, nullptr);
  ExpectEmpty(*config);
  config = Parse("{\"deep\":" + deep + ",\"version\":4,\"vocabMap\":{\"v\":[\"w\"]}}");
  ASSERT_NE(config, nullptr);
  EXPECT_EQ(config->version, 4);
  EXPECT_EQ(config->vocabMap, (std::map<std::string, Words>{{"v", {u"w"}}}));
}

TEST(SectionReaders, EachFillsOnlyItsOwnField) {
  rapidjson::Document doc;
  ASSERT_TRUE(ParseJsonDocument(R"({
    "vocabMap": {"v": ["w"]},
    "regexVocabMap": {"r": ["p"]},
    "intentMap": {"i": {"name": "n"}},
    "variableEntrys": [{"key": "k", "value": "x"}]
  })",
                                &doc));
  auto config = std::make_shared<NluConfig>();
  ParseVocabMap(doc, config);
  EXPECT_EQ(config->vocabMap, (std::map<std::string, Words>{{"v", {u"w"}}}));
  EXPECT_TRUE(config->regexVocabMap.empty());
  EXPECT_TRUE(config->intentMap.empty());
  EXPECT_TRUE(config->variableEntrys.empty());

  config = std::make_shared<NluConfig>();
  ParseRegexVocabMap(doc, config);
  EXPECT_EQ(config->regexVocabMap, (std::map<std::string, Patterns>{{"r", {u"p"}}}));
  EXPECT_TRUE(config->vocabMap.empty());
  EXPECT_TRUE(config->intentMap.empty());

  config = std::make_shared<NluConfig>();
  ParseIntentMap(doc, config);
  ASSERT_EQ(config->intentMap.size(), 1u);
  EXPECT_EQ(config->intentMap.at("i").name, "n");
  EXPECT_TRUE(config->vocabMap.empty());
  EXPECT_TRUE(config->variableEntrys.empty());

  // Variables are appended to what is there; map members are assigned over existing keys.
  config = std::make_shared<NluConfig>();
  config->variableEntrys.emplace_back("old", u"o");
  config->vocabMap["v"] = {u"old"};
  ParseVariableEntrys(doc, config);
  ParseVocabMap(doc, config);
  EXPECT_EQ(config->variableEntrys, (Variables{{"old", u"o"}, {"k", u"x"}}));
  EXPECT_EQ(config->vocabMap, (std::map<std::string, Words>{{"v", {u"w"}}}));
  EXPECT_TRUE(config->intentMap.empty());
}

TEST(ParseJsonDocument, ReportsWhetherTheTextParsed) {
  rapidjson::Document doc;
  EXPECT_TRUE(ParseJsonDocument("[1, 2]", &doc));
  EXPECT_TRUE(doc.IsArray());
  EXPECT_TRUE(ParseJsonDocument(" \"s\" ", &doc));
  EXPECT_TRUE(doc.IsString());
  EXPECT_TRUE(ParseJsonDocument("{\"a\":1}\0["s, &doc));
  EXPECT_TRUE(doc.IsObject());
  EXPECT_FALSE(ParseJsonDocument("", &doc));
  EXPECT_FALSE(ParseJsonDocument("[1,]", &doc));
  EXPECT_FALSE(ParseJsonDocument("{\"a\":1} 2", &doc));
}

}  // namespace
}  // namespace rulenlu
