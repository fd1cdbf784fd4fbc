#include <gtest/gtest.h>

#include "codegen/backend.hpp"
#include "codegen/kernel_sig.hpp"

using ondrel::codegen::hip_backend;
using ondrel::codegen::KernelSig;

namespace {

TEST(KernelSig, HeadWithBoundParametersAndSharedArray) {
  KernelSig sig("cfft_256_1_1_f", hip_backend());
  sig.bound_threads = 64;
  sig.add_const_pointer("iot", "x");
  sig.add_pointer("iot", "out");
  sig.add_const_pointer("cplx", "tw");
  sig.add_value("int", "nrows");
  sig.set_shared("cplx", "shbuf");
  EXPECT_EQ(sig.head(),
            "extern \"C\" __global__ void __launch_bounds__(64) cfft_256_1_1_f("
            "const iot* __restrict__ x, iot* __restrict__ out, const cplx* __restrict__ tw, "
            "int nrows) {\n"
            "  extern __shared__ cplx shbuf[];\n");
}

TEST(KernelSig, HeadWithoutBoundOrShared) {
  KernelSig sig("ondrel_melred", hip_backend());
  EXPECT_EQ(sig.head(), "extern \"C\" __global__ void ondrel_melred() {\n");
  sig.add_value("I64", "n");
  EXPECT_EQ(sig.head(), "extern \"C\" __global__ void ondrel_melred(I64 n) {\n");
}

}  // namespace
