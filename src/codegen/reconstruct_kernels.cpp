#include "codegen/reconstruct_kernels.hpp"

#include "codegen/kernel_writer.hpp"
#include "codegen/prelude.hpp"

namespace ondrel::codegen {

namespace {

int compute_of(int prec) { return prec == 2 ? 2 : 1; }

std::string opening(const std::string& name, const KernelParams& params, int prec, const Backend& b) {
  KernelSig sig(name, b, params);
  sig.bound_threads = 256;
  return b.preamble(compute_of(prec)) + types_prelude(b) + sig.head();
}

void element(KernelWriter& w) {
  w.emit("I64 i = (I64)$ * 256 + $;", w.backend.block_x(), w.backend.thread_x());
  w.line("if (i < total) {");
}

}  // namespace

KernelParams gl_mul_params(const Backend& b, int prec) {
  const std::string t = b.real_type(compute_of(prec));
  return {KernelParam::input(t, "S"), KernelParam::input(t, "ang"), KernelParam::output(t, "Zc"),
          KernelParam::value("I64", "total")};
}

std::string gl_mul_kernel(int prec, const Backend& b) {
  std::string text = opening("ondrel_gl_mul", gl_mul_params(b, prec), prec, b);
  KernelWriter w(compute_of(prec), b);
  element(w);
  w.line("  Zc[2 * i] = S[i] * ang[2 * i];");
  w.line("  Zc[2 * i + 1] = S[i] * ang[2 * i + 1];");
  w.line("}");
  return text + w.text() + "}\n";
}

KernelParams gl_step_params(const Backend& b, int prec) {
  const std::string t = b.real_type(compute_of(prec));
  return {KernelParam::input(t, "Z"),      KernelParam::output(t, "prev"), KernelParam::output(t, "ang"),
          KernelParam::value(t, "alpha"),  KernelParam::value(t, "tiny"),  KernelParam::value("I64", "total")};
}

std::string gl_step_kernel(int prec, const Backend& b) {
  const int c = compute_of(prec);
  const std::string t = b.real_type(c);
  std::string text = opening("ondrel_gl_step", gl_step_params(b, prec), prec, b);
  KernelWriter w(c, b);
  element(w);
  w.emit("  $ zr = Z[2 * i], zi = Z[2 * i + 1];", t);
  w.emit("  $ ur = zr - alpha * prev[2 * i], ui = zi - alpha * prev[2 * i + 1];", t);
  w.emit("  $ m = $ + tiny;", t, c == 2 ? "sqrt(ur * ur + ui * ui)" : b.sqrt_call("ur * ur + ui * ui"));
  w.line("  ang[2 * i] = ur / m; ang[2 * i + 1] = ui / m;");
  w.line("  prev[2 * i] = zr; prev[2 * i + 1] = zi;");
  w.line("}");
  return text + w.text() + "}\n";
}

}  // namespace ondrel::codegen
