#include "nlu/regex_parser.h"

#include <gtest/gtest.h>

#include <atomic>
#include <cstdint>
#include <map>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "engine/text.h"
#include "log_capture.h"

namespace rulenlu {
namespace {

using Combination = RegexParser::Combination;

constexpr int kUntouched = 7;  // a status no stage sets
constexpr char kFailureLine[] = "regex parser process exception!\n";

SlotMatch Tag(const std::string& key, const std::string& value, int32_t start) {
  SlotMatch tag;
  tag.key = key;
  tag.value = Utf8ToUtf16(value);
  tag.start = start;
  tag.length = static_cast<int32_t>(tag.value.size());
  return tag;
}

// An intent accepting `tags`, each under a slot name that differs from the tag.
IntentConfig Intent(const std::vector<std::string>& tags, std::vector<std::u16string> rules) {
  IntentConfig intent;
  intent.name = "name field, not used";
  for (const std::string& tag : tags) intent.slots.emplace_back("slot_" + tag, tag);
  intent.regexRules = std::move(rules);
  return intent;
}

std::string DumpTag(const SlotMatch& tag) {
  return tag.key + "=" + Utf16ToUtf8(tag.value) + "@" + std::to_string(tag.start) + "+" +
         std::to_string(tag.length);
}

std::string DumpTags(const std::vector<SlotMatch>& tags) {
  std::string out;
  for (const SlotMatch& tag : tags) out += (out.empty() ? "" : " ") + DumpTag(tag);
  return out;
}

std::vector<SlotMatch> Select(const std::vector<SlotMatch>& tags, const Combination& combination) {
  std::vector<SlotMatch> selected;
  for (uint32_t i : combination) selected.push_back(tags[i]);
  return selected;
}

std::vector<std::string> DumpCombinations(const std::vector<SlotMatch>& tags,
                                          const std::vector<Combination>& combinations) {
  std::vector<std::string> out;
  for (const Combination& combination : combinations) {
    out.push_back(DumpTags(Select(tags, combination)));
  }
  return out;
}

// One "intent[slots]" per candidate; also checks the fields every candidate shares.
std::string DumpCandidates(const std::vector<IntentCandidate>& candidates,
                           const std::u16string& query) {
  std::string out;
  for (const IntentCandidate& candidate : candidates) {
    EXPECT_EQ(candidate.version, 0);
    EXPECT_EQ(candidate.text, query);
    std::string slots;
    for (const SlotMatch& slot : candidate.slots) {
      slots += (slots.empty() ? "" : ",") + DumpTag(slot);
    }
    out += (out.empty() ? "" : " ") + candidate.intent + "[" + slots + "]";
  }
  return out;
}

std::string Parse(const RegexParser& parser, const std::u16string& query,
                  std::vector<SlotMatch> tags) {
  int status = kUntouched;
  const std::vector<IntentCandidate> candidates = parser.Process(query, std::move(tags), status);
  EXPECT_EQ(status, kUntouched);
  return DumpCandidates(candidates, query);
}

// The combination algorithm written plainly over copies of the tags, as a reference for the
// parser's own form of it.
bool RefTagLess(const SlotMatch& a, const SlotMatch& b) {
  if (a.key != b.key) return a.key < b.key;
  return a.value < b.value;
}

struct RefLess {
  bool operator()(const std::vector<SlotMatch>& a, const std::vector<SlotMatch>& b) const {
    for (size_t i = 0; i < a.size() && i < b.size(); ++i) {
      if (RefTagLess(a[i], b[i])) return true;
      if (RefTagLess(b[i], a[i])) return false;
    }
    return a.size() < b.size();
  }
};

std::vector<SlotMatch> RefSort(std::vector<SlotMatch> tags) {
  for (size_t i = 1; i < tags.size(); ++i) {
    for (size_t j = i; j > 0 && RefTagLess(tags[j], tags[j - 1]); --j) {
      std::swap(tags[j], tags[j - 1]);
    }
  }
  return tags;
}

std::vector<std::string> RefCombinations(const std::vector<SlotMatch>& sorted, size_t limit) {
  std::set<std::vector<SlotMatch>, RefLess> result;
  std::set<std::vector<SlotMatch>, RefLess> current;
  for (const SlotMatch& tag : sorted) {
    result.insert({tag});
    current.insert({tag});
  }
  while (result.size() < limit) {
    std::set<std::vector<SlotMatch>, RefLess> next;
    bool any_extension = false;
    bool finished = false;
    for (const std::vector<SlotMatch>& combination : current) {
      const uint32_t last_unit = static_cast<uint32_t>(combination.back().start) +
                                 static_cast<uint32_t>(combination.back().length) - 1u;
      for (const SlotMatch& tag : sorted) {
        if (static_cast<uint32_t>(tag.start) > last_unit) {
          std::vector<SlotMatch> longer = combination;
          longer.push_back(tag);
          next.insert(longer);
          any_extension = true;
        }
      }
      if (result.size() + next.size() > limit) {
        finished = true;
        break;
      }
    }
    current = next;
    result.insert(next.begin(), next.end());
    if (finished || !any_extension) break;
  }
  std::vector<std::string> out;
  for (const std::vector<SlotMatch>& combination : result) out.push_back(DumpTags(combination));
  return out;
}

TEST(RegexParserTest, RewritesTagsAndMatchesWholeRewrittenQuery) {
  RegexParser parser;
  parser.Init({{"call", Intent({"contact"}, {u"call <contact> now"})},
               {"call_prefix", Intent({"contact"}, {u"call <contact>"})},  // only a part
               {"no_slots", Intent({}, {u".*"})}});
  const std::u16string query = u"call Tom now";
  const std::vector<SlotMatch> tags = {Tag("contact", "Tom", 5)};
  EXPECT_EQ(Parse(parser, query, tags), "call[contact=Tom@5+3]");
  EXPECT_EQ(parser.BuildTaggedQuery(query, parser.SortTags(tags), {0}), u"call <contact> now");
  EXPECT_EQ(parser.BuildTaggedQuery(query, parser.SortTags(tags), {}), query);

  // Text before, between and after tags is copied; touching tags give adjacent markers.
  const std::vector<SlotMatch> three = {Tag("a", "x", 0), Tag("b", "yy", 1), Tag("c", "z", 5)};
  EXPECT_EQ(parser.BuildTaggedQuery(u"xyy, z!", parser.SortTags(three), {0, 1, 2}),
            u"<a><b>, <c>!");
  // Called directly with overlapping tags, text is never copied backwards.
  const std::vector<SlotMatch> overlapping = {Tag("a", "xyz", 0), Tag("b", "yz", 1)};
  EXPECT_EQ(parser.BuildTaggedQuery(u"xyzw", parser.SortTags(overlapping), {0, 1}), u"<a><b>w");
}

TEST(RegexParserTest, NoTagsGiveNoCandidates) {
  LogCapture cap;
  RegexParser parser;
  parser.Init({{"anything", Intent({}, {u".*"})}});
  EXPECT_EQ(Parse(parser, u"hello", {}), "");
  EXPECT_TRUE(parser.BuildCombinations({}).empty());
  EXPECT_EQ(cap.err(), "");
}

TEST(RegexParserTest, CombinesOnlyTagsThatDoNotOverlap) {
  RegexParser parser;
  const std::vector<SlotMatch> overlapping = {Tag("k1", "ab", 0), Tag("k2", "bc", 1)};
  EXPECT_EQ(DumpCombinations(overlapping, parser.BuildCombinations(overlapping)),
            (std::vector<std::string>{"k1=ab@0+2", "k2=bc@1+2"}));

  // Touching tags may follow one another; the order of a combination is the order in the query.
  const std::vector<SlotMatch> touching = {Tag("k1", "cd", 2), Tag("k2", "ab", 0)};
  EXPECT_EQ(DumpCombinations(touching, parser.BuildCombinations(touching)),
            (std::vector<std::string>{"k1=cd@2+2", "k2=ab@0+2", "k2=ab@0+2 k1=cd@2+2"}));

  RegexParser::CombinationSet next{RegexParser::CombinationLess(&touching)};
  EXPECT_TRUE(RegexParser::ExtendCombination(touching, {}, &next));
  EXPECT_TRUE(RegexParser::ExtendCombination(touching, {0}, &next));
  EXPECT_TRUE(next.empty());
  EXPECT_FALSE(RegexParser::ExtendCombination(touching, {1}, &next));
  EXPECT_EQ(next.size(), 1u);

  // An empty tag at offset 0 ends at unit 2^32-1: nothing may follow it.
  SlotMatch empty = Tag("e", "", 0);
  const std::vector<SlotMatch> with_empty = {empty, Tag("k", "a", 0), Tag("k", "b", 3)};
  RegexParser::CombinationSet after_empty{RegexParser::CombinationLess(&with_empty)};
  EXPECT_TRUE(RegexParser::ExtendCombination(with_empty, {0}, &after_empty));
  EXPECT_TRUE(after_empty.empty());
}

TEST(RegexParserTest, SameWordTwiceKeepsFirstPlaceOnly) {
  RegexParser parser;
  parser.Init({{"one", Intent({"contact"}, {u"<contact> and tom"})},
               {"other", Intent({"contact"}, {u"tom and <contact>"})},
               {"two", Intent({"contact"}, {u"<contact> and <contact>"})}});
  const std::u16string query = u"tom and tom";
  const std::vector<SlotMatch> tags = {Tag("contact", "tom", 0), Tag("contact", "tom", 8)};
  EXPECT_EQ(DumpCombinations(tags, parser.BuildCombinations(tags)),
            (std::vector<std::string>{"contact=tom@0+3", "contact=tom@0+3 contact=tom@8+3"}));
  EXPECT_EQ(Parse(parser, query, tags),
            "one[contact=tom@0+3] two[contact=tom@0+3,contact=tom@8+3]");

  // The set keeps the first combination formed: listed the other way round, the word's later
  // place is the one kept, and nothing follows it.
  EXPECT_EQ(Parse(parser, query, {tags[1], tags[0]}), "other[contact=tom@8+3]");
}

TEST(RegexParserTest, OneTextInTwoVocabulariesGivesTwoMarkers) {
  RegexParser parser;
  parser.Init({{"travel", Intent({"city"}, {u"go to <city>"})},
               {"visit", Intent({"person"}, {u"go to <person>"})},
               {"any", Intent({"city", "person"}, {u"go to <(city|person)>"})}});
  const std::u16string query = u"go to Paris";
  const std::vector<SlotMatch> tags = {Tag("person", "Paris", 6), Tag("city", "Paris", 6)};
  const RegexParser::SortedTags sorted = parser.SortTags(tags);
  EXPECT_EQ(parser.BuildTaggedQuery(query, sorted, {0}), u"go to <city>");
  EXPECT_EQ(parser.BuildTaggedQuery(query, sorted, {1}), u"go to <person>");
  EXPECT_EQ(Parse(parser, query, tags),
            "any[city=Paris@6+5] travel[city=Paris@6+5] any[person=Paris@6+5] "
            "visit[person=Paris@6+5]");
}

TEST(RegexParserTest, IntentReceivesOnlyTagsItsSlotsName) {
  RegexParser parser;
  IntentConfig city_only;
  city_only.slots = {{"person", "city"}};  // the slot name plays no part
  city_only.regexRules = {u".*"};
  parser.Init({{"city_only", city_only}, {"both", Intent({"city", "person"}, {u"nothing"})}});
  const std::vector<SlotMatch> tags = {Tag("person", "Ann", 0), Tag("city", "Rome", 4),
                                       Tag("unnamed", "Rome", 4)};
  EXPECT_EQ(Parse(parser, u"Ann Rome", tags), "city_only[city=Rome@4+4]");

  const RegexParser::SortedTags sorted = parser.SortTags(tags);
  ASSERT_EQ(DumpTags(sorted.tags), "city=Rome@4+4 person=Ann@0+3 unnamed=Rome@4+4");
  EXPECT_TRUE(parser.CheckSlots(sorted, {}, 1));
  EXPECT_TRUE(parser.CheckSlots(sorted, {0}, 1));
  EXPECT_FALSE(parser.CheckSlots(sorted, {1}, 1));
  EXPECT_FALSE(parser.CheckSlots(sorted, {1, 0}, 1));
  EXPECT_TRUE(parser.CheckSlots(sorted, {1, 0}, 0));
  EXPECT_FALSE(parser.CheckSlots(sorted, {2}, 0));
  EXPECT_EQ(sorted.keys[2], RegexParser::kNoKey);
}

TEST(RegexParserTest, FirstMatchingRuleGivesTheOnlyCandidate) {
  RegexParser parser;
  parser.Init({{"i", Intent({"x"}, {u"nope", u"<x> b", u".*"})}});
  const RegexSubject rewritten(u"<x> b");
  EXPECT_FALSE(parser.MatchRule(rewritten, 0, 0));
  EXPECT_TRUE(parser.MatchRule(rewritten, 0, 1));
  EXPECT_TRUE(parser.MatchRule(rewritten, 0, 2));
  EXPECT_EQ(Parse(parser, u"a b", {Tag("x", "a", 0)}), "i[x=a@0+1]");
}

TEST(RegexParserTest, RuleThatDoesNotCompileFailsOnlyQueriesThatTryIt) {
  LogCapture cap;
  RegexParser parser;
  parser.Init({{"a", Intent({"x"}, {u"<x>", u"(<x>"})},
               {"b", Intent({"y"}, {u"[y"})},
               {"c", Intent({"z"}, {u".*"})}});
  EXPECT_EQ(cap.out(), "");
  EXPECT_EQ(cap.err(), "");

  EXPECT_EQ(Parse(parser, u"q", {Tag("x", "q", 0)}), "a[x=q@0+1]");  // stops at the first rule
  EXPECT_EQ(Parse(parser, u"q", {Tag("z", "q", 0)}), "c[z=q@0+1]");  // never reaches b
  EXPECT_EQ(cap.err(), "");

  int status = kUntouched;
  EXPECT_TRUE(parser.Process(u"q r", {Tag("x", "q", 0)}, status).empty());  // tries "(<x>"
  EXPECT_EQ(status, kStatusParserFailed);
  status = kUntouched;
  EXPECT_TRUE(parser.Process(u"q", {Tag("y", "q", 0)}, status).empty());
  EXPECT_EQ(status, kStatusParserFailed);
  EXPECT_EQ(cap.err(), std::string(kFailureLine) + kFailureLine);
  EXPECT_THROW(parser.MatchRule(RegexSubject(u"<y>"), 1, 0), RegexError);
}

TEST(RegexParserTest, KeyThatIsNotUtf8FailsOnlyWhenRewritten) {
  LogCapture cap;
  RegexParser parser;
  parser.Init({{"bad", Intent({"\xFF"}, {u".*"})}, {"good", Intent({"ok"}, {u".*"})}});
  EXPECT_EQ(Parse(parser, u"a", {Tag("ok", "a", 0)}), "good[ok=a@0+1]");
  EXPECT_EQ(cap.err(), "");

  int status = kUntouched;
  EXPECT_TRUE(parser.Process(u"a", {Tag("\xFF", "a", 0)}, status).empty());
  EXPECT_EQ(status, kStatusParserFailed);
  EXPECT_EQ(cap.err(), kFailureLine);

  const RegexParser::SortedTags sorted =
      parser.SortTags({Tag("\xFF", "a", 0), Tag("free", "b", 1)});
  ASSERT_EQ(sorted.tags[0].key, "free");  // 0xFF sorts after every ASCII byte
  EXPECT_EQ(parser.BuildTaggedQuery(u"ab", sorted, {0}), u"a<free>");  // a key no intent names
  EXPECT_THROW(parser.BuildTaggedQuery(u"ab", sorted, {1}), std::range_error);
}

TEST(RegexParserTest, RulesUsePosixExtendedGrammar) {
  RegexParser parser;
  parser.Init({{"alt", Intent({}, {u"a|ab", u"Call"})},
               {"escapes", Intent({}, {u"call [\\d]", u"\\d", u"(?:a)b"})}});
  EXPECT_TRUE(parser.MatchRule(RegexSubject(u"ab"), 0, 0));
  EXPECT_TRUE(parser.MatchRule(RegexSubject(u"a"), 0, 0));
  EXPECT_FALSE(parser.MatchRule(RegexSubject(u"abc"), 0, 0));
  EXPECT_FALSE(parser.MatchRule(RegexSubject(u"call"), 0, 1));  // case-sensitive
  // Inside brackets a backslash is an ordinary character.
  EXPECT_TRUE(parser.MatchRule(RegexSubject(u"call d"), 1, 0));
  EXPECT_TRUE(parser.MatchRule(RegexSubject(u"call \\"), 1, 0));
  EXPECT_FALSE(parser.MatchRule(RegexSubject(u"call 5"), 1, 0));
  EXPECT_THROW(parser.MatchRule(RegexSubject(u"5"), 1, 1), RegexError);
  EXPECT_THROW(parser.MatchRule(RegexSubject(u"ab"), 1, 2), RegexError);
}

TEST(RegexParserTest, MarkersKeepRegexSpecialCharactersOfNames) {
  RegexParser parser;
  parser.Init({{"plus", Intent({"c++"}, {u"learn <c\\+\\+>"})},
               {"dot", Intent({"a.b"}, {u"see <a\\.b>"})},
               {"paren", Intent({"x(y)"}, {u"<x\\(y\\)>!"})}});
  const std::vector<SlotMatch> tags = {Tag("c++", "C++", 6)};
  EXPECT_EQ(parser.BuildTaggedQuery(u"learn C++", parser.SortTags(tags), {0}), u"learn <c++>");
  EXPECT_EQ(Parse(parser, u"learn C++", tags), "plus[c++=C++@6+3]");
  EXPECT_EQ(Parse(parser, u"see it", {Tag("a.b", "it", 4)}), "dot[a.b=it@4+2]");
  EXPECT_EQ(Parse(parser, u"hi!", {Tag("x(y)", "hi", 0)}), "paren[x(y)=hi@0+2]");
}

TEST(RegexParserTest, SortKeepsInputOrderAmongEqualTagsInLongLists) {
  RegexParser parser;
  parser.Init({{"first", Intent({"w"}, {u"<w>.*"})}});
  std::vector<SlotMatch> tags;
  for (int i = 0; i < 40; ++i) {
    tags.push_back(Tag("w", "go", (i * 17) % 40 * 3));  // starts in no order
    if (i % 3 == 0) tags.push_back(Tag("a", "z", i));
    if (i % 4 == 0) tags.push_back(Tag("w", i % 8 == 0 ? "gone" : "g", i));
    if (i % 5 == 0) tags.push_back(Tag("\xC3\xA9", "x", i));  // after "z" byte-wise
  }
  const RegexParser::SortedTags sorted = parser.SortTags(tags);
  EXPECT_EQ(DumpTags(sorted.tags), DumpTags(RefSort(tags)));
  EXPECT_EQ(sorted.tags.front().key, "a");
  EXPECT_EQ(sorted.tags.back().key, "\xC3\xA9");

  // The one-tag combination of the word stands at its first place in the input.
  const std::string answer = Parse(parser, std::u16string(120, u' '), tags);
  EXPECT_NE(answer.find("first[w=go@0+2]"), std::string::npos);
  EXPECT_EQ(answer.find("first[w=go@33+2]"), std::string::npos);
}

TEST(RegexParserTest, CombinationLimitCutsTheCrossingGeneration) {
  // Eight touching tags: 8 + 28 + 56 combinations of one to three tags; the fourth generation
  // stops after the extensions of [1,2,3], the first that crosses 128.
  std::vector<SlotMatch> row;
  for (int i = 0; i < 8; ++i) {
    row.push_back(Tag("t", std::string(1, static_cast<char>('0' + i)), i));
  }
  const std::vector<Combination> combinations = RegexParser(128).BuildCombinations(row);
  EXPECT_EQ(combinations.size(), 131u);
  const std::set<Combination> held(combinations.begin(), combinations.end());
  EXPECT_EQ(held.count({0, 6, 7}), 1u);
  EXPECT_EQ(held.count({1, 2, 3, 7}), 1u);
  EXPECT_EQ(held.count({1, 2, 4, 5}), 0u);
  EXPECT_EQ(held.count({0, 1, 2, 3, 4}), 0u);
  EXPECT_EQ(RegexParser(36).BuildCombinations(row).size(), 36u);
  EXPECT_EQ(RegexParser(35).BuildCombinations(row).size(), 36u);
  EXPECT_EQ(RegexParser(8).BuildCombinations(row).size(), 8u);
  EXPECT_EQ(RegexParser(0).BuildCombinations(row).size(), 8u);
  EXPECT_EQ(RegexParser(1000).BuildCombinations(row).size(), 255u);

  std::mt19937 random(20240611);
  const std::vector<std::string> keys = {"a", "b", "\xC3\xA9"};
  const std::vector<std::string> values = {"x", "xy", "y"};
  int crossed = 0;
  int exhausted = 0;
  for (int trial = 0; trial < 120; ++trial) {
    const size_t limit = std::vector<size_t>{128, 128, 128, 40, 3}[trial % 5];
    std::vector<SlotMatch> tags;
    const int count = static_cast<int>(random() % 46);
    for (int i = 0; i < count; ++i) {
      SlotMatch tag = Tag(keys[random() % keys.size()], values[random() % values.size()],
                          static_cast<int32_t>(random() % 30));
      tag.length = static_cast<int32_t>(1 + random() % 4);
      tags.push_back(tag);
    }
    const RegexParser parser(limit);
    const RegexParser::SortedTags sorted = parser.SortTags(tags);
    const std::vector<std::string> actual =
        DumpCombinations(sorted.tags, parser.BuildCombinations(sorted.tags));
    const std::vector<std::string> expected = RefCombinations(RefSort(tags), limit);
    ASSERT_EQ(actual, expected) << "trial " << trial;
    if (expected.size() > limit) ++crossed;
    if (count > 0 && expected.size() < limit) ++exhausted;
  }
  // The generated lists reach both ways of stopping.
  EXPECT_GT(crossed, 10);
  EXPECT_GT(exhausted, 10);
}

TEST(RegexParserTest, ProcessGivesTheSameAnswersFromManyThreads) {
  RegexParser parser;
  parser.Init({{"call", Intent({"contact"}, {u"call <contact>( and <contact>)*"})},
               {"meet", Intent({"contact", "day"}, {u"meet <contact> <day>", u"<day>.*"})}});
  const std::vector<std::pair<std::u16string, std::vector<SlotMatch>>> queries = {
      {u"call Ann and Bob", {Tag("contact", "Ann", 5), Tag("contact", "Bob", 13)}},
      {u"meet Ann friday", {Tag("contact", "Ann", 5), Tag("day", "friday", 9)}},
      {u"friday", {Tag("day", "friday", 0), Tag("day", "fri", 0)}},
  };
  std::vector<std::string> expected;
  for (const auto& [query, tags] : queries) expected.push_back(Parse(parser, query, tags));
  EXPECT_EQ(expected[0], "call[contact=Ann@5+3,contact=Bob@13+3]");

  std::atomic<int> mismatches{0};
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&] {
      for (int round = 0; round < 50; ++round) {
        for (size_t i = 0; i < queries.size(); ++i) {
          int status = 0;
          const std::vector<IntentCandidate> candidates =
              parser.Process(queries[i].first, queries[i].second, status);
          const std::string got = DumpCandidates(candidates, queries[i].first);
          if (status != 0 || got != expected[i]) ++mismatches;
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(mismatches.load(), 0);
}

}  // namespace
}  // namespace rulenlu
