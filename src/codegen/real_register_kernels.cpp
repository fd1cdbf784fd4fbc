#include "codegen/real_register_kernels.hpp"

#include <algorithm>

#include "codegen/body_heads.hpp"
#include "codegen/fft_stages.hpp"
#include "codegen/kernel_sig.hpp"
#include "codegen/kernel_writer.hpp"
#include "codegen/macros.hpp"
#include "codegen/prelude.hpp"
#include "codegen/real_kernel.hpp"
#include "codegen/register_core.hpp"
#include "math/precision.hpp"

namespace ondrel::codegen {

namespace {

// Arithmetic in single or double, data in half or in the arithmetic's own
// precision.
Precision real_precision(int compute_prec, int io_prec) {
  const int compute = compute_prec == 2 ? 2 : 1;
  return {compute, io_prec == 0 ? 0 : compute, false};
}

std::string real_head(const Backend& backend, const Precision& p, bool inverse, int32_t m, int32_t threads) {
  std::string text = fft_prelude(backend, p.compute, p.storage);
  if (inverse) text += invsc_define(backend, p.compute, m);
  text += shp_define(false);
  KernelSig sig(inverse ? "ondrel_irfft" : "ondrel_rfft", backend, real_params(inverse, backend.real_type(p.storage), true));
  sig.bound_threads = threads;
  // The exchange moves one real component at a time, and the shared view is
  // indexed in reals; the forward unpack reinterprets it as complex.
  sig.set_shared(backend.real_type(p.compute), "shbuf");
  return text + sig.head();
}

// The thread's place: its row (or row pair) with the clamped input pointers
// `a`/`c` (pair) or `b`, and its run `wb` in the shared view `v` of
// `row_reals` reals a row.
void real_frame(KernelWriter& w, const RegisterShape& shape, int32_t fpb, bool pair, int64_t row_reals,
                const std::string& type, const std::string& base, int64_t stride) {
  const std::string tx = w.backend.thread_x();
  const int32_t t = shape.threads();
  w.emit("int tid = $ % $;", tx, t);
  w.emit("I64 batch = (I64)$ * $ + $ / $;", w.backend.block_x(), fpb, tx, t);
  if (pair) {
    pair_rows(w);
    w.emit("const DEV $* $a = $ + r0c * $;", type, base, base, stride);
    w.emit("const DEV $* $c = $ + r1c * $;", type, base, base, stride);
  } else {
    w.line("I64 brow = batch < nrows - 1 ? batch : nrows - 1;");
    w.emit("const DEV $* $b = $ + brow * $;", type, base, base, stride);
  }
  w.emit("TG $* v = shbuf + ($ / $) * $;", w.backend.real_type(w.prec), tx, t, row_reals);
  w.emit("int wb = tid * $;", shape.ept + 1);
}


std::string store(const Backend& backend, int io, const std::string& target, const std::string& re,
                  const std::string& im) {
  return target + " = " + backend.make_pair(io, re, im) + ";";
}

}  // namespace

int64_t real_register_row_reals(const RegisterShape& shape, bool inverse) {
  const int64_t w = std::max(shape.row_elements(), inverse ? 0 : 2 * static_cast<int64_t>(shape.n));
  return w + w % 2;
}

std::string real_register_kernel(int32_t m, const std::vector<int32_t>& stages, int compute_prec,
                                 const Backend& backend, int32_t fpb, int32_t ept, int io_prec, bool pair) {
  const Precision p = real_precision(compute_prec, io_prec);
  const RegisterShape shape{m, stages, ept, true, false};
  check_register_shape(shape);
  const int32_t t = shape.threads(), n = pair ? m : 2 * m, nb = n / 2 + 1;
  const std::string r = backend.real_type(p.compute);
  std::string text = real_head(backend, p, false, m, t * fpb);

  KernelWriter w(p.compute, backend);
  // Register kernels launch with the table of the real length alone: their
  // Rader butterflies take constants, so no Rader circle is registered.
  add_fft_tables(w, p.compute, n, "tw", {});
  real_frame(w, shape, fpb, pair, real_register_row_reals(shape, false), backend.real_type(p.storage), "x", n);

  std::vector<std::string> ids;
  RegisterValues values = register_load(
      w, shape,
      [&](const std::string& q, int32_t, int64_t off) {
        const std::string c = w.fresh("c"), u = w.fresh("u");
        w.emit("int $ = $ + $;", c, q, off);
        if (pair)
          w.emit("cplx $ = cmk(($)xa[$], ($)xc[$]);", u, r, c, r, c);
        else
          w.emit("cplx $ = cmk(($)xb[2 * $], ($)xb[2 * $ + 1]);", u, r, c, r, c);
        return u;
      },
      ids);
  values = register_walk(w, shape, std::move(values), std::move(ids));

  // The unpack pairs bin k with bin M - k, which another thread holds: the
  // spectrum goes through the shared row in natural order.
  w.sync();
  w.line("TG cplx* Z = (TG cplx*)v;");
  for (int32_t j = 0; j < ept / stages.back(); ++j)
    for (int32_t e = 0; e < stages.back(); ++e)
      w.emit("Z[tid + $] = $;", register_offset(shape, j, e), values[j][e]);
  w.sync();

  if (pair) {
    const int32_t h = n / 2;
    w.line("if (row0 < nrows) {");
    for (int32_t i = 0; i <= ept / 2; ++i) {
      const std::string kk = w.fresh("kk");
      w.emit("int $ = tid + $;", kk, static_cast<int64_t>(i) * t);
      w.emit("if ($ <= $) {", kk, h);
      w.emit("cplx Zk = Z[$];", kk);
      w.emit("cplx Znk = Z[$ == 0 ? 0 : $ - $];", kk, m, kk);
      w.emit("$ ar = ($)0.5 * (Zk.x + Znk.x), ai = ($)0.5 * (Zk.y - Znk.y);", r, r, r);
      w.emit("$ br = ($)0.5 * (Zk.y + Znk.y), bi = ($)(-0.5) * (Zk.x - Znk.x);", r, r, r);
      w.line(store(backend, p.storage, format("out[row0 * $ + $]", {nb, kk}), "ar", "ai"));
      w.emit("if (row1 < nrows) { $ }",
             store(backend, p.storage, format("out[row1 * $ + $]", {nb, kk}), "br", "bi"));
      w.line("}");
    }
    w.line("}");
    return text + w.text() + "}\n";
  }

  // One round writes bins k and M - k; bin M is the mirror of bin 0, and at
  // k = M / 2 both stores write the same value to the same bin.
  const bool m_p2 = (m & (m - 1)) == 0;
  w.line("if (batch < nrows) {");
  for (int32_t i = 0; i <= ept / 2; ++i) {
    const std::string kk = w.fresh("kk");
    w.emit("int $ = tid + $;", kk, static_cast<int64_t>(i) * t);
    w.emit("if ($ <= $) {", kk, m / 2);
    w.emit("cplx Zk = Z[$];", kk);
    if (m_p2)
      w.emit("cplx Znk = Z[($ - $) & $];", m, kk, m - 1);
    else
      w.emit("cplx Znk = Z[$ == 0 ? 0 : $ - $];", kk, m, kk);
    w.emit("$ xer = ($)0.5 * (Zk.x + Znk.x), xei = ($)0.5 * (Zk.y - Znk.y);", r, r, r);
    w.emit("$ dr = Zk.x - Znk.x, di = Zk.y + Znk.y;", r);
    w.emit("$ xor_ = ($)0.5 * di, xoi = ($)(-0.5) * dr;", r, r, r);
    const std::string tw = w.twiddle(kk, n, false, false);
    w.emit("$ wr = $.x, wi = $.y;", r, tw, tw);
    w.emit("$ tr = wr * xor_ - wi * xoi, ti = wr * xoi + wi * xor_;", r);
    w.line(store(backend, p.storage, format("out[batch * $ + $]", {nb, kk}), "xer + tr", "xei + ti"));
    w.line(store(backend, p.storage, format("out[batch * $ + $ - $]", {nb, m, kk}),
                 "xer - tr", "-(xei - ti)"));
    w.line("}");
  }
  w.line("}");
  return text + w.text() + "}\n";
}

std::string inverse_real_register_kernel(int32_t m, const std::vector<int32_t>& stages, int compute_prec,
                                         const Backend& backend, int32_t fpb, int32_t ept, int io_prec, bool pair) {
  const Precision p = real_precision(compute_prec, io_prec);
  const RegisterShape shape{m, stages, ept, true, false};
  check_register_shape(shape);
  const int32_t t = shape.threads(), n = pair ? m : 2 * m, nb = n / 2 + 1;
  const std::string r = backend.real_type(p.compute), rio = backend.real_type(p.storage);
  std::string text = real_head(backend, p, true, m, t * fpb);

  KernelWriter w(p.compute, backend);
  add_fft_tables(w, p.compute, n, "tw", {});
  real_frame(w, shape, fpb, pair, real_register_row_reals(shape, true), "iot", "X", nb);

  // Each element is the conjugate of the packed spectrum, so that the
  // forward walk transforms backwards.
  std::vector<std::string> ids;
  RegisterValues values = register_load(
      w, shape,
      [&](const std::string& q, int32_t, int64_t off) {
        const std::string c = w.fresh("c"), u = w.fresh("u");
        w.emit("int $ = $ + $;", c, q, off);
        if (pair) {
          w.emit("cplx $;", u);
          w.emit("if ($ <= $) {", c, n / 2);
          w.emit("iot ta = Xa[$]; iot tb = Xc[$];", c, c);
          w.emit("$ ay = $ == 0 ? ($)0 : ($)ta.y, by = $ == 0 ? ($)0 : ($)tb.y;", r, c, r, r, c, r, r);
          w.emit("$ = cmk(($)ta.x - by, -(ay + ($)tb.x));", u, r, r);
          w.line("} else {");
          w.emit("iot ta = Xa[$ - $]; iot tb = Xc[$ - $];", n, c, n, c);
          w.emit("$ = cmk(($)ta.x + ($)tb.y, ($)ta.y - ($)tb.x);", u, r, r, r, r);
          w.line("}");
          return u;
        }
        const std::string x = w.fresh("X"), y = w.fresh("Y");
        w.emit("iot $s = Xb[$]; cplx $ = cmk(($)$s.x, ($)$s.y);", x, c, x, r, x, r, x);
        w.emit("iot $s = Xb[$ - $]; cplx $ = cmk(($)$s.x, ($)$s.y);", y, m, c, y, r, y, r, y);
        w.emit("if ($ == 0) { $.y = ($)0; $.y = ($)0; }", c, x, r, y, r);
        const std::string er = w.fresh("er"), ei = w.fresh("ei"), dr = w.fresh("dr"), di = w.fresh("di");
        w.emit("$ $ = ($)0.5 * ($.x + $.x), $ = ($)0.5 * ($.y - $.y);", r, er, r, x, y, ei, r, x, y);
        w.emit("$ $ = ($)0.5 * ($.x - $.x), $ = ($)0.5 * ($.y + $.y);", r, dr, r, x, y, di, r, x, y);
        const std::string tw = w.twiddle(c, n, false, true);
        const std::string tr = w.fresh("tr"), ti = w.fresh("ti");
        w.emit("$ $ = -($.x * $ + $.y * $), $ = $.x * $ - $.y * $;", r, tr, tw, di, tw, dr, ti, tw, dr, tw, di);
        w.emit("cplx $ = cmk($ + $, -($ + $));", u, er, tr, ei, ti);
        return u;
      },
      ids);
  values = register_walk(w, shape, std::move(values), std::move(ids));

  w.line(pair ? "if (row0 < nrows) {" : "if (batch < nrows) {");
  for (int32_t j = 0; j < ept / stages.back(); ++j)
    for (int32_t e = 0; e < stages.back(); ++e) {
      const int64_t off = register_offset(shape, j, e);
      const std::string& v = values[j][e];
      if (pair) {
        w.emit("out[row0 * $ + tid + $] = ($)($.x * INVSC);", n, off, rio, v);
        w.emit("if (row1 < nrows) out[row1 * $ + tid + $] = ($)(-($.y) * INVSC);", n, off, rio, v);
      } else {
        w.emit("out[batch * $ + 2 * (tid + $)] = ($)($.x * INVSC);", n, off, rio, v);
        w.emit("out[batch * $ + 2 * (tid + $) + 1] = ($)(-($.y) * INVSC);", n, off, rio, v);
      }
    }
  w.line("}");
  return text + w.text() + "}\n";
}

}  // namespace ondrel::codegen
