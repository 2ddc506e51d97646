#include "nlu/regex.h"

#define PCRE2_CODE_UNIT_WIDTH 16
#include <pcre2.h>

#include <algorithm>
#include <map>
#include <optional>
#include <utility>

#include "nlu/regex_automaton.h"
#include "nlu/regex_texts.h"
#include "nlu/regex_translate.h"

namespace rulenlu {
namespace {

// The JIT's stack, per thread: the default 32 KiB fails legitimate matches over 10 k units.
constexpr size_t kJitStackSize = size_t{64} << 20;
// Groups nest up to kMaxRegexNesting deep and the translation wraps stacked quantifiers in
// groups; the default limit (250) is too low for that. (PCRE2's parser stops near 600 anyway.)
constexpr uint32_t kParensNestLimit = 2 * kMaxRegexPatternLength + 64;
// Memory the interpreter may take for its backtracking frames, in KiB.
constexpr uint32_t kHeapLimitKib = 256 * 1024;
// Working space of the automaton matcher (POSIX searches), per thread.
constexpr size_t kDfaWorkspaceInts = 16384;
// Most transitions of a RegexSet's automaton (4 bytes each); larger sets are matched by
// compiled expressions.
constexpr size_t kMaxAutomatonCells = size_t{1} << 18;
// Tree nodes of a RegexSet's rules together beyond which no automaton is tried and the trees
// are not kept: rules so large together seldom fit one, and their trees take more memory than
// the compiled rules.
constexpr size_t kMaxAutomatonNodes = size_t{1} << 15;
// A RegexSet's rule that matches at most this many texts, none longer than kMaxRuleTextUnits,
// is answered by looking its texts up.
constexpr size_t kMaxRuleTexts = 32;
constexpr size_t kMaxRuleTextUnits = 1024;
// Longest translated text compiled as one part of a RegexSet.
constexpr size_t kMaxSetPartLength = 16384;
// Compiled size, in bytes, from which a rule may be near the matcher's limit on one expression.
constexpr size_t kNearSizeLimitBytes = size_t{64} << 10;

struct CodeFree {
  void operator()(pcre2_code* code) const { pcre2_code_free(code); }
};
using Code = std::unique_ptr<pcre2_code, CodeFree>;

std::string PcreMessage(int code) {
  PCRE2_UCHAR buffer[256];
  const int length = pcre2_get_error_message(code, buffer, 256);
  std::string message;
  for (int i = 0; i < length; ++i) message += static_cast<char>(buffer[i] < 0x80 ? buffer[i] : '?');
  return message;
}

pcre2_compile_context* CompileContext() {
  static pcre2_compile_context* const context = [] {
    pcre2_compile_context* created = pcre2_compile_context_create(nullptr);
    pcre2_set_parens_nest_limit(created, kParensNestLimit);
    return created;
  }();
  return context;
}

// Compiles a translated pattern; JIT-compiles it when `jit`.
Code Compile(const std::string& pcre, bool jit) {
  const std::u16string units(pcre.begin(), pcre.end());
  int error = 0;
  PCRE2_SIZE offset = 0;
  // With a lookahead, the matcher's start-up shortcuts can miss matches: (?=\x{e9})a?\x{e9}
  // does not find "\x{e9}", as it wants its required unit after the lookahead's. (Translated
  // patterns write every other parenthesis as \x{28}.)
  const uint32_t options =
      pcre.find("(?=") != std::string::npos || pcre.find("(?!") != std::string::npos
          ? PCRE2_NO_START_OPTIMIZE
          : 0;
  Code code(pcre2_compile(reinterpret_cast<PCRE2_SPTR>(units.data()), units.size(), options, &error,
                          &offset, CompileContext()));
  if (code == nullptr) {
    throw RegexError("not supported: the pattern is too large or complex for the matcher (" +
                     PcreMessage(error) + ")");
  }
  // Without the JIT (no memory for it, say) the interpreter still matches, only slower.
  if (jit) pcre2_jit_compile(code.get(), PCRE2_JIT_COMPLETE);
  return code;
}

// Each thread's match resources, made once: nothing is allocated per match.
class MatchResources {
 public:
  MatchResources()
      : data_(pcre2_match_data_create(1, nullptr)),
        context_(pcre2_match_context_create(nullptr)),
        stack_(pcre2_jit_stack_create(32 * 1024, kJitStackSize, nullptr)),
        workspace_(kDfaWorkspaceInts) {
    if (data_ == nullptr || context_ == nullptr) throw RegexError("no memory to match");
    if (stack_ != nullptr) pcre2_jit_stack_assign(context_, nullptr, stack_);
    pcre2_set_heap_limit(context_, kHeapLimitKib);
  }
  ~MatchResources() {
    pcre2_jit_stack_free(stack_);
    pcre2_match_context_free(context_);
    pcre2_match_data_free(data_);
  }
  MatchResources(const MatchResources&) = delete;
  MatchResources& operator=(const MatchResources&) = delete;

  static MatchResources& ForThisThread() {
    thread_local MatchResources resources;
    return resources;
  }

  // Matches `code` against `subject` from `from`; true when it matches. With `longest`, the
  // leftmost-longest match (automaton matcher). Throws RegexError beyond the bounds.
  bool Run(const pcre2_code* code, const std::u16string& subject, size_t from, bool longest) {
    const uint64_t steps = kRegexStepBase + kRegexStepsPerUnit * subject.size();
    const uint32_t limit = steps > UINT32_MAX ? UINT32_MAX : static_cast<uint32_t>(steps);
    pcre2_set_match_limit(context_, limit);
    pcre2_set_depth_limit(context_, limit);
    const auto* units = reinterpret_cast<PCRE2_SPTR>(subject.data());
    const int rc = longest ? pcre2_dfa_match(code, units, subject.size(), from, 0, data_, context_,
                                             workspace_.data(), workspace_.size())
                           : pcre2_match(code, units, subject.size(), from, 0, data_, context_);
    if (rc >= 0) return true;  // 0: more matches than the data holds, the first one is kept
    if (rc == PCRE2_ERROR_NOMATCH) return false;
    throw RegexError("match abandoned: " + PcreMessage(rc));
  }

  size_t start() const { return pcre2_get_ovector_pointer(data_)[0]; }
  size_t end() const { return pcre2_get_ovector_pointer(data_)[1]; }
  // The (*MARK) name on the matching path, as a number; SIZE_MAX when there is none.
  size_t MarkNumber() const {
    PCRE2_SPTR mark = pcre2_get_mark(data_);
    if (mark == nullptr) return SIZE_MAX;
    size_t number = 0;
    for (; *mark != 0; ++mark) number = number * 10 + (*mark - u'0');
    return number;
  }

 private:
  pcre2_match_data* data_;
  pcre2_match_context* context_;
  pcre2_jit_stack* stack_;
  std::vector<int> workspace_;
};

std::string Whole(const std::string& pcre) { return "\\A(?:" + pcre + ")\\z"; }

// Rules matched together in one expression, which marks the rule that matched.
struct SetPart {
  Code code;
  size_t first;  // the lowest rule index in the part
  size_t rule;   // the one rule of a part compiled alone (it has no mark); SIZE_MAX otherwise
  LengthRange lengths;  // of the texts some rule of the part matches
};

// The key of the units a whole match may begin with: ASCII letters of either case share one, as
// the matcher may compile a class like [Bb] to a caseless B and report only one of the two.
char16_t FoldUnit(char16_t unit) {
  return unit >= u'A' && unit <= u'Z' ? unit + (u'a' - u'A') : unit;
}

// The keys of the units a match of `code`, compiled unanchored, can begin with; empty when they
// are not known (it may match the empty text, or the matcher keeps no summary of them).
std::vector<char16_t> FirstUnitKeys(const pcre2_code* code) {
  uint32_t type = 0;
  pcre2_pattern_info(code, PCRE2_INFO_FIRSTCODETYPE, &type);
  if (type == 1) {
    uint32_t unit = 0;
    pcre2_pattern_info(code, PCRE2_INFO_FIRSTCODEUNIT, &unit);
    return {FoldUnit(static_cast<char16_t>(unit))};
  }
  const uint8_t* bitmap = nullptr;
  pcre2_pattern_info(code, PCRE2_INFO_FIRSTBITMAP, &bitmap);
  // Bit 255 stands for every unit from 255 up.
  if (bitmap == nullptr || (bitmap[31] & 0x80) != 0) return {};
  std::vector<char16_t> keys;
  for (char16_t unit = 0; unit < 255; ++unit) {
    if ((bitmap[unit / 8] >> (unit % 8) & 1) == 0) continue;
    const char16_t key = FoldUnit(unit);
    if (std::find(keys.begin(), keys.end(), key) == keys.end()) keys.push_back(key);
  }
  std::sort(keys.begin(), keys.end());
  return keys;
}

// Compiles a translated rule alone and returns FirstUnitKeys of its whole matches. Throws
// RegexError when, and as, a Regex of the rule would.
std::vector<char16_t> CheckSetRule(const std::string& pcre) {
  // Unanchored, or the matcher keeps no start information. A Regex compiles the anchored form,
  // one unit longer: that one gives the reason of a failure, and decides near the size limit.
  Code code;
  try {
    code = Compile("(?:" + pcre + ")\\z", false);
  } catch (const RegexError&) {
    Compile(Whole(pcre), false);
    return {};
  }
  size_t size = 0;
  pcre2_pattern_info(code.get(), PCRE2_INFO_SIZE, &size);
  if (size > kNearSizeLimitBytes) Compile(Whole(pcre), false);
  return FirstUnitKeys(code.get());
}

// Compiles the rules `rules` (ascending indices into `translated`) into parts of up to
// kMaxSetPartLength, appended to `group`; a part too large for the matcher is compiled rule by
// rule instead (each fits alone: CheckSetRule said so). Rules of like lengths (`lengths`, per
// rule) share parts, so that a text passes over the parts whose rules cannot be as long.
void CompileSetGroup(std::vector<size_t> rules, const std::vector<std::string>& translated,
                     const std::vector<LengthRange>& lengths, std::vector<SetPart>* group) {
  // The parts take rules in order of their shortest lengths, those with no longest length
  // last; each part's own rules ascend, so that its first marked match is its lowest rule.
  const auto unbounded = [&](size_t rule) { return lengths[rule].most == LengthRange::kUnbounded; };
  std::stable_sort(rules.begin(), rules.end(), [&](size_t a, size_t b) {
    return std::make_pair(unbounded(a), lengths[a].least) <
           std::make_pair(unbounded(b), lengths[b].least);
  });
  // A rule as one alternative of its part, marked so that the match names it.
  const auto marked = [&](size_t rule) {
    return "(?:" + translated[rule] + ")\\z(*MARK:" + std::to_string(rule) + ")";
  };
  auto compile_part = [&](size_t begin, size_t end) {
    std::vector<size_t> part(rules.begin() + static_cast<ptrdiff_t>(begin),
                             rules.begin() + static_cast<ptrdiff_t>(end));
    std::sort(part.begin(), part.end());
    LengthRange range = {LengthRange::kUnbounded, 0};
    std::string alternation;
    for (const size_t rule : part) {
      range = {std::min(range.least, lengths[rule].least),
               std::max(range.most, lengths[rule].most)};
      if (!alternation.empty()) alternation += "|";
      alternation += marked(rule);
    }
    try {
      group->push_back(
          SetPart{Compile("\\A(?:" + alternation + ")", true), part[0], SIZE_MAX, range});
    } catch (const RegexError&) {
      for (const size_t rule : part) {
        group->push_back(
            SetPart{Compile(Whole(translated[rule]), true), rule, rule, lengths[rule]});
      }
    }
  };
  size_t begin = 0;
  size_t length = 0;
  for (size_t k = 0; k < rules.size(); ++k) {
    const size_t units = marked(rules[k]).size() + 1;  // and its "|"
    if (k > begin && length + units > kMaxSetPartLength) {
      compile_part(begin, k);
      begin = k;
      length = 0;
    }
    length += units;
  }
  if (begin < rules.size()) compile_part(begin, rules.size());
}

}  // namespace

struct Regex::Impl {
  RegexGrammar grammar;
  Code search;  // unanchored; POSIX runs it with the automaton matcher (leftmost-longest)
  Code whole;   // anchored at both ends
  Code at;      // ECMAScript: anchored at the offset a match begins from
};

Regex::Regex(std::u16string_view pattern, RegexGrammar grammar) {
  const TranslatedRegex translated = TranslateRegex(pattern, grammar);
  impl_ = std::make_unique<Impl>();
  impl_->grammar = grammar;
  impl_->search = Compile(translated.pcre, grammar == RegexGrammar::kEcmaScript);
  impl_->whole = Compile(Whole(translated.pcre), true);
  if (grammar == RegexGrammar::kEcmaScript) {
    try {
      impl_->at = Compile("\\G(?:" + translated.pcre + ")", true);
    } catch (const RegexError&) {
      // Only a pattern at the matcher's size limit; MatchAt searches instead.
    }
  }
}

Regex::~Regex() = default;
Regex::Regex(Regex&&) noexcept = default;
Regex& Regex::operator=(Regex&&) noexcept = default;

bool Regex::Search(const RegexSubject& subject, size_t from, RegexMatch* match) const {
  if (from > subject.size()) return false;
  MatchResources& resources = MatchResources::ForThisThread();
  if (!resources.Run(impl_->search.get(), subject.units_, from,
                     impl_->grammar == RegexGrammar::kPosixExtended)) {
    return false;
  }
  match->start = resources.start();
  match->length = resources.end() - resources.start();
  return true;
}

bool Regex::MatchAt(const RegexSubject& subject, size_t start, RegexMatch* match) const {
  if (impl_->at == nullptr) return Search(subject, start, match) && match->start == start;
  if (start > subject.size()) return false;
  MatchResources& resources = MatchResources::ForThisThread();
  if (!resources.Run(impl_->at.get(), subject.units_, start, false)) return false;
  match->start = resources.start();
  match->length = resources.end() - resources.start();
  return true;
}

bool Regex::FullMatch(const RegexSubject& subject) const {
  return MatchResources::ForThisThread().Run(impl_->whole.get(), subject.units_, 0, false);
}

struct RegexSet::Impl {
  std::vector<std::string> errors;  // per rule; empty when it compiled
  // The rules as one deterministic automaton when they allow a small one; otherwise the texts
  // of the rules that match a few known ones, and compiled expressions, each other rule in one
  // part.
  std::optional<RuleAutomaton> automaton;
  RuleTexts texts;
  std::vector<SetPart> parts;
  // Per key (sorted): the parts whose rules may begin with a unit of that key, with the parts of
  // rules whose first units are not known (`unknown`), in order of their first rule. A text
  // that is empty or begins with another key takes only `unknown`.
  std::vector<char16_t> keys;
  std::vector<std::vector<size_t>> keyed;
  std::vector<size_t> unknown;
  std::vector<bool> contained;  // per watched text
};

RegexSet::RegexSet(const std::vector<std::u16string>& patterns,
                   const std::vector<std::u16string>& watched)
    : impl_(std::make_unique<Impl>()) {
  impl_->errors.resize(patterns.size());
  impl_->contained.assign(watched.size(), false);
  bool any_compiled = false;
  std::vector<std::string> translated(patterns.size());
  // The trees, for an automaton, while they stay small enough for one.
  std::vector<RegexTree> trees(patterns.size());
  std::vector<const RegexTree*> compiled(patterns.size(), nullptr);
  size_t nodes = 0;
  std::vector<LengthRange> lengths(patterns.size());
  std::vector<std::pair<std::u16string, uint32_t>> texts;
  // Rules that are not looked up as texts, grouped by the keys they may begin with (none: not
  // known). A group is compiled once and tried for each of its keys, so no rule is compiled
  // twice.
  std::map<std::vector<char16_t>, std::vector<size_t>> groups;
  for (size_t i = 0; i < patterns.size(); ++i) {
    try {
      TranslatedRegex translation = TranslateRegex(patterns[i], RegexGrammar::kPosixExtended);
      const std::vector<char16_t> keys = CheckSetRule(translation.pcre);
      for (size_t w = 0; w < watched.size(); ++w) {
        impl_->contained[w] = (!any_compiled || impl_->contained[w]) &&
                              rulenlu::AlwaysContains(translation.tree, watched[w]);
      }
      any_compiled = true;
      std::vector<std::u16string> matches;
      if (i < UINT32_MAX &&
          FiniteMatches(translation.tree, kMaxRuleTexts, kMaxRuleTextUnits, &matches)) {
        for (std::u16string& text : matches) texts.emplace_back(std::move(text), i);
      } else {
        translated[i] = std::move(translation.pcre);
        lengths[i] = MatchLengths(translation.tree);
        groups[keys].push_back(i);
      }
      nodes += translation.tree.nodes.size();
      if (nodes <= kMaxAutomatonNodes) {
        trees[i] = std::move(translation.tree);
        compiled[i] = &trees[i];
      } else if (!trees.empty()) {
        trees = std::vector<RegexTree>();
      }
    } catch (const RegexError& e) {
      impl_->errors[i] = e.what();
    }
  }
  if (nodes <= kMaxAutomatonNodes) {
    impl_->automaton = RuleAutomaton::Build(compiled, kMaxAutomatonCells);
    if (impl_->automaton.has_value()) return;
  }
  trees = std::vector<RegexTree>();
  impl_->texts = RuleTexts(std::move(texts));

  std::map<char16_t, std::vector<size_t>> keyed;
  for (const auto& [keys, rules] : groups) {
    const size_t begin = impl_->parts.size();
    CompileSetGroup(rules, translated, lengths, &impl_->parts);
    for (size_t part = begin; part < impl_->parts.size(); ++part) {
      if (keys.empty()) impl_->unknown.push_back(part);
      for (const char16_t key : keys) keyed[key].push_back(part);
    }
  }
  // In order of their first rules: a part whose first rule is above the best match so far ends
  // the search.
  const auto by_first = [&](size_t a, size_t b) {
    return impl_->parts[a].first < impl_->parts[b].first;
  };
  std::sort(impl_->unknown.begin(), impl_->unknown.end(), by_first);
  for (auto& [key, parts] : keyed) {
    parts.insert(parts.end(), impl_->unknown.begin(), impl_->unknown.end());
    std::sort(parts.begin(), parts.end(), by_first);
    impl_->keys.push_back(key);
    impl_->keyed.push_back(std::move(parts));
  }
}

RegexSet::~RegexSet() = default;
RegexSet::RegexSet(RegexSet&&) noexcept = default;
RegexSet& RegexSet::operator=(RegexSet&&) noexcept = default;

size_t RegexSet::size() const { return impl_->errors.size(); }
bool RegexSet::compiled(size_t index) const { return impl_->errors.at(index).empty(); }
const std::string& RegexSet::error(size_t index) const { return impl_->errors.at(index); }

bool RegexSet::AlwaysContains(size_t watched) const { return impl_->contained.at(watched); }

size_t RegexSet::LivePrefix(std::u16string_view text) const {
  if (impl_->automaton.has_value()) return impl_->automaton->LivePrefix(text);
  // Of the compiled expressions, only the first unit is known.
  if (!impl_->parts.empty() &&
      (text.empty() || !impl_->unknown.empty() ||
       std::binary_search(impl_->keys.begin(), impl_->keys.end(), FoldUnit(text[0])))) {
    return text.size();
  }
  return impl_->texts.LivePrefix(text);
}

size_t RegexSet::FirstFullMatch(const RegexSubject& subject) const {
  if (impl_->automaton.has_value()) {
    const size_t rule = impl_->automaton->FirstFullMatch(subject.units_);
    return rule == RuleAutomaton::kNoMatch ? kNoMatch : rule;
  }
  const std::vector<size_t>* parts = &impl_->unknown;
  if (!subject.units_.empty()) {
    const char16_t key = FoldUnit(subject.units_[0]);
    const auto found = std::lower_bound(impl_->keys.begin(), impl_->keys.end(), key);
    if (found != impl_->keys.end() && *found == key) {
      parts = &impl_->keyed[found - impl_->keys.begin()];
    }
  }
  // A part's first rule above the best match so far: so are all the rules left.
  const size_t text = impl_->texts.Find(subject.units_);
  size_t best = text == RuleTexts::kNoMatch ? kNoMatch : text;
  MatchResources& resources = MatchResources::ForThisThread();
  for (const size_t index : *parts) {
    const SetPart& part = impl_->parts[index];
    if (part.first >= best) break;
    if (subject.units_.size() < part.lengths.least || subject.units_.size() > part.lengths.most) {
      continue;
    }
    if (resources.Run(part.code.get(), subject.units_, 0, false)) {
      best = std::min(best, part.rule != SIZE_MAX ? part.rule : resources.MarkNumber());
    }
  }
  return best;
}

namespace {

// `tree` loosened so that an automaton can read it: each lookahead holds everywhere and each
// back-reference matches any text. Every text the tree matches, the loosened one matches.
// Returns whether anything was loosened.
bool Loosen(RegexTree* tree) {
  bool loosened = false;
  for (size_t n = 0; n < tree->nodes.size(); ++n) {
    RegexNode& node = tree->nodes[n];
    if (node.kind == RegexNode::kLookahead || node.kind == RegexNode::kNegLookahead) {
      node.kind = RegexNode::kConcat;  // of nothing: the empty text
      node.kids.clear();
      loosened = true;
    } else if (node.kind == RegexNode::kBackref) {
      tree->sets.push_back({{char16_t{0}, char16_t{0xFFFF}}});
      RegexNode any(RegexNode::kSet);
      any.index = tree->sets.size() - 1;
      tree->nodes.push_back(any);  // `node` may dangle from here on
      RegexNode& repeat = tree->nodes[n];
      repeat.kind = RegexNode::kRepeat;
      repeat.min = 0;
      repeat.infinite = true;
      repeat.lazy = false;
      repeat.kids = {tree->nodes.size() - 1};
      loosened = true;
    }
  }
  return loosened;
}

}  // namespace

struct RegexFinder::Impl {
  struct Group {
    SearchAutomaton automaton;
    size_t first;  // the pattern of the automaton's bit 0
  };
  std::vector<Group> groups;
  // Per pattern: its group and bit, or kUnknown when no automaton answers it; whether the
  // automaton reads the pattern itself, not a looser one.
  std::vector<std::pair<size_t, size_t>> places;
  std::vector<bool> exact;
};

RegexFinder::RegexFinder(const std::vector<std::u16string>& patterns)
    : impl_(std::make_unique<Impl>()) {
  impl_->places.assign(patterns.size(), {kUnknown, 0});
  impl_->exact.assign(patterns.size(), true);
  std::vector<std::optional<RegexTree>> trees(patterns.size());
  for (size_t i = 0; i < patterns.size(); ++i) {
    try {
      trees[i] = TranslateRegex(patterns[i], RegexGrammar::kEcmaScript).tree;
      impl_->exact[i] = !Loosen(&*trees[i]);
    } catch (const RegexError&) {
      // Such a pattern fails elsewhere; here it is only not answered.
    }
  }
  // Runs of patterns in one automaton each; a run whose automaton is too large is halved.
  std::vector<std::pair<size_t, size_t>> runs;
  for (size_t first = 0; first < patterns.size(); first += SearchAutomaton::kMaxPatterns) {
    runs.emplace_back(first, std::min(patterns.size(), first + SearchAutomaton::kMaxPatterns));
  }
  while (!runs.empty()) {
    const auto [first, last] = runs.back();
    runs.pop_back();
    std::vector<const RegexTree*> run;
    for (size_t i = first; i < last && trees[i].has_value(); ++i) run.push_back(&*trees[i]);
    std::optional<SearchAutomaton> automaton;
    if (run.size() == last - first) automaton = SearchAutomaton::Build(run, kMaxAutomatonCells);
    if (automaton.has_value()) {
      for (size_t i = first; i < last; ++i) impl_->places[i] = {impl_->groups.size(), i - first};
      impl_->groups.push_back({std::move(*automaton), first});
    } else if (last - first > 1) {
      runs.emplace_back(first, first + (last - first) / 2);
      runs.emplace_back(first + (last - first) / 2, last);
    }
  }
}

RegexFinder::~RegexFinder() = default;
RegexFinder::RegexFinder(RegexFinder&&) noexcept = default;
RegexFinder& RegexFinder::operator=(RegexFinder&&) noexcept = default;

void RegexFinder::Scan(const RegexSubject& subject, Starts* starts) const {
  starts->at_.resize(impl_->groups.size());
  starts->any_.resize(impl_->groups.size());
  for (size_t g = 0; g < impl_->groups.size(); ++g) {
    starts->any_[g] = impl_->groups[g].automaton.Starts(subject.units_, &starts->at_[g]);
  }
}

size_t RegexFinder::NextStart(const Starts& starts, size_t i, size_t from) const {
  return impl_->exact[i] ? Candidate(starts, i, from) : kUnknown;
}

bool RegexFinder::Search(const Regex& regex, const Starts& starts, size_t i,
                         const RegexSubject& subject, size_t from, RegexMatch* match) const {
  // Most patterns have no candidate at all: that answer is kept cheap.
  const size_t start = Candidate(starts, i, from);
  return start != kNone && SearchFrom(regex, starts, i, subject, from, start, match);
}

bool RegexFinder::SearchFrom(const Regex& regex, const Starts& starts, size_t i,
                             const RegexSubject& subject, size_t from, size_t start,
                             RegexMatch* match) const {
  if (start == kUnknown) return regex.Search(subject, from, match);
  // No match begins before the first candidate, nor between two: an attempt at each in turn is
  // the search. For the pattern itself, the first candidate is where its match begins; should
  // the attempt there fail all the same, the search from there gives the answer.
  for (; start != kNone; start = Candidate(starts, i, start + 1)) {
    if (regex.MatchAt(subject, start, match)) return true;
    if (impl_->exact[i]) return regex.Search(subject, start, match);
  }
  return false;
}

size_t RegexFinder::Candidate(const Starts& starts, size_t i, size_t from) const {
  const auto [group, bit] = impl_->places[i];
  if (group == kUnknown) return kUnknown;
  const uint64_t mask = uint64_t{1} << bit;
  if ((starts.any_[group] & mask) == 0) return kNone;
  const std::vector<uint64_t>& at = starts.at_[group];
  for (size_t offset = from; offset < at.size(); ++offset) {
    if ((at[offset] & mask) != 0) return offset;
  }
  return kNone;
}

}  // namespace rulenlu
