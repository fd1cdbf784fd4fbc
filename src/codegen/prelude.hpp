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

// `iot`, the type of one complex value in global memory: `cplx` itself, or
// a pair of halves when `storage` is 0 (arithmetic stays in `compute`).
std::string iot_typedef(const Backend& backend, int compute, int storage);

// `T`, the real type of the arithmetic, and `S`, that of data in global
// memory (the same, or __half when `storage` is 0): the element-wise
// kernels of the filtering family.
std::string real_typedefs(const Backend& backend, int compute, int storage);

// The head of the FFT kernels: preamble, complex prelude and `iot`.
std::string fft_prelude(const Backend& backend, int compute, int storage);

// The packed-pair head: `cplx` as two __half2 (one lane a row) with its
// helpers, and `iot` as one __half2.
std::string pair_prelude(const Backend& backend);

// brev(x): x's lowest `bits` bits reversed.
std::string brev_define(const Backend& backend, int bits);

// PAD and refl(pos): the reflecting index of centred framing; needs SIG_LEN.
std::string refl_defines(int64_t pad);

// The head of the spectral kernels: preamble, complex prelude, brev over
// log2(n_fft / 2) bits and the reflecting index.
std::string spectral_prelude(const Backend& backend, int prec, int64_t n_fft, int64_t pad);

}  // namespace ondrel::codegen
