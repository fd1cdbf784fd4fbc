#pragma once
// The decision of one spectral kernel: which FFT core, how many threads and
// frames a block, whether it fits one block at all. Pure: a function of the
// request, the tuned knobs and the device's shared-memory limit.
#include <cstdint>

#include "codegen/stft_kernels.hpp"
#include "cuda_like/tune/tuned_table.hpp"

namespace ondrel {

using codegen::StftPlan;

// Bits of TuneEntry::var as the spectral family reads them: bit 2 allows
// SHP in the mixed core, bits 4 to 7 hold the SHP shift code (0 means 4, 15
// means 0). TuneEntry::core: 1 forces CT, 3 forces EPT16.
constexpr uint32_t kSpectralVarShp = 4;
constexpr uint32_t kSpectralCoreCt = 1;
constexpr uint32_t kSpectralCoreEpt16 = 3;

// A plan for n_fft `n` in compute precision `prec` (0 half, 1 single, 2
// double). Every plan whose kernel would not fit `shared_limit` comes back
// with the four-step core, which the operations run staged; so do frame
// lengths whose FFT would embed a long prime or composite butterfly. The
// caller sets in_prec, out_prec and window_kind afterwards.
StftPlan build_stft_plan(int prec, int32_t n, int32_t hop, int32_t pad, int64_t sig_len, int64_t nframes, int mode,
                         double eps, uint64_t shared_limit, const TuneEntry& knobs);

// The word route_explain reports for a core.
const char* stft_core_word(int core);

}  // namespace ondrel
