#pragma once
// Complex FFTs of one radix squared (ceptfft_) or cubed (cept3_): each thread
// keeps r values in registers, and the digits are exchanged through a shared
// tile, once for a square and twice for a cube. The entry function is
// "ondrel_fft(x, out, tw, nrows)"; double kernels read twiddles from `tw`.
#include <cstdint>
#include <string>

#include "codegen/backend.hpp"

namespace ondrel::codegen {

// Complex elements of one row's shared tile.
int64_t tile_elements(int32_t r);
int64_t cube_elements(int32_t r);

// n = r * r, r threads a row, `fpb` rows a block; the tile row has stride
// r + 1 so that the column reads spread over the banks.
std::string tile_kernel(int32_t n, int32_t r, int compute_prec, const Backend& backend, bool inverse, int32_t fpb,
                        int io_prec);

// n = r * r * r, r * r threads a row, `fpb` rows a block.
std::string cube_kernel(int32_t n, int32_t r, int compute_prec, const Backend& backend, bool inverse, int32_t fpb,
                        int io_prec);

}  // namespace ondrel::codegen
