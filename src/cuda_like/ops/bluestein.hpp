#pragma once
// Bluestein's chirp-z algorithm for lengths whose largest prime factor is
// too big for the radix kernels: the length-n transform as a circular
// convolution of the smooth length m = bluestein_length(n). One template
// over the compute type T (float also serves half data).
#include <cstdint>
#include <string>
#include <vector>

#include "codegen/bluestein_kernels.hpp"
#include "cuda_like/launch/launch_record.hpp"
#include "rocm/hip_api.hpp"

namespace ondrel {

struct BluesteinFusedPlan {
  int32_t n = 0, m = 0;
  std::vector<int32_t> schedule;  // radices of m, without 25
  int32_t tpf = 16;
  uint64_t shared_bytes = 0;
  double scale = 1;  // 1 / n for the inverse, over the gain of the conjugated stages
  std::string key;
};

// The convolution length of n, refused with
// "fft: n exceeds the device shared-memory limit" where it leaves the
// 32-bit range, since no four-step split could serve it either.
int32_t bluestein_m(int32_t n);

// Whether both length-m transforms of a row fit one block's shared memory.
bool bluestein_fused_fits(int32_t m, bool is_double, uint64_t shared_limit);
BluesteinFusedPlan bluestein_fused_plan(int32_t n, bool is_double, bool inverse);

// Complex rows at full precision, one kernel. Falls back to the staged form
// when the row does not fit shared memory.
template <class T>
void bluestein_fused(const void* x, void* out, int64_t rows, int32_t n, bool inverse, int device,
                     hip_dl::hipStream_t stream);

// Two four-step transforms of length m in four passes: the chirp folded into
// the first load, the filter product into the store between the transforms,
// the chirp and scale into the last store. Rows go in chunks of at most
// 65535, like the four-step path's.
template <class T>
void bluestein_staged(const void* x, void* out, int64_t rows, int32_t n, bool inverse, codegen::BluesteinMode mode,
                      int device, hip_dl::hipStream_t stream, int32_t io);

// The complex FFT's choice: full-width data fused where it fits, half data
// and long rows staged.
template <class T>
void bluestein_fft(const void* x, void* out, int64_t rows, int32_t n, bool inverse, bool half, int device,
                   hip_dl::hipStream_t stream);

// Two real rows packed as one complex row, single precision: forward real
// rows to half spectra, inverse the reverse. Falls back to the staged form
// (mode 1 or 2) when the row does not fit shared memory.
void bluestein_real_pair(const void* x, void* out, int64_t rows, int32_t n, bool inverse, int device,
                         hip_dl::hipStream_t stream);

// The real FFT's choice: the pair form for float data, the staged form for
// double and half data. Forward: rows of n reals to n / 2 + 1 bins; inverse
// the reverse, scaled by 1 / n; the imaginary part of bin 0 is ignored.
template <class T>
void bluestein_real(const void* x, void* out, int64_t rows, int32_t n, bool inverse, bool half, int device,
                    hip_dl::hipStream_t stream);

// Every kernel a Bluestein transform of length n compiles under
// `shared_limit`, by the same choice as the operations: the fused or pair
// kernel, or the four staged passes of length m.
// `real` picks the real transform (modes 1 and 2 when staged).
std::vector<KernelPlan> bluestein_kernels(int32_t n, bool is_double, bool half, bool real, bool inverse,
                                          uint64_t shared_limit);

}  // namespace ondrel
