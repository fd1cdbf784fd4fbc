#pragma once
// The mel spectrogram's kernels. "ondrel_mel" runs the STFT's load and FFT,
// keeps each frame's power row in shared memory and sums every band over
// the nonzero span of its filter, so the spectrum never reaches global
// memory. "ondrel_melred" does the band sums for the staged path, from
// power rows the split kernel wrote out.
#include <cstdint>
#include <functional>
#include <string>

#include "codegen/backend.hpp"
#include "codegen/kernel_sig.hpp"
#include "codegen/kernel_writer.hpp"
#include "codegen/stft_kernels.hpp"

namespace ondrel::codegen {

// y, mel, tw, win, fb_lo, fb_off, fb_w, NFRAMES, SIG_LEN, and D with a DCT.
KernelParams mel_params(const StftPlan& plan, const Backend& backend);

// The bytes the fused kernel asks for: the STFT's rows and twiddles, the
// power rows, and the band rows a DCT reads.
uint64_t mel_shared_bytes(const StftPlan& plan);

// The epilogue of a fused DCT: it receives the writer outside the frame
// guard, where every thread of the block stands, the plan and the shared
// buffer of the frame's band values (behind no barrier), and owns the
// output from there.
using CepstrumHook = std::function<void(KernelWriter& w, const StftPlan& plan, const std::string& bands)>;

// The fused text, for every core but the four-step one (which runs
// staged): std::invalid_argument there, std::logic_error for a DCT plan
// without its epilogue or on the paired and mixed cores.
std::string mel_text(const StftPlan& plan, const Backend& backend, const CepstrumHook& cepstrum = {});

// The staged band sums: rows of NB power values of the compute type to
// n_mels bands each, in the output form.
struct MelReduce {
  int32_t n = 0;
  int32_t n_mels = 0;
  int prec = 1;  // 1 float, 2 double: the power rows and the weights
  int out_prec = 1;
  int mode = 0;  // 1 square root of the sum, 3 decibels, else the sum
  double eps = 1e-10;
};

// P, mel, lo, off, w, row0.
KernelParams melred_params(const MelReduce& r, const Backend& backend);
std::string melred_kernel(const MelReduce& r, const Backend& backend);

}  // namespace ondrel::codegen
