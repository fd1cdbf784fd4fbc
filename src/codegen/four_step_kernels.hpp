#pragma once
// The two passes of the four-step FFT (N = n1 x n2 through a scratch in
// global memory). Each block transforms `columns` adjacent strided columns
// in a shared tile whose columns run fastest, so global reads stay
// contiguous along rows.
#include <cstdint>
#include <string>

#include "codegen/backend.hpp"
#include "codegen/kernel_sig.hpp"

namespace ondrel::codegen {

struct FourStepPass {
  int32_t n = 0, n1 = 0, n2 = 0;
  int pass = 1;          // 1: n2-point columns and the twiddle step; 2: n1-point columns
  int32_t columns = 1;   // columns a block takes
  int32_t threads = 128;
  int compute_prec = 1;  // 1 float, 2 double
  int data_prec = 1;     // precision of the global side of the pass: 0 half pairs, else compute_prec
  bool inverse = false;
};

// "ondrel_fft(x, out, tw, nrows)": pass 1 reads `iot` rows and writes `cplx`
// scratch rows, pass 2 the reverse.
KernelParams four_step_params(int pass);

// "ondrel_fft(x, out, tw, nrows)": pass 1 reads data rows and writes the
// scratch, pass 2 reads the scratch and writes data rows. Inverse passes
// conjugate on the first load and on the last store, scaled by 1 / n.
std::string four_step_pass_kernel(const FourStepPass& p, const Backend& backend);

// Elements a shared tile of `count` values needs under the tile padding.
int64_t four_step_tile_elements(int64_t count);

}  // namespace ondrel::codegen
