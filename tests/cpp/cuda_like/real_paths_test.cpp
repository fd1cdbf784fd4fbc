// The real-input four-step and Bluestein paths on the CPU runtime, whose
// device addresses are host addresses, against the host FFT in double.
#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstdint>
#include <limits>
#include <random>
#include <string>
#include <vector>

#include "cuda_like/ops/bluestein.hpp"
#include "cuda_like/ops/four_step_real.hpp"
#include "host_fft/host_fft.hpp"
#include "rocm/context.hpp"

namespace {

using namespace ondrel;
using cd = std::complex<double>;

// Storage of one real: float, double, or half bits.
enum class Data { half, single, dbl };

struct Case {
  const char* path;  // "four_step" or "bluestein"
  int32_t n;
  Data data;
  int64_t rows;
};

double tolerance(Data d) { return d == Data::dbl ? 1e-11 : d == Data::single ? 2e-5 : 5e-3; }
size_t real_bytes(Data d) { return d == Data::dbl ? 8 : d == Data::single ? 4 : 2; }

double load(const std::vector<unsigned char>& buf, Data d, size_t i) {
  if (d == Data::dbl) return reinterpret_cast<const double*>(buf.data())[i];
  if (d == Data::single) return reinterpret_cast<const float*>(buf.data())[i];
  return static_cast<double>(reinterpret_cast<const _Float16*>(buf.data())[i]);
}

void store(std::vector<unsigned char>& buf, Data d, size_t i, double v) {
  if (d == Data::dbl) reinterpret_cast<double*>(buf.data())[i] = v;
  else if (d == Data::single) reinterpret_cast<float*>(buf.data())[i] = static_cast<float>(v);
  else reinterpret_cast<_Float16*>(buf.data())[i] = static_cast<_Float16>(v);
}

// `count` reals of storage d, poisoned with NaN, and one guard row of `row`
// reals behind them that must stay poisoned.
std::vector<unsigned char> poisoned(Data d, size_t count, size_t row) {
  std::vector<unsigned char> buf((count + row) * real_bytes(d));
  for (size_t i = 0; i < count + row; ++i) store(buf, d, i, std::numeric_limits<double>::quiet_NaN());
  return buf;
}

void run(const Case& c, const std::vector<unsigned char>& in, std::vector<unsigned char>& out, bool inverse) {
  const bool half = c.data == Data::half;
  const int32_t word = half ? 0 : 1;
  if (std::string(c.path) == "four_step") {
    if (c.data == Data::dbl) four_step_real<double>(in.data(), out.data(), c.rows, c.n, inverse, 0, nullptr, word);
    else four_step_real<float>(in.data(), out.data(), c.rows, c.n, inverse, 0, nullptr, word);
  } else {
    if (c.data == Data::dbl) bluestein_real<double>(in.data(), out.data(), c.rows, c.n, inverse, half, 0, nullptr);
    else bluestein_real<float>(in.data(), out.data(), c.rows, c.n, inverse, half, 0, nullptr);
  }
  ONDREL_HIP_CHECK(hip_dl::api().DeviceSynchronize());
}

class RealPaths : public testing::TestWithParam<Case> {
 protected:
  static void SetUpTestSuite() { select_device(0); }
};

// Forward against the host FFT of the same (rounded) reals, then the
// inverse of the reference spectrum back to the reals. The inverse input has
// garbage in the imaginary part of bin 0, which the inverse ignores.
TEST_P(RealPaths, MatchesTheHostFft) {
  const Case c = GetParam();
  const unsigned seed = std::random_device{}();
  std::mt19937 gen(seed);
  std::normal_distribution<double> normal;
  const int32_t n = c.n, bins = n / 2 + 1;
  const size_t reals = static_cast<size_t>(c.rows) * n, spec = static_cast<size_t>(c.rows) * bins * 2;

  std::vector<unsigned char> x(reals * real_bytes(c.data));
  for (size_t i = 0; i < reals; ++i) store(x, c.data, i, normal(gen));
  std::vector<double> wide(2 * reals, 0.0);
  for (size_t i = 0; i < reals; ++i) wide[2 * i] = load(x, c.data, i);
  host::host_fft<double>(wide.data(), wide.data(), c.rows, n, false);

  std::vector<unsigned char> y = poisoned(c.data, spec, 2 * bins);
  run(c, x, y, false);
  double err = 0, ref = 0;
  for (int64_t r = 0; r < c.rows; ++r)
    for (int32_t k = 0; k < 2 * bins; ++k) {
      const double got = load(y, c.data, r * 2 * bins + k), want = wide[2 * (r * n) + k];
      ASSERT_TRUE(std::isfinite(got)) << "unwritten or non-finite at row " << r << " value " << k;
      err += (got - want) * (got - want);
      ref += want * want;
    }
  for (int32_t k = 0; k < 2 * bins; ++k) EXPECT_TRUE(std::isnan(load(y, c.data, spec + k))) << "past the last row";
  EXPECT_LE(std::sqrt(err / ref), tolerance(c.data)) << c.path << " n " << n << " forward, seed " << seed;

  std::vector<unsigned char> X(spec * real_bytes(c.data));
  for (int64_t r = 0; r < c.rows; ++r)
    for (int32_t k = 0; k < 2 * bins; ++k) store(X, c.data, r * 2 * bins + k, wide[2 * (r * n) + k]);
  if (std::string(c.path) == "bluestein")
    for (int64_t r = 0; r < c.rows; ++r) store(X, c.data, r * 2 * bins + 1, 3.0 * n);
  std::vector<unsigned char> back = poisoned(c.data, reals, n);
  run(c, X, back, true);
  err = ref = 0;
  for (size_t i = 0; i < reals; ++i) {
    const double got = load(back, c.data, i), want = load(x, c.data, i);
    ASSERT_TRUE(std::isfinite(got)) << "unwritten or non-finite at " << i;
    err += (got - want) * (got - want);
    ref += want * want;
  }
  for (int32_t k = 0; k < n; ++k) EXPECT_TRUE(std::isnan(load(back, c.data, reals + k))) << "past the last row";
  EXPECT_LE(std::sqrt(err / ref), tolerance(c.data)) << c.path << " n " << n << " inverse, seed " << seed;
}

// Four-step: nh = 16384 splits 128 x 128 with paired columns; nh = 3^9 has
// an odd n2 and takes the complex transform and the split. Bluestein: the
// float pair form with an odd row count (the last row pairs with itself)
// and an even n whose bin n / 2 carries through; the staged form for
// double, half data and a row too long for the pair kernel.
INSTANTIATE_TEST_SUITE_P(
    Lengths, RealPaths,
    testing::Values(Case{"four_step", 32768, Data::single, 2}, Case{"four_step", 32768, Data::dbl, 1},
                    Case{"four_step", 32768, Data::half, 1}, Case{"four_step", 2 * 19683, Data::single, 2},
                    Case{"four_step", 2 * 19683, Data::dbl, 1}, Case{"four_step", 2 * 19683, Data::half, 1},
                    Case{"bluestein", 41, Data::single, 3}, Case{"bluestein", 82, Data::single, 4},
                    Case{"bluestein", 7919, Data::single, 3}, Case{"bluestein", 41, Data::dbl, 3},
                    Case{"bluestein", 82, Data::dbl, 2}, Case{"bluestein", 1009, Data::half, 2}),
    [](const testing::TestParamInfo<Case>& info) {
      const Case& c = info.param;
      const char* data = c.data == Data::dbl ? "double" : c.data == Data::single ? "float" : "half";
      return std::string(c.path) + "_" + std::to_string(c.n) + "_" + data;
    });

}  // namespace
