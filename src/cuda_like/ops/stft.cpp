#include "cuda_like/ops/stft.hpp"

#include <optional>
#include <stdexcept>
#include <string>

#include "codegen/backend.hpp"
#include "cuda_like/ops/stft_steps.hpp"
#include "cuda_like/tables/twiddles.hpp"
#include "math/hashing.hpp"
#include "rocm/context.hpp"
#include "rocm/device_pool.hpp"

namespace ondrel {

namespace {

struct StftFamily {};

// What a fused plan leaves for the next call of the same request.
struct StftRecord {
  LaunchRecord kernel;  // its table is the twiddle table
  const void* window = nullptr;
  unsigned grid_x = 0;
  int32_t frames = 0;
};

uint64_t record_key(const StftRequest& r) {
  uint64_t h = combine(0xb57f, widen(r.n_fft));
  h = combine(h, widen(r.hop));
  h = combine(h, flag_word(r));
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

KernelPlan fused_kernel(const StftPlan& p, int device) {
  const codegen::Backend& b = codegen::hip_backend();
  KernelPlan k;
  k.key = "raw_stft_" + std::to_string(p.n) + "_" + std::to_string(p.hop) + "_" + std::to_string(p.prec) + "_" +
          std::to_string(p.in_prec) + "_" + std::to_string(p.mode) + "_" + std::to_string(p.window_kind) + "_" +
          std::to_string(p.pad) + "_" + std::to_string(p.fpb) + "_" + std::to_string(p.ept) + "_" +
          std::to_string(p.tpf) + "_" + std::to_string(p.core) + "_" + std::to_string(p.shp_shift) + "_" +
          std::to_string(p.shp_on ? 1 : 0) + "_d" + std::to_string(device) + eps_suffix(p.mode, p.eps);
  k.entry = "ondrel_stft";
  k.threads = static_cast<uint32_t>(p.core == codegen::kCoreMixed ? p.tpf : p.tpf * p.fpb);
  k.shared_bytes = codegen::shared_bytes(p);
  k.rows_per_block = p.paired ? 2 : p.fpb;
  k.params = codegen::stft_params(p, b);
  k.text = [p] { return codegen::stft_text(p, codegen::hip_backend()); };
  return k;
}

// The frame, and the split (even n) or output (odd n) kernels.
std::vector<KernelPlan> staged_kernels(const StftPlan& p) { return {frames_plan(p), spectrum_bins_plan(p)}; }

// Frames written out, the library FFT of every frame, then the bins.
template <class T>
void run_staged(const StftRequest& r, const StftPlan& p, int device) {
  const LaunchRecord bins = compiled(staged_kernels(p)[1], device);
  const DeviceBuffer z = staged_spectrum(r, p, device);
  const size_t out_elem = (p.out_prec == 2 ? 8 : p.out_prec == 0 ? 2 : 4) * (p.mode == 0 ? 2 : 1);
  staged_bins<T>(bins, p, z.p, r.out, out_elem, r.batch * p.nframes, r.stream);
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
      record_key(r), r.knobs != nullptr,
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

int64_t stft_frames(const StftRequest& r) { return checked_frames(r, "stft"); }

StftPlan stft_plan_of(const StftRequest& r, int64_t frames, uint64_t shared_limit) {
  return spectral_plan(r, frames, shared_limit, knobs_of(r));
}

void stft(const StftRequest& r) {
  if (r.prec.is_double()) stft_in<double>(r);
  else stft_in<float>(r);
}

std::vector<KernelPlan> stft_kernels(const StftRequest& r, uint64_t shared_limit) {
  const StftPlan p = stft_plan_of(r, stft_frames(r), shared_limit);
  if (p.core == codegen::kCoreFourStep) return staged_kernels(p);
  return {fused_kernel(p, r.device)};
}

}  // namespace ondrel
