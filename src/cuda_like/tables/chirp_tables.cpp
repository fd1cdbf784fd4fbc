#include "cuda_like/tables/chirp_tables.hpp"

#include <cmath>
#include <numbers>

#include "cuda_like/tables/table_cache.hpp"
#include "host_fft/host_fft.hpp"

namespace ondrel {

template <class T>
void chirp_host(int32_t n, int32_t m, bool inverse, std::vector<std::complex<T>>& chirp,
                std::vector<std::complex<T>>& filter) {
  const double s = inverse ? 1.0 : -1.0;
  const int64_t period = 2 * static_cast<int64_t>(n);
  chirp.assign(n, {});
  filter.assign(m, {});
  for (int32_t k = 0; k < n; ++k) {
    // The exact residue keeps the angle small: k^2 itself loses the low
    // digits that matter once it passes 2^53 / pi.
    const double angle = std::numbers::pi * static_cast<double>(static_cast<int64_t>(k) * k % period) / n;
    const double c = std::cos(angle), si = std::sin(angle);
    chirp[k] = {static_cast<T>(c), static_cast<T>(s * si)};
    filter[k] = {static_cast<T>(c), static_cast<T>(-s * si)};
    if (k > 0) filter[m - k] = filter[k];
  }
  T* data = reinterpret_cast<T*>(filter.data());
  host::host_fft<T>(data, data, 1, m, false);
}

template <class T>
ChirpTables chirp_tables(int32_t n, int32_t m, bool inverse) {
  std::vector<std::complex<T>> chirp, filter;
  chirp_host<T>(n, m, inverse, chirp, filter);
  ChirpTables t;
  t.chirp = table_by_name(bluestein_chirp_key(n, inverse, sizeof(T)), chirp);
  t.filter = table_by_name(bluestein_filter_key(n, m, inverse, sizeof(T)), filter);
  return t;
}

template void chirp_host<float>(int32_t, int32_t, bool, std::vector<std::complex<float>>&,
                                std::vector<std::complex<float>>&);
template void chirp_host<double>(int32_t, int32_t, bool, std::vector<std::complex<double>>&,
                                 std::vector<std::complex<double>>&);
template ChirpTables chirp_tables<float>(int32_t, int32_t, bool);
template ChirpTables chirp_tables<double>(int32_t, int32_t, bool);

}  // namespace ondrel
