#pragma once
// The decisions of the host FFT that depend on the length alone: which
// driver serves it, the stage radices of the mixed driver and how they group
// into passes, and the radix list of the plane driver. Pure functions.
#include <cstdint>
#include <vector>

namespace ondrel::host {

enum class HostRoute { plane, mixed, bluestein };

// Bluestein above 13, whose primes have no kernel; the mixed driver from 16
// except short odd lengths, which gain more from eight rows per vector.
HostRoute host_route(int32_t n);

// Stage radices of the mixed driver in execution order. Throws
// std::invalid_argument for a length with a prime factor above 13.
std::vector<int32_t> host_factors(int32_t n);

// One pass of an executor: a stage of radix `r1` at `l`, merged with the
// following stage of radix `r2` (1 when not merged). `stage` is the index of
// the first of its stages in the plan's factor list.
struct HostPass {
  int32_t r1 = 0;
  int32_t r2 = 1;
  int64_t l = 1;
  int32_t stage = 0;
  bool operator==(const HostPass&) const = default;
};

// The passes of the mixed driver over `host_factors(n)`.
std::vector<HostPass> host_passes(int32_t n, const std::vector<int32_t>& factors);

// Radix list of the plane driver: 16, 4, 2, 9, 25 while each divides, then
// the remaining primes ascending.
std::vector<int32_t> plane_radices(int32_t n);

// The passes of the plane driver: 16, 9 and 25 run as two merged stages;
// the stage numbers count those halves.
std::vector<HostPass> plane_passes(const std::vector<int32_t>& radices);

}  // namespace ondrel::host
