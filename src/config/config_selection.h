// The choice of the configuration an engine starts from.
//
// The copy that an earlier run downloaded into the client's storage wins whenever it parses,
// whatever its version; the local file is the fallback. To start from the local file alone, use
// LoadLocalNluConfig (config/local_config.h).
#ifndef RULENLU_CONFIG_CONFIG_SELECTION_H_
#define RULENLU_CONFIG_CONFIG_SELECTION_H_

#include <memory>
#include <string>

#include "config/nlu_config.h"

namespace rulenlu {

// Returns the cached remote configuration if there is one that parses, else the configuration of
// the local file at `path` (UTF-8), each choice with its log line. Returns an empty pointer when
// neither source yields one. A cached copy that cannot be read as text (invalid UTF-8) counts as
// unusable; no exception of the remote copy escapes.
std::shared_ptr<NluConfig> LoadNluConfig(const std::string& path);

// The configuration LoadNluConfig chooses, and where it came from.
struct ConfigSelection {
  std::shared_ptr<NluConfig> config;  // empty when neither source yields one
  bool from_cache = false;            // true for the cached remote copy
};
ConfigSelection SelectNluConfig(const std::string& path);

// The configuration of the local file at `path`, logged as the chosen one when it loads; empty
// otherwise.
std::shared_ptr<NluConfig> LoadLocalConfigLogged(const std::string& path);

}  // namespace rulenlu

#endif  // RULENLU_CONFIG_CONFIG_SELECTION_H_
