#include "codegen/stft_kernels.hpp"

#include <iomanip>
#include <numbers>
#include <sstream>
#include <stdexcept>
#include <vector>

#include "codegen/body_heads.hpp"
#include "codegen/fft_kernel.hpp"
#include "codegen/fft_stages.hpp"
#include "codegen/fused_cores.hpp"
#include "codegen/macros.hpp"
#include "codegen/prelude.hpp"
#include "codegen/stft_body.hpp"
#include "math/fft_schedule.hpp"

namespace ondrel::codegen {

namespace {

const char* core_word(int core) {
  switch (core) {
    case kCoreCt: return "ct";
    case kCoreWarp: return "warp";
    case kCoreEpt16: return "ept16";
    default: return "?";
  }
}

// The text pieces every sample load of a kernel shares.
struct Loads {
  const StftPlan& plan;
  const Backend& backend;
  std::string t;     // the compute type
  std::string cast;  // "(T)" when the signal is stored in another precision
  bool wide;         // 8-byte loads where the frame lies inside the signal

  std::string window(const std::string& j) const {
    return window_value(backend, plan.prec, plan.n, plan.window_kind, j);
  }

  // `target` = the windowed sample at the text position `at` of `frame`.
  std::string scalar(const std::string& target, const std::string& frame, const std::string& at,
                     const std::string& j) const {
    return format("$ = $yb[refl($*$ + $)] * $;", {target, cast, frame, plan.hop, at, window(j)});
  }
};

Loads loads_of(const StftPlan& plan, const Backend& backend) {
  const std::string t = backend.real_type(plan.prec);
  const bool wide = backend.has_wide_global_access() && plan.prec == 1 && plan.in_prec == 1 && plan.hop % 2 == 0 &&
                    plan.pad % 2 == 0;
  return {plan, backend, t, plan.in_prec == plan.prec ? "" : "(" + t + ")", wide};
}

// Frames that lie wholly inside the signal take one 8-byte load per pair;
// (SIG_LEN & 1) == 0 keeps every signal's start aligned for it.
void wide_or_scalar(KernelWriter& w, const Loads& l, const std::string& inside, const std::function<void()>& wide,
                    const std::function<void()>& scalar) {
  if (!l.wide) return scalar();
  w.raw("  if ((SIG_LEN & 1)==0 && " + inside + ") {\n");
  wide();
  w.raw("  } else {\n");
  scalar();
  w.raw("  }\n");
}

// Cores 0 (and the warp core's fallback): element i of the M-point FFT holds
// samples 2i and 2i + 1, stored bit-reversed behind a barrier.
void ct_row_load(KernelWriter& w, const Loads& l) {
  const StftPlan& p = l.plan;
  w.for_range("i", "tid", p.m(), "TPF", [&] {
    w.emit("int s0 = 2*$, s1 = 2*$ + 1;", "i", "i");
    w.emit("$ v0 = ($)0, v1 = ($)0;", l.t, l.t, l.t);
    w.if_block("frame < NFRAMES", [&] {
      const auto scalar = [&] {
        w.line(l.scalar("v0", "frame", "s0", "s0"));
        w.line(l.scalar("v1", "frame", "s1", "s1"));
      };
      if (l.wide) w.emit("int _s = frame*$ - $ + s0;", p.hop, p.pad);
      wide_or_scalar(w, l, format("_s >= 0 && frame*$ - $ + $ <= SIG_LEN && frame*$ >= $", {p.hop, p.pad, p.n, p.hop, p.pad}),
                     [&] {
                       w.emit("$ ld = *(const $*)(yb + _s);", l.backend.pair_type(1), l.backend.pair_type(1));
                       w.emit("v0 = ld.x * $;", l.window("s0"));
                       w.emit("v1 = ld.y * $;", l.window("s1"));
                     },
                     scalar);
    });
    w.line("sh[SHP(brev(i))] = cmk(v0, v1);");
  });
  w.sync();
}

// The register loads of the warp (a, b, ie) and EPT16 (ar, ai, k) cores:
// register e takes samples 2 e' and 2 e' + 1 of its element e'.
void register_loads(KernelWriter& w, const Loads& l, const char* re, const char* im,
                    const std::function<std::string(int32_t)>& element) {
  const StftPlan& p = l.plan;
  const int32_t count = p.core == kCoreEpt16 ? p.m() / p.tpf : p.ept;
  const auto scalar = [&] {
    for (int32_t e = 0; e < count; ++e) {
      const std::string at = "2*" + element(e);
      w.line(l.scalar(re + std::to_string(e), "frame", at, at));
      w.line(l.scalar(im + std::to_string(e), "frame", at + "+1", at + "+1"));
    }
  };
  if (l.wide) w.emit("int _s = frame*$ - $;", p.hop, p.pad);
  wide_or_scalar(w, l, format("_s >= 0 && _s + $ <= SIG_LEN", {p.n}),
                 [&] {
                   const std::string pair = l.backend.pair_type(1);
                   for (int32_t e = 0; e < count; ++e) {
                     const std::string at = "2*" + element(e);
                     w.emit("$ ld$ = *(const $*)(yb + _s + $);", pair, e, pair, at);
                     w.emit("$$ = ld$.x * $;", re, e, e, l.window(at));
                     w.emit("$$ = ld$.y * $;", im, e, e, l.window(at + "+1"));
                   }
                 },
                 scalar);
}

// The unpack twiddle e^(-2 pi i k / N) as wr, wi.
void unpack_twiddle(KernelWriter& w, const StftPlan& p, const std::string& t) {
  if (p.tw_table) {
    w.emit("$ wr = twr[$].x, wi = twr[$].y;", t, "k", "k");
  } else if (const int32_t stride = w.table_stride(p.n); stride > 0) {
    const std::string v = w.fresh("v");
    w.emit("cplx $ = $[($) * $];", v, w.table_base(p.n), "k", stride);
    w.emit("$ wr = $.x, wi = $.y;", t, v, v);
  } else {
    const std::string d = p.prec == 2 ? "double" : "float";
    const std::string a = w.fresh("a"), c = w.fresh("c"), s = w.fresh("s");
    w.emit("$ $ = ($)($) * ($)$;", d, a, d, literal(-std::numbers::pi / p.m()), d, "k");
    w.emit("$ $, $; $", d, c, s, w.backend.sincos(p.prec, a, c, s));
    w.emit("$ wr = ($)$, wi = ($)$;", t, t, c, t, s);
  }
}

// The spectrum of M packed points to the NB bins of the real frame, stored.
void store_spectrum(KernelWriter& w, const StftPlan& p, const std::string& buf) {
  const Backend& b = w.backend;
  const std::string t = b.real_type(p.prec);
  w.if_block("frame < NFRAMES", [&] {
    w.line("I64 ob = ((I64)batch*NFRAMES + frame) * NB;");
    unpack_bins(w, p, buf, [&](const std::string& re, const std::string& im) {
      return store_text(b, p.mode, p.out_prec, t, "out[ob + k]", re, im);
    });
    w.emit("if (tid == 0) $", store_text(b, p.mode, p.out_prec, t, format("out[ob + $]", {p.m()}),
                                         nyquist_value(p, b, buf), "(" + t + ")0"));
  });
}

KernelSig stft_sig(const StftPlan& plan, const Backend& backend, int32_t bound) {
  KernelSig sig("ondrel_stft", backend, stft_params(plan, backend));
  sig.bound_threads = bound;
  sig.set_shared("cplx", "sh_all");
  return sig;
}

void close_frame(KernelWriter& w, const StftPlan& plan, const std::string& buf, const FeatureHook& feature) {
  if (plan.feature < 0) return store_spectrum(w, plan, buf);
  if (!feature) throw std::logic_error("stft_text: a feature plan needs its epilogue");
  feature(w, plan, buf);
}

// Cores 0, 1 and 3: F frames a block, TPF threads a frame.
std::string fused_text(const StftPlan& p, const Backend& b, const FeatureHook& feature) {
  std::string text = packed_comment(p) + spectral_prelude(b, p.prec, p.n, p.pad);
  text += define("NB", std::to_string(p.bins())) + define("F", std::to_string(p.fpb)) +
          define("TPF", std::to_string(p.tpf)) + eps_define(p.eps) + define("TWN", std::to_string(shared_twiddles(p)));
  text += shp_define_spectral(p.shp_shift) + stft_sig(p, b, p.fpb * p.tpf).head();

  KernelWriter w(p.prec, b);
  frame_ids_packed(w);
  w.emit("TG cplx* sh = sh_all + TWN + (long)f_local * $;", row_length(p));
  packed_load_fft(w, p);
  close_frame(w, p, "sh", feature);
  return text + w.text() + "}\n";
}

// Core 2: one frame a block (two for odd n) on the mixed-radix passes.
std::string mixed_text(const StftPlan& p, const Backend& b, const FeatureHook& feature) {
  std::string text = mixed_prelude(p, b);
  text += define("NB", std::to_string(p.bins())) + define("TPF", std::to_string(p.tpf)) + eps_define(p.eps);
  text += shp_define(p.shp_on) + stft_sig(p, b, p.tpf).head();

  KernelWriter w(p.prec, b);
  const std::string buf = mixed_load_fft(w, p);
  if (!p.paired) {
    close_frame(w, p, buf, feature);
    return text + w.text() + "}\n";
  }
  if (p.feature >= 0) throw std::logic_error("stft_text: features run on unpaired frames");
  const std::string t = b.real_type(p.prec);
  w.line("I64 obA = ((I64)batch*NFRAMES + fA) * NB;");
  w.line("I64 obB = ((I64)batch*NFRAMES + fB) * NB;");
  paired_bins(w, p, buf, [&] {
    w.if_block("fA < NFRAMES", [&] { w.line(store_text(b, p.mode, p.out_prec, t, "out[obA + k]", "axr", "axi")); });
    w.if_block("fB < NFRAMES", [&] { w.line(store_text(b, p.mode, p.out_prec, t, "out[obB + k]", "bxr", "bxi")); });
  });
  return text + w.text() + "}\n";
}

int32_t complex_size(int prec) { return prec == 0 ? 4 : prec == 2 ? 16 : 8; }

}  // namespace

std::string packed_comment(const StftPlan& p) {
  return format("// ondrel rfft<$, EPT<$>, TPF<$>, FPB<$>> core=$\n", {p.n, p.ept, p.tpf, p.fpb, core_word(p.core)});
}

void packed_load_fft(KernelWriter& w, const StftPlan& p) {
  const Backend& b = w.backend;
  w.emit("const DEV $* yb = y + (I64)batch * SIG_LEN;", b.real_type(p.in_prec));
  if (p.tw_table) {
    if (p.tw_global) {
      w.line("const cplx* twsh = tw;");
    } else {
      w.line("cplx* twsh = sh_all;");
      w.for_range("i", b.thread_x(), "TWN", b.block_dim_x(), [&] { w.emit("twsh[$] = tw[$];", "i", "i"); });
    }
  }
  const Loads l = loads_of(p, b);
  const FusedFft fft{p.m(), p.ept, p.tpf, p.tw_table};
  if (p.core == kCoreCt) {
    ct_row_load(w, l);
    ct_passes(w, fft);
  } else if (p.core == kCoreWarp) {
    warp_core(
        w, fft, [&] { register_loads(w, l, "a", "b", [](int32_t e) { return format("ie$", {e}); }); },
        [&] { ct_row_load(w, l); });
  } else {
    ept16_core(w, fft, [&] { register_loads(w, l, "ar", "ai", [](int32_t e) { return format("k$", {e}); }); });
  }
}

std::string mixed_prelude(const StftPlan& p, const Backend& b) {
  return b.preamble(p.prec) + complex_prelude(b, p.prec) + refl_defines(p.pad);
}

std::string mixed_load_fft(KernelWriter& w, const StftPlan& p) {
  const Backend& b = w.backend;
  const int32_t len = p.fft_length();
  int32_t rest = 1;
  const std::vector<int32_t> schedule = factor_schedule(len, rest, false);
  add_fft_tables(w, p.prec, p.paired ? 2 * p.n : p.n, "tw", schedule);
  const Loads l = loads_of(p, b);
  const std::string t = l.t;
  w.emit("int tid = $;", b.thread_x());
  if (!p.paired) {
    w.emit("int frame = $;", b.block_x());
    w.emit("int batch = $;", b.block_y());
    w.line("TG cplx* bufA = sh_all;");
    w.emit("const DEV $* yb = y + (I64)batch * SIG_LEN;", b.real_type(p.in_prec));
    w.for_range("i", "tid", len, "TPF", [&] {
      w.emit("$ v0=($)0, v1=($)0;", t, t, t);
      w.if_block("frame < NFRAMES", [&] {
        w.line(l.scalar("v0", "frame", "2*i", "2*i"));
        w.line(l.scalar("v1", "frame", "2*i+1", "2*i+1"));
      });
      w.emit("bufA[SHP($)] = cmk(v0, v1);", "i");
    });
  } else {
    w.emit("int fpair = $;", b.block_x());
    w.line("int fA = 2*fpair, fB = 2*fpair + 1;");
    w.emit("int batch = $;", b.block_y());
    w.line("TG cplx* bufA = sh_all;");
    w.emit("const DEV $* yb = y + (I64)batch * SIG_LEN;", b.real_type(p.in_prec));
    w.for_range("i", "tid", len, "TPF", [&] {
      w.emit("$ vA=($)0, vB=($)0;", t, t, t);
      w.if_block("fA < NFRAMES", [&] { w.line(l.scalar("vA", "fA", "i", "i")); });
      w.if_block("fB < NFRAMES", [&] { w.line(l.scalar("vB", "fB", "i", "i")); });
      w.emit("bufA[SHP($)] = cmk(vA, vB);", "i");
    });
  }
  w.sync();
  return emit_stages(w, "bufA", len, schedule, p.tpf, false);
}

void unpack_bins(KernelWriter& w, const StftPlan& p, const std::string& buf, const BinStatement& bin) {
  const std::string t = w.backend.real_type(p.prec);
  if (p.tw_table) w.emit("const cplx* twr = twsh + ($/2);", p.m());
  w.for_range("k", "tid", p.m(), "TPF", [&] {
    w.emit("cplx Zk = $[SHP($)];", buf, "k");
    w.emit("cplx Znk = ($ == 0) ? $[0] : $[SHP($ - $)];", "k", buf, buf, p.m(), "k");
    w.emit("$ zkr=Zk.x, zki=Zk.y, znr=Znk.x, zni=Znk.y;", t);
    w.emit("$ xer = ($)0.5*(zkr + znr), xei = ($)0.5*(zki - zni);", t, t, t);
    w.emit("$ dr = zkr - znr, di = zki + zni;", t);
    w.emit("$ xo_r = ($)0.5*di, xo_i = ($)(-0.5)*dr;", t, t, t);
    unpack_twiddle(w, p, t);
    w.line(bin("(" + t + ")(xer + wr*xo_r - wi*xo_i)", "(" + t + ")(xei + wr*xo_i + wi*xo_r)"));
  });
}

std::string nyquist_value(const StftPlan& p, const Backend& b, const std::string& buf) {
  return format("($)($[0].x - $[0].y)", {b.real_type(p.prec), buf, buf});
}

void paired_bins(KernelWriter& w, const StftPlan& p, const std::string& buf, const std::function<void()>& stores) {
  const std::string t = w.backend.real_type(p.prec);
  w.for_range("k", "tid", "NB", "TPF", [&] {
    w.emit("cplx Zk = $[SHP($)];", buf, "k");
    w.emit("cplx Znk = ($ == 0) ? $[0] : $[SHP($ - $)];", "k", buf, buf, p.n, "k");
    w.emit("$ zkr=Zk.x, zki=Zk.y, znr=Znk.x, zni=Znk.y;", t);
    w.emit("$ axr=($)0.5*(zkr+znr), axi=($)0.5*(zki-zni);", t, t, t);
    w.emit("$ bxr=($)0.5*(zki+zni), bxi=($)0.5*(znr-zkr);", t, t, t);
    stores();
  });
}

int64_t row_length(const StftPlan& plan) {
  const int64_t m = plan.m();
  return m + 1 + (plan.shp_shift != 0 ? m >> plan.shp_shift : 0);
}

int64_t shared_twiddles(const StftPlan& plan) {
  return plan.tw_table && !plan.tw_global ? plan.m() + plan.m() / 2 : 0;
}

uint64_t shared_bytes(const StftPlan& plan) {
  const uint64_t csize = complex_size(plan.prec), rsize = csize / 2;
  const uint64_t base =
      plan.core == kCoreMixed
          ? static_cast<uint64_t>(fft_row_elements(plan.fft_length(), plan.shp_on)) * csize
          : static_cast<uint64_t>(row_length(plan) * plan.fpb + shared_twiddles(plan)) * csize;
  const uint64_t m = static_cast<uint64_t>(plan.m()), fpb = static_cast<uint64_t>(plan.fpb);
  if (plan.feature >= 0 && plan.feature <= 3) return base + rsize * fpb * (2 * static_cast<uint64_t>(plan.tpf) + 1 + m);
  if (plan.feature == 4) return base + rsize * fpb * (static_cast<uint64_t>(plan.feature_extra) + 1 + m);
  return base;
}

KernelParams stft_params(const StftPlan& plan, const Backend& backend) {
  const std::string t = backend.real_type(plan.prec);
  KernelParams params{KernelParam::input(backend.real_type(plan.in_prec), "y"),
                      KernelParam::output(plan.mode == 0 ? backend.pair_type(plan.out_prec)
                                                         : backend.real_type(plan.out_prec),
                                          "out"),
                      KernelParam::input("cplx", "tw"), KernelParam::input(t, "win")};
  if (plan.feature == 4) {
    params.push_back(KernelParam::input("int", "bt"));
    params.push_back(KernelParam::input("int", "bq"));
  }
  params.push_back(KernelParam::value("int", "NFRAMES"));
  params.push_back(KernelParam::value("int", "SIG_LEN"));
  if (plan.feature >= 0)
    for (const char* name : {"fstep", "pp", "amin", "roll"}) params.push_back(KernelParam::value(t, name));
  return params;
}

std::string stft_text(const StftPlan& plan, const Backend& backend, const FeatureHook& feature) {
  if (plan.core == kCoreFourStep)
    throw std::invalid_argument("stft: FourStep core must route to the staged path (n1=" + std::to_string(plan.n1) +
                                " n2=" + std::to_string(plan.n2) + ")");
  if (plan.core == kCoreMixed) return mixed_text(plan, backend, feature);
  return fused_text(plan, backend, feature);
}

std::string store_text(const Backend& backend, int mode, int out_prec, const std::string& t,
                       const std::string& target, const std::string& re, const std::string& im) {
  if (mode == 0) return target + " = " + backend.make_pair(out_prec, re, im) + ";";
  const bool dbl = t == "double";
  std::string value;
  if (mode == 1) value = dbl ? "sqrt(re*re + im*im)" : backend.sqrt_call("(float)(re*re + im*im)");
  else if (mode == 2) value = "(re*re + im*im)";
  else value = dbl ? "((double)10*log10(re*re + im*im + (double)EPS))"
                   : "((float)10*" + backend.log10_call("(float)(re*re + im*im) + (float)EPS") + ")";
  return "{ " + t + " re=" + re + ", im=" + im + "; " + target + " = " + backend.convert(out_prec, value) + "; }";
}

std::string window_value(const Backend& backend, int prec, int32_t n, int window_kind, const std::string& j) {
  const std::string t = backend.real_type(prec);
  if (window_kind == kWindowTable) return "win[" + j + "]";
  if (window_kind == kWindowNone) return "(" + t + ")1";
  const bool dbl = prec == 2;
  const std::string d = dbl ? "double" : "float", s = dbl ? "" : "f";
  const auto cosine = [&](double turns) {
    return backend.cos_call(prec, "(" + d + ")(" + literal(turns * std::numbers::pi / n) + ")*(" + d + ")(" + j + ")");
  };
  const std::string c = cosine(2.0);
  if (window_kind == kWindowHann) return "(" + t + ")(0.5" + s + " - 0.5" + s + "*" + c + ")";
  if (window_kind == kWindowHamming) return "(" + t + ")(0.54" + s + " - 0.46" + s + "*" + c + ")";
  return "(" + t + ")(0.42" + s + " - 0.5" + s + "*" + c + " + 0.08" + s + "*" + cosine(4.0) + ")";
}

std::string eps_define(double eps) {
  std::ostringstream os;
  os << eps;
  // Six digits where they give eps back exactly, else as many as it takes:
  // a kernel must add the caller's eps, not a neighbour of it.
  if (std::stod(os.str()) != eps) {
    os.str("");
    os << std::setprecision(17) << eps;
  }
  return define("EPS", os.str());
}

}  // namespace ondrel::codegen
