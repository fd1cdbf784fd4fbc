#include "cuda_like/ops/stft_steps.hpp"

#include <climits>
#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "codegen/backend.hpp"
#include "cuda_like/ops/fft.hpp"
#include "cuda_like/ops/rfft.hpp"
#include "cuda_like/tables/twiddles.hpp"
#include "math/call_shapes.hpp"
#include "math/fft_schedule.hpp"
#include "math/half.hpp"

namespace ondrel {

namespace {

size_t real_bytes(int prec) { return prec == 2 ? 8 : prec == 0 ? 2 : 4; }

}  // namespace

int32_t pad_of(const StftRequest& r) { return r.center ? r.n_fft / 2 : 0; }

bool half_compute(const StftRequest& r) {
  return r.prec.packed && r.prec.half() && r.n_fft >= 2 && is_pow2(r.n_fft);
}

int compute_prec(const StftRequest& r) { return r.prec.is_double() ? 2 : half_compute(r) ? 0 : 1; }

// Hann, Hamming and Blackman cost no table read in the float kernels.
int window_kind(const StftRequest& r) {
  if (r.prec.is_double()) return codegen::kWindowTable;
  switch (r.window->id) {
    case 0: return codegen::kWindowHann;
    case 1: return codegen::kWindowHamming;
    case 2: return codegen::kWindowBlackman;
    default: return codegen::kWindowTable;
  }
}

const void* window_table(const StftRequest& r) {
  if (half_compute(r)) return window_device<Half>(*r.window, r.n_fft);
  if (r.prec.is_double()) return window_device<double>(*r.window, r.n_fft);
  return window_device<float>(*r.window, r.n_fft);
}

uint64_t flag_word(const StftRequest& r) {
  const uint64_t real = r.prec.is_double() ? 8 : 4;
  uint64_t flags = static_cast<uint64_t>(static_cast<uint32_t>(r.device)) << 5 | 2 * real | (r.prec.half() ? 1 : 0);
  return ((flags << 2 | (half_compute(r) ? 1 : 0)) << 2 | static_cast<uint64_t>(r.mode)) << 1 | (r.center ? 1 : 0);
}

uint64_t bits_of(double x) {
  uint64_t b;
  std::memcpy(&b, &x, sizeof b);
  return b;
}

std::string eps_suffix(int mode, double eps) {
  if (mode != 3) return "";
  char hex[20];
  std::snprintf(hex, sizeof hex, "_e%016llx", static_cast<unsigned long long>(bits_of(eps)));
  return hex;
}

int64_t checked_frames(const StftRequest& r, const char* op) {
  const std::string subject = op;
  if (r.n_fft < 2) throw std::invalid_argument(subject + ": n_fft must be at least 2");
  if (r.length > INT_MAX) throw std::invalid_argument(subject + ": signal length exceeds 2147483647 samples");
  const int64_t frames = frame_count(r.length, r.n_fft, r.hop, pad_of(r), subject);
  // An array window of the wrong length is refused before any device work.
  window_table(*r.window, r.n_fft, r.n_fft);
  return frames;
}

StftPlan spectral_plan(const StftRequest& r, int64_t frames, uint64_t shared_limit, const TuneEntry& knobs) {
  // Only the decibel form reads eps, so only there is it part of a kernel.
  StftPlan p = build_stft_plan(compute_prec(r), r.n_fft, r.hop, pad_of(r), r.length, frames, r.mode,
                               r.mode == 3 ? r.eps : 1e-10, shared_limit, knobs);
  p.in_prec = p.out_prec = r.prec.storage;
  p.window_kind = window_kind(r);
  return p;
}

codegen::StagedStft staged_of(const StftPlan& p) {
  codegen::StagedStft s;
  s.n = p.n;
  s.hop = p.hop;
  s.pad = p.pad;
  s.prec = p.prec;
  s.in_prec = p.in_prec;
  s.out_prec = p.out_prec;
  s.mode = p.mode;
  s.eps = p.eps;
  return s;
}

std::string staged_tail(const StftPlan& p) {
  return std::to_string(p.n) + "_" + std::to_string(p.hop) + "_" + std::to_string(p.pad) + "_" +
         std::to_string(p.prec) + "_" + std::to_string(p.in_prec);
}

KernelPlan frames_plan(const StftPlan& p) {
  const codegen::StagedStft s = staged_of(p);
  KernelPlan k;
  k.key = "cfsframes_" + staged_tail(p);
  k.entry = "ondrel_frames";
  k.params = codegen::frames_params(s, codegen::hip_backend());
  k.text = [s] { return codegen::frames_kernel(s, codegen::hip_backend()); };
  k.threads = kStagedBlock;
  return k;
}

KernelPlan bins_plan(const codegen::StagedStft& s, bool paired, const std::string& key) {
  const codegen::Backend& b = codegen::hip_backend();
  KernelPlan k;
  k.key = key;
  k.threads = kStagedBlock;
  if (paired) {
    k.entry = "ondrel_smode";
    k.params = codegen::mode_params(s, b);
    k.text = [s] { return codegen::mode_kernel(s, codegen::hip_backend()); };
  } else {
    k.entry = "ondrel_rsplit";
    k.params = codegen::split_params(s, b);
    k.text = [s] { return codegen::split_kernel(s, codegen::hip_backend()); };
  }
  return k;
}

KernelPlan spectrum_bins_plan(const StftPlan& p) {
  const std::string key = std::string(p.paired ? "cfsmode_" : "cfssplit_") + staged_tail(p) + "_m" +
                          std::to_string(p.mode) + eps_suffix(p.mode, p.eps);
  return bins_plan(staged_of(p), p.paired, key);
}

DeviceBuffer staged_spectrum(const StftRequest& r, const StftPlan& p, int device) {
  const auto stream = static_cast<hip_dl::hipStream_t>(r.stream);
  const LaunchRecord frames_kernel = compiled(frames_plan(p), device);
  const int64_t rows = r.batch * p.nframes;
  const size_t real = real_bytes(p.prec), in_real = real_bytes(p.in_prec);
  const int32_t spectrum = p.paired ? p.bins() : p.m();
  const DeviceBuffer frames(static_cast<size_t>(rows) * p.n * real, stream);
  DeviceBuffer z(static_cast<size_t>(rows) * spectrum * 2 * real, stream);
  const void* window = window_table(r);
  for_row_chunks(r.batch, [&](int64_t start, int64_t count) {
    KernelArgs args = frames_kernel.args();
    args.set("y", static_cast<const char*>(r.y) + static_cast<size_t>(start) * r.length * in_real)
        .set("frames", static_cast<const char*>(frames.p) + static_cast<size_t>(start * p.nframes) * p.n * real)
        .set("win", window)
        .set("NFRAMES", static_cast<int32_t>(p.nframes))
        .set("SIG_LEN", static_cast<int32_t>(r.length));
    launch(frames_kernel, static_cast<unsigned>(p.nframes), static_cast<unsigned>(count), args, stream);
  });
  FftOptions options;
  options.prec = p.prec == 2 ? full_width(true) : p.prec == 0 ? precision_code(0) : full_width(false);
  options.device = device;
  options.stream = r.stream;
  // A call with knobs of its own leaves no trace in the launch tables, its
  // frames' FFT included: that one takes the default route.
  static const TuneEntry automatic{};
  if (r.knobs) options.override = &automatic;
  if (p.paired) rfft(frames.p, z.p, rows, p.n, options);
  else fft(frames.p, z.p, rows, p.m(), options);
  return z;
}

template <class T>
void staged_bins(const LaunchRecord& k, const StftPlan& p, const void* z, void* out, size_t out_elem, int64_t rows,
                 void* stream) {
  const int32_t nb = p.bins(), spectrum = p.paired ? nb : p.m();
  const size_t cplx = 2 * real_bytes(p.prec);
  const void* split = p.paired ? nullptr : twiddle_device<T>(TwiddleKind::fft, p.n);
  const auto blocks = static_cast<unsigned>(p.paired ? (nb + kStagedBlock - 1) / kStagedBlock
                                                     : (p.m() + kStagedBlock) / kStagedBlock);
  for_row_chunks(rows, [&](int64_t start, int64_t count) {
    KernelArgs args = k.args();
    args.set("z", static_cast<const char*>(z) + static_cast<size_t>(start) * spectrum * cplx)
        .set("out", static_cast<char*>(out) + static_cast<size_t>(start) * nb * out_elem)
        .set("nrows", static_cast<int32_t>(count));
    if (split) args.set("split", split);
    launch(k, blocks, static_cast<unsigned>(count), args, static_cast<hip_dl::hipStream_t>(stream));
  });
}

template void staged_bins<float>(const LaunchRecord&, const StftPlan&, const void*, void*, size_t, int64_t, void*);
template void staged_bins<double>(const LaunchRecord&, const StftPlan&, const void*, void*, size_t, int64_t, void*);

}  // namespace ondrel
