#include <gtest/gtest.h>

#include <cstdint>

#include "rocm/best_fit.hpp"

using ondrel::FreeBlocks;
using ondrel::take_best_fit;

namespace {

void* tag(uintptr_t v) { return reinterpret_cast<void*>(v); }

TEST(BestFit, NeverMoreThanTwiceTheRequest) {
  FreeBlocks blocks{{1000, tag(1)}};
  EXPECT_EQ(take_best_fit(blocks, 499), nullptr);
  EXPECT_EQ(take_best_fit(blocks, 1001), nullptr);
  EXPECT_EQ(take_best_fit(blocks, 500), tag(1));
  EXPECT_TRUE(blocks.empty());
}

TEST(BestFit, SmallestThatHoldsTheRequestThenFirstFreed) {
  FreeBlocks blocks{{1200, tag(1)}, {1000, tag(2)}, {1000, tag(3)}};
  EXPECT_EQ(take_best_fit(blocks, 900), tag(2));
  EXPECT_EQ(take_best_fit(blocks, 900), tag(3));
  EXPECT_EQ(take_best_fit(blocks, 900), tag(1));
  EXPECT_EQ(take_best_fit(blocks, 900), nullptr);
}

TEST(BestFit, HugeRequestsDoNotOverflowTheBound) {
  FreeBlocks blocks{{SIZE_MAX, tag(1)}};
  EXPECT_EQ(take_best_fit(blocks, SIZE_MAX / 2 + 1), tag(1));
}

}  // namespace
