#include "nlu/ranker.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <utility>
#include <vector>

#include "base/text.h"
#include "tag_dump.h"

namespace rulenlu {
namespace {

// A candidate with one slot of each length in `lengths`, and fields no stage would set.
IntentCandidate Cand(const std::string& intent, const std::vector<int32_t>& lengths) {
  IntentCandidate candidate{5, intent, u"its own text", {}};
  for (int32_t length : lengths) candidate.slots.push_back({"key", u"\u4F1A", 9, length});
  return candidate;
}

// Every field of a candidate.
std::string Dump(const IntentCandidate& candidate) {
  return std::to_string(candidate.version) + " " + candidate.intent + " " +
         Utf16ToUtf8(candidate.text) + " " + DumpTags(candidate.slots);
}

std::string Winner(const std::vector<IntentCandidate>& candidates,
                   const std::u16string& query = u"the query") {
  return Dump(Ranker::Rank(query, candidates));
}

TEST(Ranker, PrefersMostUnitsThenFewestSlotsThenTheEarliest) {
  EXPECT_EQ(Winner({}, u"hello \u4F1A"), "0 unknown hello \xE4\xBC\x9A ");
  constexpr int32_t kMax = std::numeric_limits<int32_t>::max();
  // Candidates, and the position of the one that wins, returned as it is. Overlapping slots count
  // in full; the sum wraps around in 32 bits, so kMax + 1 is the least and kMax + kMax + 2 ties
  // with no slot at all.
  // clang-format off
  const std::vector<std::pair<std::vector<IntentCandidate>, size_t>> cases = {
      {{Cand("five", {5}), Cand("three", {3})}, 0}, {{Cand("three", {3}), Cand("five", {5})}, 1},
      {{Cand("five", {5}), Cand("overlap", {3, 3})}, 1},
      {{Cand("two", {2, 2}), Cand("one", {4})}, 1}, {{Cand("one", {4}), Cand("two", {2, 2})}, 0},
      {{Cand("one", {1, 3}), Cand("other", {2, 2})}, 0},
      {{Cand("wrapped", {kMax, 1}), Cand("one", {1})}, 1},
      {{Cand("zero", {kMax, kMax, 2}), Cand("none", {})}, 1}};
  // clang-format on
  for (const auto& [candidates, winner] : cases) {
    EXPECT_EQ(Winner(candidates), Dump(candidates[winner]));
  }
  std::vector<IntentCandidate> many(40, Cand("equal", {2, 2}));
  many[33] = Cand("best", {4});
  many[38] = Cand("later best", {4});
  EXPECT_EQ(Winner(many), Dump(many[33]));
  // The index takes no part in the order itself.
  EXPECT_FALSE(Ranker::RanksBefore({1, 4, 0}, {1, 4, 9}));
  EXPECT_FALSE(Ranker::RanksBefore({1, 4, 9}, {1, 4, 0}));
}

}  // namespace
}  // namespace rulenlu
