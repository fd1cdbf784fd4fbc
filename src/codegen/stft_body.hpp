#pragma once
// The pieces of the fused spectral kernels that the STFT, the mel
// spectrogram and the kernels built on them share: each frame read from the
// signal and transformed in shared memory, then the real unpack of the
// result. The kernels differ only in their heads and in what they do with
// each bin.
#include <functional>
#include <string>

#include "codegen/kernel_writer.hpp"
#include "codegen/stft_kernels.hpp"

namespace ondrel::codegen {

// A statement for one bin, given the texts of its real and imaginary parts.
using BinStatement = std::function<std::string(const std::string& re, const std::string& im)>;

// The comment line that names the kernel's decomposition on cores 0, 1, 3.
std::string packed_comment(const StftPlan& p);

// Cores 0, 1, 3, behind the thread ids and the row `sh`: the signal `yb`,
// the shared twiddles, the windowed load and the FFT, whose M packed points
// stay in `sh`.
void packed_load_fft(KernelWriter& w, const StftPlan& p);

// Core 2 after its head: the ids, the load and the passes, one frame a
// block (`frame`) or, paired, two (`fA`, `fB`). Returns the buffer that
// holds the spectrum.
std::string mixed_load_fft(KernelWriter& w, const StftPlan& p);

// The text of core 2 above its defines: preamble, complex types, reflection.
std::string mixed_prelude(const StftPlan& p, const Backend& b);

// Bins 0 to M - 1 of the M packed points in `buf`, each through `bin`.
void unpack_bins(KernelWriter& w, const StftPlan& p, const std::string& buf, const BinStatement& bin);

// The Nyquist bin's (real) value in the packed points of `buf`.
std::string nyquist_value(const StftPlan& p, const Backend& b, const std::string& buf);

// Paired frames: for each of the NB bins, the real (axr, axi) and (bxr, bxi)
// of frames A and B, then `stores`, which names them.
void paired_bins(KernelWriter& w, const StftPlan& p, const std::string& buf, const std::function<void()>& stores);

}  // namespace ondrel::codegen
