#include "host_fft/host_factors.hpp"

#include <stdexcept>
#include <string>

#include "math/fft_schedule.hpp"

namespace ondrel::host {

HostRoute host_route(int32_t n) {
  if (n >= 4 && largest_prime_factor(n) > 13) return HostRoute::bluestein;
  if (n >= 16 && !(n < 512 && n % 2 == 1)) return HostRoute::mixed;
  return HostRoute::plane;
}

std::vector<int32_t> host_factors(int32_t n) {
  if (n < 1) throw std::invalid_argument("host_factors: length " + std::to_string(n) + " is below 1");
  int32_t e = 0;
  for (int32_t m = n; m % 2 == 0; m /= 2) ++e;
  std::vector<int32_t> f;
  int32_t m = n;
  if (e >= 5 && e % 2 == 1) {
    f.push_back(8);
    m /= 8;
  }
  while (m % 4 == 0) {
    f.push_back(4);
    m /= 4;
  }
  while (m % 2 == 0) {
    f.push_back(2);
    m /= 2;
  }
  int32_t count[14] = {};
  for (int32_t p : {3, 5, 7, 11, 13}) {
    while (m % p == 0) {
      f.push_back(p);
      ++count[p];
      m /= p;
    }
  }
  if (m != 1)
    throw std::invalid_argument("host_factors: length " + std::to_string(n) + " has a prime factor above 13");
  if (e >= 2) return f;

  int32_t s = 0;
  for (int32_t p : {7, 5, 3})
    if (s == 0 && count[p] >= 2) s = p;
  int32_t g = 0;
  for (int32_t p : {13, 11, 7, 5})
    if (g == 0 && count[p] > 0) g = p;
  std::vector<int32_t> order;
  auto take = [&](int32_t p, int32_t times) {
    for (int32_t k = 0; k < times; ++k) order.push_back(p);
    count[p] -= times;
  };
  // A square of the smaller prime first gives a merged first pass; with no
  // larger prime to compare, the square is taken too.
  if (s != 0 && s * s >= g) {
    take(s, count[s]);
  } else if (g != 0) {
    take(g, 1);
  } else {
    return f;
  }
  for (int32_t p : {3, 5, 7, 11, 13}) take(p, count[p]);
  if (e == 1) order.push_back(2);
  return order;
}

std::vector<HostPass> host_passes(int32_t n, const std::vector<int32_t>& factors) {
  std::vector<HostPass> passes;
  const int32_t count = static_cast<int32_t>(factors.size());
  bool all_fours = count >= 2 && count % 2 == 0;
  for (int32_t r : factors) all_fours = all_fours && r == 4;
  int64_t l = 1;
  for (int32_t s = 0; s < count;) {
    const int32_t r = factors[s];
    const bool pair = s + 1 < count && factors[s + 1] == r;
    int32_t r2 = 1;
    if (s == 0) {
      if (n == 512 && r == 8) r2 = 4;
      else if (all_fours) r2 = 4;
      else if (pair && (r == 3 || r == 5 || r == 7)) r2 = r;
    } else if (pair) {
      if (r == 4 && l % 2 == 0 && n % (16 * l) == 0) r2 = 4;
      else if ((r == 3 || r == 5 || r == 7) && n % (r * r * l) == 0) r2 = r;
    }
    passes.push_back({r, r2, l, s});
    l *= static_cast<int64_t>(r) * r2;
    s += r2 == 1 ? 1 : 2;
  }
  return passes;
}

std::vector<int32_t> plane_radices(int32_t n) {
  std::vector<int32_t> list;
  int32_t m = n;
  for (int32_t r : {16, 4, 2, 9, 25, 3, 5, 7, 11, 13}) {
    while (m % r == 0) {
      list.push_back(r);
      m /= r;
    }
  }
  if (m != 1)
    throw std::invalid_argument("plane_radices: length " + std::to_string(n) + " has a prime factor above 13");
  return list;
}

std::vector<HostPass> plane_passes(const std::vector<int32_t>& radices) {
  std::vector<HostPass> passes;
  int64_t l = 1;
  int32_t stage = 0;
  for (int32_t r : radices) {
    HostPass p{r, 1, l, stage};
    if (r == 16 || r == 9 || r == 25) {
      p.r1 = r == 16 ? 4 : r == 9 ? 3 : 5;
      p.r2 = p.r1;
    }
    passes.push_back(p);
    stage += p.r2 == 1 ? 1 : 2;
    l *= r;
  }
  return passes;
}

}  // namespace ondrel::host
