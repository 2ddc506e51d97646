#include "config/config_parser.h"

#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "base/error.h"
#include "base/json.h"
#include "base/text.h"
#include "log_capture.h"

namespace rulenlu {
namespace {

using std::string_literals::operator""s;

template <typename Strings>
std::string Quoted(const Strings& strings) {
  std::string out;
  for (std::u16string_view s : strings) out += (out.empty() ? "'" : ",'") + Utf16ToUtf8(s) + "'";
  return "[" + out + "]";
}

// One line with the version and every entry: " V.name=[...]" for vocabularies, " R." for regex
// vocabularies, " I.key=name(slot/tag,...)[rules][black list]" for intents, " K." for variables.
std::string Dump(const NluConfig& config) {
  std::string out = "v=" + std::to_string(config.version);
  for (const auto& [name, words] : config.vocabMap) out += " V." + name + "=" + Quoted(words);
  for (const auto& [name, list] : config.regexVocabMap) out += " R." + name + "=" + Quoted(list);
  for (const auto& [key, intent] : config.intentMap) {
    out += " I." + key + "=" + intent.name + "(";
    for (const auto& [slot, tag] : intent.slots) out += slot + "/" + tag + ",";
    out += ")" + Quoted(intent.regexRules) + Quoted(intent.blackList);
  }
  for (const auto& [key, value] : config.variableEntrys)
    out += " K." + key + "=" + Quoted(std::vector{value});
  return out;
}

// Parses `text` into its Dump, "null" when rejected or "throws <what>" on a conversion error, and
// checks the log: exactly "json is error." when rejected, nothing otherwise.
std::string Parse(const std::string& text) {
  LogCapture log;
  std::string result;
  try {
    std::optional<NluConfig> config = ParseNluConfig(text);
    result = config ? Dump(*config) : "null";
  } catch (const ConversionError& e) {
    result = "throws "s + e.what();
  }
  EXPECT_EQ(log.out(), result == "null" ? "json is error." : "") << text.substr(0, 80);
  EXPECT_EQ(log.err(), "");
  return result;
}

TEST(ParseNluConfig, AcceptsOnlyAJsonObjectReadUpToTheFirstNul) {
  for (const std::string& text :
       {""s, "[]"s, "\"{}\""s, "null"s, "\xEF\xBB\xBF{}"s, "{} x"s, "{}{}"s, "{/* note */}"s,
        "{\"version\":1,}"s, "{\"version\":NaN}"s, "{'version':1}"s, "\v{}"s,
        "{\"a\":\"unterminated}"s, "{\"a\":\"\\x41\"}"s, "{\"a\":01}"s, "\0{}"s,
        "{\"version\":4\0}"s, std::string(1000000, '[')}) {
    EXPECT_EQ(Parse(text), "null") << text.substr(0, 80);
  }
}

TEST(ParseNluConfig, ReadsWhatHasTheRightTypeAndSkipsTheRest) {
  // The version is the first one, if it is a signed 64-bit integer.
  for (const char* value : {"9223372036854775807", "-9223372036854775808", "4294967296"})
    EXPECT_EQ(Parse("{\"version\":"s + value + "}"), "v="s + value);
  for (const char* value : {"9223372036854775808", "7.0", "\"7\"", "\"1\",\"version\":2"})
    EXPECT_EQ(Parse("{\"version\":"s + value + "}"), "v=0") << value;
  EXPECT_EQ(Parse("{\"version\":1,\"version\":2}"), "v=1");
  const std::vector<std::pair<std::string, std::string>> cases = {
      // Keys are case-sensitive and spelled as they are; unknown ones are ignored.
      {"{\"Version\":3,\"VocabMap\":{\"a\":[]},\"other\":{}}", "v=0"},
      {"{\"variableEntries\":[{\"key\":\"k\",\"value\":\"\"}]}", "v=0"},
      {" \r\n{\"version\":12}\t\0{\"version\":13}"s, "v=12"},
      {R"({"vocabMap": {"person": ["b", "a", "b", 5, null, ["c"], "\u4f1a", "\ud83d\ude00"],
           "noWords": [1, {}], "notAnArray": "a", "twice": ["first"], "twice": ["second", "3"],
           "kept": ["x", "x", "y"], "kept": "y"}, "regexVocabMap": {"person": ["b", "a", "b", 5,
           "[0-9]+"], "empty": [], "notAnArray": "a", "twice": ["one", "two"],
           "twice": ["three"]}})",
       "v=0 V.kept=['x','y'] V.noWords=[] V.person=['a','b','\u4f1a','\U0001F600'] "
       "V.twice=['3','second'] R.empty=[] R.person=['b','a','b','[0-9]+'] R.twice=['three']"},
      // Sections of the wrong type are skipped; only the first occurrence of one is read.
      {R"({"version": 2, "vocabMap": [["a"]], "regexVocabMap": ["a"], "intentMap": [{"name": "x"}],
           "variableEntrys": {"key": "k", "value": "v"}, "vocabMap": {"b": ["y"]},
           "intentMap": {"i": {}}})",
       "v=2"},
      // A repeated intent key keeps the last object wholly; a later skipped member changes nothing.
      {R"({"intentMap": {"call": {"name": "make_call", "other": 1,
          "slots": [{"name": "who", "tag": "p"}, {"name": 5, "tag": "t"}, {"name": "n"}, 3, []],
          "regexRules": ["call <p>", 7, "ring <p>.*", "call <p>"],
          "blackList": ["no", null, "\u00e9"]}, "bare": {}, "notAnObject": ["name"],
          "wrongTypes": {"name": ["n"], "slots": {"name": "a"}, "regexRules": "r", "blackList": {}},
          "i": {"name": "first", "regexRules": ["a"], "slots": [{"name": "s"}], "blackList": ["b"]},
          "i": {"name": "second"}, "k": {"name": "k1", "regexRules": ["r"]}, "k": "no"}})",
       "v=0 I.bare=()[][] I.call=make_call(who/p,/t,n/,)['call <p>','ring <p>.*','call <p>']"
       "['no','\u00e9'] I.i=second()[][] I.k=k1()['r'][] I.wrongTypes=()[][]"},
      {R"({"variableEntrys": [{"key": "a", "value": "1"}, {"key": "b"}, {"key": "c", "value": 2},
           5, ["key", "value"], {"value": "v"}, {"key": 3, "value": "x"}, {"key": "d", "value":
           "\u4f1a", "extra": 1}, {"key": "a", "value": "again"}, {"key": "", "value": ""}]})",
       "v=0 K.a=['1'] K.d=['\u4f1a'] K.a=['again'] K.=['']"},
      // Strings end at their first NUL character: "v\u0000one" and "v" are one name.
      {R"({"vocabMap": {"v\u0000one": ["c"], "v": ["a\u0000b", "a", "\u0000x", ""]},
          "regexVocabMap": {"r": ["p\u0000q"]}, "variableEntrys": [{"key": "k\u0000l", "value":
          "v\u0000w"}], "intentMap": {"i\u0000x": {"name": "n\u0000m", "blackList": ["b\u0000c"],
          "regexRules": ["r\u0000"], "slots": [{"name": "s\u0000", "tag": "\u0000t"}]}}})",
       "v=0 V.v=['','a'] R.r=['p'] I.i=n(s/,)['r']['b'] K.k=['v']"},
      // Names stay narrow, so their bytes are kept as they are.
      {"{\"vocabMap\":{\"\xFF\":[\"a\"]},\"intentMap\":"
       "{\"\x80\":{\"name\":\"\xFE\",\"slots\":[{\"name\":\"\xC0\",\"tag\":\"\xF8\"}]}},\"regex"
       "VocabMap\":{\"\xC3\":[]},\"variableEntrys\":[{\"key\":\"\xED\xA0\x80\",\"value\":\"v\"}]}",
       "v=0 V.\xFF=['a'] R.\xC3=[] I.\x80=\xFE(\xC0/\xF8,)[][] K.\xED\xA0\x80=['v']"},
      // Text that is matched against queries must be valid UTF-8, in every section.
      {"{\"vocabMap\":{\"v\":[\"ok\",\"\xFF\"]}}", "throws bad conversion"},
      {"{\"regexVocabMap\":{\"v\":[\"\xC3\"]}}", "throws bad conversion"},
      {"{\"intentMap\":{\"i\":{\"regexRules\":[\"\xED\xA0\x80\"]}}}", "throws bad conversion"},
      {"{\"intentMap\":{\"i\":{\"blackList\":[\"\xC0\xAF\"]}}}", "throws bad conversion"},
      {"{\"variableEntrys\":[{\"key\":\"k\",\"value\":\"\x80\"}]}", "throws bad conversion"},
  };
  for (const auto& [text, expected] : cases) EXPECT_EQ(Parse(text), expected) << text;
  // Nesting is bounded: up to the limit members after a deep one are still read; a million
  // levels, even well-formed, are rejected without exhausting the stack.
  const auto nested = [](size_t depth) {
    return std::string(depth, '[') + std::string(depth, ']');
  };
  EXPECT_EQ(Parse("{\"deep\":" + nested(kMaxJsonNesting - 1) +
                  ",\"version\":4,\"vocabMap\":{\"v\":[\"[[\"]}}"),
            "v=4 V.v=['[[']");
  EXPECT_EQ(Parse("{\"deep\":" + nested(kMaxJsonNesting) + "}"), "null");
  EXPECT_EQ(Parse("{\"deep\":" + nested(1000000) + "}"), "null");
  std::string objects;
  for (int i = 0; i < 1000000; ++i) objects += "{\"a\":";
  EXPECT_EQ(Parse(objects + "1" + std::string(1000000, '}')), "null");
}

}  // namespace
}  // namespace rulenlu
