#include "host_fft/executor.hpp"

#include <algorithm>
#include <stdexcept>
#include <string>
#include <type_traits>

#include "host_fft/kernels.hpp"

namespace ondrel::host {

namespace {

template <class V, class T>
constexpr int64_t reals_per_element() {
  return static_cast<int64_t>(sizeof(V) / sizeof(T));
}

template <class V, class T>
void dispatch(const HostPass& p, const StageTw<T>* st, int64_t n, const T* in, T* out, T scale) {
  const StageTw<T>& a = st[p.stage];
  const StageTw<T>& b = p.r2 > 1 ? st[p.stage + 1] : a;
  const int64_t l = p.l;
  const int key = p.r1 * 100 + p.r2;
  // Interleaved rows go a register of butterflies at a time where L allows.
  constexpr bool spans = std::is_same_v<V, Cs<T>>;
  constexpr int kWide = static_cast<int>(16 / sizeof(T));  // one SSE register per part
  using Wide = std::conditional_t<spans, Span<T, kWide>, V>;
  // Measured: in double, butterflies above radix 4 and first passes ran
  // slower widened (register spills, scattered stores).
  const bool fits = sizeof(T) == 4 || p.r1 <= 4;
  const bool wide = spans && fits && l % kWide == 0;
  const bool wide_first = spans && sizeof(T) == 4 && (n / (static_cast<int64_t>(p.r1) * p.r2)) % kWide == 0;
#define ONDREL_PASS(R1, R2)                                                      \
  case R1 * 100 + R2:                                                            \
    if (l == 1 && wide_first) run_pass<R1, R2, true, Wide, T>(in, out, n, l, a, b, scale); \
    else if (l == 1) run_pass<R1, R2, true, V, T>(in, out, n, l, a, b, scale);   \
    else if (wide) run_pass<R1, R2, false, Wide, T>(in, out, n, l, a, b, scale); \
    else run_pass<R1, R2, false, V, T>(in, out, n, l, a, b, scale);              \
    return;
  switch (key) {
    ONDREL_PASS(2, 1)
    ONDREL_PASS(3, 1)
    ONDREL_PASS(4, 1)
    ONDREL_PASS(5, 1)
    ONDREL_PASS(7, 1)
    ONDREL_PASS(8, 1)
    ONDREL_PASS(11, 1)
    ONDREL_PASS(13, 1)
    ONDREL_PASS(3, 3)
    ONDREL_PASS(4, 4)
    ONDREL_PASS(5, 5)
    ONDREL_PASS(7, 7)
    ONDREL_PASS(8, 4)
    default:
      break;
  }
#undef ONDREL_PASS
  throw std::logic_error("host FFT: no kernel for radix " + std::to_string(p.r1) + " x " + std::to_string(p.r2));
}

}  // namespace

template <class V, class T>
const T* execute(const std::vector<HostPass>& passes, const StageTw<T>* stages, int64_t n, const T* in, T* out,
                 T* w0, T* w1, T scale) {
  constexpr int64_t width = reals_per_element<V, T>();
  if (passes.empty()) {
    T* dst = out ? out : w0;
    for (int64_t k = 0; k < n * width; ++k) dst[k] = in[k] * scale;
    return dst;
  }
  // A single pass cannot read and write one array.
  if (passes.size() == 1 && in == out) {
    std::copy(in, in + n * width, w1);
    in = w1;
  }
  const T* src = in;
  for (size_t p = 0; p < passes.size(); ++p) {
    const bool last = p + 1 == passes.size();
    T* dst = src == w0 ? w1 : w0;
    if (last && out) dst = out;
    dispatch<V, T>(passes[p], stages, n, src, dst, last ? scale : T(1));
    src = dst;
  }
  return src;
}

template const double* execute<Cs<double>, double>(const std::vector<HostPass>&, const StageTw<double>*, int64_t,
                                                   const double*, double*, double*, double*, double);
template const float* execute<Cs<float>, float>(const std::vector<HostPass>&, const StageTw<float>*, int64_t,
                                                const float*, float*, float*, float*, float);
template const double* execute<Lanes<double>, double>(const std::vector<HostPass>&, const StageTw<double>*, int64_t,
                                                      const double*, double*, double*, double*, double);
template const float* execute<Lanes<float>, float>(const std::vector<HostPass>&, const StageTw<float>*, int64_t,
                                                   const float*, float*, float*, float*, float);

}  // namespace ondrel::host
