#include "codegen/cepstra_kernels.hpp"

#include <functional>

#include "codegen/body_heads.hpp"
#include "codegen/macros.hpp"
#include "codegen/prelude.hpp"

namespace ondrel::codegen {

namespace {

int digit(int prec) { return prec == 2 ? 2 : 1; }

std::string real_of(int prec, const Backend& b) { return b.real_type(digit(prec)); }

// The sizes ahead of the text, where every generator of the family puts them.
std::string sizes(int32_t nin, int32_t nout) {
  return "#define NIN " + std::to_string(nin) + "\n#define NOUT " + std::to_string(nout) + "\n";
}

std::string opening(const std::string& name, const KernelParams& params, int prec, const Backend& b, bool shared) {
  KernelSig sig(name, b, params);
  sig.bound_threads = kCepThreads;
  if (shared) sig.set_shared("char", "smem");
  return b.preamble(digit(prec)) + types_prelude(b) + sig.head();
}

// Below every band value a decibel spectrum can hold.
std::string lowest(int prec) { return digit(prec) == 2 ? "-1e300" : "-1e30f"; }

// `name`, a view of the shared bytes as one value of `t` a thread.
void shared_values(KernelWriter& w, const std::string& t, const std::string& name) {
  const std::string p = w.backend.shared_pointer(t);
  w.emit("$ $ = ($)smem;", p, name, p);
}

// A tree over the 256 values of red, `step` combining red[tid] with
// red[tid + s]; a barrier before and behind every level.
void block_tree(KernelWriter& w, const std::string& step) {
  w.sync();
  w.emit("for (int s = $; s > 0; s >>= 1) {", kCepThreads / 2);
  w.emit("if (tid < s) $", step);
  w.sync();
  w.line("}");
}

// acc += the sum over the coefficients k of D[k][m] * gc at (batch, k, t).
std::string transposed_sum(const std::string& acc) {
  return "for (int k = 0; k < NOUT; ++k) " + acc + " += D[(I64)k * NIN + m] * gc[((I64)batch * NOUT + k) * nf + t];";
}

// One thread an output of nt rows of NOUT: g, and its row f and column k.
void output_ids(KernelWriter& w) {
  w.emit("I64 g = (I64)$ * $ + $;", w.backend.block_x(), kCepThreads, w.backend.thread_x());
  w.line("if (g >= nt * NOUT) return;");
  w.line("I64 f = g / NOUT;");
  w.line("int k = (int)(g % NOUT);");
}

}  // namespace

uint64_t cep_reduction_bytes(int prec) { return kCepThreads * (digit(prec) == 2 ? 8 : 4); }

KernelParams cepmax_params(int prec, const Backend& b) {
  const std::string t = real_of(prec, b);
  return {KernelParam::input(t, "M"), KernelParam::output(t, "peak"), KernelParam::value("I64", "n")};
}

std::string cepmax_kernel(int prec, const Backend& b) {
  const std::string t = real_of(prec, b);
  std::string text = opening("ondrel_cepmax", cepmax_params(prec, b), prec, b, true);
  KernelWriter w(digit(prec), b);
  w.emit("int tid = $;", b.thread_x());
  w.emit("I64 base = (I64)$ * n;", b.block_x());
  shared_values(w, t, "red");
  w.emit("$ m = $;", t, lowest(prec));
  w.emit("for (I64 i = tid; i < n; i += $) { $ v = ($)M[base + i]; if (v > m) m = v; }", kCepThreads, t, t);
  w.line("red[tid] = m;");
  block_tree(w, "{ if (red[tid + s] > red[tid]) red[tid] = red[tid + s]; }");
  w.emit("if (tid == 0) peak[$] = red[0];", b.block_x());
  return text + w.text() + "}\n";
}

KernelParams cepstra_params(int prec, const Backend& b) {
  const std::string t = real_of(prec, b);
  return {KernelParam::input(t, "M"),       KernelParam::output(t, "out"),   KernelParam::input(t, "D"),
          KernelParam::input(t, "peak"),    KernelParam::value("I64", "nt"), KernelParam::value("I64", "nf"),
          KernelParam::value(t, "topdb")};
}

std::string cepstra_kernel(const CepstraShape& s, const Backend& b) {
  const std::string t = real_of(s.prec, b);
  std::string text = sizes(s.n_in, s.n_out) + opening("ondrel_cepstra", cepstra_params(s.prec, b), s.prec, b, false);
  KernelWriter w(digit(s.prec), b);
  output_ids(w);
  if (s.clamp) w.emit("$ lo = peak[f / nf] - topdb;", t);
  w.emit("$ acc = ($)0;", t, t);
  w.line("for (int m = 0; m < NIN; ++m) {");
  w.emit("$ v = ($)M[f * NIN + m];", t, t);
  // The floor is taken on the fly, so M stays the mel spectrogram.
  if (s.clamp) w.line("if (v < lo) v = lo;");
  w.line("acc += D[(I64)k * NIN + m] * v;");
  w.line("}");
  w.emit("out[f * NOUT + k] = $;", b.convert(digit(s.prec), "acc"));
  return text + w.text() + "}\n";
}

KernelParams cepmaxi_params(int prec, const Backend& b) {
  const std::string t = real_of(prec, b);
  return {KernelParam::input(t, "M"), KernelParam::output(t, "peak"), KernelParam::output("I64", "idx"),
          KernelParam::value("I64", "n")};
}

std::string cepmaxi_kernel(int prec, const Backend& b) {
  const std::string t = real_of(prec, b);
  std::string text = opening("ondrel_cepmaxi", cepmaxi_params(prec, b), prec, b, true);
  KernelWriter w(digit(prec), b);
  w.emit("int tid = $;", b.thread_x());
  w.emit("I64 base = (I64)$ * n;", b.block_x());
  shared_values(w, t, "red");
  const std::string ip = b.shared_pointer("I64");
  w.emit("$ ridx = ($)(smem + $);", ip, ip, kCepIndexOffset);
  w.emit("$ m = $;", t, lowest(prec));
  w.line("I64 mi = 0;");
  // Strictly greater: a thread keeps the first of its equal values.
  w.emit("for (I64 i = tid; i < n; i += $) { $ v = M[base + i]; if (v > m) { m = v; mi = i; } }", kCepThreads, t);
  w.line("red[tid] = m; ridx[tid] = mi;");
  // A tree that kept the lower thread on ties would end at the tied value
  // whose thread comes first in bit-reversed order, not at the first in
  // the signal: ties go to the lower index.
  block_tree(w,
             "{ if (red[tid + s] > red[tid] || (red[tid + s] == red[tid] && ridx[tid + s] < ridx[tid])) "
             "{ red[tid] = red[tid + s]; ridx[tid] = ridx[tid + s]; } }");
  w.emit("if (tid == 0) { peak[$] = red[0]; idx[$] = ridx[0]; }", b.block_x(), b.block_x());
  return text + w.text() + "}\n";
}

KernelParams cepadj_params(int prec, const Backend& b) {
  const std::string t = real_of(prec, b);
  return {KernelParam::input(t, "M"),    KernelParam::output(t, "gM"),    KernelParam::input(t, "gc"),
          KernelParam::input(t, "D"),    KernelParam::input(t, "peak"),   KernelParam::value("I64", "nf"),
          KernelParam::value(t, "topdb")};
}

std::string cepadj_kernel(const CepstraShape& s, const Backend& b) {
  const std::string t = real_of(s.prec, b);
  std::string text = sizes(s.n_in, s.n_out) + opening("ondrel_cepadj", cepadj_params(s.prec, b), s.prec, b, false);
  KernelWriter w(digit(s.prec), b);
  flat_ids(w, "q", "nf * NIN", "batch", "");
  w.line("I64 t = q / NIN;");
  w.line("int m = (int)(q % NIN);");
  w.emit("$ acc = ($)0;", t, t);
  w.line(transposed_sum("acc"));
  w.line("I64 mi = (batch * nf + t) * NIN + m;");
  if (s.clamp) w.emit("gM[mi] = M[mi] >= peak[batch] - topdb ? acc : ($)0;", t);
  else w.line("gM[mi] = acc;");
  return text + w.text() + "}\n";
}

KernelParams cepcsum_params(int prec, const Backend& b) {
  const std::string t = real_of(prec, b);
  return {KernelParam::input(t, "M"),         KernelParam::output(t, "gM"),    KernelParam::input(t, "gc"),
          KernelParam::input(t, "D"),         KernelParam::input(t, "peak"),   KernelParam::input("I64", "idx"),
          KernelParam::value("I64", "nf"),    KernelParam::value(t, "topdb")};
}

std::string cepcsum_kernel(const CepstraShape& s, const Backend& b) {
  const std::string t = real_of(s.prec, b);
  std::string text = sizes(s.n_in, s.n_out) + opening("ondrel_cepcsum", cepcsum_params(s.prec, b), s.prec, b, true);
  KernelWriter w(digit(s.prec), b);
  w.emit("int tid = $;", b.thread_x());
  w.emit("I64 batch = $;", b.block_x());
  shared_values(w, t, "red");
  w.emit("$ fl = peak[batch] - topdb;", t);
  w.emit("$ sum = ($)0;", t, t);
  w.emit("for (I64 q = tid; q < nf * NIN; q += $) {", kCepThreads);
  w.line("I64 t = q / NIN;");
  w.line("int m = (int)(q % NIN);");
  // Exactly on the floor counts as kept, as in ondrel_cepadj.
  w.emit("if (M[(batch * nf + t) * NIN + m] < fl) { $ }", transposed_sum("sum"));
  w.line("}");
  w.line("red[tid] = sum;");
  block_tree(w, "red[tid] += red[tid + s];");
  // Behind ondrel_cepadj on the same stream, which wrote this element.
  w.line("if (tid == 0) gM[batch * nf * NIN + idx[batch]] += red[0];");
  return text + w.text() + "}\n";
}

void cepstrum_epilogue(KernelWriter& w, const StftPlan& plan, const std::string& bands) {
  const std::string t = w.backend.real_type(plan.prec);
  // Outside the frame guard: the threads of frames past the end are still
  // in the kernel and must arrive too.
  w.sync();
  w.if_block("frame < NFRAMES", [&] {
    w.line("I64 ob = ((I64)batch*NFRAMES + frame) * NCEP;");
    w.for_range("k", "tid", "NCEP", "TPF", [&] {
      w.emit("$ acc = ($)0;", t, t);
      w.emit("for (int m = 0; m < NMELS; ++m) acc += D[(I64)k * NMELS + m] * $[m];", bands);
      w.emit("mel[ob + k] = $;", w.backend.convert(plan.out_prec, "acc"));
    });
  });
}

KernelParams pmatmul_params(int prec, const Backend& b) {
  const std::string t = real_of(prec, b);
  return {KernelParam::input(t, "M"), KernelParam::output(t, "out"), KernelParam::input(t, "Tt"),
          KernelParam::input(t, "aux"), KernelParam::value("I64", "nt")};
}

std::string pmatmul_kernel(const Pmatmul& p, const Backend& b) {
  const std::string t = real_of(p.prec, b);
  std::string text = sizes(p.nin, p.nout) + opening("ondrel_pmatmul", pmatmul_params(p.prec, b), p.prec, b, false);
  KernelWriter w(digit(p.prec), b);
  output_ids(w);
  w.emit("$ acc = ($)0;", t, t);
  w.line("for (int m = 0; m < NIN; ++m) acc += Tt[(I64)k * NIN + m] * M[f * NIN + m];");
  switch (p.store) {
    case PmatmulStore::plain: w.line("out[g] = acc;"); break;
    case PmatmulStore::clamped: w.emit("out[g] = acc < ($)0 ? ($)0 : acc;", t, t); break;
    // A product of exactly 0 passes its gradient: the clamp left it as it was.
    case PmatmulStore::masked: w.emit("out[g] = acc < ($)0 ? ($)0 : aux[g];", t, t); break;
  }
  return text + w.text() + "}\n";
}

}  // namespace ondrel::codegen
