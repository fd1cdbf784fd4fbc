#include "cuda_like/ops/four_step.hpp"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "codegen/backend.hpp"
#include "cuda_like/tables/twiddles.hpp"
#include "rocm/compile.hpp"
#include "rocm/context.hpp"
#include "rocm/device_pool.hpp"

namespace ondrel {

namespace {

constexpr int64_t kMaxChunkRows = 65535;  // the grid's y limit

// Data words normalised to the instantiation: 0 stays half, the rest is full width.
int32_t width_word(int32_t word, bool is_double) { return word == 0 ? 0 : (is_double ? 2 : 1); }

// The widest tile from 16 columns down that fits `budget` and divides the
// columns there are.
int32_t tile_columns(int32_t length, int32_t available, uint32_t elem, uint64_t budget) {
  int32_t t = 16;
  while (t > 1 && !(four_step_tile_bytes(static_cast<int64_t>(t) * length, elem) <= budget && t <= available &&
                    available % t == 0))
    t /= 2;
  return t;
}

}  // namespace

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

int32_t four_step_tile_columns(int32_t length, int32_t available, bool is_double, uint64_t shared_limit) {
  return tile_columns(length, available, is_double ? 16 : 8, is_double ? shared_limit / 2 : shared_limit);
}

FourStepPlan four_step_plan(int32_t n, bool is_double, uint64_t shared_limit) {
  const uint32_t elem = is_double ? 16 : 8;
  FourStepPlan plan;
  plan.n = n;
  plan.n1 = four_step_split(n, is_double, shared_limit);
  if (plan.n1 == 0) throw std::invalid_argument("fft: n exceeds the device shared-memory limit");
  plan.n2 = n / plan.n1;
  const uint64_t budget = is_double ? shared_limit / 2 : shared_limit;
  const int32_t d = is_double ? 8 : 16;
  plan.t1 = tile_columns(plan.n2, plan.n1, elem, budget);
  plan.t2 = tile_columns(plan.n1, plan.n2, elem, budget);
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

std::string four_step_key(const FourStepPlan& plan, int pass, bool is_double, int32_t in_word, int32_t out_word,
                          bool inverse) {
  const std::string base = std::to_string(plan.n) + "_" + (is_double ? "2" : "1") + "_" +
                           std::to_string(width_word(in_word, is_double)) +
                           std::to_string(width_word(out_word, is_double)) + (inverse ? "_i" : "_f");
  const int32_t t = pass == 1 ? plan.t1 : plan.t2;
  const int32_t threads = pass == 1 ? plan.threads1 : plan.threads2;
  return (pass == 1 ? "cfs1v2_" : "cfs2v2_") + base + "_" + std::to_string(t) + "x" + std::to_string(threads);
}

template <class T>
void four_step(const void* x, void* out, int64_t rows, int32_t n, bool inverse, int device,
               hip_dl::hipStream_t stream, int32_t in_word, int32_t out_word) {
  constexpr bool is_double = sizeof(T) == 8;
  const FourStepPlan plan = four_step_plan(n, is_double, device_shared_limit(device));
  if (rows <= 0) return;
  hip_dl::hipFunction_t fn[2];
  for (int pass = 1; pass <= 2; ++pass) {
    const codegen::FourStepPass p = four_step_pass(plan, pass, is_double, in_word, out_word, inverse);
    fn[pass - 1] = kernel_function(four_step_key(plan, pass, is_double, in_word, out_word, inverse), device,
                                   [&] { return codegen::four_step_pass_kernel(p, codegen::hip_backend()); },
                                   "ondrel_fft");
  }
  const void* tw = twiddle_device<T>(TwiddleKind::fft, n);
  const size_t elem = 2 * sizeof(T);
  const size_t in_elem = width_word(in_word, is_double) == 0 ? 4 : elem;
  const size_t out_elem = width_word(out_word, is_double) == 0 ? 4 : elem;
  const DeviceBuffer scratch(static_cast<size_t>(rows) * static_cast<size_t>(n) * elem, stream);
  for (int64_t start = 0; start < rows; start += kMaxChunkRows) {
    const int64_t chunk = std::min(kMaxChunkRows, rows - start);
    const auto offset = static_cast<size_t>(start) * static_cast<size_t>(n);
    const void* src = static_cast<const char*>(x) + offset * in_elem;
    void* mid = static_cast<char*>(scratch.p) + offset * elem;
    void* dst = static_cast<char*>(out) + offset * out_elem;
    int nrows = static_cast<int>(chunk);
    void* args1[] = {&src, &mid, &tw, &nrows};
    launch_kernel(fn[0], static_cast<unsigned>(plan.n1 / plan.t1), static_cast<unsigned>(chunk),
                  static_cast<unsigned>(plan.threads1), static_cast<unsigned>(plan.shared1), args1, "ondrel_fft",
                  stream);
    const void* mid_in = mid;
    void* args2[] = {&mid_in, &dst, &tw, &nrows};
    launch_kernel(fn[1], static_cast<unsigned>(plan.n2 / plan.t2), static_cast<unsigned>(chunk),
                  static_cast<unsigned>(plan.threads2), static_cast<unsigned>(plan.shared2), args2, "ondrel_fft",
                  stream);
  }
}

template void four_step<float>(const void*, void*, int64_t, int32_t, bool, int, hip_dl::hipStream_t, int32_t,
                               int32_t);
template void four_step<double>(const void*, void*, int64_t, int32_t, bool, int, hip_dl::hipStream_t, int32_t,
                                int32_t);

}  // namespace ondrel
