#include "cuda_like/ops/route_explain.hpp"

#include <algorithm>
#include <stdexcept>

#include "codegen/mel_kernels.hpp"
#include "cuda_like/ops/bluestein.hpp"
#include "cuda_like/ops/fft_route.hpp"
#include "cuda_like/ops/four_step.hpp"
#include "cuda_like/ops/istft.hpp"
#include "cuda_like/ops/mel.hpp"
#include "cuda_like/ops/stft_plan.hpp"
#include "math/fft_schedule.hpp"
#include "rocm/context.hpp"

namespace ondrel {

namespace {

// The FFT's answers come from the route a call takes: its decider, its
// measured row and limit, and the split and convolution length of the
// multi-kernel paths it would run.
void explain_fft(RouteExplanation& e, bool real, int32_t prec, uint64_t shared_limit) {
  RouteQuery q;
  q.n = e.n_fft;
  q.prec = precision_code(prec);
  q.shared_limit = shared_limit;
  const FftRoute route = real ? rfft_route(q) : fft_route(q);
  e.smem = route.row_bytes;
  e.smem_cap = route.shared_cap;
  e.bluestein = route.core == FftCore::bluestein;
  e.bluestein_m = e.bluestein ? bluestein_length(e.n_fft) : 0;
  if (route.core == FftCore::four_step) {
    const bool is_double = q.prec.is_double();
    const FourStepPlan split = four_step_plan(e.frame_len, is_double, false, shared_limit);
    e.n1 = split.n1;
    e.n2 = split.n2;
    e.core = "four_step";
  } else {
    e.core = e.bluestein ? "bluestein" : e.pow2 ? "cooley_tukey" : "mixed";
  }
  e.staged = *e.core == "four_step";
}

// Whether a staged frame's library FFT (complex of n / 2 for even n, real of
// n for odd) runs Bluestein, and on what length.
void staged_fft(RouteExplanation& e, int32_t prec, uint64_t shared_limit) {
  e.bluestein = false;
  if (*e.staged) {
    RouteQuery q;
    q.n = e.frame_len;
    q.prec = precision_code(prec == 2 ? 2 : prec == 0 || prec == 3 ? 0 : 1);
    q.shared_limit = shared_limit;
    e.bluestein = (e.odd ? rfft_route(q) : fft_route(q)).core == FftCore::bluestein;
  }
  e.bluestein_m = e.bluestein ? bluestein_length(e.frame_len) : 0;
}

// The spectral kernels answer with their plan, built for hop n / 4, centred
// frames and eight of them, no tuned record; a staged plan names its split
// and whether its library FFT runs Bluestein.
void explain_spectral(RouteExplanation& e, int32_t prec, uint64_t shared_limit) {
  const int32_t n = e.n_fft;
  if (n < 2) throw std::invalid_argument(e.op + ": n_fft must be at least 2");
  const bool half_compute = prec == 3 && e.pow2;
  const int compute = prec == 2 ? 2 : half_compute ? 0 : 1;
  StftPlan p = build_stft_plan(compute, n, std::max(1, n / 4), n / 2, 8 * static_cast<int64_t>(n), 8, 0, 1e-10,
                               shared_limit, {});
  // The mel kernel keeps power rows beside the FFT's: its own size test.
  if (e.op == "mel") fit_mel_plan(p, 128, 2, shared_limit);
  e.core = stft_core_word(p.core);
  e.staged = p.core == codegen::kCoreFourStep;
  e.two_for_one = p.paired;
  e.smem = e.op == "mel" ? codegen::mel_shared_bytes(p) : codegen::shared_bytes(p);
  e.smem_cap = shared_limit;
  if (p.n1) {
    e.n1 = p.n1;
    e.n2 = p.n2;
  }
  staged_fft(e, prec, shared_limit);
}

// The inverse STFT: fused where its frame FFT fits one block without a long
// butterfly, else staged through the library FFT.
void explain_inverse(RouteExplanation& e, int32_t prec, uint64_t shared_limit) {
  if (e.n_fft < 2) throw std::invalid_argument("istft: n_fft must be at least 2");
  const bool fused = istft_fused(e.n_fft, prec == 2, shared_limit);
  e.core = fused ? (e.pow2 ? "cooley_tukey" : "mixed") : "four_step";
  e.staged = !fused;
  e.two_for_one = e.odd;
  e.smem = shared_fft_bytes(e.frame_len, prec == 2 ? 2 : 1);
  e.smem_cap = shared_limit;
  staged_fft(e, prec, shared_limit);
}

}  // namespace

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
  if (op == "fft" || op == "rfft") {
    explain_fft(e, op == "rfft", prec, shared_limit);
    return e;
  }
  if (spectral) {
    explain_spectral(e, prec, shared_limit);
    return e;
  }
  explain_inverse(e, prec, shared_limit);
  return e;
}

uint64_t explain_shared_limit(int32_t device) {
  return available() ? device_shared_limit(device) : 49152;
}

}  // namespace ondrel
