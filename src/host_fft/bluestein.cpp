#include <algorithm>
#include <limits>
#include <stdexcept>
#include <string>
#include <vector>

#include "host_fft/drivers.hpp"
#include "host_fft/kernels.hpp"
#include "host_fft/plan_cache.hpp"
#include "host_fft/threads.hpp"
#include "math/fft_schedule.hpp"

namespace ondrel::host {

template <class T>
const HostBluesteinPlan<T>& bluestein_plan(int32_t n, bool inverse) {
  return cached_plan<HostBluesteinPlan<T>>(plan_key(n, inverse), [&] {
    const int64_t m = bluestein_length(n);
    if (m > std::numeric_limits<int32_t>::max())
      throw std::length_error("host_fft: length " + std::to_string(n) + " is too long for Bluestein");
    auto p = std::make_unique<HostBluesteinPlan<T>>();
    p->n = n;
    p->m = static_cast<int32_t>(m);
    p->inverse = inverse;
    // The chirp's angle pi k^2 / n depends on k^2 modulo 2n only; the exact
    // residue keeps long lengths accurate.
    const double sign = inverse ? 1.0 : -1.0;
    const int64_t period = 2 * static_cast<int64_t>(n);
    p->chirp.resize(2 * static_cast<size_t>(n));
    std::vector<double> wrapped(2 * static_cast<size_t>(m), 0.0);
    for (int64_t k = 0; k < n; ++k) {
      double c = 0, s = 0;
      unit_root((k * k) % period, period, sign, c, s);
      p->chirp[2 * k] = static_cast<T>(c);
      p->chirp[2 * k + 1] = static_cast<T>(s);
      wrapped[2 * k] = c;
      wrapped[2 * k + 1] = -s;
      if (k > 0) {
        wrapped[2 * (m - k)] = c;
        wrapped[2 * (m - k) + 1] = -s;
      }
    }
    // The filter is transformed in double and rounded once, whatever T is.
    std::vector<double> spectrum(wrapped.size());
    mixed_row(mixed_plan<double>(p->m, false), wrapped.data(), spectrum.data(), 1.0);
    p->filter.assign(spectrum.begin(), spectrum.end());
    p->forward = &mixed_plan<T>(p->m, false);
    p->backward = &mixed_plan<T>(p->m, true);
    return p;
  });
}

template <class T>
void bluestein_fft(const T* in, T* out, int64_t rows, int32_t n, bool inverse) {
  const HostBluesteinPlan<T>& plan = bluestein_plan<T>(n, inverse);
  const size_t m = static_cast<size_t>(plan.m);
  const T inv_m = static_cast<T>(1.0 / plan.m);
  const T out_scale = inverse ? static_cast<T>(1.0 / n) : T(1);
  const int64_t stride = 2 * static_cast<int64_t>(n);
  parallel_for(rows, [&](int64_t r) {
    thread_local std::vector<T> a, b;
    if (a.size() < 2 * m) {
      a.resize(2 * m);
      b.resize(2 * m);
    }
    const T* x = in + r * stride;
    const T* w = plan.chirp.data();
    for (int64_t k = 0; k < n; ++k) store(a.data(), k, cmul(load(x, k, static_cast<Cs<T>*>(nullptr)), w[2 * k], w[2 * k + 1]));
    std::fill(a.begin() + 2 * static_cast<size_t>(n), a.begin() + 2 * m, T(0));
    mixed_row(*plan.forward, a.data(), b.data(), T(1));
    const T* f = plan.filter.data();
    for (size_t k = 0; k < m; ++k)
      store(b.data(), k, cmul(load(b.data(), k, static_cast<Cs<T>*>(nullptr)), f[2 * k], f[2 * k + 1]));
    mixed_row(*plan.backward, b.data(), a.data(), inv_m);
    T* y = out + r * stride;
    for (int64_t k = 0; k < n; ++k)
      store(y, k, scaled(cmul(load(a.data(), k, static_cast<Cs<T>*>(nullptr)), w[2 * k], w[2 * k + 1]), out_scale));
  });
}

template const HostBluesteinPlan<double>& bluestein_plan<double>(int32_t, bool);
template const HostBluesteinPlan<float>& bluestein_plan<float>(int32_t, bool);
template void bluestein_fft<double>(const double*, double*, int64_t, int32_t, bool);
template void bluestein_fft<float>(const float*, float*, int64_t, int32_t, bool);

}  // namespace ondrel::host
