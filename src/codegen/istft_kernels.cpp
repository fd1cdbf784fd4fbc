#include "codegen/istft_kernels.hpp"

#include <numbers>
#include <vector>

#include "codegen/body_heads.hpp"
#include "codegen/fft_kernel.hpp"
#include "codegen/fft_stages.hpp"
#include "codegen/kernel_writer.hpp"
#include "codegen/macros.hpp"
#include "codegen/prelude.hpp"
#include "codegen/stft_kernels.hpp"
#include "math/fft_schedule.hpp"

namespace ondrel::codegen {

namespace {

std::string icplx(const IstftPlan& p, const Backend& b) { return b.pair_type(p.in_prec); }

// The cast that widens a stored value to the arithmetic's type, or nothing.
std::string widen(const IstftPlan& p, const Backend& b) {
  return p.in_prec == p.prec ? std::string() : format("($)", {b.real_type(p.prec)});
}

std::string above(const IstftPlan& p, const Backend& b) {
  return b.preamble(p.in_prec == 0 ? 0 : p.prec) + complex_prelude(b, p.prec) + "typedef " + icplx(p, b) +
         " icplx;\n";
}

// Even n: the conjugated packed spectrum of M points, whose forward FFT
// gives the frame's even and odd samples.
void even_load(KernelWriter& w, const IstftPlan& p) {
  const std::string t = w.backend.real_type(p.prec);
  const int32_t m = p.n / 2;
  w.line("TG cplx* bufA = sh_all;");
  w.line("const DEV icplx* Zb = Z + (I64)batch*sb + (I64)frame*st;");
  w.for_range("k", "tid", m, "TPF", [&] {
    w.emit("icplx Xk = Zb[(I64)$*sk];", "k");
    w.emit("icplx Xnk = ($ == 0) ? Zb[(I64)$*sk] : Zb[(I64)($ - $)*sk];", "k", m, m, "k");
    w.emit("$ xkr=Xk.x, xki=($==0)?($)0:($)Xk.y, cnr=Xnk.x, cni=($==0)?($)0:-($)Xnk.y;", t, "k", t, t, "k", t, t);
    w.emit("$ er=($)0.5*(xkr+cnr), ei=($)0.5*(xki+cni);", t, t, t);
    w.emit("$ dr=($)0.5*(xkr-cnr), di=($)0.5*(xki-cni);", t, t, t);
    if (const int32_t stride = w.table_stride(p.n); stride > 0) {
      const std::string v = w.fresh("v");
      w.emit("cplx $ = twg[($) * $];", v, "k", stride);
      w.emit("$ wr=$.x, wi=-$.y;", t, v, v);
    } else {
      const std::string d = p.prec == 2 ? "double" : "float";
      const std::string a = w.fresh("a"), c = w.fresh("c"), s = w.fresh("s");
      w.emit("$ $ = ($)($) * ($)$;", d, a, d, literal(std::numbers::pi / m), d, "k");
      w.emit("$ $, $; $", d, c, s, w.backend.sincos(p.prec, a, c, s));
      w.emit("$ wr=($)$, wi=($)$;", t, t, c, t, s);
    }
    w.emit("$ or_=wr*dr - wi*di, oi=wr*di + wi*dr;", t);
    w.emit("bufA[SHP($)] = cmk(er - oi, -(ei + or_));", "k");
  });
  w.sync();
}

void even_store(KernelWriter& w, const IstftPlan& p, const std::string& buf) {
  const std::string t = w.backend.real_type(p.prec), scale = literal(1.0 / (p.n / 2));
  if (p.deterministic) w.emit("I64 ob = ((I64)batch*NF + frame) * $;", p.n);
  else w.line("I64 ob = (I64)batch*out_len + (I64)frame*HOP;");
  w.for_range("k", "tid", p.n / 2, "TPF", [&] {
    w.emit("cplx ck = $[SHP($)];", buf, "k");
    w.emit("$ re = ck.x*($)$, im = -ck.y*($)$;", t, t, scale, t, scale);
    const std::string w0 = window_value(w.backend, p.prec, p.n, p.window_kind, "2*k");
    const std::string w1 = window_value(w.backend, p.prec, p.n, p.window_kind, "2*k+1");
    if (p.deterministic) {
      w.emit("yraw[ob + 2*$]   = re * $;", "k", w0);
      w.emit("yraw[ob + 2*$+1] = im * $;", "k", w1);
    } else {
      w.line(w.backend.atomic_add("yraw[ob + 2*k]", "re * " + w0));
      w.line(w.backend.atomic_add("yraw[ob + 2*k+1]", "im * " + w1));
    }
  });
}

// Odd n: frames fA and fB as the real and imaginary parts of one n-point
// signal, whose spectrum is A + iB with each one-sided spectrum extended by
// conjugate symmetry, conjugated for the forward FFT.
void odd_load(KernelWriter& w, const IstftPlan& p) {
  const Backend& b = w.backend;
  const std::string t = b.real_type(p.prec);
  w.emit("int tid = $;", b.thread_x());
  w.emit("int fpair = $;", b.block_x());
  w.line("int fA = 2*fpair, fB = 2*fpair + 1;");
  w.emit("int batch = $;", b.block_y());
  w.line("if (fA >= NF) return;");
  w.line("int hasB = (fB < NF);");
  w.line("TG cplx* bufA = sh_all;");
  w.line("const DEV icplx* ZA = Z + (I64)batch*sb + (I64)fA*st;");
  w.line("const DEV icplx* ZB = hasB ? Z + (I64)batch*sb + (I64)fB*st : ZA;");
  w.for_range("i", "tid", p.n, "TPF", [&] {
    w.emit("I64 zi = ($ < NB) ? (I64)$*sk : (I64)($ - $)*sk;", "i", "i", p.n, "i");
    w.line("icplx Ai = ZA[zi];");
    w.line("icplx Bi = ZB[zi];");
    w.emit("$ sgn = ($ < NB) ? ($)1 : ($)-1;", t, "i", t, t);
    w.emit("$ ar=Ai.x, ai=($==0)?($)0:sgn*($)Ai.y;", t, "i", t, t);
    w.emit("$ br=hasB?($)Bi.x:($)0, bi=hasB?(($==0)?($)0:sgn*($)Bi.y):($)0;", t, t, t, "i", t, t, t);
    w.emit("bufA[SHP($)] = cmk(ar - bi, -(ai + br));", "i");
  });
  w.sync();
}

void odd_store(KernelWriter& w, const IstftPlan& p, const std::string& buf) {
  const std::string t = w.backend.real_type(p.prec), scale = literal(1.0 / p.n);
  if (p.deterministic) {
    w.emit("I64 obA = ((I64)batch*NF + fA) * $;", p.n);
    w.emit("I64 obB = ((I64)batch*NF + fB) * $;", p.n);
  } else {
    w.line("I64 obA = (I64)batch*out_len + (I64)fA*HOP;");
    w.line("I64 obB = (I64)batch*out_len + (I64)fB*HOP;");
  }
  w.for_range("k", "tid", p.n, "TPF", [&] {
    w.emit("cplx ck = $[SHP($)];", buf, "k");
    w.emit("$ ga = ck.x*($)$, gb = -ck.y*($)$;", t, t, scale, t, scale);
    w.emit("$ wk = $;", t, window_value(w.backend, p.prec, p.n, p.window_kind, "k"));
    if (p.deterministic) {
      w.emit("yraw[obA + $] = ga * wk;", "k");
      w.emit("if (hasB) yraw[obB + $] = gb * wk;", "k");
    } else {
      w.line(w.backend.atomic_add("yraw[obA + k]", "ga * wk"));
      w.line("if (hasB) " + w.backend.atomic_add("yraw[obB + k]", "gb * wk"));
    }
  });
}

// The text above an element-wise staged kernel of 256 threads a block.
std::string staged_head(const IstftPlan& p, const Backend& b, const std::string& name, const KernelParams& params) {
  return above(p, b) + define("TPF", "256") + KernelSig(name, b, params).head();
}

// Row `row0 + blockIdx.y` of the R rows: its signal bb, frame tt, and the
// spectrum row it reads through the strides.
void spectrum_row(KernelWriter& w, int32_t count, const std::string& test) {
  const Backend& b = w.backend;
  w.emit("int $ = $ * TPF + $;", "k", b.block_x(), b.thread_x());
  w.emit("if ($ $ $) return;", "k", test, count);
  w.emit("I64 row = row0 + $;", b.block_y());
  w.emit("I64 $ = row / NF, $ = row % NF;", "bb", "tt");
  w.line("const DEV icplx* xb = Z + bb * sb + tt * st;");
}

KernelParams strided_params(const IstftPlan& p, const Backend& b, bool table) {
  KernelParams params{KernelParam::input(icplx(p, b), "Z"), KernelParam::output("cplx", "z")};
  if (table) params.push_back(KernelParam::input("cplx", "tw"));
  params.push_back(KernelParam::value("int", "NF"));
  for (const char* name : {"sb", "sk", "st", "row0"}) params.push_back(KernelParam::value("I64", name));
  return params;
}

}  // namespace

void covering_frames(KernelWriter& w, const std::string& pos, int32_t n, int32_t hop) {
  // The first frame that reaches pos is the first with t * hop > pos - n: a
  // frame starting exactly n before pos ends one sample short of it.
  w.emit("int t0 = (int)(($ - $ + $) / $); if (t0 < 0) t0 = 0;", pos, n, hop, hop);
  w.emit("int t1 = (int)($ / $); if (t1 > NF-1) t1 = NF-1;", pos, hop);
}

uint64_t istft_shared_bytes(const IstftPlan& plan) {
  return static_cast<uint64_t>(fft_row_elements(plan.fft_length(), false)) * (plan.prec == 2 ? 16 : 8);
}

KernelParams istft_frames_params(const IstftPlan& plan, const Backend& backend) {
  const std::string t = backend.real_type(plan.prec);
  KernelParams params{KernelParam::input(icplx(plan, backend), "Z"), KernelParam::output(t, "yraw"),
                      KernelParam::input(t, "win"), KernelParam::input("cplx", "twg"),
                      KernelParam::value("int", "NF")};
  for (const char* name : {"out_len", "sb", "sk", "st"}) params.push_back(KernelParam::value("I64", name));
  return params;
}

std::string istft_frames_kernel(const IstftPlan& p, const Backend& b) {
  const int32_t len = p.fft_length();
  int32_t rest = 1;
  const std::vector<int32_t> schedule = factor_schedule(len, rest, false);
  std::string text = above(p, b) + define("NB", std::to_string(p.bins())) + define("TPF", std::to_string(p.tpf)) +
                     define("HOP", std::to_string(p.hop)) + shp_define(false);
  KernelSig sig("istft_frames", b, istft_frames_params(p, b));
  sig.bound_threads = p.tpf;
  sig.set_shared("cplx", "sh_all");
  text += sig.head();
  KernelWriter w(p.prec, b);
  add_fft_tables(w, p.prec, p.odd() ? 2 * p.n : p.n, "twg", schedule);
  if (p.odd()) {
    odd_load(w, p);
    odd_store(w, p, emit_stages(w, "bufA", len, schedule, p.tpf, false));
  } else {
    frame_ids(w);
    even_load(w, p);
    even_store(w, p, emit_stages(w, "bufA", len, schedule, p.tpf, false));
  }
  return text + w.text() + "}\n";
}

KernelParams istft_normalize_params(const IstftPlan& plan, const Backend& backend) {
  const std::string t = backend.real_type(plan.prec);
  return {KernelParam::input(t, "yraw"),        KernelParam::output(backend.real_type(plan.in_prec), "y"),
          KernelParam::input(t, "win"),         KernelParam::value("int", "L"),
          KernelParam::value("int", "pad"),     KernelParam::value("int", "NF"),
          KernelParam::value("I64", "out_len")};
}

std::string istft_normalize_kernel(const IstftPlan& p, bool frame_rows, const Backend& b) {
  const std::string t = b.real_type(p.prec);
  const std::string text = b.preamble(p.in_prec == 0 ? 0 : p.prec) + types_prelude(b) +
                           KernelSig("istft_normalize", b, istft_normalize_params(p, b)).head();
  KernelWriter w(p.prec, b);
  w.emit("I64 i = (I64)$ * $ + $;", b.block_x(), b.block_dim_x(), b.thread_x());
  w.emit("int batch = $;", b.block_y());
  w.line("if (i >= L) return;");
  w.line("I64 p = (I64)pad + i;");
  covering_frames(w, "p", p.n, p.hop);
  w.emit("$ env=($)0;", t, t);
  if (frame_rows) w.emit("$ acc=($)0;", t, t);
  w.line("for (int t=t0; t<=t1; ++t) {");
  w.emit("  int j = (int)(p - (I64)t*$);", p.hop);
  w.emit("  $ w = $; env += w*w;", t, window_value(b, p.prec, p.n, p.window_kind, "j"));
  if (frame_rows) w.emit("  acc += yraw[((I64)batch*NF + t)*$ + j];", p.n);
  w.line("}");
  if (!frame_rows) w.emit("$ acc = yraw[(I64)batch*out_len + p];", t);
  w.emit("y[(I64)batch*L + i] = $;", b.convert(p.in_prec, format("(env > ($)1e-8) ? acc/env : ($)0", {t, t})));
  return text + w.text() + "}\n";
}

KernelParams zpack_params(const IstftPlan& plan, const Backend& backend) {
  return strided_params(plan, backend, true);
}

std::string zpack_kernel(const IstftPlan& p, const Backend& b) {
  const int32_t m = p.n / 2;
  const std::string t = b.real_type(p.prec), k = widen(p, b);
  const std::string text = staged_head(p, b, "ondrel_zpack", zpack_params(p, b));
  KernelWriter w(p.prec, b);
  add_fft_tables(w, p.prec, p.n, "tw", {});
  spectrum_row(w, m, ">=");
  w.emit("DEV cplx* zb = z + row * $;", m);
  w.emit("cplx xk; { icplx v = xb[(I64)k * sk]; xk = cmk($v.x, $v.y); }", k, k);
  w.emit("cplx xn; { icplx v = xb[(I64)($ - k) * sk]; xn = cmk($v.x, $v.y); }", m, k, k);
  // Bins 0 and M of a real frame are real: whatever imaginary parts the
  // spectrum holds there count on neither route.
  w.emit("if (k == 0) { xk.y = ($)0; xn.y = ($)0; }", t, t);
  w.emit("$ er = ($)0.5 * (xk.x + xn.x), ei = ($)0.5 * (xk.y - xn.y);", t, t, t);
  w.emit("$ or_ = ($)0.5 * (xk.x - xn.x), oi = ($)0.5 * (xk.y + xn.y);", t, t, t);
  const std::string tw = w.twiddle("k", p.n, false, true);
  w.emit("$ tr = $.x * or_ - $.y * oi;", t, tw, tw);
  w.emit("$ ti = $.x * oi + $.y * or_;", t, tw, tw);
  w.line("zb[k] = cmk(er - ti, ei + tr);");
  return text + w.text() + "}\n";
}

KernelParams zgather_params(const IstftPlan& plan, const Backend& backend) {
  return strided_params(plan, backend, false);
}

std::string zgather_kernel(const IstftPlan& p, const Backend& b) {
  const std::string k = widen(p, b);
  const std::string text = staged_head(p, b, "ondrel_zgather", zgather_params(p, b));
  KernelWriter w(p.prec, b);
  spectrum_row(w, p.bins(), ">=");
  w.emit("DEV cplx* zb = z + row * $;", p.bins());
  w.emit("icplx v = xb[(I64)k * sk]; zb[k] = cmk($v.x, $v.y);", k, k);
  return text + w.text() + "}\n";
}

KernelParams wscale_params(const IstftPlan& plan, const Backend& backend) {
  const std::string t = backend.real_type(plan.prec);
  return {KernelParam::output(t, "frames"), KernelParam::input(t, "win"), KernelParam::value("int", "NF")};
}

std::string wscale_kernel(const IstftPlan& p, const Backend& b) {
  const std::string t = b.real_type(p.prec);
  const std::string text = staged_head(p, b, "ondrel_wscale", wscale_params(p, b));
  KernelWriter w(p.prec, b);
  w.emit("int tid = $;", b.thread_x());
  w.emit("int t = $;", b.block_x());
  w.emit("I64 bb = $;", b.block_y());
  w.emit("DEV $* fb = frames + (bb * NF + t) * $;", t, p.n);
  w.for_range("i", "tid", p.n, "TPF", [&] { w.emit("fb[$] = fb[$] * win[$];", "i", "i", "i"); });
  return text + w.text() + "}\n";
}

}  // namespace ondrel::codegen
