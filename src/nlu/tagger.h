// The first stage of the query pipeline: finds every vocabulary word and every regex vocabulary
// match in a query.
//
// Init is called once, at start-up, before any Process (a Tagger that was never initialized
// finds no tag); afterwards the Tagger is immutable and Process may run on any number of
// threads at once.
#ifndef RULENLU_NLU_TAGGER_H_
#define RULENLU_NLU_TAGGER_H_

#include <cstdint>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <utility>
#include <vector>

#include "engine/records.h"
#include "nlu/regex.h"

namespace rulenlu {

// The longest query, in UTF-16 units, that the engine answers.
inline constexpr size_t kMaxQueryLength = kMaxRegexSubjectLength;

class Tagger {
 public:
  Tagger();
  ~Tagger();
  Tagger(const Tagger&) = delete;
  Tagger& operator=(const Tagger&) = delete;

  // Keeps the vocabularies for dictionary lookup, expands the ${name} variable references of the
  // regex vocabularies and compiles every expanded pattern. Logs "3333333333333333333333333",
  // then one "new regex:" line per pattern, then one "pattern:" line per pattern.
  // A failed variable expansion is silent: no regex vocabulary is compiled and only the plain
  // vocabularies tag. Throws RegexError when an expanded pattern does not compile, and
  // std::range_error when a name or pattern is not convertible between UTF-8 and UTF-16.
  void Init(std::map<std::string, std::set<std::u16string>> vocab_map,
            std::map<std::string, std::vector<std::u16string>> regex_vocab_map,
            std::vector<std::pair<std::string, std::u16string>> variable_entries);

  // Returns `text` with every complete reference ${name} (on one line) replaced by the value of
  // `name` in `variables`, or an empty text when a reference names no variable. A `$` or `{`
  // that does not begin a complete reference is kept as written.
  static std::u16string ReplaceVariables(std::u16string text,
                                         const std::map<std::string, std::u16string>& variables);

  // Tags `query` (UTF-8, read up to its terminating NUL), leaving its UTF-16 form in
  // `*wide_query`. Returns all dictionary tags, ordered by vocabulary name, start and length,
  // followed by all regex tags, ordered by regex vocabulary name, pattern and match position.
  // On success `status` is not touched. On any failure (malformed UTF-8, a query longer than
  // kMaxQueryLength, a regex that cannot be run, a pattern matching empty text, a null query) logs "tagger process exception!" on
  // stderr, sets `status` to -1, clears `*wide_query` and returns no tag.
  std::vector<SlotMatch> Process(const char* query, std::u16string* wide_query, int& status) const;

 private:
  class WordTrie;

  // Expands the variables in list order (a value may refer only to variables listed before it;
  // of two entries with one name the first wins, but both must expand), then every regex
  // vocabulary pattern in place, logging "new regex:" with each expansion. Returns false as
  // soon as an expansion comes out empty; patterns rewritten before that keep their new text.
  bool SubstituteVariables(std::vector<std::pair<std::string, std::u16string>> variable_entries);

  void TagVocab(const std::u16string& query, std::vector<SlotMatch>* tags) const;
  void TagRegexVocab(const std::u16string& query, std::vector<SlotMatch>* tags) const;
  static void TagRegexMatches(const std::string& name, const std::u16string& query,
                              const RegexSubject& subject, const Regex& regex,
                              std::vector<SlotMatch>* tags);

  // Patterns of each regex vocabulary, after variable expansion, and their compiled forms.
  std::map<std::string, std::vector<std::u16string>> regexVocabMap;
  std::map<std::string, std::vector<Regex>> regexVocabRegex;

  // The words of every vocabulary in one index; a word's vocabulary is its position in
  // vocab_names_ (name order).
  std::vector<std::string> vocab_names_;
  std::unique_ptr<const WordTrie> trie_;
};

}  // namespace rulenlu

#endif  // RULENLU_NLU_TAGGER_H_
