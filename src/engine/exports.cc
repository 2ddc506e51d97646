// The functions the host client calls. Nothing thrown inside may reach the host, except
// BuildEngin's documented conversion error.
#include <exception>
#include <memory>
#include <new>
#include <utility>

#include "config/config_selection.h"
#include "engine/engine_slot.h"
#include "engine/log.h"
#include "engine/memory_config.h"
#include "engine/nlu_engine.h"
#include "rulenlu/engine_api.h"
#include "services/config_update.h"
#include "services/service_manager.h"

namespace rulenlu {
namespace {

void InitEngine(const char* path) {
  const std::string local_path = path != nullptr ? path : "";
  ConfigSelection selection = SelectNluConfig(local_path);
  if (selection.config == nullptr) return;
  std::string why;
  std::unique_ptr<NluEngine> engine = NluEngine::Build(*selection.config, &why);
  if (engine == nullptr && selection.from_cache) {
    // A poisoned download must not stop the client at every start: fall back to the local file.
    LogPrintf("remote config cannot build engine: %s", why.c_str());
    selection.config = LoadLocalConfigLogged(local_path);
    if (selection.config == nullptr) return;
    engine = NluEngine::Build(*selection.config, &why);
  }
  if (engine == nullptr) {
    LogPrintf("engine build failed: %s", why.c_str());
    return;
  }
  PublishEngine(engine.release());
  try {
    StartRemoteConfigUpdate(selection.config->version);
  } catch (const std::exception& e) {
    LogPrintf("config update not started: %s", e.what());
  }
}

}  // namespace
}  // namespace rulenlu

extern "C" {

bool AttachServiceManager(cp::ServiceManagerInterface* manager) {
  try {
    return rulenlu::ServiceManagerHolder::Instance().Attach(manager);
  } catch (const std::exception&) {
    return false;
  }
}

void InitEngin(const char* path) {
  try {
    rulenlu::InitEngine(path);
  } catch (const std::exception& e) {
    rulenlu::LogPrintf("engine init failed: %s", e.what());
  } catch (...) {
    rulenlu::LogPrintf("engine init failed");
  }
}

void BuildEngin(const Utf8NluConfig* config) {
  rulenlu::NluConfig converted = rulenlu::FromUtf8Config(*config);
  auto engine = std::make_unique<rulenlu::NluEngine>();
  engine->Init(std::move(converted));
  // The engine matches on UTF-16 units, whatever the compiler's wchar_t is.
  rulenlu::LogLine(rulenlu::LogStream::kStdout, {"sizeof wchar_t:", "2"});
  rulenlu::PublishEngine(engine.release());
}

void Process(const std::string& query, NluResult& result) {
  NluResult answer;
  try {
    if (const rulenlu::NluEngine* engine = rulenlu::CurrentEngine()) answer = engine->Process(query);
  } catch (...) {
    answer = NluResult{};
  }
  result.version = answer.version;
  result.intent = std::move(answer.intent);
  result.text = std::move(answer.text);
  result.slots = std::move(answer.slots);
}

}  // extern "C"
