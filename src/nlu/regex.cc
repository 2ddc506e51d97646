#include "nlu/regex.h"

#define PCRE2_CODE_UNIT_WIDTH 16
#include <pcre2.h>

#include <utility>

#include "nlu/regex_automaton.h"
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
// Longest translated text compiled as one part of a RegexSet.
constexpr size_t kMaxSetPartLength = 16384;

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
  Code code(pcre2_compile(reinterpret_cast<PCRE2_SPTR>(units.data()), units.size(), 0, &error,
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

}  // namespace

struct Regex::Impl {
  RegexGrammar grammar;
  Code search;  // unanchored; POSIX runs it with the automaton matcher (leftmost-longest)
  Code whole;   // anchored at both ends
};

Regex::Regex(std::u16string_view pattern, RegexGrammar grammar) {
  const TranslatedRegex translated = TranslateRegex(pattern, grammar);
  impl_ = std::make_unique<Impl>();
  impl_->grammar = grammar;
  impl_->search = Compile(translated.pcre, grammar == RegexGrammar::kEcmaScript);
  impl_->whole = Compile(Whole(translated.pcre), true);
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

bool Regex::FullMatch(const RegexSubject& subject) const {
  return MatchResources::ForThisThread().Run(impl_->whole.get(), subject.units_, 0, false);
}

struct RegexSet::Impl {
  std::vector<std::string> errors;  // per rule; empty when it compiled
  // The rules as one deterministic automaton when they allow a small one; otherwise compiled
  // expressions in rule order, each marking the rule that matched.
  std::optional<RuleAutomaton> automaton;
  std::vector<Code> parts;
};

RegexSet::RegexSet(const std::vector<std::u16string>& patterns) : impl_(std::make_unique<Impl>()) {
  impl_->errors.resize(patterns.size());
  std::vector<std::string> marked(patterns.size());  // empty for rules that did not compile
  std::vector<RegexTree> trees(patterns.size());
  std::vector<const RegexTree*> compiled(patterns.size(), nullptr);
  for (size_t i = 0; i < patterns.size(); ++i) {
    try {
      TranslatedRegex translated = TranslateRegex(patterns[i], RegexGrammar::kPosixExtended);
      // Compiling it alone tells whether it fits the matcher; kept only if its part does not.
      Compile(Whole(translated.pcre), false);
      marked[i] = "(?:" + translated.pcre + ")\\z(*MARK:" + std::to_string(i) + ")";
      trees[i] = std::move(translated.tree);
      compiled[i] = &trees[i];
    } catch (const RegexError& e) {
      impl_->errors[i] = e.what();
    }
  }
  impl_->automaton = RuleAutomaton::Build(compiled, kMaxAutomatonCells);
  if (impl_->automaton.has_value()) return;
  // Consecutive rules share a part up to a length; a part too large for the matcher is
  // compiled rule by rule instead.
  auto compile_part = [&](size_t first, size_t last) {
    std::string alternation;
    for (size_t i = first; i < last; ++i) {
      if (marked[i].empty()) continue;
      if (!alternation.empty()) alternation += "|";
      alternation += marked[i];
    }
    if (alternation.empty()) return;
    try {
      impl_->parts.push_back(Compile("\\A(?:" + alternation + ")", true));
    } catch (const RegexError&) {
      for (size_t i = first; i < last; ++i) {
        if (!marked[i].empty()) impl_->parts.push_back(Compile("\\A" + marked[i], true));
      }
    }
  };
  size_t first = 0;
  size_t length = 0;
  for (size_t i = 0; i < patterns.size(); ++i) {
    if (length > 0 && length + marked[i].size() > kMaxSetPartLength) {
      compile_part(first, i);
      first = i;
      length = 0;
    }
    length += marked[i].size();
  }
  compile_part(first, patterns.size());
}

RegexSet::~RegexSet() = default;
RegexSet::RegexSet(RegexSet&&) noexcept = default;
RegexSet& RegexSet::operator=(RegexSet&&) noexcept = default;

size_t RegexSet::size() const { return impl_->errors.size(); }
bool RegexSet::compiled(size_t index) const { return impl_->errors.at(index).empty(); }
const std::string& RegexSet::error(size_t index) const { return impl_->errors.at(index); }

size_t RegexSet::FirstFullMatch(const RegexSubject& subject) const {
  if (impl_->automaton.has_value()) {
    const size_t rule = impl_->automaton->FirstFullMatch(subject.units_);
    return rule == RuleAutomaton::kNoMatch ? kNoMatch : rule;
  }
  MatchResources& resources = MatchResources::ForThisThread();
  for (const Code& part : impl_->parts) {
    if (resources.Run(part.get(), subject.units_, 0, false)) return resources.MarkNumber();
  }
  return kNoMatch;
}

}  // namespace rulenlu
