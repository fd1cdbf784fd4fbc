#include "codegen/real_kernel.hpp"

#include <cmath>

#include "codegen/body_heads.hpp"
#include "codegen/fft_kernel.hpp"
#include "codegen/fft_stages.hpp"
#include "codegen/kernel_sig.hpp"
#include "codegen/macros.hpp"
#include "codegen/prelude.hpp"
#include "math/fft_schedule.hpp"

namespace ondrel::codegen {

namespace {

constexpr double kTwoPi = 6.283185307179586;

// Everything above the body of the shared forms, the opening brace included.
std::string head(const Backend& backend, int compute, int io, int32_t m, int32_t tpf, int32_t fpb, bool inverse,
                 bool pad) {
  std::string text = fft_prelude(backend, compute, io);
  text += define("TPF", std::to_string(tpf));
  // The packing turns the n-point inverse into one of M points: the scale
  // is that of M.
  if (inverse) text += invsc_define(backend, compute, m);
  text += shp_define(pad);
  KernelSig sig(inverse ? "ondrel_irfft" : "ondrel_rfft", backend,
                real_params(inverse, backend.real_type(io == 0 ? 0 : compute), true));
  sig.bound_threads = tpf * fpb;
  sig.set_shared("cplx", "shbuf");
  return text + sig.head();
}

void ids(KernelWriter& w, int32_t fpb) {
  const std::string tx = w.backend.thread_x();
  w.emit("int tid = $ % TPF;", tx);
  w.emit("I64 batch = (I64)$ * $ + $ / TPF;", w.backend.block_x(), fpb, tx);
}

void bind_row(KernelWriter& w, int64_t stride) {
  w.emit("TG cplx* bufA = shbuf + ($ / TPF) * $;", w.backend.thread_x(), stride);
}

// Single kernels turn one twiddle by TPF steps of the circle of n each pass
// instead of evaluating a sine per bin; double kernels read the table.
std::string running_twiddle(KernelWriter& w, int32_t n, bool inverse) {
  if (w.table_stride(n) != 0) return {};
  const std::string start = w.twiddle("tid", n, false, inverse);
  const std::string wc = w.fresh("wc");
  w.emit("cplx $ = $;", wc, start);
  return wc;
}

void advance(KernelWriter& w, const std::string& wc, int32_t n, int32_t tpf, bool inverse) {
  if (wc.empty()) return;
  const double a = (inverse ? kTwoPi : -kTwoPi) * tpf / n;
  w.emit("$ = $;", wc, w.mul_const(wc, std::cos(a), std::sin(a)));
}

void store(KernelWriter& w, int io, const std::string& target, const std::string& re, const std::string& im) {
  w.emit("$ = $;", target, w.backend.make_pair(io, re, im));
}

void forward_pair(KernelWriter& w, int32_t n, bool pad, const std::string& r, const std::string& rio) {
  w.emit("const DEV $* xa = x + r0c * $;", rio, n);
  w.emit("const DEV $* xc = x + r1c * $;", rio, n);
  bind_row(w, fft_row_elements(n, pad));
  w.for_range("j", "tid", n, "TPF", [&] { w.emit("bufA[SHP($)] = cmk(($)xa[$], ($)xc[$]);", "j", r, "j", r, "j"); });
}

void forward_pair_unpack(KernelWriter& w, int32_t n, int io, const std::string& r) {
  const int32_t nb = n / 2 + 1;
  w.for_range("k", "tid", nb, "TPF", [&] {
    w.emit("cplx Zk = $[SHP($)];", "bufA", "k");
    w.emit("cplx Znk = ($ == 0) ? $[0] : $[SHP($ - $)];", "k", "bufA", "bufA", n, "k");
    w.emit("$ ar = ($)0.5 * (Zk.x + Znk.x), ai = ($)0.5 * (Zk.y - Znk.y);", r, r, r);
    w.emit("$ br = ($)0.5 * (Zk.y + Znk.y), bi = ($)(-0.5) * (Zk.x - Znk.x);", r, r, r);
    store(w, io, format("out[row0 * $ + k]", {nb}), "ar", "ai");
    w.emit("if (row1 < nrows) { $ = $; }", format("out[row1 * $ + k]", {nb}), w.backend.make_pair(io, "br", "bi"));
  });
}

void forward_even_load(KernelWriter& w, int32_t m, int compute, int io, bool pad, const std::string& r) {
  if (compute == 1 && io == 1 && m % 2 == 0 && !pad) {
    const std::string quad = w.backend.quad_type();
    w.async_or_plain(
        [&] {
          w.for_range("j", "tid", m / 2, "TPF",
                      [&] { w.async_copy("bufA[SHP(2 * j)]", format("((const $*)xb) + j", {quad})); });
        },
        [&] {
          w.for_range("j", "tid", m, "TPF",
                      [&] { w.emit("bufA[SHP($)] = cmk(xb[2 * $], xb[2 * $ + 1]);", "j", "j", "j"); });
        });
    return;
  }
  w.for_range("j", "tid", m, "TPF",
              [&] { w.emit("bufA[SHP($)] = cmk(($)xb[2 * $], ($)xb[2 * $ + 1]);", "j", r, "j", r, "j"); });
}

// X[k] = E[k] + w^k O[k] with E and O the halves of the packed spectrum;
// bin M is E[0] - O[0], from bufA[0] alone.
void forward_even_unpack(KernelWriter& w, int32_t n, int32_t m, int32_t tpf, int io, const std::string& r) {
  const std::string wc = running_twiddle(w, n, false);
  w.for_range("k", "tid", m + 1, "TPF", [&] {
    w.line("cplx r;");
    w.if_block(format("k == $", {m}), [&] { w.emit("r = cmk($[0].x - $[0].y, ($)0);", "bufA", "bufA", r); });
    w.line("else {");
    w.emit("cplx Zk = $[SHP($)];", "bufA", "k");
    w.emit("cplx Znk = ($ == 0) ? $[0] : $[SHP($ - $)];", "k", "bufA", "bufA", m, "k");
    w.emit("$ xer = ($)0.5 * (Zk.x + Znk.x), xei = ($)0.5 * (Zk.y - Znk.y);", r, r, r);
    w.emit("$ dr = Zk.x - Znk.x, di = Zk.y + Znk.y;", r);
    w.emit("$ xor_ = ($)0.5 * di, xoi = ($)(-0.5) * dr;", r, r, r);
    const std::string tw = wc.empty() ? w.twiddle("k", n, false, false) : wc;
    w.emit("$ wr = $.x, wi = $.y;", r, tw, tw);
    w.line("r = cmk(xer + wr * xor_ - wi * xoi, xei + wr * xoi + wi * xor_);");
    w.line("}");
    store(w, io, format("out[batch * $ + k]", {m + 1}), "r.x", "r.y");
    advance(w, wc, n, tpf, false);
  });
}

// The loads below give the conjugate of the packed spectrum, since the core
// runs the inverse as a forward transform between conjugations. Bin 0 is
// real by definition: its imaginary part is never read.
void inverse_pair_load(KernelWriter& w, int32_t n, bool pad, const std::string& r) {
  const int32_t nb = n / 2 + 1;
  w.emit("const DEV iot* Xa = X + r0c * $;", nb);
  w.emit("const DEV iot* Xc = X + r1c * $;", nb);
  bind_row(w, fft_row_elements(n, pad));
  w.for_range("j", "tid", n, "TPF", [&] {
    w.line("cplx u;");
    w.emit("if ($ <= $) {", "j", n / 2);
    w.emit("iot ta = Xa[$]; iot tb = Xc[$];", "j", "j");
    w.emit("$ ay = $ == 0 ? ($)0 : ($)ta.y, by = $ == 0 ? ($)0 : ($)tb.y;", r, "j", r, r, "j", r, r);
    w.emit("u = cmk(($)ta.x - by, -(ay + ($)tb.x));", r, r);
    w.line("} else {");
    w.emit("iot ta = Xa[$ - $]; iot tb = Xc[$ - $];", n, "j", n, "j");
    w.emit("u = cmk(($)ta.x + ($)tb.y, ($)ta.y - ($)tb.x);", r, r, r, r);
    w.line("}");
    w.emit("bufA[SHP($)] = u;", "j");
  });
}

// Z[k] = E[k] + i w^-k O[k], conjugated; bins 0 and M are real.
void inverse_even_load(KernelWriter& w, int32_t n, int32_t m, int32_t tpf, const std::string& r) {
  w.emit("const DEV iot* Xb = X + brow * $;", m + 1);
  const std::string wc = running_twiddle(w, n, true);
  w.for_range("k", "tid", m, "TPF", [&] {
    w.emit("iot Xks = Xb[$]; cplx Xk = cmk(($)Xks.x, ($)Xks.y);", "k", r, r);
    w.emit("iot Xms = Xb[$ - $]; cplx Xmk = cmk(($)Xms.x, ($)Xms.y);", m, "k", r, r);
    w.emit("if ($ == 0) { Xk.y = ($)0; Xmk.y = ($)0; }", "k", r, r);
    w.emit("$ er = ($)0.5 * (Xk.x + Xmk.x), ei = ($)0.5 * (Xk.y - Xmk.y);", r, r, r);
    w.emit("$ dr = ($)0.5 * (Xk.x - Xmk.x), di = ($)0.5 * (Xk.y + Xmk.y);", r, r, r);
    const std::string tw = wc.empty() ? w.twiddle("k", n, false, true) : wc;
    w.emit("$ twr = $.x, twi = $.y;", r, tw, tw);
    w.emit("$ tr = -(twr * di + twi * dr), ti = twr * dr - twi * di;", r);
    w.emit("bufA[SHP($)] = cmk(er + tr, -(ei + ti));", "k");
    advance(w, wc, n, tpf, true);
  });
}

// Both directions: the row's (or row pair's) load, the stages on M and,
// behind the last barrier, the store.
std::string shared_real_kernel(int32_t n, const std::vector<int32_t>& schedule, int compute_prec, int32_t tpf,
                               const Backend& backend, int32_t fpb, int io_prec, bool pair, bool pad, bool inverse) {
  const int32_t m = pair ? n : n / 2;
  const std::string r = backend.real_type(compute_prec);
  const std::string rio = backend.real_type(io_prec == 0 ? 0 : compute_prec);
  const std::string text = head(backend, compute_prec, io_prec, m, tpf, fpb, inverse, pad);
  KernelWriter w(compute_prec, backend);
  add_fft_tables(w, compute_prec, n, "tw", schedule);
  ids(w, fpb);
  if (pair) {
    pair_rows(w);
    if (inverse) inverse_pair_load(w, n, pad, r);
    else forward_pair(w, n, pad, r, rio);
  } else {
    w.line("I64 brow = batch < nrows - 1 ? batch : nrows - 1;");
    bind_row(w, fft_row_elements(m, pad));
    if (inverse) {
      inverse_even_load(w, n, m, tpf, r);
    } else {
      w.emit("const DEV $* xb = x + brow * $;", rio, n);
      forward_even_load(w, m, compute_prec, io_prec, pad, r);
    }
  }
  w.sync();
  emit_stages(w, "bufA", m, schedule, tpf, false);
  // Surplus rows of the last block ran every barrier on a copy of the last
  // row; only now may they leave.
  w.line(pair ? "if (row0 >= nrows) return;" : "if (batch >= nrows) return;");
  if (!inverse) {
    if (pair) forward_pair_unpack(w, n, io_prec, r);
    else forward_even_unpack(w, n, m, tpf, io_prec, r);
    return text + w.text() + "}\n";
  }
  if (pair) {
    w.for_range("j", "tid", m, "TPF", [&] {
      w.emit("cplx r = $[SHP($)];", "bufA", "j");
      w.emit("out[row0 * $ + $] = ($)(r.x * INVSC);", n, "j", rio);
      w.emit("if (row1 < nrows) out[row1 * $ + $] = ($)(-r.y * INVSC);", n, "j", rio);
    });
  } else {
    w.for_range("k", "tid", m, "TPF", [&] {
      w.emit("cplx r = $[SHP($)];", "bufA", "k");
      w.emit("out[batch * $ + 2 * $] = ($)(r.x * INVSC);", n, "k", rio);
      w.emit("out[batch * $ + 2 * $ + 1] = ($)(-r.y * INVSC);", n, "k", rio);
    });
  }
  return text + w.text() + "}\n";
}

}  // namespace

KernelParams real_params(bool inverse, const std::string& real_io, bool with_table) {
  KernelParams params = inverse ? KernelParams{KernelParam::input("iot", "X"), KernelParam::output(real_io, "out")}
                                : KernelParams{KernelParam::input(real_io, "x"), KernelParam::output("iot", "out")};
  if (with_table) params.push_back(KernelParam::input("cplx", "tw"));
  params.push_back(KernelParam::value("int", "nrows"));
  return params;
}

std::string real_kernel(int32_t n, const std::vector<int32_t>& schedule, int compute_prec, int32_t tpf,
                        const Backend& backend, int32_t fpb, int io_prec, bool pair, bool pad) {
  return shared_real_kernel(n, schedule, compute_prec, tpf, backend, fpb, io_prec, pair, pad, false);
}

std::string inverse_real_kernel(int32_t n, const std::vector<int32_t>& schedule, int compute_prec, int32_t tpf,
                                const Backend& backend, int32_t fpb, int io_prec, bool pair, bool pad) {
  return shared_real_kernel(n, schedule, compute_prec, tpf, backend, fpb, io_prec, pair, pad, true);
}

}  // namespace ondrel::codegen
