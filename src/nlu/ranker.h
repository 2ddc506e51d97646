// The last stage of the query pipeline: chooses one candidate among those the parser found.
//
// Ranking keeps no state: it may run on any number of threads at once.
#ifndef RULENLU_NLU_RANKER_H_
#define RULENLU_NLU_RANKER_H_

#include <cstdint>
#include <string>
#include <vector>

#include "base/records.h"

namespace rulenlu {

// What ranking looks at in one candidate.
struct CandidateScore {
  int32_t slotCount;    // number of slots, truncated to 32 bits
  int32_t totalLength;  // sum of the slots' lengths, wrapping around in 32 bits
  int32_t index;        // position in the candidate list
};

class Ranker {
 public:
  // Returns the candidate whose slots cover the most units; among those, the one with the
  // fewest slots; among those, the earliest in `candidates`. Neither the intent nor where the
  // slots stand counts, and overlapping slots count in full. With no candidate, returns
  // "unknown" with `query` as text and no slots.
  static IntentCandidate Rank(const std::u16string& query, std::vector<IntentCandidate> candidates);

  // The score of `candidate`, found at position `index`.
  static CandidateScore Score(const IntentCandidate& candidate, int32_t index);

  // The score of a candidate of `slot_count` slots whose lengths add up to `total_length`
  // (summed in 32 bits, wrapping around), found at position `index`.
  static CandidateScore Score(size_t slot_count, uint32_t total_length, int32_t index) {
    return {static_cast<int32_t>(slot_count), static_cast<int32_t>(total_length), index};
  }

  // True when `a` ranks strictly before `b`: greater totalLength, or equal totalLength and
  // fewer slots. The index takes no part.
  static bool RanksBefore(const CandidateScore& a, const CandidateScore& b) {
    return RankKey(a) < RankKey(b);
  }

  // A number for `score` such that `a` ranks strictly before `b` exactly when RankKey(a) <
  // RankKey(b). The index takes no part.
  static uint64_t RankKey(const CandidateScore& score) {
    // totalLength descending, then slotCount ascending, each as a signed 32-bit number.
    const auto fewer_units = static_cast<uint32_t>(int64_t{INT32_MAX} - score.totalLength);
    const uint32_t slots = static_cast<uint32_t>(score.slotCount) ^ 0x80000000u;
    return uint64_t{fewer_units} << 32 | slots;
  }
};

}  // namespace rulenlu

#endif  // RULENLU_NLU_RANKER_H_
