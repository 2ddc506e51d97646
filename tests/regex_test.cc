#include "nlu/regex.h"

#include <gtest/gtest.h>

#include <algorithm>
#include <iterator>
#include <locale>
#include <memory>
#include <random>
#include <regex>
#include <string>
#include <thread>
#include <tuple>
#include <utility>
#include <vector>

#include "base/text.h"
#include "nlu/regex_texts.h"
#include "regex_reference.h"

namespace rulenlu {
namespace {

constexpr RegexGrammar E = RegexGrammar::kEcmaScript;
constexpr RegexGrammar P = RegexGrammar::kPosixExtended;

std::u16string Repeat(const std::u16string& piece, size_t n) {
  std::u16string out;
  while (n-- > 0) out += piece;
  return out;
}

// Compiles `pattern`, searches `text` from `from` and matches it whole: "start+length" or "none",
// then " whole" when it matches whole; "bad" when the pattern does not compile, "unsupported"
// when it is one of the documented differences.
std::string Outcome(RegexGrammar grammar, const std::u16string& pattern, const std::u16string& text,
                    size_t from) {
  Regex regex(u"x", E);
  try {
    regex = Regex(pattern, grammar);  // a compiled pattern survives a move
  } catch (const RegexError& e) {
    const std::string reason = e.what();
    if (reason.empty()) return "bad, without a reason";
    return reason.rfind("not supported", 0) == 0 ? "unsupported" : "bad";
  }
  RegexSubject subject(u"an earlier text");
  subject.Assign(text);
  RegexMatch match;
  const bool found = regex.Search(subject, from, &match);
  return (found ? std::to_string(match.start) + "+" + std::to_string(match.length) : "none") +
         (regex.FullMatch(subject) ? " whole" : "");
}

TEST(Regex, SearchesAndMatches) {
  const size_t kDeep = kMaxRegexNesting + 1;
  // clang-format off
  const std::tuple<RegexGrammar, std::u16string, std::u16string, size_t, std::string> cases[] = {
      // A search from an offset keeps the whole text as context: ^ holds only at its start, \b
      // sees the unit before the offset, an end still matches at the end.
      {E, u"b", u"abab", 0, "1+1"}, {E, u"b", u"abab", 2, "3+1"}, {E, u"b", u"abab", 4, "none"},
      {E, u"b", u"abab", 5, "none"}, {E, u"^a", u"aaa", 0, "0+1"}, {E, u"^a", u"aaa", 1, "none"},
      {E, u"\\bb", u"a b", 2, "2+1"}, {E, u"\\bb", u"ab", 1, "none"}, {E, u"$", u"ab", 2, "2+0"},
      {E, u"\\bb", u"ab b", 1, "3+1"}, {E, u"a$", u"a\n", 0, "none"},
      // ECMAScript searches for the first alternative that matches, POSIX for the longest; a
      // whole match may come from any alternative. \d is no POSIX escape, `.` takes no line
      // terminator in ECMAScript and no NUL in POSIX, case counts.
      {E, u"\\d+", u"ab12", 0, "2+2"}, {P, u"\\d+", u"", 0, "bad"}, {E, u".", u"\n", 0, "none"},
      {P, u".", u"\n", 0, "0+1 whole"}, {P, u"a.", std::u16string(u"a\0", 2), 0, "none"},
      {E, u"a|ab", u"ab", 0, "0+1 whole"}, {P, u"a|ab", u"abc", 0, "0+2"}, {E, u"(", u"", 0, "bad"},
      {P, u"<city>(to)?<city>", u"<city>to<city>", 0, "0+14 whole"}, {E, u"a)", u"", 0, "bad"},
      {E, u"call", u"Call", 0, "none"}, {P, u"call", u"Call", 0, "none"}, {E, u"[a", u"", 0, "bad"},
      // UTF-16 units; classic "C" classes.
      {E, u"..", u"\U0001F600", 0, "0+2 whole"}, {E, u"\u4F1A+", u"x\u4F1A\u4F1A", 0, "1+2"},
      {E, u"\\w+", u"\u00E9ab", 0, "1+2"}, {P, u"[[:alpha:]]+", u"\u00E9ab", 0, "1+2"},
      {E, u"\\s", u"\u00A0\u3000\u2028 ", 0, "3+1"}, {E, u"[\\uD800-\\uDBFF]", u"\U0001F600", 0, "0+1"},
      // The standard library's readings: \cJ is J, \0 is NUL, [] is empty and [^] is anything in
      // ECMAScript, a leading ] is literal in POSIX, stacked quantifiers nest, numbers wrap.
      {E, u"\\cJ", u"\nJ", 0, "1+1"}, {E, u"\\01", std::u16string(u"\0" u"1", 2), 0, "0+2 whole"},
      {E, u"a[]", u"a", 0, "none"}, {E, u"[^]", u"\n", 0, "0+1 whole"}, {P, u"[]a]+", u"a]", 0, "0+2 whole"},
      {E, u"a**", u"aa", 0, "0+2 whole"}, {E, u"a+?", u"aa", 0, "0+1 whole"}, {P, u"a+?", u"aa", 0, "0+2 whole"},
      {E, u"a{4294967297}", u"aa", 0, "0+1"}, {E, u"a{2147483648}b", u"ab", 0, "1+1"},
      {E, u"(?=\u00E9)a?\u00E9", u"x\u00E9", 0, "1+1"}, {E, u"(a+)+b", u"aaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaaa", 0, "none"},
      {E, u"(a)\\4294967297", u"aa", 0, "0+2 whole"}, {E, u"[[=a=]]+", u"aAb", 0, "0+2"},
      {P, u"[[.hyphen.][:digit:]]+", u"x-1", 0, "1+2"}, {P, u"[a-c-e]", u"", 0, "bad"},
      {E, u"\\1(a)", u"a", 0, "bad"}, {E, u"(a\\1)", u"a", 0, "bad"}, {E, u"(?<=a)", u"", 0, "bad"},
      {E, u"^*", u"", 0, "bad"}, {E, u"a{,3}", u"", 0, "bad"}, {P, u"a\\}", u"", 0, "bad"},
      {P, std::u16string(u"a\0", 2), u"", 0, "bad"},
      // Deliberate differences: assertions tied to a lookahead's start, references into a
      // lookahead from outside, and patterns too large for the matcher are refused.
      {E, u"a(?=^b)", u"ab", 0, "unsupported"}, {E, u"\\w+(?=\\b)", u"abc", 0, "unsupported"},
      {E, u"(?!(a))|a\\1", u"aa", 0, "unsupported"}, {E, u"(?=(a)\\1)", u"aa", 0, "0+0"},
      {E, u"(?=(a))a\\1", u"aa", 0, "unsupported"}, {E, u"(?:a?){13000}", u"", 0, "unsupported"},
      {E, u"a" + std::u16string(kMaxRegexPatternLength - 1, u'*'), u"", 0, "unsupported"},
      {E, u"a" + std::u16string(400, u'*') + u"b", u"aab", 0, "0+3 whole"},
      // Nesting is bounded; escaped or bracketed parentheses and groups in sequence do not nest.
      {P, Repeat(u"(", kDeep - 1) + u"a" + Repeat(u")", kDeep - 1), u"a", 0, "0+1 whole"},
      {P, Repeat(u"(", kDeep) + u"a" + Repeat(u")", kDeep), u"a", 0, "bad"},
      {E, Repeat(u"(?=", kDeep) + u"a" + Repeat(u")", kDeep), u"a", 0, "bad"},
      {P, u"[\\]" + Repeat(u"(", kDeep) + u"a" + Repeat(u")", kDeep), u"", 0, "bad"},
      {P, Repeat(u"[(](a)", kDeep), Repeat(u"(a", kDeep), 0, "0+" + std::to_string(2 * kDeep) + " whole"},
      {E, Repeat(u"a", kMaxRegexPatternLength + 1), u"", 0, "bad"}};
  // clang-format on
  for (const auto& [grammar, pattern, text, from, expected] : cases) {
    EXPECT_EQ(Outcome(grammar, pattern, text, from), expected) << Utf16ToUtf8(pattern);
  }
}

// The standard library counts the states of the automaton it builds; a pattern over its limit
// does not compile. The boundary is found by the standard library itself.
TEST(Regex, RejectsExactlyThePatternsTooLargeForTheStandardLibrary) {
  const std::pair<std::u16string, std::u16string> shapes[] = {
      {u"a{", u"}"},          {u"a{1,", u"}"},   {u"(ab){", u"}"},
      {u"x(?:a|bc){", u",}"}, {u"[ab]{", u"}?"}, {u"(a{2}){", u"}b"}};
  for (const auto& [head, tail] : shapes) {
    for (const auto grammar : {E, P}) {
      if (grammar == P && head.find(u"(?:") != std::u16string::npos) continue;
      const auto with_count = [&](uint64_t count) {
        return head + Utf8ToUtf16(std::to_string(count)) + tail;
      };
      // Find the largest accepted count by bisection, then compare around it.
      uint64_t low = 0, high = 200000;
      while (low + 1 < high) {
        const uint64_t middle = (low + high) / 2;
        (StandardRegex(with_count(middle), grammar) ? low : high) = middle;
      }
      ASSERT_GT(low, 100u) << Utf16ToUtf8(head);
      for (uint64_t count = low - 1; count <= low + 2; ++count) {
        const bool standard = StandardRegex(with_count(count), grammar).has_value();
        std::string error;
        const bool ours = OurRegex(with_count(count), grammar, &error) != nullptr;
        // Accepted by the standard library but too large for PCRE2: documented.
        EXPECT_EQ(ours || (standard && error.rfind("not supported", 0) == 0), standard)
            << Utf16ToUtf8(with_count(count)) << " " << error;
      }
    }
  }
}

// Matches end, with an answer or RegexError, whatever the pattern and the text; texts of any
// length are taken. Termination is bounded by the test's timeout, not asserted here.
TEST(Regex, BoundsEveryMatch) {
  const std::u16string thirty(30, u'a');
  const std::tuple<std::u16string, RegexGrammar, std::u16string> catastrophic[] = {
      {u"(a+)+b", E, thirty},
      {u"^(a|a?)+$", E, thirty + u"b"},
      {u"(.*)+", E, thirty},
      {u"(a|aa)*c", E, thirty},
      {u"(x+x+)+y", E, std::u16string(30, u'x')},
      {u"((a*)*)*b", P, thirty},
      {u"(a|a?)+", P, thirty + u"b"},
      {u"(\\w+\\s?)*$", E, Repeat(u"word ", 10) + u"!"},
      {u"(a*)*\\1b", E, thirty}};
  for (const auto& [pattern, grammar, text] : catastrophic) {
    const Regex regex(pattern, grammar);
    const RegexSubject subject(text);
    RegexMatch match;
    for (size_t from : {size_t{0}, size_t{1}}) {
      try {
        regex.Search(subject, from, &match);
      } catch (const RegexError&) {
      }
    }
    try {
      regex.FullMatch(subject);
    } catch (const RegexError&) {
    }
  }
  // A limit hit is reported, not taken for "no match".
  EXPECT_THROW(Regex(u"^(a|a?)+$", E).FullMatch(RegexSubject(thirty + u"b")), RegexError);

  // A million units: searched to the end, matched whole, resumed from every match.
  const std::u16string words = Repeat(u"half an hour ", 1000000 / 13);
  const RegexSubject million(words);
  const Regex hour(u"\\b(half an hour|an hour)\\b", E);
  RegexMatch match;
  size_t from = 0, count = 0;
  while (hour.Search(million, from, &match)) {
    from = match.start + match.length;
    ++count;
  }
  EXPECT_EQ(count, words.size() / 13);
  EXPECT_TRUE(Regex(u"((half|an|hour) )*", P).FullMatch(million));
  EXPECT_FALSE(Regex(u"((half|an|hour) )*x", P).FullMatch(million));
  EXPECT_TRUE(Regex(u"([a-z]| )*$", E).Search(million, 0, &match));
  EXPECT_EQ(match.length, words.size());

  // Counts beyond what the matcher takes in one piece, and counts that wrap.
  EXPECT_TRUE(Regex(u"a{70000}", P).FullMatch(RegexSubject(std::u16string(70000, u'a'))));
  EXPECT_FALSE(Regex(u"a{70000}", P).FullMatch(RegexSubject(std::u16string(69999, u'a'))));
  EXPECT_TRUE(Regex(u"a{70000,}", E).FullMatch(RegexSubject(std::u16string(80000, u'a'))));
}

// Numbers in counts and back-references are read as the standard library reads them: in a
// 64-bit accumulator that wraps, then truncated to int.
TEST(Regex, ReadsNumbersAsTheStandardLibrary) {
  const char16_t* const numbers[] = {u"4294967296",
                                     u"4294967297",
                                     u"4294967295",
                                     u"2147483647",
                                     u"2147483648",
                                     u"2147483649",
                                     u"18446744073709551616",
                                     u"18446744073709551617",
                                     u"99999999999999999999999",
                                     u"36893488147419103233",
                                     u"0",
                                     u"1",
                                     u"2"};
  const std::u16string texts[] = {u"", u"a", u"aa", u"aaa"};
  for (const char16_t* m : numbers) {
    for (const char16_t* n : {u"", u",", u",1", u",2", u",4294967297"}) {
      for (const std::u16string& pattern :
           {u"a{" + std::u16string(m) + n + u"}", u"(a)\\" + std::u16string(m)}) {
        const std::optional<std::wregex> standard = StandardRegex(pattern, E);
        const std::unique_ptr<Regex> ours = OurRegex(pattern, E);
        ASSERT_EQ(ours != nullptr, standard.has_value()) << Utf16ToUtf8(pattern);
        if (!standard) continue;
        for (const std::u16string& text : texts) {
          EXPECT_EQ(ours->FullMatch(RegexSubject(text)),
                    std::regex_match(std::wstring(text.begin(), text.end()), *standard))
              << Utf16ToUtf8(pattern) << " on " << Utf16ToUtf8(text);
        }
      }
    }
  }
}

// A rule set answers like its rules matched one by one, in order, whatever unit a text and the
// matches of each rule begin with (one known unit, a few, a caseless letter, units above 255,
// surrogates, any unit, or the empty text); rules that do not compile are reported and take no
// part.
TEST(Regex, SetMatchesLikeItsRulesInOrder) {
  const std::u16string high(1, char16_t{0xD83D}), low(1, char16_t{0xDE00});
  // clang-format off
  std::vector<std::u16string> rules = {
      u"<city>(to)?<city>", u"a\\d", u"(a|b)*c", u"[[:digit:]]+", u"a{2,3}", u"[b-a]",
      u"(<date>|<time>) ?<city>", u"", u"x+y*", u"(a?){13000}", u"[Bb]ook", u"\u00E9x",
      u"[\u00E9\u00C9]x", u"(\u4E2D|a)x", u"\u4E2D+x?", high + low, u"[^a]b", u"x?y", u"a*",
      u"^ab", u"[[:alpha:]]z", u".x", u"(\u00C9|x)z"};
  // clang-format on
  for (int i = 0; i < 60; ++i) rules.push_back(u"r" + Utf8ToUtf16(std::to_string(i)) + u"(x|yz)*");
  // Short random rules with the same kinds of beginnings, so that a text matches several.
  const std::u16string pieces[] = {u"a",    u"B", u"b?",         u"(a|B)",      u"[aB]",
                                   u".",    high, u"\u4E2D",     u"(\u4E2D|a)", u"x*",
                                   u"[^a]", u"z", u"(x|\u00C9)?"};
  std::mt19937 random(3);
  for (int i = 0; i < 150; ++i) {
    std::u16string rule;
    for (size_t n = 1 + random() % 3; n > 0; --n) rule += pieces[random() % std::size(pieces)];
    rules.push_back(rule);
  }
  const RegexSet set(rules);
  ASSERT_EQ(set.size(), rules.size());
  std::vector<std::unique_ptr<Regex>> single;
  for (size_t i = 0; i < rules.size(); ++i) {
    std::string error;
    single.push_back(OurRegex(rules[i], P, &error));
    EXPECT_EQ(set.compiled(i), single.back() != nullptr) << i;
    EXPECT_EQ(set.error(i), error);
  }
  EXPECT_FALSE(set.compiled(1));  // \d is no POSIX escape
  EXPECT_FALSE(set.compiled(5));
  EXPECT_FALSE(set.compiled(9));
  const std::u16string alphabets[] = {u"abcxyz0r12345<>",
                                      u"abBokxz\u00E9\u00C9\u4E2D\u00FF" + high + low};
  // clang-format off
  std::vector<std::u16string> texts = {
      u"", u"<city><city>", u"<city>to<city>", u"aa", u"ababc", u"aaaa", u"r17xyzx", u"r59",
      u"<date>x", u"xyy", u"book", u"Book", u"Bb", u"\u00C9x", u"\u4E2Dx", u"\u4E2D\u4E2Dx",
      high + low, u"y", u"ab", u"Bz", u"\u00FFx", u"\u00C9z"};
  // clang-format on
  for (const std::u16string& alphabet : alphabets) {
    for (int i = 0; i < 600; ++i) {
      std::u16string text;
      for (size_t n = random() % 7; n > 0; --n) text += alphabet[random() % alphabet.size()];
      texts.push_back(text);
    }
  }
  // The same rules beside one too large for an automaton: the set is matched by compiled
  // expressions instead, and must answer alike.
  std::vector<std::u16string> with_large = rules;
  with_large.push_back(u"q(ab|cd){3000}");
  const RegexSet large_set(with_large);
  std::vector<size_t> matched(rules.size());
  for (const std::u16string& text : texts) {
    const RegexSubject subject(text);
    size_t expected = RegexSet::kNoMatch;
    for (size_t i = 0; i < rules.size() && expected == RegexSet::kNoMatch; ++i) {
      if (single[i] != nullptr && single[i]->FullMatch(subject)) expected = i;
    }
    EXPECT_EQ(set.FirstFullMatch(subject), expected) << Utf16ToUtf8(text);
    EXPECT_EQ(large_set.FirstFullMatch(subject), expected) << Utf16ToUtf8(text);
    EXPECT_EQ(set.AnyFullMatch(subject), expected != RegexSet::kNoMatch);
    if (expected != RegexSet::kNoMatch) ++matched[expected];
  }
  // Each kind of beginning above answers some text first, and so do many random rules.
  for (size_t i = 10; i < 23; ++i) EXPECT_GT(matched[i], 0u) << Utf16ToUtf8(rules[i]);
  EXPECT_GT(matched[7], 0u);  // the empty text
  EXPECT_GT(std::count_if(matched.end() - 150, matched.end(), [](size_t n) { return n > 0; }), 10);
  EXPECT_EQ(RegexSet({}).FirstFullMatch(RegexSubject(u"")), RegexSet::kNoMatch);
}

// Looking texts up answers as a scan of them all would: the lowest rule of an equal text, and
// the longest prefix shared with any text; over many blocks of texts sharing beginnings.
TEST(Regex, RuleTextsAnswerAsAScanOfThem) {
  std::mt19937 random(5);
  auto make = [&](size_t longest) {
    std::u16string text;
    for (size_t n = random() % (longest + 1); n > 0; --n) text += u"abc"[random() % 3];
    return text;
  };
  std::vector<std::pair<std::u16string, uint32_t>> given;
  for (uint32_t i = 0; i < 400; ++i) given.emplace_back(make(7), i % 150);
  const RuleTexts texts(given);
  for (int i = 0; i < 3000; ++i) {
    const std::u16string text = make(9);
    size_t rule = RuleTexts::kNoMatch;
    size_t live = 0;
    for (const auto& [other, other_rule] : given) {
      if (other == text) rule = std::min<size_t>(rule, other_rule);
      size_t common = 0;
      while (common < std::min(text.size(), other.size()) && text[common] == other[common]) {
        ++common;
      }
      live = std::max(live, common);
    }
    EXPECT_EQ(texts.Find(text), rule) << Utf16ToUtf8(text);
    EXPECT_EQ(texts.LivePrefix(text), live) << Utf16ToUtf8(text);
  }
  EXPECT_EQ(RuleTexts().Find(u""), RuleTexts::kNoMatch);
}

// Rules that each fit the matcher but not together are still answered, in order.
TEST(Regex, SetAnswersRulesTooLargeToShareAnExpression) {
  const RegexSet set({u"x", u"(ab|cd){3000}", u"(ab|ce){3000}", u"(ab|cf){3000}", u"y"});
  for (size_t i = 0; i < set.size(); ++i) EXPECT_TRUE(set.compiled(i)) << i;
  EXPECT_EQ(set.FirstFullMatch(RegexSubject(u"x")), 0u);
  EXPECT_EQ(set.FirstFullMatch(RegexSubject(Repeat(u"ab", 3000))), 1u);
  EXPECT_EQ(set.FirstFullMatch(RegexSubject(Repeat(u"ce", 3000))), 2u);
  EXPECT_EQ(set.FirstFullMatch(RegexSubject(Repeat(u"cf", 2999) + u"ab")), 3u);
  EXPECT_EQ(set.FirstFullMatch(RegexSubject(u"y")), 4u);
  EXPECT_EQ(set.FirstFullMatch(RegexSubject(Repeat(u"ab", 2999))), RegexSet::kNoMatch);
}

// At the matcher's limit on the size of one expression, a rule of a set compiles exactly when a
// Regex of its own does, for the same reason.
TEST(Regex, SetRuleCompilesAsARegexAtTheSizeLimit) {
  auto regex_error = [](const std::u16string& pattern) {
    std::string error;
    OurRegex(pattern, P, &error);
    return error;
  };
  auto repeat = [](uint64_t count) {
    return u"(ab|cd){" + Utf8ToUtf16(std::to_string(count)) + u"}";
  };
  // The largest count that compiles, behind 0 to 15 more units (a letter takes two, ^ one): the
  // unanchored form of one of these is just at the limit.
  uint64_t low = 1, high = 100000;
  while (low + 1 < high) {
    const uint64_t middle = (low + high) / 2;
    (regex_error(repeat(middle)).empty() ? low : high) = middle;
  }
  size_t compiled = 0;
  for (const char16_t* anchor : {u"", u"^"}) {
    for (size_t length = 0; length < 8; ++length) {
      const std::u16string pattern = anchor + std::u16string(length, u'b') + repeat(low);
      const RegexSet set({pattern});
      EXPECT_EQ(set.error(0), regex_error(pattern)) << Utf16ToUtf8(pattern);
      compiled += set.compiled(0);
    }
  }
  EXPECT_GT(compiled, 0u);
  EXPECT_LT(compiled, 16u);
}

// A finder of many patterns tells where each search's match begins, or that it cannot tell
// (a lookahead, a back-reference, a pattern that does not compile), and a match attempted
// there is the search's.
TEST(Regex, FinderTellsWhereEachSearchBegins) {
  std::vector<std::u16string> patterns = {u"^a",    u"\\bb",      u"(?=c)c", u"(d)\\1",
                                          u"e+f",   u"[0-9]{2}$", u"\\Bg",   u"(",
                                          u"h|i?j", u"(a+)+k",    u"a|ab"};
  for (int i = 0; i < 70; ++i) patterns.push_back(u"x" + Utf8ToUtf16(std::to_string(i)) + u"\\b");
  const RegexFinder finder(patterns);
  std::vector<std::unique_ptr<Regex>> single;
  for (const std::u16string& pattern : patterns) single.push_back(OurRegex(pattern, E));
  const std::u16string texts[] = {
      u"",         u"a b", u"ab",    u"cc dd", u"ef 12",
      u"eef1 eef", u"xg",  u"gx",    u"j",     u"aaaaaaaaaaaaaaaaaaaaaaaaak",
      u"x7 x12",   u"x70", u"abab a"};
  size_t none = 0;
  RegexFinder::Starts starts;
  for (const std::u16string& text : texts) {
    const RegexSubject subject(text);
    finder.Scan(subject, &starts);
    for (size_t i = 0; i < patterns.size(); ++i) {
      for (size_t from = 0; from <= text.size(); ++from) {
        RegexMatch match;
        const bool found = single[i] != nullptr && single[i]->Search(subject, from, &match);
        const size_t start = finder.NextStart(starts, i, from);
        const std::string where =
            Utf16ToUtf8(patterns[i] + u" on " + text) + " from " + std::to_string(from);
        if (i == 2 || i == 3 || i == 7) {
          EXPECT_EQ(start, RegexFinder::kUnknown) << where;
          continue;
        }
        EXPECT_EQ(start, found ? match.start : RegexFinder::kNone) << where;
        none += start == RegexFinder::kNone;
        RegexMatch at;
        if (found) {
          EXPECT_TRUE(single[i]->MatchAt(subject, match.start, &at)) << where;
          EXPECT_EQ(at.length, match.length) << where;
        }
      }
    }
  }
  EXPECT_GT(none, 1000u);
}

// One compiled expression, many threads: every thread gets the answers one thread gets.
TEST(Regex, MatchesFromManyThreadsAtOnce) {
  const Regex search(u"\\b[a-z]+\\d?\\b", E);
  const Regex whole(u"([a-z]+ ?)+", P);
  const RegexSet set({u"[a-z]+", u"([a-z]+ )+[a-z]+", u"[0-9 ]+"});
  std::vector<std::u16string> texts;
  std::mt19937 random(5);
  for (int i = 0; i < 200; ++i) {
    std::u16string text;
    for (size_t n = random() % 40; n > 0; --n) text += u"ab1 z"[random() % 5];
    texts.push_back(text);
  }
  auto answers = [&] {
    std::string out;
    for (const std::u16string& text : texts) {
      const RegexSubject subject(text);
      RegexMatch match;
      for (size_t from = 0; search.Search(subject, from, &match);
           from = match.start + match.length + 1) {
        out += std::to_string(match.start) + "+" + std::to_string(match.length) + ",";
      }
      out += whole.FullMatch(subject) ? "W" : "-";
      out += std::to_string(set.FirstFullMatch(subject)) + ";";
    }
    return out;
  };
  const std::string expected = answers();
  std::vector<std::string> results(8);
  std::vector<std::thread> threads;
  for (std::string& result : results) {
    threads.emplace_back([&] {
      for (int round = 0; round < 5; ++round) result = answers();
    });
  }
  for (std::thread& thread : threads) thread.join();
  for (const std::string& result : results) EXPECT_EQ(result, expected);
}

}  // namespace
}  // namespace rulenlu
