#include "nlu/regex.h"

#include <bitset>
#include <regex>
#include <vector>

namespace rulenlu {
namespace {

// Deepest group nesting in `pattern`; escaped parentheses and bracket contents do not count.
size_t GroupNesting(std::u16string_view pattern) {
  size_t depth = 0;
  size_t deepest = 0;
  bool in_brackets = false;
  for (size_t i = 0; i < pattern.size(); ++i) {
    const char16_t c = pattern[i];
    if (c == u'\\') {
      ++i;
    } else if (in_brackets) {
      if (c == u']') in_brackets = false;
    } else if (c == u'[') {
      in_brackets = true;
      if (i + 1 < pattern.size() && pattern[i + 1] == u'^') ++i;
      if (i + 1 < pattern.size() && pattern[i + 1] == u']') ++i;  // a leading ] is literal
    } else if (c == u'(') {
      deepest = std::max(deepest, ++depth);
    } else if (c == u')' && depth > 0) {
      --depth;
    }
  }
  return deepest;
}

void CheckSubject(const RegexSubject& subject) {
  if (subject.size() > kMaxRegexSubjectLength) {
    throw RegexError("text longer than " + std::to_string(kMaxRegexSubjectLength) +
                     " units cannot be matched");
  }
}

// The standard regex traits for wchar_t consult the locale's facets on every classification
// (each \b asks for the "w" class by name, each bracket for a collation key): most of the time
// spent matching. These traits answer for ASCII units from tables filled once with the standard
// traits' own answers, and defer to them for everything else, so matching is unchanged. The
// global locale is never changed, so one set of tables serves every expression.
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
      const Base standard;
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
  ClassicRegex regex;
};

void RegexSubject::Assign(std::u16string_view text) { units_.assign(text.begin(), text.end()); }

Regex::Regex(std::u16string_view pattern, RegexGrammar grammar) {
  if (GroupNesting(pattern) > kMaxRegexNesting) {
    throw RegexError("groups nested more than " + std::to_string(kMaxRegexNesting) + " deep");
  }
  const auto flags = grammar == RegexGrammar::kEcmaScript ? std::regex_constants::ECMAScript
                                                          : std::regex_constants::extended;
  try {
    impl_ = std::make_unique<Impl>(Impl{ClassicRegex(std::wstring(pattern.begin(), pattern.end()),
                                                    flags)});
  } catch (const std::regex_error& e) {
    throw RegexError(e.what());
  }
}

Regex::~Regex() = default;
Regex::Regex(Regex&&) noexcept = default;
Regex& Regex::operator=(Regex&&) noexcept = default;

bool Regex::Search(const RegexSubject& subject, size_t from, RegexMatch* match) const {
  CheckSubject(subject);
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
  CheckSubject(subject);
  try {
    return std::regex_match(subject.units_, impl_->regex);
  } catch (const std::regex_error& e) {
    throw RegexError(e.what());
  }
}

}  // namespace rulenlu
