#pragma once
// The macros that kernels define before their first use, with the exact
// spellings each kernel family writes.
#include <cstdint>
#include <string>

#include "codegen/backend.hpp"

namespace ondrel::codegen {

// "#define NAME VALUE\n" for the plain macros (TPF, F, NB, TWN, HOP, ...).
std::string define(const std::string& name, const std::string& value);

// The scale of inverse transforms: "#define INVSC ((R)(1.0 / n))".
std::string invsc_define(const Backend& backend, int prec, int64_t n);

// Shared-memory bank padding. Every shared complex array is indexed through
// SHP (or RSP), so one index expression serves padded and plain layouts; a
// shift of 4 inserts one pad element after every sixteen.
std::string shp_define(bool pad);               // Cooley-Tukey, real-input, register kernels
std::string shp_define_bluestein(int prec);     // shift 3 in double, 4 otherwise
std::string shp_define_spectral(int shift);     // spectral kernels; shift 0 is no padding
std::string rsp_define_tiles();                 // four-step tiles, padded
std::string rsp_define_rader();                 // Rader block, plain unless already defined

}  // namespace ondrel::codegen
