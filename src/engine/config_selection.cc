#include "engine/config_selection.h"

#include <exception>
#include <utility>

#include "base/log.h"
#include "config/config_parser.h"
#include "config/local_config.h"
#include "services/remote_config_cache.h"

namespace rulenlu {
namespace {

// The cached remote configuration, or nothing (with the reason logged) when there is no usable
// one.
std::optional<NluConfig> LoadRemoteNluConfig() {
  // Neither a broken download (invalid UTF-8, too large to hold) nor a failing client store may
  // keep the engine from starting on the local file: whatever it throws is logged and the
  // cached copy skipped.
  try {
    const std::string text = ReadRemoteConfigCache();
    if (text.empty()) {
      LogPrintf("remote config load failed");
      return std::nullopt;
    }
    return ParseNluConfig(text);
  } catch (const std::exception& e) {
    LogPrintf("remote config is invalid: %s", e.what());
  } catch (...) {
    // The client's storage is not ours: it may throw anything.
    LogPrintf("remote config is invalid");
  }
  return std::nullopt;
}

}  // namespace

std::optional<ConfigSelection> SelectNluConfig(const std::string& path) {
  if (std::optional<NluConfig> remote = LoadRemoteNluConfig()) {
    LogPrintf("use remote config. version=%lld", static_cast<long long>(remote->version));
    return ConfigSelection{std::move(*remote), true};
  }
  if (std::optional<NluConfig> local = LoadLocalConfigLogged(path)) {
    return ConfigSelection{std::move(*local), false};
  }
  return std::nullopt;
}

std::optional<NluConfig> LoadLocalConfigLogged(const std::string& path) {
  std::optional<NluConfig> local = LoadLocalNluConfig(path);
  if (local.has_value()) {
    LogPrintf("use local config. version=%lld", static_cast<long long>(local->version));
  }
  return local;
}

}  // namespace rulenlu
