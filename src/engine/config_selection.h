// The choice of the configuration an engine starts from.
//
// The copy that an earlier run downloaded into the client's storage wins whenever it parses,
// whatever its version; the local file is the fallback.
#ifndef RULENLU_ENGINE_CONFIG_SELECTION_H_
#define RULENLU_ENGINE_CONFIG_SELECTION_H_

#include <optional>
#include <string>

#include "config/nlu_config.h"

namespace rulenlu {

// A chosen configuration and where it came from.
struct ConfigSelection {
  NluConfig config;
  bool from_cache = false;  // true for the cached remote copy
};

// Returns the cached remote configuration if there is one that parses, else the configuration of
// the local file at `path` (UTF-8), each choice with its log line. Returns nothing when neither
// source yields one (each failure logged). Nothing the cached copy or the client's storage
// throws escapes: such a copy counts as unusable. Throws ConversionError for a local file with
// text that is not UTF-8.
std::optional<ConfigSelection> SelectNluConfig(const std::string& path);

// The configuration of the local file at `path`, logged as the chosen one when it loads; as
// LoadLocalNluConfig otherwise.
std::optional<NluConfig> LoadLocalConfigLogged(const std::string& path);

}  // namespace rulenlu

#endif  // RULENLU_ENGINE_CONFIG_SELECTION_H_
