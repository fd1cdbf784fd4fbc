#include "codegen/stft_staged_kernels.hpp"

#include "codegen/fft_stages.hpp"
#include "codegen/kernel_writer.hpp"
#include "codegen/macros.hpp"
#include "codegen/prelude.hpp"
#include "codegen/stft_kernels.hpp"

namespace ondrel::codegen {

namespace {

std::string out_type(const StagedStft& s, const Backend& backend) {
  return s.mode == 0 ? backend.pair_type(s.out_prec) : backend.real_type(s.out_prec);
}

// The text above an element-wise output kernel: 256 threads, and EPS for
// the decibel form.
std::string output_head(const StagedStft& s, const Backend& backend, const std::string& name,
                        const KernelParams& params) {
  std::string text = backend.preamble(s.prec) + complex_prelude(backend, s.prec) + define("TPF", "256");
  if (s.mode == 3) text += eps_define(s.eps);
  return text + KernelSig(name, backend, params).head();
}

}  // namespace

KernelParams frames_params(const StagedStft& s, const Backend& backend) {
  const std::string t = backend.real_type(s.prec);
  return {KernelParam::input(backend.real_type(s.in_prec), "y"), KernelParam::output(t, "frames"),
          KernelParam::input(t, "win"), KernelParam::value("int", "NFRAMES"), KernelParam::value("int", "SIG_LEN")};
}

std::string frames_kernel(const StagedStft& s, const Backend& backend) {
  const std::string t = backend.real_type(s.prec);
  const std::string cast = s.in_prec == s.prec ? "" : "(" + t + ")";
  std::string text = backend.preamble(s.prec) + types_prelude(backend) + define("TPF", "256") + refl_defines(s.pad) +
                     KernelSig("ondrel_frames", backend, frames_params(s, backend)).head();
  KernelWriter w(s.prec, backend);
  w.emit("int tid = $;", backend.thread_x());
  w.emit("int t = $;", backend.block_x());
  w.emit("I64 batch = $;", backend.block_y());
  w.emit("const DEV $* yb = y + batch * SIG_LEN;", backend.real_type(s.in_prec));
  w.emit("DEV $* fb = frames + (batch * NFRAMES + t) * $;", t, s.n);
  w.for_range("i", "tid", s.n, "TPF", [&] { w.emit("fb[$] = win[$] * $yb[refl(t * $ + $)];", "i", "i", cast, s.hop, "i"); });
  return text + w.text() + "}\n";
}

KernelParams split_params(const StagedStft& s, const Backend& backend) {
  return {KernelParam::input("cplx", "z"), KernelParam::output(out_type(s, backend), "out"),
          KernelParam::input("cplx", "split"), KernelParam::value("int", "nrows")};
}

std::string split_kernel(const StagedStft& s, const Backend& backend) {
  const int32_t m = s.n / 2;
  const std::string t = backend.real_type(s.prec);
  const std::string text = output_head(s, backend, "ondrel_rsplit", split_params(s, backend));
  KernelWriter w(s.prec, backend);
  add_fft_tables(w, s.prec, s.n, "split", {});
  w.emit("int $ = $ * TPF + $;", "k", backend.block_x(), backend.thread_x());
  w.emit("if ($ > $) return;", "k", m);
  w.emit("I64 row = $;", backend.block_y());
  w.emit("const DEV cplx* zb = z + row * $;", m);
  w.emit("DEV $* ob = out + row * $;", out_type(s, backend), m + 1);
  w.emit("cplx zk = zb[k < $ ? k : 0];", m);
  w.emit("cplx zn = zb[k == 0 ? 0 : $ - (k < $ ? k : $)];", m, m, m);
  w.emit("$ er = ($)0.5 * (zk.x + zn.x), ei = ($)0.5 * (zk.y - zn.y);", t, t, t);
  w.emit("$ or_ = ($)0.5 * (zk.x - zn.x), oi = ($)0.5 * (zk.y + zn.y);", t, t, t);
  const std::string wk = w.twiddle("k", s.n, false, false);
  w.emit("$ tr = $.x * or_ - $.y * oi;", t, wk, wk);
  w.emit("$ ti = $.x * oi + $.y * or_;", t, wk, wk);
  w.line(store_text(backend, s.mode, s.out_prec, t, "ob[k]", "er + ti", "ei - tr"));
  return text + w.text() + "}\n";
}

KernelParams mode_params(const StagedStft& s, const Backend& backend) {
  return {KernelParam::input("cplx", "z"), KernelParam::output(out_type(s, backend), "out"),
          KernelParam::value("int", "nrows")};
}

std::string mode_kernel(const StagedStft& s, const Backend& backend) {
  const int32_t nb = s.n / 2 + 1;
  const std::string text = output_head(s, backend, "ondrel_smode", mode_params(s, backend));
  KernelWriter w(s.prec, backend);
  w.emit("int $ = $ * TPF + $;", "k", backend.block_x(), backend.thread_x());
  w.emit("if ($ >= $) return;", "k", nb);
  w.emit("I64 row = $;", backend.block_y());
  w.emit("cplx zk = z[row * $ + k];", nb);
  w.line(store_text(backend, s.mode, s.out_prec, backend.real_type(s.prec), format("out[row * $ + k]", {nb}), "zk.x",
                    "zk.y"));
  return text + w.text() + "}\n";
}

}  // namespace ondrel::codegen
