#include "cuda_like/ops/stft_plan.hpp"

#include <algorithm>
#include <cmath>
#include <vector>

#include "math/fft_schedule.hpp"

namespace ondrel {

namespace {

using namespace codegen;

uint64_t csize_of(int prec) { return prec == 0 ? 4 : prec == 2 ? 16 : 8; }

// The SHP shift of the knob word: code 0 is the default 4, 15 is none.
int shp_shift_of(uint32_t flags) {
  const uint32_t code = (flags >> 4) & 15;
  return code == 0 ? 4 : code == 15 ? 0 : static_cast<int>(code);
}

// The largest frames a block, from `fpb` down, whose rows fit `limit` and
// whose threads stay within a block.
int32_t fitting_frames(StftPlan& p, int32_t fpb, uint64_t limit) {
  for (p.fpb = std::max(1, fpb); p.fpb > 1 && shared_bytes(p) > limit; --p.fpb) {
  }
  while (p.fpb > 1 && static_cast<int64_t>(p.tpf) * p.fpb > 1024) --p.fpb;
  return p.fpb;
}

void plan_pow2(StftPlan& p, uint64_t limit, const TuneEntry& knobs) {
  const int32_t m = p.m();
  const uint64_t csize = csize_of(p.prec);
  p.ept = knobs.ept >= 1 ? static_cast<int32_t>(std::min<uint32_t>(knobs.ept, 1024)) : 8;
  while (p.ept > m && p.ept >= 2) p.ept /= 2;
  p.tpf = knobs.tpf > 0 ? static_cast<int32_t>(std::min<uint32_t>(knobs.tpf, 1024)) : std::max(1, m / p.ept);
  p.tw_table = p.prec == 2;
  const uint64_t row4 = static_cast<uint64_t>(m) + 1 + (m >> 4);
  p.tw_global = p.prec == 2 && (2 * static_cast<uint64_t>(m) + 1 + (m >> 4) + m / 2) * csize > limit;
  const int32_t block = p.n <= 512 ? 256 : 128;
  const int32_t fpb = knobs.fpb >= 1 ? static_cast<int32_t>(std::min<uint32_t>(knobs.fpb, 1024))
                                     : std::clamp(block / p.tpf, 1, 8);
  fitting_frames(p, fpb, limit);
  p.core = p.tpf == 32 && m < 544 && p.prec != 2 ? kCoreWarp : kCoreCt;
  const auto ept16 = [&](int32_t r0) {
    p.ept = r0;
    p.tpf = m / r0;
    p.core = kCoreEpt16;
    fitting_frames(p, 4, limit);
  };
  if (knobs.core == kSpectralCoreCt) {
    p.core = kCoreCt;
  } else if (knobs.core == 0 && p.prec == 1 && p.n >= 2048) {
    ept16(16);
  } else if (knobs.core == kSpectralCoreEpt16 && p.n >= 512 &&
             (row4 + static_cast<uint64_t>(shared_twiddles(p))) * csize <= limit) {
    ept16(pow2_stages(ilog2(m))[0]);
  }
}

void plan_mixed(StftPlan& p, const TuneEntry& knobs) {
  p.core = kCoreMixed;
  p.ept = 8;
  p.fpb = 1;
  p.paired = p.n % 2 == 1;
  const int32_t len = p.fft_length();
  int32_t rest = 1;
  const std::vector<int32_t> factors = factor_schedule(len, rest, false);
  const int32_t largest = factors.empty() ? 2 : *std::max_element(factors.begin(), factors.end());
  if (largest > 6) p.tpf = std::clamp(len, 1, 256);
  else p.tpf = std::clamp((std::max(1, len / largest) + 31) / 32 * 32, 32, 256);
  if (knobs.tpf > 0) p.tpf = static_cast<int32_t>(std::min<uint32_t>(knobs.tpf, 1024));
  // A Rader stage needs a thread for each of its butterflies.
  if (const int32_t q = rader_prime(len); q && p.tpf < len / q) p.tpf = len / q;
}

// The split of M the four-step FFT of a staged even plan would take, for
// route_explain; (0, 0) where none fits.
void four_step_split(StftPlan& p, uint64_t limit) {
  const int32_t m = p.m();
  const uint64_t csize = csize_of(p.prec);
  const auto bytes = [&](int32_t f) { return (static_cast<uint64_t>(rader_scratch(f)) + f) * csize; };
  if (p.paired || m < 4) return;
  for (auto f = static_cast<int32_t>(std::sqrt(static_cast<double>(m))); f >= 2; --f)
    if (m % f == 0 && bytes(f) <= limit && bytes(m / f) <= limit) {
      p.n1 = f;
      p.n2 = m / f;
      return;
    }
}

}  // namespace

StftPlan build_stft_plan(int prec, int32_t n, int32_t hop, int32_t pad, int64_t sig_len, int64_t nframes, int mode,
                         double eps, uint64_t shared_limit, const TuneEntry& knobs) {
  const uint64_t limit = shared_limit < 1 ? 98304 : shared_limit;
  StftPlan p;
  p.prec = prec;
  p.n = n;
  p.hop = hop;
  p.pad = pad;
  p.sig_len = sig_len;
  p.nframes = nframes;
  p.mode = mode;
  p.eps = eps;
  p.in_prec = p.out_prec = prec;
  p.shp_shift = shp_shift_of(knobs.var);
  if (n >= 2 && is_pow2(n)) plan_pow2(p, limit, knobs);
  else plan_mixed(p, knobs);
  const int32_t len = p.fft_length();
  p.shp_on = (knobs.var & kSpectralVarShp) && rader_scratch(len) == 0;
  // A long butterfly would make the mixed core slow and inexact: such frame
  // lengths go staged, through the library FFT's own route.
  if (p.core == kCoreMixed && takes_bluestein(len)) p.core = kCoreFourStep;
  // The test is the kernel's own size, so that every plan that is fused
  // fits and every one that does not runs staged.
  if (shared_bytes(p) > limit || p.tpf * p.fpb > 1024) p.core = kCoreFourStep;
  if (p.core == kCoreFourStep) four_step_split(p, limit);
  return p;
}

const char* stft_core_word(int core) {
  switch (core) {
    case kCoreCt: return "cooley_tukey";
    case kCoreWarp: return "warp";
    case kCoreMixed: return "mixed";
    case kCoreEpt16: return "ept16";
    case kCoreFourStep: return "four_step";
    default: return "?";
  }
}

}  // namespace ondrel
