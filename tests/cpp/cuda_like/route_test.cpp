#include <gtest/gtest.h>

#include <random>
#include <stdexcept>
#include <string>

#include "cuda_like/ops/fft_route.hpp"
#include "math/fft_schedule.hpp"

namespace {

using namespace ondrel;

RouteQuery query(int32_t n, bool dbl, bool inverse = false, TuneEntry tune = {}) {
  RouteQuery q;
  q.n = n;
  q.prec = full_width(dbl);
  q.inverse = inverse;
  q.tune = tune;
  return q;
}

// Half data (resident code 0), or with packed arithmetic (code 3).
RouteQuery half(RouteQuery q, bool packed = false) {
  q.prec = precision_code(packed ? 3 : 0);
  return q;
}

TEST(FftRoute, Length512RegisterCoreWithExchange) {
  const FftRoute r = fft_route(query(512, false));
  EXPECT_EQ(r.core, FftCore::registers);
  EXPECT_EQ(r.ept, 16);
  EXPECT_TRUE(r.exchange);
  EXPECT_EQ(r.rows_per_block, 1);
  EXPECT_EQ(r.threads, 32u);
  EXPECT_EQ(r.kernel, "cregfft_512_1_1_f_1w512e16p");
  EXPECT_EQ(r.stages, (std::vector<int32_t>{16, 16, 2}));

  TuneEntry flip;
  flip.var = kVarFlipExchange;
  const FftRoute f = fft_route(query(512, false, false, flip));
  EXPECT_EQ(f.core, FftCore::registers);
  EXPECT_FALSE(f.exchange);
  EXPECT_EQ(f.rows_per_block, 2);
}

TEST(FftRoute, Length1024SharedInFloatRegistersInHalf) {
  const FftRoute r = fft_route(query(1024, false));
  EXPECT_EQ(r.core, FftCore::shared);
  EXPECT_EQ(r.tpf, 128);
  EXPECT_EQ(r.rows_per_block, 1);
  EXPECT_EQ(r.kernel, "cfft_1024_1_1_f_128x1_n");

  const FftRoute rh = fft_route(half(query(1024, false, true)));
  EXPECT_EQ(rh.core, FftCore::registers);
  EXPECT_EQ(rh.kernel, "cregfft_1024_1_0_i_1w1024e16p");
}

TEST(FftRoute, Length720MeasuredGeometry) {
  const FftRoute f = fft_route(query(720, false));
  EXPECT_EQ(f.core, FftCore::shared);
  EXPECT_EQ(f.tpf, 90);
  EXPECT_EQ(f.rows_per_block, 1);
  const FftRoute d = fft_route(query(720, true));
  EXPECT_EQ(d.tpf, 45);
  EXPECT_EQ(d.rows_per_block, 2);
  EXPECT_EQ(d.kernel, "cfft_720_2_2_f_45x2_n");
  EXPECT_EQ(d.threads, 90u);
}

TEST(FftRoute, Length16384FourStepInBothInstantiations) {
  EXPECT_EQ(fft_route(query(16384, true)).core, FftCore::four_step);
  EXPECT_EQ(fft_route(query(16384, false)).core, FftCore::four_step);
}

TEST(FftRoute, TiledCubePackedAndBluestein) {
  EXPECT_EQ(fft_route(query(64, false)).kernel, "ceptfft_64_1_1_f_4");
  EXPECT_EQ(fft_route(query(169, true)).kernel, "ceptfft_169_2_2_f_12");
  EXPECT_NE(fft_route(query(169, false)).core, FftCore::tiled);
  const FftRoute cube = fft_route(query(343, true, true));
  EXPECT_EQ(cube.kernel, "cept3_343_2_2_i_6");
  EXPECT_EQ(cube.threads, 6u * 49);
  RouteQuery small = query(1331, true);
  small.shared_limit = 32768;  // the cube does not fit: the decision goes on
  EXPECT_NE(fft_route(small).core, FftCore::cube);

  const FftRoute pair = fft_route(half(query(4096, false), true));
  EXPECT_EQ(pair.kernel, "cpair16_4096e32");
  EXPECT_EQ(pair.threads, 128u);
  EXPECT_EQ(pair.rows_per_block, 2);

  EXPECT_EQ(fft_route(query(41, false)).core, FftCore::bluestein);
}

TEST(FftRoute, MixedRegisterSchedules) {
  const FftRoute r = fft_route(query(1000, false));
  EXPECT_EQ(r.core, FftCore::registers);
  EXPECT_EQ(r.stages, (std::vector<int32_t>{10, 10, 10}));
  EXPECT_EQ(r.rows_per_block, 1);  // 64 / (1000 / 10)
  const FftRoute d = fft_route(query(384, true));
  EXPECT_EQ(d.stages, (std::vector<int32_t>{6, 2, 2, 2, 2, 2, 2}));
  EXPECT_EQ(d.ept, 6);
}

TEST(FftRoute, TunedWordsReachTheSharedCore) {
  TuneEntry t;
  t.core = kCoreShared;
  t.tpf = 64;
  t.fpb = 3;
  t.var = kVarPad | kVarAllow25;
  const FftRoute r = fft_route(query(400, false, false, t));
  EXPECT_EQ(r.kernel, "cfft_400_1_1_f_64x3_pr");
}

TEST(FftRoute, HalfRowTooLargeIsAnError) {
  RouteQuery q = half(query(6000, false));  // half data has no four-step way out
  q.shared_limit = 16384;
  try {
    fft_route(q);
    FAIL() << "no error";
  } catch (const std::invalid_argument& e) {
    EXPECT_STREQ(e.what(), "fft: n exceeds the device shared-memory limit");
  }
}

TEST(RfftRoute, WorkedLengths) {
  EXPECT_EQ(rfft_route(query(3, false)).kernel, "crffttiny_3_1_1");
  EXPECT_EQ(rfft_route(query(3, true, true)).kernel, "cirffttiny_3_2_2");
  EXPECT_EQ(rfft_route(query(5, false)).core, FftCore::bluestein);
  EXPECT_EQ(rfft_route(query(7, false)).core, FftCore::bluestein);

  const FftRoute nine = rfft_route(query(9, false));
  EXPECT_EQ(nine.core, FftCore::real_registers);
  EXPECT_EQ(nine.ept, 9);
  EXPECT_EQ(nine.kernel, "crfftregs_9_1e9r64o");
  EXPECT_EQ(nine.rows_per_block, 128);

  const FftRoute fwd = rfft_route(query(256, false));
  EXPECT_EQ(fwd.core, FftCore::real_registers);
  EXPECT_EQ(fwd.ept, 4);
  EXPECT_EQ(fwd.kernel, "crfftregs_256_1e4r2");
  EXPECT_EQ(fwd.threads, 64u);

  const FftRoute inv = rfft_route(query(256, false, true));
  EXPECT_EQ(inv.core, FftCore::real_shared);
  EXPECT_EQ(inv.kernel, "cirfft_256_1_1_16x4");
  EXPECT_EQ(inv.rows_per_block, 4);
}

TEST(RfftRoute, LongEvenLengthsGoFourStep) {
  EXPECT_EQ(rfft_route(query(2 * 8192, true)).core, FftCore::four_step);
  // In single the limit decides: the forward exchange row of 8192 is 64 KiB.
  EXPECT_EQ(rfft_route(query(2 * 8192, false)).core, FftCore::four_step);
  RouteQuery wide = query(2 * 8192, false);
  wide.shared_limit = 65536;
  EXPECT_EQ(rfft_route(wide).core, FftCore::real_registers);
  EXPECT_EQ(rfft_route(query(2 * 16384, false)).core, FftCore::four_step);
  EXPECT_EQ(rfft_route(query(2 * 8200, false)).core, FftCore::four_step);
}

// Every length and instantiation gets a route or the limit error,
// and a kernel route never asks for more shared memory than it was given.
void check_sweep(bool real, const RouteQuery& q) {
  const std::string where = std::string(real ? "rfft" : "fft") + " n=" + std::to_string(q.n) +
                            " width=" + std::to_string(q.prec.width_code()) + (q.inverse ? " inverse" : "") +
                            " limit=" + std::to_string(q.shared_limit) +
                            " tune=" + std::to_string(q.tune.ept) + "," + std::to_string(q.tune.fpb) + "," +
                            std::to_string(q.tune.tpf) + "," + std::to_string(q.tune.core) + "," +
                            std::to_string(q.tune.var);
  FftRoute r;
  try {
    r = real ? rfft_route(q) : fft_route(q);
  } catch (const std::invalid_argument& e) {
    const std::string text = e.what();
    ASSERT_EQ(text, real ? "rfft: n exceeds the device shared-memory limit"
                         : "fft: n exceeds the device shared-memory limit")
        << where;
    return;
  }
  if (!r.one_kernel()) {
    ASSERT_TRUE(r.kernel.empty()) << where;
    return;
  }
  ASSERT_FALSE(r.kernel.empty()) << where;
  ASSERT_LE(r.shared_bytes, q.shared_limit) << where;
  ASSERT_GE(r.threads, 1u) << where;
  ASSERT_LE(r.threads, 1024u) << where;
  ASSERT_GE(r.rows_per_block, 1) << where;
  if (!r.stages.empty()) {
    int64_t product = 1;
    for (int32_t s : r.stages) product *= s;
    const int32_t length = real && q.n % 2 == 0 ? q.n / 2 : q.n;
    ASSERT_EQ(product, length) << where;
  }
  if (r.core == FftCore::shared || r.core == FftCore::real_shared) {
    const int32_t length = real && q.n % 2 == 0 ? q.n / 2 : q.n;
    const int32_t p = rader_prime(length);
    if (p) {
      ASSERT_GE(r.tpf, length / p) << where;  // one thread per Rader butterfly
    }
  }
}

TEST(RouteSweep, EveryLengthBothInstantiations) {
  for (uint64_t limit : {49152u, 65536u, 16384u})
    for (int32_t n = 1; n <= 20000; ++n)
      for (bool dbl : {false, true})
        for (bool inverse : {false, true}) {
          RouteQuery q = query(n, dbl, inverse);
          q.shared_limit = limit;
          check_sweep(false, q);
          check_sweep(true, q);
          if (!dbl) {
            check_sweep(false, half(q));
            check_sweep(true, half(q));
            check_sweep(false, half(q, true));
          }
        }
}

TEST(RouteSweep, TopOfTheIntRange) {
  for (int32_t n : {2147483647, 1 << 30, 1162261467, 17 * 43046721, 2147483646})
    for (bool dbl : {false, true})
      for (bool inverse : {false, true}) {
        check_sweep(false, query(n, dbl, inverse));
        check_sweep(true, query(n, dbl, inverse));
      }
  EXPECT_EQ(bluestein_length(1 << 30), int64_t{1} << 31);
  EXPECT_EQ(rader_scratch(17 * 43046721), int64_t{17} * 43046721 + 43046721);
}

TEST(RouteSweep, RandomTunedWords) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  std::mt19937 gen(seed);
  std::uniform_int_distribution<int32_t> len(1, 20000);
  std::uniform_int_distribution<uint32_t> small(0, 40), big(0, 2048), core(0, 3), var(0, 15);
  auto word = [&]() -> uint32_t {
    switch (gen() % 4) {
      case 0: return 0;
      case 1: return small(gen);
      case 2: return big(gen);
      default: return static_cast<uint32_t>(gen());
    }
  };
  for (int i = 0; i < 40000; ++i) {
    RouteQuery q = query(len(gen), gen() % 2, gen() % 2);
    if (!q.prec.is_double() && gen() % 2) q = half(q, gen() % 2);
    q.tune = {word(), word(), word(), core(gen), var(gen)};
    check_sweep(gen() % 2, q);
  }
}

}  // namespace
