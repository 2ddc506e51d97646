#include "nlu/ranker.h"

#include <gtest/gtest.h>

#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include "log_capture.h"

namespace rulenlu {
namespace {

constexpr int kUntouched = 7;  // a status no stage sets

// A candidate named `intent` with one slot of each length in `lengths`, all at offset 0.
IntentCandidate Candidate(const std::string& intent, const std::vector<int32_t>& lengths) {
  IntentCandidate candidate;
  candidate.intent = intent;
  candidate.text = u"the query";
  for (int32_t length : lengths) {
    SlotMatch slot;
    slot.key = "k";
    slot.value = u"v";
    slot.length = length;
    candidate.slots.push_back(slot);
  }
  return candidate;
}

std::string Winner(const std::vector<IntentCandidate>& candidates) {
  int status = kUntouched;
  const IntentCandidate winner = Ranker().Rank(u"the query", candidates, status);
  EXPECT_EQ(status, kUntouched);
  return winner.intent;
}

TEST(RankerTest, NoCandidateGivesUnknown) {
  LogCapture cap;
  int status = kUntouched;
  const IntentCandidate result = Ranker().Rank(u"hello \u4F1A", {}, status);
  EXPECT_EQ(status, kUntouched);
  EXPECT_EQ(result.version, 0);
  EXPECT_EQ(result.intent, "unknown");
  EXPECT_EQ(result.text, u"hello \u4F1A");
  EXPECT_TRUE(result.slots.empty());
  EXPECT_EQ(cap.err(), "");
}

TEST(RankerTest, ReturnsTheWinnerUnchanged) {
  IntentCandidate lone = Candidate("lone", {});
  lone.version = 5;
  lone.text = u"something else";
  int status = kUntouched;
  IntentCandidate result = Ranker().Rank(u"the query", {lone}, status);
  EXPECT_EQ(result.version, 5);
  EXPECT_EQ(result.intent, "lone");
  EXPECT_EQ(result.text, u"something else");
  EXPECT_TRUE(result.slots.empty());

  IntentCandidate full = Candidate("full", {2, 3});
  full.slots[1].key = "city";
  full.slots[1].value = u"Rome";
  full.slots[1].start = 9;
  result = Ranker().Rank(u"the query", {Candidate("short", {1}), full}, status);
  ASSERT_EQ(result.slots.size(), 2u);
  EXPECT_EQ(result.slots[1].key, "city");
  EXPECT_EQ(result.slots[1].value, u"Rome");
  EXPECT_EQ(result.slots[1].start, 9);
  EXPECT_EQ(result.slots[1].length, 3);
  EXPECT_EQ(status, kUntouched);
}

TEST(RankerTest, PrefersLengthThenFewerSlotsThenListOrder) {
  // Most units covered, whichever comes first.
  EXPECT_EQ(Winner({Candidate("five", {5}), Candidate("three", {3})}), "five");
  EXPECT_EQ(Winner({Candidate("three", {3}), Candidate("five", {5})}), "five");
  EXPECT_EQ(Winner({Candidate("none", {}), Candidate("one", {1})}), "one");
  // Overlapping slots are not merged: 3 + 3 beats 5.
  EXPECT_EQ(Winner({Candidate("five", {5}), Candidate("overlap", {3, 3})}), "overlap");
  // Equal length: fewer slots, whichever comes first.
  EXPECT_EQ(Winner({Candidate("split", {2, 2}), Candidate("whole", {4})}), "whole");
  EXPECT_EQ(Winner({Candidate("whole", {4}), Candidate("split", {2, 2})}), "whole");
  EXPECT_EQ(Winner({Candidate("split", {1, 3}), Candidate("three", {1, 1, 2})}), "split");
  // Equal in both: the earlier one.
  EXPECT_EQ(Winner({Candidate("first", {4}), Candidate("second", {4})}), "first");
  EXPECT_EQ(Winner({Candidate("second", {1, 3}), Candidate("first", {2, 2})}), "second");

  // More than 32 equal candidates: still the earliest.
  std::vector<IntentCandidate> many;
  for (int i = 0; i < 40; ++i) many.push_back(Candidate("i" + std::to_string(i), {2, 2}));
  EXPECT_EQ(Winner(many), "i0");
  many[17] = Candidate("best17", {4});
  many[23] = Candidate("best23", {4});
  many[35] = Candidate("best35", {1, 3});
  EXPECT_EQ(Winner(many), "best17");
  many[39] = Candidate("longest", {5});
  EXPECT_EQ(Winner(many), "longest");
}

TEST(RankerTest, TotalLengthWrapsAroundIn32Bits) {
  constexpr int32_t kMax = std::numeric_limits<int32_t>::max();
  const IntentCandidate wrapped = Candidate("wrapped", {kMax, 1});
  const CandidateScore score = Ranker::Score(wrapped, 3);
  EXPECT_EQ(score.totalLength, std::numeric_limits<int32_t>::min());
  EXPECT_EQ(score.slotCount, 2);
  EXPECT_EQ(score.index, 3);
  EXPECT_EQ(Winner({wrapped, Candidate("one", {1})}), "one");

  // kMax + kMax + 2 wraps to 0: a tie with no slots at all, which has fewer.
  EXPECT_EQ(Ranker::Score(Candidate("zero", {kMax, kMax, 2}), 0).totalLength, 0);
  EXPECT_EQ(Winner({Candidate("zero", {kMax, kMax, 2}), Candidate("none", {})}), "none");

  // The index plays no part in the order itself.
  EXPECT_FALSE(Ranker::RanksBefore({1, 4, 0}, {1, 4, 9}));
  EXPECT_FALSE(Ranker::RanksBefore({1, 4, 9}, {1, 4, 0}));
  EXPECT_TRUE(Ranker::RanksBefore({2, 5, 9}, {1, 4, 0}));
  EXPECT_TRUE(Ranker::RanksBefore({1, 4, 9}, {2, 4, 0}));
}

}  // namespace
}  // namespace rulenlu
