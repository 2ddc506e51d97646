#include "nlu/regex.h"

#include <regex>

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

}  // namespace

struct Regex::Impl {
  std::wregex regex;
};

void RegexSubject::Assign(std::u16string_view text) { units_.assign(text.begin(), text.end()); }

Regex::Regex(std::u16string_view pattern, RegexGrammar grammar) {
  if (GroupNesting(pattern) > kMaxRegexNesting) {
    throw RegexError("groups nested more than " + std::to_string(kMaxRegexNesting) + " deep");
  }
  const auto flags = grammar == RegexGrammar::kEcmaScript ? std::regex_constants::ECMAScript
                                                          : std::regex_constants::extended;
  try {
    impl_ = std::make_unique<Impl>(Impl{std::wregex(std::wstring(pattern.begin(), pattern.end()),
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
