#include "codegen/kernel_sig.hpp"
#include "codegen/kernel_writer.hpp"
#include "codegen/prelude.hpp"
#include "codegen/real_kernel.hpp"

namespace ondrel::codegen {

namespace {

void forward_body(KernelWriter& w, int32_t n, int io, const std::string& b, const std::string& row) {
  const std::string t = w.backend.real_type(w.prec);
  const std::string zero = "(" + t + ")0";
  auto store = [&](int k, const std::string& re, const std::string& im) {
    w.emit("out[$ + $] = $;", b, k, w.backend.make_pair(io, re, im));
  };
  if (n == 1) {
    w.emit("$ a = ($)x[$];", t, t, row);
    store(0, "a", zero);
  } else if (n == 2) {
    w.emit("$ a = ($)x[$], c = ($)x[$ + 1];", t, t, row, t, row);
    store(0, "a + c", zero);
    store(1, "a - c", zero);
  } else {
    w.emit("$ a = ($)x[$], c = ($)x[$ + 1], d = ($)x[$ + 2];", t, t, row, t, row, t, row);
    store(0, "a + c + d", zero);
    store(1, "a - (" + t + ")0.5 * (c + d)", "-((" + t + ")0.86602540378443865 * (c - d))");
  }
}

// Bin 0, and bin 1 of n 2, are real by definition: their imaginary parts
// are never read.
void inverse_body(KernelWriter& w, int32_t n, const std::string& rio, const std::string& b, const std::string& row) {
  const std::string t = w.backend.real_type(w.prec);
  if (n == 1) {
    w.emit("iot t0 = X[$];", row);
    w.emit("out[$] = ($)(($)t0.x);", b, rio, t);
  } else if (n == 2) {
    w.emit("iot t0 = X[$]; iot t1 = X[$ + 1];", row, row);
    w.emit("$ a = ($)t0.x, c = ($)t1.x;", t, t, t);
    w.emit("out[$] = ($)(($)0.5 * (a + c));", b, rio, t);
    w.emit("out[$ + 1] = ($)(($)0.5 * (a - c));", b, rio, t);
  } else {
    w.emit("iot t0 = X[$]; iot t1 = X[$ + 1];", row, row);
    w.emit("$ a = ($)t0.x, br = ($)t1.x, bi = ($)t1.y;", t, t, t, t);
    w.emit("$ third = ($)1 / ($)3, s3 = ($)1.7320508075688772;", t, t, t, t);
    w.emit("out[$] = ($)(third * (a + ($)2 * br));", b, rio, t);
    w.emit("out[$ + 1] = ($)(third * (a - br - s3 * bi));", b, rio);
    w.emit("out[$ + 2] = ($)(third * (a - br + s3 * bi));", b, rio);
  }
}

}  // namespace

std::string real_tiny_kernel(int32_t n, int compute_prec, const Backend& backend, bool inverse, int io_prec) {
  const std::string rio = backend.real_type(io_prec == 0 ? 0 : compute_prec);
  std::string text = fft_prelude(backend, compute_prec, io_prec);
  KernelSig sig("ondrel_rfft_tiny", backend, real_params(inverse, rio, false));
  sig.bound_threads = 256;
  text += sig.head();

  KernelWriter w(compute_prec, backend);
  w.emit("int r = $ * 256 + $;", backend.block_x(), backend.thread_x());
  w.line("if (r >= nrows) return;");
  const std::string real_row = "(I64)r * " + std::to_string(n);
  const std::string bin_row = "(I64)r * " + std::to_string(n / 2 + 1);
  if (inverse) inverse_body(w, n, rio, real_row, bin_row);
  else forward_body(w, n, io_prec, bin_row, real_row);
  return text + w.text() + "}\n";
}

}  // namespace ondrel::codegen
