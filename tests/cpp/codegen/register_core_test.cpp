#include <gtest/gtest.h>

#include <stdexcept>
#include <string>
#include <vector>

#include "codegen/backend.hpp"
#include "codegen/register_core.hpp"
#include "codegen/tile_cores.hpp"

using namespace ondrel::codegen;

namespace {

size_t count(const std::string& text, const std::string& what) {
  size_t k = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++k;
  return k;
}

// Every store guard stands behind the last barrier, so no thread of a
// surplus row can skip one.
void expect_guards_after_barriers(const std::string& text, const std::string& guard) {
  EXPECT_NE(text.find(guard), std::string::npos);
  EXPECT_GT(text.find(guard), text.rfind("__syncthreads();"));
}

}  // namespace

// 512 at ept 16: stages 16, 16, 2, 32 threads, two exchanges.
TEST(RegisterKernel, ComponentExchangeHasFourBarriersPerExchange) {
  const std::string text = register_kernel(512, {16, 16, 2}, 1, hip_backend(), false, 1, 1, 16, true, false, false);
  EXPECT_EQ(count(text, "__syncthreads();"), 8u);
  EXPECT_NE(text.find("TG float* v = shbuf + (threadIdx.x / 32) * 576;"), std::string::npos);
  EXPECT_NE(text.find("int wb = tid * 17;"), std::string::npos);
  expect_guards_after_barriers(text, "if (batch < nrows)");
}

TEST(RegisterKernel, ComplexExchangeStoresThroughTheRow) {
  const std::string text = register_kernel(512, {16, 16, 2}, 1, hip_backend(), true, 2, 1, 16, false, false, false);
  EXPECT_EQ(count(text, "__syncthreads();"), 5u);
  EXPECT_NE(text.find("TG cplx* v = shbuf + (threadIdx.x / 32) * 545;"), std::string::npos);
  EXPECT_NE(text.find("#define INVSC ((float)(1.0 / 512))"), std::string::npos);
  expect_guards_after_barriers(text, "if (batch < nrows)");
}

TEST(RegisterKernel, PackedPairsUseTheHalf2PreludeAndGuardTheOddRow) {
  const std::string text = register_kernel(4096, {32, 16, 8}, 0, hip_backend(), false, 1, 0, 32, true, true, false);
  EXPECT_NE(text.find("struct cplx { __half2 x, y; };"), std::string::npos);
  EXPECT_NE(text.find("extern __shared__ __half2 shbuf[];"), std::string::npos);
  EXPECT_NE(text.find("I64 r1c = row1 < nrows - 1 ? row1 : nrows - 1;"), std::string::npos);
  expect_guards_after_barriers(text, "if (row1 < nrows)");
}

TEST(RegisterKernel, HalfExchangeOnlyForHalfDataInWiderArithmetic) {
  const auto shared = [](int io, bool exchange) {
    const std::string t = register_kernel(1024, {16, 16, 4}, 1, hip_backend(), false, 1, io, 16, exchange, false, true);
    return t.substr(t.find("extern __shared__"), 40);
  };
  EXPECT_EQ(shared(0, true).rfind("extern __shared__ __half shbuf[];", 0), 0u);
  EXPECT_EQ(shared(1, true).rfind("extern __shared__ float shbuf[];", 0), 0u);
  EXPECT_EQ(shared(0, false).rfind("extern __shared__ cplx shbuf[];", 0), 0u);
}

TEST(RegisterKernel, RefusesRadicesThatDoNotDivideEpt) {
  EXPECT_THROW(register_kernel(96, {12, 8}, 1, hip_backend(), false, 1, 1, 12, true, false, false), std::logic_error);
  EXPECT_THROW(register_kernel(96, {12, 4}, 1, hip_backend(), false, 1, 1, 12, true, false, false), std::logic_error);
}

TEST(TileKernels, OneTransposeForASquareTwoForACube) {
  const std::string tile = tile_kernel(64, 8, 1, hip_backend(), false, 4, 1);
  EXPECT_EQ(count(tile, "__syncthreads();"), 1u);
  EXPECT_NE(tile.find("__launch_bounds__(32)"), std::string::npos);
  EXPECT_NE(tile.find("TG cplx* sh = shbuf + (threadIdx.x / 8) * 72;"), std::string::npos);
  expect_guards_after_barriers(tile, "if (batch >= nrows) return;");
  const std::string cube = cube_kernel(343, 7, 2, hip_backend(), true, 6, 2);
  EXPECT_EQ(count(cube, "__syncthreads();"), 3u);
  EXPECT_NE(cube.find("__launch_bounds__(294)"), std::string::npos);
  expect_guards_after_barriers(cube, "if (batch >= nrows) return;");
}
