// Conversion of a configuration held in memory (all UTF-8) into the engine's NluConfig.
#ifndef RULENLU_CONFIG_MEMORY_CONFIG_H_
#define RULENLU_CONFIG_MEMORY_CONFIG_H_

#include "config/nlu_config.h"
#include "rulenlu/engine_api.h"

namespace rulenlu {

// Converts every matched string of `config` to UTF-16; names stay UTF-8. The version is not
// taken (the result has version 0). Logs each regex vocabulary name, in name order. Throws
// ConversionError on invalid UTF-8 in a converted string.
NluConfig FromUtf8Config(const Utf8NluConfig& config);

}  // namespace rulenlu

#endif  // RULENLU_CONFIG_MEMORY_CONFIG_H_
