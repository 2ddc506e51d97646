// The regex backend against std::wregex configured as the engine's earlier backend was (classic
// locale): one intent rule matched whole, ~50 rules of an intent answered together, and the
// tagger's loop of searches with one vocabulary pattern over a query.
#include <benchmark/benchmark.h>

#include <locale>
#include <regex>
#include <string>
#include <vector>

#include "nlu/regex.h"

namespace rulenlu {
namespace {

const std::u16string kRule = u"(<date> |<time> )?(from <city> )?to <city>( (by|on) <vehicle>)?";
const std::u16string kRuleText = u"<date> from <city> to <city> by <vehicle>";

std::wregex Standard(const std::u16string& pattern, std::regex::flag_type grammar) {
  std::wregex regex;
  regex.imbue(std::locale::classic());
  regex.assign(std::wstring(pattern.begin(), pattern.end()), grammar);
  return regex;
}

// Fifty rules of one intent; the text matches only the last.
std::vector<std::u16string> Rules() {
  static const char16_t* const kShapes[] = {
      u"book (a )?<vehicle> to <city>", u"(i want to )?go to <city>( on <date>)?",
      u"<vehicle> from <city> to <city>", u"(show|find) <vehicle>s? (at|on) <time>",
      u"[a-z ]*<city>[a-z ]*"};
  std::vector<std::u16string> rules;
  for (int i = 0; i < 49; ++i) {
    rules.push_back(u"r" + std::u16string(1, static_cast<char16_t>(u'a' + i % 26)) +
                    std::u16string(1, static_cast<char16_t>(u'0' + i / 26)) + u" " +
                    kShapes[i % 5]);
  }
  rules.push_back(kRule);
  return rules;
}

void BM_RuleWholeMatch_Pcre2(benchmark::State& state) {
  const Regex rule(kRule, RegexGrammar::kPosixExtended);
  const RegexSubject text(kRuleText);
  for (auto _ : state) benchmark::DoNotOptimize(rule.FullMatch(text));
}
BENCHMARK(BM_RuleWholeMatch_Pcre2);

void BM_RuleWholeMatch_StdWregex(benchmark::State& state) {
  const std::wregex rule = Standard(kRule, std::regex::extended);
  const std::wstring text(kRuleText.begin(), kRuleText.end());
  for (auto _ : state) benchmark::DoNotOptimize(std::regex_match(text, rule));
}
BENCHMARK(BM_RuleWholeMatch_StdWregex);

void BM_FiftyRules_Pcre2Set(benchmark::State& state) {
  const RegexSet rules(Rules());
  const RegexSubject text(kRuleText);
  for (auto _ : state) benchmark::DoNotOptimize(rules.FirstFullMatch(text));
}
BENCHMARK(BM_FiftyRules_Pcre2Set);

void BM_FiftyRules_Pcre2OneByOne(benchmark::State& state) {
  std::vector<Regex> rules;
  for (const std::u16string& rule : Rules()) rules.emplace_back(rule, RegexGrammar::kPosixExtended);
  const RegexSubject text(kRuleText);
  for (auto _ : state) {
    size_t first = rules.size();
    for (size_t i = 0; i < rules.size() && first == rules.size(); ++i) {
      if (rules[i].FullMatch(text)) first = i;
    }
    benchmark::DoNotOptimize(first);
  }
}
BENCHMARK(BM_FiftyRules_Pcre2OneByOne);

void BM_FiftyRules_StdWregex(benchmark::State& state) {
  std::vector<std::wregex> rules;
  for (const std::u16string& rule : Rules()) rules.push_back(Standard(rule, std::regex::extended));
  const std::wstring text(kRuleText.begin(), kRuleText.end());
  for (auto _ : state) {
    size_t first = rules.size();
    for (size_t i = 0; i < rules.size() && first == rules.size(); ++i) {
      if (std::regex_match(text, rules[i])) first = i;
    }
    benchmark::DoNotOptimize(first);
  }
}
BENCHMARK(BM_FiftyRules_StdWregex);

const std::u16string kVocab = u"\\b([01]?[0-9]|2[0-3]):[0-5][0-9]\\b";
const std::u16string kQuery = u"meet at 10:30 or 11:45 tomorrow near 9:05";

void BM_VocabSearchLoop_Pcre2(benchmark::State& state) {
  const Regex vocab(kVocab, RegexGrammar::kEcmaScript);
  const RegexSubject query(kQuery);
  for (auto _ : state) {
    RegexMatch match;
    size_t found = 0;
    for (size_t from = 0; vocab.Search(query, from, &match); from = match.start + match.length) {
      ++found;
    }
    benchmark::DoNotOptimize(found);
  }
}
BENCHMARK(BM_VocabSearchLoop_Pcre2);

void BM_VocabSearchLoop_StdWregex(benchmark::State& state) {
  const std::wregex vocab = Standard(kVocab, std::regex::ECMAScript);
  const std::wstring query(kQuery.begin(), kQuery.end());
  for (auto _ : state) {
    std::wsmatch match;
    size_t found = 0;
    size_t from = 0;
    while (std::regex_search(
        query.begin() + static_cast<std::ptrdiff_t>(from), query.end(), match, vocab,
        from > 0 ? std::regex_constants::match_prev_avail : std::regex_constants::match_default)) {
      ++found;
      from = static_cast<size_t>(match[0].second - query.begin());
    }
    benchmark::DoNotOptimize(found);
  }
}
BENCHMARK(BM_VocabSearchLoop_StdWregex);

}  // namespace
}  // namespace rulenlu

BENCHMARK_MAIN();
