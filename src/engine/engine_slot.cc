#include "engine/engine_slot.h"

#include <atomic>

namespace rulenlu {
namespace {
std::atomic<const NluEngine*> g_engine{nullptr};
}  // namespace

const NluEngine* CurrentEngine() { return g_engine.load(std::memory_order_acquire); }

void PublishEngine(const NluEngine* engine) { g_engine.store(engine, std::memory_order_release); }

}  // namespace rulenlu
