#include "math/twiddle_math.hpp"

#include <cmath>

#include "math/fft_schedule.hpp"

namespace ondrel {

namespace {

constexpr double kMinusTwoPi = -6.283185307179586;

void push_circle(std::vector<std::complex<double>>& out, int32_t span, int32_t count) {
  for (int32_t k = 0; k < count; ++k) {
    const double theta = kMinusTwoPi * k / span;
    out.emplace_back(std::cos(theta), std::sin(theta));
  }
}

}  // namespace

void rader_transform(int32_t p, int32_t g, std::vector<double>& re, std::vector<double>& im) {
  const int32_t m = p - 1;
  std::vector<std::complex<double>> t(m), b(m);
  for (int32_t k = 0; k < m; ++k) {
    const double angle = mod_pow(g, k, p) * kMinusTwoPi * (1.0 / p);
    t[k] = {std::cos(angle), std::sin(angle)};
  }
  for (int32_t j = 0; j < m; ++j) b[j] = t[(m - j) % m];
  re.assign(m, 0.0);
  im.assign(m, 0.0);
  for (int32_t q = 0; q < m; ++q) {
    std::complex<double> sum = 0;
    for (int32_t s = 0; s < m; ++s) {
      // The product reduced first: an angle of many turns carries its
      // rounding into every constant, ten times a double's in the output.
      const double angle = kMinusTwoPi * ((q * s) % m) / m;
      sum += b[s] * std::complex<double>(std::cos(angle), std::sin(angle));
    }
    re[q] = sum.real();
    im[q] = sum.imag();
  }
}

std::vector<std::complex<double>> twiddle_table(int32_t n, int32_t p) {
  const int32_t m = p > 0 ? p - 1 : 0;
  std::vector<std::complex<double>> out;
  out.reserve(static_cast<size_t>(n) + 3 * static_cast<size_t>(m));
  push_circle(out, n, n);
  if (m == 0) return out;
  push_circle(out, m, m);
  const int32_t g = primitive_root(p);
  std::vector<double> re, im;
  rader_transform(p, g, re, im);
  for (int32_t q = 0; q < m; ++q) out.emplace_back(re[q], im[q]);
  std::vector<int32_t> log(p, 0);
  for (int32_t k = 0; k < m; ++k) log[mod_pow(g, k, p)] = k;
  const int32_t g_inv = mod_pow(g, p - 2, p);
  for (int32_t k = 0; k < m; ++k) out.emplace_back(log[k + 1], mod_pow(g_inv, k, p));
  return out;
}

std::vector<std::complex<double>> twiddle_host(TwiddleKind kind, int32_t n) {
  const bool odd = n % 2 != 0;
  if (kind == TwiddleKind::fft) return twiddle_table(n, rader_prime(n));
  if (kind == TwiddleKind::adjoint) return twiddle_table(2 * n, rader_prime(n));
  if (kind == TwiddleKind::stft && n >= 2 && is_pow2(n)) {
    std::vector<std::complex<double>> out;
    push_circle(out, n / 2, n / 4);
    push_circle(out, n, n / 2);
    return out;
  }
  // The mixed-radix table: the span of the real-input transform with the
  // Rader tables of its complex length.
  return odd ? twiddle_table(2 * n, rader_prime(n)) : twiddle_table(n, rader_prime(n / 2));
}

}  // namespace ondrel
