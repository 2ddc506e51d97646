// Turns the configuration document (UTF-8 JSON text) into an NluConfig.
//
// The parser is lenient by design: missing sections, missing keys and values of the wrong type
// are skipped in silence, so that a partly wrong document still configures what it can. Only a
// text that is not JSON with an object at its root is rejected.
#ifndef RULENLU_CONFIG_CONFIG_PARSER_H_
#define RULENLU_CONFIG_CONFIG_PARSER_H_

#include <rapidjson/document.h>

#include <memory>
#include <string>

#include "config/nlu_config.h"

namespace rulenlu {

// Returns the configuration described by `text` (read up to its first NUL byte). Returns an
// empty pointer, after logging "json is error.", when the text is not a JSON document whose root
// is an object. Throws std::range_error("bad conversion") when a string that is matched against
// queries (a word, a pattern, a rule, a black-list entry or a variable's value) is not valid
// UTF-8; names are kept as their bytes.
std::shared_ptr<NluConfig> ParseNluConfig(const std::string& text);

// The section readers, in the order ParseNluConfig runs them. Each reads one member of the root
// object `root` into its field of `config`, appending or assigning; a missing member or one of the
// wrong type leaves the field as it is. Strings are taken up to their first NUL character.

// Appends a (key, value) pair for every element of "variableEntrys" that is an object whose
// "key" and "value" are both strings, in document order.
void ParseVariableEntrys(const rapidjson::Value& root, const std::shared_ptr<NluConfig>& config);

// Stores, for every member of "regexVocabMap" whose value is an array, its string elements in
// order (duplicates kept). A name that occurs twice keeps its last array.
void ParseRegexVocabMap(const rapidjson::Value& root, const std::shared_ptr<NluConfig>& config);

// Stores, for every member of "vocabMap" whose value is an array, the set of its string
// elements. A name that occurs twice keeps its last array.
void ParseVocabMap(const rapidjson::Value& root, const std::shared_ptr<NluConfig>& config);

// Stores an IntentConfig for every member of "intentMap" whose value is an object. A key that
// occurs twice keeps the last object wholly.
void ParseIntentMap(const rapidjson::Value& root, const std::shared_ptr<NluConfig>& config);

}  // namespace rulenlu

#endif  // RULENLU_CONFIG_CONFIG_PARSER_H_
