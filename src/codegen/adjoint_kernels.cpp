#include "codegen/adjoint_kernels.hpp"

#include <algorithm>
#include <vector>

#include "codegen/body_heads.hpp"
#include "codegen/fft_kernel.hpp"
#include "codegen/fft_stages.hpp"
#include "codegen/istft_kernels.hpp"
#include "codegen/macros.hpp"
#include "codegen/prelude.hpp"
#include "codegen/stft_kernels.hpp"
#include "math/fft_schedule.hpp"

namespace ondrel::codegen {

namespace {

std::string real(const AdjointPlan& p, const Backend& b) { return b.real_type(p.prec); }

std::string win(const AdjointPlan& p, const Backend& b, const std::string& j) {
  return window_value(b, p.prec, p.n, p.window_kind, j);
}

KernelSig fused_sig(const char* name, const AdjointPlan& p, const Backend& b, KernelParams params) {
  KernelSig sig(name, b, std::move(params));
  sig.bound_threads = p.tpf;
  sig.set_shared("cplx", "sh_all");
  return sig;
}

KernelParams with_strides(KernelParams params, bool row0) {
  for (const char* name : {"sb", "sk", "st"}) params.push_back(KernelParam::value("I64", name));
  if (row0) params.push_back(KernelParam::value("I64", "row0"));
  return params;
}

// The chain coefficient `c` of the spectrum value `x` for the gradient `g`
// on its magnitude, power or decibels.
void chain_coefficient(KernelWriter& w, const AdjointPlan& p, const std::string& x, const std::string& g) {
  const Backend& b = w.backend;
  const std::string t = real(p, b);
  w.emit("$ pw = $.x*$.x + $.y*$.y;", t, x, x, x, x);
  if (p.mode == 2) {
    w.emit("$ c = ($)2 * $;", t, t, g);
  } else if (p.mode == 1) {
    w.emit("$ mag = $;", t, p.prec == 2 ? "sqrt(pw)" : b.sqrt_call("(float)pw"));
    // A silent bin passes no gradient: the magnitude has no derivative there.
    w.emit("$ c = (mag > ($)1e-12) ? $/mag : ($)0;", t, t, g, t);
  } else {
    // 20 / ln 10: the decibel form is 10 log10(pw + eps), and x carries the
    // rest of the derivative.
    w.emit("$ c = ($)$ * $ / (pw + ($)EPS);", t, t, literal(8.6858896380650368), g, t);
  }
}

// Padded position `pos` of signal `batch`: every frame's own row that holds
// it, in ascending frame order.
void frame_rows_sum(KernelWriter& w, const AdjointPlan& p, const std::string& pos) {
  w.emit("{ I64 pp = $;", pos);
  covering_frames(w, "pp", p.n, p.hop);
  w.line("  for (int t=t0; t<=t1; ++t)");
  w.emit("    acc += graw[((I64)batch*NF + t)*$ + (pp - (I64)t*$)];", p.n, p.hop);
  w.line("}");
}

}  // namespace

int32_t adjoint_threads(int32_t n) {
  int32_t tpf = std::min(std::max(n, 32), 256);
  if (const int32_t q = rader_prime(n); q && tpf < n / q) tpf = n / q;
  return tpf;
}

int64_t spectrum_offset(const AdjointPlan& plan) { return fft_row_elements(plan.n, false); }

uint64_t adjoint_shared_bytes(const AdjointPlan& plan, bool spectrum, int64_t reals) {
  const uint64_t csize = plan.prec == 2 ? 16 : 8;
  const uint64_t row = static_cast<uint64_t>(spectrum_offset(plan)) + (spectrum ? plan.bins() : 0);
  return row * csize + static_cast<uint64_t>(reals) * csize / 2;
}

std::string adjoint_head(const AdjointPlan& p, const Backend& b, bool reflect, const std::string& extra) {
  std::string text = b.preamble(p.prec) + complex_prelude(b, p.prec);
  if (reflect) text += refl_defines(p.pad);
  text += define("NB", std::to_string(p.bins())) + extra + define("TPF", std::to_string(p.tpf)) +
          define("HOP", std::to_string(p.hop));
  if (reflect) text += eps_define(p.eps);
  return text + shp_define(false);
}

std::string frame_passes(KernelWriter& w, const AdjointPlan& p) {
  int32_t rest = 1;
  const std::vector<int32_t> schedule = factor_schedule(p.n, rest, false);
  return emit_stages(w, "bufA", p.n, schedule, p.tpf, false);
}

void frame_spectrum(KernelWriter& w, const AdjointPlan& p) {
  const Backend& b = w.backend;
  const std::string t = real(p, b);
  w.emit("const DEV $* yb = y + (I64)batch * SIG_LEN;", t);
  w.for_range("i", "tid", p.n, "TPF",
              [&] { w.emit("bufA[SHP($)] = cmk(yb[refl(frame*HOP + $)] * $, ($)0);", "i", "i", win(p, b, "i"), t); });
  w.sync();
  const std::string r = frame_passes(w, p);
  w.for_range("k", "tid", "NB", "TPF", [&] { w.emit("Xs[$] = $[SHP($)];", "k", r, "k"); });
  w.sync();
}

void transpose_frame(KernelWriter& w, const AdjointPlan& p, const std::string& buf) {
  const Backend& b = w.backend;
  if (p.deterministic) w.emit("I64 ob = ((I64)batch*NF + frame) * $;", p.n);
  else w.line("I64 ob = (I64)batch*out_len + (I64)frame*HOP;");
  // The real part is the gradient; the imaginary part belongs to no sample.
  w.for_range("k", "tid", p.n, "TPF", [&] {
    const std::string value = buf + "[SHP(k)].x * " + win(p, b, "k");
    if (p.deterministic) w.line("graw[ob + k] = " + value + ";");
    else w.line(b.atomic_add("graw[ob + k]", value));
  });
}

std::string staged_head(const AdjointPlan& p, const Backend& b, const std::string& defines) {
  return b.preamble(p.prec) + complex_prelude(b, p.prec) + define("TPF", "256") + defines;
}

void staged_row(KernelWriter& w, const std::string& index, const std::string& count, const char* batch,
                const char* frame) {
  const Backend& b = w.backend;
  w.emit("int $ = $ * TPF + $;", index, b.block_x(), b.thread_x());
  w.emit("if ($ >= $) return;", index, count);
  w.emit("I64 row = row0 + $;", b.block_y());
  if (batch) w.emit("I64 $ = row / NF, $ = row % NF;", batch, frame);
}

KernelParams stft_adjoint_params(const AdjointPlan& p, const Backend& b) {
  const std::string t = real(p, b);
  return with_strides({KernelParam::input("cplx", "gX"), KernelParam::output(t, "graw"), KernelParam::input(t, "win"),
                       KernelParam::input("cplx", "twg"), KernelParam::value("int", "NF"),
                       KernelParam::value("I64", "out_len")},
                      false);
}

std::string stft_adjoint_kernel(const AdjointPlan& p, const Backend& b) {
  const std::string t = real(p, b);
  std::string text = adjoint_head(p, b, false, "") + fused_sig("stft_adjoint", p, b, stft_adjoint_params(p, b)).head();
  KernelWriter w(p.prec, b);
  int32_t rest = 1;
  add_fft_tables(w, p.prec, 2 * p.n, "twg", factor_schedule(p.n, rest, false));
  frame_ids(w);
  w.line("TG cplx* bufA = sh_all;");
  w.line("const DEV cplx* gb = gX + (I64)batch*sb + (I64)frame*st;");
  // The one-sided gradient, conjugated and zero-extended: not mirrored, and
  // no bin doubled.
  w.for_range("k", "tid", p.n, "TPF", [&] {
    w.emit("cplx gk = ($ < NB) ? gb[(I64)$*sk] : cmk(($)0,($)0);", "k", "k", t, t);
    w.emit("bufA[SHP($)] = cmk(gk.x, -gk.y);", "k");
  });
  w.sync();
  transpose_frame(w, p, frame_passes(w, p));
  return text + w.text() + "}\n";
}

KernelParams stft_adjoint_mode_params(const AdjointPlan& p, const Backend& b) {
  const std::string t = real(p, b);
  return with_strides({KernelParam::input(t, "gS"), KernelParam::input(t, "y"), KernelParam::output(t, "graw"),
                       KernelParam::input(t, "win"), KernelParam::input("cplx", "twg"),
                       KernelParam::value("int", "NF"), KernelParam::value("int", "SIG_LEN"),
                       KernelParam::value("I64", "out_len")},
                      false);
}

std::string stft_adjoint_mode_kernel(const AdjointPlan& p, const Backend& b) {
  const std::string t = real(p, b);
  std::string text =
      adjoint_head(p, b, true, "") + fused_sig("stft_adjoint_mode", p, b, stft_adjoint_mode_params(p, b)).head();
  KernelWriter w(p.prec, b);
  int32_t rest = 1;
  add_fft_tables(w, p.prec, 2 * p.n, "twg", factor_schedule(p.n, rest, false));
  frame_ids(w);
  w.line("TG cplx* bufA = sh_all;");
  w.emit("TG cplx* Xs = sh_all + $;", spectrum_offset(p));
  frame_spectrum(w, p);
  w.emit("const DEV $* gb = gS + (I64)batch*sb + (I64)frame*st;", t);
  w.for_range("k", "tid", p.n, "TPF", [&] {
    w.if_block("k < NB", [&] {
      w.emit("cplx X = Xs[$];", "k");
      w.emit("$ g = gb[(I64)$*sk];", t, "k");
      chain_coefficient(w, p, "X", "g");
      w.emit("bufA[SHP($)] = cmk(c*X.x, -(c*X.y));", "k");
    });
    w.emit("if ($ >= NB) bufA[SHP($)] = cmk(($)0,($)0);", "k", "k", t, t);
  });
  w.sync();
  transpose_frame(w, p, frame_passes(w, p));
  return text + w.text() + "}\n";
}

KernelParams crop_params(const AdjointPlan& p, const Backend& b) {
  const std::string t = real(p, b);
  return {KernelParam::input(t, "graw"), KernelParam::output(t, "gx"),   KernelParam::value("int", "L"),
          KernelParam::value("int", "PAD"), KernelParam::value("int", "NF"), KernelParam::value("I64", "out_len")};
}

std::string crop_kernel(const AdjointPlan& p, bool frame_rows, const Backend& b) {
  const std::string t = real(p, b);
  std::string text = b.preamble(p.prec) + types_prelude(b);
  text += KernelSig("stft_adjoint_crop", b, crop_params(p, b)).head();
  KernelWriter w(p.prec, b);
  w.emit("I64 j = (I64)$ * $ + $;", b.block_x(), b.block_dim_x(), b.thread_x());
  w.emit("int batch = $;", b.block_y());
  w.line("if (j >= L) return;");
  w.emit("$ acc = ($)0;", t, t);
  // The forward read sample j at padded position PAD + j, at PAD - j
  // (1 <= j <= PAD) and at 2L - 2 + PAD - j on the right: the three add up.
  if (!frame_rows) {
    w.line("I64 base = (I64)batch*out_len;");
    w.emit("acc = (I64)PAD + j < out_len ? graw[base + PAD + j] : ($)0;", t);
    w.line("if (j >= 1 && j <= PAD) acc += graw[base + PAD - j];");
    w.line("I64 rp = (I64)2*L - 2 + PAD - j;");
    w.line("if (rp >= PAD + L && rp < out_len) acc += graw[base + rp];");
  } else {
    frame_rows_sum(w, p, "PAD + j");
    w.line("  if (j >= 1 && j <= PAD) {");
    frame_rows_sum(w, p, "PAD - j");
    w.line("  }");
    w.line("I64 rp = (I64)2*L - 2 + PAD - j;");
    w.line("  if (rp >= PAD + L && rp < out_len) {");
    frame_rows_sum(w, p, "rp");
    w.line("  }");
  }
  w.line("gx[(I64)batch*L + j] = acc;");
  return text + w.text() + "}\n";
}

KernelParams istft_adjoint_pre_params(const AdjointPlan& p, const Backend& b) {
  const std::string t = real(p, b);
  return {KernelParam::input(t, "gy"),     KernelParam::output(t, "g"),   KernelParam::input(t, "win"),
          KernelParam::value("int", "L"),  KernelParam::value("int", "pad"), KernelParam::value("int", "NF"),
          KernelParam::value("I64", "out_len")};
}

std::string istft_adjoint_pre_kernel(const AdjointPlan& p, const Backend& b) {
  const std::string t = real(p, b);
  std::string text =
      b.preamble(p.prec) + types_prelude(b) + KernelSig("istft_adjoint_pre", b, istft_adjoint_pre_params(p, b)).head();
  KernelWriter w(p.prec, b);
  w.emit("I64 p = (I64)$ * $ + $;", b.block_x(), b.block_dim_x(), b.thread_x());
  w.emit("int batch = $;", b.block_y());
  w.line("if (p >= out_len) return;");
  w.line("I64 i = p - pad;");
  // Outside the crop the forward wrote nothing, so nothing flows back.
  w.emit("if (i < 0 || i >= L) { g[(I64)batch*out_len + p] = ($)0; return; }", t);
  covering_frames(w, "p", p.n, p.hop);
  w.emit("$ env=($)0;", t, t);
  w.line("for (int t=t0; t<=t1; ++t) {");
  w.emit("  int j = (int)(p - (I64)t*$);", p.hop);
  w.emit("  $ w = $; env += w*w;", t, win(p, b, "j"));
  w.line("}");
  w.emit("$ gv = gy[(I64)batch*L + i];", t);
  w.emit("g[(I64)batch*out_len + p] = (env > ($)1e-8) ? gv/env : ($)0;", t, t);
  return text + w.text() + "}\n";
}

KernelParams istft_adjoint_params(const AdjointPlan& p, const Backend& b) {
  const std::string t = real(p, b);
  return {KernelParam::input(t, "g"),       KernelParam::output("cplx", "gZ"), KernelParam::input(t, "win"),
          KernelParam::input("cplx", "twg"), KernelParam::value("int", "NF"),    KernelParam::value("I64", "out_len")};
}

std::string istft_adjoint_kernel(const AdjointPlan& p, const Backend& b) {
  const std::string t = real(p, b);
  std::string text =
      adjoint_head(p, b, false, "") + fused_sig("istft_adjoint", p, b, istft_adjoint_params(p, b)).head();
  KernelWriter w(p.prec, b);
  int32_t rest = 1;
  add_fft_tables(w, p.prec, 2 * p.n, "twg", factor_schedule(p.n, rest, false));
  frame_ids(w);
  w.line("TG cplx* bufA = sh_all;");
  w.line("I64 ib = (I64)batch*out_len + (I64)frame*HOP;");
  w.for_range("i", "tid", p.n, "TPF", [&] {
    w.emit("bufA[SHP($)] = cmk(g[ib + $] * $ * ($)$, ($)0);", "i", "i", win(p, b, "i"), t, literal(1.0 / p.n), t);
  });
  w.sync();
  const std::string r = frame_passes(w, p);
  w.line("I64 ob = ((I64)batch*NF + frame) * NB;");
  w.for_range("k", "tid", "NB", "TPF", [&] {
    w.emit("cplx c = $[SHP($)];", r, "k");
    // A bin with a mirror counts twice; the edge bins keep the real part,
    // which is all the forward read of them.
    if (p.n % 2 == 0) w.emit("int edge = ($ == 0) || ($ == NB-1);", "k", "k");
    else w.emit("int edge = ($ == 0);", "k");
    w.emit("gZ[ob + $] = edge ? cmk(c.x, ($)0) : cmk(($)2*c.x, ($)2*c.y);", "k", t, t, t);
  });
  return text + w.text() + "}\n";
}

KernelParams gadjpack_params(const AdjointPlan&, const Backend&) {
  return with_strides({KernelParam::input("cplx", "gX"), KernelParam::output("cplx", "z"),
                       KernelParam::value("int", "NF")},
                      true);
}

std::string gadjpack_kernel(const AdjointPlan& p, const Backend& b) {
  std::string text = staged_head(p, b, "") + KernelSig("ondrel_gadjpack", b, gadjpack_params(p, b)).head();
  KernelWriter w(p.prec, b);
  staged_row(w, "k", std::to_string(p.n), "bb", "tt");
  w.line("cplx v = cmk(0, 0);");
  w.emit("if (k < $) { cplx g = gX[bb * sb + (I64)k * sk + tt * st]; v = cmk(g.x, -g.y); }", p.bins());
  w.emit("z[row * $ + k] = v;", p.n);
  return text + w.text() + "}\n";
}

KernelParams gchain_params(const AdjointPlan& p, const Backend& b) {
  return with_strides({KernelParam::input(real(p, b), "gS"), KernelParam::input("cplx", "X"),
                       KernelParam::output("cplx", "z"), KernelParam::value("int", "NF")},
                      true);
}

std::string gchain_kernel(const AdjointPlan& p, const Backend& b) {
  const std::string t = real(p, b);
  std::string text = staged_head(p, b, p.mode == 3 ? eps_define(p.eps) : "") +
                     KernelSig("ondrel_gchain", b, gchain_params(p, b)).head();
  KernelWriter w(p.prec, b);
  staged_row(w, "k", std::to_string(p.n), "bb", "tt");
  w.line("cplx v = cmk(0, 0);");
  w.emit("  if (k < $) {", p.bins());
  w.emit("cplx Xk = X[row * $ + k];", p.bins());
  w.emit("$ g = gS[bb * sb + (I64)k * sk + tt * st];", t);
  chain_coefficient(w, p, "Xk", "g");
  w.line("v = cmk(c * Xk.x, -(c * Xk.y));");
  w.line("}");
  w.emit("z[row * $ + k] = v;", p.n);
  return text + w.text() + "}\n";
}

KernelParams gwreal_params(const AdjointPlan& p, const Backend& b) {
  const std::string t = real(p, b);
  return {KernelParam::input("cplx", "F"), KernelParam::output(t, "frames"), KernelParam::input(t, "win"),
          KernelParam::value("int", "NF")};
}

std::string gwreal_kernel(const AdjointPlan& p, const Backend& b) {
  const std::string t = real(p, b);
  std::string text = staged_head(p, b, "") + KernelSig("ondrel_gwreal", b, gwreal_params(p, b)).head();
  KernelWriter w(p.prec, b);
  w.emit("int tid = $;", b.thread_x());
  w.emit("int t = $;", b.block_x());
  w.emit("I64 bb = $;", b.block_y());
  w.emit("const DEV cplx* fb = F + (bb * NF + t) * $;", p.n);
  w.emit("DEV $* ob = frames + (bb * NF + t) * $;", t, p.n);
  w.for_range("i", "tid", p.n, "TPF", [&] { w.emit("ob[$] = fb[$].x * win[$];", "i", "i", "i"); });
  return text + w.text() + "}\n";
}

KernelParams giadjgather_params(const AdjointPlan& p, const Backend& b) {
  const std::string t = real(p, b);
  return {KernelParam::input(t, "gpad"),     KernelParam::output(t, "frames"), KernelParam::input(t, "win"),
          KernelParam::value("int", "NF"),    KernelParam::value("int", "HOPv"),  KernelParam::value("I64", "out_len"),
          KernelParam::value("I64", "row0")};
}

std::string giadjgather_kernel(const AdjointPlan& p, const Backend& b) {
  const std::string t = real(p, b);
  std::string text = staged_head(p, b, "") + KernelSig("ondrel_giadjgather", b, giadjgather_params(p, b)).head();
  KernelWriter w(p.prec, b);
  staged_row(w, "j", std::to_string(p.n), "batch", "frame");
  w.emit("$ v = gpad[batch * out_len + frame * (I64)HOPv + j] * win[j] * ($)$;", t, t, literal(1.0 / p.n));
  w.emit("frames[row * $ + j] = v;", p.n);
  return text + w.text() + "}\n";
}

KernelParams giadjstore_params(const AdjointPlan&, const Backend&) {
  return {KernelParam::input("cplx", "spec"), KernelParam::output("cplx", "gZ"), KernelParam::value("I64", "row0")};
}

std::string giadjstore_kernel(const AdjointPlan& p, const Backend& b) {
  const std::string t = real(p, b);
  std::string text = staged_head(p, b, "") + KernelSig("ondrel_giadjstore", b, giadjstore_params(p, b)).head();
  KernelWriter w(p.prec, b);
  staged_row(w, "k", std::to_string(p.bins()), nullptr, nullptr);
  w.emit("cplx c = spec[row * $ + k];", p.bins());
  if (p.n % 2 == 0) w.emit("int edge = (k == 0) || (k == $);", p.n / 2);
  else w.line("int edge = (k == 0);");
  w.emit("gZ[row * $ + k] = edge ? cmk(c.x, ($)0) : cmk(($)2 * c.x, ($)2 * c.y);", p.bins(), t, t, t);
  return text + w.text() + "}\n";
}

}  // namespace ondrel::codegen
