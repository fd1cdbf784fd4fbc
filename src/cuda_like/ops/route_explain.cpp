#include "cuda_like/ops/route_explain.hpp"

#include <algorithm>
#include <stdexcept>

#include "math/fft_schedule.hpp"
#include "rocm/context.hpp"

namespace ondrel {

RouteExplanation route_explain(const std::string& op, int32_t n, int32_t prec, uint64_t shared_limit) {
  const bool spectral = op == "stft" || op == "mel";
  const bool real_frame = spectral || op == "istft" || op == "rfft";
  if (!real_frame && op != "fft") throw std::invalid_argument("route_explain: unknown op " + op);

  RouteExplanation e;
  e.op = op;
  e.n_fft = n;
  e.odd = n % 2 != 0;
  e.pow2 = n >= 2 && is_pow2(n);
  e.frame_len = std::max(1, real_frame && !e.odd ? n / 2 : n);
  int32_t rest = 1;
  e.schedule = factor_schedule(e.frame_len, rest, false);
  e.rader_prime = rader_prime(e.frame_len);
  e.bluestein = bluestein_wanted(e.frame_len);
  e.bluestein_m = e.bluestein ? bluestein_length(e.frame_len) : 0;
  const int32_t compute = prec == 2 ? 2 : 1;
  e.smem = shared_fft_bytes(e.frame_len, compute);
  e.smem_cap = shared_limit;

  if (op == "istft") {
    const bool fused = e.smem <= e.smem_cap && !e.bluestein;
    e.core = fused ? (e.pow2 ? "cooley_tukey" : "mixed") : "four_step";
    e.staged = !fused;
    e.two_for_one = e.odd;
  } else if (!spectral) {
    e.core = e.pow2 ? "cooley_tukey" : e.bluestein ? "bluestein" : "mixed";
    if (e.smem > e.smem_cap) {
      const FactorPair split = two_level_split(e.frame_len, compute, e.smem_cap);
      if (split.n1) {
        e.n1 = split.n1;
        e.n2 = split.n2;
        e.core = "four_step";
      }
    }
    e.staged = *e.core == "four_step";
  }
  return e;
}

uint64_t explain_shared_limit(int32_t device) {
  return available() ? device_shared_limit(device) : 49152;
}

}  // namespace ondrel
