#pragma once
// How a transform length splits into radices, and the length tests that the
// FFT routes are made of. Pure functions of their arguments.
#include <cstdint>
#include <vector>

namespace ondrel {

bool is_pow2(int32_t n);  // true for 1, 2, 4, ...
int32_t ilog2(int32_t n);  // floor(log2 n) for n >= 1
int32_t largest_prime_factor(int32_t n);  // 1 for n below 2

// Radices 2^bits-per-pass of a power of two with `bits` bits, in as few
// passes of at most 4 bits as possible, wider passes first.
std::vector<int32_t> pow2_stages(int32_t bits);

// Largest table radix first, each as often as it divides; an unfactored
// rest other than 1 closes the list and is returned in `rest`.
std::vector<int32_t> factor_schedule(int32_t n, int32_t& rest, bool with25);

// 7, 5, 3, 2 as often as they divide, then odd trials from 11 on a rest of at
// least 121; what trial division leaves is `rest`, pushed when not 1.
std::vector<int32_t> smooth_factors(int32_t n, int32_t& rest);

bool is_prime(int32_t n);
// The prime above 13 that closes a length's list, or 0.
int32_t rader_prime(int32_t n);
// Complex elements a Rader stage needs behind the row, or 0. Wider than the
// length: near the top of the 32-bit range the sum no longer fits it.
int64_t rader_scratch(int32_t n);
// Bytes of one complex element of a precision code: 0 half, 1 single, 2 double.
int32_t complex_bytes(int32_t prec);
uint64_t shared_fft_bytes(int32_t n, int32_t prec);

struct FactorPair {
  int32_t n1 = 0;
  int32_t n2 = 0;
};
// The first factor pair (from sqrt downward) whose halves each fit in
// shared memory when `n` itself does not; (0, 0) otherwise.
FactorPair two_level_split(int32_t n, int32_t prec, uint64_t limit);

// True when the largest prime factor is too big for the mixed-radix cores.
bool bluestein_wanted(int32_t n);
// bluestein_wanted, or a rest of factor_schedule that is a product of primes
// above 13 (289 = 17 x 17 the least), which no native core takes. The routes
// decide by this; route_explain, a summary, reports bluestein_wanted alone.
bool takes_bluestein(int32_t n);
// The convolution length of Bluestein: a 2,3,5,7-smooth multiple of 4 at
// least 2n - 1, no larger than the power of two that would do. Wider than
// the length, as 2n - 1 is.
int64_t bluestein_length(int32_t n);

// A register schedule: first radix r in [lo, hi] (largest first), every
// later radix a divisor of r and of what is left.
bool mixed_schedule(int32_t n, int32_t lo, int32_t hi, std::vector<int32_t>& out, int32_t& first);

// Whether an odd real length has a native kernel under `shared_limit`;
// `wide` is the double instantiation.
bool odd_native(int32_t n, bool wide, uint64_t shared_limit);

// The number theory of Rader's algorithm on a prime p.
int32_t mod_pow(int32_t a, int32_t e, int32_t m);
int32_t primitive_root(int32_t p);

}  // namespace ondrel
