#include "cuda_like/ops/stft.hpp"

#include <climits>
#include <cstdio>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>

#include "codegen/backend.hpp"
#include "codegen/stft_staged_kernels.hpp"
#include "cuda_like/ops/fft.hpp"
#include "cuda_like/ops/rfft.hpp"
#include "cuda_like/tables/twiddles.hpp"
#include "math/call_shapes.hpp"
#include "math/fft_schedule.hpp"
#include "math/half.hpp"
#include "math/hashing.hpp"
#include "rocm/context.hpp"
#include "rocm/device_pool.hpp"

namespace ondrel {

namespace {

using codegen::StagedStft;

struct StftFamily {};

// What a fused plan leaves for the next call of the same request.
struct StftRecord {
  LaunchRecord kernel;  // its table is the twiddle table
  const void* window = nullptr;
  unsigned grid_x = 0;
  int32_t frames = 0;
};

constexpr unsigned kStagedBlock = 256;

uint64_t bits_of(double x) {
  uint64_t b;
  std::memcpy(&b, &x, sizeof b);
  return b;
}

// Half arithmetic is asked for by the precision and exists on the power-of-
// two kernels only; elsewhere the request runs as plain half data.
bool half_compute(const StftRequest& r) {
  return r.prec.packed && r.prec.half() && r.n_fft >= 2 && is_pow2(r.n_fft);
}

int compute_prec(const StftRequest& r) { return r.prec.is_double() ? 2 : half_compute(r) ? 0 : 1; }

int32_t pad_of(const StftRequest& r) { return r.center ? r.n_fft / 2 : 0; }

// Only the decibel form reads eps, so only there is it part of a kernel.
double kernel_eps(const StftRequest& r) { return r.mode == 3 ? r.eps : 1e-10; }

std::string eps_suffix(const StftRequest& r) {
  if (r.mode != 3) return "";
  char hex[20];
  std::snprintf(hex, sizeof hex, "_e%016llx", static_cast<unsigned long long>(bits_of(r.eps)));
  return hex;
}

uint64_t record_key(const StftRequest& r, int device) {
  const uint64_t real_bytes = r.prec.is_double() ? 8 : 4;
  uint64_t flags = static_cast<uint64_t>(static_cast<uint32_t>(device)) << 5 | 2 * real_bytes | (r.prec.half() ? 1 : 0);
  flags = ((flags << 2 | (half_compute(r) ? 1 : 0)) << 2 | static_cast<uint64_t>(r.mode)) << 1 | (r.center ? 1 : 0);
  uint64_t h = combine(0xb57f, widen(r.n_fft));
  h = combine(h, widen(r.hop));
  h = combine(h, flags);
  h = combine(h, r.window->hash);
  h = combine(h, static_cast<uint64_t>(r.length));
  return combine(h, r.mode == 3 ? bits_of(r.eps) : 0);
}

TuneEntry knobs_of(const StftRequest& r) {
  if (r.knobs) return *r.knobs;
  Precision width = r.prec;
  width.packed = half_compute(r);
  return tuned_entry(tuning_key(TuneOp::stft, r.n_fft, r.hop, r.center, width.width_code(), r.mode, 0, r.device))
      .value_or(TuneEntry{});
}

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

KernelPlan fused_kernel(const StftPlan& p, int device) {
  const codegen::Backend& b = codegen::hip_backend();
  char eps[24] = "";
  if (p.mode == 3) std::snprintf(eps, sizeof eps, "_e%016llx", static_cast<unsigned long long>(bits_of(p.eps)));
  KernelPlan k;
  k.key = "raw_stft_" + std::to_string(p.n) + "_" + std::to_string(p.hop) + "_" + std::to_string(p.prec) + "_" +
          std::to_string(p.in_prec) + "_" + std::to_string(p.mode) + "_" + std::to_string(p.window_kind) + "_" +
          std::to_string(p.pad) + "_" + std::to_string(p.fpb) + "_" + std::to_string(p.ept) + "_" +
          std::to_string(p.tpf) + "_" + std::to_string(p.core) + "_" + std::to_string(p.shp_shift) + "_" +
          std::to_string(p.shp_on ? 1 : 0) + "_d" + std::to_string(device) + eps;
  k.entry = "ondrel_stft";
  k.threads = static_cast<uint32_t>(p.core == codegen::kCoreMixed ? p.tpf : p.tpf * p.fpb);
  k.shared_bytes = codegen::shared_bytes(p);
  k.rows_per_block = p.paired ? 2 : p.fpb;
  k.params = codegen::stft_params(p, b);
  k.text = [p] { return codegen::stft_text(p, codegen::hip_backend()); };
  return k;
}

StagedStft staged_of(const StftPlan& p) {
  StagedStft s;
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

// The frame, and the split (even n) or output (odd n) kernels.
std::vector<KernelPlan> staged_kernels(const StftPlan& p, const StftRequest& r) {
  const codegen::Backend& b = codegen::hip_backend();
  const StagedStft s = staged_of(p);
  const std::string tail = std::to_string(p.n) + "_" + std::to_string(p.hop) + "_" + std::to_string(p.pad) + "_" +
                           std::to_string(p.prec) + "_" + std::to_string(p.in_prec);
  std::vector<KernelPlan> k(2);
  k[0].key = "cfsframes_" + tail;
  k[0].entry = "ondrel_frames";
  k[0].params = codegen::frames_params(s, b);
  k[0].text = [s] { return codegen::frames_kernel(s, codegen::hip_backend()); };
  const std::string out_tail = tail + "_m" + std::to_string(p.mode) + eps_suffix(r);
  if (p.paired) {
    k[1].key = "cfsmode_" + out_tail;
    k[1].entry = "ondrel_smode";
    k[1].params = codegen::mode_params(s, b);
    k[1].text = [s] { return codegen::mode_kernel(s, codegen::hip_backend()); };
  } else {
    k[1].key = "cfssplit_" + out_tail;
    k[1].entry = "ondrel_rsplit";
    k[1].params = codegen::split_params(s, b);
    k[1].text = [s] { return codegen::split_kernel(s, codegen::hip_backend()); };
  }
  for (KernelPlan& plan : k) plan.threads = kStagedBlock;
  return k;
}

// Frames written out, the library FFT of every frame, then the bins.
template <class T>
void run_staged(const StftRequest& r, const StftPlan& p, int device) {
  const auto stream = static_cast<hip_dl::hipStream_t>(r.stream);
  const std::vector<KernelPlan> plans = staged_kernels(p, r);
  const LaunchRecord frames_kernel = compiled(plans[0], device), bins_kernel = compiled(plans[1], device);
  const int64_t rows = r.batch * p.nframes;
  const size_t real = p.prec == 2 ? 8 : p.prec == 0 ? 2 : 4, cplx = 2 * real;
  const size_t in_real = p.in_prec == 2 ? 8 : p.in_prec == 0 ? 2 : 4;
  const size_t out_elem = (p.out_prec == 2 ? 8 : p.out_prec == 0 ? 2 : 4) * (p.mode == 0 ? 2 : 1);
  const int32_t nb = p.bins(), spectrum = p.paired ? nb : p.m();
  const DeviceBuffer frames(static_cast<size_t>(rows) * p.n * real, stream);
  const DeviceBuffer z(static_cast<size_t>(rows) * spectrum * cplx, stream);
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
  if (p.paired) rfft(frames.p, z.p, rows, p.n, options);
  else fft(frames.p, z.p, rows, p.m(), options);
  const void* split = p.paired ? nullptr : twiddle_device<T>(TwiddleKind::fft, p.n);
  const auto blocks = static_cast<unsigned>(p.paired ? (nb + kStagedBlock - 1) / kStagedBlock
                                                     : (p.m() + kStagedBlock) / kStagedBlock);
  for_row_chunks(rows, [&](int64_t start, int64_t count) {
    KernelArgs args = bins_kernel.args();
    args.set("z", static_cast<const char*>(z.p) + static_cast<size_t>(start) * spectrum * cplx)
        .set("out", static_cast<char*>(r.out) + static_cast<size_t>(start) * nb * out_elem)
        .set("nrows", static_cast<int32_t>(count));
    if (split) args.set("split", split);
    launch(bins_kernel, blocks, static_cast<unsigned>(count), args, stream);
  });
}

void run_fused(const StftRecord& rec, const StftRequest& r) {
  KernelArgs args = rec.kernel.args();
  args.set("y", r.y)
      .set("out", static_cast<const void*>(r.out))
      .set("tw", rec.kernel.table)
      .set("win", rec.window)
      .set("NFRAMES", rec.frames)
      .set("SIG_LEN", static_cast<int32_t>(r.length));
  launch(rec.kernel, rec.grid_x, static_cast<unsigned>(r.batch), args, static_cast<hip_dl::hipStream_t>(r.stream));
}

template <class T>
void stft_in(const StftRequest& r) {
  run_record<StftFamily, T>(
      record_key(r, r.device), r.knobs != nullptr,
      [&]() -> std::optional<StftRecord> {
        const int64_t frames = stft_frames(r);
        const int device = select_device(r.device);
        const StftPlan p = stft_plan_of(r, frames, device_shared_limit(device));
        if (r.batch <= 0) return std::nullopt;
        if (p.core == codegen::kCoreFourStep) {
          run_staged<T>(r, p, device);
          return std::nullopt;
        }
        if (r.batch > kMaxGridRows) throw std::runtime_error("ondrel_stft: batch exceeds grid.y limit");
        StftRecord rec;
        rec.kernel = compiled(fused_kernel(p, device), device);
        rec.kernel.table = twiddle_device<T>(TwiddleKind::stft, r.n_fft);
        rec.window = window_table(r);
        rec.frames = static_cast<int32_t>(frames);
        rec.grid_x = static_cast<unsigned>(p.paired ? (frames + 1) / 2 : (frames + p.fpb - 1) / p.fpb);
        return rec;
      },
      [&](const StftRecord& rec) {
        select_device(r.device);
        if (r.batch > 0) run_fused(rec, r);
      });
}

}  // namespace

int64_t stft_frames(const StftRequest& r) {
  if (r.n_fft < 2) throw std::invalid_argument("stft: n_fft must be at least 2");
  if (r.length > INT_MAX) throw std::invalid_argument("stft: signal length exceeds 2147483647 samples");
  const int64_t frames = frame_count(r.length, r.n_fft, r.hop, pad_of(r), "stft");
  // An array window of the wrong length is refused before any device work.
  window_table(*r.window, r.n_fft, r.n_fft);
  return frames;
}

StftPlan stft_plan_of(const StftRequest& r, int64_t frames, uint64_t shared_limit) {
  StftPlan p = build_stft_plan(compute_prec(r), r.n_fft, r.hop, pad_of(r), r.length, frames, r.mode, kernel_eps(r),
                               shared_limit, knobs_of(r));
  p.in_prec = p.out_prec = r.prec.storage;
  p.window_kind = window_kind(r);
  return p;
}

void stft(const StftRequest& r) {
  if (r.prec.is_double()) stft_in<double>(r);
  else stft_in<float>(r);
}

std::vector<KernelPlan> stft_kernels(const StftRequest& r, uint64_t shared_limit) {
  const StftPlan p = stft_plan_of(r, stft_frames(r), shared_limit);
  if (p.core == codegen::kCoreFourStep) return staged_kernels(p, r);
  return {fused_kernel(p, r.device)};
}

}  // namespace ondrel
