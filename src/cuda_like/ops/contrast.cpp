#include "cuda_like/ops/contrast.hpp"

#include <algorithm>
#include <stdexcept>
#include <string>

#include "codegen/backend.hpp"
#include "codegen/contrast_kernels.hpp"
#include "cuda_like/tables/table_cache.hpp"
#include "math/hashing.hpp"
#include "rocm/context.hpp"
#include "rocm/device_pool.hpp"

namespace ondrel {

namespace {

struct ContrastRows {};  // the family of the launch records

enum class RowKernel : uint64_t { sort, histogram, sort_adjoint, histogram_adjoint };

int compute_of(const Precision& p) { return p.is_double() ? kDoubleCode : kSingleCode; }

size_t element_bytes(int code) { return code == kHalfCode ? 2 : code == kDoubleCode ? 8 : 4; }

bool is_adjoint(RowKernel k) { return k == RowKernel::sort_adjoint || k == RowKernel::histogram_adjoint; }

RowKernel row_kernel(Selection s, bool adjoint) {
  if (s == Selection::sort) return adjoint ? RowKernel::sort_adjoint : RowKernel::sort;
  return adjoint ? RowKernel::histogram_adjoint : RowKernel::histogram;
}

// The sort's shared bytes depend on the call's bands and are set at each
// launch; the histogram's are fixed.
KernelPlan row_plan(RowKernel k, const Precision& prec) {
  const bool adjoint = is_adjoint(k);
  const int compute = compute_of(prec), storage = adjoint ? compute : prec.storage;
  const bool sort = k == RowKernel::sort || k == RowKernel::sort_adjoint;
  const codegen::Backend& b = codegen::hip_backend();
  KernelPlan plan;
  plan.key = std::string(sort ? "contrast_" : "contrastg_") + (adjoint ? "adj_" : "") + std::to_string(compute);
  if (!adjoint) plan.key += '_' + std::to_string(storage);
  plan.entry = std::string(sort ? "ondrel_contrast" : "ondrel_contrastg") + (adjoint ? "_adj" : "");
  plan.threads = codegen::kContrastThreads;
  plan.shared_bytes = sort ? 0 : codegen::kContrastHistogramBytes;
  plan.params = adjoint ? codegen::contrast_adjoint_params(b, compute) : codegen::contrast_params(b, compute, storage);
  plan.text = [=] {
    const codegen::Backend& hip = codegen::hip_backend();
    switch (k) {
      case RowKernel::sort: return codegen::contrast_kernel(compute, storage, hip);
      case RowKernel::histogram: return codegen::contrast_histogram_kernel(compute, storage, hip);
      case RowKernel::sort_adjoint: return codegen::contrast_adjoint_kernel(compute, hip);
      case RowKernel::histogram_adjoint: return codegen::contrast_histogram_adjoint_kernel(compute, hip);
    }
    return std::string();
  };
  return plan;
}

// `run` with the compiled kernel on the call's device (current), its
// shared bytes set to `shared`.
template <class Run>
void with_row_kernel(RowKernel k, const FeatureCall& call, uint64_t shared, Run&& run) {
  uint64_t key = combine(combine(0xc0a7, static_cast<uint64_t>(k)), widen(call.device));
  key = combine(combine(key, static_cast<uint64_t>(call.prec.storage)), static_cast<uint64_t>(compute_of(call.prec)));
  run_record<ContrastRows, void>(
      key, false, [&]() -> std::optional<LaunchRecord> { return compiled(row_plan(k, call.prec), call.device); },
      [&](const LaunchRecord& found) {
        LaunchRecord rec = found;
        rec.shared_bytes = static_cast<uint32_t>(shared);
        run(rec);
      });
}

// The device table of the bands, edges then counts, under a key that
// spells every value: a later call with other bands can never find it.
const int32_t* band_table(const Bands& bands) {
  std::string key = "cbands";
  const auto spell = [&key](int32_t v) {
    key += '_';
    key += std::to_string(v);
  };
  for (int32_t e : bands.edges) spell(e);
  key += "_q";
  for (int32_t q : bands.counts) spell(q);
  std::vector<int32_t> data(bands.edges);
  data.insert(data.end(), bands.counts.begin(), bands.counts.end());
  return static_cast<const int32_t*>(table_by_name(key, data));
}

void set_band_tables(KernelArgs& args, const int32_t* table, const Bands& bands) {
  args.set("bt", table).set("bq", table + bands.edges.size());
}

template <class T>
void set_scalars(KernelArgs& args, int64_t n, const Bands& bands, double amin, bool linear) {
  args.set("n", n)
      .set("nbands", static_cast<int32_t>(bands.counts.size()))
      .set("amin", static_cast<T>(amin))
      .set("linear", static_cast<int32_t>(linear ? 1 : 0));
}

void check_amin(double amin, bool linear) {
  if (!linear && !(amin > 0))
    throw std::invalid_argument("contrast: amin must be positive for decibels, got " + std::to_string(amin));
}

const void* at(const void* p, int64_t elements, size_t bytes) {
  return static_cast<const char*>(p) + static_cast<size_t>(elements) * bytes;
}

FusedFeature fused_of(const Bands& bands) {
  const auto n_bands = static_cast<int32_t>(bands.counts.size());
  const int64_t maxpad = bands_maxpad(bands);
  FusedFeature f;
  f.feature = 4;
  f.extra = static_cast<int32_t>(maxpad);
  f.key_prefix = "contrast_stft_";
  f.key_fields = std::to_string(n_bands) + "_" + std::to_string(maxpad);
  f.record_word = combine(widen(n_bands), static_cast<uint64_t>(maxpad));
  f.hook = codegen::contrast_epilogue(n_bands);
  return f;
}

int32_t bins_of(const FeatureSignal& sig) { return sig.n_fft / 2 + 1; }

}  // namespace

void check_bands(const Bands& bands, int64_t n) {
  const size_t n_bands = bands.counts.size();
  if (bands.edges.size() != n_bands + 1)
    throw std::invalid_argument("contrast: band table must hold n_bands + 1 edges");
  if (n_bands < 1) throw std::invalid_argument("contrast: at least one band is needed");
  if (n_bands > static_cast<size_t>(kMaxGridRows))
    throw std::invalid_argument("contrast: at most 65535 bands, got " + std::to_string(n_bands));
  for (size_t i = 0; i <= n_bands; ++i) {
    const int32_t e = bands.edges[i];
    if (e < 0 || e > n)
      throw std::invalid_argument("contrast: band edge " + std::to_string(e) + " lies outside [0, " +
                                  std::to_string(n) + "]");
    if (i > 0 && e < bands.edges[i - 1])
      throw std::invalid_argument("contrast: band edges must not decrease, got " + std::to_string(bands.edges[i - 1]) +
                                  " then " + std::to_string(e));
  }
  for (size_t b = 0; b < n_bands; ++b) {
    const int32_t width = bands.edges[b + 1] - bands.edges[b], q = bands.counts[b];
    if (q < 1 || q > width)
      throw std::invalid_argument("contrast: band " + std::to_string(b) + " has " + std::to_string(width) +
                                  " bins and takes q = " + std::to_string(q) + "; q must lie in [1, width]");
  }
}

int64_t bands_maxpad(const Bands& bands) {
  int64_t maxpad = 2;
  for (size_t b = 0; b + 1 < bands.edges.size(); ++b)
    maxpad = std::max(maxpad, codegen::band_pad(bands.edges[b + 1] - bands.edges[b]));
  return maxpad;
}

Selection contrast_selection(int compute, int64_t maxpad, bool adjoint, uint64_t shared_limit) {
  const uint64_t sort = adjoint ? codegen::contrast_sort_adjoint_bytes(compute, maxpad)
                                : codegen::contrast_sort_bytes(compute, maxpad);
  return sort <= shared_limit ? Selection::sort : Selection::histogram;
}

void contrast_reduce(const void* m, void* out, int64_t rows, int64_t n, const Bands& bands, double amin, bool linear,
                     const FeatureCall& call) {
  check_bands(bands, n);
  check_amin(amin, linear);
  const int device = select_device(call.device);
  if (rows < 1) return;
  const int compute = compute_of(call.prec);
  const int64_t maxpad = bands_maxpad(bands);
  const Selection s = contrast_selection(compute, maxpad, false, device_shared_limit(device));
  const uint64_t shared =
      s == Selection::sort ? codegen::contrast_sort_bytes(compute, maxpad) : codegen::kContrastHistogramBytes;
  const size_t e = element_bytes(call.prec.storage);
  const auto n_bands = static_cast<int64_t>(bands.counts.size());
  const int32_t* table = band_table(bands);
  with_row_kernel(row_kernel(s, false), call, shared, [&](const LaunchRecord& rec) {
    for_row_chunks(rows, [&](int64_t start, int64_t count) {
      KernelArgs args = rec.args();
      args.set("M", at(m, start * n, e)).set("out", at(out, start * n_bands, e));
      set_band_tables(args, table, bands);
      if (call.prec.is_double()) set_scalars<double>(args, n, bands, amin, linear);
      else set_scalars<float>(args, n, bands, amin, linear);
      launch(rec, static_cast<unsigned>(count), static_cast<unsigned>(n_bands), args, call.stream);
    });
  });
}

void contrast_adjoint(const void* m, const void* gy, void* gm, int64_t rows, int64_t n, const Bands& bands,
                      double amin, bool linear, const FeatureCall& call) {
  check_bands(bands, n);
  if (call.prec.half()) throw std::invalid_argument("contrast: half gradients compute in f32 - upcast the tensors");
  check_amin(amin, linear);
  const int device = select_device(call.device);
  if (rows < 1) return;
  const int compute = compute_of(call.prec);
  const int64_t maxpad = bands_maxpad(bands);
  const Selection s = contrast_selection(compute, maxpad, true, device_shared_limit(device));
  const uint64_t shared =
      s == Selection::sort ? codegen::contrast_sort_adjoint_bytes(compute, maxpad) : codegen::kContrastHistogramBytes;
  const size_t e = element_bytes(call.prec.storage);
  const auto n_bands = static_cast<int64_t>(bands.counts.size());
  // The kernels add into their bands; every other bin keeps this 0.
  hip_check(hip_dl::api().MemsetD8Async(gm, 0, static_cast<size_t>(rows * n) * e, call.stream), __FILE__, __LINE__,
            "memsetD8Async(gmp, 0, (size_t)rows * n * sizeof(T), (stream_t)stream)");
  const int32_t* table = band_table(bands);
  with_row_kernel(row_kernel(s, true), call, shared, [&](const LaunchRecord& rec) {
    for_row_chunks(rows, [&](int64_t start, int64_t count) {
      KernelArgs args = rec.args();
      args.set("M", at(m, start * n, e)).set("gy", at(gy, start * n_bands, e)).set("gM", at(gm, start * n, e));
      set_band_tables(args, table, bands);
      if (call.prec.is_double()) set_scalars<double>(args, n, bands, amin, linear);
      else set_scalars<float>(args, n, bands, amin, linear);
      launch(rec, static_cast<unsigned>(count), static_cast<unsigned>(n_bands), args, call.stream);
    });
  });
}

bool contrast_signal(const FeatureSignal& sig, const Bands& bands, double amin, bool linear) {
  check_bands(bands, bins_of(sig));
  check_amin(amin, linear);
  FeatureArgs a;
  a.amin = amin;
  a.roll = linear ? 1 : 0;
  a.bands = [&bands](KernelArgs& args) { set_band_tables(args, band_table(bands), bands); };
  return run_fused_feature(sig, fused_of(bands), a);
}

void contrast_of_signal(const FeatureSignal& sig, const Bands& bands, double amin, bool linear) {
  if (contrast_signal(sig, bands, amin, linear)) return;
  const int64_t rows = sig.batch * feature_frames(sig), bins = bins_of(sig);
  const DeviceBuffer mag(static_cast<size_t>(rows * bins) * element_bytes(sig.prec.storage), sig.stream);
  stft(magnitude_request(sig, mag.p));
  contrast_reduce(mag.p, sig.out, rows, bins, bands, amin, linear, {sig.prec, sig.device, sig.stream});
}

std::vector<KernelPlan> contrast_row_kernels(const Precision& prec) {
  std::vector<KernelPlan> plans{row_plan(RowKernel::sort, prec), row_plan(RowKernel::histogram, prec)};
  if (!prec.half()) {
    plans.push_back(row_plan(RowKernel::sort_adjoint, prec));
    plans.push_back(row_plan(RowKernel::histogram_adjoint, prec));
  }
  return plans;
}

std::optional<KernelPlan> contrast_fused_kernel(const FeatureSignal& sig, const Bands& bands, uint64_t shared_limit) {
  check_bands(bands, bins_of(sig));
  const FusedFeature f = fused_of(bands);
  const std::optional<StftPlan> p = fused_feature_plan(sig, f, shared_limit);
  if (!p) return std::nullopt;
  return fused_feature_kernel(*p, f, 0);
}

}  // namespace ondrel
