#include "math/fft_schedule.hpp"

#include <algorithm>
#include <cmath>
#include <utility>

namespace ondrel {

namespace {

constexpr int32_t kPlainRadices[] = {16, 13, 11, 9, 8, 7, 5, 4, 3, 2};
constexpr int32_t kRadices25[] = {25, 16, 13, 11, 9, 8, 7, 5, 4, 3, 2};

}  // namespace

int32_t largest_prime_factor(int32_t n) {
  int32_t largest = 1;
  for (int32_t d = 2; static_cast<int64_t>(d) * d <= n; ++d) {
    while (n % d == 0) {
      largest = d;
      n /= d;
    }
  }
  return n > 1 ? n : largest;
}

bool is_pow2(int32_t n) { return n >= 1 && (n & (n - 1)) == 0; }

int32_t ilog2(int32_t n) {
  int32_t b = 0;
  while ((n >> (b + 1)) > 0) ++b;
  return b;
}

std::vector<int32_t> pow2_stages(int32_t bits) {
  std::vector<int32_t> radices;
  if (bits < 1) return radices;
  const int32_t passes = (bits + 3) / 4;
  for (int32_t i = 0; i < passes; ++i) {
    const int32_t b = bits / passes + (i < bits % passes ? 1 : 0);
    radices.push_back(1 << b);
  }
  return radices;
}

std::vector<int32_t> factor_schedule(int32_t n, int32_t& rest, bool with25) {
  if (n >= 2 && is_pow2(n)) {
    rest = 1;
    return pow2_stages(ilog2(n));
  }
  std::vector<int32_t> list;
  auto take = [&](const auto& table) {
    for (int32_t r : table)
      while (n % r == 0) {
        list.push_back(r);
        n /= r;
      }
  };
  if (with25) take(kRadices25);
  else take(kPlainRadices);
  rest = n;
  if (rest != 1) list.push_back(rest);
  return list;
}

std::vector<int32_t> smooth_factors(int32_t n, int32_t& rest) {
  std::vector<int32_t> list;
  auto divide_out = [&](int32_t p) {
    while (n % p == 0) {
      list.push_back(p);
      n /= p;
    }
  };
  for (int32_t p : {7, 5, 3, 2}) divide_out(p);
  if (n >= 121)
    for (int32_t t = 11; static_cast<int64_t>(t) * t <= n; t += 2) divide_out(t);
  rest = n;
  if (rest != 1) list.push_back(rest);
  return list;
}

bool is_prime(int32_t n) {
  if (n < 2) return false;
  for (int32_t d = 2; static_cast<int64_t>(d) * d <= n; ++d)
    if (n % d == 0) return false;
  return true;
}

int32_t rader_prime(int32_t n) {
  int32_t rest = 1;
  for (int32_t r : factor_schedule(n, rest, false))
    if (r > 13 && is_prime(r)) return r;
  return 0;
}

int64_t rader_scratch(int32_t n) {
  const int32_t p = rader_prime(n);
  return p ? static_cast<int64_t>(n) + n / p : 0;
}

int32_t complex_bytes(int32_t prec) { return prec == 2 ? 16 : prec == 1 ? 8 : 4; }

uint64_t shared_fft_bytes(int32_t n, int32_t prec) {
  return (static_cast<uint64_t>(n) + rader_scratch(n)) * complex_bytes(prec);
}

FactorPair two_level_split(int32_t n, int32_t prec, uint64_t limit) {
  const auto root = static_cast<int32_t>(std::sqrt(static_cast<double>(n)));
  if (n < 4 || shared_fft_bytes(n, prec) <= limit || root < 2) return {};
  for (int32_t f = root; f >= 2; --f)
    if (n % f == 0 && shared_fft_bytes(f, prec) <= limit && shared_fft_bytes(n / f, prec) <= limit)
      return {f, n / f};
  return {};
}

bool bluestein_wanted(int32_t n) {
  if (n <= 0 || is_pow2(n)) return false;
  // Above this prime the Rader and composite butterflies cost more than
  // three transforms of a smooth length twice as long.
  return largest_prime_factor(n) > 6.0 * std::log2(2.0 * n);
}

bool takes_bluestein(int32_t n) {
  if (bluestein_wanted(n)) return true;
  int32_t rest = 1;
  factor_schedule(n, rest, false);
  // A composite rest, 17 x 17 = 289 at the least, would be one straight-line
  // butterfly in one thread: half a megabyte of text that compilers take most
  // of a minute over, hundreds of values live per thread, and twiddles raised
  // by hundreds of running products, which cost float kernels a decimal digit.
  return rest > 1 && !is_prime(rest);
}

int64_t bluestein_length(int32_t n) {
  const int64_t target = 2 * static_cast<int64_t>(n) - 1;
  int64_t pow2 = 16;
  while (pow2 < target) pow2 *= 2;
  int64_t best = pow2;
  for (int64_t a = 4; a <= best; a *= 2)
    for (int64_t b = a; b <= best; b *= 3)
      for (int64_t c = b; c <= best; c *= 5)
        for (int64_t d = c; d <= best; d *= 7)
          if (d >= target && d < best) best = d;
  return best;
}

bool mixed_schedule(int32_t n, int32_t lo, int32_t hi, std::vector<int32_t>& out, int32_t& first) {
  for (int32_t r = std::min(n, hi); r >= lo && r >= 1; --r) {
    if (n % r != 0) continue;
    std::vector<int32_t> list{r};
    int32_t m = n / r;
    const int32_t cap = r <= 16 ? r : 16;
    bool ok = true;
    while (m > 1) {
      int32_t t = cap;
      while (t >= 2 && (r % t != 0 || m % t != 0)) --t;
      if (t < 2) {
        ok = false;
        break;
      }
      list.push_back(t);
      m /= t;
    }
    if (ok) {
      out = std::move(list);
      first = r;
      return true;
    }
  }
  return false;
}

bool odd_native(int32_t n, bool wide, uint64_t shared_limit) {
  if (n % 2 == 0 || n < 9) return false;
  const uint64_t row = static_cast<uint64_t>(n) + 1 + (n >> 4) + rader_scratch(n);
  if ((wide ? 16u : 8u) * row > shared_limit) return false;
  std::vector<int32_t> list;
  int32_t first = 0;
  if (mixed_schedule(n, 5, 25, list, first)) return true;
  int32_t rest = 1;
  for (int32_t r : factor_schedule(n, rest, false)) {
    if (r <= 16) continue;
    if (!is_prime(r)) return false;
    int32_t smooth_rest = 1;
    smooth_factors(r - 1, smooth_rest);
    if (smooth_rest != 1) return false;
  }
  return true;
}

int32_t mod_pow(int32_t a, int32_t e, int32_t m) {
  if (e < 1) return 1;
  int64_t result = 1, base = a % m;
  while (e > 0) {
    if (e & 1) result = result * base % m;
    base = base * base % m;
    e >>= 1;
  }
  return static_cast<int32_t>(result);
}

int32_t primitive_root(int32_t p) {
  std::vector<int32_t> factors;
  int32_t rest = p - 1;
  for (int32_t d = 2; static_cast<int64_t>(d) * d <= rest; ++d) {
    if (rest % d != 0) continue;
    factors.push_back(d);
    while (rest % d == 0) rest /= d;
  }
  if (rest > 1) factors.push_back(rest);
  for (int32_t g = 2;; ++g) {
    bool generates = true;
    for (int32_t q : factors)
      if (mod_pow(g, (p - 1) / q, p) == 1) generates = false;
    if (generates) return g;
  }
}

}  // namespace ondrel
