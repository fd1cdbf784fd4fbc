#include "cuda_like/ops/four_step.hpp"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "codegen/backend.hpp"
#include "cuda_like/tables/twiddles.hpp"
#include "rocm/context.hpp"
#include "rocm/device_pool.hpp"

namespace ondrel {

namespace {

// Data words normalised to the instantiation: 0 stays half, the rest is full width.
int32_t width_word(int32_t word, bool is_double) { return word == 0 ? 0 : (is_double ? 2 : 1); }

// Bytes a row segment of a tile must span: below this a strided access
// wastes most of each memory transaction.
constexpr int32_t kSegmentBytes = 64;

// Columns of a tile: the widest from 16 down that fits `budget` and the
// columns there are. A width that divides the columns is kept when its row
// segments still span kSegmentBytes of the narrowest element; otherwise the
// widest fitting one is taken and the last tile of the row is ragged.
int32_t tile_columns(int32_t length, int32_t available, uint32_t elem, uint64_t budget, uint32_t narrow) {
  int32_t widest = 16;
  while (widest > 1 &&
         !(four_step_tile_bytes(static_cast<int64_t>(widest) * length, elem) <= budget && widest <= available))
    widest /= 2;
  int32_t exact = widest;
  while (exact > 1 && available % exact != 0) exact /= 2;
  return static_cast<int64_t>(exact) * narrow >= kSegmentBytes ? exact : widest;
}

uint32_t narrow_bytes(bool is_double, bool half_data) { return half_data ? 4 : (is_double ? 16 : 8); }

}  // namespace

unsigned four_step_tiles(int32_t columns, int32_t tile) { return static_cast<unsigned>((columns + tile - 1) / tile); }

uint64_t four_step_tile_bytes(int64_t count, uint32_t elem) {
  return static_cast<uint64_t>(codegen::four_step_tile_elements(count)) * elem;
}

int32_t four_step_split(int32_t n, bool is_double, uint64_t shared_limit) {
  const uint32_t elem = is_double ? 16 : 8;
  for (int32_t f = static_cast<int32_t>(std::sqrt(static_cast<double>(n))); f >= 2; --f)
    if (n % f == 0 && four_step_tile_bytes(f, elem) <= shared_limit &&
        four_step_tile_bytes(n / f, elem) <= shared_limit)
      return f;
  return 0;
}

int32_t four_step_tile_columns(int32_t length, int32_t available, bool is_double, bool half_data,
                               uint64_t shared_limit) {
  return tile_columns(length, available, is_double ? 16 : 8, is_double ? shared_limit / 2 : shared_limit,
                      narrow_bytes(is_double, half_data));
}

FourStepPlan four_step_plan(int32_t n, bool is_double, bool half_data, uint64_t shared_limit) {
  const uint32_t elem = is_double ? 16 : 8;
  FourStepPlan plan;
  plan.n = n;
  plan.n1 = four_step_split(n, is_double, shared_limit);
  if (plan.n1 == 0) throw std::invalid_argument("fft: n exceeds the device shared-memory limit");
  plan.n2 = n / plan.n1;
  const uint64_t budget = is_double ? shared_limit / 2 : shared_limit;
  const int32_t d = is_double ? 8 : 16;
  const uint32_t narrow = narrow_bytes(is_double, half_data);
  plan.t1 = tile_columns(plan.n2, plan.n1, elem, budget, narrow);
  plan.t2 = tile_columns(plan.n1, plan.n2, elem, budget, narrow);
  plan.threads1 = std::clamp(plan.t1 * plan.n2 / d, 128, 1024);
  plan.threads2 = std::clamp(plan.t2 * plan.n1 / d, 128, 1024);
  plan.shared1 = four_step_tile_bytes(static_cast<int64_t>(plan.t1) * plan.n2, elem);
  plan.shared2 = four_step_tile_bytes(static_cast<int64_t>(plan.t2) * plan.n1, elem);
  return plan;
}

codegen::FourStepPass four_step_pass(const FourStepPlan& plan, int pass, bool is_double, int32_t in_word,
                                     int32_t out_word, bool inverse) {
  codegen::FourStepPass p;
  p.n = plan.n;
  p.n1 = plan.n1;
  p.n2 = plan.n2;
  p.pass = pass;
  p.columns = pass == 1 ? plan.t1 : plan.t2;
  p.threads = pass == 1 ? plan.threads1 : plan.threads2;
  p.compute_prec = is_double ? 2 : 1;
  p.data_prec = width_word(pass == 1 ? in_word : out_word, is_double);
  p.inverse = inverse;
  return p;
}

KernelPlan four_step_pass_plan(const FourStepPlan& plan, const codegen::FourStepPass& p, std::string key) {
  KernelPlan k;
  k.key = std::move(key);
  k.entry = "ondrel_fft";
  k.threads = static_cast<uint32_t>(p.threads);
  k.shared_bytes = p.pass == 1 ? plan.shared1 : plan.shared2;
  k.params = codegen::four_step_params(p, codegen::hip_backend());
  k.text = [p] { return codegen::four_step_pass_kernel(p, codegen::hip_backend()); };
  return k;
}

std::string four_step_tile_key(const FourStepPlan& plan, int pass) {
  return pass == 1 ? std::to_string(plan.t1) + "x" + std::to_string(plan.threads1)
                   : std::to_string(plan.t2) + "x" + std::to_string(plan.threads2);
}

KernelPlan four_step_kernel(const FourStepPlan& plan, int pass, bool is_double, int32_t in_word, int32_t out_word,
                            bool inverse) {
  const std::string base = std::to_string(plan.n) + "_" + (is_double ? "2" : "1") + "_" +
                           std::to_string(width_word(in_word, is_double)) +
                           std::to_string(width_word(out_word, is_double)) + (inverse ? "_i" : "_f");
  return four_step_pass_plan(plan, four_step_pass(plan, pass, is_double, in_word, out_word, inverse),
                             (pass == 1 ? "cfs1v2_" : "cfs2v2_") + base + "_" + four_step_tile_key(plan, pass));
}

template <class T>
void four_step(const void* x, void* out, int64_t rows, int32_t n, bool inverse, int device,
               hip_dl::hipStream_t stream, int32_t in_word, int32_t out_word) {
  constexpr bool is_double = sizeof(T) == 8;
  const bool half_data = width_word(in_word, is_double) == 0 || width_word(out_word, is_double) == 0;
  const FourStepPlan plan = four_step_plan(n, is_double, half_data, device_shared_limit(device));
  if (rows <= 0) return;
  const LaunchRecord pass1 = compiled(four_step_kernel(plan, 1, is_double, in_word, out_word, inverse), device);
  const LaunchRecord pass2 = compiled(four_step_kernel(plan, 2, is_double, in_word, out_word, inverse), device);
  const void* tw = twiddle_device<T>(TwiddleKind::fft, n);
  const size_t elem = 2 * sizeof(T);
  const size_t in_elem = width_word(in_word, is_double) == 0 ? 4 : elem;
  const size_t out_elem = width_word(out_word, is_double) == 0 ? 4 : elem;
  const DeviceBuffer scratch(static_cast<size_t>(rows) * static_cast<size_t>(n) * elem, stream);
  for_row_chunks(rows, [&](int64_t start, int64_t chunk) {
    const auto offset = static_cast<size_t>(start) * static_cast<size_t>(n);
    const void* src = static_cast<const char*>(x) + offset * in_elem;
    const void* mid = static_cast<char*>(scratch.p) + offset * elem;
    const void* dst = static_cast<char*>(out) + offset * out_elem;
    const auto nrows = static_cast<int32_t>(chunk);
    KernelArgs first = pass1.args();
    first.set("x", src).set("out", mid).set("tw", tw).set("nrows", nrows);
    launch(pass1, four_step_tiles(plan.n1, plan.t1), static_cast<unsigned>(chunk), first, stream);
    KernelArgs second = pass2.args();
    second.set("x", mid).set("out", dst).set("tw", tw).set("nrows", nrows);
    launch(pass2, four_step_tiles(plan.n2, plan.t2), static_cast<unsigned>(chunk), second, stream);
  });
}

template void four_step<float>(const void*, void*, int64_t, int32_t, bool, int, hip_dl::hipStream_t, int32_t,
                               int32_t);
template void four_step<double>(const void*, void*, int64_t, int32_t, bool, int, hip_dl::hipStream_t, int32_t,
                                int32_t);

}  // namespace ondrel
