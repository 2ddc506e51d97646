// The functions the host client calls: the one place where the library's failures meet the
// host. Nothing thrown inside may reach the host, except BuildEngin's documented errors.
#include <exception>
#include <memory>
#include <optional>
#include <stdexcept>
#include <system_error>
#include <utility>

#include "base/error.h"
#include "base/log.h"
#include "config/memory_config.h"
#include "engine/config_selection.h"
#include "engine/engine_slot.h"
#include "engine/nlu_engine.h"
#include "rulenlu/engine_api.h"
#include "services/config_update.h"
#include "services/service_manager.h"

namespace rulenlu {
namespace {

// The engine of `selection`; when the cached copy cannot be built, the engine of the local file
// at `path`. Null, with the reason logged, when there is none.
std::unique_ptr<NluEngine> BuildSelectedEngine(ConfigSelection selection, const std::string& path) {
  try {
    return std::make_unique<NluEngine>(std::move(selection.config));
  } catch (const Error& e) {
    if (!selection.from_cache) {
      LogPrintf("engine build failed: %s", e.what());
      return nullptr;
    }
    // A poisoned download must not stop the client at every start: fall back to the local file.
    LogPrintf("remote config cannot build engine: %s", e.what());
  }
  std::optional<NluConfig> local = LoadLocalConfigLogged(path);
  if (!local.has_value()) return nullptr;
  try {
    return std::make_unique<NluEngine>(std::move(*local));
  } catch (const Error& e) {
    LogPrintf("engine build failed: %s", e.what());
    return nullptr;
  }
}

void InitEngine(const char* path) {
  const std::string local_path = path != nullptr ? path : "";
  std::optional<ConfigSelection> selection = SelectNluConfig(local_path);
  if (!selection.has_value()) return;
  std::unique_ptr<NluEngine> engine = BuildSelectedEngine(std::move(*selection), local_path);
  if (engine == nullptr) return;
  const int64_t running = engine->version();
  PublishEngine(std::move(engine));
  try {
    StartRemoteConfigUpdate(running);
  } catch (const std::system_error& e) {
    LogPrintf("config update not started: %s", e.what());
  }
}

}  // namespace
}  // namespace rulenlu

extern "C" {

bool AttachServiceManager(cp::ServiceManagerInterface* manager) {
  // The client's AddRef is the only call that may throw here, and it is not ours to judge.
  try {
    return rulenlu::ServiceManagerHolder::Instance().Attach(manager);
  } catch (const std::exception& e) {
    rulenlu::LogPrintf("attach service manager failed: %s", e.what());
    return false;
  }
}

void InitEngin(const char* path) {
  // Never throws: whatever escapes the start-up (a local file that is not UTF-8, lack of memory,
  // a defect, or the client's own exceptions) is logged and leaves the current engine in place.
  try {
    rulenlu::InitEngine(path);
  } catch (const std::exception& e) {
    rulenlu::LogPrintf("engine init failed: %s", e.what());
  } catch (...) {
    rulenlu::LogPrintf("engine init failed");
  }
}

void BuildEngin(const Utf8NluConfig* config) {
  std::unique_ptr<rulenlu::NluEngine> engine;
  try {
    engine = std::make_unique<rulenlu::NluEngine>(rulenlu::FromUtf8Config(*config));
  } catch (const rulenlu::ConversionError& e) {
    throw std::range_error(e.what());  // the host's documented error for text that is not UTF-8
  }
  // The engine matches on UTF-16 units, whatever the compiler's wchar_t is.
  rulenlu::LogLine(rulenlu::LogStream::kStdout, {"sizeof wchar_t:", "2"});
  rulenlu::PublishEngine(std::move(engine));
}

void Process(const std::string& query, NluResult& result) {
  NluResult answer;
  // Never throws: a stage's failure is already the empty result; anything else is a defect,
  // logged, and the host still gets the empty result.
  try {
    // Holds the engine, which a concurrent InitEngin or BuildEngin may be replacing, until the
    // answer is made.
    const rulenlu::EngineReader reader;
    if (const rulenlu::NluEngine* engine = reader.engine()) answer = engine->Process(query);
  } catch (const std::exception& e) {
    rulenlu::LogLine(rulenlu::LogStream::kStderr, {"process failed: ", e.what()});
    answer = NluResult{};
  } catch (...) {
    rulenlu::LogLine(rulenlu::LogStream::kStderr, {"process failed"});
    answer = NluResult{};
  }
  result.version = answer.version;
  result.intent = std::move(answer.intent);
  result.text = std::move(answer.text);
  result.slots = std::move(answer.slots);
}

}  // extern "C"
