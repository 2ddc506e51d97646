#include "config/local_config.h"

#include <string>

#include "base/error.h"
#include "base/file.h"
#include "base/log.h"
#include "config/config_parser.h"

namespace rulenlu {

std::optional<NluConfig> LoadLocalNluConfig(const std::string& path) {
  std::string text;
  try {
    text = ReadWholeFile(path);
  } catch (const Error&) {
    LogPrintf("local config load failed");
    return std::nullopt;
  }
  return ParseNluConfig(text);
}

}  // namespace rulenlu
