// Compiled regular expressions over UTF-16 text: the one place that knows which regex library
// the engine uses.
//
// Two grammars: ECMAScript (regex vocabularies; searched) and POSIX extended (intent rules;
// matched against the whole text). A pattern means what std::wregex makes of it in the GNU
// standard library 12, strict ISO C++17, classic "C" locale, one UTF-16 unit per element: the
// same patterns compile, and searches and whole matches give the same answers. So matching is
// case-sensitive, \w and [[:alpha:]] are ASCII, a `.` matches one UTF-16 unit (ECMAScript: any
// but \n \r U+2028 U+2029; POSIX: any but NUL), `$` holds only at the end of the text and `^`
// only at its start. A POSIX search finds the leftmost, then longest, match; std::wregex may
// report a shorter one there when repeats nest (it stops trying to leave a loop once any match
// is found). Whole matches, the only POSIX answer the engine uses, agree.
//
// Deliberate differences: these patterns, which std::wregex accepts, do not compile here:
//  - ECMAScript `^`, `\b` or `\B` inside a lookahead (std::wregex tests them against the
//    lookahead's own start on a search's first attempt from offset 0 and on whole matches);
//  - a back-reference to a group inside a lookahead that does not also contain the reference
//    (std::wregex keeps that group's text even after the lookahead has failed);
//  - a pattern too large or too deeply nested for the matcher once translated (large counts of
//    repeated groups, e.g. (a?){13000}; hundreds of stacked quantifiers, e.g. a*****...);
//  - a pattern longer than kMaxRegexPatternLength units or nesting groups deeper than
//    kMaxRegexNesting.
// Their RegexError reason starts with "not supported" (or names the bound).
//
// Bounds instead of refusals: texts of any length are matched. Each match attempt at one start
// position may take at most kRegexStepBase + kRegexStepsPerUnit * (text length) backtracking
// steps, and runs on a fixed per-thread stack; beyond that the match throws RegexError rather
// than hang or overflow. A search makes one attempt per start position, so its work is at most
// that times the number of positions.
//
// A compiled Regex or RegexSet is immutable and may be used from any number of threads at once.
#ifndef RULENLU_NLU_REGEX_H_
#define RULENLU_NLU_REGEX_H_

#include <cstddef>
#include <cstdint>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "base/error.h"

namespace rulenlu {

enum class RegexGrammar { kEcmaScript, kPosixExtended };

inline constexpr size_t kMaxRegexPatternLength = 4096;
inline constexpr size_t kMaxRegexNesting = 256;
inline constexpr uint64_t kRegexStepBase = 100000;
inline constexpr uint64_t kRegexStepsPerUnit = 4;

// Raised when a pattern does not compile or a match cannot be carried out.
class RegexError : public Error {
 public:
  using Error::Error;
};

// A text prepared for matching. Prepare once, match many times.
class RegexSubject {
 public:
  RegexSubject() = default;
  explicit RegexSubject(std::u16string_view text) { Assign(text); }
  void Assign(std::u16string_view text) { units_.assign(text.begin(), text.end()); }
  // Takes `*text` as the subject and leaves the previous subject's units in `*text`.
  void Swap(std::u16string* text) { units_.swap(*text); }
  size_t size() const { return units_.size(); }

 private:
  friend class Regex;
  friend class RegexFinder;
  friend class RegexSet;
  std::u16string units_;
};

struct RegexMatch {
  size_t start = 0;
  size_t length = 0;
};

class Regex {
 public:
  // Compiles `pattern`. Throws RegexError, with a reason, if it does not compile.
  Regex(std::u16string_view pattern, RegexGrammar grammar);
  ~Regex();
  Regex(Regex&&) noexcept;
  Regex& operator=(Regex&&) noexcept;

  // Finds the first match in `subject` that starts at or after `from`. The whole subject stays
  // the context: `^` matches only at offset 0, and `\b` sees the unit before `from`.
  // Returns false when there is none. Throws RegexError when the match exceeds its bounds.
  bool Search(const RegexSubject& subject, size_t from, RegexMatch* match) const;

  // The match that a search finds when it begins at `start`: Search when no match begins
  // before `start`. Returns false when none begins there. Throws RegexError like Search.
  bool MatchAt(const RegexSubject& subject, size_t start, RegexMatch* match) const;

  // True when the pattern matches the whole of `subject`. Throws RegexError like Search.
  bool FullMatch(const RegexSubject& subject) const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// Where the matches of many ECMAScript patterns begin in a text, found in one pass over it.
// Most patterns of a configuration have no match in most queries, and then need no search; a
// search that knows where its match begins makes one attempt instead of one per offset. For a
// pattern with a lookahead or a back-reference, the pass finds where matches of a looser
// pattern begin (the lookahead always holding, the reference matching any text): the search
// makes its attempts only there.
class RegexFinder {
 public:
  static constexpr size_t kNone = SIZE_MAX;
  static constexpr size_t kUnknown = SIZE_MAX - 1;

  explicit RegexFinder(const std::vector<std::u16string>& patterns);
  ~RegexFinder();
  RegexFinder(RegexFinder&&) noexcept;
  RegexFinder& operator=(RegexFinder&&) noexcept;

  // What Scan found in one subject.
  class Starts {
   private:
    friend class RegexFinder;
    std::vector<std::vector<uint64_t>> at_;  // per group of patterns, per offset
    std::vector<uint64_t> any_;              // per group
  };

  // Finds where the patterns' matches begin in `subject`.
  void Scan(const RegexSubject& subject, Starts* starts) const;

  // The first offset at or after `from` where a match of patterns[i] begins in the subject
  // `starts` was scanned from (the whole subject the context, as Regex::Search has it); kNone
  // when there is none; kUnknown when this cannot tell (a pattern with a lookahead or a
  // back-reference, or that does not compile).
  size_t NextStart(const Starts& starts, size_t i, size_t from) const;

  // What regex.Search(subject, from, match) finds, where `regex` is patterns[i] compiled and
  // `starts` was scanned from `subject`: attempts are made only where a match may begin.
  // Throws RegexError as Regex::Search does.
  bool Search(const Regex& regex, const Starts& starts, size_t i, const RegexSubject& subject,
              size_t from, RegexMatch* match) const;

 private:
  // The first offset at or after `from` where a match of patterns[i], or of its looser
  // pattern, may begin; kNone or kUnknown as for NextStart.
  size_t Candidate(const Starts& starts, size_t i, size_t from) const;
  // Search, where `start` is Candidate(starts, i, from) and not kNone.
  bool SearchFrom(const Regex& regex, const Starts& starts, size_t i, const RegexSubject& subject,
                  size_t from, size_t start, RegexMatch* match) const;

  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// Many POSIX-extended patterns (rules) answered together: which is the first rule, in the
// given order, that matches a whole text. Each rule compiles or not exactly as a Regex of its
// own would; rules that do not compile take no part in matching and keep their reason. Rules
// without back-references whose deterministic automaton stays small are answered by that
// automaton, one step per unit of the text and never beyond a bound; otherwise rules that match
// only a few texts by looking the text up, also never beyond a bound; others as a Regex is.
class RegexSet {
 public:
  static constexpr size_t kNoMatch = SIZE_MAX;

  // Also tells, for each of `watched`, whether every whole match of every compiled rule
  // contains it (AlwaysContains).
  explicit RegexSet(const std::vector<std::u16string>& patterns,
                    const std::vector<std::u16string>& watched = {});
  ~RegexSet();
  RegexSet(RegexSet&&) noexcept;
  RegexSet& operator=(RegexSet&&) noexcept;

  size_t size() const;
  // Whether rule `index` compiled; if not, why (empty when it did).
  bool compiled(size_t index) const;
  const std::string& error(size_t index) const;

  // A length n such that no compiled rule matches a whole text that begins with more than the
  // first n units of `text` (at most text.size(); n may be larger than the shortest such).
  size_t LivePrefix(std::u16string_view text) const;

  // True when every text that some compiled rule matches whole contains watched[index]; false
  // when not, or when that is not known (and when no rule compiled).
  bool AlwaysContains(size_t watched) const;

  // The lowest index of a compiled rule that matches the whole of `subject`, or kNoMatch.
  // Throws RegexError when the match exceeds its bounds (as a Regex would).
  size_t FirstFullMatch(const RegexSubject& subject) const;
  bool AnyFullMatch(const RegexSubject& subject) const {
    return FirstFullMatch(subject) != kNoMatch;
  }

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace rulenlu

#endif  // RULENLU_NLU_REGEX_H_
