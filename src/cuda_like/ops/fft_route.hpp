#pragma once
// Which kernel serves a transform length: the whole decision of the complex
// and the real FFT, as pure functions from the request to a route record
// that the cores launch. No device is needed to reach a decision.
#include <cstdint>
#include <string>
#include <vector>

#include "cuda_like/tune/tuned_table.hpp"
#include "math/precision.hpp"

namespace ondrel {

// Bits of TuneEntry::var as the FFT family reads them.
constexpr uint32_t kVarAllow25 = 1;
constexpr uint32_t kVarHalfExchange = 2;
constexpr uint32_t kVarPad = 4;
constexpr uint32_t kVarFlipExchange = 8;
// TuneEntry::core as the FFT family reads it.
constexpr uint32_t kCoreShared = 1;
constexpr uint32_t kCoreRegister = 2;

// The request as a caller of fft or rfft makes it.
struct FftOptions {
  bool inverse = false;
  Precision prec;  // also picks the instantiation
  int32_t device = 0;
  void* stream = nullptr;
  const TuneEntry* override = nullptr;  // a tuner's candidate; bypasses the launch records
};

// Everything the decision depends on.
struct RouteQuery {
  int32_t n = 0;
  Precision prec;
  bool inverse = false;
  TuneEntry tune{};
  uint64_t shared_limit = 49152;
};

enum class FftCore {
  bluestein,     // convolution through a longer smooth transform
  four_step,     // two passes of shorter transforms through global memory
  tiled,         // ceptfft_: one radix squared, tiles in shared memory
  cube,          // cept3_: one radix cubed
  packed_pairs,  // cpair16_: two half rows per packed pair
  registers,     // cregfft_: a row in registers of n / ept threads
  shared,        // cfft_: Stockham stages on a shared row
  real_tiny,     // crffttiny_ / cirffttiny_: one thread a row
  real_registers,
  real_shared,
};

const char* core_word(FftCore core);

struct FftRoute {
  FftCore core = FftCore::shared;
  std::string kernel;  // kernel name and cache key; empty for bluestein and four-step
  int32_t n = 0;
  int32_t compute_prec = 1;  // precision of the kernel's cplx: 0 packed half, 1 single, 2 double
  int32_t io_prec = 1;       // precision of global data: 0 half, 1 single, 2 double
  int32_t radix = 0;         // tiled and cube cores
  int32_t ept = 0;           // elements per thread of register kernels
  int32_t tpf = 0;           // threads per transform of the shared cores
  int32_t rows_per_block = 1;
  uint32_t threads = 0;      // per block
  uint64_t shared_bytes = 0;
  std::vector<int32_t> stages;  // radices of a register kernel
  bool exchange = false;       // component-wise exchange of the register core
  bool half_exchange = false;  // that exchange in 16-bit
  bool pad = false;            // SHP padding of the shared row
  bool with25 = false;         // radix 25 in the shared core
  int32_t rader_prime = 0;     // of the twiddle table the shared core reads
  // One row of the shared-memory core as the decision measured it (the
  // complex length behind a real one), and the limit it measured against.
  uint64_t row_bytes = 0;
  uint64_t shared_cap = 0;

  // Whether one kernel serves the route; Bluestein and four-step run several.
  bool one_kernel() const { return core != FftCore::bluestein && core != FftCore::four_step; }
};

// Complex FFT of length n. Throws std::invalid_argument
// "fft: n exceeds the device shared-memory limit" when no kernel fits.
FftRoute fft_route(const RouteQuery& q);

// Real FFT of length n, forward or inverse. Throws std::invalid_argument
// "rfft: n exceeds the device shared-memory limit".
FftRoute rfft_route(const RouteQuery& q);

}  // namespace ondrel
