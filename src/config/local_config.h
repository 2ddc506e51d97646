// Reading the configuration document from the local file whose path the host passes at start-up.
#ifndef RULENLU_CONFIG_LOCAL_CONFIG_H_
#define RULENLU_CONFIG_LOCAL_CONFIG_H_

#include <memory>
#include <string>

#include "config/nlu_config.h"

namespace rulenlu {

// Reads the file at `path` (UTF-8) and returns ParseNluConfig of its text. Returns an empty
// pointer, after logging "local config load failed", when the file cannot be opened or read (a
// directory included), and an empty pointer, after the parser's "json is error.", when the text
// is not a configuration document. The text ends at its first NUL byte. Exceptions of the parse
// pass to the caller.
std::shared_ptr<NluConfig> LoadLocalNluConfig(const std::string& path);

#ifdef _WIN32
// Returns `utf8` converted to a NUL-terminated wide string that the caller releases with free();
// a string that does not convert yields an empty one. Returns nullptr only when out of memory.
wchar_t* Utf8ToWidePath(const char* utf8);
#endif

}  // namespace rulenlu

#endif  // RULENLU_CONFIG_LOCAL_CONFIG_H_
