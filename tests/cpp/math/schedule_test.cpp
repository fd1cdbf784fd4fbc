#include <gtest/gtest.h>

#include <vector>

#include "math/fft_schedule.hpp"

namespace {

using namespace ondrel;
using V = std::vector<int32_t>;

TEST(BluesteinWanted, SmallPrimesStayNativeFrom41On) {
  for (int32_t p : {17, 19, 23, 29, 31, 37}) EXPECT_FALSE(bluestein_wanted(p)) << p;
  EXPECT_TRUE(bluestein_wanted(41));  // 6 log2(82) is about 38.1
  // The bound grows with the length: 41 is within 6 log2(164), about 44.2.
  EXPECT_FALSE(bluestein_wanted(82));
  EXPECT_TRUE(bluestein_wanted(2 * 47));
  EXPECT_FALSE(bluestein_wanted(0));
  for (int32_t b = 0; b < 31; ++b) EXPECT_FALSE(bluestein_wanted(1 << b)) << b;
}

TEST(TakesBluestein, CompositeRestsLeaveTheNativeCores) {
  EXPECT_TRUE(takes_bluestein(41));
  EXPECT_TRUE(takes_bluestein(17 * 17));
  EXPECT_TRUE(takes_bluestein(16 * 17 * 19));
  EXPECT_TRUE(takes_bluestein(17 * 19 * 23));
  EXPECT_TRUE(takes_bluestein(8 * 31 * 37));
  EXPECT_FALSE(takes_bluestein(37 * 1024));  // a prime rest is a Rader stage
  EXPECT_FALSE(takes_bluestein(13 * 13 * 16));
  EXPECT_FALSE(takes_bluestein(1));
}

TEST(BluesteinLength, SmoothMultipleOfFourUnderThePowerOfTwo) {
  EXPECT_EQ(bluestein_length(5), 12);
  EXPECT_EQ(bluestein_length(100), 200);
  EXPECT_EQ(bluestein_length(3), 8);  // under the power of two 16
  for (int32_t n = 2; n < 3000; ++n) {
    const int32_t m = bluestein_length(n);
    ASSERT_GE(m, 2 * n - 1) << n;
    ASSERT_EQ(m % 4, 0) << n;
    int32_t r = m;
    for (int32_t p : {2, 3, 5, 7})
      while (r % p == 0) r /= p;
    ASSERT_EQ(r, 1) << n;
  }
}

TEST(FactorSchedule, WorkedLengths) {
  int32_t rest = 0;
  EXPECT_EQ(factor_schedule(1024, rest, false), (V{16, 8, 8}));
  EXPECT_EQ(rest, 1);
  EXPECT_EQ(factor_schedule(360, rest, false), (V{9, 8, 5}));
  EXPECT_EQ(factor_schedule(34, rest, false), (V{2, 17}));
  EXPECT_EQ(rest, 17);
  EXPECT_EQ(factor_schedule(1000, rest, true), (V{25, 8, 5}));
  EXPECT_EQ(factor_schedule(1000, rest, false), (V{8, 5, 5, 5}));
  EXPECT_EQ(factor_schedule(1, rest, false), V{});
  EXPECT_EQ(pow2_stages(10), (V{16, 8, 8}));
  EXPECT_EQ(pow2_stages(8), (V{16, 16}));
  EXPECT_EQ(pow2_stages(0), V{});
}

TEST(FactorSchedule, ProductIsTheLength) {
  for (int32_t n = 1; n <= 20000; ++n) {
    int32_t rest = 0;
    int64_t product = 1;
    for (int32_t r : factor_schedule(n, rest, n % 25 == 0)) product *= r;
    ASSERT_EQ(product, n) << n;
  }
}

TEST(RaderScratch, OnlyPrimesAbove13) {
  EXPECT_EQ(rader_scratch(34), 36);
  EXPECT_EQ(rader_prime(34), 17);
  EXPECT_EQ(rader_scratch(26), 0);
  EXPECT_EQ(rader_prime(17 * 19), 0);  // a composite rest is no Rader prime
}

TEST(SmoothFactors, TrialDivisionRest) {
  int32_t rest = 0;
  EXPECT_EQ(smooth_factors(360, rest), (V{5, 3, 3, 2, 2, 2}));
  EXPECT_EQ(rest, 1);
  EXPECT_EQ(smooth_factors(22, rest), (V{2, 11}));
  EXPECT_EQ(rest, 11);  // below 121 no odd trials run
  EXPECT_EQ(smooth_factors(11 * 11 * 2, rest), (V{2, 11, 11}));
  EXPECT_EQ(rest, 1);
}

TEST(MixedSchedule, LaterRadicesDivideTheFirst) {
  V out;
  int32_t first = 0;
  ASSERT_TRUE(mixed_schedule(1000, 10, 10, out, first));
  EXPECT_EQ(out, (V{10, 10, 10}));
  EXPECT_EQ(first, 10);
  ASSERT_TRUE(mixed_schedule(96, 12, 12, out, first));
  EXPECT_EQ(out, (V{12, 4, 2}));
  EXPECT_FALSE(mixed_schedule(7 * 11, 5, 12, out, first));
  ASSERT_TRUE(mixed_schedule(9, 5, 25, out, first));
  EXPECT_EQ(out, V{9});
}

TEST(TwoLevelSplit, FirstPairFromTheRootDown) {
  const FactorPair p = two_level_split(16384, 1, 49152);
  EXPECT_EQ(p.n1, 128);
  EXPECT_EQ(p.n2, 128);
  EXPECT_EQ(two_level_split(1024, 1, 49152).n1, 0);  // fits as it is
  EXPECT_EQ(two_level_split(3, 2, 1).n1, 0);
}

TEST(OddNative, SmallAndSmoothOddLengths) {
  EXPECT_FALSE(odd_native(7, false, 49152));
  EXPECT_FALSE(odd_native(10, false, 49152));
  EXPECT_TRUE(odd_native(9, false, 49152));
  EXPECT_TRUE(odd_native(3 * 17, false, 49152));   // 17 - 1 = 16 is smooth
  EXPECT_FALSE(odd_native(3 * 23, false, 49152));  // 23 - 1 = 2 x 11 leaves 11
  EXPECT_FALSE(odd_native(4095, true, 1024));      // does not fit
}

TEST(PrimitiveRoot, KnownRoots) {
  EXPECT_EQ(primitive_root(17), 3);
  EXPECT_EQ(primitive_root(23), 5);
  EXPECT_EQ(primitive_root(47), 5);
  EXPECT_EQ(mod_pow(3, 0, 17), 1);
  EXPECT_EQ(mod_pow(3, 16, 17), 1);
}

}  // namespace
