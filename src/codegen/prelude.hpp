#pragma once
// Text that stands above kernel bodies: the index and address-space types,
// the complex type with its helpers, and the padding macros of centred
// framing. Generators place these at the top of a kernel.
#include <cstdint>
#include <string>

#include "codegen/backend.hpp"

namespace ondrel::codegen {

// I64, and the TG/DEV pointer qualifiers (empty where the dialect has none).
std::string types_prelude(const Backend& backend);

// types_prelude, then `cplx` as the compute pair type with cmk, cadd, csub,
// cmul. Data in global memory are `iot`, which each FFT kernel declares.
std::string complex_prelude(const Backend& backend, int prec);

// PAD and refl(pos): the reflecting index of centred framing; needs SIG_LEN.
std::string refl_defines(int64_t pad);

// The head of the spectral kernels: preamble, complex prelude, brev over
// log2(n_fft / 2) bits and the reflecting index.
std::string spectral_prelude(const Backend& backend, int prec, int64_t n_fft, int64_t pad);

}  // namespace ondrel::codegen
