// The process-wide current engine that the exported functions answer with.
//
// Engines are published once built and never destroyed: a host thread may still be inside
// Process on an earlier engine when a later one is published.
#ifndef RULENLU_ENGINE_ENGINE_SLOT_H_
#define RULENLU_ENGINE_ENGINE_SLOT_H_

#include "engine/nlu_engine.h"

namespace rulenlu {

// The current engine, or null before the first one is published.
const NluEngine* CurrentEngine();

// Makes `engine` current. The previous engine stays alive.
void PublishEngine(const NluEngine* engine);

}  // namespace rulenlu

#endif  // RULENLU_ENGINE_ENGINE_SLOT_H_
