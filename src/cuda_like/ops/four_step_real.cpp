#include "cuda_like/ops/four_step_real.hpp"

#include <algorithm>
#include <functional>
#include <stdexcept>
#include <string>

#include "codegen/backend.hpp"
#include "codegen/four_step_real_kernels.hpp"
#include "cuda_like/ops/four_step.hpp"
#include "cuda_like/tables/twiddles.hpp"
#include "rocm/context.hpp"
#include "rocm/device_pool.hpp"

namespace ondrel {

namespace {

constexpr unsigned kBlock = 256;

const char* at(const void* base, int64_t row, int64_t per_row, size_t elem) {
  return static_cast<const char*>(base) + static_cast<size_t>(row) * static_cast<size_t>(per_row) * elem;
}

// The element-wise split or pack over rows of `count` work items, from `src`
// (parameter x) to `dst` (the kernel's output parameter `output`).
void launch_elements(const LaunchRecord& rec, const void* src, int64_t src_row, size_t src_elem, const char* output,
                 void* dst, int64_t dst_row, size_t dst_elem, const void* tw, int64_t rows, int64_t count,
                 hip_dl::hipStream_t stream) {
  for_row_chunks(rows, [&](int64_t start, int64_t chunk) {
    KernelArgs args = rec.args();
    args.set("x", at(src, start, src_row, src_elem))
        .set(output, at(dst, start, dst_row, dst_elem))
        .set("tw", tw)
        .set("nrows", static_cast<int32_t>(chunk));
    launch(rec, static_cast<unsigned>((count + kBlock - 1) / kBlock), static_cast<unsigned>(chunk), args, stream);
  });
}

// What the forward and inverse routes compile, decided once for the
// operation and for the text listing alike.
struct RealPlan {
  int32_t n = 0, nh = 0, prec = 1, data = 1;
  bool inverse = false;
  bool paired = false;  // forward through the split pass 2
  FourStepPlan inner;   // the complex transform of nh
  codegen::RealSplitPass second;
  uint64_t shared2 = 0;
  std::string base;
};

RealPlan real_plan(int32_t n, bool is_double, int32_t word, bool inverse, uint64_t limit) {
  if (n < 4 || n % 2 != 0) throw std::invalid_argument("four_step_real: n must be even and at least 4");
  RealPlan plan;
  plan.n = n;
  plan.nh = n / 2;
  plan.prec = is_double ? 2 : 1;
  plan.data = word == 0 ? 0 : plan.prec;
  plan.inverse = inverse;
  plan.base = std::to_string(n) + "_" + std::to_string(plan.prec) + "_" + std::to_string(plan.data);
  // Refuses with the complex path's text before any work.
  plan.inner = four_step_plan(plan.nh, is_double, plan.data == 0, limit);
  plan.paired = !inverse && plan.inner.n2 % 2 == 0;
  if (plan.paired) {
    const int32_t n1 = plan.inner.n1, n2 = plan.inner.n2, d = is_double ? 8 : 16;
    codegen::RealSplitPass& p = plan.second;
    p.n = n;
    p.n1 = n1;
    p.n2 = n2;
    p.columns = four_step_tile_columns(2 * n1, n2 / 2, is_double, plan.data == 0, limit);
    p.threads = std::clamp(2 * p.columns * n1 / d, 128, 1024);
    p.compute_prec = plan.prec;
    p.data_prec = plan.data;
    plan.shared2 = four_step_tile_bytes(2 * static_cast<int64_t>(p.columns) * n1, is_double ? 16 : 8);
  }
  return plan;
}

KernelPlan element_kernel(std::string key, std::string entry, bool pack, std::function<std::string()> text) {
  KernelPlan k;
  k.key = std::move(key);
  k.entry = std::move(entry);
  k.threads = kBlock;
  k.params = codegen::real_split_params(pack);
  k.text = std::move(text);
  return k;
}

// The kernels of the route in launch order; the complex transform of the
// plain routes is four_step's own.
std::vector<KernelPlan> real_kernels(const RealPlan& plan) {
  const auto& backend = codegen::hip_backend();
  const bool is_double = plan.prec == 2;
  if (plan.inverse)
    return {element_kernel("crpack_" + plan.base, "ondrel_rpack", true, [=, &backend] {
      return codegen::real_pack_kernel(plan.n, plan.prec, plan.data, backend);
    })};
  if (!plan.paired)
    return {element_kernel("crsplit_" + plan.base, "ondrel_rsplit", false, [=, &backend] {
      return codegen::real_split_kernel(plan.n, plan.prec, plan.data, backend);
    })};
  KernelPlan first = four_step_kernel(plan.inner, 1, is_double, plan.data, plan.prec, false);
  first.key = "cfr1_" + plan.base + "_" + std::to_string(plan.inner.t1) + "x" + std::to_string(plan.inner.threads1);
  const codegen::RealSplitPass second = plan.second;
  KernelPlan last;
  last.key = "cfr2_" + plan.base + "_" + std::to_string(second.columns) + "x" + std::to_string(second.threads);
  last.entry = "ondrel_rfft2";
  last.threads = static_cast<uint32_t>(second.threads);
  last.shared_bytes = plan.shared2;
  last.params = codegen::real_split_params(false);
  last.text = [=, &backend] { return codegen::real_pass2_kernel(second, backend); };
  return {first, last};
}

}  // namespace

std::vector<KernelPlan> four_step_real_kernels(int32_t n, bool is_double, int32_t word, bool inverse,
                                               uint64_t shared_limit) {
  const RealPlan plan = real_plan(n, is_double, word, inverse, shared_limit);
  std::vector<KernelPlan> out = real_kernels(plan);
  if (plan.paired) return out;
  const int32_t in = inverse ? plan.prec : plan.data, to = inverse ? plan.data : plan.prec;
  for (int pass = 1; pass <= 2; ++pass) out.push_back(four_step_kernel(plan.inner, pass, is_double, in, to, inverse));
  return out;
}

template <class T>
void four_step_real(const void* x, void* out, int64_t rows, int32_t n, bool inverse, int device,
                    hip_dl::hipStream_t stream, int32_t word) {
  constexpr bool is_double = sizeof(T) == 8;
  const RealPlan plan = real_plan(n, is_double, word, inverse, device_shared_limit(device));
  if (rows <= 0) return;
  const int32_t nh = plan.nh, prec = plan.prec, data = plan.data;
  const size_t elem = 2 * sizeof(T), data_elem = data == 0 ? 4 : elem;
  const std::vector<KernelPlan> kernels = real_kernels(plan);
  const void* tw = twiddle_device<T>(TwiddleKind::fft, n);
  const DeviceBuffer z(static_cast<size_t>(rows) * nh * elem, stream);

  if (inverse) {
    launch_elements(compiled(kernels[0], device), x, nh + 1, data_elem, "z", z.p, nh, elem, tw, rows, nh, stream);
    four_step<T>(z.p, out, rows, nh, true, device, stream, prec, data);
    return;
  }
  if (!plan.paired) {
    // No split with an even n2: the complex transform, then the split.
    four_step<T>(x, z.p, rows, nh, false, device, stream, data, prec);
    launch_elements(compiled(kernels[0], device), z.p, nh, elem, "out", out, nh + 1, data_elem, tw, rows, nh + 1,
                stream);
    return;
  }
  const LaunchRecord pass1 = compiled(kernels[0], device), pass2 = compiled(kernels[1], device);
  const void* tw_half = twiddle_device<T>(TwiddleKind::fft, nh);
  const FourStepPlan& inner = plan.inner;
  const codegen::RealSplitPass& second = plan.second;
  for_row_chunks(rows, [&](int64_t start, int64_t chunk) {
    const void* mid = at(z.p, start, nh, elem);
    const auto nrows = static_cast<int32_t>(chunk);
    KernelArgs first = pass1.args();
    first.set("x", at(x, start, nh, data_elem)).set("out", mid).set("tw", tw_half).set("nrows", nrows);
    launch(pass1, four_step_tiles(inner.n1, inner.t1), static_cast<unsigned>(chunk), first, stream);
    KernelArgs split = pass2.args();
    split.set("x", mid).set("out", at(out, start, nh + 1, data_elem)).set("tw", tw).set("nrows", nrows);
    launch(pass2, static_cast<unsigned>(inner.n2 / (2 * second.columns) + 1), static_cast<unsigned>(chunk), split,
           stream);
  });
}

template void four_step_real<float>(const void*, void*, int64_t, int32_t, bool, int, hip_dl::hipStream_t, int32_t);
template void four_step_real<double>(const void*, void*, int64_t, int32_t, bool, int, hip_dl::hipStream_t, int32_t);

}  // namespace ondrel
