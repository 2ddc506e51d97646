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

// Calls visit(word, vocab, common) for every word of every vocabulary, in word order and, for
// one text, by vocabulary; `common` is the number of units the word shares with the one before.
// Each vocabulary's words are in order already: merged, not sorted.
template <typename Visit>
void ForEachWord(const std::map<std::string, WordList>& vocabularies, Visit&& visit) {
  struct Cursor {
    const WordList* words;
    size_t next;
    std::u16string_view word;  // (*words)[next]
    uint64_t head;             // TextHead(word): most comparisons need no more
    uint32_t vocab;
  };
  std::vector<Cursor> cursors;
  uint32_t vocab = 0;
  for (const auto& [name, words] : vocabularies) {
    if (!words.empty()) cursors.push_back({&words, 0, words[0], TextHead(words[0]), vocab});
    ++vocab;
  }
  const auto before = [](const Cursor& a, const Cursor& b) {
    if (a.head != b.head) return a.head < b.head;
    const int order = a.word.compare(b.word);
    return order != 0 ? order < 0 : a.vocab < b.vocab;
  };
  // A heap whose top holds the least (word, vocabulary). An advanced top is sifted down in
  // place: half the comparisons of taking it out and putting it back.
  const auto sift_down = [&](size_t i) {
    for (size_t child; (child = 2 * i + 1) < cursors.size(); i = child) {
      if (child + 1 < cursors.size() && before(cursors[child + 1], cursors[child])) ++child;
      if (!before(cursors[child], cursors[i])) return;
      std::swap(cursors[child], cursors[i]);
    }
  };
  for (size_t i = cursors.size() / 2; i-- > 0;) sift_down(i);
  std::u16string_view previous;
  while (!cursors.empty()) {
    Cursor& least = cursors.front();
    const std::u16string_view word = least.word;
    const size_t most = std::min(previous.size(), word.size());
    size_t common = 0;
    while (common < most && previous[common] == word[common]) ++common;
    visit(word, least.vocab, common);
    previous = word;
    if (++least.next < least.words->size()) {
      least.word = (*least.words)[least.next];
      least.head = TextHead(least.word);
    } else {
      least = cursors.back();
      cursors.pop_back();
    }
    sift_down(0);
  }
}

}  // namespace

// The words of all vocabularies in one trie, flattened into arrays. Nodes are numbered breadth
// first, children in unit order: a node's children are then consecutive, so an edge is only
// its unit, and each depth's nodes are numbered in the order of their texts.
class Tagger::WordTrie {
 public:
  // The i-th entry of `vocabularies` is named names[i] in what the trie reports: ascending,
  // each below 2^31.
  WordTrie(const std::map<std::string, WordList>& vocabularies, const std::vector<uint32_t>& names);

  // Calls visit(vocab, length, word) for every word that `text` begins with, by length and then
  // by vocabulary, `word` numbering its text as QueryTag::word does; stops reading `text` as
  // soon as no word continues. Returns the number of units read: up to and including the first
  // that no word continues with.
  template <typename Visit>
  size_t ForEachPrefix(std::u16string_view text, Visit&& visit) const {
    uint32_t node = 0;
    for (size_t length = 1; length <= text.size(); ++length) {
      node = Child(node, text[length - 1]);
      if (node == kNone) return length;
      const uint32_t first = nodes_[node].first_end;
      if (first == kNoEnd) continue;
      uint32_t i = first;
      uint32_t end;
      do {
        end = ends_[i++];
        visit(end & ~kLastEnd, length, first);
      } while ((end & kLastEnd) == 0);
    }
    return text.size();
  }

 private:
  static constexpr uint32_t kNone = 0;  // the root is never anyone's child
  static constexpr uint32_t kNoEnd = UINT32_MAX;
  // Marks, in ends_, the last vocabulary of a text.
  static constexpr uint32_t kLastEnd = uint32_t{1} << 31;

  // A node's children are the nodes [first_child, next node's first_child), ascending by unit.
  // The vocabularies having a word that ends there are ends_[first_end...] up to the one marked
  // kLastEnd, ascending (kNoEnd: none). ends_ holds the texts' vocabularies in the order of the
  // texts, so first_end also numbers the node's text as QueryTag::word does.
  struct Node {
    uint32_t first_child;
    uint32_t first_end;
  };

  uint32_t Child(uint32_t node, char16_t unit) const {
    // Every query position starts at the root, which has children for most units in use: a
    // table, by blocks of 256 units, instead of a search.
    if (node == 0) {
      const uint32_t block = root_blocks_[unit >> 8];
      return block == kNoBlock ? kNone : root_children_[block + (unit & 0xff)];
    }
    // Most nodes below the root have one child or a few: halved down to a few, then scanned.
    uint32_t first = nodes_[node].first_child;
    uint32_t last = nodes_[node + 1].first_child;
    while (last - first > 4) {
      const uint32_t middle = first + (last - first) / 2;
      if (units_[middle] < unit) {
        first = middle + 1;
      } else {
        last = middle + 1;
      }
    }
    for (; first < last; ++first) {
      if (units_[first] >= unit) return units_[first] == unit ? first : kNone;
    }
    return kNone;
  }

  std::vector<Node> nodes_;      // one more than there are nodes
  std::vector<char16_t> units_;  // per node, the unit of the edge that leads to it
  std::vector<uint32_t> ends_;
  // Per block of 256 units, where its children of the root start in root_children_ (kNoBlock:
  // no child), kNone for a unit with no child.
  static constexpr uint32_t kNoBlock = UINT32_MAX;
  std::vector<uint32_t> root_blocks_;
  std::vector<uint32_t> root_children_;
};

Tagger::WordTrie::WordTrie(const std::map<std::string, WordList>& vocabularies,
                           const std::vector<uint32_t>& names) {
  // The words in order reach each depth's nodes in the order of their texts, which is their
  // breadth-first order: once the nodes of each depth are counted, a second pass numbers every
  // node as it is made, and the arrays are made at their final sizes.
  std::vector<uint32_t> depth_first = {0, 1};  // per depth, its first node (then its next)
  size_t ends = 0;
  ForEachWord(vocabularies, [&](std::u16string_view word, uint32_t, size_t common) {
    if (depth_first.size() < word.size() + 2) depth_first.resize(word.size() + 2, 0);
    for (size_t d = common + 1; d <= word.size(); ++d) ++depth_first[d + 1];
    ends += word.empty() ? 0 : 1;
  });
  for (size_t d = 2; d < depth_first.size(); ++d) depth_first[d] += depth_first[d - 1];
  const uint32_t nodes = depth_first.back();
  nodes_.assign(nodes + size_t{1}, Node{kNone, kNoEnd});
  units_.assign(nodes, 0);
  ends_.reserve(ends);
  std::vector<uint32_t> path = {0};  // path[d]: the node after the previous word's first d units
  ForEachWord(vocabularies, [&](std::u16string_view word, uint32_t vocab, size_t common) {
    if (word.empty()) return;  // never looked up
    path.resize(common + 1);
    for (size_t d = common; d < word.size(); ++d) {
      const uint32_t node = depth_first[d + 1]++;
      units_[node] = word[d];
      if (nodes_[path[d]].first_child == kNone) nodes_[path[d]].first_child = node;
      path.push_back(node);
    }
    // The same text in another vocabulary: its ends continue.
    Node& end = nodes_[path.back()];
    if (end.first_end != kNoEnd) {
      ends_.back() &= ~kLastEnd;
    } else {
      end.first_end = static_cast<uint32_t>(ends_.size());
    }
    ends_.push_back(names[vocab] | kLastEnd);
  });
  // A node without children has them, none, where the next node's begin.
  nodes_[nodes].first_child = nodes;
  for (uint32_t n = nodes; n-- > 0;) {
    if (nodes_[n].first_child == kNone) nodes_[n].first_child = nodes_[n + 1].first_child;
  }
  root_blocks_.assign(256, kNoBlock);
  for (uint32_t child = nodes_[0].first_child; child < nodes_[1].first_child; ++child) {
    uint32_t& block = root_blocks_[units_[child] >> 8];
    if (block == kNoBlock) {
      block = static_cast<uint32_t>(root_children_.size());
      root_children_.resize(root_children_.size() + 256, kNone);
    }
    root_children_[block + (units_[child] & 0xff)] = child;
  }
}

namespace {

// `text` expanded, or empty when the expansion fails; an expansion that grows too long is
// logged, naming the variable and `what` held the reference.
std::u16string Expand(const std::u16string& text,
                      const std::map<std::string, std::u16string>& variables,
                      const std::string& what) {
  ExpansionFailure failure;
  std::optional<std::u16string> expanded = ExpandVariables(text, variables, &failure);
  if (expanded.has_value()) return std::move(*expanded);
  if (failure.too_long) {
    LogLine(LogStream::kStdout, {"variable expansion too long: ${", failure.variable, "} in ", what,
                                 " exceeds ", std::to_string(kMaxRegexPatternLength), " units"});
  }
  return std::u16string();
}

// Expands the variables in list order, then every regex vocabulary pattern in place, logging
// "new regex:" with each expansion. Returns false as soon as an expansion comes out empty.
bool SubstituteVariables(const std::vector<std::pair<std::string, std::u16string>>& entries,
                         std::map<std::string, std::vector<std::u16string>>* regex_vocab_map) {
  std::map<std::string, std::u16string> variables;
  for (const auto& [name, value] : entries) {
    std::u16string expanded = Expand(value, variables, "variable " + name);
    if (expanded.empty()) return false;
    variables.emplace(name, std::move(expanded));  // an earlier entry of the same name wins
  }
  for (auto& [name, patterns] : *regex_vocab_map) {
    for (std::u16string& pattern : patterns) {
      std::u16string expanded = Expand(pattern, variables, "regex vocabulary " + name);
      LogLine(LogStream::kStdout, {"new regex:", Utf16ToUtf8(expanded)});
      if (expanded.empty()) return false;
      pattern = std::move(expanded);
    }
  }
  return true;
}

}  // namespace

std::optional<std::u16string> ExpandVariables(
    std::u16string text, const std::map<std::string, std::u16string>& variables,
    ExpansionFailure* failure) {
  const size_t max_length = std::max(kMaxRegexPatternLength, text.size());
  size_t start = 0;
  size_t length = 0;
  // No reference can begin before a replacement: every "${" before it already had its line end
  // before any "}", and still has.
  while (FindReference(text, start, &start, &length)) {
    // The name sits between the leading "${" and the closing "}".
    std::string name = Utf16ToUtf8(std::u16string_view(text).substr(start + 2, length - 3));
    const auto found = variables.find(name);
    const bool unknown = found == variables.end();
    if (unknown || text.size() - length + found->second.size() > max_length) {
      if (failure != nullptr) *failure = {std::move(name), !unknown};
      return std::nullopt;
    }
    text.replace(start, length, found->second);
  }
  return text;
}

Tagger::Tagger(const std::map<std::string, WordList>& vocab_map,
               std::map<std::string, std::vector<std::u16string>> regex_vocab_map,
               const std::vector<std::pair<std::string, std::u16string>>& variable_entries) {
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
  std::vector<uint32_t> dictionary_vocabs;
  for (const auto& [name, words] : vocab_map) dictionary_vocabs.push_back(position(name));
  trie_ = std::make_unique<const WordTrie>(vocab_map, dictionary_vocabs);

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
      finder_patterns_.push_back(pattern);
    }
  }
}

Tagger::~Tagger() = default;

SlotMatch ToSlot(const QueryTag& tag, const std::vector<std::string>& vocab_names,
                 const std::u16string& query) {
  return SlotMatch{vocab_names[tag.vocab], query.substr(tag.start, tag.length), tag.start,
                   tag.length};
}

SlotMatch Tagger::ToSlot(const QueryTag& tag, const std::u16string& query) const {
  return rulenlu::ToSlot(tag, vocab_names_, query);
}

namespace {

// The failure of a query of `length` units with more than MaxQueryTags tags.
Error TooManyTags(size_t length) {
  return Error("query has more than " + std::to_string(MaxQueryTags(length)) + " tags");
}

}  // namespace

// Per thread working space of Tag.
struct Tagger::Scratch {
  std::vector<QueryTag> found;   // dictionary tags as found; its size is its room
  std::vector<QueryTag> sorted;  // the same by vocabulary; at least as large
  std::vector<uint32_t> first;   // per vocabulary, where its tags go in `sorted`
  std::vector<QueryTag> regex;
};

std::vector<QueryTag> Tagger::Tag(const std::u16string& query) const {
  const size_t max_tags = MaxQueryTags(query.size());
  // Dictionary words are found by start, length and vocabulary, and reported by vocabulary,
  // then start, length: a counting sort by vocabulary keeps the start and length order. The
  // thread's buffers are looked up once per query, not per word.
  thread_local Scratch kept;
  Scratch& scratch = kept;
  std::vector<uint32_t>& first = scratch.first;
  first.assign(vocab_names_.size() + 1, 0);
  size_t found = 0;
  // Below both the buffer's size and the bound: one comparison per word found.
  size_t room = std::min(scratch.found.size(), max_tags);
  const std::u16string_view text(query);
  const size_t max_work = MaxDictionaryWork(query.size());
  size_t work_left = max_work;
  for (size_t start = 0; start < text.size(); ++start) {
    const std::u16string_view rest = text.substr(start);
    const size_t read = trie_->ForEachPrefix(
        rest.substr(0, work_left), [&](uint32_t vocab, size_t length, uint32_t word) {
          if (found == room) {
            if (found == max_tags) throw TooManyTags(query.size());
            scratch.found.resize(std::max<size_t>(256, 2 * found));
            room = std::min(scratch.found.size(), max_tags);
          }
          scratch.found[found++] = {vocab, static_cast<int32_t>(start),
                                    static_cast<int32_t>(length), word};
          ++first[vocab + 1];
        });
    // Out of work with the query not read to its end, or with a word still being followed.
    if (read == work_left && read < rest.size()) {
      throw Error("query needs more than " + std::to_string(max_work) +
                  " units of dictionary lookup");
    }
    work_left -= read;
  }
  // Regex tags, found before the answer is made so that it is made once at its final size.
  std::vector<QueryTag>& regex_tags = scratch.regex;
  regex_tags.clear();
  if (!regex_vocabs_.empty()) FindRegexTags(query, max_tags - found, &regex_tags);

  for (size_t k = 1; k < first.size(); ++k) first[k] += first[k - 1];
  std::vector<QueryTag>& sorted = scratch.sorted;
  if (sorted.size() < found) sorted.resize(scratch.found.size());
  for (size_t i = 0; i < found; ++i) {
    const QueryTag& tag = scratch.found[i];
    sorted[first[tag.vocab]++] = tag;
  }
  std::vector<QueryTag> tags;
  tags.reserve(found + regex_tags.size());
  tags.assign(sorted.begin(), sorted.begin() + static_cast<ptrdiff_t>(found));
  tags.insert(tags.end(), regex_tags.begin(), regex_tags.end());
  // A query far larger than usual does not leave its buffers behind.
  if (scratch.found.size() + regex_tags.size() > (size_t{1} << 16)) scratch = Scratch();
  return tags;
}

void Tagger::FindRegexTags(const std::u16string& query, size_t room,
                           std::vector<QueryTag>* tags) const {
  // Each pattern searched again from the end of its previous match, the whole query staying
  // the subject.
  const RegexSubject subject(query);
  std::call_once(finder_once_,
                 [this] { finder_ = std::make_unique<const RegexFinder>(finder_patterns_); });
  thread_local RegexFinder::Starts starts;
  finder_->Scan(subject, &starts);
  size_t pattern = 0;
  for (const RegexVocab& vocab : regex_vocabs_) {
    for (const Regex& regex : vocab.patterns) {
      const size_t index = pattern++;
      RegexMatch match;
      size_t from = 0;
      // Searching again at the end of the query still finds a pattern that matches there.
      while (finder_->Search(regex, starts, index, subject, from, &match)) {
        // The next search would begin where this one did and find the same empty match forever.
        if (match.length == 0) throw RegexError("a regex vocabulary pattern matched empty text");
        if (tags->size() == room) throw TooManyTags(query.size());
        tags->push_back(
            {vocab.vocab, static_cast<int32_t>(match.start), static_cast<int32_t>(match.length)});
        from = match.start + match.length;
      }
    }
  }
  // A query far larger than usual does not leave its buffers behind.
  if (query.size() > (size_t{1} << 16)) starts = RegexFinder::Starts();
}

}  // namespace rulenlu
