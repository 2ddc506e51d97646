// The configuration in memory: vocabularies, regex vocabularies, intents and variables.
//
// Names (map keys, intent names, variable keys, slot names and tags) stay in the document's
// UTF-8 bytes; everything that is matched against a query is UTF-16.
#ifndef RULENLU_CONFIG_NLU_CONFIG_H_
#define RULENLU_CONFIG_NLU_CONFIG_H_

#include <cstdint>
#include <map>
#include <string>
#include <utility>
#include <vector>

#include "config/word_list.h"

namespace rulenlu {

struct IntentConfig {
  std::string name;
  std::vector<std::pair<std::string, std::string>> slots;  // (slot name, tag)
  std::vector<std::u16string> regexRules;
  std::vector<std::u16string> blackList;  // carried, not consulted by any stage
};

struct NluConfig {
  int64_t version = 0;
  std::map<std::string, WordList> vocabMap;
  std::map<std::string, std::vector<std::u16string>> regexVocabMap;
  std::map<std::string, IntentConfig> intentMap;
  std::vector<std::pair<std::string, std::u16string>> variableEntrys;
};

}  // namespace rulenlu

#endif  // RULENLU_CONFIG_NLU_CONFIG_H_
