#include <gtest/gtest.h>

#include <vector>

#include "host_fft/host_factors.hpp"
#include "math/fft_schedule.hpp"

namespace {

using namespace ondrel::host;
using V = std::vector<int32_t>;

struct RouteCase {
  int32_t n;
  HostRoute route;
};

class Route : public ::testing::TestWithParam<RouteCase> {};

TEST_P(Route, DriverOfTheLength) { EXPECT_EQ(host_route(GetParam().n), GetParam().route); }

INSTANTIATE_TEST_SUITE_P(Worked, Route,
                         ::testing::Values(RouteCase{16, HostRoute::mixed}, RouteCase{12, HostRoute::plane},
                                           RouteCase{15, HostRoute::plane}, RouteCase{1024, HostRoute::mixed},
                                           RouteCase{180, HostRoute::mixed}, RouteCase{225, HostRoute::plane},
                                           RouteCase{675, HostRoute::mixed}, RouteCase{34, HostRoute::bluestein},
                                           RouteCase{26, HostRoute::mixed}, RouteCase{1, HostRoute::plane},
                                           RouteCase{17, HostRoute::bluestein}, RouteCase{511, HostRoute::bluestein},
                                           RouteCase{1000, HostRoute::mixed}));

TEST(HostFactors, WorkedExamples) {
  EXPECT_EQ(host_factors(16), (V{4, 4}));
  EXPECT_EQ(host_factors(1024), (V{4, 4, 4, 4, 4}));
  EXPECT_EQ(host_factors(180), (V{4, 3, 3, 5}));
  EXPECT_EQ(host_factors(675), (V{5, 5, 3, 3, 3}));
  EXPECT_EQ(host_factors(512), (V{8, 4, 4, 4}));
  EXPECT_EQ(host_factors(128), (V{8, 4, 4}));
  EXPECT_EQ(host_factors(32), (V{8, 4}));
  EXPECT_EQ(host_factors(26), (V{13, 2}));      // the larger prime first, the lone 2 last
  EXPECT_EQ(host_factors(18), (V{3, 3, 2}));    // a square with no larger prime goes first
  EXPECT_EQ(host_factors(2 * 9 * 11), (V{11, 3, 3, 2}));  // 3 x 3 below 11
  EXPECT_EQ(host_factors(98), (V{7, 7, 2}));
  EXPECT_EQ(host_factors(12), (V{4, 3}));
  EXPECT_THROW(host_factors(34), std::invalid_argument);
}

TEST(HostFactors, ProductIsTheLengthForEverySmoothLength) {
  for (int32_t n = 1; n <= 5000; ++n) {
    if (ondrel::largest_prime_factor(n) > 13) continue;
    int64_t product = 1;
    for (int32_t r : host_factors(n)) product *= r;
    ASSERT_EQ(product, n) << n;
  }
}

TEST(HostPasses, MergesOfTheTable) {
  using P = std::vector<HostPass>;
  EXPECT_EQ(host_passes(1024, host_factors(1024)), (P{{4, 1, 1, 0}, {4, 4, 4, 1}, {4, 4, 64, 3}}));
  EXPECT_EQ(host_passes(180, host_factors(180)), (P{{4, 1, 1, 0}, {3, 3, 4, 1}, {5, 1, 36, 3}}));
  EXPECT_EQ(host_passes(675, host_factors(675)), (P{{5, 5, 1, 0}, {3, 3, 25, 2}, {3, 1, 225, 4}}));
  EXPECT_EQ(host_passes(16, host_factors(16)), (P{{4, 4, 1, 0}}));
  EXPECT_EQ(host_passes(256, host_factors(256)), (P{{4, 4, 1, 0}, {4, 4, 16, 2}}));
  EXPECT_EQ(host_passes(512, host_factors(512)), (P{{8, 4, 1, 0}, {4, 4, 32, 2}}));
  EXPECT_EQ(host_passes(32, host_factors(32)), (P{{8, 1, 1, 0}, {4, 1, 8, 1}}));
  EXPECT_EQ(host_passes(64, host_factors(64)), (P{{4, 1, 1, 0}, {4, 4, 4, 1}}));
  EXPECT_EQ(host_passes(128, host_factors(128)), (P{{8, 1, 1, 0}, {4, 4, 8, 1}}));
  EXPECT_EQ(host_passes(98, host_factors(98)), (P{{7, 7, 1, 0}, {2, 1, 49, 2}}));
}

TEST(PlaneRadices, SixteenFourTwoThenSquaresThenPrimes) {
  EXPECT_EQ(plane_radices(12), (V{4, 3}));
  EXPECT_EQ(plane_radices(225), (V{9, 25}));
  EXPECT_EQ(plane_radices(243), (V{9, 9, 3}));
  EXPECT_EQ(plane_radices(8), (V{4, 2}));
  EXPECT_EQ(plane_radices(1), V{});
  using P = std::vector<HostPass>;
  EXPECT_EQ(plane_passes(plane_radices(225)), (P{{3, 3, 1, 0}, {5, 5, 9, 2}}));
}

}  // namespace
