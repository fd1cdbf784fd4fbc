#include "cuda_like/ops/spectral_fused.hpp"

#include <stdexcept>

#include "codegen/backend.hpp"
#include "cuda_like/ops/stft_steps.hpp"
#include "cuda_like/tables/twiddles.hpp"
#include "math/fft_schedule.hpp"
#include "math/hashing.hpp"
#include "rocm/context.hpp"

namespace ondrel {

namespace {

struct FusedFeatures {};  // the family of the launch records

// What a request leaves for its next call: the kernel and its tables, or
// that the route declined, which depends on nothing outside the key either.
struct FusedRecord {
  bool fused = false;
  LaunchRecord kernel;
  const void* window = nullptr;
  unsigned grid_x = 0;
  int32_t frames = 0;
};

bool declines_at_once(const FeatureSignal& s) { return s.prec.half() || s.n_fft < 2 || !is_pow2(s.n_fft); }

uint64_t record_key(const FeatureSignal& s, const FusedFeature& f) {
  uint64_t h = combine(0x5fe7, widen(s.n_fft));
  h = combine(h, widen(s.hop));
  h = combine(h, flag_word(magnitude_request(s, nullptr)));
  h = combine(h, s.window->hash);
  h = combine(h, static_cast<uint64_t>(s.length));
  h = combine(h, static_cast<uint64_t>(f.feature));
  return combine(h, f.record_word);
}

template <class T>
bool run_in(const FeatureSignal& s, const FusedFeature& f, const FeatureArgs& a) {
  bool ran = false;
  run_record<FusedFeatures, T>(
      record_key(s, f), false,
      [&]() -> std::optional<FusedRecord> {
        FusedRecord rec;
        if (declines_at_once(s)) return rec;
        const int64_t frames = feature_frames(s);
        const int device = select_device(s.device);
        const std::optional<StftPlan> p = fused_feature_plan(s, f, device_shared_limit(device));
        if (!p) return rec;
        if (s.batch > kMaxGridRows) throw std::runtime_error("ondrel_stft: batch exceeds grid.y limit");
        rec.fused = true;
        rec.kernel = compiled(fused_feature_kernel(*p, f, device), device);
        rec.kernel.table = twiddle_device<T>(TwiddleKind::stft, s.n_fft);
        rec.window = window_table(magnitude_request(s, nullptr));
        rec.frames = static_cast<int32_t>(frames);
        rec.grid_x = rec.kernel.row_blocks(frames);
        return rec;
      },
      [&](const FusedRecord& rec) {
        ran = rec.fused;
        if (!ran || s.batch <= 0) return;
        select_device(s.device);
        KernelArgs args = rec.kernel.args();
        args.set("y", s.x)
            .set("out", static_cast<const void*>(s.out))
            .set("tw", rec.kernel.table)
            .set("win", rec.window)
            .set("NFRAMES", rec.frames)
            .set("SIG_LEN", static_cast<int32_t>(s.length))
            .set("fstep", static_cast<T>(a.fstep))
            .set("pp", static_cast<T>(a.pp))
            .set("amin", static_cast<T>(a.amin))
            .set("roll", static_cast<T>(a.roll));
        if (a.bands) a.bands(args);
        launch(rec.kernel, rec.grid_x, static_cast<unsigned>(s.batch), args, s.stream);
      });
  return ran;
}

}  // namespace

StftRequest magnitude_request(const FeatureSignal& s, void* out) {
  StftRequest r;
  r.y = s.x;
  r.out = out;
  r.batch = s.batch;
  r.length = s.length;
  r.n_fft = s.n_fft;
  r.hop = s.hop;
  r.center = s.center;
  r.mode = 1;
  r.eps = 1e-10;
  r.window = s.window;
  r.prec = s.prec;
  r.device = s.device;
  r.stream = s.stream;
  return r;
}

int64_t feature_frames(const FeatureSignal& s) { return checked_frames(magnitude_request(s, nullptr), "stft"); }

std::optional<StftPlan> fused_feature_plan(const FeatureSignal& s, const FusedFeature& f, uint64_t shared_limit) {
  if (declines_at_once(s)) return std::nullopt;
  const StftRequest r = magnitude_request(s, nullptr);
  StftPlan p = spectral_plan(r, checked_frames(r, "stft"), shared_limit, TuneEntry{});
  if (p.core == codegen::kCoreFourStep) return std::nullopt;
  p.feature = f.feature;
  p.feature_extra = f.extra;
  while (p.fpb > 1 && codegen::shared_bytes(p) > shared_limit) --p.fpb;
  if (codegen::shared_bytes(p) > shared_limit) return std::nullopt;
  return p;
}

KernelPlan fused_feature_kernel(const StftPlan& p, const FusedFeature& f, int device) {
  KernelPlan k;
  k.key = f.key_prefix + std::to_string(p.n) + "_" + std::to_string(p.hop) + "_" + f.key_fields + "_" +
          std::to_string(p.prec) + "_" + std::to_string(p.window_kind) + "_" + std::to_string(p.pad) + "_" +
          std::to_string(p.fpb) + "_" + std::to_string(p.ept) + "_" + std::to_string(p.tpf) + "_" +
          std::to_string(p.core) + "_d" + std::to_string(device);
  k.entry = "ondrel_stft";
  k.threads = static_cast<uint32_t>(p.tpf * p.fpb);
  k.shared_bytes = codegen::shared_bytes(p);
  k.rows_per_block = p.fpb;
  k.params = codegen::stft_params(p, codegen::hip_backend());
  k.text = [p, hook = f.hook] { return codegen::stft_text(p, codegen::hip_backend(), hook); };
  return k;
}

bool run_fused_feature(const FeatureSignal& s, const FusedFeature& f, const FeatureArgs& a) {
  if (s.prec.is_double()) return run_in<double>(s, f, a);
  return run_in<float>(s, f, a);
}

}  // namespace ondrel
