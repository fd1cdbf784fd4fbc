#include "cuda_like/ops/features.hpp"

#include <algorithm>
#include <functional>
#include <optional>
#include <stdexcept>
#include <string>

#include "codegen/features_kernels.hpp"
#include "math/hashing.hpp"
#include "rocm/context.hpp"

namespace ondrel {

namespace {

using codegen::kFeatureThreads;

struct FeatureKernels {};  // the family of the launch records

enum class Feature : uint64_t { rms, rms_adjoint, onset, onset_adjoint, tonnetz, tonnetz_adjoint };

struct FeatureKernel {
  const char* prefix;
  const char* entry;
  codegen::KernelParams (*params)(const codegen::Backend&, int);
  std::string (*text)(int, const codegen::Backend&);
  bool reduces;  // sums over a block in shared memory
};

const FeatureKernel& kernel_of(Feature f) {
  static const FeatureKernel kernels[] = {
      {"rms_", "ondrel_rms", codegen::rms_params, codegen::rms_kernel, true},
      {"rms_adj_", "ondrel_rms_adj", codegen::rms_adjoint_params, codegen::rms_adjoint_kernel, false},
      {"onset_", "ondrel_onset", codegen::onset_params, codegen::onset_kernel, true},
      {"onset_adj_", "ondrel_onset_adj", codegen::onset_adjoint_params, codegen::onset_adjoint_kernel, false},
      {"tonnetz_", "ondrel_tonnetz", codegen::tonnetz_params, codegen::tonnetz_kernel, false},
      {"tonnetz_adj_", "ondrel_tonnetz_adj", codegen::tonnetz_adjoint_params, codegen::tonnetz_adjoint_kernel,
       false},
  };
  return kernels[static_cast<size_t>(f)];
}

// The text depends on the data's precision code alone.
KernelPlan feature_plan(Feature f, int prec) {
  const FeatureKernel& k = kernel_of(f);
  KernelPlan plan;
  plan.key = k.prefix + std::to_string(prec);
  plan.entry = k.entry;
  plan.threads = kFeatureThreads;
  plan.shared_bytes = k.reduces ? codegen::feature_reduction_bytes(prec) : 0;
  plan.params = k.params(codegen::hip_backend(), prec);
  plan.text = [text = k.text, prec] { return text(prec, codegen::hip_backend()); };
  return plan;
}

// `run` with the compiled kernel of `f` for the call's data on its device
// (current): after the first call, one lookup in the calling thread's table.
// One table serves every precision; the key holds it.
template <class Run>
void with_record(Feature f, const FeatureCall& call, Run&& run) {
  const int prec = call.prec.storage;
  const uint64_t key = combine(combine(static_cast<uint64_t>(f), static_cast<uint64_t>(prec)), widen(call.device));
  run_record<FeatureKernels, void>(
      key, false, [&]() -> std::optional<LaunchRecord> { return compiled(feature_plan(f, prec), call.device); },
      run);
}

size_t element_bytes(const Precision& p) { return p.half() ? 2 : p.is_double() ? 8 : 4; }

// The address `elements` elements of `bytes` past `p`.
const void* at(const void* p, int64_t elements, size_t bytes) {
  return static_cast<const char*>(p) + static_cast<size_t>(elements) * bytes;
}

int64_t blocks_for(int64_t items) { return (items + kFeatureThreads - 1) / kFeatureThreads; }

// A grid dimension counts its work-items in 32 bits on AMD devices.
constexpr int64_t kMaxBlocksX = 0xffffffffLL / kFeatureThreads;

void check_grid(const char* op, int64_t blocks_per_signal) {
  if (blocks_per_signal > kMaxBlocksX)
    throw std::invalid_argument(std::string(op) + ": one signal needs more than " + std::to_string(kMaxBlocksX) +
                                " blocks");
}

// Grids of `per_signal` blocks a signal on x go in launches of whole
// signals, so that a kernel's block index never passes the grid's limit.
void for_signal_chunks(int64_t signals, int64_t per_signal, const std::function<void(int64_t, int64_t)>& body) {
  const int64_t most = kMaxBlocksX / per_signal;
  for (int64_t first = 0; first < signals; first += most) body(first, std::min(most, signals - first));
}

void check_rms_counts(const RmsShape& s) {
  if (s.frame_length < 1 || s.hop < 1) throw std::invalid_argument("rms: frame_length and hop must be positive");
  if (s.batch < 0 || s.length < 0 || s.frames < 0)
    throw std::invalid_argument("rms: batch, length and frames must be non-negative");
}

int32_t pad_of(const RmsShape& s) { return s.center ? s.frame_length / 2 : 0; }

void check_tonnetz(int64_t rows) {
  if (rows < 0) throw std::invalid_argument("tonnetz: rows must be non-negative");
}

}  // namespace

void check_rms(const RmsShape& s) {
  check_rms_counts(s);
  if (s.length < 1 && s.batch > 0 && s.frames > 0)
    throw std::invalid_argument("rms: the signal needs at least one sample");
  check_grid("rms", s.frames);
}

void check_onset_strength(int64_t batch, int64_t frames, int64_t bins) {
  if (batch < 0 || frames < 0 || bins < 0)
    throw std::invalid_argument("onset strength: batch, frames and bins must be non-negative");
  if (bins < 1 && batch > 0 && frames > 0) throw std::invalid_argument("onset strength: bins must be at least 1");
  check_grid("onset strength", frames);
}

int64_t rms_frame_count(int64_t length, int32_t frame_length, int32_t hop, bool center) {
  if (frame_length < 1 || hop < 1) throw std::invalid_argument("rms: frame_length and hop must be positive");
  if (!center) {
    if (length < frame_length)
      throw std::invalid_argument("input of " + std::to_string(length) +
                                  " samples is shorter than n_fft with center=False");
    return (length - frame_length) / hop + 1;
  }
  if (length < 1) throw std::invalid_argument("rms: the signal needs at least one sample");
  return (length - (frame_length & 1)) / hop + 1;
}

void rms(const void* x, void* out, const RmsShape& s, const FeatureCall& call) {
  check_rms(s);
  select_device(call.device);
  if (s.batch == 0 || s.frames == 0) return;
  const size_t e = element_bytes(call.prec);
  with_record(Feature::rms, call, [&](const LaunchRecord& rec) {
    for_signal_chunks(s.batch, s.frames, [&](int64_t first, int64_t count) {
      KernelArgs args = rec.args();
      args.set("x", at(x, first * s.length, e))
          .set("out", at(out, first * s.frames, e))
          .set("length", s.length)
          .set("frames", s.frames)
          .set("frame_length", s.frame_length)
          .set("hop", s.hop)
          .set("pad", pad_of(s));
      launch(rec, static_cast<unsigned>(count * s.frames), 1, args, call.stream);
    });
  });
}

void rms_adjoint(const void* x, const void* y, const void* gy, void* gx, const RmsShape& s, const FeatureCall& call) {
  if (call.prec.half()) throw std::invalid_argument("rms adjoint requires widened f32 tensors");
  check_rms_counts(s);
  check_grid("rms adjoint", blocks_for(s.length));
  select_device(call.device);
  if (s.batch == 0 || s.length == 0) return;
  const size_t e = element_bytes(call.prec);
  with_record(Feature::rms_adjoint, call, [&](const LaunchRecord& rec) {
    for_row_chunks(s.batch, [&](int64_t first, int64_t count) {
      KernelArgs args = rec.args();
      args.set("x", at(x, first * s.length, e))
          .set("rms", at(y, first * s.frames, e))
          .set("gy", at(gy, first * s.frames, e))
          .set("gx", at(gx, first * s.length, e))
          .set("length", s.length)
          .set("frames", s.frames)
          .set("frame_length", s.frame_length)
          .set("hop", s.hop)
          .set("pad", pad_of(s));
      launch(rec, static_cast<unsigned>(blocks_for(s.length)), static_cast<unsigned>(count), args, call.stream);
    });
  });
}

void onset_strength(const void* m, void* out, int64_t batch, int64_t frames, int64_t bins, const FeatureCall& call) {
  check_onset_strength(batch, frames, bins);
  select_device(call.device);
  if (batch == 0 || frames == 0) return;
  const size_t e = element_bytes(call.prec);
  with_record(Feature::onset, call, [&](const LaunchRecord& rec) {
    for_signal_chunks(batch, frames, [&](int64_t first, int64_t count) {
      KernelArgs args = rec.args();
      args.set("m", at(m, first * frames * bins, e))
          .set("out", at(out, first * frames, e))
          .set("frames", frames)
          .set("bins", bins);
      launch(rec, static_cast<unsigned>(count * frames), 1, args, call.stream);
    });
  });
}

void onset_strength_adjoint(const void* m, const void* gy, void* gm, int64_t batch, int64_t frames, int64_t bins,
                            const FeatureCall& call) {
  if (call.prec.half()) throw std::invalid_argument("onset adjoint requires widened f32 tensors");
  check_onset_strength(batch, frames, bins);
  select_device(call.device);
  if (batch == 0 || frames == 0) return;
  const size_t e = element_bytes(call.prec);
  with_record(Feature::onset_adjoint, call, [&](const LaunchRecord& rec) {
    for_signal_chunks(batch, frames, [&](int64_t first, int64_t count) {
      KernelArgs args = rec.args();
      args.set("m", at(m, first * frames * bins, e))
          .set("gy", at(gy, first * frames, e))
          .set("gm", at(gm, first * frames * bins, e))
          .set("frames", frames)
          .set("bins", bins);
      launch(rec, static_cast<unsigned>(count * frames), 1, args, call.stream);
    });
  });
}

void tonnetz(const void* c, void* out, int64_t rows, const FeatureCall& call) {
  check_tonnetz(rows);
  select_device(call.device);
  if (rows == 0) return;
  const size_t e = element_bytes(call.prec);
  with_record(Feature::tonnetz, call, [&](const LaunchRecord& rec) {
    for_signal_chunks(blocks_for(rows), 1, [&](int64_t first, int64_t count) {
      const int64_t row0 = first * kFeatureThreads;
      KernelArgs args = rec.args();
      args.set("c", at(c, row0 * 12, e))
          .set("out", at(out, row0 * 6, e))
          .set("rows", std::min(rows - row0, count * kFeatureThreads));
      launch(rec, static_cast<unsigned>(count), 1, args, call.stream);
    });
  });
}

void tonnetz_adjoint(const void* c, const void* gy, void* gc, int64_t rows, const FeatureCall& call) {
  if (call.prec.half()) throw std::invalid_argument("tonnetz adjoint requires widened f32 tensors");
  check_tonnetz(rows);
  select_device(call.device);
  if (rows == 0) return;
  const size_t e = element_bytes(call.prec);
  with_record(Feature::tonnetz_adjoint, call, [&](const LaunchRecord& rec) {
    for_signal_chunks(blocks_for(rows), 1, [&](int64_t first, int64_t count) {
      const int64_t row0 = first * kFeatureThreads;
      KernelArgs args = rec.args();
      args.set("c", at(c, row0 * 12, e))
          .set("gy", at(gy, row0 * 6, e))
          .set("gc", at(gc, row0 * 12, e))
          .set("rows", std::min(rows - row0, count * kFeatureThreads));
      launch(rec, static_cast<unsigned>(count), 1, args, call.stream);
    });
  });
}

std::vector<KernelPlan> feature_kernels(const Precision& prec) {
  const int p = prec.storage;
  std::vector<KernelPlan> plans = {feature_plan(Feature::rms, p), feature_plan(Feature::onset, p),
                                   feature_plan(Feature::tonnetz, p)};
  if (!prec.half())
    for (Feature f : {Feature::rms_adjoint, Feature::onset_adjoint, Feature::tonnetz_adjoint})
      plans.push_back(feature_plan(f, p));
  return plans;
}

}  // namespace ondrel
