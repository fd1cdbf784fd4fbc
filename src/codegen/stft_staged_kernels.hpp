#pragma once
// The staged STFT, for frames whose FFT does not fit one block: the windowed
// frames written out, the library FFT, then the real split (even n) or the
// output form alone (odd n, whose real FFT already split).
#include <cstdint>
#include <string>

#include "codegen/backend.hpp"
#include "codegen/kernel_sig.hpp"

namespace ondrel::codegen {

struct StagedStft {
  int32_t n = 0;
  int32_t hop = 1;
  int32_t pad = 0;
  int prec = 1;     // the frames' and the spectrum's precision
  int in_prec = 1;  // the signal's
  int out_prec = 1;
  int mode = 0;
  double eps = 1e-10;
};

// "ondrel_frames(y, frames, win, NFRAMES, SIG_LEN)": frame t of signal
// blockIdx.y, windowed, as n reals; one frame a block of 256 threads.
KernelParams frames_params(const StagedStft& s, const Backend& backend);
std::string frames_kernel(const StagedStft& s, const Backend& backend);

// "ondrel_rsplit(z, out, split, nrows)": bins 0 to n / 2 of rows of the
// packed M-point spectrum, in the output form; thread k of row blockIdx.y.
KernelParams split_params(const StagedStft& s, const Backend& backend);
std::string split_kernel(const StagedStft& s, const Backend& backend);

// "ondrel_smode(z, out, nrows)": the output form of rows of n / 2 + 1 bins.
KernelParams mode_params(const StagedStft& s, const Backend& backend);
std::string mode_kernel(const StagedStft& s, const Backend& backend);

}  // namespace ondrel::codegen
