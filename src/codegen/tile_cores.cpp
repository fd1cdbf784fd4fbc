#include "codegen/tile_cores.hpp"

#include <functional>
#include <vector>

#include "codegen/expr.hpp"
#include "codegen/fft_kernel.hpp"
#include "codegen/fft_stages.hpp"
#include "codegen/kernel_sig.hpp"
#include "codegen/kernel_writer.hpp"
#include "codegen/macros.hpp"
#include "codegen/prelude.hpp"
#include "codegen/register_core.hpp"

namespace ondrel::codegen {

namespace {

using Names = std::vector<std::string>;

// Preludes and head of both kernels, `threads` a block.
std::string head(int32_t n, int compute_prec, const Backend& backend, bool inverse, int32_t threads, int io_prec) {
  std::string text = fft_prelude(backend, compute_prec, io_prec);
  if (inverse) text += invsc_define(backend, compute_prec, n);
  KernelSig sig("ondrel_fft", backend, fft_params());
  sig.bound_threads = threads;
  sig.set_shared("cplx", "shbuf");
  return text + sig.head();
}

// Row identity: `thread` of the row (per_row threads) and its clamped row.
void identity(KernelWriter& w, const std::string& thread, int32_t per_row, int32_t fpb, int32_t n, int64_t tile) {
  const std::string tx = w.backend.thread_x();
  w.emit("int $ = $ % $;", thread, tx, per_row);
  w.emit("I64 batch = (I64)$ * $ + $ / $;", w.backend.block_x(), fpb, tx, per_row);
  w.line("I64 brow = batch < nrows - 1 ? batch : nrows - 1;");
  w.emit("TG cplx* sh = shbuf + ($ / $) * $;", tx, per_row, tile);
  w.emit("const DEV iot* xb = x + brow * $;", n);
}

// r elements of the row at thread + e * stride, conjugated for inverse kernels.
Names load(KernelWriter& w, const std::string& thread, int32_t r, int64_t stride, bool inverse) {
  const std::string real = w.backend.real_type(w.prec);
  Names v(r);
  for (int32_t e = 0; e < r; ++e) {
    // Fresh names: the cube kernel already has a t0 and a t1.
    v[e] = w.fresh("v");
    const std::string s = w.fresh("ld");
    w.emit("iot $ = xb[$ + $]; cplx $ = cmk(($)$.x, $($)$.y);", s, thread, e * stride, v[e], real, s,
           inverse ? "-" : "", real, s);
  }
  return v;
}

// Surplus rows leave behind the last barrier; value e goes to element
// `place(e)` of the row, conjugated and scaled for inverse kernels.
void store(KernelWriter& w, const Names& v, int32_t n, int io_prec, bool inverse,
           const std::function<std::string(int32_t)>& place) {
  w.line("if (batch >= nrows) return;");
  const std::string eps = inverse ? " * INVSC" : "";
  const std::string sign = inverse ? "-" : "";
  for (size_t e = 0; e < v.size(); ++e)
    w.emit("out[batch * $ + $] = $;", n, place(static_cast<int32_t>(e)),
           w.backend.make_pair(io_prec, v[e] + ".x" + eps, sign + "(" + v[e] + ".y" + eps + ")"));
}

// Output e (e >= 1) times the twiddle of `index` * e on the circle of n.
void twiddle_outputs(KernelWriter& w, Names& v, const std::string& index, int32_t n) {
  RegisterValues one{v};
  reg_twiddles(w, one, {index}, n, static_cast<int32_t>(v.size()), 1, false);
  v = one[0];
}

}  // namespace

int64_t tile_elements(int32_t r) { return static_cast<int64_t>(r) * (r + 1); }
int64_t cube_elements(int32_t r) { return static_cast<int64_t>(r) * r * r; }

std::string tile_kernel(int32_t n, int32_t r, int compute_prec, const Backend& backend, bool inverse, int32_t fpb,
                        int io_prec) {
  std::string text = head(n, compute_prec, backend, inverse, r * fpb, io_prec);
  KernelWriter w(compute_prec, backend);
  add_fft_tables(w, compute_prec, n, "tw", {r});
  identity(w, "lane", r, fpb, n, tile_elements(r));
  Names v = butterfly(w, load(w, "lane", r, r, inverse), r, false);
  twiddle_outputs(w, v, "lane", n);
  for (int32_t e = 0; e < r; ++e) {
    if (e == 0) w.emit("sh[lane] = $;", v[e]);
    else w.emit("sh[$ + lane] = $;", e * (r + 1), v[e]);
  }
  w.sync();
  Names z(r);
  for (int32_t e = 0; e < r; ++e) {
    z[e] = w.fresh("z");
    w.emit("cplx $ = sh[lane * $ + $];", z[e], r + 1, e);
  }
  z = butterfly(w, z, r, false);
  store(w, z, n, io_prec, inverse,
        [&](int32_t e) { return e == 0 ? std::string("lane") : (Expr("lane") + e * r).text(); });
  return text + w.text() + "}\n";
}

std::string cube_kernel(int32_t n, int32_t r, int compute_prec, const Backend& backend, bool inverse, int32_t fpb,
                        int io_prec) {
  const int32_t r2 = r * r;
  std::string text = head(n, compute_prec, backend, inverse, r2 * fpb, io_prec);
  KernelWriter w(compute_prec, backend);
  add_fft_tables(w, compute_prec, n, "tw", {r});
  identity(w, "t", r2, fpb, n, cube_elements(r));
  w.emit("int t0 = t % $, t1 = t / $;", r, r);
  // Digit n2 (stride r^2) first, then the middle digit, then the lowest.
  Names a = butterfly(w, load(w, "t", r, r2, inverse), r, false);
  twiddle_outputs(w, a, "t", n);
  for (int32_t e = 0; e < r; ++e) w.emit("sh[(t0 * $ + $) * $ + t1] = $;", r, e, r, a[e]);
  w.sync();
  w.emit("int te2 = $ * (t / $);", r, r);
  Names c(r);
  for (int32_t e = 0; e < r; ++e) {
    c[e] = w.fresh("c");
    w.emit("cplx $ = sh[t * $ + $];", c[e], r, e);
  }
  c = butterfly(w, c, r, false);
  twiddle_outputs(w, c, "te2", n);
  // The reads above must be finished before the tile is written again.
  w.sync();
  const Expr t("t");
  for (int32_t e = 0; e < r; ++e) w.emit("sh[$] = $;", ((Expr(e) + t % r * r) * r + t / r).text(), c[e]);
  w.sync();
  Names d(r);
  for (int32_t e = 0; e < r; ++e) {
    d[e] = w.fresh("d");
    w.emit("cplx $ = sh[t * $ + $];", d[e], r, e);
  }
  d = butterfly(w, d, r, false);
  store(w, d, n, io_prec, inverse, [&](int32_t e) {
    return (t / r + Expr(r) * (t % r) + static_cast<int64_t>(r2) * e).text();
  });
  return text + w.text() + "}\n";
}

}  // namespace ondrel::codegen
