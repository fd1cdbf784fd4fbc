#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <thread>
#include <vector>

#include "host_fft/host_fft.hpp"
#include "host_fft/threads.hpp"
#include "reference.hpp"

namespace {

using namespace ondrel::host;
using namespace host_fft_test;

constexpr uint32_t kSeed = 20261123;

// c eps sqrt(log2 n), doubled for Bluestein, whose two transforms of twice
// the length and chirp products add their own rounding.
template <class T>
double bound(int64_t n) {
  const double eps = std::numeric_limits<T>::epsilon();
  const double law = 2.0 * eps * std::sqrt(std::max(1.0, std::log2(static_cast<double>(n))));
  return host_route(static_cast<int32_t>(n)) == HostRoute::bluestein ? 2 * law : law;
}

template <class T>
std::vector<T> cast(const std::vector<double>& x) {
  return std::vector<T>(x.begin(), x.end());
}

// Every length to 512 against the direct DFT, both directions, three rows;
// the output row after the last keeps its canary.
template <class T>
void check_short_lengths(int32_t first, int32_t last) {
  constexpr int64_t rows = 3;
  for (int32_t n = first; n <= last; ++n) {
    const uint32_t seed = kSeed + n;
    const auto x = random_rows(rows, n, seed);
    for (bool inverse : {false, true}) {
      const auto want = direct_dft(x, rows, n, inverse);
      const auto in = cast<T>(x);
      std::vector<T> out(in.size() + 2, T(-7));
      host_fft(in.data(), out.data(), rows, n, inverse);
      ASSERT_EQ(out[in.size()], T(-7)) << "n " << n;
      out.resize(in.size());
      const double err = relative_error(out, want);
      ASSERT_LE(err, bound<T>(n)) << "n " << n << (inverse ? " inverse" : " forward") << " seed " << seed;
    }
  }
}

class ShortLengths : public ::testing::TestWithParam<int32_t> {};

TEST_P(ShortLengths, Double) { check_short_lengths<double>(GetParam(), GetParam() + 127); }
TEST_P(ShortLengths, Float) { check_short_lengths<float>(GetParam(), GetParam() + 127); }

INSTANTIATE_TEST_SUITE_P(Every, ShortLengths, ::testing::Values(1, 129, 257, 385));

// Long lengths: a round trip over the whole row and a few bins of the direct
// DFT, each bin against the row's rms.
template <class T>
void check_long_length(int32_t n) {
  const uint32_t seed = kSeed ^ static_cast<uint32_t>(n);
  SCOPED_TRACE("n " + std::to_string(n) + " seed " + std::to_string(seed));
  const auto x = random_rows(1, n, seed);
  const auto in = cast<T>(x);
  std::vector<T> spec(in.size()), back(in.size());
  host_fft(in.data(), spec.data(), 1, n, false);
  host_fft(spec.data(), back.data(), 1, n, true);
  EXPECT_LE(relative_error(back, x), 2 * bound<T>(n));

  const auto w = root_table(n, -1);
  long double energy = 0;
  for (T v : spec) energy += static_cast<long double>(v) * v;
  const long double rms = std::sqrt(energy / n);
  std::mt19937 gen(seed);
  std::uniform_int_distribution<int64_t> pick(0, n - 1);
  for (int b = 0; b < 6; ++b) {
    const int64_t k = b == 0 ? 0 : b == 1 ? n - 1 : pick(gen);
    long double re = 0, im = 0;
    dft_bin(x.data(), n, k, w, 1.0L, re, im);
    const long double dre = spec[2 * k] - re, dim = spec[2 * k + 1] - im;
    EXPECT_LE(static_cast<double>(std::sqrt(dre * dre + dim * dim) / rms), 4 * bound<T>(n)) << "bin " << k;
  }
}

class LongLengths : public ::testing::TestWithParam<int32_t> {};

TEST_P(LongLengths, Double) { check_long_length<double>(GetParam()); }
TEST_P(LongLengths, Float) { check_long_length<float>(GetParam()); }

INSTANTIATE_TEST_SUITE_P(ByRoute, LongLengths,
                         ::testing::Values(1 << 14, 19683 /* 3^9 */, 100003 /* prime */, 2 * 65537, 1 << 20,
                                           2 * 3 * 5 * 7 * 11 * 13 * 4, 15625 /* 5^6 */, 117649 /* 7^6 */));

// In place, on each driver.
TEST(HostFft, InPlace) {
  for (int32_t n : {12, 16, 34, 180, 225, 1 << 12}) {
    const auto x = random_rows(5, n, kSeed);
    std::vector<double> io = x, out(x.size());
    host_fft(x.data(), out.data(), 5, n, false);
    host_fft(io.data(), io.data(), 5, n, false);
    EXPECT_EQ(io, out) << n;
  }
}

// Callers on several threads meet in the plan caches on lengths not yet
// planned; each gets the result of a lone call.
TEST(HostFft, ConcurrentCallersAgree) {
  const int32_t lengths[] = {4 * 3 * 7 * 11, 35, 2 * 4099, 96 * 9};
  std::vector<std::vector<float>> results(8);
  std::vector<std::thread> callers;
  const auto x = cast<float>(random_rows(1, 2 * 4099, kSeed + 2));
  for (int t = 0; t < 8; ++t)
    callers.emplace_back([&, t] {
      for (int32_t n : lengths) {
        std::vector<float> y(2 * n);
        host_fft(x.data(), y.data(), 1, n, t % 2 == 1);
        results[t].insert(results[t].end(), y.begin(), y.end());
      }
    });
  for (std::thread& c : callers) c.join();
  for (int t = 2; t < 8; ++t) EXPECT_EQ(results[t], results[t % 2]) << "thread " << t;
}

TEST(HostFft, RejectsLengthsBelowOne) {
  double x[2] = {};
  EXPECT_THROW(host_fft(x, x, 1, 0, false), std::invalid_argument);
}

// Many rows on one thread and on four give the same bits, and the right
// transform.
class Rows : public ::testing::TestWithParam<int32_t> {};

TEST_P(Rows, SameResultOnOneAndFourThreads) {
  const int32_t n = GetParam();
  const int64_t rows = n > 100 ? 40 : 333;
  const auto x = random_rows(rows, n, kSeed + 1);
  const auto in = cast<float>(x);
  std::vector<float> one(in.size()), four(in.size());
  const int32_t before = thread_setting();
  set_thread_setting(1);
  host_fft(in.data(), one.data(), rows, n, true);
  set_thread_setting(4);
  host_fft(in.data(), four.data(), rows, n, true);
  set_thread_setting(before);
  EXPECT_EQ(one, four);
  EXPECT_LE(relative_error(four, direct_dft(x, rows, n, true)), bound<float>(n));
}

INSTANTIATE_TEST_SUITE_P(EachDriver, Rows, ::testing::Values(12, 64, 34, 210, 1000));

}  // namespace
