// Turns the configuration document (UTF-8 JSON text) into an NluConfig.
//
// The parser is lenient by design: missing sections, missing keys and values of the wrong type
// are skipped in silence, so that a partly wrong document still configures what it can. Only a
// text that is not JSON with an object at its root is rejected.
#ifndef RULENLU_CONFIG_CONFIG_PARSER_H_
#define RULENLU_CONFIG_CONFIG_PARSER_H_

#include <optional>
#include <string>

#include "config/nlu_config.h"

namespace rulenlu {

// Returns the configuration described by `text` (read up to its first NUL byte), or nothing,
// after logging "json is error.", when the text is not a JSON document whose root is an object.
// Throws ConversionError when a string that is matched against queries (a word, a pattern, a
// rule, a black-list entry or a variable's value) is not valid UTF-8; names are kept as their
// bytes.
std::optional<NluConfig> ParseNluConfig(const std::string& text);

}  // namespace rulenlu

#endif  // RULENLU_CONFIG_CONFIG_PARSER_H_
