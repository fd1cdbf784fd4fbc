#pragma once
// The register core: a row of n complex values spread over n / ept threads,
// each thread holding ept values as named temporaries. The transform is a
// decimation in frequency whose sub-problems stay in natural order; threads
// meet only in one shared exchange per stage, and the digit reversal is
// folded into the last exchange, so the outputs come out in natural order.
//
// The pieces are separate so that a kernel with its own load and store (the
// real-input register kernels) drives the same walk: `register_load` hands
// each first-stage input to the caller's load, `register_walk` runs the
// butterflies, twiddles and exchanges, and `register_offset` says where each
// output of the last stage belongs.
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "codegen/backend.hpp"
#include "codegen/kernel_writer.hpp"

namespace ondrel::codegen {

struct RegisterShape {
  int32_t n = 0;
  std::vector<int32_t> stages;  // radices, each dividing ept, product n
  int32_t ept = 0;
  bool exchange = false;  // one real component at a time through `v` at `wb`
  bool fast = false;      // twiddle recurrences in float (packed half arithmetic)

  int32_t threads() const { return n / ept; }
  // Elements of the shared view of one row: the component-wise exchange
  // buffer, or a complex row with bank padding room.
  int64_t row_elements() const;
};

// The element of the shared row of a complex register kernel: a complex
// value without the exchange; with it one real component (a half with
// `half_exchange`), or one __half2 of two rows in packed pairs.
struct RegisterElement {
  std::string type;
  int32_t bytes;
};
RegisterElement register_element(const Backend& backend, int compute_prec, bool exchange, bool pair,
                                  bool half_exchange);

// Throws std::logic_error when the stages do not fit the register layout: a
// generator fault, since the route only builds valid lists.
void check_register_shape(const RegisterShape& shape);

// Values of a thread, [butterfly j][input or output e]; butterfly j of a
// stage has the id tid + j * threads.
using RegisterValues = std::vector<std::vector<std::string>>;

// Element q + `offset` of the row for first-stage butterfly j, whose id is
// held in the int variable `q`; returns the name of a cplx value.
using RegisterLoad = std::function<std::string(const std::string& q, int32_t j, int64_t offset)>;

// Declares the butterfly ids of the first stage (returned in `ids`) and
// gathers its inputs, input e of butterfly q being element q + e * (n / r_0).
RegisterValues register_load(KernelWriter& w, const RegisterShape& shape, const RegisterLoad& load,
                             std::vector<std::string>& ids);

// Butterflies, twiddles and exchanges of every stage, from the inputs and
// ids of register_load. Expects `tid`, the shared view `v` (and `wb` with
// the exchange), and SHP. Every thread reaches every barrier. Returns the
// last stage's outputs: output e of butterfly j is element
// tid + register_offset(shape, j, e) of the row.
RegisterValues register_walk(KernelWriter& w, const RegisterShape& shape, RegisterValues inputs,
                             std::vector<std::string> ids);
int64_t register_offset(const RegisterShape& shape, int32_t j, int32_t e);

// Multiplies values[j][e], e >= 1, by the e-th power of the twiddle of
// butterfly j at position q_names[j] on a circle of `span`.
void reg_twiddles(KernelWriter& w, RegisterValues& values, const std::vector<std::string>& q_names, int32_t span,
                  int32_t r, int32_t j_count, bool fast);

// The complex FFT kernel of routes cregfft_ and cpair16_: "ondrel_fft(x,
// out, tw, nrows)". `pair` packs rows 2b and 2b + 1 into the two lanes of
// __half2 arithmetic (compute_prec 0, exchange, forward only); `half_exchange`
// keeps the exchange buffer in 16 bits.
std::string register_kernel(int32_t n, const std::vector<int32_t>& stages, int compute_prec, const Backend& backend,
                            bool inverse, int32_t fpb, int io_prec, int32_t ept, bool exchange, bool pair,
                            bool half_exchange);

}  // namespace ondrel::codegen
