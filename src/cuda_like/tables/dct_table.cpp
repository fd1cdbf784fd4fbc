#include "cuda_like/tables/dct_table.hpp"

#include <bit>
#include <cmath>
#include <cstdio>
#include <numbers>

#include "cuda_like/tables/table_cache.hpp"
#include "math/hashing.hpp"

namespace ondrel {

std::vector<double> dct_rows(int32_t n_in, int32_t n_out, double lifter) {
  std::vector<double> d(static_cast<size_t>(n_in) * static_cast<size_t>(n_out));
  const int64_t turn = 4 * static_cast<int64_t>(n_in);
  for (int32_t k = 0; k < n_out; ++k) {
    const double s = 2 * std::sqrt((k == 0 ? 0.25 : 0.5) / n_in);
    const double w = lifter > 0 ? 1 + std::sin(std::numbers::pi * (k + 1) / lifter) * (lifter / 2) : 1;
    for (int32_t m = 0; m < n_in; ++m) {
      // The angle's integer part reduced by whole turns first, so that high
      // coefficients lose nothing to a large argument.
      const int64_t j = static_cast<int64_t>(k) * (2 * m + 1) % turn;
      d[static_cast<size_t>(k) * n_in + m] = s * w * std::cos(std::numbers::pi * static_cast<double>(j) / (2.0 * n_in));
    }
  }
  return d;
}

template <class T>
const void* dct_device(int32_t n_in, int32_t n_out, double lifter) {
  const auto bits = std::bit_cast<uint64_t>(lifter);
  const uint64_t key = combine(combine(combine(combine(0xdc7, widen(n_out)), widen(n_in)), bits), sizeof(T));
  return table_by_hash(key, [&] {
    const std::vector<double> rows = dct_rows(n_in, n_out, lifter);
    char name[80];
    std::snprintf(name, sizeof name, "dct_%d_%d_%016llx_%zu", n_out, n_in, static_cast<unsigned long long>(bits),
                  sizeof(T));
    return table_by_name(name, std::vector<T>(rows.begin(), rows.end()));
  });
}

template const void* dct_device<float>(int32_t, int32_t, double);
template const void* dct_device<double>(int32_t, int32_t, double);

}  // namespace ondrel
