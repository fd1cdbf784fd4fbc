#include "codegen/lfilter_kernels.hpp"

#include <algorithm>

#include "codegen/kernel_writer.hpp"
#include "codegen/macros.hpp"
#include "codegen/prelude.hpp"

namespace ondrel::codegen {

int64_t lfilter_cf_elements(int32_t p, int32_t m1) {
  return int64_t{m1} + p + int64_t{kLfilterLevels} * p * p;
}

int32_t lfilter_scan_steps(int32_t threads) {
  int32_t steps = 0;
  for (int64_t stride = 1; stride < threads; stride <<= 1) ++steps;
  return steps;
}

int64_t lfilter_shared_words(int32_t p, int32_t threads) { return int64_t{p} * threads; }

KernelParams lfilter_pack_params() {
  return {KernelParam::input("R", "b"), KernelParam::input("R", "a"), KernelParam::output("R", "cf")};
}

KernelParams lfilter_params() {
  return {KernelParam::input("R", "x"),  KernelParam::output("R", "y"), KernelParam::input("R", "cf"),
          KernelParam::input("R", "xh"), KernelParam::input("R", "zy"), KernelParam::value("I64", "T"),
          KernelParam::value("int", "hzi")};
}

namespace {

std::string filter_head(int32_t p, int32_t m1, int prec, const Backend& backend) {
  return backend.preamble(prec) + types_prelude(backend) + "typedef " + backend.real_type(prec) + " R;\n" +
         define("PP", std::to_string(p)) + define("MT", std::to_string(m1));
}

// Local arrays keep one element when the order is 0, since C++ has no
// empty arrays; the loops over them then run no step.
std::string size(int64_t n) { return std::to_string(std::max<int64_t>(n, 1)); }

// M = M * M through tmp, the plain triple loop.
void square(KernelWriter& w) {
  w.line("for (int r = 0; r < PP; ++r) for (int c = 0; c < PP; ++c) {");
  w.line("R acc = (R)0;");
  w.line("for (int k = 0; k < PP; ++k) acc += M[r * PP + k] * M[k * PP + c];");
  w.line("tmp[r * PP + c] = acc;");
  w.line("}");
  w.line("for (int i = 0; i < PP * PP; ++i) M[i] = tmp[i];");
}

// The feedforward sum f of sample n. In the local pass (`bounded`) samples
// from n = T on count as 0; the replay never reaches them.
void feedforward(KernelWriter& w, bool bounded) {
  const std::string row_end = bounded ? "n < T && " : "";
  w.line("R f = (R)0;");
  w.line("for (int m = 0; m < MT; ++m) {");
  w.line("I64 ix = n - m;");
  w.line("R v = (R)0;");
  w.emit("if ($ix >= 0) v = x[xb + ix];", row_end);
  w.emit("else if (hzi && $MT - 1 + ix >= 0) v = xh[xhb + MT - 1 + ix];", row_end);
  w.line("f += bq[m] * v;");
  w.line("}");
}

// One output step on the state `st`: yn, then the shift that makes yn the
// most recent output.
void step(KernelWriter& w, const std::string& st, int32_t p) {
  w.line("R yn = f;");
  w.emit("for (int j = 0; j < PP; ++j) yn -= aq[j] * $[j];", st);
  if (p == 0) return;
  w.emit("for (int k = PP - 1; k > 0; --k) $[k] = $[k - 1];", st, st);
  w.emit("$[0] = yn;", st);
}

}  // namespace

std::string lfilter_pack_kernel(int32_t p, int32_t m1, int prec, const Backend& backend) {
  std::string text = filter_head(p, m1, prec, backend) +
                     KernelSig("ondrel_lfilter_pack", backend, lfilter_pack_params()).head();
  KernelWriter w(prec, backend);
  w.emit("if ($ != 0) return;", backend.thread_x());
  w.emit("R M[$], tmp[$];", size(int64_t{p} * p), size(int64_t{p} * p));
  w.line("for (int i = 0; i < PP * PP; ++i) M[i] = (R)0;");
  w.line("for (int j = 0; j < PP; ++j) M[j] = -a[j];");
  w.line("for (int i = 1; i < PP; ++i) M[i * PP + i - 1] = (R)1;");
  w.line("for (int s = 0; s < 4; ++s) {");
  square(w);
  w.line("}");
  w.line("for (int i = 0; i < MT; ++i) cf[i] = b[i];");
  w.line("for (int i = 0; i < PP; ++i) cf[MT + i] = a[i];");
  w.emit("for (int l = 0; l < $; ++l) {", kLfilterLevels);
  w.line("for (int i = 0; i < PP * PP; ++i) cf[MT + PP + l * PP * PP + i] = M[i];");
  square(w);
  w.line("}");
  return text + w.text() + "}\n";
}

std::string lfilter_kernel(int32_t p, int32_t m1, int prec, int32_t threads, int32_t seq, const Backend& backend) {
  std::string text = filter_head(p, m1, prec, backend) + define("NSEQ", std::to_string(seq)) +
                     define("NTH", std::to_string(threads)) + "#define LEV0 (MT + PP)\n";
  KernelSig sig("ondrel_lfilter", backend, lfilter_params());
  sig.bound_threads = threads;
  sig.set_shared("R", "sv");
  text += sig.head();
  const std::string ps = size(p);
  KernelWriter w(prec, backend);
  w.emit("int tid = $;", backend.thread_x());
  w.emit("I64 xb = (I64)$ * T;", backend.block_x());
  w.emit("I64 xhb = (I64)$ * (MT - 1);", backend.block_x());
  // The coefficients once into registers; the loops read them there.
  w.emit("R bq[$], aq[$];", size(m1), ps);
  w.line("for (int m = 0; m < MT; ++m) bq[m] = cf[m];");
  w.line("for (int j = 0; j < PP; ++j) aq[j] = cf[MT + j];");
  // c: the state at the start of the tile, known to thread 0.
  w.emit("R c[$];", ps);
  w.emit("for (int k = 0; k < PP; ++k) c[k] = hzi ? zy[(I64)$ * PP + k] : (R)0;", backend.block_x());
  w.line("const I64 TILE = (I64)NTH * NSEQ;");
  w.line("for (I64 base = 0; base < T; base += TILE) {");
  w.line("I64 off = base + (I64)tid * NSEQ;");
  // Local pass: where each run's state would end from a zero start (thread
  // 0 alone knows its true start). Past the row's end the input is 0.
  w.emit("R st[$];", ps);
  w.line("for (int k = 0; k < PP; ++k) st[k] = tid == 0 ? c[k] : (R)0;");
  w.line("for (int i = 0; i < NSEQ; ++i) {");
  w.line("I64 n = off + i;");
  feedforward(w, true);
  step(w, "st", p);
  w.line("}");
  w.line("for (int k = 0; k < PP; ++k) sv[k * NTH + tid] = st[k];");
  w.sync();
  // Inclusive scan: after step j a thread has folded in the 2^(j+1) runs
  // up to its own, level j carrying a state across 2^j runs. The read of
  // the neighbour and the write of one's own are parted by a barrier.
  w.line("for (int j = 0, stride = 1; stride < NTH; ++j, stride <<= 1) {");
  w.line("bool act = tid >= stride;");
  w.emit("R pv[$];", ps);
  w.line("for (int k = 0; k < PP; ++k) pv[k] = act ? sv[k * NTH + tid - stride] : (R)0;");
  w.sync();
  w.line("if (act) for (int r = 0; r < PP; ++r) {");
  w.line("R acc = (R)0;");
  w.line("for (int q = 0; q < PP; ++q) acc += cf[LEV0 + (j * PP + r) * PP + q] * pv[q];");
  w.line("sv[r * NTH + tid] += acc;");
  w.line("}");
  w.sync();
  w.line("}");
  // Replay from each run's true start: the end state of the run before.
  w.emit("R si[$];", ps);
  w.line("for (int k = 0; k < PP; ++k) si[k] = tid == 0 ? c[k] : sv[k * NTH + tid - 1];");
  w.line("for (int i = 0; i < NSEQ; ++i) {");
  w.line("I64 n = off + i;");
  w.line("if (n >= T) break;");
  feedforward(w, false);
  step(w, "si", p);
  w.line("y[xb + n] = yn;");
  w.line("}");
  // The last run's end state starts the next tile.
  w.line("for (int k = 0; k < PP; ++k) c[k] = sv[k * NTH + NTH - 1];");
  w.sync();
  w.line("}");
  return text + w.text() + "}\n";
}

}  // namespace ondrel::codegen
