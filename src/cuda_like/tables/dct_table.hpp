#pragma once
// The liftered orthonormal DCT-II that turns a frame of mel bands in
// decibels into cepstral coefficients, as a table of n_out rows of n_in.
#include <cstdint>
#include <vector>

namespace ondrel {

// Row k, column m: s(k) w(k) cos(pi k (2m + 1) / (2 n_in)), with s the
// orthonormal scale (sqrt(1 / n_in) for k = 0, sqrt(2 / n_in) above) and w
// the lifter 1 + (lifter / 2) sin(pi (k + 1) / lifter) where lifter is
// above 0, else 1. In double, row-major.
std::vector<double> dct_rows(int32_t n_in, int32_t n_out, double lifter);

// The table on the device in T (float or double), uploaded once for each
// (n_out, n_in, lifter, T) under "dct_" n_out "_" n_in "_" the lifter's bits
// in hexadecimal "_" the element size.
template <class T>
const void* dct_device(int32_t n_in, int32_t n_out, double lifter);

}  // namespace ondrel
