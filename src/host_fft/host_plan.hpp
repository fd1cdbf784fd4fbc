#pragma once
// The plan of one (length, direction) of the mixed driver: stage radices,
// passes and the twiddle tables the pass kernels read.
#include <cstddef>
#include <cstdint>
#include <vector>

#include "host_fft/host_factors.hpp"

namespace ondrel::host {

template <class T>
struct HostPlan {
  int32_t n = 0;
  bool inverse = false;
  std::vector<int32_t> factors;
  std::vector<HostPass> passes;
  // Per stage after the first, for j from 1 to R - 1: L cosines each twice,
  // then L sines each twice, so that one vector multiplies interleaved data.
  std::vector<size_t> dup_offsets;
  std::vector<T> dup_twiddles;
  // Per stage of radix 2 or 4 after the first, for each j: L (cos, sin) pairs.
  std::vector<size_t> pair_offsets;
  std::vector<T> pair_twiddles;
  std::vector<size_t> root_offsets;
  std::vector<T> roots_cos;
  std::vector<T> roots_sin;
};

// cos and sin of sign * 2 pi k / m, in double, with k reduced modulo m
// exactly first so that large products lose nothing.
void unit_root(int64_t k, int64_t m, double sign, double& c, double& s);

template <class T>
HostPlan<T> build_host_plan(int32_t n, bool inverse);

// Where a pass kernel finds the twiddle of (i, j) of one stage and its roots:
// twiddle = (c[(j-1) js + i is], s[(j-1) js + i is]).
template <class T>
struct StageTw {
  const T* c = nullptr;
  const T* s = nullptr;
  int64_t js = 0;
  int64_t is = 0;
  const T* rc = nullptr;
  const T* rs = nullptr;
};

template <class T>
std::vector<StageTw<T>> stage_views(const HostPlan<T>& plan);

}  // namespace ondrel::host
