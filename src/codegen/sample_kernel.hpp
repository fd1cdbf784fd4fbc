#pragma once
// A small complete kernel, composed with every piece of the toolkit: the
// twiddle rotation of rows of length n, out[r][k] = x[r][k] * w^k with
// w = exp(-+2 pi i / n). It is what the demo prints and what shows a reader
// the shape of every generated kernel.
#include <cstdint>
#include <string>

#include "codegen/backend.hpp"

namespace ondrel::codegen {

std::string sample_kernel(const Backend& backend, int32_t n, int prec, bool inverse);

}  // namespace ondrel::codegen
