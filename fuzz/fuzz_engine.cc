#include "fuzz_engine.h"

#include <cstdlib>

#include "base/text.h"

namespace rulenlu::fuzz {

void CheckAnswer(const NluEngine& engine, const std::string& query) {
  const PipelineOutcome outcome = engine.Understand(query);
  if (outcome.status != kStatusOk) {
    if (!outcome.candidate.intent.empty() || !outcome.candidate.slots.empty()) std::abort();
    return;
  }
  const size_t units = outcome.candidate.text.size();
  for (const SlotMatch& slot : outcome.candidate.slots) {
    if (slot.start < 0 || slot.length <= 0 || static_cast<size_t>(slot.start) > units ||
        static_cast<size_t>(slot.length) > units - static_cast<size_t>(slot.start) ||
        outcome.candidate.text.compare(slot.start, slot.length, slot.value) != 0) {
      std::abort();
    }
  }
  engine.Process(query);
}

}  // namespace rulenlu::fuzz
