#include <gtest/gtest.h>

#include <algorithm>
#include <cmath>
#include <tuple>
#include <vector>

#include "cuda_like/tune/candidates.hpp"
#include "math/fft_schedule.hpp"

namespace {

using namespace ondrel;
using Words = std::tuple<uint32_t, uint32_t, uint32_t, uint32_t, uint32_t>;

std::vector<Words> words(const std::vector<TuneEntry>& list) {
  std::vector<Words> out;
  for (const TuneEntry& e : list) out.emplace_back(e.ept, e.fpb, e.tpf, e.core, e.var);
  return out;
}

TEST(TuneCandidates, ThreadsPerTransform) {
  EXPECT_EQ(words(tpf_candidates()),
            (std::vector<Words>{{0, 0, 0, 0, 0}, {0, 0, 64, 0, 0}, {0, 0, 128, 0, 0}, {0, 0, 256, 0, 0},
                                {0, 0, 512, 0, 0}}));
}

TEST(TuneCandidates, PowerOfTwoSpectra) {
  const std::vector<Words> small = words(pow2_candidates(512));
  EXPECT_EQ(small, (std::vector<Words>{{0, 0, 0, 0, 0},
                                       {8, 1, 0, 0, 0},
                                       {8, 2, 0, 0, 0},
                                       {8, 4, 0, 0, 0},
                                       {8, 8, 0, 0, 0},
                                       {16, 1, 0, 0, 0},
                                       {16, 2, 0, 0, 0},
                                       {16, 4, 0, 0, 0},
                                       {16, 8, 0, 0, 0},
                                       {0, 0, 0, 0, 240},
                                       {0, 0, 0, 0, 48}}));
  // From 513 on, eight frames a block are no longer tried.
  EXPECT_EQ(words(pow2_candidates(1024)),
            (std::vector<Words>{{0, 0, 0, 0, 0}, {8, 1, 0, 0, 0}, {8, 2, 0, 0, 0}, {8, 4, 0, 0, 0},
                                {16, 1, 0, 0, 0}, {16, 2, 0, 0, 0}, {16, 4, 0, 0, 0}, {0, 0, 0, 0, 240},
                                {0, 0, 0, 0, 48}}));
}

// The list for a power of two without Rader scratch, written out by hand.
std::vector<Words> pow2_fft_list(std::vector<uint32_t> epts, bool half) {
  std::vector<Words> list{{0, 0, 0, 0, 0},   {0, 2, 0, 1, 0},   {0, 0, 64, 1, 0},  {0, 2, 64, 1, 0},
                          {0, 0, 128, 1, 0}, {0, 2, 128, 1, 0}, {0, 0, 256, 1, 0}, {0, 2, 256, 1, 0},
                          {0, 1, 0, 1, 0},   {0, 4, 0, 1, 0}};
  for (uint32_t e : epts) {
    list.emplace_back(e, 0, 0, 2, 0);
    list.emplace_back(e, 2, 0, 2, 0);
  }
  list.emplace_back(0, 0, 0, 1, 4);
  if (half) list.emplace_back(0, 0, 0, 2, 2);
  list.emplace_back(0, 0, 0, 2, 8);
  return list;
}

class PowerOfTwoFft : public ::testing::TestWithParam<std::tuple<int32_t, std::vector<uint32_t>, bool>> {};

TEST_P(PowerOfTwoFft, DesignedOrder) {
  const auto& [n, epts, half] = GetParam();
  EXPECT_EQ(words(fft_candidates(n, half)), pow2_fft_list(epts, half)) << "n " << n;
}

INSTANTIATE_TEST_SUITE_P(Lengths, PowerOfTwoFft,
                         ::testing::Values(std::make_tuple(8, std::vector<uint32_t>{4, 8}, false),
                                           std::make_tuple(16, std::vector<uint32_t>{4, 8, 16}, true),
                                           std::make_tuple(1024, std::vector<uint32_t>{4, 8, 16, 32}, false),
                                           std::make_tuple(4096, std::vector<uint32_t>{4, 8, 16, 32}, true)));

// Other lengths: the register entries are divisors from 4 to 32, ascending,
// at most five, each one that starts a schedule, and no skipped divisor
// below the last one starts one; the variant entries follow the length.
class OtherLengthFft : public ::testing::TestWithParam<int32_t> {};

TEST_P(OtherLengthFft, RegisterAndVariantEntries) {
  const int32_t n = GetParam();
  std::vector<uint32_t> registers;
  std::vector<Words> variants;
  for (const Words& w : words(fft_candidates(n, false))) {
    const auto& [ept, fpb, tpf, core, var] = w;
    if (core == 2 && var == 0) {
      if (fpb == 0) registers.push_back(ept);
      else EXPECT_EQ(ept, registers.back());  // fpb 2 follows fpb 0 of the same ept
    } else if (var != 0) {
      variants.push_back(w);
    }
  }
  ASSERT_LE(registers.size(), 5u);
  uint32_t previous = 3;
  for (uint32_t d = 4; d <= 32; ++d) {
    std::vector<int32_t> schedule;
    int32_t first = 0;
    const bool starts = n % static_cast<int32_t>(d) == 0 && mixed_schedule(n, d, d, schedule, first);
    const bool listed = std::find(registers.begin(), registers.end(), d) != registers.end();
    if (registers.size() < 5 || (!registers.empty() && d <= registers.back())) {
      EXPECT_EQ(listed, starts) << d;
    }
    if (listed) {
      EXPECT_GT(d, previous);
      previous = d;
    }
  }
  std::vector<Words> expected;
  const bool no_rader = rader_scratch(n) == 0;
  if (no_rader) expected.emplace_back(0, 0, 0, 1, 4);
  if (n % 25 == 0) expected.emplace_back(0, 0, 0, 1, 1);
  if (n % 25 == 0 && no_rader) expected.emplace_back(0, 0, 0, 1, 5);
  expected.emplace_back(0, 0, 0, 2, 8);
  EXPECT_EQ(variants, expected) << "n " << n;
}

INSTANTIATE_TEST_SUITE_P(Lengths, OtherLengthFft, ::testing::Values(1000, 7919, 25, 75, 625, 720, 1200, 4913, 17 * 25));

TEST(TuneCandidates, LengthsOfBothKinds) {
  // A prime above 13 needs Rader scratch, 1000 does not; both as the lists show.
  ASSERT_NE(rader_scratch(7919), 0);
  ASSERT_EQ(rader_scratch(1000), 0);
  const std::vector<Words> prime = words(fft_candidates(7919, false));
  EXPECT_EQ(std::count(prime.begin(), prime.end(), Words{0, 0, 0, 1, 4}), 0);
  const std::vector<Words> thousand = words(fft_candidates(1000, false));
  EXPECT_EQ(std::count(thousand.begin(), thousand.end(), Words{0, 0, 0, 1, 5}), 1);
  EXPECT_EQ(thousand.front(), (Words{0, 0, 0, 0, 0}));
}

TEST(TuneReps, AboutTwentyFiveMilliseconds) {
  EXPECT_EQ(further_reps(30.0, 50), 1);  // a 30 ms closure gets one further sample
  EXPECT_EQ(further_reps(0.1, 500), 250);
  EXPECT_EQ(further_reps(0.1, 50), 50);
  EXPECT_EQ(further_reps(1.0, 50), 25);
  EXPECT_EQ(further_reps(0.0, 7), 7);
  EXPECT_EQ(further_reps(-1.0, 7), 7);
  EXPECT_EQ(further_reps(1e-12, 50), 50);  // no overflow on a tiny time
  EXPECT_EQ(first_reps(0), 1);
  EXPECT_EQ(first_reps(1), 1);
  EXPECT_EQ(first_reps(2), 2);
  EXPECT_EQ(first_reps(10), 10);
}

TEST(TuneBest, StrictlyFasterReplaces) {
  BestCandidate best;
  EXPECT_EQ(best.ms, 1e30);
  EXPECT_EQ(best.entry.core + best.entry.ept + best.entry.fpb + best.entry.tpf + best.entry.var, 0u);
  EXPECT_TRUE(best.offer(2.0, {8, 1, 0, 0, 0}));
  EXPECT_FALSE(best.offer(2.0, {16, 1, 0, 0, 0}));  // equal time: the earlier stays
  EXPECT_EQ(best.entry.ept, 8u);
  EXPECT_FALSE(best.offer(2.5, {16, 2, 0, 0, 0}));
  EXPECT_FALSE(best.offer(std::nan(""), {16, 4, 0, 0, 0}));
  EXPECT_TRUE(best.offer(1.5, {0, 0, 0, 0, 48}));
  EXPECT_EQ(best.entry.var, 48u);
  EXPECT_EQ(best.ms, 1.5);
}

}  // namespace
