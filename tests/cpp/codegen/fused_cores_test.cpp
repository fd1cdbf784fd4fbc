// The fused-kernel FFT cores, composed into a complex row FFT and run on the
// CPU runtime against a direct DFT in double.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <numbers>
#include <random>
#include <string>
#include <vector>

#include "codegen/backend.hpp"
#include "codegen/fused_cores.hpp"
#include "rocm/compile.hpp"
#include "rocm/context.hpp"

namespace {

using ondrel::codegen::FusedFft;

struct FusedCase {
  int core;  // 0 ct_passes, 1 warp, 3 EPT16
  FusedFft plan;
  int prec;
};

std::string key(const FusedCase& c) {
  return "fused_fft_" + std::to_string(c.core) + "_" + std::to_string(c.plan.m) + "_" + std::to_string(c.plan.ept) +
         "_" + std::to_string(c.plan.tpf) + "_" + std::to_string(c.prec) + (c.plan.tw_table ? "_t" : "_c");
}

template <class R>
double run_error(const FusedCase& c, uint32_t seed) {
  using C = std::complex<R>;
  const int m = c.plan.m, frames = 3;
  std::mt19937 gen(seed);
  std::normal_distribution<double> normal;
  std::vector<C> x(static_cast<size_t>(m) * frames), out(x.size(), C(NAN, NAN)), tw(std::max(1, m / 2));
  for (C& v : x) v = C(static_cast<R>(normal(gen)), static_cast<R>(normal(gen)));
  for (int k = 0; k < m / 2; ++k) tw[k] = std::polar(1.0, -2.0 * std::numbers::pi * k / m);

  ondrel::select_device(0);
  const std::string text = ondrel::codegen::fused_fft_kernel(c.plan, c.core, c.prec, ondrel::codegen::hip_backend());
  const auto fn = ondrel::kernel_function(key(c), 0, [&] { return text; }, "ondrel_fused_fft");
  const void* xp = x.data();
  void* op = out.data();
  const void* tp = tw.data();
  int nframes = frames;
  void* args[] = {&xp, &op, &tp, &nframes};
  const auto twn = c.plan.tw_table ? m / 2 : 0;
  const auto shared = static_cast<unsigned>((twn + m + m / 16 + 1) * sizeof(C));
  ondrel::launch_kernel(fn, frames, 1, c.plan.tpf, shared, args, key(c), nullptr);

  double num = 0, den = 0;
  for (int f = 0; f < frames; ++f)
    for (int k = 0; k < m; ++k) {
      std::complex<double> ref = 0;
      for (int j = 0; j < m; ++j)
        ref += std::complex<double>(x[f * m + j]) * std::polar(1.0, -2.0 * std::numbers::pi * (double(j) * k) / m);
      const std::complex<double> got(out[f * m + k]);
      if (!std::isfinite(got.real()) || !std::isfinite(got.imag())) return INFINITY;
      num += std::norm(got - ref);
      den += std::norm(ref);
    }
  return std::sqrt(num / den);
}

class FusedCores : public testing::TestWithParam<FusedCase> {};

TEST_P(FusedCores, MatchTheDirectTransform) {
  const FusedCase& c = GetParam();
  const uint32_t seed = std::random_device{}();
  const double err = c.prec == 2 ? run_error<double>(c, seed) : run_error<float>(c, seed);
  EXPECT_LE(err, c.prec == 2 ? 1e-12 : 1e-5) << key(c) << " seed " << seed;
}

// The warp core on its own shape and on shapes that fall back on the
// passes; EPT16 on the stage lists of 256 (16, 16) and 1024 (16, 8, 8); the
// passes with a remainder pass, with and without the staged table.
INSTANTIATE_TEST_SUITE_P(
    Cores, FusedCores,
    testing::Values(FusedCase{1, {256, 8, 32, false}, 1}, FusedCase{1, {64, 2, 32, false}, 1},
                    FusedCase{1, {256, 8, 32, true}, 2}, FusedCase{1, {128, 8, 16, false}, 1},
                    FusedCase{3, {256, 16, 16, false}, 1}, FusedCase{3, {1024, 16, 64, true}, 2},
                    FusedCase{3, {2048, 16, 128, false}, 1}, FusedCase{0, {512, 8, 64, false}, 1},
                    FusedCase{0, {512, 8, 64, true}, 2}, FusedCase{0, {32, 4, 16, false}, 2}),
    [](const testing::TestParamInfo<FusedCase>& info) { return key(info.param); });

}  // namespace
