#include "codegen/cqt_kernels.hpp"

#include <cstdio>
#include <cstring>
#include <stdexcept>

#include "codegen/body_heads.hpp"
#include "codegen/kernel_writer.hpp"
#include "codegen/macros.hpp"
#include "codegen/prelude.hpp"
#include "codegen/stft_body.hpp"

namespace ondrel::codegen {

namespace {

constexpr int kThreads = 256;

std::string digit(int prec) { return std::to_string(prec); }

// The output element: the compute pair itself, or the pair of another width.
std::string out_type(const CqtForm& f, const Backend& b) {
  if (f.mode != 0) return b.real_type(f.out_prec);
  return f.out_prec == f.prec ? "cplx" : b.pair_type(f.out_prec);
}

std::string complex_head(int prec, const Backend& b) {
  return b.preamble(prec) + complex_prelude(b, prec) + real_typedefs(b, prec, prec);
}

KernelSig flat_sig(const std::string& name, const KernelParams& params, const Backend& b) {
  KernelSig sig(name, b, params);
  sig.bound_threads = kThreads;
  return sig;
}

// re, im = the basis row k (br, bi at `wr`, `wi`) times the spectrum `sf`
// over the row's band: the plain product, not the conjugate.
void band_sum(KernelWriter& w, const std::string& sf) {
  w.line("T re = (T)0, im = (T)0;");
  w.line("int lo = blo[k], hi = bhi[k];");
  w.emit("for (int i = lo; i <= hi; ++i) { cplx s = $[i]; re += wr[i] * s.x - wi[i] * s.y; "
         "im += wr[i] * s.y + wi[i] * s.x; }",
         sf);
}

// out[idx] in the form of the mode.
void band_store(KernelWriter& w, const CqtForm& f) {
  const Backend& b = w.backend;
  const bool dbl = f.prec == 2;
  if (f.mode == 0) {
    w.emit("out[idx] = $;", b.make_pair(f.out_prec, "re", "im"));
    return;
  }
  w.line("T p = re * re + im * im;");
  std::string value = "p";
  if (f.mode == 1) value = dbl ? "sqrt(p)" : "sqrtf(p)";
  if (f.mode == 3) value = dbl ? "10.0 * log10(p + eps)" : "10.0f * log10f(p + eps)";
  w.emit("out[idx] = $;", b.convert(f.out_prec, value));
}

// A value parameter's type as the launch names it: float or double.
std::string value_real(int prec) { return prec == 2 ? "double" : "float"; }

KernelParams band_params(int prec) {
  return {KernelParam::input("T", "br"),          KernelParam::input("T", "bi"),
          KernelParam::value("I64", "nfl"),       KernelParam::value("int", "nb"),
          KernelParam::value("int", "rows"),      KernelParam::value("I64", "nf"),
          KernelParam::value("int", "n_bins"),    KernelParam::value("int", "row_lo"),
          KernelParam::value(value_real(prec), "eps"), KernelParam::input("int", "blo"),
          KernelParam::input("int", "bhi")};
}

std::string mode_stem(const CqtForm& f) { return std::to_string(f.mode) + "_" + digit(f.prec); }

}  // namespace

std::string cqt_eps_suffix(int mode, double eps) {
  if (mode != 3) return "";
  uint64_t bits;
  std::memcpy(&bits, &eps, sizeof bits);
  char hex[20];
  std::snprintf(hex, sizeof hex, "_e%016llx", static_cast<unsigned long long>(bits));
  return hex;
}

KernelParams hbdec_params(int, int) {
  return {KernelParam::input("S", "x"), KernelParam::output("T", "out"), KernelParam::input("T", "taps"),
          KernelParam::value("I64", "n"), KernelParam::value("I64", "on")};
}

std::string hbdec_key(int compute, int storage) { return "cqt_hbdec_" + digit(compute) + "_" + digit(storage); }

std::string hbdec_kernel(int compute, int storage, const Backend& b) {
  std::string text = b.preamble(storage == 0 ? 0 : compute) + types_prelude(b) + real_typedefs(b, compute, storage) +
                     flat_sig("ondrel_hbdec", hbdec_params(compute, storage), b).head();
  KernelWriter w(compute, b);
  flat_ids(w, "j", "on", "row", "");
  w.line("const DEV S* xb = x + row * n;");
  // The centre is always inside: on is (n + 1) / 2, so 2 j < n.
  w.line("T acc = taps[32] * (T)xb[2 * j];");
  w.line("for (int t = 1; t < 65; t += 2) {");
  w.line("I64 i = 2 * j + t - 32;");
  w.line("if (i >= 0 && i < n) acc += taps[t] * (T)xb[i];");
  w.line("}");
  w.line("out[row * on + j] = acc;");
  return text + w.text() + "}\n";
}

KernelParams cqtpad_params(int, int) {
  return {KernelParam::input("S", "x"), KernelParam::output("T", "out"), KernelParam::value("I64", "n"),
          KernelParam::value("I64", "plen"), KernelParam::value("int", "pad")};
}

std::string cqtpad_key(int compute, int in_prec) { return "cqt_pad_" + digit(compute) + "_" + digit(in_prec); }

std::string cqtpad_kernel(int compute, int in_prec, const Backend& b) {
  std::string text = b.preamble(in_prec == 0 ? 0 : compute) + types_prelude(b) + real_typedefs(b, compute, in_prec) +
                     flat_sig("ondrel_cqtpad", cqtpad_params(compute, in_prec), b).head();
  KernelWriter w(compute, b);
  flat_ids(w, "j", "n", "row", "");
  w.line("out[row * plen + pad + j] = (T)x[row * n + j];");
  return text + w.text() + "}\n";
}

KernelParams cqtred_params(const CqtForm& f, const Backend& b) {
  KernelParams params{KernelParam::input("cplx", "S"), KernelParam::output(out_type(f, b), "out")};
  for (const KernelParam& p : band_params(f.prec)) params.push_back(p);
  return params;
}

std::string cqtred_key(const CqtForm& f) {
  return "cqt_red_" + mode_stem(f) + "_" + digit(f.out_prec) + cqt_eps_suffix(f.mode, f.eps);
}

std::string cqtred_kernel(const CqtForm& f, const Backend& b) {
  std::string text = complex_head(f.prec, b) + flat_sig("ondrel_cqtred", cqtred_params(f, b), b).head();
  KernelWriter w(f.prec, b);
  flat_ids(w, "g", "(I64)rows * nf", "batch", "I64 k = g / nf, t = g % nf;");
  w.line("const DEV cplx* Sf = S + (batch * nfl + t) * nb;");
  w.line("const DEV T* wr = br + k * nb;");
  w.line("const DEV T* wi = bi + k * nb;");
  band_sum(w, "Sf");
  w.line("I64 idx = ((I64)batch * n_bins + row_lo + k) * nf + t;");
  band_store(w, f);
  return text + w.text() + "}\n";
}

uint64_t cqtf_shared_bytes(const StftPlan& p) {
  const uint64_t csize = p.prec == 2 ? 16 : p.prec == 0 ? 4 : 8;
  return static_cast<uint64_t>((row_length(p) + p.bins()) * p.fpb + shared_twiddles(p)) * csize;
}

KernelParams cqtf_params(const CqtForm& f, const Backend& b) {
  return {KernelParam::input("T", "y"),        KernelParam::output(out_type(f, b), "out"),
          KernelParam::input("cplx", "tw"),    KernelParam::input("T", "br"),
          KernelParam::input("T", "bi"),       KernelParam::input("int", "blo"),
          KernelParam::input("int", "bhi"),    KernelParam::value("int", "NFRAMES"),
          KernelParam::value("int", "SIG_LEN"), KernelParam::value("int", "rows"),
          KernelParam::value("int", "n_bins"), KernelParam::value("int", "row_lo"),
          KernelParam::value("I64", "nf"),     KernelParam::value(value_real(f.prec), "eps")};
}

std::string cqtf_key(const StftPlan& p, const CqtForm& f, int device) {
  return "raw_cqtf_" + std::to_string(p.n) + "_" + std::to_string(p.hop) + "_" + digit(f.prec) + "_" +
         std::to_string(f.mode) + "_" + digit(f.out_prec) + "_" + std::to_string(p.fpb) + "_" + std::to_string(p.ept) +
         "_" + std::to_string(p.tpf) + "_" + std::to_string(p.core) + "_d" + std::to_string(device) +
         cqt_eps_suffix(f.mode, f.eps);
}

std::string cqtf_text(const StftPlan& p, const CqtForm& f, const Backend& b) {
  if (p.core != kCoreCt && p.core != kCoreWarp && p.core != kCoreEpt16)
    throw std::invalid_argument("cqt: the fused kernel runs on the CT, warp and EPT16 cores only");
  std::string text = packed_comment(p) + spectral_prelude(b, p.prec, p.n, 0) + real_typedefs(b, p.prec, p.prec);
  text += define("NB", std::to_string(p.bins())) + define("F", std::to_string(p.fpb)) +
          define("TPF", std::to_string(p.tpf)) + define("TWN", std::to_string(shared_twiddles(p)));
  KernelSig sig("ondrel_cqtf", b, cqtf_params(f, b));
  sig.bound_threads = p.tpf * p.fpb;
  sig.set_shared("cplx", "sh_all");
  text += shp_define_spectral(p.shp_shift) + sig.head();

  KernelWriter w(p.prec, b);
  // The layout cqtf_shared_bytes measures: twiddles, F FFT rows, F spectra.
  w.emit("TG cplx* spec_all = sh_all + TWN + (long)F * $;", row_length(p));
  frame_ids_packed(w);
  w.emit("TG cplx* sh = sh_all + TWN + (long)f_local * $;", row_length(p));
  w.line("TG cplx* specb = spec_all + (long)f_local * NB;");
  packed_load_fft(w, p);
  unpack_bins(w, p, "sh", [](const std::string& re, const std::string& im) {
    return "specb[k] = cmk(" + re + ", " + im + ");";
  });
  w.emit("if (tid == 0) specb[$] = cmk($, (T)0);", p.m(), nyquist_value(p, b, "sh"));
  // Every thread of the block reaches it: frames past the end ran the FFT on zeros.
  w.sync();
  w.if_block("frame < NFRAMES", [&] {
    w.for_range("k", "tid", "rows", "TPF", [&] {
      w.line("const DEV T* wr = br + (I64)k * NB;");
      w.line("const DEV T* wi = bi + (I64)k * NB;");
      band_sum(w, "specb");
      w.line("I64 idx = ((I64)batch * n_bins + row_lo + k) * nf + frame;");
      band_store(w, f);
    });
  });
  return text + w.text() + "}\n";
}

KernelParams cqtgc_params(const CqtForm& f) {
  KernelParams params{KernelParam::input("cplx", "S"), KernelParam::output("cplx", "gc"),
                      KernelParam::input(f.mode == 0 ? "cplx" : "T", "g")};
  for (const KernelParam& p : band_params(f.prec)) params.push_back(p);
  return params;
}

std::string cqtgc_key(const CqtForm& f) { return "cqt_gc_" + mode_stem(f) + cqt_eps_suffix(f.mode, f.eps); }

std::string cqtgc_kernel(const CqtForm& f, const Backend& b) {
  std::string text = complex_head(f.prec, b) + flat_sig("ondrel_cqtgc", cqtgc_params(f), b).head();
  KernelWriter w(f.prec, b);
  flat_ids(w, "q", "(I64)rows * nf", "batch", "I64 k = q / nf, t = q % nf;");
  w.line("I64 gi = ((I64)batch * n_bins + row_lo + k) * nf + t;");
  w.line("I64 ci = ((I64)batch * rows + k) * nf + t;");
  if (f.mode == 0) {
    w.line("gc[ci] = g[gi];");
    return text + w.text() + "}\n";
  }
  w.line("T gv = g[gi], s = (T)0;");
  w.line("const DEV cplx* Sf = S + (batch * nfl + t) * nb;");
  w.line("const DEV T* wr = br + k * nb;");
  w.line("const DEV T* wi = bi + k * nb;");
  band_sum(w, "Sf");
  w.line("T p = re * re + im * im;");
  // A zero magnitude has a zero gradient, not a division by zero.
  if (f.mode == 1) w.emit("T y = $; if (y > (T)0) s = gv / y;", f.prec == 2 ? "sqrt(p)" : "sqrtf(p)");
  if (f.mode == 2) w.line("s = (T)2 * gv;");
  if (f.mode == 3) w.line("s = gv * (T)8.685889638065036 / (p + eps);");
  w.line("gc[ci] = cmk(s * re, s * im);");
  return text + w.text() + "}\n";
}

KernelParams cqtradj_params() {
  return {KernelParam::input("cplx", "gc"),  KernelParam::output("cplx", "gS"), KernelParam::input("T", "br"),
          KernelParam::input("T", "bi"),     KernelParam::value("I64", "nfl"),  KernelParam::value("I64", "nf"),
          KernelParam::value("int", "nb"),   KernelParam::value("int", "rows"), KernelParam::input("int", "klo"),
          KernelParam::input("int", "khi")};
}

std::string cqtradj_key(int prec) { return "cqt_radj_" + digit(prec); }

std::string cqtradj_kernel(int prec, const Backend& b) {
  std::string text = complex_head(prec, b) + flat_sig("ondrel_cqtradj", cqtradj_params(), b).head();
  KernelWriter w(prec, b);
  flat_ids(w, "q", "nf * nb", "batch", "I64 t = q / nb; int i = (int)(q % nb);");
  w.line("T ar = (T)0, ai = (T)0;");
  // The conjugate transpose of the basis, over the rows that touch column i.
  w.line("for (int k = klo[i]; k <= khi[i]; ++k) {");
  w.line("T wr = br[(I64)k * nb + i], wi = bi[(I64)k * nb + i];");
  w.line("cplx c = gc[((I64)batch * rows + k) * nf + t];");
  w.line("ar += wr * c.x + wi * c.y; ai += wr * c.y - wi * c.x;");
  w.line("}");
  w.line("gS[(batch * nfl + t) * nb + i] = cmk(ar, ai);");
  return text + w.text() + "}\n";
}

KernelParams hbadj_params() {
  return {KernelParam::input("T", "gout"), KernelParam::output("T", "gin"), KernelParam::input("T", "taps"),
          KernelParam::value("I64", "n"), KernelParam::value("I64", "on")};
}

std::string hbadj_key(int prec) { return "cqt_hbadj_" + digit(prec); }

std::string hbadj_kernel(int prec, const Backend& b) {
  std::string text = b.preamble(prec) + types_prelude(b) + real_typedefs(b, prec, prec) +
                     flat_sig("ondrel_hbadj", hbadj_params(), b).head();
  KernelWriter w(prec, b);
  flat_ids(w, "i", "n", "row", "");
  // A gather over the outputs each input sample fed: no atomics.
  w.line("const DEV T* gb = gout + row * on;");
  w.line("T acc = (T)0;");
  w.line("if ((i & 1) == 0 && (i >> 1) < on) acc = taps[32] * gb[i >> 1];");
  w.line("for (int t = 1; t < 65; t += 2) {");
  w.line("I64 num = i + 32 - t;");
  w.line("if (num >= 0 && (num & 1) == 0 && (num >> 1) < on) acc += taps[t] * gb[num >> 1];");
  w.line("}");
  w.line("gin[row * n + i] = acc;");
  return text + w.text() + "}\n";
}

KernelParams cqtaddsl_params() {
  return {KernelParam::input("T", "gx"), KernelParam::output("T", "glev"), KernelParam::value("I64", "plen"),
          KernelParam::value("int", "pad"), KernelParam::value("I64", "n")};
}

std::string cqtaddsl_key(int prec) { return "cqt_addsl_" + digit(prec); }

std::string cqtaddsl_kernel(int prec, const Backend& b) {
  std::string text = b.preamble(prec) + types_prelude(b) + real_typedefs(b, prec, prec) +
                     flat_sig("ondrel_cqtaddsl", cqtaddsl_params(), b).head();
  KernelWriter w(prec, b);
  flat_ids(w, "j", "n", "row", "");
  // Only the centre: the padding was zeros, not signal.
  w.line("glev[row * n + j] += gx[row * plen + pad + j];");
  return text + w.text() + "}\n";
}

}  // namespace ondrel::codegen
