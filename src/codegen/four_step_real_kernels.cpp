#include "codegen/four_step_real_kernels.hpp"

#include "codegen/fft_stages.hpp"
#include "codegen/kernel_sig.hpp"
#include "codegen/kernel_writer.hpp"
#include "codegen/macros.hpp"
#include "codegen/prelude.hpp"
#include "codegen/rader_stage.hpp"

namespace ondrel::codegen {

namespace {

// The head of a split or pack kernel; the pass-2 form declares a shared tile.
std::string head(const Backend& backend, const std::string& name, bool pack, int threads, bool shared) {
  KernelSig sig(name, backend, real_split_params(pack));
  sig.bound_threads = threads;
  if (shared) sig.set_shared("cplx", "shbuf");
  return sig.head();
}

// The even/odd split of bins k and nh - k of the spectrum of the packed row:
// zk and zn are Z[k] and Z[nh - k]; writes the real row's bins k and, when
// `both`, nh - k.
void split_pair(KernelWriter& w, int32_t n, int data, const std::string& k_text, bool both) {
  const std::string real = w.backend.real_type(w.prec);
  w.emit("$ er = ($)0.5 * (zk.x + zn.x), ei = ($)0.5 * (zk.y - zn.y);", real, real, real);
  w.emit("$ or_ = ($)0.5 * (zk.x - zn.x), oi = ($)0.5 * (zk.y + zn.y);", real, real, real);
  const std::string wk = w.twiddle(k_text, n, false, false);
  w.emit("$ tr = $.x * or_ - $.y * oi;", real, wk, wk);
  w.emit("$ ti = $.x * oi + $.y * or_;", real, wk, wk);
  w.emit("ob[$] = $;", k_text, w.backend.make_pair(data, "er + ti", "ei - tr"));
  if (!both) return;
  w.emit("int km = $ - $;", n / 2, k_text);
  const std::string wm = w.twiddle("km", n, false, false);
  w.emit("$ t2r = $.x * or_ + $.y * oi;", real, wm, wm);
  w.emit("$ t2i = $.y * or_ - $.x * oi;", real, wm, wm);
  w.emit("ob[km] = $;", w.backend.make_pair(data, "er - t2i", "t2r - ei"));
}

}  // namespace

KernelParams real_split_params(bool pack) {
  if (pack)
    return {KernelParam::input("iot", "x"), KernelParam::output("cplx", "z"), KernelParam::input("cplx", "tw"),
            KernelParam::value("int", "nrows")};
  return {KernelParam::input("cplx", "x"), KernelParam::output("iot", "out"), KernelParam::input("cplx", "tw"),
          KernelParam::value("int", "nrows")};
}

std::string real_pass2_kernel(const RealSplitPass& p, const Backend& backend) {
  const int32_t nh = p.n / 2, c2 = 2 * p.columns;
  std::string text = fft_prelude(backend, p.compute_prec, p.data_prec) + define("TPF", std::to_string(p.threads)) +
                     rsp_define_tiles() + head(backend, "ondrel_rfft2", false, p.threads, true);
  KernelWriter w(p.compute_prec, backend);
  add_fft_tables(w, p.compute_prec, p.n, "tw", {});
  w.emit("int tid = $;", backend.thread_x());
  w.emit("int u0 = $ * $;", backend.block_x(), p.columns);
  w.emit("I64 row = $;", backend.block_y());
  w.line("TG cplx* scb = shbuf;");
  w.emit("const DEV cplx* xb = x + row * $;", nh);
  w.emit("DEV iot* ob = out + row * $;", nh + 1);
  // The first `columns` columns of the tile are u0 + r, the next their mirrors.
  w.for_range("i", "tid", c2 * p.n1, "TPF", [&] {
    w.emit("int r = $ % $; int p = $ / $;", "i", c2, "i", c2);
    w.emit("int c = r < $ ? u0 + r : ($ - (u0 + r - $)) % $;", p.columns, p.n2, p.columns, p.n2);
    w.emit("scb[RSP($)] = xb[(I64)p * $ + c];", "i", p.n2);
  });
  w.sync();
  batched_stages(w, "scb", c2, p.n1, p.threads);
  w.for_range("i", "tid", p.columns * p.n1, "TPF", [&] {
    w.emit("int k1 = $ / $; int t = $ % $;", "i", p.columns, "i", p.columns);
    w.line("int c = u0 + t;");
    w.emit("int kp = c == 0 ? ($ - k1) % $ : $ - 1 - k1;", p.n1, p.n1, p.n1);
    w.emit("cplx zk = scb[RSP(k1 * $ + t)];", c2);
    w.emit("cplx zn = scb[RSP(kp * $ + $ + t)];", c2, p.columns);
    w.emit("int k = k1 * $ + c;", p.n2);
    split_pair(w, p.n, p.data_prec, "k", true);
  });
  return text + w.text() + "}\n";
}

std::string real_split_kernel(int32_t n, int compute_prec, int data_prec, const Backend& backend) {
  const int32_t nh = n / 2;
  std::string text = fft_prelude(backend, compute_prec, data_prec) + head(backend, "ondrel_rsplit", false, 0, false);
  KernelWriter w(compute_prec, backend);
  add_fft_tables(w, compute_prec, n, "tw", {});
  w.emit("int k = $ * 256 + $;", backend.block_x(), backend.thread_x());
  w.emit("if (k > $) return;", nh);
  w.emit("I64 row = $;", backend.block_y());
  w.emit("const DEV cplx* zb = x + row * $;", nh);
  w.emit("DEV iot* ob = out + row * $;", nh + 1);
  w.emit("cplx zk = zb[k < $ ? k : 0];", nh);
  w.emit("cplx zn = zb[k == 0 ? 0 : $ - (k < $ ? k : $)];", nh, nh, nh);
  split_pair(w, n, data_prec, "k", false);
  return text + w.text() + "}\n";
}

std::string real_pack_kernel(int32_t n, int compute_prec, int data_prec, const Backend& backend) {
  const int32_t nh = n / 2;
  const std::string real = backend.real_type(compute_prec);
  std::string text = fft_prelude(backend, compute_prec, data_prec) + head(backend, "ondrel_rpack", true, 0, false);
  KernelWriter w(compute_prec, backend);
  add_fft_tables(w, compute_prec, n, "tw", {});
  w.emit("int k = $ * 256 + $;", backend.block_x(), backend.thread_x());
  w.emit("if (k >= $) return;", nh);
  w.emit("I64 row = $;", backend.block_y());
  w.emit("const DEV iot* xb = x + row * $;", nh + 1);
  w.emit("DEV cplx* zb = z + row * $;", nh);
  w.emit("cplx xk; { iot v = xb[k]; xk = cmk(($)v.x, ($)v.y); }", real, real);
  w.emit("cplx xn; { iot v = xb[$ - k]; xn = cmk(($)v.x, ($)v.y); }", nh, real, real);
  // Bins 0 and nh of a real row are real: whatever imaginary parts the
  // caller left there are no part of the spectrum, as in every other irfft.
  w.emit("if (k == 0) { xk.y = ($)0; xn.y = ($)0; }", real, real);
  w.emit("$ er = ($)0.5 * (xk.x + xn.x), ei = ($)0.5 * (xk.y - xn.y);", real, real, real);
  w.emit("$ or_ = ($)0.5 * (xk.x - xn.x), oi = ($)0.5 * (xk.y + xn.y);", real, real, real);
  // Undoing the forward split rotates the odd part back: the conjugate root.
  const std::string wk = w.twiddle("k", n, false, true);
  w.emit("$ tr = $.x * or_ - $.y * oi;", real, wk, wk);
  w.emit("$ ti = $.x * oi + $.y * or_;", real, wk, wk);
  w.line("zb[k] = cmk(er - ti, ei + tr);");
  return text + w.text() + "}\n";
}

}  // namespace ondrel::codegen
