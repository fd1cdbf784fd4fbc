#include <gtest/gtest.h>

#include "codegen/backend.hpp"

using ondrel::codegen::hip_backend;

namespace {

TEST(HipBackend, TypesFollowPrecisionWithSingleAsFallback) {
  const auto& b = hip_backend();
  EXPECT_EQ(b.real_type(0), "__half");
  EXPECT_EQ(b.real_type(2), "double");
  EXPECT_EQ(b.pair_type(0), "__half2");
  EXPECT_EQ(b.pair_type(2), "double2");
  for (int prec : {1, 3, -1, 7}) {
    EXPECT_EQ(b.real_type(prec), "float") << prec;
    EXPECT_EQ(b.pair_type(prec), "float2") << prec;
  }
}

// The sine target is named first although the caller passes the cosine first.
TEST(HipBackend, SincosNamesSineFirstAndUsesFastFormBelowDouble) {
  const auto& b = hip_backend();
  EXPECT_EQ(b.sincos(2, "a", "c", "s"), "sincos(a, &s, &c);");
  EXPECT_EQ(b.sincos(1, "a", "c", "s"), "__sincosf(a, &s, &c);");
  EXPECT_EQ(b.sincos(0, "a", "c", "s"), "__sincosf(a, &s, &c);");
  EXPECT_EQ(b.cos_call(2, "x"), "cos(x)");
  EXPECT_EQ(b.cos_call(0, "x"), "__cosf(x)");
}

TEST(HipBackend, HeadPiecesKeepTheirBlanks) {
  const auto& b = hip_backend();
  EXPECT_EQ(b.kernel_head(), "extern \"C\" __global__ void");
  EXPECT_EQ(b.launch_bounds(256, -1), " __launch_bounds__(256)");
  EXPECT_EQ(b.inline_head(), "__device__ __forceinline__ ");
  EXPECT_EQ(b.const_pointer("cplx"), "const cplx* __restrict__");
  EXPECT_EQ(b.pointer_param(true, "cplx", "tw", 2), "const cplx* __restrict__ tw");
  EXPECT_EQ(b.pointer_param(false, "float", "out", 1), "float* __restrict__ out");
  EXPECT_EQ(b.value_param("int", "nrows", 3), "int nrows");
  EXPECT_EQ(b.shared_array("cplx", "sh"), "extern __shared__ cplx sh[];");
  EXPECT_EQ(b.shared_declaration("cplx", "sh"), b.shared_array("cplx", "sh"));
}

TEST(HipBackend, ConversionsCastThroughTheTargetType) {
  const auto& b = hip_backend();
  EXPECT_EQ(b.make_pair(0, "a", "b"), "__floats2half2_rn((float)(a),(float)(b))");
  EXPECT_EQ(b.make_pair(2, "a", "b"), "make_double2((double)(a),(double)(b))");
  EXPECT_EQ(b.make_pair(1, "a", "b"), "make_float2((float)(a),(float)(b))");
  EXPECT_EQ(b.convert(0, "x"), "__float2half_rn((float)(x))");
  EXPECT_EQ(b.convert(2, "x"), "(double)(x)");
  EXPECT_EQ(b.convert(5, "x"), "(float)(x)");
}

TEST(HipBackend, IntrinsicsAndWarp) {
  const auto& b = hip_backend();
  EXPECT_EQ(b.shuffle_xor("v", "16"), "__shfl_xor(v, 16, 32)");
  EXPECT_EQ(b.warp_width(), 32);
  EXPECT_EQ(b.atomic_add("y[i]", "v"), "atomicAdd(&(y[i]), v);");
  EXPECT_EQ(b.atomic_add_wide("y[i]", "v"), b.atomic_add("y[i]", "v"));
  EXPECT_EQ(b.bit_reverse("x"), "__brev(x)");
  EXPECT_EQ(b.pow_call("x", "y"), "powf(x, y)");
  EXPECT_EQ(b.log10_call("x"), "log10f(x)");
  EXPECT_TRUE(b.has_wide_global_access());
  EXPECT_EQ(b.barrier(), "__syncthreads();");
}

}  // namespace
