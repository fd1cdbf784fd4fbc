#include "codegen/contrast_kernels.hpp"

#include <numbers>

#include "codegen/prelude.hpp"
#include "codegen/spectral_kernels.hpp"
#include "math/precision.hpp"

namespace ondrel::codegen {

namespace {

// The padding of a sort row: above every magnitude, so it sorts to the end
// and no sum reaches it.
std::string big(int compute) { return compute == kDoubleCode ? "(double)1e308" : "3.0e38f"; }

int64_t real_bytes(int compute) { return compute == kDoubleCode ? 8 : 4; }

// tid, band, base, and the band: first bin lo, width nin, count q.
void band_ids(KernelWriter& w) {
  const Backend& b = w.backend;
  w.emit("int tid = $;", b.thread_x());
  w.emit("int band = $;", b.block_y());
  w.emit("I64 base = (I64)$ * n;", b.block_x());
  w.line("int lo = bt[band], nin = bt[band + 1] - lo, q = bq[band];");
}

void pad_of_band(KernelWriter& w) { w.line("int pad = 1; while (pad < nin) pad <<= 1;"); }

// The ascending bitonic sort of vals[0..pad) by `stride` threads, a barrier
// closing every step. With `indexed`, idx[] follows the values and equal
// values order by position, so ties resolve the same way in every run.
void bitonic(KernelWriter& w, const std::string& t, const std::string& stride, bool indexed) {
  w.line("for (int kk = 2; kk <= pad; kk <<= 1) {");
  w.line("for (int j = kk >> 1; j > 0; j >>= 1) {");
  w.emit("for (int i = tid; i < pad; i += $) {", stride);
  w.line("int ix = i ^ j;");
  w.line("if (ix > i) {");
  w.emit("$ a = vals[i], c = vals[ix];", t);
  if (indexed) {
    w.line("int ia = idx[i], ic = idx[ix];");
    w.line("bool gtr = a > c || (a == c && ia > ic);");
    w.line("bool sw = (i & kk) != 0 ? !gtr : gtr;");
    w.line("if (sw) { vals[i] = c; vals[ix] = a; idx[i] = ic; idx[ix] = ia; }");
  } else {
    w.line("bool sw = (i & kk) != 0 ? (a < c) : (a > c);");
    w.line("if (sw) { vals[i] = c; vals[ix] = a; }");
  }
  w.line("}");
  w.line("}");
  w.sync();
  w.line("}");
  w.line("}");
}

// vv and pv, the means of the q first and the q last of the sorted band.
void sorted_means(KernelWriter& w, const std::string& t) {
  w.emit("$ vv = ($)0, pv = ($)0;", t, t, t);
  w.line("for (int i = 0; i < q; ++i) vv += vals[i];");
  w.line("for (int i = nin - q; i < nin; ++i) pv += vals[i];");
  w.emit("vv /= ($)q; pv /= ($)q;", t, t);
}

std::string k_db(const std::string& t) { return "(" + t + ")" + literal(10.0 / std::numbers::ln10); }

// r from pv and vv: their difference, or the difference of their decibels
// with both floored at amin. `linear` is the text of the test.
void contrast_value(KernelWriter& w, int compute, const std::string& t, const std::string& linear) {
  const Backend& b = w.backend;
  w.emit("$ r;", t);
  w.line("if (" + linear + ") { r = pv - vv; } else {");
  w.line("if (pv < amin) pv = amin;");
  w.line("if (vv < amin) vv = amin;");
  w.emit("r = $ * ($ - $);", k_db(t), b.real_log(compute, "pv"), b.real_log(compute, "vv"));
  w.line("}");
}

// gp and gv, the gradients of the peak and valley means, from g: where a
// mean lies under its floor it passes none.
void mean_gradients(KernelWriter& w, const std::string& t) {
  w.emit("$ gp, gv;", t);
  w.line("if (linear) { gp = g; gv = -g; } else {");
  w.emit("gp = pv < amin ? ($)0 : $ * g / pv;", t, k_db(t));
  w.emit("gv = vv < amin ? ($)0 : -$ * g / vv;", t, k_db(t));
  w.line("}");
}

// The order of floats as the order of unsigned words (negative values
// reversed below the positive ones), and back: the histograms count digits
// of these keys, so every pass bins an element by the same exact rule.
std::string key_functions(const Backend& b) {
  const std::string q = b.inline_head();
  return q + "unsigned ondrel_okey(float v) {\n  unsigned b = " + b.float_bits("v") +
         ";\n  return (b & 0x80000000u) ? ~b : (b | 0x80000000u);\n}\n" + q +
         "float ondrel_okey_value(unsigned k) {\n  return " +
         b.bits_float("(k & 0x80000000u) ? (k & 0x7fffffffu) : ~k") + ";\n}\n";
}

// The head of a row kernel whose dynamic shared array is the sort row
// `T vals[]` or, with `histogram`, the float area `red[]`.
std::string opening(const std::string& name, const KernelParams& params, int compute, int storage, bool histogram,
                    const Backend& b) {
  KernelSig sig(name, b, params);
  sig.bound_threads = kContrastThreads;
  if (histogram) sig.set_shared("float", "red");
  else sig.set_shared(b.real_type(compute), "vals");
  const std::string helpers = histogram ? key_functions(b) : "";
  return b.preamble(storage) + types_prelude(b) + real_typedefs(b, compute, storage) + helpers + sig.head();
}

// The sum of every thread's `value` into red[0], which thread 0 stores to
// `target` behind a barrier.
void block_sum(KernelWriter& w, const std::string& value, const std::string& target) {
  w.emit("red[tid] = $;", value);
  w.sync();
  w.emit("for (int s2 = $; s2 > 0; s2 >>= 1) {", kContrastThreads / 2);
  w.line("if (tid < s2) red[tid] += red[tid + s2];");
  w.sync();
  w.line("}");
  w.emit("if (tid == 0) $ = red[0];", target);
  w.sync();
}

// The band's element i in single precision, and its key.
void element(KernelWriter& w, const std::string& source) {
  w.emit("float v = (float)$[base + lo + i];", source);
  w.line("unsigned k = ondrel_okey(v);");
}

// The selection of both histogram kernels, exact: a radix selection of the
// q-th smallest key (the valley's threshold p0) and of the (nin - q + 1)-th
// (the peak's, p1), eight bits a pass from the top, both ends counted in the
// same pass. Shared memory: red[256] floats at byte 0 (the valley's counts
// while selecting, then the sums), hist[256] ints at 1024 (the peak's
// counts), shf[8] floats at 2048, shi[8] ints at 2080. Each walk stops
// within its 256 bins: the counted elements hold the rank sought, since q
// lies in [1, nin]. Afterwards r0 of the tie0 elements equal to the valley's
// threshold are taken, and take1 of the tie1 equal to the peak's; s0 and s1
// are the sums of the elements strictly beyond the thresholds, vlo and phi
// the sums of the q smallest and the q largest.
void radix_select(KernelWriter& w, const std::string& source) {
  const std::string loop = "for (int i = tid; i < nin; i += " + std::to_string(kContrastThreads) + ") {";
  w.line("int* hist = (int*)(red + 256);");
  w.line("float* shf = red + 512;");
  w.line("int* shi = (int*)(red + 520);");
  w.line("int* h0 = (int*)red;");
  w.line("unsigned p0 = 0u, p1 = 0u, mask = 0u;");
  w.line("int r0 = q, r1 = nin - q + 1;");
  w.line("for (int shift = 24; shift >= 0; shift -= 8) {");
  w.line("h0[tid] = 0; hist[tid] = 0;");
  w.sync();
  w.line(loop);
  element(w, source);
  w.line("unsigned d = (k >> shift) & 255u;");
  w.line("if ((k & mask) == p0) " + w.backend.atomic_add_wide("h0[d]", "1"));
  w.line("if ((k & mask) == p1) " + w.backend.atomic_add_wide("hist[d]", "1"));
  w.line("}");
  w.sync();
  w.line("if (tid < 2) {");
  w.line("int* h = tid == 0 ? h0 : hist;");
  w.line("int r = tid == 0 ? r0 : r1;");
  w.line("int c = 0, d = 0;");
  w.line("while (d < 255 && c + h[d] < r) { c += h[d]; ++d; }");
  w.line("shi[tid] = d; shi[2 + tid] = r - c; shi[4 + tid] = h[d];");
  w.line("}");
  w.sync();
  w.line("p0 |= (unsigned)shi[0] << shift; p1 |= (unsigned)shi[1] << shift;");
  w.line("r0 = shi[2]; r1 = shi[3];");
  w.line("mask |= 255u << shift;");
  w.line("}");
  w.line("int tie0 = shi[4] < 1 ? 1 : shi[4], tie1 = shi[5] < 1 ? 1 : shi[5];");
  w.line("int take1 = q - (nin - ((nin - q + 1 - r1) + tie1));");
  w.line("float s0 = 0.0f, s1 = 0.0f;");
  w.line(loop);
  element(w, source);
  w.line("if (k < p0) s0 += v;");
  w.line("if (k > p1) s1 += v;");
  w.line("}");
  block_sum(w, "s0", "shf[0]");
  block_sum(w, "s1", "shf[1]");
  w.line("float qf = (float)q;");
  w.line("float vlo = shf[0] + (float)r0 * ondrel_okey_value(p0);");
  w.line("float phi = shf[1] + (float)take1 * ondrel_okey_value(p1);");
}

}  // namespace

uint64_t contrast_sort_bytes(int compute, int64_t maxpad) {
  return static_cast<uint64_t>(maxpad) * real_bytes(compute);
}

uint64_t contrast_sort_adjoint_bytes(int compute, int64_t maxpad) {
  return static_cast<uint64_t>(maxpad) * (real_bytes(compute) + 4);
}

int64_t band_pad(int64_t width) {
  int64_t pad = 1;
  while (pad < width) pad <<= 1;
  return pad;
}

KernelParams contrast_params(const Backend& b, int compute, int storage) {
  const std::string s = b.real_type(storage), t = b.real_type(compute);
  return {KernelParam::input(s, "M"),         KernelParam::output(s, "out"),     KernelParam::input("int", "bt"),
          KernelParam::input("int", "bq"),    KernelParam::value("I64", "n"),    KernelParam::value("int", "nbands"),
          KernelParam::value(t, "amin"),      KernelParam::value("int", "linear")};
}

KernelParams contrast_adjoint_params(const Backend& b, int compute) {
  const std::string t = b.real_type(compute);
  return {KernelParam::input(t, "M"),       KernelParam::input(t, "gy"),         KernelParam::output(t, "gM"),
          KernelParam::input("int", "bt"),  KernelParam::input("int", "bq"),     KernelParam::value("I64", "n"),
          KernelParam::value("int", "nbands"), KernelParam::value(t, "amin"),    KernelParam::value("int", "linear")};
}

std::string contrast_kernel(int compute, int storage, const Backend& b) {
  std::string text = opening("ondrel_contrast", contrast_params(b, compute, storage), compute, storage, false, b);
  KernelWriter w(compute, b);
  band_ids(w);
  pad_of_band(w);
  w.emit("for (int i = tid; i < pad; i += $) vals[i] = i < nin ? (T)M[base + lo + i] : $;", kContrastThreads,
         big(compute));
  w.sync();
  bitonic(w, "T", std::to_string(kContrastThreads), false);
  w.line("if (tid == 0) {");
  sorted_means(w, "T");
  contrast_value(w, compute, "T", "linear");
  w.emit("out[(I64)$ * nbands + band] = $;", b.block_x(), b.convert(storage, "r"));
  w.line("}");
  return text + w.text() + "}\n";
}

std::string contrast_histogram_kernel(int compute, int storage, const Backend& b) {
  std::string text = opening("ondrel_contrastg", contrast_params(b, compute, storage), compute, storage, true, b);
  KernelWriter w(compute, b);
  band_ids(w);
  radix_select(w, "M");
  w.line("if (tid == 0) {");
  w.line("T vv = (T)(vlo / qf), pv = (T)(phi / qf);");
  contrast_value(w, compute, "T", "linear");
  w.emit("out[(I64)$ * nbands + band] = $;", b.block_x(), b.convert(storage, "r"));
  w.line("}");
  return text + w.text() + "}\n";
}

std::string contrast_adjoint_kernel(int compute, const Backend& b) {
  std::string text = opening("ondrel_contrast_adj", contrast_adjoint_params(b, compute), compute, compute, false, b);
  KernelWriter w(compute, b);
  band_ids(w);
  pad_of_band(w);
  w.line("int* idx = (int*)(vals + pad);");
  w.emit("for (int i = tid; i < pad; i += $) { vals[i] = i < nin ? M[base + lo + i] : $; idx[i] = i; }",
         kContrastThreads, big(compute));
  w.sync();
  bitonic(w, "T", std::to_string(kContrastThreads), true);
  w.line("if (tid == 0) {");
  sorted_means(w, "T");
  w.emit("T g = gy[(I64)$ * nbands + band];", b.block_x());
  mean_gradients(w, "T");
  w.line("for (int i = 0; i < q; ++i) gM[base + lo + idx[i]] += gv / (T)q;");
  w.line("for (int i = nin - q; i < nin; ++i) gM[base + lo + idx[i]] += gp / (T)q;");
  w.line("}");
  return text + w.text() + "}\n";
}

std::string contrast_histogram_adjoint_kernel(int compute, const Backend& b) {
  std::string text = opening("ondrel_contrastg_adj", contrast_adjoint_params(b, compute), compute, compute, true, b);
  KernelWriter w(compute, b);
  band_ids(w);
  w.emit("float g = (float)gy[(I64)$ * nbands + band];", b.block_x());
  radix_select(w, "M");
  w.line("float vv = vlo / qf, pv = phi / qf;");
  mean_gradients(w, "float");
  // The elements equal to a threshold share the slots taken from them
  // equally, whichever of them a sort would pick; a constant band is all
  // ties at both ends.
  w.line("float rw0 = (float)r0 * gv / (qf * (float)tie0);");
  w.line("float rw1 = (float)take1 * gp / (qf * (float)tie1);");
  w.emit("for (int i = tid; i < nin; i += $) {", kContrastThreads);
  element(w, "M");
  w.line("float acc = 0.0f;");
  w.line("if (k < p0) acc += gv / qf; else if (k == p0) acc += rw0;");
  w.line("if (k > p1) acc += gp / qf; else if (k == p1) acc += rw1;");
  w.line("if (acc != 0.0f) gM[base + lo + i] += (T)acc;");
  w.line("}");
  return text + w.text() + "}\n";
}

FeatureHook contrast_epilogue(int32_t nbands) {
  return [nbands](KernelWriter& w, const StftPlan& p, const std::string& buffer) {
    const Backend& b = w.backend;
    const std::string t = b.real_type(p.prec);
    // A scope of its own: the cores leave registers in the kernel's.
    w.line("{");
    fused_magnitudes(w, p, buffer, "NB + " + std::to_string(p.feature_extra));
    w.emit("TG $* vals = mag + NB;", t);
    w.emit("for (int band = 0; band < $; ++band) {", nbands);
    w.line("int lo = bt[band], nin = bt[band + 1] - lo, q = bq[band];");
    pad_of_band(w);
    w.emit("for (int i = tid; i < pad; i += TPF) vals[i] = i < nin ? mag[lo + i] : $;", big(p.prec));
    w.sync();
    // Frame slots past NFRAMES sort their garbage too: the barriers are the
    // block's.
    bitonic(w, t, "TPF", false);
    w.line("if (frame < NFRAMES && tid == 0) {");
    sorted_means(w, t);
    contrast_value(w, p.prec, t, "roll != (" + t + ")0");
    w.emit("I64 oi = ((I64)batch * NFRAMES + frame) * $ + band;", nbands);
    w.line("out[oi] = " + b.convert(p.out_prec, "r") + ";");
    w.line("}");
    w.sync();
    w.line("}");
    w.line("}");
  };
}

}  // namespace ondrel::codegen
