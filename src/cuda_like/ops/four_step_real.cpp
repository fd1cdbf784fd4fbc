#include "cuda_like/ops/four_step_real.hpp"

#include <algorithm>
#include <functional>
#include <stdexcept>
#include <string>

#include "codegen/backend.hpp"
#include "codegen/four_step_real_kernels.hpp"
#include "cuda_like/ops/four_step.hpp"
#include "cuda_like/tables/twiddles.hpp"
#include "rocm/compile.hpp"
#include "rocm/context.hpp"
#include "rocm/device_pool.hpp"

namespace ondrel {

namespace {

constexpr int64_t kMaxChunkRows = 65535;
constexpr unsigned kBlock = 256;

// Chunks of rows on the grid's y axis; `body` gets the first row and the count.
template <class F>
void in_chunks(int64_t rows, F&& body) {
  for (int64_t start = 0; start < rows; start += kMaxChunkRows) body(start, std::min(kMaxChunkRows, rows - start));
}

const char* at(const void* base, int64_t row, int64_t per_row, size_t elem) {
  return static_cast<const char*>(base) + static_cast<size_t>(row) * static_cast<size_t>(per_row) * elem;
}

// The element-wise split or pack over rows of `count` work items.
void launch_rows(hip_dl::hipFunction_t fn, const void* src, int64_t src_row, size_t src_elem, void* dst,
                 int64_t dst_row, size_t dst_elem, const void* tw, int64_t rows, int64_t count, const char* name,
                 hip_dl::hipStream_t stream) {
  in_chunks(rows, [&](int64_t start, int64_t chunk) {
    const void* a = at(src, start, src_row, src_elem);
    void* b = const_cast<char*>(at(dst, start, dst_row, dst_elem));
    int nrows = static_cast<int>(chunk);
    void* args[] = {&a, &b, &tw, &nrows};
    launch_kernel(fn, static_cast<unsigned>((count + kBlock - 1) / kBlock), static_cast<unsigned>(chunk), kBlock, 0,
                  args, name, stream);
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
  plan.inner = four_step_plan(plan.nh, is_double, limit);
  plan.paired = !inverse && plan.inner.n2 % 2 == 0;
  if (plan.paired) {
    const int32_t n1 = plan.inner.n1, n2 = plan.inner.n2, d = is_double ? 8 : 16;
    codegen::RealSplitPass& p = plan.second;
    p.n = n;
    p.n1 = n1;
    p.n2 = n2;
    p.columns = four_step_tile_columns(2 * n1, n2 / 2, is_double, limit);
    p.threads = std::clamp(2 * p.columns * n1 / d, 128, 1024);
    p.compute_prec = plan.prec;
    p.data_prec = plan.data;
    plan.shared2 = four_step_tile_bytes(2 * static_cast<int64_t>(p.columns) * n1, is_double ? 16 : 8);
  }
  return plan;
}

struct Kernel {
  std::string key, name;
  std::function<std::string()> text;
};

// The kernels of the route in launch order; the complex transform of the
// plain routes is four_step's own.
std::vector<Kernel> real_kernels(const RealPlan& plan) {
  const auto& backend = codegen::hip_backend();
  const bool is_double = plan.prec == 2;
  if (plan.inverse)
    return {{"crpack_" + plan.base, "ondrel_rpack",
             [=, &backend] { return codegen::real_pack_kernel(plan.n, plan.prec, plan.data, backend); }}};
  if (!plan.paired)
    return {{"crsplit_" + plan.base, "ondrel_rsplit",
             [=, &backend] { return codegen::real_split_kernel(plan.n, plan.prec, plan.data, backend); }}};
  const codegen::FourStepPass first = four_step_pass(plan.inner, 1, is_double, plan.data, plan.prec, false);
  const codegen::RealSplitPass second = plan.second;
  return {{"cfr1_" + plan.base + "_" + std::to_string(plan.inner.t1) + "x" + std::to_string(plan.inner.threads1),
           "ondrel_fft", [=, &backend] { return codegen::four_step_pass_kernel(first, backend); }},
          {"cfr2_" + plan.base + "_" + std::to_string(second.columns) + "x" + std::to_string(second.threads),
           "ondrel_rfft2", [=, &backend] { return codegen::real_pass2_kernel(second, backend); }}};
}

hip_dl::hipFunction_t compiled(const Kernel& k, int device) { return kernel_function(k.key, device, k.text, k.name); }

}  // namespace

std::vector<std::pair<std::string, std::string>> four_step_real_texts(int32_t n, bool is_double, int32_t word,
                                                                     bool inverse, uint64_t shared_limit) {
  const RealPlan plan = real_plan(n, is_double, word, inverse, shared_limit);
  std::vector<std::pair<std::string, std::string>> out;
  for (const Kernel& k : real_kernels(plan)) out.emplace_back(k.key, k.text());
  if (plan.paired) return out;
  const int32_t in = inverse ? plan.prec : plan.data, to = inverse ? plan.data : plan.prec;
  for (int pass = 1; pass <= 2; ++pass)
    out.emplace_back(four_step_key(plan.inner, pass, is_double, in, to, inverse),
                     codegen::four_step_pass_kernel(four_step_pass(plan.inner, pass, is_double, in, to, inverse),
                                                    codegen::hip_backend()));
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
  const std::vector<Kernel> kernels = real_kernels(plan);
  const void* tw = twiddle_device<T>(TwiddleKind::fft, n);
  const DeviceBuffer z(static_cast<size_t>(rows) * nh * elem, stream);

  if (inverse) {
    launch_rows(compiled(kernels[0], device), x, nh + 1, data_elem, z.p, nh, elem, tw, rows, nh, "ondrel_rpack",
                stream);
    four_step<T>(z.p, out, rows, nh, true, device, stream, prec, data);
    return;
  }
  if (!plan.paired) {
    // No split with an even n2: the complex transform, then the split.
    four_step<T>(x, z.p, rows, nh, false, device, stream, data, prec);
    launch_rows(compiled(kernels[0], device), z.p, nh, elem, out, nh + 1, data_elem, tw, rows, nh + 1,
                "ondrel_rsplit", stream);
    return;
  }
  const hip_dl::hipFunction_t pass1 = compiled(kernels[0], device), pass2 = compiled(kernels[1], device);
  const void* tw_half = twiddle_device<T>(TwiddleKind::fft, nh);
  const FourStepPlan& inner = plan.inner;
  const codegen::RealSplitPass& second = plan.second;
  in_chunks(rows, [&](int64_t start, int64_t chunk) {
    const void* src = at(x, start, nh, data_elem);
    void* mid = const_cast<char*>(at(z.p, start, nh, elem));
    const void* mid_in = mid;
    void* dst = const_cast<char*>(at(out, start, nh + 1, data_elem));
    int nrows = static_cast<int>(chunk);
    void* args1[] = {&src, &mid, &tw_half, &nrows};
    launch_kernel(pass1, static_cast<unsigned>(inner.n1 / inner.t1), static_cast<unsigned>(chunk),
                  static_cast<unsigned>(inner.threads1), static_cast<unsigned>(inner.shared1), args1, "ondrel_fft",
                  stream);
    void* args2[] = {&mid_in, &dst, &tw, &nrows};
    launch_kernel(pass2, static_cast<unsigned>(inner.n2 / (2 * second.columns) + 1), static_cast<unsigned>(chunk),
                  static_cast<unsigned>(second.threads), static_cast<unsigned>(plan.shared2), args2, "ondrel_rfft2",
                  stream);
  });
}

template void four_step_real<float>(const void*, void*, int64_t, int32_t, bool, int, hip_dl::hipStream_t, int32_t);
template void four_step_real<double>(const void*, void*, int64_t, int32_t, bool, int, hip_dl::hipStream_t, int32_t);

}  // namespace ondrel
