#include <gtest/gtest.h>

#include <set>
#include <stdexcept>

#include "cuda_like/ops/fft_launch.hpp"
#include "cuda_like/tune/tuned_table.hpp"
#include "math/hashing.hpp"

namespace {

using namespace ondrel;

TEST(TuningKey, WordLayoutAndSignedWidening) {
  // op 4 (fft), n 1024, forward, single, device 0.
  const uint64_t word = ((((0u << 8 | 32u) << 4 | 0u) << 1 | 0u) << 4) | 4u;
  uint64_t h = combine(combine(combine(combine(0x5a9d, word), 1024), 0), 0);
  EXPECT_EQ(tuning_key(TuneOp::fft, 1024, 0, false, 32, 0, 0, 0), h);
  // A word past 31 bits is negative as a signed 32-bit number and widens with its sign.
  const uint32_t neg = ((((255u << 8 | 64u) << 4 | 3u) << 1 | 1u) << 4) | 1u;
  h = combine(0x5a9d, static_cast<uint64_t>(static_cast<int64_t>(static_cast<int32_t>(neg))));
  h = combine(combine(combine(h, 512), static_cast<uint64_t>(-1)), 0);
  EXPECT_EQ(tuning_key(TuneOp::stft, 512, -1, true, 64, 3, 0, 255), h);
}

TEST(TunedTable, HintsClearsAndTheEpoch) {
  const uint64_t start = shape_epoch();
  TuneEntry e{1, 2, 3, 4, 5};
  set_shape_hint("stft", 1024, 256, true, 32, "magnitude", 0, 0, e);
  e.ept = 9;
  set_shape_hint("stft", 1024, 256, true, 32, "power", 0, 0, e);
  EXPECT_EQ(shape_epoch(), start + 2);
  const auto mag = tuned_entry(tuning_key(TuneOp::stft, 1024, 256, true, 32, 1, 0, 0));
  const auto pow = tuned_entry(tuning_key(TuneOp::stft, 1024, 256, true, 32, 2, 0, 0));
  ASSERT_TRUE(mag && pow);
  EXPECT_EQ(mag->ept, 1u);
  EXPECT_EQ(pow->ept, 9u);

  // The words the FFT's own lookup leaves at zero are zero in the hint too.
  set_shape_hint("fft", 512, 77, true, 32, "power", 5, 0, e);
  FftOptions o;
  o.inverse = true;
  EXPECT_EQ(fft_tune_entry(512, o).ept, 9u);
  o.prec = full_width(true);
  EXPECT_EQ(fft_tune_entry(512, o).ept, 0u);  // stored for width 32, read under 64

  shape_hint_clear();
  EXPECT_FALSE(tuned_entry(tuning_key(TuneOp::stft, 1024, 256, true, 32, 1, 0, 0)));
  const uint64_t after = shape_epoch();
  shape_hint_clear();  // an empty table still moves the epoch
  EXPECT_EQ(shape_epoch(), after + 1);
}

TEST(TunedTable, UnknownOp) {
  try {
    set_shape_hint("cqt2", 1, 1, false, 32, "", 0, 0, {});
    FAIL();
  } catch (const std::invalid_argument& e) {
    EXPECT_STREQ(e.what(), "set_shape_hint: op must be stft/istft/mel/fft/rfft/cqt");
  }
}

// Every precision a binding can ask for, and both directions, must keep
// records apart: a shared key would replay another shape's kernel.
TEST(LaunchRecords, KeysSeparateEveryRequest) {
  std::set<uint64_t> fft_keys, rfft_keys;
  for (int32_t prec : {0, 1, 2, 3})
    for (bool inverse : {false, true})
      for (int32_t device : {0, 1}) {
        fft_keys.insert(fft_record_key(1024, device, precision_code(prec), inverse));
        rfft_keys.insert(rfft_record_key(1024, device, precision_code(prec == 3 ? 0 : prec), inverse));
      }
  EXPECT_EQ(fft_keys.size(), 16u);
  EXPECT_EQ(rfft_keys.size(), 12u);
}

struct Family {};

TEST(LaunchRecords, RecordsLiveOneGeneration) {
  const uint64_t k = 12345;
  LaunchTable<>& table = launch_records<Family, float>();
  LaunchRecord rec;
  rec.threads = 64;
  table.store(k, rec);
  ASSERT_NE(table.find(k), nullptr);
  EXPECT_EQ(table.find(k)->threads, 64u);
  EXPECT_EQ((launch_records<Family, double>().find(k)), nullptr);
  shape_hint_clear();  // a new generation: the record is not found again
  EXPECT_EQ(table.find(k), nullptr);
}

TEST(LaunchRecords, TunerOverrideWins) {
  const TuneEntry cand{4, 1, 0, 2, 0};
  FftOptions o;
  o.override = &cand;
  EXPECT_EQ(rfft_tune_entry(256, o).core, 2u);
}

}  // namespace
