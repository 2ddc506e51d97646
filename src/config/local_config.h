// Reading the configuration document from the local file whose path the host passes at start-up.
#ifndef RULENLU_CONFIG_LOCAL_CONFIG_H_
#define RULENLU_CONFIG_LOCAL_CONFIG_H_

#include <optional>
#include <string>

#include "config/nlu_config.h"

namespace rulenlu {

// Reads the file at `path` (UTF-8) and returns ParseNluConfig of its text (which ends at its
// first NUL byte). Returns nothing, after logging "local config load failed", when the file
// cannot be opened or read (a directory included), and nothing, after the parser's
// "json is error.", when the text is not a configuration document. Throws ConversionError as
// ParseNluConfig does.
std::optional<NluConfig> LoadLocalNluConfig(const std::string& path);

}  // namespace rulenlu

#endif  // RULENLU_CONFIG_LOCAL_CONFIG_H_
