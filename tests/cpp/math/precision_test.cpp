#include "math/precision.hpp"

#include <gtest/gtest.h>

namespace ondrel {
namespace {

struct Decoded {
  int32_t prec;
  int compute, storage;
  bool packed;
  int32_t width;
};

// Every consumer (routes, keys, generators, tuning keys) reads these, so a
// binding's code must mean the same thing everywhere.
TEST(Precision, BindingCodesDecodeOnce) {
  const Decoded table[] = {{0, 1, 0, false, 16}, {1, 1, 1, false, 32}, {2, 2, 2, false, 64},
                           {3, 1, 0, true, 8},   {7, 1, 1, false, 32}, {-1, 1, 1, false, 32}};
  for (const Decoded& d : table) {
    const Precision p = precision_code(d.prec);
    EXPECT_EQ(p.compute, d.compute) << d.prec;
    EXPECT_EQ(p.storage, d.storage) << d.prec;
    EXPECT_EQ(p.packed, d.packed) << d.prec;
    EXPECT_EQ(p.width_code(), d.width) << d.prec;
  }
  EXPECT_EQ(full_width(true).width_code(), 64);
  EXPECT_EQ(full_width(false).width_code(), 32);
}

TEST(Precision, InstantiationFollowsTheRecord) {
  const auto bytes = [](const Precision& p) { return with_real_type(p, []<class T>() { return sizeof(T); }); };
  EXPECT_EQ(bytes(precision_code(2)), 8u);
  EXPECT_EQ(bytes(precision_code(0)), 4u);
  EXPECT_EQ(bytes(precision_code(3)), 4u);
}

}  // namespace
}  // namespace ondrel
