// The regex backend against std::wregex, the behaviour it reproduces, over random patterns built
// from every construct of both grammars and random short texts over an alphabet that hits them.
// The reference is configured as the engine's earlier backend was: classic locale, strict ISO
// mode, ECMAScript or extended, and match_prev_avail when a search resumes past offset 0.
// RULENLU_REGEX_SEED and RULENLU_REGEX_PATTERNS override the seed and the number of patterns.
#include <gtest/gtest.h>

#include <algorithm>
#include <cstdio>
#include <cstdlib>
#include <memory>
#include <optional>
#include <random>
#include <regex>
#include <string>
#include <vector>

#include "nlu/regex.h"
#include "nlu/regex_translate.h"
#include "regex_reference.h"

namespace rulenlu {
namespace {

constexpr RegexGrammar E = RegexGrammar::kEcmaScript;
constexpr RegexGrammar P = RegexGrammar::kPosixExtended;

std::string Printable(const std::u16string& text) {
  std::string out;
  for (char16_t c : text) {
    if (c >= 0x20 && c < 0x7f) {
      out += static_cast<char>(c);
    } else {
      char buffer[16];
      std::snprintf(buffer, sizeof buffer, "<%04X>", static_cast<unsigned>(c));
      out += buffer;
    }
  }
  return out;
}

// Units the texts are made of: letters, digits, space and line terminators, word and non-word
// punctuation, NUL, backspace, non-ASCII letters, digits and separators, and both halves of a
// surrogate pair.
const std::u16string kTextAlphabet = std::u16string(u"abcA01 \n\r_-.]") + u'\0' +
                                     u"\b\u00E9\u2028\u00A0\U0001F600\u0085\u3000\u0661";

// A text that `index` of `tree` may match, made by random choices along it (assertions taken
// as holding): a text that most patterns match whole.
void Sample(const RegexTree& tree, size_t index, std::mt19937* random, std::u16string* text) {
  const RegexNode& node = tree.nodes[index];
  switch (node.kind) {
    case RegexNode::kChar:
      text->push_back(node.unit);
      break;
    case RegexNode::kSet: {
      const auto& ranges = tree.sets[node.index];
      if (ranges.empty()) break;
      const auto [first, last] = ranges[(*random)() % ranges.size()];
      if (first <= last)
        text->push_back(static_cast<char16_t>(first + (*random)() % (last - first + 1)));
      break;
    }
    case RegexNode::kAlt:
      if (!node.kids.empty()) Sample(tree, node.kids[(*random)() % node.kids.size()], random, text);
      break;
    case RegexNode::kRepeat: {
      const uint64_t most = node.infinite ? node.min + 2 : std::min(node.max, node.min + 2);
      for (uint64_t n = node.min + (*random)() % (most - node.min + 1); n > 0 && text->size() <= 8;
           --n) {
        Sample(tree, node.kids[0], random, text);
      }
      break;
    }
    case RegexNode::kGroup:
    case RegexNode::kNoGroup:
    case RegexNode::kConcat:
      for (const size_t kid : node.kids) Sample(tree, kid, random, text);
      break;
    default:
      break;
  }
}

class PatternMaker {
 public:
  PatternMaker(std::mt19937* random, RegexGrammar grammar)
      : random_(*random), ecma_(grammar == E) {}

  std::u16string Make() {
    groups_ = 0;
    std::u16string pattern = Disjunction(3, 2);
    // Now and then a stray special unit, to exercise the errors.
    if (Chance(4)) {
      static const std::u16string kStray = u"()[]{}|*+?\\^$-,:=!.";
      pattern.insert(Pick(pattern.size() + 1), 1, kStray[Pick(kStray.size())]);
    }
    return pattern;
  }

 private:
  size_t Pick(size_t n) { return std::uniform_int_distribution<size_t>(0, n - 1)(random_); }
  bool Chance(size_t percent) { return Pick(100) < percent; }
  template <typename T>
  T From(std::initializer_list<T> options) {
    return options.begin()[Pick(options.size())];
  }

  // `loops`: how many quantifiers may still enclose one another. The standard library's
  // matcher is exponential in nested loops that can match empty text; two levels keep the
  // reference fast while still covering nesting and stacking.
  std::u16string Disjunction(int depth, int loops) {
    std::u16string out = Sequence(depth, loops);
    while (Chance(20)) out += u"|" + Sequence(depth, loops);
    return out;
  }

  // Inside a loop, no empty alternative: the reference is exponential in loops of loops whose
  // bodies match empty text in several ways.
  std::u16string Sequence(int depth, int loops) {
    std::u16string out;
    for (size_t n = loops < 2 ? 1 + Pick(3) : Pick(4); n > 0; --n) out += Term(depth, loops);
    return out;
  }

  std::u16string Term(int depth, int loops) {
    if (Chance(8)) return Assertion(depth, loops);
    int quantifiers = Chance(35) ? 1 + Chance(20) : 0;  // a second one is stacked
    quantifiers = std::min(quantifiers, loops);
    // A trailing '?' makes the quantifier lazy in ECMAScript but stacks another in POSIX.
    const bool suffix = quantifiers > 0 && Chance(25) && (ecma_ || quantifiers < loops);
    std::u16string out = Atom(depth, loops - quantifiers - (suffix && !ecma_));
    // Copies of a loop multiply the reference's work: counts on a loop stay small.
    for (int q = 0; q < quantifiers; ++q) out += Quantifier(/*small=*/loops < 2 || q > 0);
    if (suffix) out += u"?";
    return out;
  }

  std::u16string Assertion(int depth, int loops) {
    static const char16_t* const kAnchors[] = {u"^", u"$", u"\\b", u"\\B"};
    const size_t kind = Pick(ecma_ ? 6 : 2);
    if (kind < 4) return kAnchors[kind];
    if (depth <= 0) return u"\\b";
    return (Chance(50) ? u"(?=" : u"(?!") + Disjunction(depth - 1, loops) + u")";
  }

  std::u16string Quantifier(bool small) {
    small_ = small;
    const size_t kind = Pick(8);
    if (kind < 3) return std::u16string(1, u"*+?"[kind]);
    if (kind == 3) return u"{" + Number() + u"}";
    if (kind == 4) return u"{" + Number() + u",}";
    if (kind == 5) return u"{" + Number() + u"," + Number() + u"}";
    if (kind == 6 && Chance(30)) {
      return From<const char16_t*>({u"{", u"{,2}", u"{1", u"{x}", u"{1,2,3}", u"{ 1}", u"{2,1}"});
    }
    return From<const char16_t*>({u"*", u"+", u"?"});
  }

  std::u16string Number() {
    if (small_) return std::u16string(1, static_cast<char16_t>(u'0' + Pick(3)));
    if (Chance(3)) {
      // Numbers that wrap in the standard library's arithmetic, and counts near its limits.
      return From<const char16_t*>({u"4294967297", u"4294967296", u"2147483648",
                                    u"18446744073709551617", u"99999", u"70000", u"65536",
                                    u"30000"});
    }
    return std::u16string(1, static_cast<char16_t>(u'0' + Pick(4)));
  }

  std::u16string Atom(int depth, int loops) {
    const size_t kind = Pick(depth > 0 ? 12 : 9);
    if (kind == 2) return u".";
    if (kind == 3) return Escape();
    if (kind == 4 || kind == 5) return Bracket();
    if (kind == 6) return From<const char16_t*>({u"]", u"}", u"a", u"b"});
    if (kind == 7 && ecma_ && groups_ > 0 && Chance(60)) {
      return u"\\" + std::u16string(1, static_cast<char16_t>(u'1' + Pick(groups_)));
    }
    if (kind < 9) return Literal();
    if (kind == 9 && ecma_ && Chance(30)) return u"(?:" + Disjunction(depth - 1, loops) + u")";
    ++groups_;
    return u"(" + Disjunction(depth - 1, loops) + u")";
  }

  std::u16string Literal() {
    static const std::u16string kLiterals = std::u16string(u"aabbcA01 -_,:=!") +
                                            u"\u00E9\u2028\U0001F600" + char16_t{0xDC00} +
                                            (ecma_ ? u"\n" : u"");
    std::u16string out(1, kLiterals[Pick(kLiterals.size())]);
    if (ecma_ && Chance(3)) out = std::u16string(1, u'\0');
    return out;
  }

  std::u16string Escape() {
    static const char16_t* const kEcma[] = {
        u"\\d",  u"\\D", u"\\w",  u"\\W",   u"\\s",      u"\\S",     u"\\n",     u"\\r",
        u"\\t",  u"\\0", u"\\01", u"\\x41", u"\\x4",     u"\\u00e9", u"\\uD83D", u"\\u{41}",
        u"\\cJ", u"\\c", u"\\q",  u"\\z",   u"\\A",      u"\\.",     u"\\*",     u"\\(",
        u"\\[",  u"\\]", u"\\-",  u"\\/",   u"\\\u00E9", u"\\1",     u"\\10",    u"\\4294967297",
        u"\\f",  u"\\v", u"\\e",  u"\\$",   u"\\^",      u"\\|",     u"\\{"};
    static const char16_t* const kPosix[] = {
        u"\\.", u"\\[", u"\\\\", u"\\(", u"\\)", u"\\*", u"\\+", u"\\?", u"\\{", u"\\|",
        u"\\^", u"\\$", u"\\d",  u"\\]", u"\\}", u"\\<", u"\\1", u"\\n", u"\\a"};
    if (!ecma_ && !Chance(15)) return kPosix[Pick(12)];  // the first twelve are valid
    return ecma_ ? kEcma[Pick(std::size(kEcma))] : kPosix[Pick(std::size(kPosix))];
  }

  std::u16string BracketItem() {
    static const char16_t* const kItems[] = {
        u"a",         u"b",         u"c",     u"A",     u"0",     u"_",          u" ",
        u"-",         u"\u00E9",    u"a-c",   u"A-Z",   u"0-1",   u"[:alpha:]",  u"[:digit:]",
        u"[:space:]", u"[:ALPHA:]", u"[:w:]", u"[:W:]", u"[:d:]", u"[:punct:]",  u"[:upper:]",
        u"[:cntrl:]", u"[:print:]", u"[=a=]", u"[=A=]", u"[.a.]", u"[.hyphen.]", u"[.space.]",
        u"[.NUL.]",   u"[.a.]-c",   u"[",     u"\\",    u"^",     u".",          u"--0"};
    static const char16_t* const kEcmaItems[] = {
        u"\\d",  u"\\W", u"\\s",   u"\\b", u"\\]",
        u"\\-",  u"\\n", u"\\x41", u"\\0", u"\\uD800-\\uDBFF",
        u"\\cJ", u"\\D-"};
    // Items that one grammar or both reject.
    static const char16_t* const kOdd[] = {
        u"c-a", u"[:foo:]", u"[:alpha", u"[=ab=]", u"[.-.]",      u"[.ab.]",     u"\\B",
        u"\\1", u"a-\\d",   u"\\d-z",   u"a-c-e",  u"[=\u00E9=]", u"[.\u00E9.]", u"[:\u00E9:]"};
    if (Chance(6)) return kOdd[Pick(std::size(kOdd))];
    if (ecma_ && Chance(30)) return kEcmaItems[Pick(std::size(kEcmaItems))];
    return kItems[Pick(std::size(kItems))];
  }

  std::u16string Bracket() {
    std::u16string out = Chance(30) ? u"[^" : u"[";
    if (Chance(10)) out += u"]";
    if (Chance(10)) out += u"-";
    for (size_t n = Pick(4); n > 0; --n) out += BracketItem();
    if (Chance(10)) out += u"-";
    if (!Chance(2)) out += u"]";
    return out;
  }

  std::mt19937& random_;
  bool ecma_;
  size_t groups_ = 0;
  bool small_ = false;
};

std::string Found(bool found, size_t start, size_t length) {
  return found ? std::to_string(start) + "+" + std::to_string(length) : "none";
}

struct Tally {
  size_t patterns = 0;
  size_t rejected_by_both = 0;
  size_t deliberately_rejected = 0;
  size_t texts = 0;
  size_t searches = 0;
  size_t longer_posix_searches = 0;
  size_t ruled_out = 0;  // searches a finder answered without a search
  size_t finite = 0;     // POSIX patterns that name the texts they match
  size_t contained = 0;  // texts that every whole match of a POSIX pattern was said to hold
  size_t failures = 0;
};

// Compares one pattern on `texts`; records differences as test failures.
void Compare(const std::u16string& pattern, RegexGrammar grammar, std::vector<std::u16string> texts,
             Tally* tally) {
  ++tally->patterns;
  const std::string shown = (grammar == E ? "E /" : "P /") + Printable(pattern) + "/";
  if (std::getenv("RULENLU_REGEX_TRACE") != nullptr) std::fprintf(stderr, "%s\n", shown.c_str());
  const std::optional<std::wregex> reference = StandardRegex(pattern, grammar);
  std::string reason;
  const std::unique_ptr<Regex> ours = OurRegex(pattern, grammar, &reason);
  auto fail = [&](const std::string& what) {
    if (++tally->failures <= 30) ADD_FAILURE() << shown << ": " << what;
  };
  if (!reference) {
    if (ours != nullptr) fail("compiles, but std::wregex rejects it");
    ++tally->rejected_by_both;
    return;
  }
  if (ours == nullptr) {
    // Only the documented constructs may be refused.
    const bool lookahead = pattern.find(u"(?=") != std::u16string::npos ||
                           pattern.find(u"(?!") != std::u16string::npos;
    const bool large = pattern.find(u"{") != std::u16string::npos;
    const bool allowed = reason.rfind("not supported: ", 0) == 0 &&
                         (reason.find("lookahead") != std::string::npos ? lookahead : large);
    if (!allowed) fail("rejected (" + reason + "), but std::wregex accepts it");
    ++tally->deliberately_rejected;
    return;
  }
  // A finder of this one pattern tells where a search's match begins its own way.
  const std::unique_ptr<RegexFinder> finder =
      grammar == E ? std::make_unique<RegexFinder>(std::vector<std::u16string>{pattern}) : nullptr;
  // A rule set of this one pattern answers whole matches its own way (an automaton).
  // It also tells which texts every whole match contains.
  static const std::vector<std::u16string> kWatched = {u"a",  u"b",   u"ab", u"ba",
                                                       u"aa", u"abc", u"0",  u" a"};
  const std::unique_ptr<RegexSet> rules =
      grammar == P ? std::make_unique<RegexSet>(std::vector<std::u16string>{pattern}, kWatched)
                   : nullptr;
  if (rules != nullptr && rules->compiled(0)) {
    for (size_t w = 0; w < kWatched.size(); ++w) tally->contained += rules->AlwaysContains(w);
  }
  if (rules != nullptr && !rules->compiled(0)) fail("rejected as a rule: " + rules->error(0));
  // Beside a rule no automaton reads, it is answered by its texts or an expression instead.
  const std::unique_ptr<RegexSet> rules_apart =
      grammar == P ? std::make_unique<RegexSet>(std::vector<std::u16string>{pattern, u"q{20000}"})
                   : nullptr;
  const RegexTree tree = TranslateRegex(pattern, grammar).tree;
  // Whole matches are as long as the pattern's length bounds allow.
  const LengthRange lengths = MatchLengths(tree);
  std::vector<std::u16string> matches;
  tally->finite += grammar == P && FiniteMatches(tree, 8, 64, &matches);
  for (const std::u16string& text : texts) {
    ++tally->texts;
    const std::wstring wide(text.begin(), text.end());
    const RegexSubject subject(text);
    const std::string where = " on \"" + Printable(text) + "\"";
    try {
      RegexFinder::Starts starts;
      if (finder != nullptr) finder->Scan(subject, &starts);
      const bool whole = std::regex_match(wide, *reference);
      if (ours->FullMatch(subject) != whole) {
        fail(std::string("whole match ") + (whole ? "missed" : "found") + where);
      }
      if (whole && (text.size() < lengths.least || text.size() > lengths.most)) {
        fail("whole match outside the length bounds " + std::to_string(lengths.least) + ".." +
             std::to_string(lengths.most) + where);
      }
      if (rules != nullptr && rules->AnyFullMatch(subject) != whole) {
        fail(std::string("rule set's whole match ") + (whole ? "missed" : "found") + where);
      }
      for (size_t w = 0; whole && rules != nullptr && w < kWatched.size(); ++w) {
        if (rules->AlwaysContains(w) && text.find(kWatched[w]) == std::u16string::npos) {
          fail("whole match without \"" + Printable(kWatched[w]) +
               "\", which every match was said to hold" + where);
        }
      }
      if (rules_apart != nullptr && (rules_apart->AnyFullMatch(subject) != whole ||
                                     (whole && rules_apart->LivePrefix(text) != text.size()))) {
        fail(std::string("rule set's whole match, apart, ") + (whole ? "missed" : "found") + where);
      }
      for (size_t from = 0; from <= text.size(); ++from) {
        ++tally->searches;
        std::wsmatch found;
        const bool hit = std::regex_search(wide.begin() + static_cast<std::ptrdiff_t>(from),
                                           wide.end(), found, *reference,
                                           from > 0 ? std::regex_constants::match_prev_avail
                                                    : std::regex_constants::match_default);
        const std::string expected =
            Found(hit, hit ? static_cast<size_t>(found[0].first - wide.begin()) : 0,
                  hit ? static_cast<size_t>(found[0].length()) : 0);
        if (finder != nullptr) {
          // The finder knows where the search's match begins, or says it cannot tell.
          const size_t start = finder->NextStart(starts, 0, from);
          const size_t wanted =
              hit ? static_cast<size_t>(found[0].first - wide.begin()) : RegexFinder::kNone;
          if (start != RegexFinder::kUnknown && start != wanted) {
            fail("finder's start " + std::to_string(start) + " from " + std::to_string(from) +
                 where + ", std::wregex's " + expected);
          }
          tally->ruled_out += start == RegexFinder::kNone;
          // Its search, exact or looser, attempts only where a match may begin.
          RegexMatch searched;
          const bool found_by_finder = finder->Search(*ours, starts, 0, subject, from, &searched);
          if (Found(found_by_finder, searched.start, searched.length) != expected) {
            fail("finder's search from " + std::to_string(from) + where + ", std::wregex's " +
                 expected);
          }
          RegexMatch at;
          if (hit && start == wanted &&
              (!ours->MatchAt(subject, start, &at) ||
               Found(true, at.start, at.length) != expected)) {
            fail("match at " + std::to_string(start) + where);
          }
        }
        RegexMatch match;
        const bool our_hit = ours->Search(subject, from, &match);
        const std::string actual = Found(our_hit, match.start, match.length);
        if (grammar == P && hit && our_hit && actual != expected) {
          // The reference's POSIX search can miss the longest match in nested repeats (it
          // stops trying to leave a loop once any match is found); ours is the longest: it
          // starts at the same place, is not shorter, and the reference matches it whole.
          const auto first = wide.begin() + static_cast<std::ptrdiff_t>(match.start);
          const auto last = first + static_cast<std::ptrdiff_t>(match.length);
          auto flags = std::regex_constants::match_default;
          if (match.start > 0) flags |= std::regex_constants::match_not_bol;
          if (last != wide.end()) flags |= std::regex_constants::match_not_eol;
          if (match.start == static_cast<size_t>(found[0].first - wide.begin()) &&
              match.length > static_cast<size_t>(found[0].length()) &&
              std::regex_match(first, last, *reference, flags)) {
            ++tally->longer_posix_searches;
            continue;
          }
        }
        if (actual != expected) {
          fail("search from " + std::to_string(from) + where + ": " + actual + ", std::wregex " +
               expected);
        }
      }
    } catch (const RegexError& e) {
      fail(std::string("match abandoned: ") + e.what() + where);
    }
  }
}

size_t EnvNumber(const char* name, size_t fallback) {
  const char* value = std::getenv(name);
  return value != nullptr && *value != '\0' ? std::strtoull(value, nullptr, 10) : fallback;
}

TEST(RegexDifferential, AgreesWithTheStandardLibrary) {
  const size_t seed = EnvNumber("RULENLU_REGEX_SEED", 20240611);
  const size_t patterns = EnvNumber("RULENLU_REGEX_PATTERNS", 40000);
  std::mt19937 random(static_cast<std::mt19937::result_type>(seed));
  Tally tally;
  for (size_t n = 0; n < patterns; ++n) {
    const RegexGrammar grammar = n % 3 == 2 ? P : E;
    const std::u16string pattern = PatternMaker(&random, grammar).Make();
    std::vector<std::u16string> texts;
    for (int t = 0; t < 7; ++t) {
      std::u16string text;
      for (size_t k = random() % 8; k > 0; --k)
        text += kTextAlphabet[random() % kTextAlphabet.size()];
      texts.push_back(text);
    }
    try {
      const RegexTree tree = TranslateRegex(pattern, grammar).tree;
      for (int t = 0; t < 2; ++t) {
        std::u16string text;
        Sample(tree, tree.root, &random, &text);
        if (text.size() <= 8) texts.push_back(text);  // longer ones take the reference long
      }
    } catch (const RegexError&) {
      // Compare reports what it must.
    }
    Compare(pattern, grammar, texts, &tally);
  }
  std::printf(
      "seed %zu: %zu patterns (%zu rejected by both, %zu deliberately by ours), "
      "%zu pattern-text cases, %zu searches (%zu found none by the finder alone, %zu POSIX ones "
      "longer than the reference's), %zu POSIX patterns naming their texts, %zu texts every "
      "match holds, %zu differences\n",
      seed, tally.patterns, tally.rejected_by_both, tally.deliberately_rejected, tally.texts,
      tally.searches, tally.ruled_out, tally.longer_posix_searches, tally.finite, tally.contained,
      tally.failures);
  EXPECT_EQ(tally.failures, 0u);
  // The generator must mostly make patterns both accept, or the comparison says little.
  EXPECT_GT(tally.texts, 100000u);
  EXPECT_GT(tally.ruled_out, tally.searches / 10);
  EXPECT_GT(tally.finite, tally.patterns / 20);
  EXPECT_GT(tally.contained, tally.patterns / 40);
}

}  // namespace
}  // namespace rulenlu
