#include "nlu/regex.h"

#include <algorithm>
#include <bitset>
#include <locale>
#include <regex>
#include <vector>

namespace rulenlu {
namespace {

// Index of the "]" that closes the bracket expression opening at `open`, read as `grammar`
// reads it; pattern.size() when it does not close.
size_t BracketEnd(std::u16string_view pattern, size_t open, RegexGrammar grammar) {
  const bool ecma = grammar == RegexGrammar::kEcmaScript;
  size_t i = open + 1;
  if (i < pattern.size() && pattern[i] == u'^') ++i;
  if (!ecma && i < pattern.size() && pattern[i] == u']') ++i;  // a leading ] is literal in POSIX
  for (; i < pattern.size(); ++i) {
    const char16_t c = pattern[i];
    if (c == u']') return i;
    if (c == u'\\' && ecma) {
      ++i;
    } else if (c == u'[' && i + 1 < pattern.size() &&
               (pattern[i + 1] == u':' || pattern[i + 1] == u'=' || pattern[i + 1] == u'.')) {
      // [:class:], [=equivalent=], [.collating.]: their "]" does not close the bracket.
      const char16_t close[] = {pattern[i + 1], u']', u'\0'};
      const size_t end = pattern.find(close, i + 2);
      if (end == std::u16string_view::npos) return pattern.size();
      i = end + 1;
    }
  }
  return pattern.size();
}

// Deepest group nesting in `pattern`; escaped parentheses and bracket contents do not count.
size_t GroupNesting(std::u16string_view pattern, RegexGrammar grammar) {
  size_t depth = 0;
  size_t deepest = 0;
  for (size_t i = 0; i < pattern.size(); ++i) {
    const char16_t c = pattern[i];
    if (c == u'\\') {
      ++i;
    } else if (c == u'[') {
      i = BracketEnd(pattern, i, grammar);
    } else if (c == u'(') {
      deepest = std::max(deepest, ++depth);
    } else if (c == u')' && depth > 0) {
      --depth;
    }
  }
  return deepest;
}

// The standard regex traits for wchar_t consult the locale's facets on every classification
// (each \b asks for the "w" class by name, each bracket for a collation key): most of the time
// spent matching. These traits answer for ASCII units from tables filled once with the standard
// traits' own answers in the classic locale, with which every expression is imbued, and defer to
// them for everything else, so matching is unchanged.
class ClassicTraits : public std::regex_traits<wchar_t> {
  using Base = std::regex_traits<wchar_t>;

 public:
  template <typename It>
  char_class_type lookup_classname(It first, It last, bool icase = false) const {
    if (last - first == 1) {
      for (const ClassTable& table : Tables().classes) {
        if (table.name == *first && table.icase == icase) return table.mask;
      }
    }
    return Base::lookup_classname(first, last, icase);
  }

  bool isctype(wchar_t unit, char_class_type mask) const {
    if (static_cast<unsigned long>(unit) < kTableSize) {
      for (const ClassTable& table : Tables().classes) {
        if (table.mask == mask) return table.members[static_cast<size_t>(unit)];
      }
    }
    return Base::isctype(unit, mask);
  }

  template <typename It>
  string_type transform_primary(It first, It last) const {
    if (last - first == 1 && static_cast<unsigned long>(*first) < kTableSize) {
      return Tables().primary[static_cast<size_t>(*first)];
    }
    return Base::transform_primary(first, last);
  }

 private:
  static constexpr size_t kTableSize = 128;

  struct ClassTable {
    wchar_t name;  // L'\0' for the empty class
    bool icase;
    char_class_type mask;
    std::bitset<kTableSize> members;
  };
  struct TableSet {
    std::vector<ClassTable> classes;
    string_type primary[kTableSize];
  };

  static const TableSet& Tables() {
    static const TableSet* const tables = [] {
      auto* built = new TableSet;  // never destroyed: expressions may be used during exit
      Base standard;
      standard.imbue(std::locale::classic());
      auto add = [&](wchar_t name, bool icase, char_class_type mask) {
        ClassTable table{name, icase, mask, {}};
        for (size_t unit = 0; unit < kTableSize; ++unit) {
          table.members[unit] = standard.isctype(static_cast<wchar_t>(unit), mask);
        }
        built->classes.push_back(table);
      };
      add(L'\0', false, char_class_type());
      for (const wchar_t name : {L'w', L'd', L's'}) {
        for (const bool icase : {false, true}) {
          add(name, icase, standard.lookup_classname(&name, &name + 1, icase));
        }
      }
      for (size_t unit = 0; unit < kTableSize; ++unit) {
        const wchar_t ch = static_cast<wchar_t>(unit);
        built->primary[unit] = standard.transform_primary(&ch, &ch + 1);
      }
      return built;
    }();
    return *tables;
  }
};

using ClassicRegex = std::basic_regex<wchar_t, ClassicTraits>;

}  // namespace

struct Regex::Impl {
  ClassicRegex regex;          // backtracking: recurses for every unit it consumes
  ClassicRegex breadth_first;  // extended grammar only: no recursion per unit, but slower
  size_t max_backtracking;     // longest text the backtracking form may take
  bool has_breadth_first = false;
};

namespace {

void CheckSubject(const RegexSubject& subject, size_t max_subject) {
  if (subject.size() > max_subject) {
    throw RegexError("text longer than " + std::to_string(max_subject) +
                     " units cannot be matched by this expression");
  }
}

}  // namespace

void RegexSubject::Assign(std::u16string_view text) { units_.assign(text.begin(), text.end()); }

Regex::Regex(std::u16string_view pattern, RegexGrammar grammar) {
  if (pattern.size() > kMaxRegexPatternLength) {
    throw RegexError("pattern longer than " + std::to_string(kMaxRegexPatternLength) + " units");
  }
  const size_t nesting = GroupNesting(pattern, grammar);
  if (nesting > kMaxRegexNesting) {
    throw RegexError("groups nested more than " + std::to_string(kMaxRegexNesting) + " deep");
  }
  // A backtracking match recurses for every unit it consumes, the deeper the more groups
  // enclose it: it takes only texts short enough for the stack. A whole match of an extended
  // expression (which has no back-references) can also run breadth-first, which does not
  // recurse per unit but is slower: that form takes the longer texts, of any length.
  const bool ecma = grammar == RegexGrammar::kEcmaScript;
  impl_ = std::make_unique<Impl>();
  impl_->max_backtracking = std::min(kMaxRegexSubjectLength, kMaxRegexSearchWork / (nesting + 1));
  const std::wstring units(pattern.begin(), pattern.end());
  try {
    // Classic rules whatever locale the host makes global.
    impl_->regex.imbue(std::locale::classic());
    impl_->regex.assign(units,
                        ecma ? std::regex_constants::ECMAScript : std::regex_constants::extended);
    if (!ecma) {
      impl_->breadth_first.imbue(std::locale::classic());
      impl_->breadth_first.assign(
          units, std::regex_constants::extended | std::regex_constants::__polynomial);
      impl_->has_breadth_first = true;
    }
  } catch (const std::regex_error& e) {
    throw RegexError(e.what());
  }
}

Regex::~Regex() = default;
Regex::Regex(Regex&&) noexcept = default;
Regex& Regex::operator=(Regex&&) noexcept = default;

bool Regex::Search(const RegexSubject& subject, size_t from, RegexMatch* match) const {
  CheckSubject(subject, impl_->max_backtracking);
  const std::wstring& units = subject.units_;
  if (from > units.size()) return false;
  auto flags = std::regex_constants::match_default;
  if (from > 0) flags |= std::regex_constants::match_prev_avail;
  std::wsmatch found;
  try {
    if (!std::regex_search(units.begin() + from, units.end(), found, impl_->regex, flags)) {
      return false;
    }
  } catch (const std::regex_error& e) {
    throw RegexError(e.what());
  }
  match->start = static_cast<size_t>(found[0].first - units.begin());
  match->length = static_cast<size_t>(found[0].length());
  return true;
}

bool Regex::FullMatch(const RegexSubject& subject) const {
  const bool backtrack = subject.size() <= impl_->max_backtracking;
  if (!impl_->has_breadth_first) CheckSubject(subject, impl_->max_backtracking);
  try {
    return std::regex_match(subject.units_, backtrack ? impl_->regex : impl_->breadth_first);
  } catch (const std::regex_error& e) {
    throw RegexError(e.what());
  }
}

}  // namespace rulenlu
