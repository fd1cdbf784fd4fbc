#include "cuda_like/ops/bluestein.hpp"

#include <algorithm>
#include <climits>
#include <stdexcept>

#include "codegen/backend.hpp"
#include "cuda_like/ops/four_step.hpp"
#include "cuda_like/tables/chirp_tables.hpp"
#include "cuda_like/tables/twiddles.hpp"
#include "math/fft_schedule.hpp"
#include "rocm/context.hpp"
#include "rocm/device_pool.hpp"

namespace ondrel {

namespace {

int32_t pair_tpf(int32_t m) { return std::max(16, m <= 1024 ? m / 32 : m / 16); }

int prec_of(bool is_double) { return is_double ? 2 : 1; }

uint64_t row_bytes(int32_t m, bool is_double) {
  return static_cast<uint64_t>(codegen::bluestein_row_elements(m, prec_of(is_double))) * (is_double ? 16 : 8);
}

KernelPlan fused_kernel(int32_t n, bool is_double, bool inverse) {
  const BluesteinFusedPlan plan = bluestein_fused_plan(n, is_double, inverse);
  const int prec = prec_of(is_double);
  KernelPlan k;
  k.key = plan.key;
  k.entry = "ondrel_fft";
  k.threads = static_cast<uint32_t>(plan.tpf);
  k.shared_bytes = plan.shared_bytes;
  k.params = codegen::bluestein_row_params("iot", "iot", codegen::hip_backend().real_type(prec));
  k.text = [plan, prec] {
    return codegen::bluestein_fused_kernel(plan.n, plan.m, plan.schedule, prec, plan.tpf, codegen::hip_backend());
  };
  return k;
}

KernelPlan pair_kernel(int32_t n, bool inverse) {
  const BluesteinFusedPlan plan = bluestein_fused_plan(n, false, inverse);
  const int32_t tpf = pair_tpf(plan.m);
  const std::string real = codegen::hip_backend().real_type(1);
  KernelPlan k;
  k.key = "crblue_" + std::to_string(n) + "_" + std::to_string(plan.m) + "_1" + (inverse ? "_i" : "_f") + "_" +
          std::to_string(tpf) + "_2";
  k.entry = inverse ? "ondrel_irfft" : "ondrel_rfft";
  k.threads = static_cast<uint32_t>(tpf);
  k.shared_bytes = plan.shared_bytes;
  k.params = codegen::bluestein_row_params(inverse ? "cplx" : real, inverse ? real : "cplx", real);
  k.text = [plan, tpf, inverse] {
    return codegen::bluestein_pair_kernel(plan.n, plan.m, plan.schedule, tpf, inverse, codegen::hip_backend());
  };
  return k;
}

// The four passes of the staged form in launch order: the forward transform
// of length m with the chirp folded into its first load and the filter
// product into its last store, then the inverse transform with the chirp
// folded into its last store. The tiles follow the plan of length m.
std::vector<KernelPlan> staged_kernels(int32_t n, const FourStepPlan& plan, bool is_double, int32_t io,
                                       codegen::BluesteinMode mode) {
  using codegen::FourStepFuse;
  const int prec = prec_of(is_double), data = io == 0 ? 0 : prec;
  const std::string p = std::to_string(prec), m = std::to_string(plan.n);
  const std::string tail = std::to_string(n) + "_" + m + "_" + p + "_" + std::to_string(data) + "_" +
                           std::to_string(static_cast<int>(mode)) + "_";
  const auto chirp = [&](codegen::FourStepPass pass, FourStepFuse fuse) {
    pass.fuse = fuse;
    pass.chirp_n = n;
    pass.chirp_mode = static_cast<int>(mode);
    return pass;
  };
  codegen::FourStepPass filter = four_step_pass(plan, 2, is_double, prec, prec, false);
  filter.fuse = FourStepFuse::filter_store;
  return {
      four_step_pass_plan(plan, chirp(four_step_pass(plan, 1, is_double, data, prec, false), FourStepFuse::chirp_load),
                          "cbfs1_" + tail + four_step_tile_key(plan, 1)),
      four_step_pass_plan(plan, filter, "cbfs2m_" + m + "_" + p + "_" + four_step_tile_key(plan, 2)),
      four_step_kernel(plan, 1, is_double, prec, prec, true),
      four_step_pass_plan(plan, chirp(four_step_pass(plan, 2, is_double, prec, data, true), FourStepFuse::chirp_store),
                          "cbfs2c_" + tail + four_step_tile_key(plan, 2)),
  };
}

codegen::BluesteinMode staged_mode(bool real, bool inverse) {
  using codegen::BluesteinMode;
  return !real ? BluesteinMode::complex : inverse ? BluesteinMode::real_inverse : BluesteinMode::real_forward;
}

// One row a block (or a pair of rows: `rows_per_block` 2) of the one-kernel
// forms.
template <class T>
void launch_fused(const LaunchRecord& rec, const void* x, void* out, int64_t rows, int32_t rows_per_block,
                  const ChirpTables& tables, const void* tw, double scale, hip_dl::hipStream_t stream) {
  KernelArgs args = rec.args();
  args.set("x", x)
      .set("out", static_cast<const void*>(out))
      .set("tw", tw)
      .set("bch", tables.chirp)
      .set("filt", tables.filter)
      .set("scale", static_cast<T>(scale))
      .set("nrows", static_cast<int32_t>(rows));
  launch(rec, static_cast<unsigned>((rows + rows_per_block - 1) / rows_per_block), 1, args, stream);
}

}  // namespace

int32_t bluestein_m(int32_t n) {
  const int64_t m = bluestein_length(n);
  if (m > INT_MAX) throw std::invalid_argument("fft: n exceeds the device shared-memory limit");
  return static_cast<int32_t>(m);
}

bool bluestein_fused_fits(int32_t m, bool is_double, uint64_t shared_limit) {
  return row_bytes(m, is_double) <= shared_limit;
}

BluesteinFusedPlan bluestein_fused_plan(int32_t n, bool is_double, bool inverse) {
  BluesteinFusedPlan plan;
  plan.n = n;
  plan.m = bluestein_m(n);
  int32_t rest = 1;
  plan.schedule = factor_schedule(plan.m, rest, false);
  plan.tpf = std::max(16, plan.m / 16);
  plan.shared_bytes = row_bytes(plan.m, is_double);
  // The conjugated stages scale each composite radix by 1 / radix, so their
  // gain is the product of the prime radices; dividing by it leaves 1 / m.
  double gain = 1;
  for (int32_t r : plan.schedule)
    if (is_prime(r)) gain *= r;
  plan.scale = (inverse ? 1.0 / n : 1.0) / gain;
  plan.key = "cblue_" + std::to_string(n) + "_" + std::to_string(plan.m) + "_" + (is_double ? "2" : "1") +
             (inverse ? "_i" : "_f") + "_" + std::to_string(plan.tpf) + "x1";
  return plan;
}

template <class T>
void bluestein_fused(const void* x, void* out, int64_t rows, int32_t n, bool inverse, int device,
                     hip_dl::hipStream_t stream) {
  constexpr bool is_double = sizeof(T) == 8;
  const int32_t m = bluestein_m(n);
  if (!bluestein_fused_fits(m, is_double, device_shared_limit(device)))
    return bluestein_staged<T>(x, out, rows, n, inverse, codegen::BluesteinMode::complex, device, stream,
                               is_double ? 2 : 1);
  if (rows <= 0) return;
  const BluesteinFusedPlan plan = bluestein_fused_plan(n, is_double, inverse);
  const LaunchRecord rec = compiled(fused_kernel(n, is_double, inverse), device);
  launch_fused<T>(rec, x, out, rows, 1, chirp_tables<T>(n, m, inverse), twiddle_device<T>(TwiddleKind::fft, m),
                  plan.scale, stream);
}

template <class T>
void bluestein_staged(const void* x, void* out, int64_t rows, int32_t n, bool inverse, codegen::BluesteinMode mode,
                      int device, hip_dl::hipStream_t stream, int32_t io) {
  using codegen::BluesteinMode;
  constexpr bool is_double = sizeof(T) == 8;
  const int32_t m = bluestein_m(n);
  // The convolution's transforms must have a split before anything runs.
  const FourStepPlan plan = four_step_plan(m, is_double, io == 0, device_shared_limit(device));
  if (rows <= 0) return;
  const std::vector<KernelPlan> plans = staged_kernels(n, plan, is_double, io, mode);
  std::vector<LaunchRecord> passes;
  for (const KernelPlan& k : plans) passes.push_back(compiled(k, device));
  const ChirpTables tables = chirp_tables<T>(n, m, inverse);
  const void* tw = twiddle_device<T>(TwiddleKind::fft, m);
  const size_t elem = 2 * sizeof(T);
  const size_t complex_data = io == 0 ? 4 : elem, real_data = io == 0 ? 2 : sizeof(T);
  const size_t half_row = static_cast<size_t>(n / 2 + 1) * complex_data;
  const size_t in_row = mode == BluesteinMode::real_forward   ? static_cast<size_t>(n) * real_data
                        : mode == BluesteinMode::real_inverse ? half_row
                                                              : static_cast<size_t>(n) * complex_data;
  const size_t out_row = mode == BluesteinMode::real_inverse   ? static_cast<size_t>(n) * real_data
                         : mode == BluesteinMode::real_forward ? half_row
                                                               : static_cast<size_t>(n) * complex_data;
  const size_t scratch_row = static_cast<size_t>(m) * elem;
  const DeviceBuffer a(static_cast<size_t>(rows) * scratch_row, stream), b(static_cast<size_t>(rows) * scratch_row,
                                                                           stream);
  // The inverse transform's store conjugates but leaves its 1 / m to `scale`.
  const T scale = static_cast<T>((inverse ? 1.0 / n : 1.0) / m);
  const unsigned tiles1 = four_step_tiles(plan.n1, plan.t1), tiles2 = four_step_tiles(plan.n2, plan.t2);
  for_row_chunks(rows, [&](int64_t start, int64_t chunk) {
    const auto first = static_cast<size_t>(start);
    const void* src = static_cast<const char*>(x) + first * in_row;
    const void* dst = static_cast<char*>(out) + first * out_row;
    const void* za = static_cast<char*>(a.p) + first * scratch_row;
    const void* zb = static_cast<char*>(b.p) + first * scratch_row;
    const auto nrows = static_cast<int32_t>(chunk);
    const auto grid_y = static_cast<unsigned>(chunk);
    KernelArgs load = passes[0].args();
    load.set("x", src).set("out", za).set("tw", tw).set("bch", tables.chirp).set("nrows", nrows);
    launch(passes[0], tiles1, grid_y, load, stream);
    KernelArgs filter = passes[1].args();
    filter.set("x", za).set("out", zb).set("tw", tw).set("filt", tables.filter).set("nrows", nrows);
    launch(passes[1], tiles2, grid_y, filter, stream);
    KernelArgs back = passes[2].args();
    back.set("x", zb).set("out", za).set("tw", tw).set("nrows", nrows);
    launch(passes[2], tiles1, grid_y, back, stream);
    KernelArgs store = passes[3].args();
    store.set("x", za).set("out", dst).set("tw", tw).set("bch", tables.chirp).set("scale", scale).set("nrows", nrows);
    launch(passes[3], tiles2, grid_y, store, stream);
  });
}

template <class T>
void bluestein_fft(const void* x, void* out, int64_t rows, int32_t n, bool inverse, bool half, int device,
                   hip_dl::hipStream_t stream) {
  if (half)
    return bluestein_staged<T>(x, out, rows, n, inverse, codegen::BluesteinMode::complex, device, stream, 0);
  bluestein_fused<T>(x, out, rows, n, inverse, device, stream);
}

void bluestein_real_pair(const void* x, void* out, int64_t rows, int32_t n, bool inverse, int device,
                         hip_dl::hipStream_t stream) {
  const int32_t m = bluestein_m(n);
  if (!bluestein_fused_fits(m, false, device_shared_limit(device)))
    return bluestein_staged<float>(x, out, rows, n, inverse, staged_mode(true, inverse), device, stream, 1);
  if (rows <= 0) return;
  const BluesteinFusedPlan plan = bluestein_fused_plan(n, false, inverse);
  const LaunchRecord rec = compiled(pair_kernel(n, inverse), device);
  launch_fused<float>(rec, x, out, rows, 2, chirp_tables<float>(n, m, inverse),
                      twiddle_device<float>(TwiddleKind::fft, m), plan.scale, stream);
}

template <class T>
void bluestein_real(const void* x, void* out, int64_t rows, int32_t n, bool inverse, bool half, int device,
                    hip_dl::hipStream_t stream) {
  if constexpr (sizeof(T) == 4)
    if (!half) return bluestein_real_pair(x, out, rows, n, inverse, device, stream);
  bluestein_staged<T>(x, out, rows, n, inverse, staged_mode(true, inverse), device, stream, half ? 0 : 1);
}

std::vector<KernelPlan> bluestein_kernels(int32_t n, bool is_double, bool half, bool real, bool inverse,
                                          uint64_t shared_limit) {
  const int prec = prec_of(is_double), io = half ? 0 : prec;
  const int32_t m = bluestein_m(n);
  const bool one_kernel = !half && (!real || !is_double);
  if (one_kernel && bluestein_fused_fits(m, is_double, shared_limit))
    return {real ? pair_kernel(n, inverse) : fused_kernel(n, is_double, inverse)};
  return staged_kernels(n, four_step_plan(m, is_double, half, shared_limit), is_double, io,
                        staged_mode(real, inverse));
}

template void bluestein_fused<float>(const void*, void*, int64_t, int32_t, bool, int, hip_dl::hipStream_t);
template void bluestein_fused<double>(const void*, void*, int64_t, int32_t, bool, int, hip_dl::hipStream_t);
template void bluestein_staged<float>(const void*, void*, int64_t, int32_t, bool, codegen::BluesteinMode, int,
                                      hip_dl::hipStream_t, int32_t);
template void bluestein_staged<double>(const void*, void*, int64_t, int32_t, bool, codegen::BluesteinMode, int,
                                       hip_dl::hipStream_t, int32_t);
template void bluestein_fft<float>(const void*, void*, int64_t, int32_t, bool, bool, int, hip_dl::hipStream_t);
template void bluestein_fft<double>(const void*, void*, int64_t, int32_t, bool, bool, int, hip_dl::hipStream_t);
template void bluestein_real<float>(const void*, void*, int64_t, int32_t, bool, bool, int, hip_dl::hipStream_t);
template void bluestein_real<double>(const void*, void*, int64_t, int32_t, bool, bool, int, hip_dl::hipStream_t);

}  // namespace ondrel
