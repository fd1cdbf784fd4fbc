#include "codegen/mel_adjoint_kernels.hpp"
#include "codegen/stft_kernels.hpp"

#include <vector>

#include "codegen/body_heads.hpp"
#include "codegen/fft_stages.hpp"
#include "codegen/macros.hpp"
#include "codegen/prelude.hpp"
#include "math/fft_schedule.hpp"

namespace ondrel::codegen {

namespace {

std::string real(const MelAdjointPlan& p, const Backend& b) { return b.real_type(p.frame.prec); }

// A bin's value in the band sum, of the complex name `x`.
std::string bin_value(const MelAdjointPlan& p, const Backend& b, const std::string& x) {
  const std::string pw = x + ".x*" + x + ".x + " + x + ".y*" + x + ".y";
  if (p.power != 1) return "(" + pw + ")";
  return p.frame.prec == 2 ? "sqrt(" + pw + ")" : b.sqrt_call("(float)(" + pw + ")");
}

void transpose_params(KernelParams& params, const MelAdjointPlan& p, const Backend& b) {
  const std::string t = real(p, b);
  if (p.wide) {
    params.push_back(KernelParam::input("int", "bin_off"));
    params.push_back(KernelParam::input("int", "bin_band"));
    params.push_back(KernelParam::input(t, "bin_w"));
    return;
  }
  for (const char* name : {"bin_b0", "bin_b1"}) params.push_back(KernelParam::input("int", name));
  for (const char* name : {"bin_w0", "bin_w1"}) params.push_back(KernelParam::input(t, name));
}

// The band link: `g` on band m of the output form becomes coef[`slot`], the
// gradient on the band sum. `spectrum(i)` names the complex value of bin
// lo + i.
void band_coefficient(KernelWriter& w, const MelAdjointPlan& p, const std::string& slot,
                      const std::string& spectrum) {
  const Backend& b = w.backend;
  const std::string t = real(p, b);
  if (p.frame.mode != 1 && p.frame.mode != 3) {
    w.emit("$ = g;", slot);
    return;
  }
  w.line("int off = fb_off[m], len = fb_off[m+1] - off, lo = fb_lo[m];");
  w.emit("$ acc = ($)0;", t, t);
  w.emit("for (int i = 0; i < len; ++i) { cplx v = $; acc += fb_w[off+i] * $; }", spectrum, bin_value(p, b, "v"));
  if (p.frame.mode == 3) {
    // 10 / ln 10: the band's form is 10 log10(sum + eps).
    w.emit("$ = ($)$ * g / (acc + ($)EPS);", slot, t, literal(4.3429448190325184), t);
  } else {
    // The root of the sum: no derivative where the band is silent.
    w.emit("$ root = $;", t, p.frame.prec == 2 ? "sqrt(acc)" : b.sqrt_call("(float)acc"));
    w.emit("$ = (root > ($)1e-12) ? ($)0.5 * g / root : ($)0;", slot, t, t, t);
  }
}

// The bin link: `gp`, the gradient on bin k's value, from the bands over it
// (their coefficients at coef[`row` + band]); then `c`, that on its
// spectrum value `x`.
void bin_link(KernelWriter& w, const MelAdjointPlan& p, const std::string& x, const std::string& row) {
  const Backend& b = w.backend;
  const std::string t = real(p, b);
  if (p.wide) {
    w.emit("$ gp = ($)0;", t, t);
    w.emit("for (int e = bin_off[k]; e < bin_off[k+1]; ++e) gp += bin_w[e] * coef[$bin_band[e]];", row);
  } else {
    w.line("int b0 = bin_b0[k], b1 = bin_b1[k];");
    w.emit("$ gp = ($)0;", t, t);
    w.emit("if (b0 >= 0) gp += bin_w0[k] * coef[$b0];", row);
    w.emit("if (b1 >= 0) gp += bin_w1[k] * coef[$b1];", row);
  }
  if (p.power == 1) {
    w.emit("$ mag = $;", t, bin_value(p, b, x));
    w.emit("$ c = (mag > ($)1e-12) ? gp/mag : ($)0;", t, t, t);
  } else {
    w.emit("$ c = ($)2 * gp;", t, t);
  }
}

}  // namespace

uint64_t mel_adjoint_shared_bytes(const MelAdjointPlan& plan) {
  return adjoint_shared_bytes(plan.frame, true, plan.n_mels);
}

KernelParams mel_adjoint_params(const MelAdjointPlan& p, const Backend& b) {
  const std::string t = real(p, b);
  KernelParams params{KernelParam::input(t, "gM"),       KernelParam::input(t, "y"),
                      KernelParam::output(t, "graw"),    KernelParam::input(t, "win"),
                      KernelParam::input("int", "fb_lo"), KernelParam::input("int", "fb_off"),
                      KernelParam::input(t, "fb_w")};
  transpose_params(params, p, b);
  params.push_back(KernelParam::input("cplx", "twg"));
  params.push_back(KernelParam::value("int", "NF"));
  params.push_back(KernelParam::value("int", "SIG_LEN"));
  for (const char* name : {"out_len", "sb", "sk", "st"}) params.push_back(KernelParam::value("I64", name));
  return params;
}

std::string mel_adjoint_kernel(const MelAdjointPlan& p, const Backend& b) {
  const AdjointPlan& f = p.frame;
  const std::string t = real(p, b);
  KernelSig sig("mel_adjoint", b, mel_adjoint_params(p, b));
  sig.bound_threads = f.tpf;
  sig.set_shared("cplx", "sh_all");
  std::string text = adjoint_head(f, b, true, define("NMELS", std::to_string(p.n_mels))) + sig.head();
  KernelWriter w(f.prec, b);
  int32_t rest = 1;
  add_fft_tables(w, f.prec, 2 * f.n, "twg", factor_schedule(f.n, rest, false));
  const std::string cp = b.shared_pointer("cplx"), rp = b.shared_pointer(t);
  w.raw("  " + cp + " bufA = sh_all;\n");
  w.raw("  " + cp + " Xs = sh_all + " + std::to_string(spectrum_offset(f)) + ";\n");
  w.raw("  " + rp + " coef = (" + rp + ")(Xs + NB);\n");
  frame_ids(w);
  frame_spectrum(w, f);
  w.emit("const DEV $* gb = gM + (I64)batch*sb + (I64)frame*st;", t);
  w.for_range("m", "tid", "NMELS", "TPF", [&] {
    w.emit("$ g = gb[(I64)$*sk];", t, "m");
    band_coefficient(w, p, "coef[m]", "Xs[lo+i]");
  });
  w.sync();
  w.for_range("k", "tid", f.n, "TPF", [&] {
    w.if_block("k < NB", [&] {
      w.emit("cplx X = Xs[$];", "k");
      bin_link(w, p, "X", "");
      w.emit("bufA[SHP($)] = cmk(c*X.x, -(c*X.y));", "k");
    });
    w.emit("if ($ >= NB) bufA[SHP($)] = cmk(($)0,($)0);", "k", "k", t, t);
  });
  w.sync();
  transpose_frame(w, f, frame_passes(w, f));
  return text + w.text() + "}\n";
}

KernelParams meladjcoef_params(const MelAdjointPlan& p, const Backend& b) {
  const std::string t = real(p, b);
  return {KernelParam::input(t, "gM"),        KernelParam::input("cplx", "X"),  KernelParam::input("int", "fb_lo"),
          KernelParam::input("int", "fb_off"), KernelParam::input(t, "fb_w"),    KernelParam::output(t, "coef"),
          KernelParam::value("int", "NF"),     KernelParam::value("I64", "sb"),  KernelParam::value("I64", "sk"),
          KernelParam::value("I64", "st"),     KernelParam::value("I64", "row0")};
}

std::string meladjcoef_kernel(const MelAdjointPlan& p, const Backend& b) {
  const std::string t = real(p, b);
  const std::string defines = define("NMELS", std::to_string(p.n_mels)) + define("NB", std::to_string(p.frame.bins())) +
                              eps_define(p.frame.eps);
  std::string text = staged_head(p.frame, b, defines);
  text += KernelSig("ondrel_meladjcoef", b, meladjcoef_params(p, b)).head();
  KernelWriter w(p.frame.prec, b);
  staged_row(w, "m", "NMELS", "batch", "frame");
  w.emit("$ g = gM[batch * sb + (I64)m * sk + frame * st];", t);
  band_coefficient(w, p, "coef[row*NMELS + m]", "X[row*NB + lo+i]");
  return text + w.text() + "}\n";
}

KernelParams meladjpack_params(const MelAdjointPlan& p, const Backend& b) {
  KernelParams params{KernelParam::input("cplx", "X"), KernelParam::input(real(p, b), "coef")};
  transpose_params(params, p, b);
  params.push_back(KernelParam::output("cplx", "bufA"));
  params.push_back(KernelParam::value("I64", "row0"));
  return params;
}

std::string meladjpack_kernel(const MelAdjointPlan& p, const Backend& b) {
  const std::string t = real(p, b);
  const std::string defines = define("NB", std::to_string(p.frame.bins())) + define("NMELS", std::to_string(p.n_mels));
  std::string text = staged_head(p.frame, b, defines);
  text += KernelSig("ondrel_meladjpack", b, meladjpack_params(p, b)).head();
  KernelWriter w(p.frame.prec, b);
  staged_row(w, "k", std::to_string(p.frame.n), nullptr, nullptr);
  w.emit("cplx v = cmk(($)0, ($)0);", t, t);
  w.line("  if (k < NB) {");
  w.line("cplx Xk = X[row*NB + k];");
  bin_link(w, p, "Xk", "row*NMELS + ");
  w.line("v = cmk(c*Xk.x, -(c*Xk.y));");
  w.line("}");
  w.emit("bufA[row*$ + k] = v;", p.frame.n);
  return text + w.text() + "}\n";
}

}  // namespace ondrel::codegen
