#include "codegen/icqt_kernels.hpp"

#include "codegen/body_heads.hpp"
#include "codegen/kernel_writer.hpp"
#include "codegen/prelude.hpp"

namespace ondrel::codegen {

namespace {

constexpr int kThreads = 256;

int digit(int prec) { return prec == 2 ? 2 : 1; }

std::string tag(int prec) { return std::to_string(digit(prec)); }

// A value parameter's type as the launch names it.
std::string value_real(int prec) { return digit(prec) == 2 ? "double" : "float"; }

std::string opening(const std::string& name, const KernelParams& params, int prec, const Backend& b,
                    bool complex, bool shared) {
  KernelSig sig(name, b, params);
  sig.bound_threads = kThreads;
  if (shared) sig.set_shared("char", "smem");
  const int d = digit(prec);
  return b.preamble(d) + (complex ? complex_prelude(b, d) : types_prelude(b)) + real_typedefs(b, d, d) + sig.head();
}

// Signal i of the batch of nb: the thread's own, or none.
void signal_id(KernelWriter& w) {
  w.emit("int i = (int)($ * $ + $);", w.backend.block_x(), kThreads, w.backend.thread_x());
  w.line("if (i >= nb) return;");
}

// The guard of both recurrences: a quotient's denominator floored at 1e-30.
std::string floored(const std::string& x) { return "(" + x + " > (T)1e-30 ? " + x + " : (T)1e-30)"; }

}  // namespace

KernelParams icqtdual_params() {
  return {KernelParam::input("cplx", "C"),    KernelParam::output("cplx", "Xf"),   KernelParam::input("cplx", "D"),
          KernelParam::value("I64", "nf"),    KernelParam::value("int", "half_f"), KernelParam::value("int", "half_d"),
          KernelParam::value("int", "rows"),  KernelParam::value("int", "n_bins"), KernelParam::value("int", "row_lo")};
}

std::string icqtdual_key(int prec) { return "icqt_dual_" + tag(prec); }

std::string icqtdual_kernel(int prec, const Backend& b) {
  std::string text = opening("ondrel_icqtdual", icqtdual_params(), prec, b, true, false);
  KernelWriter w(digit(prec), b);
  flat_ids(w, "g", "nf * half_f", "batch", "I64 t = g / half_f; int j = (int)(g % half_f);");
  w.line("cplx acc = cmk((T)0, (T)0);");
  // Bins above the octave's own spectrum stay 0: the zero-padding that
  // interpolates the frame back to the full rate.
  w.line("if (j < half_d)");
  w.line("  for (int k = 0; k < rows; ++k)");
  w.line("    acc = cadd(acc, cmul(C[((I64)batch * n_bins + row_lo + k) * nf + t], D[(I64)k * half_d + j]));");
  w.line("Xf[((I64)batch * nf + t) * half_f + j] = acc;");
  return text + w.text() + "}\n";
}

KernelParams icqtola_params(int prec) {
  return {KernelParam::input("T", "frames"), KernelParam::output("T", "y"),  KernelParam::value("I64", "len"),
          KernelParam::value("I64", "nf"),   KernelParam::value("int", "span"), KernelParam::value("int", "h"),
          KernelParam::value(value_real(prec), "scale")};
}

// "c": frames centred on their hops; no text of a placement from the
// frame's first sample may be found under this key.
std::string icqtola_key(int prec) { return "icqt_olac_" + tag(prec); }

std::string icqtola_kernel(int prec, const Backend& b) {
  std::string text = opening("ondrel_icqtola", icqtola_params(prec), prec, b, false, false);
  KernelWriter w(digit(prec), b);
  flat_ids(w, "t", "len", "batch", "");
  // Frame f holds samples f h - span / 2 to f h + span / 2 - 1, as the
  // forward's frame is centred on f h: u is t in the frame's own count.
  w.line("I64 u = t + span / 2;");
  w.line("I64 f_hi = u / h;");
  w.line("if (f_hi > nf - 1) f_hi = nf - 1;");
  w.line("I64 f_lo = u >= span ? (u - span) / h + 1 : 0;");
  w.line("T acc = (T)0;");
  w.line("for (I64 f = f_lo; f <= f_hi; ++f) acc += frames[((I64)batch * nf + f) * span + (u - f * h)];");
  w.line("I64 cov = f_hi - f_lo + 1;");
  w.line("if (cov < 1) cov = 1;");
  // An average of the covering frames, not a window-weighted sum.
  w.line("y[(I64)batch * len + t] += acc * scale / (T)cov;");
  return text + w.text() + "}\n";
}

KernelParams vdot_params() {
  return {KernelParam::input("T", "u"), KernelParam::input("T", "v"), KernelParam::output("T", "out"),
          KernelParam::value("I64", "n")};
}

std::string vdot_key(int prec) { return "vdot_" + tag(prec); }

uint64_t vdot_shared_bytes(int prec) { return kThreads * (digit(prec) == 2 ? 8 : 4); }

std::string vdot_kernel(int prec, const Backend& b) {
  std::string text = opening("ondrel_vdot", vdot_params(), prec, b, false, true);
  KernelWriter w(digit(prec), b);
  w.emit("int tid = $;", b.thread_x());
  w.emit("I64 batch = $;", b.block_x());
  w.line("I64 base = batch * n;");
  const std::string p = b.shared_pointer("T");
  w.emit("$ red = ($)smem;", p, p);
  w.line("T a = (T)0;");
  w.emit("for (I64 i = tid; i < n; i += $) a += u[base + i] * v[base + i];", kThreads);
  w.line("red[tid] = a;");
  w.sync();
  w.emit("for (int s = $; s > 0; s >>= 1) {", kThreads / 2);
  w.line("if (tid < s) red[tid] += red[tid + s];");
  w.sync();
  w.line("}");
  w.line("if (tid == 0) out[batch] = red[0];");
  return text + w.text() + "}\n";
}

KernelParams vaxpby_params() {
  return {KernelParam::input("T", "x"), KernelParam::output("T", "y"), KernelParam::input("T", "a"),
          KernelParam::input("T", "c"), KernelParam::value("I64", "n")};
}

std::string vaxpby_key(int prec) { return "vaxpby_" + tag(prec); }

std::string vaxpby_kernel(int prec, const Backend& b) {
  std::string text = opening("ondrel_vaxpby", vaxpby_params(), prec, b, false, false);
  KernelWriter w(digit(prec), b);
  flat_ids(w, "i", "n", "batch", "");
  w.line("I64 o = batch * n + i;");
  w.line("y[o] = a[batch] * x[o] + c[batch] * y[o];");
  return text + w.text() + "}\n";
}

KernelParams cgalpha_params(int prec, bool stop) {
  KernelParams p{KernelParam::input("T", "rs"), KernelParam::input("T", "pap"), KernelParam::output("T", "ab_y"),
                 KernelParam::output("T", "ab_r"), KernelParam::value("int", "nb")};
  if (stop) {
    p.push_back(KernelParam::input("T", "rs0"));
    p.push_back(KernelParam::output("int", "iters"));
    p.push_back(KernelParam::output("int", "busy"));
    p.push_back(KernelParam::value(value_real(prec), "tol2"));
  }
  return p;
}

std::string cgalpha_key(int prec, bool stop) { return std::string(stop ? "cgalpha_stop_" : "cgalpha_") + tag(prec); }

std::string cgalpha_kernel(int prec, bool stop, const Backend& b) {
  std::string text = opening("ondrel_cgalpha", cgalpha_params(prec, stop), prec, b, false, false);
  KernelWriter w(digit(prec), b);
  signal_id(w);
  w.line("T pd = pap[i];");
  if (stop) {
    // The count of live signals starts again each iteration; cgbeta adds
    // the ones still above their tolerance after the step.
    w.line("if (i == 0) busy[0] = 0;");
    w.line("bool live = rs[i] > tol2 * rs0[i];");
    w.emit("T al = live ? rs[i] / $ : (T)0;", floored("pd"));
    w.line("if (live) iters[i] += 1;");
  } else {
    w.emit("T al = rs[i] / $;", floored("pd"));
  }
  w.line("ab_y[i] = al; ab_y[nb + i] = (T)1;");
  w.line("ab_r[i] = -al; ab_r[nb + i] = (T)1;");
  return text + w.text() + "}\n";
}

KernelParams cgbeta_params(int prec, bool stop) {
  KernelParams p{KernelParam::input("T", "rs_new"), KernelParam::output("T", "rs"), KernelParam::output("T", "ab_p"),
                 KernelParam::value("int", "nb")};
  if (stop) {
    p.push_back(KernelParam::input("T", "rs0"));
    p.push_back(KernelParam::output("int", "busy"));
    p.push_back(KernelParam::value(value_real(prec), "tol2"));
  }
  return p;
}

std::string cgbeta_key(int prec, bool stop) { return std::string(stop ? "cgbeta_stop_" : "cgbeta_") + tag(prec); }

std::string cgbeta_kernel(int prec, bool stop, const Backend& b) {
  std::string text = opening("ondrel_cgbeta", cgbeta_params(prec, stop), prec, b, false, false);
  KernelWriter w(digit(prec), b);
  signal_id(w);
  w.line("T old = rs[i];");
  if (stop) {
    // A frozen signal keeps its r.r; its direction becomes its residual,
    // which the next zero step leaves where it is.
    w.line("if (!(old > tol2 * rs0[i])) { ab_p[i] = (T)1; ab_p[nb + i] = (T)0; return; }");
  }
  w.emit("ab_p[i] = (T)1; ab_p[nb + i] = rs_new[i] / $;", floored("old"));
  w.line("rs[i] = rs_new[i];");
  if (stop) w.emit("if (rs_new[i] > tol2 * rs0[i]) $", b.atomic_add("busy[0]", "1"));
  return text + w.text() + "}\n";
}

}  // namespace ondrel::codegen
