// The two compilers the regex tests hold side by side: std::wregex, configured as the engine's
// earlier backend was (classic locale, strict ISO mode, ECMAScript or extended), and ours.
#ifndef RULENLU_TESTS_REGEX_REFERENCE_H_
#define RULENLU_TESTS_REGEX_REFERENCE_H_

#include <locale>
#include <memory>
#include <optional>
#include <regex>
#include <string>

#include "nlu/regex.h"

namespace rulenlu {

// `pattern`, one character per UTF-16 unit, as std::wregex compiles it; nothing when rejected.
inline std::optional<std::wregex> StandardRegex(const std::u16string& pattern,
                                                RegexGrammar grammar) {
  try {
    std::wregex regex;
    regex.imbue(std::locale::classic());
    regex.assign(std::wstring(pattern.begin(), pattern.end()), grammar == RegexGrammar::kEcmaScript
                                                                   ? std::regex::ECMAScript
                                                                   : std::regex::extended);
    return regex;
  } catch (const std::regex_error&) {
    return std::nullopt;
  }
}

// `pattern` as ours compiles it; null when rejected, with the reason in `error` if given.
inline std::unique_ptr<Regex> OurRegex(const std::u16string& pattern, RegexGrammar grammar,
                                       std::string* error = nullptr) {
  try {
    return std::make_unique<Regex>(pattern, grammar);
  } catch (const RegexError& e) {
    if (error != nullptr) *error = e.what();
    return nullptr;
  }
}

}  // namespace rulenlu

#endif  // RULENLU_TESTS_REGEX_REFERENCE_H_
