// The register forms of the real FFT, generated for the geometry the rfft
// route chooses and run on the CPU runtime against a direct real DFT in
// double. Random imaginary parts at bins 0 and M of the inverse input check
// that they are ignored; a poisoned row past the output checks that the
// skipped second row of an odd pair stores nothing.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <numbers>
#include <random>
#include <string>
#include <vector>

#include "cuda_like/ops/fft_launch.hpp"
#include "cuda_like/ops/rfft.hpp"
#include "math/twiddle_math.hpp"
#include "rocm/context.hpp"

namespace {

struct RealCase {
  int32_t n;
  int prec;  // 0 half data, 1 single, 2 double
  bool inverse;
  int32_t rows;
  bool forced = false;  // the tuned core that puts a single inverse on registers
};

std::string case_name(const RealCase& c) {
  return std::string(c.inverse ? "irfft_" : "rfft_") + std::to_string(c.n) + "_p" + std::to_string(c.prec) + "_r" +
         std::to_string(c.rows) + (c.forced ? "_forced" : "");
}

void PrintTo(const RealCase& c, std::ostream* os) { *os << case_name(c); }

ondrel::FftRoute route_of(const RealCase& c) {
  ondrel::RouteQuery q;
  q.n = c.n;
  q.prec = ondrel::precision_code(c.prec);
  q.inverse = c.inverse;
  if (c.forced) q.tune.core = ondrel::kCoreRegister;
  q.shared_limit = ondrel::device_shared_limit(0);
  return ondrel::rfft_route(q);
}

// The direct transform in double of what the kernel reads: one-sided bins of
// the real rows, or the real rows of one-sided bins with the imaginary parts
// of bin 0 and (even n) bin n / 2 dropped.
std::vector<double> reference(const RealCase& c, const std::vector<double>& in) {
  const int64_t n = c.n, nb = n / 2 + 1;
  const auto root = [n](int64_t j, int64_t k) { return 2.0 * std::numbers::pi * static_cast<double>(j * k % n) / n; };
  std::vector<double> ref;
  for (int64_t row = 0; row < c.rows; ++row)
    if (!c.inverse) {
      for (int64_t k = 0; k < nb; ++k) {
        std::complex<double> acc = 0;
        for (int64_t j = 0; j < n; ++j) acc += in[row * n + j] * std::polar(1.0, -root(j, k));
        ref.push_back(acc.real());
        ref.push_back(acc.imag());
      }
    } else {
      const double* bins = &in[row * 2 * nb];
      for (int64_t j = 0; j < n; ++j) {
        double acc = bins[0];
        if (n % 2 == 0) acc += (j % 2 ? -1.0 : 1.0) * bins[2 * (n / 2)];
        for (int64_t k = 1; k <= (n - 1) / 2; ++k)
          acc += 2.0 * (bins[2 * k] * std::cos(root(j, k)) - bins[2 * k + 1] * std::sin(root(j, k)));
        ref.push_back(acc / n);
      }
    }
  return ref;
}

// Relative L2 error of the kernel's output; infinite where an element was not
// written or something was written past the last row.
template <class S>
double run_error(const RealCase& c, const ondrel::FftRoute& route, uint32_t seed) {
  const int32_t nb = c.n / 2 + 1;
  const int64_t in_row = c.inverse ? 2 * nb : c.n, out_row = c.inverse ? c.n : 2 * nb;
  std::mt19937 gen(seed);
  std::normal_distribution<double> normal;
  std::vector<S> in(in_row * c.rows), out(out_row * (c.rows + 1), S(NAN));
  std::vector<double> exact(in.size());
  for (size_t i = 0; i < in.size(); ++i) exact[i] = static_cast<double>(in[i] = static_cast<S>(normal(gen)));
  // Double kernels read the circle of the real length; the others read nothing.
  const std::vector<std::complex<double>> tw = c.prec == 2 ? ondrel::twiddle_table(c.n, 0)
                                                           : std::vector<std::complex<double>>(1);

  ondrel::select_device(0);
  ondrel::LaunchRecord rec = ondrel::compiled(ondrel::rfft_plan(route, c.inverse), 0);
  rec.table = tw.data();
  ondrel::launch_rows(rec, c.inverse ? "X" : "x", in.data(), out.data(), c.rows, nullptr);

  const std::vector<double> ref = reference(c, exact);
  double num = 0, den = 0;
  for (size_t i = 0; i < ref.size(); ++i) {
    const double got = static_cast<double>(out[i]);
    if (!std::isfinite(got)) return INFINITY;
    num += (got - ref[i]) * (got - ref[i]);
    den += ref[i] * ref[i];
  }
  for (size_t i = ref.size(); i < out.size(); ++i)
    if (!std::isnan(static_cast<double>(out[i]))) return INFINITY;
  return std::sqrt(num / den);
}

class RealRegisterKernels : public testing::TestWithParam<RealCase> {};

TEST_P(RealRegisterKernels, MatchTheDirectTransform) {
  const RealCase& c = GetParam();
  ondrel::select_device(0);
  const ondrel::FftRoute route = route_of(c);
  ASSERT_EQ(route.core, ondrel::FftCore::real_registers) << case_name(c);
  const uint32_t seed = std::random_device{}();
  const double err = c.prec == 0   ? run_error<_Float16>(c, route, seed)
                     : c.prec == 1 ? run_error<float>(c, route, seed)
                                   : run_error<double>(c, route, seed);
  EXPECT_LE(err, c.prec == 0 ? 3e-3 : c.prec == 1 ? 1e-5 : 1e-12) << route.kernel << " seed " << seed;
}

// Even n on power-of-two and mixed-radix M (48, 500, 625 have their own
// ranges), one and several rows a block; odd n in pairs with an odd row
// count, a Rader radix (17) and two-stage lists (45, 225, 27).
INSTANTIATE_TEST_SUITE_P(
    Routes, RealRegisterKernels,
    testing::Values(RealCase{64, 1, false, 3}, RealCase{4096, 1, false, 3}, RealCase{96, 1, false, 3},
                    RealCase{1000, 1, false, 2}, RealCase{1250, 1, false, 3}, RealCase{32, 2, false, 3},
                    RealCase{4096, 2, false, 2}, RealCase{96, 2, false, 3}, RealCase{1250, 2, false, 3},
                    RealCase{512, 2, true, 3}, RealCase{1250, 2, true, 2}, RealCase{96, 2, true, 3},
                    RealCase{256, 1, true, 3, true}, RealCase{1000, 1, true, 3, true}, RealCase{256, 0, false, 3},
                    RealCase{1000, 0, false, 3}, RealCase{512, 0, true, 3, true}, RealCase{9, 1, false, 3},
                    RealCase{45, 2, false, 5}, RealCase{17, 1, false, 3}, RealCase{25, 1, true, 3},
                    RealCase{15, 2, true, 5}, RealCase{225, 1, true, 3}, RealCase{17, 2, true, 3},
                    RealCase{27, 0, false, 3}, RealCase{21, 0, true, 3}),
    [](const testing::TestParamInfo<RealCase>& info) { return case_name(info.param); });

}  // namespace
