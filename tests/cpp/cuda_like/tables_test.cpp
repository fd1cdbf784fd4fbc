#include <gtest/gtest.h>

#include <cmath>
#include <complex>
#include <cstring>
#include <random>
#include <utility>
#include <vector>

#include "cuda_like/tables/mel_table.hpp"
#include "cuda_like/tables/table_cache.hpp"
#include "cuda_like/tables/twiddles.hpp"
#include "cuda_like/tables/windows.hpp"
#include "fake_knobs.hpp"
#include "math/fft_schedule.hpp"
#include "math/hashing.hpp"
#include "rocm/device_pool.hpp"

namespace {

using namespace ondrel;

TEST(TableByName, FirstUploadWinsAndLaterDataIsIgnored) {
  const std::vector<double> a{1, 2, 3}, b{4, 5, 6, 7};
  const int before = fake::malloc_calls();
  void* p = table_by_name("test_first", a);
  EXPECT_EQ(table_by_name("test_first", b), p);
  EXPECT_EQ(table_by_name("test_first", b.data(), 32), p);
  EXPECT_EQ(fake::malloc_calls(), before + 1);
  EXPECT_NE(table_by_name("test_second", a), p);
}

TEST(TableByName, DrainLeavesTablesAlone) {
  const std::vector<float> a{1};
  void* p = table_by_name("test_drain", a);
  const int freed = fake::free_calls();
  device_pool().drain();
  EXPECT_EQ(fake::free_calls(), freed);
  EXPECT_EQ(table_by_name("test_drain", a), p);
}

TEST(TableByHash, BuilderRunsOnceAndFailuresStoreNothing) {
  int runs = 0;
  auto builder = [&] {
    ++runs;
    return table_by_name("test_hash", std::vector<double>{1.0});
  };
  void* p = table_by_hash(991, builder);
  EXPECT_EQ(table_by_hash(991, builder), p);
  EXPECT_EQ(table_by_hash(992, builder), p);  // a second number key finds the same upload
  EXPECT_EQ(runs, 2);
  EXPECT_THROW(table_by_hash(993, []() -> void* { throw std::runtime_error("x"); }), std::runtime_error);
  EXPECT_EQ(table_by_hash(993, builder), p);
}

TEST(TableByName, FailedUploadStoresNothing) {
  fake::fail_malloc(100, 2);
  EXPECT_THROW(table_by_name("test_fail", std::vector<double>{1.0}), std::runtime_error);
  fake::fail_malloc(0, 0);
  EXPECT_NE(table_by_name("test_fail", std::vector<double>{1.0}), nullptr);
}

TEST(TwiddleTable, PlainCircle) {
  const auto t = twiddle_table(8, 0);
  ASSERT_EQ(t.size(), 8u);
  EXPECT_DOUBLE_EQ(t[1].real(), std::cos(M_PI / 4));
  EXPECT_DOUBLE_EQ(t[1].imag(), -std::sin(M_PI / 4));
}

// The Rader entries reproduce a prime-length DFT through Rader's identity:
// out[g^-r] = x0 + conv(a, b)[r] with a[j] = x[g^j], the cyclic convolution
// done as the inverse transform of FFT(a) . bh, bh the table's entries.
TEST(TwiddleTable, RaderEntriesGiveThePrimeDft) {
  for (int32_t p : {17, 19, 23, 29, 31, 37}) {
    const int32_t n = 2 * p, m = p - 1;
    const auto t = twiddle_table(n, p);
    ASSERT_EQ(t.size(), static_cast<size_t>(n + 3 * m));
    const int32_t g = primitive_root(p);
    for (int32_t k = 0; k < m; ++k) {
      EXPECT_NEAR(t[n + k].real(), std::cos(-2 * M_PI * k / m), 1e-15);
      EXPECT_EQ(mod_pow(g, static_cast<int32_t>(t[n + 2 * m + k].real()), p), k + 1);
      EXPECT_EQ(static_cast<int32_t>(t[n + 2 * m + k].imag()), mod_pow(mod_pow(g, p - 2, p), k, p));
    }
    const unsigned seed = 1234u + p;
    std::mt19937 gen(seed);
    std::normal_distribution<double> d;
    std::vector<std::complex<double>> x(p);
    for (auto& v : x) v = {d(gen), d(gen)};
    auto dft = [](const std::vector<std::complex<double>>& v) {
      const size_t len = v.size();
      std::vector<std::complex<double>> out(len);
      for (size_t q = 0; q < len; ++q)
        for (size_t s = 0; s < len; ++s) out[q] += v[s] * std::polar(1.0, -2 * M_PI * double(q * s % len) / len);
      return out;
    };
    std::vector<std::complex<double>> a(m);
    for (int32_t j = 0; j < m; ++j) a[j] = x[mod_pow(g, j, p)];
    auto fa = dft(a);
    for (int32_t q = 0; q < m; ++q) fa[q] = std::conj(fa[q] * t[n + m + q]);
    auto conv = dft(fa);  // conjugated: the inverse transform, unscaled
    const auto want = dft(x);
    for (int32_t r = 0; r < m; ++r) {
      const std::complex<double> got = x[0] + std::conj(conv[r]) / double(m);
      const int32_t gi = static_cast<int32_t>(t[n + 2 * m + r].imag());
      EXPECT_LT(std::abs(got - want[gi]), 1e-12) << "p " << p << " r " << r << " seed " << seed;
    }
  }
}

TEST(TwiddleKinds, LengthsAndKeys) {
  EXPECT_EQ(twiddle_host(TwiddleKind::fft, 34).size(), 34u + 3 * 16);
  const auto s = twiddle_host(TwiddleKind::stft, 16);
  ASSERT_EQ(s.size(), 4u + 8);
  EXPECT_NEAR(s[1].imag(), -std::sin(2 * M_PI / 8), 1e-16);  // circle of n / 2
  EXPECT_NEAR(s[5].imag(), -std::sin(2 * M_PI / 16), 1e-16);  // then circle of n
  EXPECT_EQ(twiddle_host(TwiddleKind::stft, 17).size(), 34u + 3 * 16);
  EXPECT_EQ(twiddle_host(TwiddleKind::istft, 16).size(), 16u);
  EXPECT_EQ(twiddle_host(TwiddleKind::istft, 68).size(), 68u + 3 * 16);
  EXPECT_EQ(twiddle_host(TwiddleKind::adjoint, 10).size(), 20u);
  EXPECT_EQ(twiddle_key('s', 1024, 768, 8), "tws_1024_768_8");
  EXPECT_EQ(window_key(0xabcULL, 512, 4), "win_0000000000000abc_512_4");
  EXPECT_EQ(bluestein_chirp_key(100, true, 8), "blueb_100_1_8");
  EXPECT_EQ(bluestein_filter_key(100, 200, false, 4), "bluef_100_200_0_4");
}

TEST(TwiddleKinds, FloatTablesAreOneZero) {
  const int before = fake::malloc_calls();
  const void* f = twiddle_device<float>(TwiddleKind::fft, 720);
  EXPECT_EQ(twiddle_device<float>(TwiddleKind::fft, 720), f);
  // The text key says one entry of 4-byte reals.
  EXPECT_EQ(table_by_name(twiddle_key('f', 720, 1, 4), nullptr, 0), f);
  EXPECT_EQ(fake::malloc_calls(), before + 1);
  const void* d = twiddle_device<double>(TwiddleKind::fft, 720);
  EXPECT_EQ(table_by_name(twiddle_key('f', 720, 720, 8), nullptr, 0), d);
}

TEST(ContentHash, EveryByteCounts) {
  std::vector<double> big(4096 + 3, 1.0);
  const size_t bytes = big.size() * sizeof(double);
  const uint64_t h = content_hash(big.data(), bytes);
  // Each position past the first 4 KiB in turn, the odd tail included.
  for (size_t i : {size_t{512}, size_t{1001}, size_t{1002}, size_t{4097}, big.size() - 1}) {
    big[i] = 1.0 + 1e-15;
    EXPECT_NE(content_hash(big.data(), bytes), h) << i;
    big[i] = 1.0;
  }
  EXPECT_EQ(content_hash(big.data(), bytes), h);
  // Two words exchanged between lanes are a different table.
  big[600] = 2.0;
  const uint64_t a = content_hash(big.data(), bytes);
  std::swap(big[600], big[601]);
  EXPECT_NE(content_hash(big.data(), bytes), a);
  std::vector<double> small{1.0, 2.0};
  EXPECT_EQ(content_hash(small.data(), 16), combine(fnv1a(small.data(), 16), 16));
}

TEST(MelTable, SpansAndTheBandsOverEachBin) {
  // Band 0 empty; band 1 with an interior zero; bin 3 under bands 1, 2 and 3.
  const std::vector<double> rows{0, 0, 0, 0, 0,  //
                                 0, 1, 0, 2, 0,  //
                                 0, 0, 0, 3, 4,  //
                                 0, 0, 0, 5, 0};
  const MelTable t = build_mel_table(filter_bank(rows.data(), false, false, 4, 5));
  EXPECT_EQ(t.lo, (std::vector<int32_t>{0, 1, 3, 3}));
  EXPECT_EQ(t.off, (std::vector<int32_t>{0, 0, 3, 5, 6}));
  EXPECT_EQ(t.w, (std::vector<double>{1, 0, 2, 3, 4, 5}));
  EXPECT_EQ(t.b0, (std::vector<int32_t>{-1, 1, -1, 1, 2}));
  EXPECT_EQ(t.b1, (std::vector<int32_t>{-1, -1, -1, 3, -1}));  // the last of three
  EXPECT_EQ(t.w1, (std::vector<double>{0, 0, 0, 5, 0}));
  // The same bank laid out column by column, and in float32, reads alike
  // but is known by another hash.
  std::vector<float> columns(20);
  for (int m = 0; m < 4; ++m)
    for (int k = 0; k < 5; ++k) columns[k * 4 + m] = static_cast<float>(rows[m * 5 + k]);
  const FilterBank f = filter_bank(columns.data(), true, true, 4, 5);
  EXPECT_EQ(build_mel_table(f).w, t.w);
  EXPECT_NE(f.hash, filter_bank(rows.data(), false, false, 4, 5).hash);
}

TEST(Windows, NamesHashesAndTexts) {
  EXPECT_EQ(named_window("rect").hash, 1006u);
  EXPECT_EQ(named_window("boxcar").hash, 1006u);
  EXPECT_EQ(named_window("hann").hash, 1000u);
  EXPECT_EQ(fake::error_of([] { window_id("Hann"); }),
            "window must be one of ('hann', 'hamming', 'blackman', 'blackmanharris', 'nuttall', "
            "'bartlett', 'boxcar') or a float array; got 'Hann'");
  EXPECT_EQ(array_window({1.0, 0.5}).hash, fnv1a(std::vector<double>{1.0, 0.5}.data(), 16));
  EXPECT_EQ(fake::error_of([] { window_table(named_window("hann"), 0, 8); }),
            "win_length must be in [1, n_fft], got 0");
  EXPECT_EQ(fake::error_of([] { window_table(array_window({1, 2, 3}), 4, 8); }),
            "window array must have win_length (4) samples, got 3");
}

TEST(Windows, DeviceTableSharedByEqualSpecs) {
  const void* a = window_device<float>(named_window("rect"), 64);
  EXPECT_EQ(window_device<float>(named_window("boxcar"), 64), a);
  EXPECT_NE(window_device<double>(named_window("boxcar"), 64), a);
  const std::vector<float> ones(64, 1.0f);
  EXPECT_EQ(table_by_name(window_key(fnv1a(ones.data(), 256), 64, 4), nullptr, 0), a);
}

}  // namespace
