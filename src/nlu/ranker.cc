#include "nlu/ranker.h"

#include <utility>

namespace rulenlu {
namespace {

IntentCandidate Unknown(const std::u16string& query) {
  IntentCandidate unknown;
  unknown.intent = "unknown";
  unknown.text = query;
  return unknown;
}

}  // namespace

IntentCandidate Ranker::Rank(const std::u16string& query, std::vector<IntentCandidate> candidates) {
  if (candidates.empty()) return Unknown(query);
  // A strict comparison keeps the first of equally ranked candidates.
  CandidateScore best = Score(candidates[0], 0);
  for (size_t i = 1; i < candidates.size(); ++i) {
    const CandidateScore score = Score(candidates[i], static_cast<int32_t>(i));
    if (RanksBefore(score, best)) best = score;
  }
  return std::move(candidates[static_cast<size_t>(best.index)]);
}

CandidateScore Ranker::Score(const IntentCandidate& candidate, int32_t index) {
  uint32_t total = 0;  // unsigned, so that the sum wraps around instead of overflowing
  for (const SlotMatch& slot : candidate.slots) total += static_cast<uint32_t>(slot.length);
  return Score(candidate.slots.size(), total, index);
}

}  // namespace rulenlu
