#include "config/config_selection.h"

#include <exception>
#include <utility>

#include "config/config_parser.h"
#include "config/local_config.h"
#include "engine/log.h"
#include "services/remote_config_cache.h"

namespace rulenlu {
namespace {

// The cached remote configuration, or an empty pointer (with the reason logged) when there is no
// usable one.
std::shared_ptr<NluConfig> LoadRemoteNluConfig() {
  // Neither a broken download nor a failing client store may keep the engine from starting on
  // the local file.
  try {
    std::string text;
    if (!ReadRemoteConfigCache(text)) {
      LogPrintf("remote config load failed");
      return nullptr;
    }
    return ParseNluConfig(text);
  } catch (const std::exception& e) {
    LogPrintf("remote config is invalid: %s", e.what());
  } catch (...) {
    LogPrintf("remote config is invalid");
  }
  return nullptr;
}

}  // namespace

ConfigSelection SelectNluConfig(const std::string& path) {
  if (std::shared_ptr<NluConfig> remote = LoadRemoteNluConfig()) {
    LogPrintf("use remote config. version=%lld", static_cast<long long>(remote->version));
    return {std::move(remote), true};
  }
  return {LoadLocalConfigLogged(path), false};
}

std::shared_ptr<NluConfig> LoadNluConfig(const std::string& path) {
  return SelectNluConfig(path).config;
}

std::shared_ptr<NluConfig> LoadLocalConfigLogged(const std::string& path) {
  std::shared_ptr<NluConfig> local = LoadLocalNluConfig(path);
  if (local != nullptr) {
    LogPrintf("use local config. version=%lld", static_cast<long long>(local->version));
  }
  return local;
}

}  // namespace rulenlu
