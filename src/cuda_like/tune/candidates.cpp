#include "cuda_like/tune/candidates.hpp"

#include <algorithm>

#include "cuda_like/ops/fft_route.hpp"
#include "math/fft_schedule.hpp"

namespace ondrel {

namespace {

// Flags words of the spectral family: SHP shift codes 15 (no shift) and 3,
// with the mixed core's SHP bit clear.
constexpr uint32_t kShiftNone = 15u << 4, kShift3 = 3u << 4;

}  // namespace

std::vector<TuneEntry> tpf_candidates() {
  std::vector<TuneEntry> list;
  for (uint32_t tpf : {0u, 64u, 128u, 256u, 512u}) list.push_back({0, 0, tpf, 0, 0});
  return list;
}

std::vector<TuneEntry> pow2_candidates(int32_t n_fft) {
  std::vector<TuneEntry> list{TuneEntry{}};
  for (uint32_t ept : {8u, 16u})
    for (uint32_t fpb : {1u, 2u, 4u, 8u})
      if (fpb < 8 || n_fft < 513) list.push_back({ept, fpb, 0, 0, 0});
  list.push_back({0, 0, 0, 0, kShiftNone});
  list.push_back({0, 0, 0, 0, kShift3});
  return list;
}

std::vector<int32_t> ept_choices(int32_t n) {
  std::vector<int32_t> epts;
  if (is_pow2(n)) {
    for (int32_t e : {4, 8, 16, 32})
      if (e <= n) epts.push_back(e);
    return epts;
  }
  for (int32_t d = 4; d <= 32 && epts.size() < 5; ++d) {
    std::vector<int32_t> schedule;
    int32_t first = 0;
    if (n % d == 0 && mixed_schedule(n, d, d, schedule, first)) epts.push_back(d);
  }
  return epts;
}

std::vector<TuneEntry> fft_candidates(int32_t n, bool half) {
  std::vector<TuneEntry> list{TuneEntry{}};
  for (uint32_t tpf : {0u, 64u, 128u, 256u})
    for (uint32_t fpb : {0u, 2u})
      if (tpf || fpb) list.push_back({0, fpb, tpf, kCoreShared, 0});
  list.push_back({0, 1, 0, kCoreShared, 0});
  list.push_back({0, 4, 0, kCoreShared, 0});
  for (int32_t ept : ept_choices(n))
    for (uint32_t fpb : {0u, 2u}) list.push_back({static_cast<uint32_t>(ept), fpb, 0, kCoreRegister, 0});
  const bool no_rader = rader_scratch(n) == 0;
  if (no_rader) list.push_back({0, 0, 0, kCoreShared, kVarPad});
  if (n % 25 == 0) {
    list.push_back({0, 0, 0, kCoreShared, kVarAllow25});
    if (no_rader) list.push_back({0, 0, 0, kCoreShared, kVarAllow25 | kVarPad});
  }
  if (half) list.push_back({0, 0, 0, kCoreRegister, kVarHalfExchange});
  list.push_back({0, 0, 0, kCoreRegister, kVarFlipExchange});
  return list;
}

int32_t further_reps(double t0, int32_t iters) {
  if (!(t0 > 0)) return iters;
  const double wanted = 25.0 / t0;
  // Compared before the cast: a tiny t0 would overflow an int.
  if (wanted >= iters) return iters;
  return std::clamp(static_cast<int32_t>(wanted), 1, iters);
}

int32_t first_reps(int32_t warmup) { return warmup < 2 ? 1 : warmup; }

bool BestCandidate::offer(double t, const TuneEntry& candidate) {
  if (!(t < ms)) return false;
  ms = t;
  entry = candidate;
  return true;
}

}  // namespace ondrel
