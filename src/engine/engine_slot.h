// The process-wide current engine that the exported functions answer with.
//
// Queries read the current engine without taking a lock: a reader announces itself in one of
// two counters, chosen by the parity of a publication epoch, then loads the engine. Publishing
// swaps the engine in, moves the epoch on (new readers then count in the other counter) and
// waits until the counter it left drains: no query can still hold the previous engine, which is
// then destroyed. Readers never wait; only a publication waits, for the queries that were
// already running on the engine it replaces.
#ifndef RULENLU_ENGINE_ENGINE_SLOT_H_
#define RULENLU_ENGINE_ENGINE_SLOT_H_

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <memory>

#include "engine/nlu_engine.h"

namespace rulenlu {

// The current engine for the lifetime of one query: while a reader is alive, the engine it
// holds is not destroyed. Never blocks and never throws. A reader must be destroyed on the
// thread that made it, and no thread may publish while it holds a reader (that would wait for
// itself).
class EngineReader {
 public:
  EngineReader();
  ~EngineReader();
  EngineReader(const EngineReader&) = delete;
  EngineReader& operator=(const EngineReader&) = delete;

  // The engine that was current when the reader was made; null before the first publication.
  const NluEngine* engine() const { return engine_; }

 private:
  std::atomic<int64_t>* counter_;
  const NluEngine* engine_;
};

// Makes `engine` (not null) current, then destroys the engine it replaces once no reader holds
// it any more. Publications run one at a time; a query made during the call sees either engine
// whole.
void PublishEngine(std::unique_ptr<const NluEngine> engine);

// For tests: the number of published engines not yet destroyed (the current one included).
size_t LiveEnginesForTesting();

}  // namespace rulenlu

#endif  // RULENLU_ENGINE_ENGINE_SLOT_H_
