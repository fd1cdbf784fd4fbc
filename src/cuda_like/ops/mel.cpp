#include "cuda_like/ops/mel.hpp"

#include <cmath>
#include <optional>
#include <stdexcept>
#include <string>

#include "codegen/backend.hpp"
#include "codegen/mel_kernels.hpp"
#include "cuda_like/ops/stft_steps.hpp"
#include "cuda_like/tables/twiddles.hpp"
#include "math/hashing.hpp"
#include "rocm/context.hpp"
#include "rocm/device_pool.hpp"

namespace ondrel {

namespace {

struct MelFamily {};

// What a fused plan leaves for the next call of the same request.
struct MelRecord {
  LaunchRecord kernel;  // its table is the twiddle table
  const void* window = nullptr;
  MelDevice bank;
  unsigned grid_x = 0;
  int32_t frames = 0;
};

// 1 for magnitudes, 2 for squares: the two texts the power rows can have.
int32_t power_form(double power) { return static_cast<int64_t>(power) == 1 ? 1 : 2; }

uint64_t record_key(const MelRequest& r) {
  const StftRequest& s = r.stft;
  uint64_t h = combine(0x3e1, widen(s.n_fft));
  h = combine(h, widen(s.hop));
  h = combine(h, flag_word(s) + (static_cast<uint64_t>(r.fb->n_mels) << 16));
  h = combine(h, s.window->hash);
  h = combine(h, static_cast<uint64_t>(s.length));
  h = combine(h, r.fb->hash);
  return combine(h, combine(s.mode == 3 ? bits_of(s.eps) : 0, bits_of(r.power)));
}

TuneEntry knobs_of(const MelRequest& r) {
  const StftRequest& s = r.stft;
  if (s.knobs) return *s.knobs;
  Precision width = s.prec;
  width.packed = half_compute(s);
  return tuned_entry(tuning_key(TuneOp::mel, s.n_fft, s.hop, s.center, width.width_code(), s.mode, r.fb->n_mels,
                                s.device))
      .value_or(TuneEntry{});
}

KernelPlan fused_kernel(const StftPlan& p, int device) {
  KernelPlan k;
  k.key = "raw_mel_" + std::to_string(p.n) + "_" + std::to_string(p.hop) + "_" + std::to_string(p.prec) + "_" +
          std::to_string(p.in_prec) + "_" + std::to_string(p.mode) + "_" + std::to_string(p.n_mels) + "_" +
          std::to_string(p.power) + "_" + std::to_string(p.window_kind) + "_" + std::to_string(p.pad) + "_" +
          std::to_string(p.fpb) + "_" + std::to_string(p.ept) + "_" + std::to_string(p.tpf) + "_" +
          std::to_string(p.core) + "_" + std::to_string(p.shp_shift) + "_" + std::to_string(p.shp_on ? 1 : 0) + "_d" +
          std::to_string(device) + eps_suffix(p.mode, p.eps);
  k.entry = "ondrel_mel";
  k.threads = static_cast<uint32_t>(p.core == codegen::kCoreMixed ? p.tpf : p.tpf * p.fpb);
  k.shared_bytes = codegen::mel_shared_bytes(p);
  k.rows_per_block = p.paired ? 2 : p.fpb;
  k.params = codegen::mel_params(p, codegen::hip_backend());
  k.text = [p] { return codegen::mel_text(p, codegen::hip_backend()); };
  return k;
}

codegen::MelReduce reduce_of(const StftPlan& p) {
  codegen::MelReduce m;
  m.n = p.n;
  m.n_mels = p.n_mels;
  m.prec = p.prec == 2 ? 2 : 1;
  m.out_prec = p.out_prec;
  m.mode = p.mode;
  m.eps = p.eps;
  return m;
}

// The split into power rows of the compute type (half arithmetic keeps its
// rows in float), then the band sums.
std::vector<KernelPlan> staged_kernels(const StftPlan& p) {
  codegen::StagedStft split = staged_of(p);
  split.mode = p.power;
  split.out_prec = p.prec == 2 ? 2 : 1;
  // Not the STFT's "cfsmode_" key: with half data its output is half, and
  // these power rows are float.
  const std::string form = staged_tail(p) + "_m" + std::to_string(p.power);
  KernelPlan bins = bins_plan(split, p.paired, (p.paired ? "cmelmode_" : "cmelsplit_") + form);
  const codegen::MelReduce red = reduce_of(p);
  KernelPlan sums;
  sums.key = "cmelred_" + staged_tail(p) + "_" + std::to_string(p.n_mels) +
             (p.mode == 1 ? "_mag" : p.mode == 3 ? "_db" + eps_suffix(3, p.eps).substr(2) : "");
  sums.entry = "ondrel_melred";
  sums.threads = kStagedBlock;
  sums.params = codegen::melred_params(red, codegen::hip_backend());
  sums.text = [red] { return codegen::melred_kernel(red, codegen::hip_backend()); };
  return {frames_plan(p), bins, sums};
}

template <class T>
void run_staged(const MelRequest& r, const StftPlan& p, int device) {
  const StftRequest& s = r.stft;
  const std::vector<KernelPlan> plans = staged_kernels(p);
  const LaunchRecord bins = compiled(plans[1], device), sums = compiled(plans[2], device);
  const MelDevice bank = mel_device<T>(*r.fb, s.n_fft, false);
  const int64_t rows = s.batch * p.nframes;
  const DeviceBuffer power(static_cast<size_t>(rows) * p.bins() * sizeof(T), static_cast<hip_dl::hipStream_t>(s.stream));
  {
    const DeviceBuffer z = staged_spectrum(s, p, device);
    staged_bins<T>(bins, p, z.p, power.p, sizeof(T), rows, s.stream);
  }
  const auto blocks = static_cast<unsigned>((p.n_mels + kStagedBlock - 1) / kStagedBlock);
  for_row_chunks(rows, [&](int64_t start, int64_t count) {
    KernelArgs args = sums.args();
    args.set("P", static_cast<const void*>(power.p))
        .set("mel", s.out)
        .set("lo", bank.lo)
        .set("off", bank.off)
        .set("w", bank.w)
        .set("row0", start);
    launch(sums, blocks, static_cast<unsigned>(count), args, static_cast<hip_dl::hipStream_t>(s.stream));
  });
}

void run_fused(const MelRecord& rec, const StftRequest& s) {
  KernelArgs args = rec.kernel.args();
  args.set("y", s.y)
      .set("mel", static_cast<const void*>(s.out))
      .set("tw", rec.kernel.table)
      .set("win", rec.window)
      .set("fb_lo", rec.bank.lo)
      .set("fb_off", rec.bank.off)
      .set("fb_w", rec.bank.w)
      .set("NFRAMES", rec.frames)
      .set("SIG_LEN", static_cast<int32_t>(s.length));
  launch(rec.kernel, rec.grid_x, static_cast<unsigned>(s.batch), args, static_cast<hip_dl::hipStream_t>(s.stream));
}

template <class T>
void mel_in(const MelRequest& r) {
  const StftRequest& s = r.stft;
  run_record<MelFamily, T>(
      record_key(r), s.knobs != nullptr,
      [&]() -> std::optional<MelRecord> {
        const int64_t frames = mel_frames(r);
        const int device = select_device(s.device);
        const uint64_t limit = device_shared_limit(device);
        const StftPlan p = mel_plan_of(r, frames, limit);
        if (s.batch <= 0) return std::nullopt;
        if (p.core == codegen::kCoreFourStep) {
          run_staged<T>(r, p, device);
          return std::nullopt;
        }
        if (codegen::mel_shared_bytes(p) > limit)
          throw std::invalid_argument("mel: n_fft exceeds the device shared-memory limit");
        if (s.batch > kMaxGridRows) throw std::runtime_error("ondrel_mel: batch exceeds grid.y limit");
        MelRecord rec;
        rec.kernel = compiled(fused_kernel(p, device), device);
        rec.kernel.table = twiddle_device<T>(TwiddleKind::stft, s.n_fft);
        rec.window = window_table(s);
        rec.bank = mel_device<T>(*r.fb, s.n_fft, s.prec.half());
        rec.frames = static_cast<int32_t>(frames);
        rec.grid_x = static_cast<unsigned>(p.paired ? (frames + 1) / 2 : (frames + p.fpb - 1) / p.fpb);
        return rec;
      },
      [&](const MelRecord& rec) {
        select_device(s.device);
        if (s.batch > 0) run_fused(rec, s);
      });
}

}  // namespace

int64_t mel_frames(const MelRequest& r) {
  const StftRequest& s = r.stft;
  if (s.n_fft < 2) throw std::invalid_argument("mel: n_fft must be at least 2");
  if (r.fb->bins != s.n_fft / 2 + 1) throw std::invalid_argument("mel: filterbank bins != n_fft/2+1");
  if (r.fb->n_mels < 1) throw std::invalid_argument("mel: the filterbank needs at least one row");
  // A power below 1 would truncate to a form nobody asked for.
  if (!(r.power >= 1.0) || !std::isfinite(r.power)) throw std::invalid_argument("mel: power must be at least 1");
  return checked_frames(s, "mel");
}

void fit_mel_plan(StftPlan& p, int32_t n_mels, int32_t power, uint64_t shared_limit) {
  p.n_mels = n_mels;
  p.power = power;
  if (p.core == codegen::kCoreFourStep) return;
  if (p.core != codegen::kCoreMixed)
    while (p.fpb > 1 && codegen::mel_shared_bytes(p) > shared_limit) --p.fpb;
  if (codegen::mel_shared_bytes(p) > shared_limit) p.core = codegen::kCoreFourStep;
}

StftPlan mel_plan_of(const MelRequest& r, int64_t frames, uint64_t shared_limit) {
  StftPlan p = spectral_plan(r.stft, frames, shared_limit, knobs_of(r));
  fit_mel_plan(p, r.fb->n_mels, power_form(r.power), shared_limit < 1 ? 98304 : shared_limit);
  return p;
}

void mel(const MelRequest& r) {
  if (r.stft.prec.is_double()) mel_in<double>(r);
  else mel_in<float>(r);
}

std::vector<KernelPlan> mel_kernels(const MelRequest& r, uint64_t shared_limit) {
  const StftPlan p = mel_plan_of(r, mel_frames(r), shared_limit);
  if (p.core == codegen::kCoreFourStep) return staged_kernels(p);
  return {fused_kernel(p, r.stft.device)};
}

}  // namespace ondrel
