#include "cuda_like/ops/bluestein.hpp"

#include <algorithm>
#include <climits>
#include <stdexcept>

#include "codegen/backend.hpp"
#include "math/fft_schedule.hpp"
#include "cuda_like/ops/four_step.hpp"
#include "cuda_like/tables/chirp_tables.hpp"
#include "cuda_like/tables/twiddles.hpp"
#include "rocm/compile.hpp"
#include "rocm/context.hpp"
#include "rocm/device_pool.hpp"

namespace ondrel {

namespace {

constexpr unsigned kBlock = 256;  // threads of the staged kernels
constexpr int64_t kGridY = 65535;

unsigned blocks_for(int64_t count) { return static_cast<unsigned>((count + kBlock - 1) / kBlock); }

int32_t pair_tpf(int32_t m) { return std::max(16, m <= 1024 ? m / 32 : m / 16); }

std::string pair_key(int32_t n, int32_t m, bool inverse) {
  return "crblue_" + std::to_string(n) + "_" + std::to_string(m) + "_1" + (inverse ? "_i" : "_f") + "_" +
         std::to_string(pair_tpf(m)) + "_2";
}

}  // namespace

int32_t bluestein_m(int32_t n) {
  const int64_t m = bluestein_length(n);
  if (m > INT_MAX) throw std::invalid_argument("fft: n exceeds the device shared-memory limit");
  return static_cast<int32_t>(m);
}

bool bluestein_fused_fits(int32_t m, bool is_double, uint64_t shared_limit) {
  const uint64_t extra = static_cast<uint64_t>(rader_scratch(m));
  const uint64_t mm = static_cast<uint64_t>(m);
  const uint64_t bytes = is_double ? (mm + extra + mm / 8 + 1) * 16 : (mm + extra + mm / 16) * 8 + 8;
  return bytes <= shared_limit;
}

BluesteinFusedPlan bluestein_fused_plan(int32_t n, bool is_double, bool inverse) {
  BluesteinFusedPlan plan;
  plan.n = n;
  plan.m = bluestein_m(n);
  int32_t rest = 1;
  plan.schedule = factor_schedule(plan.m, rest, false);
  plan.tpf = std::max(16, plan.m / 16);
  const int shift = is_double ? 3 : 4;
  plan.shared_bytes = static_cast<uint64_t>((plan.m >> shift) + plan.m + 1 + rader_scratch(plan.m)) *
                      (is_double ? 16 : 8);
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

std::string bluestein_staged_key(const char* family, int32_t n, int32_t m, bool is_double, int32_t io,
                                 codegen::BluesteinMode mode, bool inverse) {
  const char* p = is_double ? "2" : "1";
  if (std::string(family) == "cgbmul_") return family + std::to_string(m) + "_" + p;
  return family + std::to_string(n) + "_" + std::to_string(m) + "_" + p + "_" + (io == 0 ? "0" : p) + "_" +
         std::to_string(static_cast<int>(mode)) + (inverse ? "_i" : "_f");
}

template <class T>
void bluestein_fused(const void* x, void* out, int64_t rows, int32_t n, bool inverse, int device,
                     hip_dl::hipStream_t stream) {
  constexpr bool is_double = sizeof(T) == 8;
  const int32_t m = bluestein_m(n);
  if (!bluestein_fused_fits(m, is_double, device_shared_limit(device)))
    return bluestein_staged<T>(x, out, rows, n, inverse, codegen::BluesteinMode::complex, device, stream,
                               is_double ? 2 : 1);
  const BluesteinFusedPlan plan = bluestein_fused_plan(n, is_double, inverse);
  check_shared(plan.shared_bytes, device, "bluestein: M");
  if (rows <= 0) return;
  const ChirpTables tables = chirp_tables<T>(n, m, inverse);
  const void* bch = tables.chirp;
  const void* filt = tables.filter;
  const void* tw = twiddle_device<T>(TwiddleKind::fft, m);
  const hip_dl::hipFunction_t fn = kernel_function(
      plan.key, device,
      [&] {
        return codegen::bluestein_fused_kernel(n, m, plan.schedule, is_double ? 2 : 1, plan.tpf,
                                               codegen::hip_backend());
      },
      "ondrel_fft");
  T scale = static_cast<T>(plan.scale);
  int nrows = static_cast<int>(rows);
  void* args[] = {&x, &out, &tw, &bch, &filt,
                  &scale, &nrows};
  launch_kernel(fn, static_cast<unsigned>(rows), 1, static_cast<unsigned>(plan.tpf),
                static_cast<unsigned>(plan.shared_bytes), args, "ondrel_fft", stream);
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
  const int data = io == 0 ? 0 : prec;
  const auto& backend = codegen::hip_backend();
  const hip_dl::hipFunction_t pre = kernel_function(
      bluestein_staged_key("cgbpre_", n, m, is_double, data, mode, inverse), device,
      [&] { return codegen::bluestein_pre_kernel(n, m, prec, data, mode, backend); }, "ondrel_bgpre");
  const hip_dl::hipFunction_t mul =
      kernel_function(bluestein_staged_key("cgbmul_", n, m, is_double, data, mode, inverse), device,
                      [&] { return codegen::bluestein_mul_kernel(m, prec, backend); }, "ondrel_bgmul");
  const hip_dl::hipFunction_t post = kernel_function(
      bluestein_staged_key("cgbpost_", n, m, is_double, data, mode, inverse), device,
      [&] { return codegen::bluestein_post_kernel(n, m, prec, data, mode, backend); }, "ondrel_bgpost");
  const ChirpTables tables = chirp_tables<T>(n, m, inverse);
  const void* bch = tables.chirp;
  const void* filt = tables.filter;
  const DeviceBuffer scratch(static_cast<size_t>(rows) * static_cast<size_t>(m) * 2 * sizeof(T), stream);
  const auto grid_y = static_cast<unsigned>(rows);

  void* z = scratch.p;
  const void* zc = scratch.p;
  void* pre_args[] = {&x, &z, &bch};
  launch_kernel(pre, blocks_for(m), grid_y, kBlock, 0, pre_args, "ondrel_bgpre", stream);
  four_step<T>(z, z, rows, m, false, device, stream, prec, prec);
  void* mul_args[] = {&z, &filt};
  launch_kernel(mul, blocks_for(m), grid_y, kBlock, 0, mul_args, "ondrel_bgmul", stream);
  four_step<T>(z, z, rows, m, true, device, stream, prec, prec);
  T scale = static_cast<T>(inverse ? 1.0 / n : 1.0);
  const int64_t count = mode == codegen::BluesteinMode::real_forward ? n / 2 + 1 : n;
  void* post_args[] = {&zc, &out, &bch, &scale};
  launch_kernel(post, blocks_for(count), grid_y, kBlock, 0, post_args, "ondrel_bgpost", stream);
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
    return bluestein_staged<float>(x, out, rows, n, inverse,
                                   inverse ? codegen::BluesteinMode::real_inverse : codegen::BluesteinMode::real_forward,
                                   device, stream, 1);
  const BluesteinFusedPlan plan = bluestein_fused_plan(n, false, inverse);
  const int32_t tpf = pair_tpf(m);
  check_shared(plan.shared_bytes, device, "bluestein: M");
  if (rows <= 0) return;
  const ChirpTables tables = chirp_tables<float>(n, m, inverse);
  const void* bch = tables.chirp;
  const void* filt = tables.filter;
  const void* tw = twiddle_device<float>(TwiddleKind::fft, m);
  const hip_dl::hipFunction_t fn = kernel_function(
      pair_key(n, m, inverse), device,
      [&] { return codegen::bluestein_pair_kernel(n, m, plan.schedule, tpf, inverse, codegen::hip_backend()); },
      inverse ? "ondrel_irfft" : "ondrel_rfft");
  float scale = static_cast<float>(plan.scale);
  int nrows = static_cast<int>(rows);
  void* args[] = {&x, &out, &tw, &bch, &filt, &scale, &nrows};
  launch_kernel(fn, static_cast<unsigned>((rows + 1) / 2), 1, static_cast<unsigned>(tpf),
                static_cast<unsigned>(plan.shared_bytes), args, inverse ? "ondrel_irfft" : "ondrel_rfft", stream);
}

template <class T>
void bluestein_real(const void* x, void* out, int64_t rows, int32_t n, bool inverse, bool half, int device,
                    hip_dl::hipStream_t stream) {
  if constexpr (sizeof(T) == 4)
    if (!half) return bluestein_real_pair(x, out, rows, n, inverse, device, stream);
  bluestein_staged<T>(x, out, rows, n, inverse,
                      inverse ? codegen::BluesteinMode::real_inverse : codegen::BluesteinMode::real_forward, device,
                      stream, half ? 0 : 1);
}

std::vector<std::pair<std::string, std::string>> bluestein_texts(int32_t n, bool is_double, bool half, bool real,
                                                                 bool inverse, uint64_t shared_limit) {
  using codegen::BluesteinMode;
  const auto& backend = codegen::hip_backend();
  const int prec = is_double ? 2 : 1, io = half ? 0 : prec;
  const int32_t m = bluestein_m(n);
  std::vector<std::pair<std::string, std::string>> out;
  const bool one_kernel = !half && (!real || !is_double);
  if (one_kernel && bluestein_fused_fits(m, is_double, shared_limit)) {
    const BluesteinFusedPlan plan = bluestein_fused_plan(n, is_double, inverse);
    if (!real) {
      out.emplace_back(plan.key, codegen::bluestein_fused_kernel(n, m, plan.schedule, prec, plan.tpf, backend));
      return out;
    }
    out.emplace_back(pair_key(n, m, inverse),
                     codegen::bluestein_pair_kernel(n, m, plan.schedule, pair_tpf(m), inverse, backend));
    return out;
  }
  const BluesteinMode mode = !real ? BluesteinMode::complex
                             : inverse ? BluesteinMode::real_inverse
                                       : BluesteinMode::real_forward;
  out.emplace_back(bluestein_staged_key("cgbpre_", n, m, is_double, io, mode, inverse),
                   codegen::bluestein_pre_kernel(n, m, prec, io, mode, backend));
  out.emplace_back(bluestein_staged_key("cgbmul_", n, m, is_double, io, mode, inverse),
                   codegen::bluestein_mul_kernel(m, prec, backend));
  out.emplace_back(bluestein_staged_key("cgbpost_", n, m, is_double, io, mode, inverse),
                   codegen::bluestein_post_kernel(n, m, prec, io, mode, backend));
  const FourStepPlan plan = four_step_plan(m, is_double, shared_limit);
  for (bool inv : {false, true})
    for (int pass = 1; pass <= 2; ++pass)
      out.emplace_back(four_step_key(plan, pass, is_double, prec, prec, inv),
                       codegen::four_step_pass_kernel(four_step_pass(plan, pass, is_double, prec, prec, inv), backend));
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
