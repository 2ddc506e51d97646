#include "nlu/regex_parser.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <cstdint>
#include <map>
#include <random>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "base/error.h"
#include "base/text.h"
#include "log_capture.h"
#include "nlu/ranker.h"
#include "tag_dump.h"

namespace rulenlu {
namespace {

SlotMatch Tag(const std::string& key, const std::u16string& value, int32_t start) {
  return {key, value, start, static_cast<int32_t>(value.size())};
}

// Every vocabulary name the tests tag with, in byte-wise order, as the tagger lists them.
const std::vector<std::string>& Names() {
  static const std::vector<std::string> names = {"a", "b", "c",        "c++", "city", "contact",
                                                 "e", "f", "person",   "t",   "town", "unnamed",
                                                 "x", "y", "\xC3\xA9", "\xFF"};
  return names;
}

// `tags` as the tagger hands them over; each tag's text must stand in `query` where it starts.
// Most tags come numbered as vocabulary words are, by their texts' order; the others, as regex
// tags, without a number, so that a vocabulary's tags may be either or both.
std::vector<QueryTag> ToQueryTags(const std::vector<SlotMatch>& tags, const std::u16string& query) {
  std::set<std::u16string> texts;
  for (const SlotMatch& tag : tags) texts.insert(tag.value);
  std::vector<QueryTag> out;
  for (const SlotMatch& tag : tags) {
    EXPECT_EQ(query.substr(tag.start, tag.length), tag.value);
    const auto name = std::lower_bound(Names().begin(), Names().end(), tag.key);
    EXPECT_TRUE(name != Names().end() && *name == tag.key) << tag.key;
    const auto vocab = static_cast<uint32_t>(name - Names().begin());
    const auto word = static_cast<uint32_t>(std::distance(texts.begin(), texts.find(tag.value)));
    const bool numbered = (vocab + static_cast<uint32_t>(tag.start)) % 3 != 0;
    out.push_back({vocab, tag.start, tag.length, numbered ? word : QueryTag::kNoWord});
  }
  return out;
}

// `count` tags of `query` (at least 5 units) at random places, some equal in several places,
// some empty.
std::vector<SlotMatch> RandomTags(std::mt19937& random, const std::u16string& query,
                                  const std::vector<std::string>& keys, size_t count) {
  std::vector<SlotMatch> tags;
  for (size_t i = 0; i < count; ++i) {
    const int32_t start = static_cast<int32_t>(random() % (query.size() - 4));
    const int32_t length = static_cast<int32_t>(random() % 5);
    tags.push_back({keys[random() % keys.size()], query.substr(start, length), start, length});
  }
  return tags;
}

// An intent accepting `keys`, each under a slot name that differs from the key.
IntentConfig Intent(const std::vector<std::string>& keys, std::vector<std::u16string> rules) {
  IntentConfig intent{"name field, not used", {}, std::move(rules), {}};
  for (const std::string& key : keys) intent.slots.emplace_back("slot_" + key, key);
  return intent;
}

// Every candidate of the exhaustive search, or nothing when one of its steps fails.
std::optional<std::vector<IntentCandidate>> AllCandidates(const RegexParser& parser,
                                                          const std::u16string& query,
                                                          const std::vector<SlotMatch>& tags) {
  const ParseTrace trace = parser.Explain(query, ToQueryTags(tags, query));
  for (const ParseTrace::Combination& combination : trace.combinations) {
    for (const ParseTrace::IntentStep& step : combination.intents) {
      if (!step.error.empty()) return std::nullopt;
    }
  }
  std::vector<IntentCandidate> candidates;
  for (const ParseTrace::Candidate& found : trace.candidates) {
    candidates.push_back(found.candidate);
  }
  return candidates;
}

// Dumps the candidates of the exhaustive search as "intent[tags]", or "failed" when one of its
// steps fails. Every candidate has version 0 and the query as its text.
std::string Parse(const RegexParser& parser, const std::u16string& query,
                  std::vector<SlotMatch> tags) {
  const std::optional<std::vector<IntentCandidate>> candidates = AllCandidates(parser, query, tags);
  if (!candidates.has_value()) return "failed";
  std::string out;
  for (const IntentCandidate& candidate : *candidates) {
    EXPECT_EQ(candidate.version, 0);
    EXPECT_EQ(candidate.text, query);
    out += (out.empty() ? "" : " ") + candidate.intent + "[" + DumpTags(candidate.slots) + "]";
  }
  return out;
}

// The candidates of one intent accepting every tag with the rule ".*", written plainly over
// copies of the tags: a reference for the parser's own combinations.
bool RefTagLess(const SlotMatch& a, const SlotMatch& b) {
  return std::tie(a.key, a.value) < std::tie(b.key, b.value);
}

bool RefLess(const std::vector<SlotMatch>& a, const std::vector<SlotMatch>& b) {
  return std::lexicographical_compare(a.begin(), a.end(), b.begin(), b.end(), RefTagLess);
}

std::string RefCandidates(std::vector<SlotMatch> tags, size_t limit) {
  std::stable_sort(tags.begin(), tags.end(), RefTagLess);
  using Set = std::set<std::vector<SlotMatch>, decltype(&RefLess)>;
  Set generation(&RefLess);
  for (const SlotMatch& tag : tags) generation.insert({tag});
  Set result = generation;
  // Generations differ in length, so the one crossing the limit leaves result.size() > limit.
  while (result.size() < limit && !generation.empty()) {
    Set next(&RefLess);
    for (const std::vector<SlotMatch>& combination : generation) {
      // Unsigned: an empty tag at offset 0 lets nothing follow.
      const uint32_t last_unit = static_cast<uint32_t>(combination.back().start) +
                                 static_cast<uint32_t>(combination.back().length) - 1u;
      for (const SlotMatch& tag : tags) {
        if (static_cast<uint32_t>(tag.start) <= last_unit) continue;
        std::vector<SlotMatch> longer = combination;
        longer.push_back(tag);
        next.insert(std::move(longer));
      }
      if (result.size() + next.size() > limit) break;
    }
    result.insert(next.begin(), next.end());
    generation = std::move(next);
  }
  std::string out;
  for (const auto& combination : result) {
    out += (out.empty() ? "i[" : " i[") + DumpTags(combination) + "]";
  }
  return out;
}

TEST(RegexParser, RewritesTagCombinationsAndMatchesThemWhole) {
  LogCapture cap;
  // clang-format off
  const RegexParser parser({
      {"call", Intent({"contact"}, {u"call <contact> now"})}, {"no_slots", Intent({}, {u".*"})},
      {"prefix", Intent({"contact"}, {u"call <contact>"})}, {"town", Intent({"town"}, {u".*"})},
      {"travel", Intent({"city"}, {u"go to <city>"})}, {"fails", Intent({"x"}, {u"<x>", u"(<x>"})},
      {"visit", Intent({"person"}, {u"go to <person>"})}, {"posix", Intent({"y"}, {u"\\d"})},
      {"any", Intent({"city", "person"}, {u"go to <(city|person)>"})},
      {"first", Intent({"f"}, {u"nope", u"<f> b", u".*"})}, {"bad_key", Intent({"\xFF"}, {u".*"})},
      {"plus", Intent({"c++"}, {u"learn <c\\+\\+>"})}, {"bracket", Intent({"e"}, {u"<e> [\\d]"})},
      {"rewrite", Intent({"b", "c", "town"}, {u"<town><b>, <c>!"})}}, Names());
  const std::vector<std::tuple<std::u16string, std::vector<SlotMatch>, std::string>> cases = {
      // A candidate needs a rule matching the whole rewritten query, and an intent that names
      // every tag's key in its slots.
      {u"call Tom now", {Tag("contact", u"Tom", 5)}, "call[contact=Tom@5+3]"},
      {u"hello", {}, ""},
      {u"Ann Rome", {Tag("person", u"Ann", 0), Tag("town", u"Rome", 4), Tag("unnamed", u"Rome", 4)},
       "town[town=Rome@4+4]"},
      // Combinations in order, for each the intents in name order, the first matching rule.
      {u"go to Paris", {Tag("person", u"Paris", 6), Tag("city", u"Paris", 6)},
       "any[city=Paris@6+5] travel[city=Paris@6+5] any[person=Paris@6+5] visit[person=Paris@6+5]"},
      {u"a b", {Tag("f", u"a", 0)}, "first[f=a@0+1]"},
      // Markers keep a key as it is; rules are POSIX (in brackets a backslash is itself).
      {u"learn C++", {Tag("c++", u"C++", 6)}, "plus[c++=C++@6+3]"},
      {u"q d", {Tag("e", u"q", 0)}, "bracket[e=q@0+1]"}, {u"q 5", {Tag("e", u"q", 0)}, ""},
      // A rule that does not compile, or a key that is not UTF-8, fails only the queries that
      // need it.
      {u"q", {Tag("x", u"q", 0)}, "fails[x=q@0+1]"}, {u"q r", {Tag("x", u"q", 0)}, "failed"},
      {u"q", {Tag("y", u"q", 0)}, "failed"}, {u"a", {Tag("\xFF", u"a", 0)}, "failed"},
      // Text before, between and after tags is copied; touching tags give adjacent markers.
      {u"xyy, z!", {Tag("b", u"yy", 1), Tag("c", u"z", 5), Tag("town", u"x", 0)},
       "town[town=x@0+1] rewrite[town=x@0+1 b=yy@1+2 c=z@5+1]"}};
  // clang-format on
  EXPECT_EQ(cap.out() + cap.err(), "");
  for (const auto& [query, tags, expected] : cases) {
    EXPECT_EQ(Parse(parser, query, tags), expected) << Utf16ToUtf8(query);
  }
  // The same answers on several threads at once.
  auto check_all = [&] {
    for (int round = 0; round < 50; ++round) {
      for (const auto& [query, tags, expected] : cases) {
        EXPECT_EQ(Parse(parser, query, tags), expected);
      }
    }
  };
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) threads.emplace_back(check_all);
  for (std::thread& thread : threads) thread.join();
}

TEST(RegexParser, CombinesTagsUpToTheLimit) {
  // Eight touching tags: 8 + 28 + 56 combinations of one to three tags, then the generation that
  // crosses the limit stops after the extensions of the combination that crossed it.
  std::vector<SlotMatch> row;
  for (int i = 0; i < 8; ++i) row.push_back(Tag("t", std::u16string(1, u'0' + i), i));
  const std::pair<size_t, size_t> sizes[] = {{128, 131}, {36, 36}, {35, 36}, {0, 8}, {1000, 255}};
  for (const auto& [limit, size] : sizes) {
    const RegexParser parser({{"i", Intent({"t"}, {u".*"})}}, Names(), limit);
    EXPECT_EQ(AllCandidates(parser, u"01234567", row)->size(), size) << limit;
  }

  // Random tags, among them equal ones in several places and empty ones, against the reference.
  std::mt19937 random(20240611);
  for (int trial = 0; trial < 120; ++trial) {
    const size_t limit = std::vector<size_t>{128, 128, 128, 40, 3}[trial % 5];
    const RegexParser parser({{"i", Intent({"a", "b", "\xC3\xA9"}, {u".*"})}}, Names(), limit);
    std::u16string query;
    for (int i = 0; i < 40; ++i) query += u"xy"[random() % 2];
    const std::vector<SlotMatch> tags =
        RandomTags(random, query, {"a", "b", "\xC3\xA9"}, random() % 46);
    ASSERT_EQ(Parse(parser, query, tags), RefCandidates(tags, limit)) << trial;
  }
}

// The best candidate in rank order must be the one the ranker picks among all candidates, and a
// failure must come exactly when the exhaustive search fails: random intents with overlapping
// slots, rules that match some rewritten queries, rules that do not compile and keys that are
// not UTF-8, over random tags.
TEST(RegexParser, BestCandidateIsTheRankersChoiceAmongAll) {
  std::mt19937 random(20261123);
  auto pick = [&](size_t n) { return static_cast<size_t>(random() % n); };
  const std::vector<std::string> keys = {"a", "b", "c", "\xFF"};
  const std::u16string rules[] = {
      u".*",    u"<a>.*", u".*<b>",      u"<a><b>.*",     u"(<c> ?)+.*", u".*y.*",      u"<b>",
      u"[^<]*", u"(",     u"<c>.*<a>.*", u"(<a>|<b>) .*", u"x.*",        u".*<b> <c>.*"};
  int failures = 0, answers = 0;
  for (int trial = 0; trial < 3000; ++trial) {
    std::map<std::string, IntentConfig> intents;
    for (size_t i = pick(5) + 1; i > 0; --i) {
      std::vector<std::string> accepted;
      for (const std::string& key : keys) {
        if (pick(3) > 0 && (key != "\xFF" || pick(8) == 0)) accepted.push_back(key);
      }
      std::vector<std::u16string> intent_rules;
      for (size_t r = pick(4); r > 0; --r) {
        const std::u16string& rule = rules[pick(std::size(rules))];
        if (rule != u"(" || pick(6) == 0) intent_rules.push_back(rule);
      }
      intents["i" + std::to_string(i)] = Intent(accepted, intent_rules);
    }
    const RegexParser parser(intents, Names(), trial % 3 == 0 ? 5 : 128);
    std::u16string query;
    for (int i = 0; i < 12; ++i) query += u"xyz <"[pick(5)];
    const std::vector<SlotMatch> tags = RandomTags(random, query, keys, pick(10));
    // The ranker's choice among every candidate of the exhaustive search.
    std::string expected = "failed";
    const std::optional<std::vector<IntentCandidate>> all = AllCandidates(parser, query, tags);
    if (all.has_value()) {
      const IntentCandidate winner = Ranker::Rank(query, *all);
      expected = winner.intent + "[" + DumpTags(winner.slots) + "]";
    }
    std::string got;
    try {
      const std::optional<IntentCandidate> best = parser.Parse(query, ToQueryTags(tags, query));
      got = best.has_value() ? best->intent + "[" + DumpTags(best->slots) + "]" : "unknown[]";
    } catch (const Error&) {
      got = "failed";
    }
    ASSERT_EQ(got, expected) << "trial " << trial;
    failures += expected == "failed";
    answers += expected != "failed" && expected != "unknown[]";
  }
  // The cases must reach all three outcomes often enough to mean something.
  EXPECT_GT(failures, 150);
  EXPECT_GT(answers, 800);
}

}  // namespace
}  // namespace rulenlu
