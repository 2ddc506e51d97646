#include "engine/engine_slot.h"

#include <mutex>
#include <thread>

namespace rulenlu {
namespace {

// Every operation below is sequentially consistent unless it says otherwise: the argument that
// a destroyed engine has no reader rests on one total order of the epoch, counter and engine
// operations.
std::atomic<const NluEngine*> g_engine{nullptr};
std::atomic<uint64_t> g_epoch{0};
// Readers that began in an epoch of each parity and have not finished; apart, so that the
// counter a publication drains does not share a cache line with the one readers are entering.
struct alignas(64) ReaderCounter {
  std::atomic<int64_t> count{0};
};
ReaderCounter g_readers[2];
std::mutex g_publish_mutex;
std::atomic<size_t> g_live_engines{0};

}  // namespace

EngineReader::EngineReader() {
  // A reader counts in the parity of the epoch it saw, and only once the epoch is seen unchanged
  // after the count: a publication that moved the epoch on in between either sees this count
  // when it drains, or made this reader try again.
  for (;;) {
    const uint64_t epoch = g_epoch.load();
    std::atomic<int64_t>& counter = g_readers[epoch & 1].count;
    counter.fetch_add(1);
    if (g_epoch.load() == epoch) {
      counter_ = &counter;
      break;
    }
    counter.fetch_sub(1);
  }
  // Counted before the epoch moved on, or in the epoch that followed the swap: either the
  // publication waits for this reader, or the reader loads the newer engine.
  engine_ = g_engine.load();
}

// Release: the reader's use of the engine happens before the publication sees the count drop.
EngineReader::~EngineReader() { counter_->fetch_sub(1, std::memory_order_release); }

void PublishEngine(std::unique_ptr<const NluEngine> engine) {
  std::lock_guard<std::mutex> lock(g_publish_mutex);
  g_live_engines.fetch_add(1, std::memory_order_relaxed);
  const NluEngine* previous = g_engine.exchange(engine.release());
  // Readers from now on count in the other parity and load the new engine; those counted in the
  // parity left behind may hold the previous one. The other parity was drained by the
  // publication before this one (publications hold the mutex), so it counts only new readers.
  const uint64_t left = g_epoch.fetch_add(1);
  std::atomic<int64_t>& draining = g_readers[left & 1].count;
  while (draining.load(std::memory_order_acquire) != 0) std::this_thread::yield();
  if (previous != nullptr) {
    delete previous;
    g_live_engines.fetch_sub(1, std::memory_order_relaxed);
  }
}

size_t LiveEnginesForTesting() { return g_live_engines.load(std::memory_order_relaxed); }

}  // namespace rulenlu
