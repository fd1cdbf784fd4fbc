#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "codegen/backend.hpp"
#include "codegen/fft_kernel.hpp"

using ondrel::codegen::fft_kernel;
using ondrel::codegen::hip_backend;

namespace {

size_t count(const std::string& text, const std::string& what) {
  size_t k = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) ++k;
  return k;
}

struct BarrierCase {
  int32_t n;
  std::vector<int32_t> schedule;
  // One after the load and two a stage; a Rader stage has one or two around
  // its gather, two per batched stage, one after the product and one at the end.
  size_t single, twice;
};

class FftBarriers : public testing::TestWithParam<BarrierCase> {};

TEST_P(FftBarriers, OneAfterTheLoadAndTwoPerStage) {
  const BarrierCase& c = GetParam();
  for (int prec : {1, 2}) {
    const std::string text = fft_kernel(c.n, c.schedule, prec, 16, hip_backend(), false, 4, prec, false);
    EXPECT_EQ(count(text, "__syncthreads();"), prec == 2 ? c.twice : c.single) << c.n << " prec " << prec;
    // Surplus rows leave only behind the last barrier.
    EXPECT_GT(text.find("if (batch >= nrows) return;"), text.rfind("__syncthreads();"));
  }
}

INSTANTIATE_TEST_SUITE_P(Schedules, FftBarriers,
                         testing::Values(BarrierCase{8, {8}, 3, 3}, BarrierCase{1024, {16, 8, 8}, 7, 7},
                                         BarrierCase{720, {16, 9, 5}, 7, 7}, BarrierCase{17, {17}, 8, 9},
                                         BarrierCase{102, {3, 2, 17}, 12, 13}));

// Every store form of an inverse kernel scales by 1/n: the wide half and
// single forms as much as the element-wise one.
TEST(FftKernel, InverseStoresScaleInEveryForm) {
  struct Form {
    int32_t n;
    std::vector<int32_t> schedule;
    int compute, io;
    bool pad;
  };
  for (const Form& f : {Form{12, {4, 3}, 1, 0, false}, Form{6, {3, 2}, 1, 0, false}, Form{12, {4, 3}, 1, 1, false},
                        Form{12, {4, 3}, 1, 1, true}, Form{9, {9}, 1, 1, false}, Form{12, {4, 3}, 2, 2, false}}) {
    const std::string text = fft_kernel(f.n, f.schedule, f.compute, 16, hip_backend(), true, 1, f.io, f.pad);
    const std::string store = text.substr(text.find("if (batch >= nrows) return;"));
    EXPECT_NE(store.find("* INVSC"), std::string::npos) << f.n << " io " << f.io << " pad " << f.pad;
  }
}

}  // namespace
