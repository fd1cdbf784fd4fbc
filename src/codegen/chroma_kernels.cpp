#include "codegen/chroma_kernels.hpp"

#include "codegen/body_heads.hpp"
#include "codegen/kernel_writer.hpp"
#include "codegen/macros.hpp"
#include "codegen/prelude.hpp"

namespace ondrel::codegen {

namespace {

std::string head(const char* name, const KernelParams& params, int prec, int out_prec, int n_chroma,
                 const Backend& b) {
  KernelSig sig(name, b, params);
  sig.bound_threads = 256;
  return b.preamble(out_prec == 0 ? 0 : prec) + types_prelude(b) + real_typedefs(b, prec, out_prec) +
         define("NCHROMA", std::to_string(n_chroma)) + sig.head();
}

// acc[c], the sum of class c's magnitudes at frame t of this batch row, and
// peak, the largest of them but at least 1e-30.
void fold(KernelWriter& w) {
  flat_ids(w, "t", "nf", "batch", "");
  w.line("T acc[NCHROMA];");
  w.line("for (int c = 0; c < NCHROMA; ++c) acc[c] = (T)0;");
  w.line("for (int i = 0; i < n_bins; ++i) acc[cls[i]] += mag[((I64)batch * n_bins + i) * nf + t];");
  w.line("T peak = (T)1e-30;");
  w.line("for (int c = 0; c < NCHROMA; ++c) if (acc[c] > peak) peak = acc[c];");
}

}  // namespace

KernelParams chroma_params() {
  return {KernelParam::input("T", "mag"), KernelParam::output("S", "out"), KernelParam::input("int", "cls"),
          KernelParam::value("int", "n_bins"), KernelParam::value("I64", "nf")};
}

std::string chroma_key(int prec, int n_chroma, int out_prec) {
  return "chroma_" + std::to_string(prec) + "_" + std::to_string(n_chroma) + "_" + std::to_string(out_prec);
}

std::string chroma_kernel(int prec, int n_chroma, int out_prec, const Backend& b) {
  std::string text = head("ondrel_chroma", chroma_params(), prec, out_prec, n_chroma, b);
  KernelWriter w(prec, b);
  fold(w);
  w.emit("for (int c = 0; c < NCHROMA; ++c) out[((I64)batch * NCHROMA + c) * nf + t] = $;",
         b.convert(out_prec, "acc[c] / peak"));
  return text + w.text() + "}\n";
}

KernelParams chradj_params() {
  return {KernelParam::input("T", "mag"), KernelParam::output("T", "gmag"), KernelParam::input("T", "g"),
          KernelParam::input("int", "cls"), KernelParam::value("int", "n_bins"), KernelParam::value("I64", "nf")};
}

std::string chradj_key(int prec, int n_chroma) {
  return "chradj_" + std::to_string(prec) + "_" + std::to_string(n_chroma);
}

std::string chradj_kernel(int prec, int n_chroma, const Backend& b) {
  std::string text = head("ondrel_chradj", chradj_params(), prec, prec, n_chroma, b);
  KernelWriter w(prec, b);
  fold(w);
  // The peak is held: no gradient flows through the normalisation.
  w.line("for (int i = 0; i < n_bins; ++i)");
  w.line("  gmag[((I64)batch * n_bins + i) * nf + t] = g[((I64)batch * NCHROMA + cls[i]) * nf + t] / peak;");
  return text + w.text() + "}\n";
}

}  // namespace ondrel::codegen
