#include "cuda_like/ops/spectral.hpp"

#include <stdexcept>
#include <string>

#include "codegen/backend.hpp"
#include "codegen/spectral_kernels.hpp"
#include "math/hashing.hpp"
#include "rocm/context.hpp"
#include "rocm/device_pool.hpp"

namespace ondrel {

namespace {

struct SpectralRows {};  // the family of the launch records

int compute_of(const Precision& p) { return p.is_double() ? kDoubleCode : kSingleCode; }

size_t element_bytes(int code) { return code == kHalfCode ? 2 : code == kDoubleCode ? 8 : 4; }

KernelPlan row_plan(int stat, bool adjoint, const Precision& prec) {
  const int compute = compute_of(prec), storage = adjoint ? compute : prec.storage;
  const codegen::Backend& b = codegen::hip_backend();
  KernelPlan plan;
  plan.key = adjoint ? "spectral_adj_" + std::to_string(stat) + "_" + std::to_string(compute)
                     : "spectral_" + std::to_string(stat) + "_" + std::to_string(compute) + "_" +
                           std::to_string(storage);
  plan.entry = adjoint ? "ondrel_spectral_adj" : "ondrel_spectral";
  plan.threads = codegen::kSpectralThreads;
  plan.shared_bytes = codegen::spectral_shared_bytes(compute);
  plan.params = adjoint ? codegen::spectral_adjoint_params(b, compute) : codegen::spectral_params(b, compute, storage);
  plan.text = [=] {
    return adjoint ? codegen::spectral_adjoint_kernel(stat, compute, codegen::hip_backend())
                   : codegen::spectral_kernel(stat, compute, storage, codegen::hip_backend());
  };
  return plan;
}

// `run` with the compiled row kernel on the call's device (current).
template <class Run>
void with_row_kernel(int stat, bool adjoint, const FeatureCall& call, Run&& run) {
  uint64_t key = combine(combine(adjoint ? 0x5ad : 0x5ec, static_cast<uint64_t>(stat)), widen(call.device));
  key = combine(combine(key, static_cast<uint64_t>(call.prec.storage)), static_cast<uint64_t>(compute_of(call.prec)));
  run_record<SpectralRows, void>(
      key, false,
      [&]() -> std::optional<LaunchRecord> { return compiled(row_plan(stat, adjoint, call.prec), call.device); }, run);
}

// Scalars reach the kernel in its arithmetic.
template <class T>
void set_scalars(KernelArgs& args, const SpectralScalars& s, bool with_roll) {
  args.set("fstep", static_cast<T>(s.fstep)).set("pp", static_cast<T>(s.p)).set("amin", static_cast<T>(s.amin));
  if (with_roll) args.set("roll", static_cast<T>(s.roll));
}

void set_scalars(KernelArgs& args, const SpectralScalars& s, bool with_roll, const Precision& prec) {
  if (prec.is_double()) set_scalars<double>(args, s, with_roll);
  else set_scalars<float>(args, s, with_roll);
}

const void* at(const void* p, int64_t elements, size_t bytes) {
  return static_cast<const char*>(p) + static_cast<size_t>(elements) * bytes;
}

void check_rows(int64_t rows, int64_t n) {
  if (rows > 0 && n < 1) throw std::invalid_argument("spectral: n must be at least 1, got " + std::to_string(n));
}

FusedFeature fused_of(int stat) {
  FusedFeature f;
  f.feature = stat;
  f.key_prefix = "spectral_stft_";
  f.key_fields = std::to_string(stat);
  f.record_word = static_cast<uint64_t>(stat);
  f.hook = codegen::spectral_epilogue;
  return f;
}

}  // namespace

void check_spectral(int stat, const SpectralScalars& s) {
  if (stat < codegen::kCentroid || stat > codegen::kRolloff)
    throw std::invalid_argument(
        "spectral: stat must be 0 (centroid), 1 (bandwidth), 2 (flatness) or 3 (rolloff), got " + std::to_string(stat));
  if (stat == codegen::kBandwidth && !(s.p > 0))
    throw std::invalid_argument("spectral: p must be positive for the bandwidth, got " + std::to_string(s.p));
  if (stat == codegen::kFlatness && !(s.amin > 0))
    throw std::invalid_argument("spectral: amin must be positive for flatness, got " + std::to_string(s.amin));
}

void spectral_reduce(const void* m, void* out, int64_t rows, int64_t n, int stat, const SpectralScalars& s,
                     const FeatureCall& call) {
  check_spectral(stat, s);
  check_rows(rows, n);
  select_device(call.device);
  if (rows < 1) return;
  const size_t e = element_bytes(call.prec.storage);
  with_row_kernel(stat, false, call, [&](const LaunchRecord& rec) {
    for_row_chunks(rows, [&](int64_t start, int64_t count) {
      KernelArgs args = rec.args();
      args.set("M", at(m, start * n, e)).set("out", at(out, start, e)).set("n", n);
      set_scalars(args, s, true, call.prec);
      launch(rec, static_cast<unsigned>(count), 1, args, call.stream);
    });
  });
}

void spectral_adjoint(const void* m, const void* gy, void* gm, int64_t rows, int64_t n, int stat,
                      const SpectralScalars& s, const FeatureCall& call) {
  if (call.prec.half()) throw std::invalid_argument("spectral: half gradients compute in f32 - upcast the tensors");
  if (stat == codegen::kRolloff)
    throw std::invalid_argument("spectral: rolloff (stat 3) is a step function of the magnitudes and has no gradient");
  check_spectral(stat, s);
  check_rows(rows, n);
  select_device(call.device);
  if (rows < 1) return;
  const size_t e = element_bytes(call.prec.storage);
  with_row_kernel(stat, true, call, [&](const LaunchRecord& rec) {
    for_row_chunks(rows, [&](int64_t start, int64_t count) {
      KernelArgs args = rec.args();
      args.set("M", at(m, start * n, e)).set("gy", at(gy, start, e)).set("gM", at(gm, start * n, e)).set("n", n);
      set_scalars(args, s, false, call.prec);
      launch(rec, static_cast<unsigned>(count), 1, args, call.stream);
    });
  });
}

bool spectral_signal(const FeatureSignal& sig, int stat, const SpectralScalars& s) {
  check_spectral(stat, s);
  FeatureArgs a;
  a.fstep = s.fstep;
  a.pp = s.p;
  a.amin = s.amin;
  a.roll = s.roll;
  return run_fused_feature(sig, fused_of(stat), a);
}

void spectral_of_signal(const FeatureSignal& sig, int stat, const SpectralScalars& s) {
  if (spectral_signal(sig, stat, s)) return;
  const int64_t rows = sig.batch * feature_frames(sig), bins = sig.n_fft / 2 + 1;
  const DeviceBuffer mag(static_cast<size_t>(rows * bins) * element_bytes(sig.prec.storage), sig.stream);
  stft(magnitude_request(sig, mag.p));
  spectral_reduce(mag.p, sig.out, rows, bins, stat, s, {sig.prec, sig.device, sig.stream});
}

std::vector<KernelPlan> spectral_row_kernels(int stat, const Precision& prec) {
  check_spectral(stat, SpectralScalars{});
  std::vector<KernelPlan> plans{row_plan(stat, false, prec)};
  if (!prec.half() && stat != codegen::kRolloff) plans.push_back(row_plan(stat, true, prec));
  return plans;
}

std::optional<KernelPlan> spectral_fused_kernel(const FeatureSignal& sig, int stat, uint64_t shared_limit) {
  check_spectral(stat, SpectralScalars{});
  const FusedFeature f = fused_of(stat);
  const std::optional<StftPlan> p = fused_feature_plan(sig, f, shared_limit);
  if (!p) return std::nullopt;
  return fused_feature_kernel(*p, f, 0);
}

}  // namespace ondrel
