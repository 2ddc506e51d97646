#include "nlu/regex.h"

#include <gtest/gtest.h>

#include <string>
#include <utility>
#include <vector>

namespace rulenlu {
namespace {

constexpr RegexGrammar kEcma = RegexGrammar::kEcmaScript;
constexpr RegexGrammar kPosix = RegexGrammar::kPosixExtended;

// Searches `text` from `from`; returns "start+length", or "none".
std::string Find(const Regex& regex, std::u16string_view text, size_t from = 0) {
  RegexMatch match;
  if (!regex.Search(RegexSubject(text), from, &match)) return "none";
  return std::to_string(match.start) + "+" + std::to_string(match.length);
}

bool Full(const Regex& regex, std::u16string_view text) {
  return regex.FullMatch(RegexSubject(text));
}

TEST(Regex, SearchFromOffsetKeepsWholeSubjectAsContext) {
  const Regex letter_b(u"b", kEcma);
  EXPECT_EQ(Find(letter_b, u"abab"), "1+1");
  EXPECT_EQ(Find(letter_b, u"abab", 2), "3+1");  // offsets count from the subject's start
  EXPECT_EQ(Find(letter_b, u"abab", 4), "none");
  EXPECT_EQ(Find(letter_b, u"abab", 5), "none");  // beyond the end: no match, no error

  const Regex anchored(u"^a", kEcma);
  EXPECT_EQ(Find(anchored, u"aaa"), "0+1");
  EXPECT_EQ(Find(anchored, u"aaa", 1), "none");  // ^ holds only at the subject's start

  const Regex word_start(u"\\bb", kEcma);
  EXPECT_EQ(Find(word_start, u"a b", 2), "2+1");  // the unit before `from` is a space
  EXPECT_EQ(Find(word_start, u"ab", 1), "none");  // ... here a word character
  EXPECT_EQ(Find(word_start, u"ab b", 1), "3+1");

  const Regex end(u"$", kEcma);
  EXPECT_EQ(Find(end, u"ab", 2), "2+0");  // searching at the very end still finds an end match
}

TEST(Regex, FullMatchNeedsTheWholeSubject) {
  const Regex as(u"a+", kEcma);
  EXPECT_TRUE(Full(as, u"aaa"));
  EXPECT_FALSE(Full(as, u"aab"));
  EXPECT_FALSE(Full(as, u""));
  EXPECT_EQ(Find(as, u"baab"), "1+2");

  // An alternative that is not first may still give the whole match.
  EXPECT_TRUE(Full(Regex(u"a|ab", kEcma), u"ab"));
  EXPECT_TRUE(Full(Regex(u"<city>(to)?<city>", kPosix), u"<city>to<city>"));
  EXPECT_FALSE(Full(Regex(u"<city>", kPosix), u"<city> "));
}

TEST(Regex, GrammarsDiffer) {
  // \d is a digit class in ECMAScript and not an escape the POSIX grammar knows.
  EXPECT_EQ(Find(Regex(u"\\d+", kEcma), u"ab12"), "2+2");
  EXPECT_THROW(Regex(u"\\d+", kPosix), RegexError);
  // ECMAScript takes the first alternative that matches, POSIX the longest.
  EXPECT_EQ(Find(Regex(u"a|ab", kEcma), u"abc"), "0+1");
  EXPECT_EQ(Find(Regex(u"a|ab", kPosix), u"abc"), "0+2");
  // Both are case-sensitive.
  EXPECT_EQ(Find(Regex(u"call", kEcma), u"Call"), "none");
  EXPECT_FALSE(Full(Regex(u"call", kPosix), u"Call"));
}

TEST(Regex, MatchesUtf16UnitsWithClassicClasses) {
  const std::u16string astral = u"\U0001F600";  // two units
  EXPECT_FALSE(Full(Regex(u".", kEcma), astral));
  EXPECT_TRUE(Full(Regex(u"..", kEcma), astral));
  // \w and [[:alpha:]] are ASCII only.
  EXPECT_EQ(Find(Regex(u"\\w+", kEcma), u"\u00E9ab"), "1+2");
  EXPECT_EQ(Find(Regex(u"[[:alpha:]]+", kPosix), u"\u00E9ab"), "1+2");
  EXPECT_EQ(Find(Regex(u"\u4F1A+", kEcma), u"x\u4F1A\u4F1A"), "1+2");
  EXPECT_EQ(Find(Regex(u".", kEcma), u"\n"), "none");
}

TEST(Regex, RejectsBadPatterns) {
  for (const char16_t* bad : {u"(", u"a)", u"[a", u"*a", u"a{2"}) {
    try {
      Regex regex(bad, kEcma);
      ADD_FAILURE() << "compiled a bad pattern: " << std::u16string(bad).size() << " units";
    } catch (const RegexError& e) {
      EXPECT_NE(std::string(e.what()), "");
    }
  }
}

TEST(Regex, BoundsGroupNesting) {
  auto nested = [](size_t depth) {
    return std::u16string(depth, u'(') + u"a" + std::u16string(depth, u')');
  };
  const Regex deepest(nested(kMaxRegexNesting), kPosix);
  EXPECT_TRUE(Full(deepest, u"a"));
  EXPECT_THROW(Regex(nested(kMaxRegexNesting + 1), kPosix), RegexError);
  EXPECT_THROW(Regex(nested(kMaxRegexNesting + 1), kEcma), RegexError);

  // Escaped parentheses and parentheses inside brackets are not groups.
  std::u16string escaped;
  for (size_t i = 0; i <= kMaxRegexNesting; ++i) escaped += u"\\(";
  const Regex literal(escaped, kEcma);
  EXPECT_TRUE(Full(literal, std::u16string(kMaxRegexNesting + 1, u'(')));
  std::u16string bracketed;
  for (size_t i = 0; i <= kMaxRegexNesting; ++i) bracketed += u"[(]";
  EXPECT_TRUE(Full(Regex(bracketed, kPosix), std::u16string(kMaxRegexNesting + 1, u'(')));
  // Groups in sequence do not add up.
  std::u16string siblings;
  for (size_t i = 0; i <= kMaxRegexNesting; ++i) siblings += u"(a)";
  EXPECT_TRUE(Full(Regex(siblings, kEcma), std::u16string(kMaxRegexNesting + 1, u'a')));
}

TEST(Regex, BoundsSubjectLength) {
  const Regex tail(u"b$", kEcma);
  std::u16string longest(kMaxRegexSubjectLength - 1, u'a');
  longest += u'b';
  EXPECT_EQ(Find(tail, longest), std::to_string(kMaxRegexSubjectLength - 1) + "+1");
  EXPECT_FALSE(Full(tail, longest));

  const RegexSubject too_long(longest + u"b");
  RegexMatch match;
  EXPECT_THROW(tail.Search(too_long, 0, &match), RegexError);
  EXPECT_THROW(tail.Search(too_long, too_long.size(), &match), RegexError);
  EXPECT_THROW(tail.FullMatch(too_long), RegexError);
}

TEST(Regex, SubjectCanBeReassigned) {
  const Regex digits(u"[0-9]+", kEcma);
  RegexSubject subject(u"abc 12");
  EXPECT_EQ(subject.size(), 6u);
  RegexMatch match;
  ASSERT_TRUE(digits.Search(subject, 0, &match));
  EXPECT_EQ(match.start, 4u);
  subject.Assign(u"7");
  EXPECT_EQ(subject.size(), 1u);
  ASSERT_TRUE(digits.Search(subject, 0, &match));
  EXPECT_EQ(match.start, 0u);
  EXPECT_EQ(match.length, 1u);
  EXPECT_EQ(RegexSubject().size(), 0u);
}

TEST(Regex, MovesKeepTheCompiledPattern) {
  Regex source(u"b+", kEcma);
  Regex moved(std::move(source));
  EXPECT_EQ(Find(moved, u"abbc"), "1+2");

  Regex target(u"x", kEcma);
  target = std::move(moved);
  EXPECT_EQ(Find(target, u"abbc"), "1+2");
  EXPECT_EQ(Find(target, u"x"), "none");

  // Growing a vector moves its elements; each keeps its own pattern.
  std::vector<Regex> many;
  for (char16_t c = u'a'; c <= u'z'; ++c) many.emplace_back(std::u16string(1, c), kEcma);
  for (size_t i = 0; i < many.size(); ++i) {
    EXPECT_EQ(Find(many[i], u"abcdefghijklmnopqrstuvwxyz"), std::to_string(i) + "+1");
  }
}

}  // namespace
}  // namespace rulenlu
