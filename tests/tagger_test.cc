#include "nlu/tagger.h"

#include <gtest/gtest.h>

#include <optional>
#include <random>
#include <string>
#include <thread>
#include <tuple>
#include <vector>

#include "base/error.h"
#include "base/text.h"
#include "log_capture.h"
#include "tag_dump.h"

namespace rulenlu {
namespace {

using Variables = std::vector<std::pair<std::string, std::u16string>>;
using RegexVocabularies = std::map<std::string, std::vector<std::u16string>>;

// Dumps the tags of `query` (UTF-8), or "failed" when tagging throws the library's Error.
std::string Tags(const Tagger& tagger, const std::string& query) {
  try {
    const std::u16string wide = Utf8ToUtf16(query);
    std::vector<SlotMatch> slots;
    for (const QueryTag& tag : tagger.Tag(wide)) slots.push_back(tagger.ToSlot(tag, wide));
    return DumpTags(slots);
  } catch (const Error&) {
    return "failed";
  }
}

TEST(Tagger, InitExpandsVariablesThenCompilesEveryPattern) {
  const char* kQuery = "1 12:30 noon <xx>efirst\xE4\xBC\x9A";
  const std::string kWords = "w=1@0+1 w=1@2+1";
  const RegexVocabularies uses_v = {{"r", {u"${v}"}}};
  // variables, regex vocabularies, log after the marker line, tags of kQuery.
  // clang-format off
  const std::vector<std::tuple<Variables, RegexVocabularies, std::string, std::string>> cases = {
      // Variables expand in list order; references side by side stay two; a name may be empty;
      // of two entries with one name the first wins. Dictionary tags come first, then regex
      // vocabularies in name order, patterns in list order.
      {{{"h", u"[0-9]{1,2}"}, {"m", u"[0-5][0-9]"}, {"a", u"x"}, {"both", u"${a}${a}"},
        {"", u"e"}, {"dup", u"first"}, {"dup", u"${a}"}},
       {{"time", {u"${h}:${m}", u"noon"}}, {"\xE4\xBC\x9A", {u"<${both}>${}${dup}\u4F1A"}}},
       "new regex:[0-9]{1,2}:[0-5][0-9]\nnew regex:noon\nnew regex:<xx>efirst\xE4\xBC\x9A\n"
       "pattern:[0-9]{1,2}:[0-5][0-9]\npattern:noon\npattern:<xx>efirst\xE4\xBC\x9A\n",
       kWords + " time=12:30@2+5 time=noon@8+4 \xE4\xBC\x9A=<xx>efirst\xE4\xBC\x9A@13+11"},
      // A failed expansion is silent and leaves every regex vocabulary out.
      {{{"v", u"${w}"}, {"w", u"1"}}, uses_v, "", kWords},  // refers to a later one
      {{{"v", u""}}, uses_v, "", kWords},
      {{{"v", u"1"}, {"v", u"${nope}"}}, uses_v, "", kWords},
      {{{"v", u"1"}}, {{"r", {u"${w}"}}}, "new regex:\n", kWords},
      {{}, {{"r", {u""}}}, "new regex:\n", kWords},
      {{{"v", u"1"}}, {{"a", {u"${v}"}}, {"b", {u"${x}"}}}, "new regex:1\nnew regex:\n", kWords},
      // A pattern matching empty text fails the query, also at the end after a match.
      {{}, {{"r", {u"a*"}}}, "new regex:a*\npattern:a*\n", "failed"},
      {{}, {{"r", {u"\u4F1A|$"}}}, "new regex:\xE4\xBC\x9A|$\npattern:\xE4\xBC\x9A|$\n", "failed"}};
  // clang-format on
  for (const auto& [variables, patterns, log, tags] : cases) {
    LogCapture cap;
    const Tagger tagger({{"w", {u"1"}}}, patterns, variables);
    EXPECT_EQ(cap.out(), "3333333333333333333333333\n" + log);
    EXPECT_EQ(Tags(tagger, kQuery), tags) << log;
    EXPECT_EQ(cap.err(), "");
  }

  LogCapture cap;
  EXPECT_THROW(Tagger({}, {{"a", {u"ok", u"(bad"}}, {"b", {u"later"}}}, {}), RegexError);
  EXPECT_EQ(cap.out(),
            "3333333333333333333333333\nnew regex:ok\nnew regex:(bad\nnew regex:later\n"
            "pattern:ok\npattern:(bad\n");
}

TEST(Tagger, ExpandsOnlyCompleteVariableReferences) {
  const Variables variables = {{"a", u"1"}, {"b", u"22"}, {"dollar", u"$"}, {"\xC3\xA9", u"acute"}};
  // The expansion of pattern `text`, as logged: whether it compiles takes no part.
  auto replace = [&](const std::u16string& text) {
    LogCapture cap;
    try {
      const Tagger tagger({}, {{"r", {text}}}, variables);
    } catch (const RegexError&) {
    }
    const std::string log = cap.out();
    const size_t begin = log.find("new regex:") + 10;
    const size_t end =
        log.find("\npattern:") != std::string::npos ? log.find("\npattern:") : log.size() - 1;
    return Utf8ToUtf16(log.substr(begin, end - begin));
  };
  // What does not begin a complete reference on one line stays as written; an unknown name gives
  // up the whole text.
  EXPECT_EQ(replace(u"$a {a} $ { } ${a\n} ${a"), u"$a {a} $ { } ${a\n} ${a");
  for (const char16_t* text : {u"${a} ${zz}", u"${A}", u"${a }"}) EXPECT_EQ(replace(text), u"");
  EXPECT_EQ(replace(u"x${a}y${b}z${a}${\u00E9}$${a}}"), u"x1y22z1acute$1}");
  // A reference ends at the first closing brace; an expansion can complete a reference.
  EXPECT_EQ(replace(u"${a}b} ${dollar}{b}"), u"1b} 22");
  const std::u16string filler(5000, u'x');  // length is no limit
  EXPECT_EQ(replace(filler + u"${a}" + filler + u"${b}"), filler + u"1" + filler + u"22");
}

TEST(Tagger, ExpansionStopsPastThePatternLengthLimit) {
  // 30 variables, each twice the one before: fully expanded, the last would be 44 GiB.
  Variables doubling = {{"v0", std::u16string(44, u'a')}};
  for (int i = 1; i < 30; ++i) {
    const std::u16string previous = u"${v" + Utf8ToUtf16(std::to_string(i - 1)) + u"}";
    doubling.emplace_back("v" + std::to_string(i), previous + previous);
  }
  // A bracket expression: a pattern of one atom, however long.
  const std::u16string limit_x = u"[" + std::u16string(kMaxRegexPatternLength - 4, u'x') + u"]";
  const std::string kept = "new regex:[" + std::string(kMaxRegexPatternLength - 4, 'x') + "]|a\n";
  // variables, regex vocabularies, log after the marker line, tags of "1 a".
  const std::vector<std::tuple<Variables, RegexVocabularies, std::string, std::string>> cases = {
      // v6 is 44 * 64 = 2816 units: v7 would be 5632. Every regex vocabulary is left out.
      {doubling,
       {{"r", {u"${v29}"}}},
       "variable expansion too long: ${v6} in variable v7 exceeds 4096 units\n",
       "w=1@0+1"},
      // A pattern may be expanded to the limit, not beyond.
      {{{"x", limit_x}},
       {{"r", {u"${x}|a"}}},
       kept + "pattern:" + kept.substr(10),
       "w=1@0+1 r=a@2+1"},
      {{{"x", limit_x}},
       {{"r", {u"${x}|ab"}}},
       "variable expansion too long: ${x} in regex vocabulary r exceeds 4096 units\n"
       "new regex:\n",
       "w=1@0+1"}};
  for (const auto& [variables, patterns, log, tags] : cases) {
    LogCapture cap;
    const Tagger tagger({{"w", {u"1"}}}, patterns, variables);
    EXPECT_EQ(cap.out(), "3333333333333333333333333\n" + log);
    EXPECT_EQ(Tags(tagger, "1 a"), tags);
  }
}

TEST(Tagger, RefusesQueriesPastTheTagAndLookupBounds) {
  const size_t length = 2048;
  const std::u16string query(length, u'a');
  // Dictionary tags of `query` for every prefix a, aa, ... of `prefixes` units.
  auto prefix_tags = [&](size_t prefixes) {
    size_t count = 0;
    for (size_t start = 0; start < length; ++start) count += std::min(prefixes, length - start);
    return count;
  };
  // The number of tags of `query` with words `words` and regex vocabulary patterns `patterns`,
  // or nothing when it is refused.
  auto count_tags = [&](const std::vector<std::u16string>& words,
                        const std::vector<std::u16string>& patterns) -> std::optional<size_t> {
    LogCapture cap;
    RegexVocabularies regex_vocabularies;
    if (!patterns.empty()) regex_vocabularies["r"] = patterns;
    const Tagger tagger({{"w", WordList(words)}}, regex_vocabularies, {});
    try {
      return tagger.Tag(query).size();
    } catch (const Error&) {
      return std::nullopt;
    }
  };
  auto prefixes = [](size_t n) {
    std::vector<std::u16string> words;
    for (size_t k = 1; k <= n; ++k) words.push_back(std::u16string(k, u'a'));
    return words;
  };
  // The most prefixes whose tags fit the bound, alone and with one regex tag per unit.
  const size_t bound = MaxQueryTags(length);
  size_t fit = 1, fit_with_regex = 1;
  while (prefix_tags(fit + 1) <= bound) ++fit;
  while (prefix_tags(fit_with_regex + 1) + length <= bound) ++fit_with_regex;
  // words, regex patterns, the tag count expected, or nothing when refused.
  const std::vector<
      std::tuple<std::vector<std::u16string>, std::vector<std::u16string>, std::optional<size_t>>>
      cases = {{prefixes(fit), {}, prefix_tags(fit)},
               {prefixes(fit + 1), {}, std::nullopt},
               // Every prefix of the query: two million tags, refused.
               {prefixes(length), {}, std::nullopt},
               // Regex tags count too.
               {prefixes(fit_with_regex), {u"a"}, prefix_tags(fit_with_regex) + length},
               {prefixes(fit_with_regex + 1), {u"a"}, std::nullopt},
               // No tag at all, but a word followed 512 units from every start: 0.9 M units read;
               // at 1024 units, 1.6 M.
               {{std::u16string(511, u'a') + u"b"}, {}, 0},
               {{std::u16string(1023, u'a') + u"b"}, {}, std::nullopt}};
  for (const auto& [words, patterns, expected] : cases) {
    EXPECT_EQ(count_tags(words, patterns), expected)
        << words.size() << " words, longest " << words.rbegin()->size();
  }
}

TEST(Tagger, FindsRegexMatchesInUtf16UnitsOnAnyThread) {
  LogCapture cap;
  // clang-format off
  const Tagger tagger({{"w", {u"ab", u"\U0001F600"}}}, {{"any", {u"b|x"}}, {"pair", {u"aa", u"(a)(a)a"}},
                      {"start", {u"^a"}}, {"word", {u"\\bab"}}}, {});
  // Matches of one pattern never overlap; a search resumed mid-query still sees the whole query
  // (^ only at its start, \b looks at the unit before); a byte-order mark is a character; the
  const std::vector<std::pair<std::string, std::string>> cases = {
      {"aaaaa", "pair=aa@0+2 pair=aa@2+2 pair=aaa@0+3 start=a@0+1"},
      {"abab ab", "w=ab@0+2 w=ab@2+2 w=ab@5+2 any=b@1+1 any=b@3+1 any=b@6+1 start=a@0+1 "
                  "word=ab@0+2 word=ab@5+2"},
      {"\xEF\xBB\xBF\xF0\x9F\x98\x80xab", "w=\xF0\x9F\x98\x80@1+2 w=ab@4+2 any=x@3+1 any=b@5+1"},
      {"", ""}};
  // clang-format on
  for (const auto& [query, tags] : cases) EXPECT_EQ(Tags(tagger, query), tags);
  EXPECT_EQ(cap.err(), "");
  // The same answers on several threads at once.
  auto check_all = [&] {
    for (int round = 0; round < 200; ++round) {
      for (const auto& [query, tags] : cases) EXPECT_EQ(Tags(tagger, query), tags);
    }
  };
  std::vector<std::thread> threads;
  for (int t = 0; t < 4; ++t) threads.emplace_back(check_all);
  for (std::thread& thread : threads) thread.join();
}

TEST(Tagger, DictionaryTagsAgreeWithBruteForce) {
  LogCapture cap;
  std::mt19937 random(20240611);
  auto pick = [&](size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(random); };
  // Letters in both cases, a two-unit character, a non-ASCII one, the empty word; names that sort
  // byte-wise.
  const std::u16string pieces[] = {u"a", u"b", u"c", u"A", u"\U0001F600", u"\u00E9"};
  const std::string names[] = {"a", "B", "b", "ab", "\xC3\xA9", "z"};
  auto text = [&](size_t max_pieces) {
    std::u16string out;
    for (size_t n = pick(max_pieces + 1); n > 0; --n) out += pieces[pick(6)];
    return out;
  };
  for (int round = 0; round < 300; ++round) {
    // Words in any order, some repeated.
    std::map<std::string, std::vector<std::u16string>> vocabularies;
    vocabularies.emplace(names[pick(6)], std::vector<std::u16string>());  // maybe with no word
    for (size_t w = pick(20); w > 0; --w) vocabularies[names[pick(6)]].push_back(text(4));
    std::map<std::string, WordList> lists;
    for (const auto& [name, words] : vocabularies) lists.emplace(name, WordList(words));
    const Tagger tagger(lists, {}, {});
    for (int q = 0; q < 10; ++q) {
      std::u16string query = text(24);
      // Now and then a longer query.
      while (q == 0 && round % 10 == 0 && query.size() < 2048) query += text(24);
      if (query.size() > 0 && query.back() >= 0xD800 && query.back() <= 0xDBFF) query.pop_back();
      std::vector<SlotMatch> expected;  // by vocabulary name, start, length (words <= 8 units)
      for (const auto& [name, words] : vocabularies) {
        for (size_t start = 0; start < query.size(); ++start) {
          for (size_t length = 1; length <= 8 && start + length <= query.size(); ++length) {
            if (std::count(words.begin(), words.end(), query.substr(start, length)) == 0) continue;
            expected.push_back({name, query.substr(start, length), static_cast<int32_t>(start),
                                static_cast<int32_t>(length)});
          }
        }
      }
      ASSERT_EQ(Tags(tagger, Utf16ToUtf8(query)), DumpTags(expected)) << "round " << round;
      // Word numbers compare as the words do.
      const std::vector<QueryTag> tags = tagger.Tag(query);
      for (const QueryTag& a : tags) {
        for (const QueryTag& b : tags) {
          const int order = query.compare(a.start, a.length, query, b.start, b.length);
          ASSERT_EQ(a.word < b.word, order < 0) << "round " << round;
          ASSERT_EQ(a.word == b.word, order == 0) << "round " << round;
        }
      }
    }
  }
  // Queries have no length limit: a million units of words are tagged.
  std::u16string million;
  while (million.size() < 1000000) million += u"a ";
  const Tagger tagger({{"v", {u"a"}}}, {}, {});
  EXPECT_EQ(tagger.Tag(million).size(), million.size() / 2);
}

}  // namespace
}  // namespace rulenlu
