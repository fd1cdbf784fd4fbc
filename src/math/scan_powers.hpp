#pragma once
// How far the packed powers of a recursive filter's companion matrix are
// from the exact ones. The block-parallel filter carries states across runs
// of samples with these powers, squared in the working precision; for
// filters with poles near the unit circle the squaring loses accuracy (or
// overflows), and the filter's output with it. Device-free.
#include <cstdint>

namespace ondrel {

// The largest row sum of |P_l - A^(16 * 2^l)| over the levels l below
// `count`: `levels` holds count matrices of p by p, row-major; A is the
// companion matrix of the p feedback coefficients `a` (row 0 holds -a, the
// sub-diagonal 1). The exact powers are computed in double-double
// arithmetic. Infinity when a level or an exact power is not finite.
double scan_power_error(const double* a, int32_t p, const double* levels, int32_t count);

}  // namespace ondrel
