// Compiled regular expressions over UTF-16 text: the one place that knows which regex library
// the engine uses.
//
// Two grammars: ECMAScript (regex vocabularies; searched) and POSIX extended (intent rules;
// matched against the whole text). Matching is case-sensitive and uses the classic "C" rules
// whatever the host's global locale: \w and [[:alpha:]] are ASCII. A `.` matches one UTF-16 unit.
//
// Bounds, so that neither a configuration nor a query can exhaust the stack (the standard
// library's matcher recurses; the worst case allowed needs about 4 MB of stack):
//  - a pattern may be at most kMaxRegexPatternLength units long and nest groups at most
//    kMaxRegexNesting deep, else it does not compile;
//  - an ECMAScript expression whose groups nest n deep takes texts of at most
//    min(kMaxRegexSubjectLength, kMaxRegexSearchWork / (n + 1)) units; matching a longer text
//    throws RegexError. A POSIX whole match takes texts of any length.
//
// A compiled Regex is immutable and may be used from any number of threads at once.
#ifndef RULENLU_NLU_REGEX_H_
#define RULENLU_NLU_REGEX_H_

#include <cstddef>
#include <memory>
#include <string>
#include <string_view>

#include "base/error.h"

namespace rulenlu {

enum class RegexGrammar { kEcmaScript, kPosixExtended };

inline constexpr size_t kMaxRegexPatternLength = 4096;
inline constexpr size_t kMaxRegexNesting = 256;
inline constexpr size_t kMaxRegexSubjectLength = 2048;
inline constexpr size_t kMaxRegexSearchWork = 2048;

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
  void Assign(std::u16string_view text);
  size_t size() const { return units_.size(); }

 private:
  friend class Regex;
  std::wstring units_;  // one UTF-16 unit per element
};

struct RegexMatch {
  size_t start = 0;
  size_t length = 0;
};

class Regex {
 public:
  // Compiles `pattern`. Throws RegexError, with the library's reason, if it does not compile.
  Regex(std::u16string_view pattern, RegexGrammar grammar);
  ~Regex();
  Regex(Regex&&) noexcept;
  Regex& operator=(Regex&&) noexcept;

  // Finds the first match in `subject` that starts at or after `from`. The whole subject stays
  // the context: `^` matches only at offset 0, and `\b` sees the unit before `from`.
  // Returns false when there is none. Throws RegexError when the match cannot be carried out.
  bool Search(const RegexSubject& subject, size_t from, RegexMatch* match) const;

  // True when the pattern matches the whole of `subject`. Throws RegexError like Search.
  bool FullMatch(const RegexSubject& subject) const;

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

}  // namespace rulenlu

#endif  // RULENLU_NLU_REGEX_H_
