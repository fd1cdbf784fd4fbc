#pragma once
// References for the host FFT tests: the direct DFT in long double and the
// relative L2 error.
#include <cmath>
#include <cstdint>
#include <numbers>
#include <random>
#include <vector>

namespace host_fft_test {

// Interleaved complex rows of uniform values in [-1, 1), exact in float so
// that both precisions transform the same numbers.
inline std::vector<double> random_rows(int64_t rows, int64_t n, uint32_t seed) {
  std::mt19937 gen(seed);
  std::uniform_real_distribution<float> dist(-1.0f, 1.0f);
  std::vector<double> x(2 * rows * n);
  for (double& v : x) v = dist(gen);
  return x;
}

// exp(sign 2 pi i k / n) for k below n, in long double.
inline std::vector<long double> root_table(int64_t n, int sign) {
  std::vector<long double> w(2 * n);
  for (int64_t k = 0; k < n; ++k) {
    const long double a = sign * 2.0L * std::numbers::pi_v<long double> * k / n;
    w[2 * k] = std::cos(a);
    w[2 * k + 1] = std::sin(a);
  }
  return w;
}

// Bin k of one row's DFT, scaled by `scale`, over a table from `root_table`.
inline void dft_bin(const double* x, int64_t n, int64_t k, const std::vector<long double>& w, long double scale,
                    long double& re, long double& im) {
  re = im = 0;
  int64_t idx = 0;
  for (int64_t j = 0; j < n; ++j) {
    const long double c = w[2 * idx], s = w[2 * idx + 1];
    re += x[2 * j] * c - x[2 * j + 1] * s;
    im += x[2 * j] * s + x[2 * j + 1] * c;
    idx += k;
    if (idx >= n) idx -= n;
  }
  re *= scale;
  im *= scale;
}

// The whole DFT of `rows` rows; the inverse is scaled by 1 / n.
inline std::vector<double> direct_dft(const std::vector<double>& x, int64_t rows, int64_t n, bool inverse) {
  const auto w = root_table(n, inverse ? 1 : -1);
  const long double scale = inverse ? 1.0L / n : 1.0L;
  std::vector<double> y(x.size());
  for (int64_t r = 0; r < rows; ++r)
    for (int64_t k = 0; k < n; ++k) {
      long double re = 0, im = 0;
      dft_bin(x.data() + 2 * r * n, n, k, w, scale, re, im);
      y[2 * (r * n + k)] = static_cast<double>(re);
      y[2 * (r * n + k) + 1] = static_cast<double>(im);
    }
  return y;
}

// ||got - want|| / ||want|| over all values; infinity when any is not finite.
template <class T>
double relative_error(const std::vector<T>& got, const std::vector<double>& want) {
  long double num = 0, den = 0;
  for (size_t i = 0; i < want.size(); ++i) {
    if (!std::isfinite(static_cast<double>(got[i]))) return INFINITY;
    const long double d = static_cast<long double>(got[i]) - want[i];
    num += d * d;
    den += static_cast<long double>(want[i]) * want[i];
  }
  return den > 0 ? static_cast<double>(std::sqrt(num / den)) : static_cast<double>(std::sqrt(num));
}

}  // namespace host_fft_test
