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

// A Bluestein step folded into a pass, so that the staged convolution
// costs four global passes and no element-wise kernels.
enum class FourStepFuse : int {
  none = 0,
  chirp_load = 1,    // pass 1: the data row times the chirp `bch`, zero from `chirp_n` on
  filter_store = 2,  // pass 2: the spectrum times the filter spectrum `filt`
  chirp_store = 3,   // pass 2 of the inverse: times `bch` and `scale`, only the data's values
};

struct FourStepPass {
  int32_t n = 0, n1 = 0, n2 = 0;
  int pass = 1;          // 1: n2-point columns and the twiddle step; 2: n1-point columns
  int32_t columns = 1;   // columns a block takes; the last tile of a row may be ragged
  int32_t threads = 128;
  int compute_prec = 1;  // 1 float, 2 double
  int data_prec = 1;     // precision of the global side of the pass: 0 half pairs, else compute_prec
  bool inverse = false;
  FourStepFuse fuse = FourStepFuse::none;
  int32_t chirp_n = 0;   // the Bluestein length of a chirp step
  int chirp_mode = 0;    // of a chirp step: 0 complex rows, 1 real rows to half spectra, 2 half spectra to real rows
};

// "ondrel_fft(x, out, tw, nrows)": pass 1 reads `iot` rows and writes `cplx`
// scratch rows, pass 2 the reverse. A chirp load adds `bch` before `nrows`
// and reads rows of the data (real rows in mode 1); a filter store adds
// `filt`; a chirp store adds `bch` and a real `scale` and writes rows of the
// data (real rows in mode 2).
KernelParams four_step_params(const FourStepPass& p, const Backend& backend);

// "ondrel_fft(x, out, tw, nrows, ...)": pass 1 reads data rows and writes the
// scratch, pass 2 reads the scratch and writes data rows. Inverse passes
// conjugate on the first load and on the last store, scaled by 1 / n; a
// chirp store conjugates and leaves the whole scale to `scale`.
std::string four_step_pass_kernel(const FourStepPass& p, const Backend& backend);

// Elements a shared tile of `count` values needs under the tile padding.
int64_t four_step_tile_elements(int64_t count);

}  // namespace ondrel::codegen
