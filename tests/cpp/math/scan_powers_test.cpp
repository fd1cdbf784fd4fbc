#include "math/scan_powers.hpp"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <vector>

namespace ondrel {
namespace {

// a = (0, -1): A swaps the two state words, so every power of 16 and up is
// the identity, exactly.
std::vector<double> identity_levels(int count) {
  std::vector<double> levels;
  for (int l = 0; l < count; ++l) levels.insert(levels.end(), {1, 0, 0, 1});
  return levels;
}

TEST(ScanPowers, ExactLevelsAreOffByNothing) {
  const double a[] = {0, -1};
  EXPECT_EQ(scan_power_error(a, 2, identity_levels(8).data(), 8), 0.0);
}

TEST(ScanPowers, TheWorstRowSumOfAnyLevelCounts) {
  const double a[] = {0, -1};
  std::vector<double> levels = identity_levels(8);
  levels[5 * 4 + 2] += 1e-3;  // level 5, row 1
  levels[5 * 4 + 3] -= 2e-3;
  levels[1 * 4 + 0] += 2.5e-3;  // level 1, row 0
  EXPECT_NEAR(scan_power_error(a, 2, levels.data(), 8), 3e-3, 1e-15);
  // Levels a narrower scan never reads are not counted.
  EXPECT_NEAR(scan_power_error(a, 2, levels.data(), 5), 2.5e-3, 1e-15);
}

TEST(ScanPowers, PowersOfADecayingFilterInDoubleDouble) {
  // A = 0.9: level 0 is 0.9^16, which libm's pow gets to within an ulp;
  // the double-double reference resolves a distance that small, and sees
  // a level one ulp further off.
  const double a[] = {-0.9};
  const double level = std::pow(0.9, 16), ulp = std::nextafter(level, 1.0) - level;
  EXPECT_LE(scan_power_error(a, 1, &level, 1), ulp);
  const double off = level + 3 * ulp;
  EXPECT_GE(scan_power_error(a, 1, &off, 1), 1.9 * ulp);
}

TEST(ScanPowers, NonFiniteLevelsAreInfinitelyFar) {
  const double a[] = {0, -1};
  std::vector<double> levels = identity_levels(2);
  levels[6] = std::numeric_limits<double>::infinity();
  EXPECT_EQ(scan_power_error(a, 2, levels.data(), 2), std::numeric_limits<double>::infinity());
  levels[6] = std::numeric_limits<double>::quiet_NaN();
  EXPECT_EQ(scan_power_error(a, 2, levels.data(), 2), std::numeric_limits<double>::infinity());
}

}  // namespace
}  // namespace ondrel
