// The first stage of the query pipeline: finds every vocabulary word and every regex vocabulary
// match in a query.
//
// A Tagger is built whole from the configuration's vocabularies and is immutable afterwards:
// Tag may run on any number of threads at once.
#ifndef RULENLU_NLU_TAGGER_H_
#define RULENLU_NLU_TAGGER_H_

#include <cstdint>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "base/placement.h"
#include "base/records.h"
#include "config/word_list.h"
#include "nlu/regex.h"

namespace rulenlu {

// Why ExpandVariables gave up: the variable named by the reference at fault, and whether it was
// known (its value made the text too long) or unknown.
struct ExpansionFailure {
  std::string variable;
  bool too_long = false;
};

// `text` with every complete reference ${name} (standing on one line) replaced by the value of
// `name` in `variables`, as the tagger expands variables and regex vocabulary patterns; a `$` or
// `{` that does not begin a complete reference is kept as written. Returns nothing, describing
// the reference in `*failure` (when given), when a reference names no variable or a replacement
// would make the text longer than a pattern may be (kMaxRegexPatternLength, or the text's own
// length if longer): values that double at each step would otherwise take exponential time and
// memory for a pattern that could not compile.
std::optional<std::u16string> ExpandVariables(
    std::u16string text, const std::map<std::string, std::u16string>& variables,
    ExpansionFailure* failure = nullptr);

// The most tags a query of `length` units may have, dictionary and regex tags together. An
// ordinary query has a few per word; only vocabularies whose words overlap heavily, such as
// every prefix of one long word, come near. The parser's work grows with the number of tags, so
// this also bounds it.
inline constexpr size_t MaxQueryTags(size_t length) { return (size_t{1} << 16) + 8 * length; }

// The most units of the query that the dictionary lookup may read for a query of `length`
// units, over all start positions together: one per start position, plus one for each further
// unit of a word being followed. An ordinary query needs one to a few per start position.
inline constexpr size_t MaxDictionaryWork(size_t length) { return (size_t{1} << 20) + 64 * length; }

// One piece of a query that a vocabulary or regex vocabulary recognised.
struct QueryTag {
  static constexpr uint32_t kNoWord = UINT32_MAX;

  uint32_t vocab;  // position of the vocabulary's name in Tagger::vocab_names()
  int32_t start;   // offset in the query, in UTF-16 units
  int32_t length;  // in UTF-16 units
  // For a vocabulary word: a number for its text, equal for equal texts and ascending as the
  // texts do (unit by unit, a prefix first) among the words of one Tagger. kNoWord otherwise.
  uint32_t word = kNoWord;
};

// Calls place(i, position) for each tags[i]: the positions order the tags by vocabulary (each
// below `vocabs`) and, within one vocabulary, as they stand in `tags`. `next` is working space.
template <typename Place>
void PlaceByVocabulary(const std::vector<QueryTag>& tags, size_t vocabs,
                       std::vector<uint32_t>* next, Place&& place) {
  PlaceByKey(
      tags.size(), vocabs, [&](size_t i) { return tags[i].vocab; }, next, place);
}

// `tag` of `query` as a record of its own: the name of its vocabulary in `vocab_names`, its
// text, start and length.
SlotMatch ToSlot(const QueryTag& tag, const std::vector<std::string>& vocab_names,
                 const std::u16string& query);

class Tagger {
 public:
  // Keeps the vocabularies for dictionary lookup, expands the ${name} variable references of the
  // regex vocabularies and compiles every expanded pattern. Logs "3333333333333333333333333",
  // then one "new regex:" line per expanded pattern, then one "pattern:" line per pattern.
  // Variables expand in list order: a value may refer only to variables listed before it, and of
  // two entries with one name the first wins (both must expand). A reference ${name} is
  // complete when it stands on one line. A failed expansion (a reference to no variable, an
  // empty result) is silent: no regex vocabulary is compiled and only the plain vocabularies
  // tag. So is one that would make a value or pattern longer than kMaxRegexPatternLength, except
  // that it logs "variable expansion too long:" naming the variable and what it was expanded in.
  // Throws RegexError when an expanded pattern does not compile, and ConversionError when a
  // variable name or pattern is not convertible between UTF-8 and UTF-16.
  Tagger(const std::map<std::string, WordList>& vocab_map,
         std::map<std::string, std::vector<std::u16string>> regex_vocab_map,
         const std::vector<std::pair<std::string, std::u16string>>& variable_entries);
  ~Tagger();
  Tagger(const Tagger&) = delete;
  Tagger& operator=(const Tagger&) = delete;

  // The name of every vocabulary and regex vocabulary, each once, in byte-wise order: a tag's
  // vocabulary is a position in this list, so tags compare by name as positions do.
  const std::vector<std::string>& vocab_names() const { return vocab_names_; }

  // Returns all dictionary tags of `query`, ordered by vocabulary name, start and length,
  // followed by all regex tags, ordered by regex vocabulary name, pattern and match position.
  // Throws Error when the query has more than MaxQueryTags tags or needs more than
  // MaxDictionaryWork units of lookup (both of its length), and RegexError when a pattern cannot
  // be run or matches empty text.
  std::vector<QueryTag> Tag(const std::u16string& query) const;

  // `tag` of `query` as a record of its own: vocabulary name, text, start and length.
  SlotMatch ToSlot(const QueryTag& tag, const std::u16string& query) const;

 private:
  class WordTrie;
  struct Scratch;

  struct RegexVocab {
    uint32_t vocab;
    std::vector<Regex> patterns;
  };

  // Appends the regex tags of `query` to `*tags`, in Tag's order. Throws as Tag does, Error
  // when there are more than `room`.
  void FindRegexTags(const std::u16string& query, size_t room, std::vector<QueryTag>* tags) const;

  std::vector<std::string> vocab_names_;
  // The words of every vocabulary in one index, which names vocabularies by their position in
  // vocab_names_.
  std::unique_ptr<const WordTrie> trie_;
  // Compiled patterns of each regex vocabulary, in name order; empty when expansion failed.
  std::vector<RegexVocab> regex_vocabs_;
  // The same patterns, one after another, told apart in one pass: most find nothing. Built by
  // the first query that needs it, so that start-up does not wait for it.
  std::vector<std::u16string> finder_patterns_;
  mutable std::once_flag finder_once_;
  mutable std::unique_ptr<const RegexFinder> finder_;
};

}  // namespace rulenlu

#endif  // RULENLU_NLU_TAGGER_H_
