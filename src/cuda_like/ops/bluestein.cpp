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

constexpr unsigned kBlock = 256;  // threads of the staged kernels
constexpr int64_t kGridY = 65535;

unsigned blocks_for(int64_t count) { return static_cast<unsigned>((count + kBlock - 1) / kBlock); }

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

// The three element-wise kernels of the staged form, in launch order.
std::vector<KernelPlan> staged_kernels(int32_t n, int32_t m, bool is_double, int32_t io, codegen::BluesteinMode mode,
                                       bool inverse) {
  const codegen::Backend& b = codegen::hip_backend();
  const int prec = prec_of(is_double), data = io == 0 ? 0 : prec;
  const std::string p = std::to_string(prec);
  const std::string tail = std::to_string(n) + "_" + std::to_string(m) + "_" + p + "_" + std::to_string(data) + "_" +
                           std::to_string(static_cast<int>(mode)) + (inverse ? "_i" : "_f");
  std::vector<KernelPlan> k(3);
  k[0].key = "cgbpre_" + tail;
  k[0].entry = "ondrel_bgpre";
  k[0].params = codegen::bluestein_pre_params(b, prec, data, mode);
  k[0].text = [=] { return codegen::bluestein_pre_kernel(n, m, prec, data, mode, codegen::hip_backend()); };
  k[1].key = "cgbmul_" + std::to_string(m) + "_" + p;
  k[1].entry = "ondrel_bgmul";
  k[1].params = codegen::bluestein_mul_params();
  k[1].text = [=] { return codegen::bluestein_mul_kernel(m, prec, codegen::hip_backend()); };
  k[2].key = "cgbpost_" + tail;
  k[2].entry = "ondrel_bgpost";
  k[2].params = codegen::bluestein_post_params(b, prec, data, mode);
  k[2].text = [=] { return codegen::bluestein_post_kernel(n, m, prec, data, mode, codegen::hip_backend()); };
  for (KernelPlan& plan : k) plan.threads = kBlock;
  return k;
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
  constexpr bool is_double = sizeof(T) == 8;
  constexpr int prec = is_double ? 2 : 1;
  const int32_t m = bluestein_m(n);
  // Both convolution transforms must have a split before anything runs.
  four_step_plan(m, is_double, device_shared_limit(device));
  if (rows > kGridY) throw std::runtime_error("ondrel_bgpre: batch exceeds grid.y limit");
  if (rows <= 0) return;
  const std::vector<KernelPlan> plans = staged_kernels(n, m, is_double, io, mode, inverse);
  const LaunchRecord pre = compiled(plans[0], device), mul = compiled(plans[1], device),
                     post = compiled(plans[2], device);
  const ChirpTables tables = chirp_tables<T>(n, m, inverse);
  const DeviceBuffer scratch(static_cast<size_t>(rows) * static_cast<size_t>(m) * 2 * sizeof(T), stream);
  const auto grid_y = static_cast<unsigned>(rows);
  const void* z = scratch.p;

  KernelArgs pre_args = pre.args();
  pre_args.set("x", x).set("out", z).set("bch", tables.chirp);
  launch(pre, blocks_for(m), grid_y, pre_args, stream);
  four_step<T>(z, scratch.p, rows, m, false, device, stream, prec, prec);
  KernelArgs mul_args = mul.args();
  mul_args.set("z", z).set("filt", tables.filter);
  launch(mul, blocks_for(m), grid_y, mul_args, stream);
  four_step<T>(z, scratch.p, rows, m, true, device, stream, prec, prec);
  const int64_t count = mode == codegen::BluesteinMode::real_forward ? n / 2 + 1 : n;
  KernelArgs post_args = post.args();
  post_args.set("z", z).set("out", static_cast<const void*>(out)).set("bch", tables.chirp)
      .set("scale", static_cast<T>(inverse ? 1.0 / n : 1.0));
  launch(post, blocks_for(count), grid_y, post_args, stream);
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
  std::vector<KernelPlan> out = staged_kernels(n, m, is_double, io, staged_mode(real, inverse), inverse);
  const FourStepPlan plan = four_step_plan(m, is_double, shared_limit);
  for (bool inv : {false, true})
    for (int pass = 1; pass <= 2; ++pass) out.push_back(four_step_kernel(plan, pass, is_double, prec, prec, inv));
  return out;
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
