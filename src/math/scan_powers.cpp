#include "math/scan_powers.hpp"

#include <cmath>
#include <limits>
#include <vector>

namespace ondrel {

namespace {

// An unevaluated sum hi + lo of two doubles, about 32 significant digits.
struct Wide {
  double hi = 0, lo = 0;
};

Wide two_sum(double a, double b) {
  const double s = a + b, v = s - a;
  return {s, (a - (s - v)) + (b - v)};
}

Wide add(Wide a, Wide b) {
  const Wide s = two_sum(a.hi, b.hi);
  return two_sum(s.hi, s.lo + a.lo + b.lo);
}

Wide mul(Wide a, Wide b) {
  const double p = a.hi * b.hi;
  const double e = std::fma(a.hi, b.hi, -p) + (a.hi * b.lo + a.lo * b.hi);
  return two_sum(p, e);
}

using Matrix = std::vector<Wide>;

Matrix square(const Matrix& m, int32_t p) {
  Matrix out(m.size());
  for (int32_t r = 0; r < p; ++r)
    for (int32_t c = 0; c < p; ++c) {
      Wide acc;
      for (int32_t k = 0; k < p; ++k) acc = add(acc, mul(m[r * p + k], m[k * p + c]));
      out[r * p + c] = acc;
    }
  return out;
}

}  // namespace

double scan_power_error(const double* a, int32_t p, const double* levels, int32_t count) {
  constexpr double kInf = std::numeric_limits<double>::infinity();
  const size_t pp = static_cast<size_t>(p) * p;
  Matrix m(pp);
  for (int32_t j = 0; j < p; ++j) m[j].hi = -a[j];
  for (int32_t i = 1; i < p; ++i) m[i * p + i - 1].hi = 1;
  for (int s = 0; s < 4; ++s) m = square(m, p);
  double worst = 0;
  for (int32_t l = 0; l < count; ++l) {
    const double* level = levels + l * pp;
    for (int32_t r = 0; r < p; ++r) {
      double row = 0;
      for (int32_t c = 0; c < p; ++c) {
        const Wide& exact = m[r * p + c];
        row += std::fabs((level[r * p + c] - exact.hi) - exact.lo);
      }
      if (!std::isfinite(row)) return kInf;
      worst = std::fmax(worst, row);
    }
    if (l + 1 < count) m = square(m, p);
  }
  return worst;
}

}  // namespace ondrel
