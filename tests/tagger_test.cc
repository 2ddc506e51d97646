#include "nlu/tagger.h"

#include <gtest/gtest.h>

#include <cstdio>
#include <random>
#include <string>
#include <thread>
#include <vector>

#include "engine/text.h"
#include "log_capture.h"

namespace rulenlu {
namespace {

using Vocabularies = std::map<std::string, std::set<std::u16string>>;
using RegexVocabularies = std::map<std::string, std::vector<std::u16string>>;
using Variables = std::vector<std::pair<std::string, std::u16string>>;

// One tag as "key:value@start+length"; units outside printable ASCII as \uXXXX.
std::string Dump(const SlotMatch& tag) {
  std::string out = tag.key + ":";
  for (char16_t unit : tag.value) {
    if (unit >= 0x20 && unit < 0x7F) {
      out += static_cast<char>(unit);
    } else {
      char escaped[8];
      std::snprintf(escaped, sizeof escaped, "\\u%04X", static_cast<unsigned>(unit));
      out += escaped;
    }
  }
  return out + "@" + std::to_string(tag.start) + "+" + std::to_string(tag.length);
}

std::string Dump(const std::vector<SlotMatch>& tags) {
  std::string out;
  for (const SlotMatch& tag : tags) out += (out.empty() ? "" : " ") + Dump(tag);
  return out;
}

// Tags `query` and dumps the tags; the status must stay as it was.
std::string Tags(const Tagger& tagger, const char* query) {
  std::u16string wide;
  int status = 0;
  const std::vector<SlotMatch> tags = tagger.Process(query, &wide, status);
  EXPECT_EQ(status, 0) << query;
  return Dump(tags);
}

// The dictionary tags as the plain brute-force loop finds them: every vocabulary in name order,
// every start, every length up to the vocabulary's longest word.
std::vector<SlotMatch> ReferenceDictionaryTags(const Vocabularies& vocabularies,
                                               const std::u16string& query) {
  std::vector<SlotMatch> tags;
  for (const auto& [name, words] : vocabularies) {
    size_t longest = 0;
    for (const std::u16string& word : words) longest = std::max(longest, word.size());
    for (size_t start = 0; start < query.size(); ++start) {
      for (size_t length = 1; length <= longest && start + length <= query.size(); ++length) {
        const std::u16string piece = query.substr(start, length);
        if (words.count(piece) != 0) {
          tags.push_back(
              SlotMatch{name, piece, static_cast<int32_t>(start), static_cast<int32_t>(length)});
        }
      }
    }
  }
  return tags;
}

TEST(TaggerInit, LogsMarkerThenExpansionsThenPatterns) {
  LogCapture cap;
  Tagger tagger;
  tagger.Init({{"city", {u"Paris"}}}, {{"time", {u"${h}:${m}", u"noon"}}, {"digits", {u"[0-9]+"}}},
              {{"h", u"[0-9]{1,2}"}, {"m", u"[0-5][0-9]"}});
  EXPECT_EQ(cap.out(),
            "3333333333333333333333333\n"
            "new regex:[0-9]+\n"
            "new regex:[0-9]{1,2}:[0-5][0-9]\n"
            "new regex:noon\n"
            "pattern:[0-9]+\n"
            "pattern:[0-9]{1,2}:[0-5][0-9]\n"
            "pattern:noon\n");
  EXPECT_EQ(cap.err(), "");

  // Dictionary tags first; then regex vocabularies by name, patterns in order.
  EXPECT_EQ(Tags(tagger, "Paris at 12:30 or noon"),
            "city:Paris@0+5 digits:12@9+2 digits:30@12+2 time:12:30@9+5 time:noon@18+4");
}

TEST(TaggerInit, LogsOnlyTheMarkerWithoutRegexVocabularies) {
  LogCapture cap;
  Tagger tagger;
  tagger.Init({{"w", {u"x"}}}, {}, {{"unused", u"1"}});
  EXPECT_EQ(cap.out(), "3333333333333333333333333\n");
  EXPECT_EQ(Tags(tagger, "xx"), "w:x@0+1 w:x@1+1");
}

TEST(TaggerInit, PatternLinesShowNonAsciiText) {
  LogCapture cap;
  Tagger tagger;
  tagger.Init({}, {{"\xE4\xBC\x9A", {u"\u4F1A${x}"}}}, {{"x", u"\u8BAE"}});
  EXPECT_EQ(cap.out(),
            "3333333333333333333333333\n"
            "new regex:\xE4\xBC\x9A\xE8\xAE\xAE\n"
            "pattern:\xE4\xBC\x9A\xE8\xAE\xAE\n");
  EXPECT_EQ(Tags(tagger, "\xE4\xBC\x9A\xE8\xAE\xAE!"), "\xE4\xBC\x9A:\\u4F1A\\u8BAE@0+2");
}

TEST(TaggerInit, FailedExpansionLeavesOnlyDictionaryTags) {
  struct Case {
    const char* what;
    Variables variables;
    RegexVocabularies patterns;
    std::string expected_log;  // after the marker line
  };
  const RegexVocabularies uses_v = {{"r", {u"${v}"}}};
  const std::vector<Case> cases = {
      {"reference to a later variable", {{"v", u"${w}"}, {"w", u"1"}}, uses_v, ""},
      {"empty variable value", {{"v", u""}}, uses_v, ""},
      {"second duplicate fails", {{"v", u"1"}, {"v", u"${nope}"}}, uses_v, ""},
      {"unknown name in a pattern", {{"v", u"1"}}, {{"r", {u"${w}"}}}, "new regex:\n"},
      {"empty name", {{"v", u"1"}}, {{"r", {u"${}"}}}, "new regex:\n"},
      {"empty pattern", {}, {{"r", {u""}}}, "new regex:\n"},
      {"failure after a good pattern",
       {{"v", u"1"}},
       {{"a", {u"${v}"}}, {"b", {u"${v}${x}", u"never"}}},
       "new regex:1\nnew regex:\n"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.what);
    LogCapture cap;
    Tagger tagger;
    tagger.Init({{"w", {u"1"}}}, c.patterns, c.variables);
    EXPECT_EQ(cap.out(), "3333333333333333333333333\n" + c.expected_log);
    // "1" would be a regex tag too if any pattern had been compiled.
    EXPECT_EQ(Tags(tagger, "1 1"), "w:1@0+1 w:1@2+1");
  }
}

TEST(TaggerInit, ExpandsVariablesInOrder) {
  LogCapture cap;
  Tagger tagger;
  tagger.Init({}, {{"r", {u"<${both}>", u"${}", u"${dup}"}}},
              {{"a", u"x"},
               {"both", u"${a}${a}"},  // two references side by side stay two
               {"", u"e"},             // a variable may have the empty name
               {"dup", u"first"},
               {"dup", u"${a}"}});  // expands fine, but the first entry wins
  EXPECT_EQ(Tags(tagger, "<xx> e first x"), "r:<xx>@0+4 r:e@5+1 r:first@7+5");
}

TEST(TaggerInit, BadPatternThrowsAfterItsLine) {
  LogCapture cap;
  Tagger tagger;
  EXPECT_THROW(tagger.Init({}, {{"a", {u"ok", u"(bad"}}, {"b", {u"later"}}}, {}), RegexError);
  const std::string out = cap.out();
  const std::string last = "pattern:(bad\n";
  ASSERT_GE(out.size(), last.size());
  EXPECT_EQ(out.substr(out.size() - last.size()), last);
  EXPECT_NE(out.find("pattern:ok\n"), std::string::npos);
  EXPECT_EQ(out.find("pattern:later"), std::string::npos);
}

TEST(TaggerReplaceVariables, ExpandsOnlyCompleteReferences) {
  const std::map<std::string, std::u16string> variables = {
      {"a", u"1"}, {"b", u"22"}, {"dollar", u"$"}, {"", u"E"}, {"\xC3\xA9", u"acute"}};
  auto replace = [&](std::u16string text) { return Tagger::ReplaceVariables(text, variables); };
  EXPECT_EQ(replace(u"plain"), u"plain");
  EXPECT_EQ(replace(u"${a}"), u"1");
  EXPECT_EQ(replace(u"x${a}y${b}z${a}"), u"x1y22z1");
  EXPECT_EQ(replace(u"${a}${b}"), u"122");
  EXPECT_EQ(replace(u"${}"), u"E");
  EXPECT_EQ(replace(u"${\u00E9}"), u"acute");
  // What does not begin a complete reference stays as written.
  EXPECT_EQ(replace(u"$a {a} $ { } ${a"), u"$a {a} $ { } ${a");
  EXPECT_EQ(replace(u"$${a}}"), u"$1}");
  EXPECT_EQ(replace(u"{${a}}"), u"{1}");
  EXPECT_EQ(replace(u"${a\n}"), u"${a\n}");
  EXPECT_EQ(replace(u"$ {a}"), u"$ {a}");
  // A reference ends at the first closing brace.
  EXPECT_EQ(replace(u"${a}b}"), u"1b}");
  // Each search starts over, so an expansion can complete a reference.
  EXPECT_EQ(replace(u"${dollar}{b}"), u"22");
  // An unknown name gives up the whole text.
  EXPECT_EQ(replace(u"${a} ${zz}"), u"");
  EXPECT_EQ(replace(u"${A}"), u"");
  EXPECT_EQ(replace(u"${a }"), u"");
  EXPECT_EQ(replace(u""), u"");
  EXPECT_EQ(Tagger::ReplaceVariables(u"${a}", {}), u"");
  // Length is no limit: a long pattern with references far apart expands whole.
  const std::u16string filler(5000, u'x');
  EXPECT_EQ(replace(filler + u"${a}" + filler + u"${b}"), filler + u"1" + filler + u"22");
}

TEST(TaggerProcess, FindsEveryDictionaryOccurrence) {
  LogCapture cap;
  Tagger tagger;
  tagger.Init({{"w", {u"ab", u"abc"}},
               {"x", {u"ab"}},
               {"B", {u"Call"}},
               {"empty", {}},
               {"\xC3\xA9", {u"c"}}},
              {}, {});
  // Names in byte order: "B" < "empty" < "w" < "x" < "\xC3\xA9".
  EXPECT_EQ(Tags(tagger, "abcab"), "w:ab@0+2 w:abc@0+3 w:ab@3+2 x:ab@0+2 x:ab@3+2 \xC3\xA9:c@2+1");
  EXPECT_EQ(Tags(tagger, "call Call CALL"), "B:Call@5+4 \xC3\xA9:c@0+1");
  EXPECT_EQ(Tags(tagger, "a b"), "");
  EXPECT_EQ(Tags(tagger, ""), "");

  // Success leaves the status as the caller set it.
  std::u16string wide;
  int status = 7;
  EXPECT_EQ(Dump(tagger.Process("ab", &wide, status)), "w:ab@0+2 x:ab@0+2");
  EXPECT_EQ(status, 7);
  EXPECT_EQ(wide, u"ab");
}

TEST(TaggerProcess, CountsOffsetsInUtf16Units) {
  LogCapture cap;
  Tagger tagger;
  tagger.Init({{"w", {u"ab", u"\U0001F600"}}}, {{"r", {u"[0-9]+"}}}, {});
  std::u16string wide;
  int status = 0;
  // The emoji takes two units.
  const std::string emoji_first = std::string("\xF0\x9F\x98\x80") + "ab 12";
  EXPECT_EQ(Dump(tagger.Process(emoji_first.c_str(), &wide, status)),
            "w:\\uD83D\\uDE00@0+2 w:ab@2+2 r:12@5+2");
  EXPECT_EQ(wide, u"\U0001F600ab 12");
  // A byte-order mark is a character of its own.
  const std::string bom_first = std::string("\xEF\xBB\xBF") + "ab 12";
  EXPECT_EQ(Dump(tagger.Process(bom_first.c_str(), &wide, status)), "w:ab@1+2 r:12@4+2");
  EXPECT_EQ(wide, u"\uFEFFab 12");
  // The query ends at its first NUL.
  const char with_nul[] = "ab\0ab 12";
  EXPECT_EQ(Dump(tagger.Process(with_nul, &wide, status)), "w:ab@0+2");
  EXPECT_EQ(wide, u"ab");
  EXPECT_EQ(status, 0);
}

TEST(TaggerProcess, FindsRegexMatches) {
  LogCapture cap;
  Tagger tagger;
  tagger.Init(
      {{"a", {u"aa"}}},
      {{"start", {u"^a"}}, {"pair", {u"aa", u"(a)(a)a"}}, {"word", {u"\\bab"}}, {"any", {u"b|x"}}},
      {});
  // Matches of one pattern do not overlap; ^ holds only at the query's start.
  EXPECT_EQ(Tags(tagger, "aaaaa"),
            "a:aa@0+2 a:aa@1+2 a:aa@2+2 a:aa@3+2 pair:aa@0+2 pair:aa@2+2 pair:aaa@0+3 "
            "start:a@0+1");
  // \b at a resume point looks at the unit before it.
  EXPECT_EQ(Tags(tagger, "abab ab"),
            "any:b@1+1 any:b@3+1 any:b@6+1 start:a@0+1 word:ab@0+2 word:ab@5+2");
  EXPECT_EQ(Tags(tagger, "xx"), "any:x@0+1 any:x@1+1");
}

TEST(TaggerProcess, FailuresSetStatusAndReturnNothing) {
  LogCapture cap;
  Tagger tagger;
  tagger.Init({{"w", {u"b"}}}, {{"r", {u"[0-9]+"}}}, {});
  int failures = 0;
  auto expect_failure = [&](const char* query, const std::string& what) {
    SCOPED_TRACE(what);
    std::u16string wide = u"stale";
    int status = 0;
    EXPECT_EQ(Dump(tagger.Process(query, &wide, status)), "");
    EXPECT_EQ(status, -1);
    EXPECT_EQ(wide, u"");
    ++failures;
    std::string lines;
    for (int i = 0; i < failures; ++i) lines += "tagger process exception!\n";
    EXPECT_EQ(cap.err(), lines);
  };
  expect_failure("b\xC3", "truncated UTF-8");
  expect_failure("b\xED\xA0\x80", "encoded surrogate");
  expect_failure(nullptr, "no query");
  const std::string too_long(kMaxRegexSubjectLength + 1, 'b');
  expect_failure(too_long.c_str(), "query longer than a regex can search");
  // Failures leave nothing behind.
  EXPECT_EQ(Tags(tagger, "b 1"), "w:b@0+1 r:1@2+1");

  // Without regex vocabularies a long query is only looked up in the dictionary.
  Tagger plain;
  plain.Init({{"w", {u"bb"}}}, {}, {});
  std::u16string wide;
  int status = 0;
  EXPECT_EQ(plain.Process(too_long.c_str(), &wide, status).size(), too_long.size() - 1);
  EXPECT_EQ(status, 0);
}

TEST(TaggerProcess, EmptyRegexMatchFailsTheQuery) {
  struct Case {
    std::u16string pattern;
    const char* query;
  };
  // "b|$": after the match of b the search goes on at the end and finds an empty match there.
  for (const Case& c : {Case{u"a*", "bbb"}, Case{u"b|$", "ab"}, Case{u"(x)?", ""}}) {
    LogCapture cap;
    Tagger tagger;
    tagger.Init({{"w", {u"b"}}}, {{"r", {c.pattern}}}, {});
    std::u16string wide;
    int status = 0;
    EXPECT_TRUE(tagger.Process(c.query, &wide, status).empty()) << c.query;
    EXPECT_EQ(status, -1) << c.query;
    EXPECT_EQ(cap.err(), "tagger process exception!\n") << c.query;
  }
}

TEST(TaggerProcess, ConcurrentQueriesGetTheSameTags) {
  LogCapture cap;
  Tagger tagger;
  tagger.Init({{"w", {u"ab", u"b"}}, {"v", {u"ba"}}}, {{"r", {u"[ab]{2}", u"\\bb"}}}, {});
  const std::vector<std::string> queries = {"abab", "b ab ba", "", "bbbb", "x"};
  std::vector<std::string> expected;
  for (const std::string& query : queries) expected.push_back(Tags(tagger, query.c_str()));
  std::vector<std::thread> threads;
  std::vector<int> mismatches(4, 0);
  for (size_t t = 0; t < mismatches.size(); ++t) {
    threads.emplace_back([&, t] {
      for (int round = 0; round < 200; ++round) {
        for (size_t i = 0; i < queries.size(); ++i) {
          std::u16string wide;
          int status = 0;
          if (Dump(tagger.Process(queries[i].c_str(), &wide, status)) != expected[i] ||
              status != 0) {
            ++mismatches[t];
          }
        }
      }
    });
  }
  for (std::thread& thread : threads) thread.join();
  EXPECT_EQ(mismatches, std::vector<int>(4, 0));
  EXPECT_NE(expected[0], "");
}

TEST(TaggerProcess, DictionaryTagsAgreeWithBruteForce) {
  std::mt19937 random(20240611);
  // A few letters in both cases, a two-unit character and a non-ASCII one.
  const std::vector<std::u16string> pieces = {u"a", u"b", u"c", u"A", u"\U0001F600", u"\u00E9"};
  const std::vector<std::string> names = {"a", "B", "b", "ab", "\xC3\xA9", "z"};
  auto text = [&](size_t max_pieces) {
    std::u16string out;
    const size_t count = std::uniform_int_distribution<size_t>(0, max_pieces)(random);
    for (size_t i = 0; i < count; ++i) {
      out += pieces[std::uniform_int_distribution<size_t>(0, pieces.size() - 1)(random)];
    }
    return out;
  };
  size_t total_tags = 0;
  for (int round = 0; round < 300; ++round) {
    Vocabularies vocabularies;
    const size_t vocabulary_count = std::uniform_int_distribution<size_t>(0, 4)(random);
    for (size_t v = 0; v < vocabulary_count; ++v) {
      std::set<std::u16string>& words =
          vocabularies[names[std::uniform_int_distribution<size_t>(0, names.size() - 1)(random)]];
      const size_t word_count = std::uniform_int_distribution<size_t>(0, 6)(random);
      for (size_t w = 0; w < word_count; ++w) words.insert(text(4));  // the empty word too
    }
    LogCapture cap;
    Tagger tagger;
    tagger.Init(vocabularies, {}, {});
    for (int q = 0; q < 10; ++q) {
      const std::u16string query = text(24);
      const std::string utf8 = Utf16ToUtf8(query);
      std::u16string wide;
      int status = 0;
      const std::vector<SlotMatch> tags = tagger.Process(utf8.c_str(), &wide, status);
      ASSERT_EQ(status, 0);
      ASSERT_EQ(wide, query);
      const std::vector<SlotMatch> expected = ReferenceDictionaryTags(vocabularies, query);
      ASSERT_EQ(Dump(tags), Dump(expected)) << "round " << round;
      total_tags += tags.size();
    }
  }
  // The generator must actually produce tags for the comparison to mean anything.
  EXPECT_GT(total_tags, 1000u);
}

}  // namespace
}  // namespace rulenlu
