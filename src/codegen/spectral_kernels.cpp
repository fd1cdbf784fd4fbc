#include "codegen/spectral_kernels.hpp"

#include <vector>

#include "codegen/prelude.hpp"
#include "codegen/stft_body.hpp"
#include "math/precision.hpp"

namespace ondrel::codegen {

namespace {

// The floor of the magnitude sum wherever a statistic divides by it.
std::string eps_text(int compute) { return compute == kDoubleCode ? "(double)1e-10" : "1e-10f"; }

// The tree sum of every array in `arrays` at once over threads 0 to
// 2 * start - 1, as the shared-memory tree every feature kernel uses.
void tree_sum(KernelWriter& w, const std::vector<std::string>& arrays, const std::string& start) {
  w.emit("for (int s = $; s > 0; s >>= 1) {", start);
  std::string adds;
  for (const std::string& a : arrays) adds += " " + a + "[tid] += " + a + "[tid + s];";
  w.line("if (tid < s) {" + adds + " }");
  w.sync();
  w.line("}");
}

// Stores a0 and a1 of every thread, then sums both.
void joint_sum(KernelWriter& w, const std::string& start) {
  w.line("red0[tid] = a0; red1[tid] = a1;");
  w.sync();
  tree_sum(w, {"red0", "red1"}, start);
}

// The accumulation of the first pass: sum and first moment, or for flatness the
// sum of powers and of their logarithms, of the value `v` at bin `i`.
void accumulate(KernelWriter& w, int stat, int compute, const std::string& t, const std::string& v) {
  if (stat == kFlatness) {
    w.emit("$ pw = $ * $;", t, v, v);
    w.line("if (pw < amin) pw = amin;");
    w.emit("a0 += pw; a1 += $;", w.backend.real_log(compute, "pw"));
  } else {
    w.emit("a0 += $; a1 += (fstep * ($)i) * $;", v, t, v);
  }
}

// s0: the magnitude sum raised to the floor.
void floored_sum(KernelWriter& w, const std::string& t, int compute) {
  w.emit("$ s0 = red0[0];", t);
  w.emit("if (s0 < $) s0 = $;", eps_text(compute), eps_text(compute));
}

// The power |d|^pp, squared when pp is exactly 2 (chosen at run time, so
// one compiled kernel serves every p).
std::string spread(const Backend& b, int compute, const std::string& q) {
  return "(sq ? " + q + " * " + q + " : " + b.real_pow(compute, q, "pp") + ")";
}

std::string row_opening(const std::string& name, const KernelParams& params, int compute, int storage,
                        const Backend& b) {
  KernelSig sig(name, b, params);
  sig.bound_threads = kSpectralThreads;
  sig.set_shared(b.real_type(compute), "red0");
  return b.preamble(storage) + types_prelude(b) + real_typedefs(b, compute, storage) + sig.head();
}

void row_ids(KernelWriter& w) {
  w.emit("int tid = $;", w.backend.thread_x());
  w.emit("I64 base = (I64)$ * n;", w.backend.block_x());
  w.emit("T* red1 = red0 + $;", kSpectralThreads);
}

// The first pass over the row in global memory, then the joint sum.
void row_sums(KernelWriter& w, int stat, int compute) {
  w.line("T a0 = (T)0, a1 = (T)0;");
  w.emit("for (I64 i = tid; i < n; i += $) {", kSpectralThreads);
  w.line("T v = (T)M[base + i];");
  accumulate(w, stat, compute, "T", "v");
  w.line("}");
  joint_sum(w, std::to_string(kSpectralThreads / 2));
}

}  // namespace

uint64_t spectral_shared_bytes(int compute) {
  return 2ull * kSpectralThreads * (compute == kDoubleCode ? 8 : 4);
}

KernelParams spectral_params(const Backend& b, int compute, int storage) {
  const std::string s = b.real_type(storage), t = b.real_type(compute);
  return {KernelParam::input(s, "M"),       KernelParam::output(s, "out"), KernelParam::value("I64", "n"),
          KernelParam::value(t, "fstep"),   KernelParam::value(t, "pp"),   KernelParam::value(t, "amin"),
          KernelParam::value(t, "roll")};
}

KernelParams spectral_adjoint_params(const Backend& b, int compute) {
  const std::string t = b.real_type(compute);
  return {KernelParam::input(t, "M"),     KernelParam::input(t, "gy"),    KernelParam::output(t, "gM"),
          KernelParam::value("I64", "n"), KernelParam::value(t, "fstep"), KernelParam::value(t, "pp"),
          KernelParam::value(t, "amin")};
}

std::string spectral_kernel(int stat, int compute, int storage, const Backend& b) {
  std::string text = row_opening("ondrel_spectral", spectral_params(b, compute, storage), compute, storage, b);
  KernelWriter w(compute, b);
  const std::string out = "out[" + b.block_x() + "]";
  row_ids(w);
  row_sums(w, stat, compute);
  if (stat == kCentroid) {
    w.line("if (tid == 0) {");
    floored_sum(w, "T", compute);
    w.emit("$ = $;", out, b.convert(storage, "red1[0] / s0"));
    w.line("}");
  } else if (stat == kFlatness) {
    // amin keeps the arithmetic mean positive.
    w.emit("if (tid == 0) $ = $;", out,
           b.convert(storage, format("($) / (red0[0] / (T)n)", {b.real_exp(compute, "red1[0] / (T)n")})));
  } else if (stat == kBandwidth) {
    floored_sum(w, "T", compute);
    w.line("T c = red1[0] / s0;");
    w.line("bool sq = pp == (T)2;");
    w.sync();  // red0 is reused below
    w.line("T a2 = (T)0;");
    w.emit("for (I64 i = tid; i < n; i += $) {", kSpectralThreads);
    w.line("T v = (T)M[base + i];");
    w.line("T d = fstep * (T)i - c;");
    w.line("if (d < (T)0) d = -d;");
    w.emit("a2 += v * $;", spread(b, compute, "d"));
    w.line("}");
    w.line("red0[tid] = a2;");
    w.sync();
    tree_sum(w, {"red0"}, std::to_string(kSpectralThreads / 2));
    w.emit("if (tid == 0) $ = $;", out,
           b.convert(storage, "sq ? " + b.real_sqrt(compute, "red0[0] / s0") + " : " +
                                  b.real_pow(compute, "red0[0] / s0", "((T)1 / pp)")));
  } else {
    // A first-crossing search: sequential in one thread.
    w.line("if (tid == 0) {");
    w.line("T thr = roll * red0[0];");
    w.line("T acc = (T)0;");
    w.line("I64 kk = 0;");
    w.line("for (; kk < n; ++kk) {");
    w.line("acc += (T)M[base + kk];");
    w.line("if (acc >= thr) break;");
    w.line("}");
    w.line("if (kk >= n) kk = n - 1;");
    w.emit("$ = $;", out, b.convert(storage, "fstep * (T)kk"));
    w.line("}");
  }
  return text + w.text() + "}\n";
}

std::string spectral_adjoint_kernel(int stat, int compute, const Backend& b) {
  std::string text = row_opening("ondrel_spectral_adj", spectral_adjoint_params(b, compute), compute, compute, b);
  KernelWriter w(compute, b);
  row_ids(w);
  row_sums(w, stat, compute);
  w.emit("T g = gy[$];", b.block_x());
  if (stat == kFlatness) {
    w.line("T a = red0[0] / (T)n;");
    w.emit("T geo = $;", b.real_exp(compute, "red1[0] / (T)n"));
    w.line("T w = g * geo / ((T)n * a);");
    w.emit("for (I64 i = tid; i < n; i += $) {", kSpectralThreads);
    w.line("T v = M[base + i];");
    w.line("T pw = v * v;");
    w.line("T mask = pw < amin ? (T)0 : (T)1;");
    w.line("if (pw < amin) pw = amin;");
    w.line("gM[base + i] = w * (((T)1) / pw - ((T)1) / a) * ((T)2) * v * mask;");
    w.line("}");
    return text + w.text() + "}\n";
  }
  // Below the floor s0 does not follow the row: m drops its derivative.
  w.line("T D = red0[0];");
  w.emit("T s0 = D < $ ? $ : D;", eps_text(compute), eps_text(compute));
  w.emit("T m = D < $ ? (T)0 : (T)1;", eps_text(compute));
  w.line("T c = red1[0] / s0;");
  if (stat == kCentroid) {
    w.emit("for (I64 i = tid; i < n; i += $) gM[base + i] = g * (fstep * (T)i - c * m) / s0;", kSpectralThreads);
    return text + w.text() + "}\n";
  }
  w.sync();  // red0 and red1 are reused below
  w.line("bool sq = pp == (T)2;");
  w.line("T a2 = (T)0, a3 = (T)0;");
  w.emit("for (I64 i = tid; i < n; i += $) {", kSpectralThreads);
  w.line("T v = M[base + i];");
  w.line("T d = fstep * (T)i - c;");
  w.line("T q = d < (T)0 ? -d : d;");
  w.line("T sg = d > (T)0 ? (T)1 : (d < (T)0 ? (T)-1 : (T)0);");
  w.emit("a2 += v * $;", spread(b, compute, "q"));
  // |d|^p has no derivative at d = 0 for p below 1: the bin there adds none.
  w.emit("a3 += sq ? v * (T)2 * d : (sg == (T)0 ? (T)0 : v * pp * $ * sg);", b.real_pow(compute, "q", "(pp - (T)1)"));
  w.line("}");
  w.line("red0[tid] = a2; red1[tid] = a3;");
  w.sync();
  tree_sum(w, {"red0", "red1"}, std::to_string(kSpectralThreads / 2));
  w.line("T bwp = red0[0] / s0;");
  w.line("T R = red1[0];");
  // The outer power has no derivative at a spread of 0 when p is above 1
  // (a silent frame, or all the mass in one bin): the gradient is 0 there.
  w.emit("T w = (bwp <= (T)0 && pp > (T)1) ? (T)0 : g * ((T)1 / pp) * (sq ? (T)1 / $ : $);",
         b.real_sqrt(compute, "bwp"), b.real_pow(compute, "bwp", "(((T)1 - pp) / pp)"));
  w.emit("for (I64 i = tid; i < n; i += $) {", kSpectralThreads);
  w.line("T d = fstep * (T)i - c;");
  w.line("T q = d < (T)0 ? -d : d;");
  w.line("T dc = (fstep * (T)i - c * m) / s0;");
  w.emit("gM[base + i] = w * ($ - R * dc - bwp * m) / s0;", spread(b, compute, "q"));
  w.line("}");
  return text + w.text() + "}\n";
}

void fused_magnitudes(KernelWriter& w, const StftPlan& p, const std::string& buffer, const std::string& words) {
  const Backend& b = w.backend;
  const std::string t = b.real_type(p.prec);
  const int64_t scratch = row_length(p) * p.fpb + shared_twiddles(p);
  w.emit("TG $* work = (TG $*)(sh_all + $) + (I64)f_local * ($);", t, t, scratch, words);
  w.emit("TG $* mag = work;", t);
  // Every frame slot writes its row, also past NFRAMES: barriers follow.
  unpack_bins(w, p, buffer, [&](const std::string& re, const std::string& im) {
    return "{ " + t + " re = " + re + ", im = " + im + "; mag[k] = " + b.real_sqrt(p.prec, "re*re + im*im") + "; }";
  });
  const std::string x = nyquist_value(p, b, buffer);
  w.emit("if (tid == 0) mag[NB - 1] = $;", b.real_sqrt(p.prec, "(" + x + ")*(" + x + ")"));
  w.sync();
}

void spectral_epilogue(KernelWriter& w, const StftPlan& p, const std::string& buffer) {
  const Backend& b = w.backend;
  const std::string t = b.real_type(p.prec);
  const int stat = p.feature;
  // A scope of its own: the cores leave registers such as a0 in the kernel's.
  w.line("{");
  fused_magnitudes(w, p, buffer, "NB + 2 * TPF");
  w.emit("TG $* red0 = mag + NB;", t);
  w.emit("TG $* red1 = red0 + TPF;", t);
  w.emit("$ a0 = ($)0, a1 = ($)0;", t, t, t);
  w.for_range("i", "tid", "NB", "TPF", [&] {
    w.emit("$ v = mag[i];", t);
    accumulate(w, stat, p.prec, t, "v");
  });
  joint_sum(w, std::to_string(p.tpf / 2));
  w.line("I64 oi = (I64)batch * NFRAMES + frame;");
  const std::string store = "out[oi] = ";
  if (stat == kCentroid) {
    w.line("if (frame < NFRAMES && tid == 0) {");
    floored_sum(w, t, p.prec);
    w.line(store + b.convert(p.out_prec, "red1[0] / s0") + ";");
    w.line("}");
  } else if (stat == kFlatness) {
    const std::string mean_log = b.real_exp(p.prec, format("red1[0] / ($)NB", {t}));
    w.emit("if (frame < NFRAMES && tid == 0) $$;", store,
           b.convert(p.out_prec, format("($) / (red0[0] / ($)NB)", {mean_log, t})));
  } else if (stat == kBandwidth) {
    // Every frame slot, also an empty one, reaches the barriers below.
    floored_sum(w, t, p.prec);
    w.emit("$ cen = red1[0] / s0;", t);
    w.emit("bool sq = pp == ($)2;", t);
    w.sync();
    w.emit("$ a2 = ($)0;", t, t);
    w.for_range("i", "tid", "NB", "TPF", [&] {
      w.emit("$ d = fstep * ($)i - cen;", t, t);
      w.emit("if (d < ($)0) d = -d;", t);
      w.emit("a2 += mag[i] * $;", spread(b, p.prec, "d"));
    });
    w.line("red0[tid] = a2;");
    w.sync();
    tree_sum(w, {"red0"}, std::to_string(p.tpf / 2));
    w.line("if (frame < NFRAMES && tid == 0) " + store +
           b.convert(p.out_prec, "sq ? " + b.real_sqrt(p.prec, "red0[0] / s0") + " : " +
                                     b.real_pow(p.prec, "red0[0] / s0", "((" + t + ")1 / pp)")) +
           ";");
  } else {
    w.line("if (frame < NFRAMES && tid == 0) {");
    w.emit("$ thr = roll * red0[0];", t);
    w.emit("$ acc = ($)0;", t, t);
    w.line("int kk = 0;");
    w.line("for (; kk < NB; ++kk) {");
    w.line("acc += mag[kk];");
    w.line("if (acc >= thr) break;");
    w.line("}");
    w.line("if (kk >= NB) kk = NB - 1;");
    w.line(store + b.convert(p.out_prec, "fstep * (" + t + ")kk") + ";");
    w.line("}");
  }
  w.line("}");
}

}  // namespace ondrel::codegen
