#include "nlu/regex.h"

#include <gtest/gtest.h>

#include <random>
#include <regex>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "base/text.h"

namespace rulenlu {
namespace {

constexpr RegexGrammar E = RegexGrammar::kEcmaScript;
constexpr RegexGrammar P = RegexGrammar::kPosixExtended;

// Compiles `pattern`, searches `text` from `from` and matches it whole: "start+length" or "none",
// then " whole" when it matches whole; "bad" when the pattern does not compile.
std::string Outcome(RegexGrammar grammar, const std::u16string& pattern, const std::u16string& text,
                    size_t from) {
  Regex regex(u"x", E);
  try {
    regex = Regex(pattern, grammar);  // a compiled pattern survives a move
  } catch (const RegexError& e) {
    return *e.what() ? "bad" : "bad, without a reason";
  }
  RegexSubject subject(u"an earlier text");
  subject.Assign(text);
  RegexMatch match;
  const bool found = regex.Search(subject, from, &match);
  return (found ? std::to_string(match.start) + "+" + std::to_string(match.length) : "none") +
         (regex.FullMatch(subject) ? " whole" : "");
}

TEST(Regex, SearchesAndMatchesWithinBounds) {
  const size_t kDeep = kMaxRegexNesting + 1;
  const std::string all_deep = "0+" + std::to_string(2 * kDeep) + " whole";
  const std::u16string too_long = std::u16string(kMaxRegexSubjectLength, u'a') + u"b";
  auto repeat = [](const std::u16string& piece, size_t n) {
    std::u16string out;
    while (n-- > 0) out += piece;
    return out;
  };
  // clang-format off
  const std::tuple<RegexGrammar, std::u16string, std::u16string, size_t, std::string> cases[] = {
      // A search from an offset keeps the whole text as context: ^ holds only at its start, \b
      // sees the unit before the offset, an end still matches at the end.
      {E, u"b", u"abab", 0, "1+1"}, {E, u"b", u"abab", 2, "3+1"}, {E, u"b", u"abab", 4, "none"},
      {E, u"b", u"abab", 5, "none"}, {E, u"^a", u"aaa", 0, "0+1"}, {E, u"^a", u"aaa", 1, "none"},
      {E, u"\\bb", u"a b", 2, "2+1"}, {E, u"\\bb", u"ab", 1, "none"}, {E, u"$", u"ab", 2, "2+0"},
      {E, u"\\bb", u"ab b", 1, "3+1"},
      // ECMAScript searches for the first alternative that matches, POSIX for the longest; a
      // whole match may come from any alternative. \d is no POSIX escape, `.` takes no line
      // terminator, case counts, and a pattern that does not compile says why.
      {E, u"\\d+", u"ab12", 0, "2+2"}, {P, u"\\d+", u"", 0, "bad"}, {E, u".", u"\n", 0, "none"},
      {E, u"a|ab", u"ab", 0, "0+1 whole"}, {P, u"a|ab", u"abc", 0, "0+2"}, {E, u"(", u"", 0, "bad"},
      {P, u"<city>(to)?<city>", u"<city>to<city>", 0, "0+14 whole"}, {E, u"a)", u"", 0, "bad"},
      {E, u"call", u"Call", 0, "none"}, {P, u"call", u"Call", 0, "none"}, {E, u"[a", u"", 0, "bad"},
      // UTF-16 units; classic "C" classes.
      {E, u"..", u"\U0001F600", 0, "0+2 whole"}, {E, u"\u4F1A+", u"x\u4F1A\u4F1A", 0, "1+2"},
      {E, u"\\w+", u"\u00E9ab", 0, "1+2"}, {P, u"[[:alpha:]]+", u"\u00E9ab", 0, "1+2"},
      // Nesting is bounded; escaped or bracketed parentheses and groups in sequence do not nest.
      {P, repeat(u"(", kDeep - 1) + u"a" + repeat(u")", kDeep - 1), u"a", 0, "0+1 whole"},
      {P, repeat(u"(", kDeep) + u"a" + repeat(u")", kDeep), u"a", 0, "bad"},
      {E, repeat(u"(", kDeep) + u"a" + repeat(u")", kDeep), u"a", 0, "bad"},
      {E, repeat(u"\\((a)", kDeep), repeat(u"(a", kDeep), 0, all_deep},
      {P, repeat(u"[(](a)", kDeep), repeat(u"(a", kDeep), 0, all_deep},
      // The text's length is bounded too; the longest one is still searched to its end.
      {E, u"b$", too_long.substr(1), 0, std::to_string(too_long.size() - 2) + "+1"}};
  // clang-format on
  for (const auto& [grammar, pattern, text, from, expected] : cases) {
    EXPECT_EQ(Outcome(grammar, pattern, text, from), expected) << Utf16ToUtf8(pattern);
  }
  EXPECT_THROW(Outcome(E, u"b$", too_long, 0), RegexError);
  EXPECT_THROW(Outcome(E, u"b$", too_long, too_long.size()), RegexError);
  EXPECT_THROW(Regex(u"b$", E).FullMatch(RegexSubject(too_long)), RegexError);
  // Brackets are read as each grammar reads them, so that they cannot hide nesting: in POSIX a
  // backslash in brackets is literal, in ECMAScript "[]" is a whole (empty) class.
  const std::u16string deep_open = repeat(u"(", kDeep), deep_close = repeat(u")", kDeep);
  EXPECT_THROW(Regex(u"[\\]" + deep_open + u"a" + deep_close, P), RegexError);
  EXPECT_THROW(Regex(u"[]" + deep_open + u"a" + deep_close, E), RegexError);
  EXPECT_THROW(Regex(u"[[:alpha:]]" + deep_open + u"a" + deep_close, P), RegexError);
  EXPECT_NO_THROW(Regex(u"[(][[:alpha:](]" + repeat(u"(a)", kDeep), P));
  EXPECT_THROW(Regex(repeat(u"a", kMaxRegexPatternLength + 1), E), RegexError);
  // The deeper a searched expression nests, the shorter the texts it may search.
  const Regex nested(u"((a|b))*z", E);
  const std::u16string longest(kMaxRegexSearchWork / 3, u'a');
  RegexMatch match;
  EXPECT_FALSE(nested.Search(RegexSubject(longest), 0, &match));
  EXPECT_THROW(nested.Search(RegexSubject(longest + u"a"), 0, &match), RegexError);
  // A whole match is not bound by nesting: it takes texts of the full length.
  EXPECT_TRUE(
      Regex(u"((a|b))*z", P)
          .FullMatch(RegexSubject(std::u16string(kMaxRegexSubjectLength - 1, u'a') + u"z")));
}

// Character classes, word boundaries and brackets are answered from tables for ASCII: every
// answer must be the standard library's, for ASCII and beyond.
TEST(Regex, ClassifiesExactlyAsTheStandardLibrary) {
  const std::vector<std::u16string> patterns = {u"\\b\\w+\\b",
                                                u"\\B.\\B",
                                                u"\\d+\\s*\\D",
                                                u"[[:alpha:]]+",
                                                u"[[:alnum:][:punct:]]+",
                                                u"[^[:space:]]+",
                                                u"[[:upper:]][[:lower:]]*",
                                                u"[[=e=]x]+",
                                                u"[a-f0-9_]+",
                                                u"[^\\W\\d]+",
                                                u"[[:xdigit:][:blank:]]+",
                                                u"\\S\\W"};
  const std::u16string alphabet = u"aZ_9 \t-.,eE\u00E9\u00C9\u4F1A\u0661\u00A0\u2028x";
  std::mt19937 random(7);
  for (const std::u16string& pattern : patterns) {
    for (const auto grammar : {E, P}) {
      const auto flags = grammar == E ? std::regex::ECMAScript : std::regex::extended;
      std::wregex standard;
      try {
        standard.assign(std::wstring(pattern.begin(), pattern.end()), flags);
      } catch (const std::regex_error&) {  // e.g. \\b is no POSIX escape
        EXPECT_THROW(Regex(pattern, grammar), RegexError);
        continue;
      }
      const Regex ours(pattern, grammar);
      for (int round = 0; round < 200; ++round) {
        std::u16string text;
        for (size_t n = random() % 12; n > 0; --n) text += alphabet[random() % alphabet.size()];
        const std::wstring wide(text.begin(), text.end());
        std::wsmatch expected;
        const bool found = std::regex_search(wide, expected, standard);
        RegexMatch match;
        ASSERT_EQ(ours.Search(RegexSubject(text), 0, &match), found) << Utf16ToUtf8(pattern);
        if (found) {
          EXPECT_EQ(match.start, static_cast<size_t>(expected.position(0)));
          EXPECT_EQ(match.length, static_cast<size_t>(expected.length(0)));
        }
        EXPECT_EQ(ours.FullMatch(RegexSubject(text)), std::regex_match(wide, standard));
      }
    }
  }
}

}  // namespace
}  // namespace rulenlu
