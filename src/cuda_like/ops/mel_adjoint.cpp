#include "cuda_like/ops/mel_adjoint.hpp"

#include <cmath>
#include <cstring>
#include <optional>
#include <stdexcept>
#include <string>

#include "codegen/mel_adjoint_kernels.hpp"
#include "cuda_like/ops/adjoint.hpp"
#include "math/hashing.hpp"
#include "rocm/context.hpp"

namespace ondrel {

namespace {

using codegen::MelAdjointPlan;

struct MelAdjointFamily {};

struct MelAdjointRecord {
  LaunchRecord main, fold;
  const void* window = nullptr;
  const void* twg = nullptr;
  MelDevice bank;
};

constexpr unsigned kBlock = 256;

AdjointCall call_of(const MelAdjointRequest& r) { return adjoint_call(r, r.mode, r.eps); }

MelAdjointPlan plan_of(const AdjointCall& c, const MelAdjointRequest& r, int32_t depth) {
  MelAdjointPlan p;
  p.frame = c.plan;
  p.n_mels = static_cast<int32_t>(r.n_mels);
  p.power = static_cast<int64_t>(r.power) == 1 ? 1 : 2;
  p.wide = depth > 2;
  return p;
}

// N_hop_P_mode_nmels_E_power, and "_w" for the full transpose.
std::string tail(const MelAdjointPlan& p) {
  const codegen::AdjointPlan& f = p.frame;
  return std::to_string(f.n) + "_" + std::to_string(f.hop) + "_" + adjoint_digit(f) + "_" + std::to_string(f.mode) +
         "_" + std::to_string(p.n_mels) + "_" + eps_decimal(f.eps) + "_" + std::to_string(p.power) +
         (p.wide ? "_w" : "");
}

KernelPlan frame_plan(const MelAdjointPlan& p, int device) {
  const codegen::AdjointPlan& f = p.frame;
  return {.key = "adj_mel_" + std::to_string(f.n) + "_" + std::to_string(f.hop) + "_" + adjoint_digit(f) + "_" +
                 std::to_string(f.window_kind) + "_" + std::to_string(f.mode) + "_" + std::to_string(p.n_mels) + "_" +
                 std::to_string(f.pad) + "_" + eps_decimal(f.eps) + "_" + std::to_string(p.power) + "_" +
                 std::to_string(f.deterministic ? 1 : 0) + "_d" + std::to_string(device) + (p.wide ? "_w" : ""),
          .entry = "mel_adjoint",
          .threads = static_cast<uint32_t>(f.tpf),
          .shared_bytes = codegen::mel_adjoint_shared_bytes(p),
          .params = codegen::mel_adjoint_params(p, codegen::hip_backend()),
          .text = [p] { return codegen::mel_adjoint_kernel(p, codegen::hip_backend()); }};
}

std::vector<KernelPlan> staged_plans(const MelAdjointPlan& p) {
  const codegen::Backend& b = codegen::hip_backend();
  return {{.key = "cmacoef_" + tail(p),
           .entry = "ondrel_meladjcoef",
           .threads = kBlock,
           .params = codegen::meladjcoef_params(p, b),
           .text = [p] { return codegen::meladjcoef_kernel(p, codegen::hip_backend()); }},
          {.key = "cmapack_" + tail(p),
           .entry = "ondrel_meladjpack",
           .threads = kBlock,
           .params = codegen::meladjpack_params(p, b),
           .text = [p] { return codegen::meladjpack_kernel(p, codegen::hip_backend()); }}};
}

void set_transpose(KernelArgs& a, const MelAdjointPlan& p, const MelDevice& bank) {
  if (p.wide) {
    a.set("bin_off", bank.col_off).set("bin_band", bank.col_band).set("bin_w", bank.col_w);
    return;
  }
  a.set("bin_b0", bank.b0).set("bin_b1", bank.b1).set("bin_w0", bank.w0).set("bin_w1", bank.w1);
}

void set_bands(KernelArgs& a, const MelDevice& bank) {
  a.set("fb_lo", bank.lo).set("fb_off", bank.off).set("fb_w", bank.w);
}

void run_fused(const AdjointCall& c, const MelAdjointPlan& p, const MelAdjointRecord& rec,
               const MelAdjointRequest& r) {
  const DeviceBuffer graw = raw_buffer(c);
  KernelArgs a = rec.main.args();
  a.set("gM", r.g).set("y", r.x).set("graw", graw.p).set("win", rec.window).set("twg", rec.twg);
  set_bands(a, rec.bank);
  set_transpose(a, p, rec.bank);
  a.set("NF", static_cast<int32_t>(r.frames)).set("SIG_LEN", static_cast<int32_t>(r.length));
  a.set("out_len", c.out_len());
  set_strides(a, r);
  launch(rec.main, static_cast<unsigned>(r.frames), static_cast<unsigned>(r.batch), a, stream_of(c));
  fold(c, rec.fold, graw.p, r.gx);
}

void run_staged(const AdjointCall& c, const MelAdjointPlan& p, const MelDevice& bank, const MelAdjointRequest& r) {
  const std::vector<KernelPlan> plans = staged_plans(p);
  const LaunchRecord coef_kernel = compiled(plans[0], c.device), pack_kernel = compiled(plans[1], c.device);
  const auto stream = stream_of(c);
  const int64_t rows = c.batch * c.frames;
  const size_t real = r.is_double ? 8 : 4;
  const DeviceBuffer z(static_cast<size_t>(rows) * p.frame.n * 2 * real, stream);
  {
    const DeviceBuffer spectrum = spectrum_rows(c, r.x);
    const DeviceBuffer coef(static_cast<size_t>(rows) * p.n_mels * real, stream);
    for_row_chunks(rows, [&](int64_t start, int64_t count) {
      KernelArgs a = coef_kernel.args();
      a.set("gM", r.g).set("X", static_cast<const void*>(spectrum.p)).set("coef", coef.p);
      set_bands(a, bank);
      a.set("NF", static_cast<int32_t>(c.frames)).set("row0", start);
      set_strides(a, r);
      launch(coef_kernel, static_cast<unsigned>((p.n_mels + kBlock - 1) / kBlock), static_cast<unsigned>(count), a,
             stream);
    });
    for_row_chunks(rows, [&](int64_t start, int64_t count) {
      KernelArgs a = pack_kernel.args();
      a.set("X", static_cast<const void*>(spectrum.p)).set("coef", static_cast<const void*>(coef.p));
      set_transpose(a, p, bank);
      a.set("bufA", z.p).set("row0", start);
      launch(pack_kernel, static_cast<unsigned>((p.frame.n + kBlock - 1) / kBlock), static_cast<unsigned>(count), a,
             stream);
    });
  }
  staged_transpose(c, z.p, r.gx);
}

uint64_t record_key(const AdjointCall& c, const MelAdjointRequest& r) {
  uint64_t power;
  std::memcpy(&power, &r.power, sizeof power);
  return combine(combine(record_key(c, 0xad4), r.fb->hash), power);
}

template <class T>
void mel_adjoint_in(const MelAdjointRequest& r) {
  const AdjointCall c = call_of(r);
  run_record<MelAdjointFamily, T>(
      record_key(c, r), false,
      [&]() -> std::optional<MelAdjointRecord> {
        window_table(*r.window, r.n_fft, r.n_fft);
        const int device = select_device(r.device);
        const MelDevice bank = mel_device<T>(*r.fb, r.n_fft, false);
        const MelAdjointPlan p = plan_of(c, r, bank.depth);
        if (!adjoint_fused(r.n_fft, codegen::mel_adjoint_shared_bytes(p), device_shared_limit(device))) {
          run_staged(c, p, bank, r);
          return std::nullopt;
        }
        MelAdjointRecord rec;
        rec.main = compiled(frame_plan(p, device), device);
        rec.fold = compiled(fold_plan(p.frame, p.frame.deterministic), device);
        rec.window = adjoint_window(c);
        rec.twg = adjoint_twiddles(c);
        rec.bank = bank;
        return rec;
      },
      [&](const MelAdjointRecord& rec) {
        select_device(r.device);
        run_fused(c, plan_of(c, r, rec.bank.depth), rec, r);
      });
}

}  // namespace

void check_mel_adjoint(const MelAdjointRequest& r) {
  if (r.fb->n_mels != r.n_mels || r.fb->bins != r.n_fft / 2 + 1)
    throw std::invalid_argument("mel_adjoint: filterbank shape must be (n_mels, n_fft/2+1)");
  check_adjoint_frame(r.n_fft, r.hop, r.length, "mel_adjoint");
  if (!(r.power >= 1.0) || !std::isfinite(r.power))
    throw std::invalid_argument("mel_adjoint: power must be at least 1");
  check_adjoint_batch(r.batch, "mel_adjoint");
}

void mel_adjoint(const MelAdjointRequest& r) {
  check_mel_adjoint(r);
  if (r.batch < 1 || r.length < 1) return;
  if (r.frames < 1 || r.n_mels < 1) {
    select_device(r.device);
    return zero_gradient(call_of(r), r.gx);
  }
  if (r.is_double) mel_adjoint_in<double>(r);
  else mel_adjoint_in<float>(r);
}

std::vector<KernelPlan> mel_adjoint_kernels(const MelAdjointRequest& r, uint64_t shared_limit) {
  check_mel_adjoint(r);
  const AdjointCall c = call_of(r);
  const MelAdjointPlan p = plan_of(c, r, build_mel_table(*r.fb).depth);
  if (adjoint_fused(r.n_fft, codegen::mel_adjoint_shared_bytes(p), shared_limit))
    return {frame_plan(p, r.device), fold_plan(p.frame, p.frame.deterministic)};
  std::vector<KernelPlan> plans = staged_plans(p);
  for (KernelPlan& k : staged_transpose_plans(p.frame)) plans.push_back(std::move(k));
  return plans;
}

}  // namespace ondrel
