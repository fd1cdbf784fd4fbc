#pragma once
// The inverse constant-Q transform by direct estimate, between device
// addresses: each octave's band of bins times its dual basis gives short
// spectra, zero-padded to the full rate and inverted by the library's real
// FFT, and the covering frames are averaged into the signal, each frame
// centred on its hop as the forward frame is. One pass, no iteration: a
// starting point, exact only where the duals invert the forward bases.
#include <complex>
#include <cstdint>
#include <string>
#include <vector>

#include "cuda_like/launch/launch_record.hpp"
#include "math/precision.hpp"

namespace ondrel {

// One 5-tuple (level, n_fft, row_lo, rows, D).
struct IcqtOctave {
  int64_t level = 0;
  int64_t n_fft = 0;
  int64_t row_lo = 0;
  int64_t rows = 0;
  int64_t d_rows = -1, d_cols = -1;         // D's shape as given; -1 when not 2-D
  const std::complex<double>* d = nullptr;  // rows x (n_fft / 2 + 1), row-major

  int64_t half_d() const { return n_fft / 2 + 1; }
  // The frame length at the full rate (checked not to overflow first).
  int64_t span() const { return n_fft << level; }
};

struct IcqtDirectPlan {
  std::vector<IcqtOctave> octaves;
  std::string plan_key;
};

// The longest full-rate frame: the inverse real FFT's reach, and far past
// any constant-Q frame in use.
constexpr int64_t kMaxIcqtSpan = int64_t{1} << 24;

struct IcqtDirectCall {
  const IcqtDirectPlan* plan = nullptr;
  int64_t batch = 0;
  int64_t n_bins = 0;
  int64_t frames = 0;
  int64_t hop = 0;
  int64_t length = 0;
  Precision prec;  // 2 double, anything else float
  int32_t device = 0;
  void* stream = nullptr;
};

struct IcqtDirect {
  IcqtDirectCall call;
  const void* c = nullptr;  // batch x n_bins x frames complex
  void* y = nullptr;        // batch x length, every element written
};

// Every check that needs no device, in the order the errors are reported:
// ValueErrors "icqt: ...", then the grid's limit.
void check_icqt_direct(const IcqtDirectCall& c);

// Enqueues the estimate on the call's stream.
void icqt_direct(const IcqtDirect& d);

// ondrel_icqtdual and ondrel_icqtola of a precision code (the FFT lists its own).
std::vector<KernelPlan> icqt_direct_kernels(int32_t prec);

}  // namespace ondrel
