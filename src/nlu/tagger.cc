#include "nlu/tagger.h"

#include <algorithm>
#include <string>
#include <string_view>

#include "base/error.h"
#include "base/log.h"
#include "base/text.h"

namespace rulenlu {
namespace {

bool IsLineTerminator(char16_t unit) {
  return unit == u'\n' || unit == u'\r' || unit == 0x2028 || unit == 0x2029;
}

// Finds the first variable reference in `text` at or after `from`: "${", the shortest run of
// units other than line terminators, "}" (the ECMAScript pattern \$\{(.*?)\}). Sets `*start` and
// `*length` to the whole reference. Scanned by hand rather than with a regex so that a pattern
// of any length expands without deep recursion, and in one pass: a "${" whose line ends before
// any "}" cannot begin a reference, and neither can any other "${" before that line's end.
bool FindReference(std::u16string_view text, size_t from, size_t* start, size_t* length) {
  for (size_t dollar = text.find(u"${", from); dollar != std::u16string_view::npos;) {
    size_t i = dollar + 2;
    while (i < text.size() && text[i] != u'}' && !IsLineTerminator(text[i])) ++i;
    if (i == text.size()) return false;
    if (text[i] == u'}') {
      *start = dollar;
      *length = i + 1 - dollar;
      return true;
    }
    dollar = text.find(u"${", i + 1);
  }
  return false;
}

}  // namespace

// The words of all vocabularies in one trie, flattened into arrays once it is built.
class Tagger::WordTrie {
 public:
  // Vocabulary i is the i-th entry of `vocabularies`.
  explicit WordTrie(const std::map<std::string, std::set<std::u16string>>& vocabularies);

  // Calls visit(vocab, length) for every word that `text` begins with, by length and then by
  // vocabulary; stops reading `text` as soon as no word continues. Returns the number of units
  // read: up to and including the first that no word continues with.
  template <typename Visit>
  size_t ForEachPrefix(std::u16string_view text, Visit&& visit) const {
    uint32_t node = 0;
    for (size_t length = 1; length <= text.size(); ++length) {
      node = Child(node, text[length - 1]);
      if (node == kNone) return length;
      for (uint32_t i = first_end_[node]; i < first_end_[node + 1]; ++i) visit(ends_[i], length);
    }
    return text.size();
  }

 private:
  static constexpr uint32_t kNone = 0;  // the root is never anyone's child

  uint32_t Child(uint32_t node, char16_t unit) const {
    const auto begin = edge_unit_.begin() + first_edge_[node];
    const auto end = edge_unit_.begin() + first_edge_[node + 1];
    const auto it = std::lower_bound(begin, end, unit);
    if (it == end || *it != unit) return kNone;
    return edge_child_[it - edge_unit_.begin()];
  }

  // Node n's edges are [first_edge_[n], first_edge_[n + 1]), ascending by unit.
  std::vector<uint32_t> first_edge_;
  std::vector<char16_t> edge_unit_;
  std::vector<uint32_t> edge_child_;
  // The vocabularies having a word that ends at node n: ends_[first_end_[n], first_end_[n + 1]),
  // ascending.
  std::vector<uint32_t> first_end_;
  std::vector<uint32_t> ends_;
};

Tagger::WordTrie::WordTrie(const std::map<std::string, std::set<std::u16string>>& vocabularies) {
  struct BuildNode {
    std::map<char16_t, uint32_t> children;
    std::vector<uint32_t> vocabs;
  };
  std::vector<BuildNode> nodes(1);
  uint32_t vocab = 0;
  for (const auto& [name, words] : vocabularies) {
    for (const std::u16string& word : words) {
      uint32_t node = 0;
      for (char16_t unit : word) {
        auto [it, inserted] = nodes[node].children.emplace(unit, 0);
        if (inserted) {
          it->second = static_cast<uint32_t>(nodes.size());
          nodes.emplace_back();
        }
        node = it->second;
      }
      // Words are unique within a vocabulary, and vocabularies come in ascending order.
      nodes[node].vocabs.push_back(vocab);
    }
    ++vocab;
  }
  first_edge_.reserve(nodes.size() + 1);
  first_end_.reserve(nodes.size() + 1);
  for (const BuildNode& node : nodes) {
    first_edge_.push_back(static_cast<uint32_t>(edge_unit_.size()));
    for (const auto& [unit, child] : node.children) {
      edge_unit_.push_back(unit);
      edge_child_.push_back(child);
    }
    first_end_.push_back(static_cast<uint32_t>(ends_.size()));
    ends_.insert(ends_.end(), node.vocabs.begin(), node.vocabs.end());
  }
  first_edge_.push_back(static_cast<uint32_t>(edge_unit_.size()));
  first_end_.push_back(static_cast<uint32_t>(ends_.size()));
}

namespace {

// Returns `text` with every complete reference ${name} (on one line) replaced by the value of
// `name` in `variables`, or an empty text when a reference names no variable. A `$` or `{`
// that does not begin a complete reference is kept as written. Also empty, with a log line
// naming the variable and what `what` names, as soon as a replacement makes the text longer than
// a pattern may be (or than it was written, if longer): values that double at each step would
// otherwise take exponential time and memory, for a pattern that could not compile.
std::u16string ReplaceVariables(std::u16string text,
                                const std::map<std::string, std::u16string>& variables,
                                std::string_view what) {
  const size_t max_length = std::max(kMaxRegexPatternLength, text.size());
  size_t start = 0;
  size_t length = 0;
  // No reference can begin before a replacement: every "${" before it already had its line end
  // before any "}", and still has.
  while (FindReference(text, start, &start, &length)) {
    // The name sits between the leading "${" and the closing "}".
    const std::string name = Utf16ToUtf8(std::u16string_view(text).substr(start + 2, length - 3));
    const auto found = variables.find(name);
    if (found == variables.end()) return std::u16string();
    if (text.size() - length + found->second.size() > max_length) {
      LogLine(LogStream::kStdout, {"variable expansion too long: ${", name, "} in ", what,
                                   " exceeds ", std::to_string(kMaxRegexPatternLength), " units"});
      return std::u16string();
    }
    text.replace(start, length, found->second);
  }
  return text;
}

// Expands the variables in list order, then every regex vocabulary pattern in place, logging
// "new regex:" with each expansion. Returns false as soon as an expansion comes out empty.
bool SubstituteVariables(const std::vector<std::pair<std::string, std::u16string>>& entries,
                         std::map<std::string, std::vector<std::u16string>>* regex_vocab_map) {
  std::map<std::string, std::u16string> variables;
  for (const auto& [name, value] : entries) {
    std::u16string expanded = ReplaceVariables(value, variables, "variable " + name);
    if (expanded.empty()) return false;
    variables.emplace(name, std::move(expanded));  // an earlier entry of the same name wins
  }
  for (auto& [name, patterns] : *regex_vocab_map) {
    for (std::u16string& pattern : patterns) {
      std::u16string expanded = ReplaceVariables(pattern, variables, "regex vocabulary " + name);
      LogLine(LogStream::kStdout, {"new regex:", Utf16ToUtf8(expanded)});
      if (expanded.empty()) return false;
      pattern = std::move(expanded);
    }
  }
  return true;
}

}  // namespace

Tagger::Tagger(const std::map<std::string, std::set<std::u16string>>& vocab_map,
               std::map<std::string, std::vector<std::u16string>> regex_vocab_map,
               const std::vector<std::pair<std::string, std::u16string>>& variable_entries)
    : trie_(std::make_unique<WordTrie>(vocab_map)) {
  // The trie holds every word, and finds a word only where it fits: no per-vocabulary length
  // bound is needed.
  for (const auto& [name, words] : vocab_map) vocab_names_.push_back(name);
  for (const auto& [name, patterns] : regex_vocab_map) vocab_names_.push_back(name);
  std::sort(vocab_names_.begin(), vocab_names_.end());
  vocab_names_.erase(std::unique(vocab_names_.begin(), vocab_names_.end()), vocab_names_.end());
  auto position = [&](const std::string& name) {
    return static_cast<uint32_t>(std::lower_bound(vocab_names_.begin(), vocab_names_.end(), name) -
                                 vocab_names_.begin());
  };
  for (const auto& [name, words] : vocab_map) dictionary_vocabs_.push_back(position(name));

  LogLine(LogStream::kStdout, {"3333333333333333333333333"});
  if (!SubstituteVariables(variable_entries, &regex_vocab_map)) return;

  regex_vocabs_.reserve(regex_vocab_map.size());
  for (const auto& [name, patterns] : regex_vocab_map) {
    RegexVocab& vocab = regex_vocabs_.emplace_back();
    vocab.vocab = position(name);
    vocab.patterns.reserve(patterns.size());
    for (const std::u16string& pattern : patterns) {
      LogLine(LogStream::kStdout, {"pattern:", Utf16ToUtf8(pattern)});
      vocab.patterns.emplace_back(pattern, RegexGrammar::kEcmaScript);
    }
  }
}

Tagger::~Tagger() = default;

std::vector<QueryTag> Tagger::Tag(const std::u16string& query) const {
  if (query.size() > kMaxQueryLength) {
    throw Error("query longer than " + std::to_string(kMaxQueryLength) + " units");
  }
  // Dictionary words: found by start and length, reported by vocabulary, then start, length.
  // The vocabulary map and vocab_names_ are both in name order, so the trie's positions sort
  // as the names do.
  const std::u16string_view text(query);
  std::vector<QueryTag> tags;
  auto add_tag = [&tags](uint32_t vocab, size_t start, size_t length) {
    if (tags.size() == kMaxQueryTags) {
      throw Error("query has more than " + std::to_string(kMaxQueryTags) + " tags");
    }
    tags.push_back({vocab, static_cast<int32_t>(start), static_cast<int32_t>(length)});
  };
  size_t work_left = kMaxDictionaryWork;
  for (size_t start = 0; start < text.size(); ++start) {
    const std::u16string_view rest = text.substr(start);
    const size_t read =
        trie_->ForEachPrefix(rest.substr(0, work_left),
                             [&](uint32_t vocab, size_t length) { add_tag(vocab, start, length); });
    // Out of work with the query not read to its end, or with a word still being followed.
    if (read == work_left && read < rest.size()) {
      throw Error("query needs more than " + std::to_string(kMaxDictionaryWork) +
                  " units of dictionary lookup");
    }
    work_left -= read;
  }
  std::stable_sort(tags.begin(), tags.end(),
                   [](const QueryTag& a, const QueryTag& b) { return a.vocab < b.vocab; });
  for (QueryTag& tag : tags) tag.vocab = dictionary_vocabs_[tag.vocab];
  if (regex_vocabs_.empty()) return tags;

  // Regex vocabularies: each pattern searched again from the end of its previous match, the
  // whole query staying the subject.
  const RegexSubject subject(query);
  for (const RegexVocab& vocab : regex_vocabs_) {
    for (const Regex& regex : vocab.patterns) {
      RegexMatch match;
      size_t from = 0;
      // Searching again at the end of the query still finds a pattern that matches there.
      while (regex.Search(subject, from, &match)) {
        // The next search would begin where this one did and find the same empty match forever.
        if (match.length == 0) throw RegexError("a regex vocabulary pattern matched empty text");
        add_tag(vocab.vocab, match.start, match.length);
        from = match.start + match.length;
      }
    }
  }
  return tags;
}

}  // namespace rulenlu
