#pragma once
// The tables of Bluestein's algorithm: the chirp of length n and the
// spectrum of its conjugate wrapped on the convolution length m.
#include <complex>
#include <cstdint>
#include <vector>

namespace ondrel {

struct ChirpTables {
  const void* chirp = nullptr;   // n complex values of T
  const void* filter = nullptr;  // m complex values of T
};

// Host form: chirp[k] = exp(i s pi (k^2 mod 2n) / n), s = -1 forward and +1
// inverse, with angles in double; the filter is the unnormalised forward
// transform (host FFT, at the precision of T) of the conjugate chirp placed
// at k and m - k.
template <class T>
void chirp_host(int32_t n, int32_t m, bool inverse, std::vector<std::complex<T>>& chirp,
                std::vector<std::complex<T>>& filter);

// The device tables. The host vectors are rebuilt on every call; only the
// upload happens once per key.
template <class T>
ChirpTables chirp_tables(int32_t n, int32_t m, bool inverse);

}  // namespace ondrel
