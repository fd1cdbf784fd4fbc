#include "codegen/rader_stage.hpp"

#include "codegen/fft_stages.hpp"
#include "codegen/macros.hpp"
#include "math/fft_schedule.hpp"
#include "math/twiddle_math.hpp"

namespace ondrel::codegen {

namespace {

// The index maps of a prime: log[x] with g^log[x] = x, and inv[k] = g^-k.
struct RaderMaps {
  int32_t g = 0;
  std::vector<int32_t> log, inv;
};

RaderMaps rader_maps(int32_t p) {
  RaderMaps r;
  r.g = primitive_root(p);
  r.log.assign(p, 0);
  for (int32_t k = 0; k < p - 1; ++k) r.log[mod_pow(r.g, k, p)] = k;
  const int32_t g_inv = mod_pow(r.g, p - 2, p);
  for (int32_t k = 0; k < p - 1; ++k) r.inv.push_back(mod_pow(g_inv, k, p));
  return r;
}

// Rounds of `tpf` threads over `count` work items: one guarded block each.
void for_rounds(KernelWriter& w, int32_t count, int32_t tpf, const std::function<void(const std::string&)>& body) {
  for (int32_t r = 0; r * tpf < count; ++r) {
    const std::string rx = w.fresh("rx");
    w.emit("int $ = tid + $;", rx, r * tpf);
    w.raw(format("  if ($ < $) {\n", {rx, count}));
    body(rx);
    w.raw("  }\n");
  }
}

// Double kernels: every thread takes elements of all butterflies, reading
// the index maps and the transformed roots from the table.
void table_form(KernelWriter& w, const std::string& array, int32_t n, int32_t p, int32_t tpf) {
  const int32_t m = p - 1, b = n / p, e = b * m;
  // The Rader tables stand behind the whole circle of the table, which a
  // real-input kernel makes twice as long as the row.
  const std::string tb = format("($ + $)", {w.table_base(n), w.table_stride(n) * n});
  const std::string real = w.backend.real_type(w.prec);
  w.raw(format("  if (tid < $) g0sh[tid] = $[SHP(tid)];\n", {b, array}));
  for_rounds(w, e, tpf, [&](const std::string& rx) {
    w.emit("int rk = $ / $ + 1; int rt = $ % $;", rx, b, rx, b);
    const std::string tw = w.twiddle("(rt * rk) % " + std::to_string(n), n, false, false);
    w.emit("cplx gk = cmul($, $[SHP(rt + rk * $)]);", tw, array, b);
    w.emit("int pi = (int)($[$ + rk - 1].x);", tb, 2 * m);
    w.emit("rsc[RSP(pi * $ + rt)] = gk;", b);
  });
  w.sync();
  w.raw(format("  if (tid < $) {\n", {b}));
  w.line("cplx dc = g0sh[tid];");
  for (int32_t j = 0; j < m; ++j) w.emit("dc = cadd(dc, rsc[RSP($ + tid)]);", j * b);
  w.line("dcsh[tid] = dc;");
  w.raw("  }\n");
  w.sync();
  batched_stages(w, "rsc", b, m, tpf);
  for_rounds(w, e, tpf, [&](const std::string& rx) {
    w.emit("cplx bh = $[$ + $ / $];", tb, m, rx, b);
    w.emit("cplx aq = rsc[RSP($)];", rx);
    w.line("cplx pr = cmul(aq, bh);");
    w.emit("rsc[RSP($)] = cmk(pr.x, -pr.y);", rx);
  });
  w.sync();
  batched_stages(w, "rsc", b, m, tpf);
  w.raw(format("  if (tid < $) $[SHP(tid)] = dcsh[tid];\n", {b, array}));
  const std::string c = literal(1.0 / m);
  for_rounds(w, e, tpf, [&](const std::string& rx) {
    w.emit("int rq = $ / $; int rt = $ % $;", rx, b, rx, b);
    w.emit("cplx fq = rsc[RSP($)];", rx);
    w.emit("cplx cq = cmk(fq.x*($)$, -fq.y*($)$);", real, c, real, c);
    w.emit("int po = (int)($[$ + rq].y);", tb, 2 * m);
    w.emit("$[SHP(po * $ + rt)] = cadd(g0sh[rt], cq);", array, b);
  });
}

// Other precisions: no table; one thread a butterfly, with the index maps
// and the transformed roots as numbers in the text.
void compact_form(KernelWriter& w, const std::string& array, int32_t n, int32_t p, int32_t tpf) {
  const int32_t m = p - 1, b = n / p;
  const RaderMaps maps = rader_maps(p);
  std::vector<double> bh_re, bh_im;
  rader_transform(p, maps.g, bh_re, bh_im);
  const std::string real = w.backend.real_type(w.prec);
  const std::string open = format("  if (tid < $) {\n", {b});
  w.raw(open);
  w.line("int t = tid;");
  w.emit("cplx g0 = $[SHP(t)];", array);
  w.line("cplx dc = g0;");
  const std::string root = w.twiddle("t", n, false, false);
  w.emit("cplx rw = $;", root);
  for (int32_t k = 1; k <= m; ++k) {
    if (k > 1) w.emit("rw = cmul(rw, $);", root);
    const std::string gk = format("gk$", {k});
    w.emit("cplx $ = cmul(rw, $[SHP(t + $)]);", gk, array, k * b);
    w.emit("dc = cadd(dc, $);", gk);
    w.emit("rsc[RSP($*$ + t)] = $;", maps.log[k], b, gk);
  }
  w.line("g0sh[t] = g0; dcsh[t] = dc;");
  w.raw("  }\n");
  w.sync();
  batched_stages(w, "rsc", b, m, tpf);
  for (int32_t q = 0; q < m; ++q) {
    w.raw(open);
    w.emit("cplx aq = rsc[RSP($*$ + tid)];", q, b);
    const std::string pr = w.cmul("aq", w.const_twiddle(bh_re[q], bh_im[q]));
    w.emit("rsc[RSP($*$ + tid)] = cmk($.x, -$.y);", q, b, pr, pr);
    w.raw("  }\n");
  }
  w.sync();
  batched_stages(w, "rsc", b, m, tpf);
  w.raw(open);
  w.line("int t = tid;");
  w.emit("$[SHP(t)] = dcsh[t];", array);
  const std::string c = literal(1.0 / m);
  for (int32_t q = 0; q < m; ++q) {
    const std::string fq = format("fq$", {q}), cq = format("c$", {q});
    w.emit("cplx $ = rsc[RSP($*$ + t)];", fq, q, b);
    w.emit("cplx $ = cmk($.x*($)$, -$.y*($)$);", cq, fq, real, c, fq, real, c);
    w.emit("$[SHP($ + t)] = cadd(g0sh[t], $);", array, b * maps.inv[q], cq);
  }
  w.raw("  }\n");
}

}  // namespace

void rader_stage(KernelWriter& w, const std::string& array, int32_t n, int32_t p, int32_t ls, int32_t tpf) {
  const int32_t m = p - 1, b = n / p;
  w.raw(format("  {  // === cooperative Rader P=$ (B=$ x FFT-$) ===\n", {p, b, m}));
  w.raw(rsp_define_rader());
  w.emit("TG cplx* rsc = $ + $;", array, n);
  w.emit("TG cplx* g0sh = rsc + $;", b * m);
  w.emit("TG cplx* dcsh = g0sh + $;", b);
  if (w.table_stride(p * ls) > 0 && w.table_stride(m) > 0)
    table_form(w, array, n, p, tpf);
  else
    compact_form(w, array, n, p, tpf);
  w.sync();
  w.raw("  }\n");
}

void batched_stages(KernelWriter& w, const std::string& array, int32_t batch, int32_t m, int32_t tpf) {
  int32_t rest = 1, ls = 1;
  for (int32_t r : factor_schedule(m, rest, false)) {
    const int32_t groups = m / r, items = batch * groups;
    const int32_t rounds = (items + tpf - 1) / tpf;
    std::vector<std::string> index(rounds);
    std::vector<std::vector<std::string>> outs(rounds);
    w.raw(format("  {  // batched radix-$ (L=$, Ls=$)\n", {r, m, ls}));
    for (int32_t c = 0; c < rounds; ++c) {
      index[c] = w.fresh("bi");
      w.emit("int $ = tid + $;", index[c], c * tpf);
      for (int32_t k = 0; k < r; ++k) {
        outs[c].push_back(w.fresh("y"));
        w.emit("cplx $;", outs[c].back());
      }
      w.raw(format("  if ($ < $) {\n", {index[c], items}));
      const std::string bf = w.fresh("rbf"), bt = w.fresh("rtt");
      w.emit("int $ = $ / $;", bf, index[c], batch);
      w.emit("int $ = $ % $;", bt, index[c], batch);
      std::vector<std::string> x(r);
      for (int32_t k = 0; k < r; ++k) {
        x[k] = w.fresh("x");
        w.emit("cplx $ = $[RSP(($ + $)*$ + $)];", x[k], array, bf, k * groups, batch, bt);
      }
      if (ls > 1) {
        const std::string bi = w.fresh("rii");
        w.emit("int $ = $ % $;", bi, bf, ls);
        apply_twiddles(w, x, bi, r * ls, r, false);
      }
      const std::vector<std::string> y = butterfly(w, x, r, false);
      for (int32_t k = 0; k < r; ++k) w.emit("$ = $;", outs[c][k], y[k]);
      w.raw("  }\n");
    }
    w.sync();
    for (int32_t c = 0; c < rounds; ++c) {
      w.raw(format("  if ($ < $) {\n", {index[c], items}));
      const std::string bf = w.fresh("rbf"), bt = w.fresh("rtt"), bi = w.fresh("rii"), bj = w.fresh("rjj");
      w.emit("int $ = $ / $;", bf, index[c], batch);
      w.emit("int $ = $ % $;", bt, index[c], batch);
      w.emit("int $ = $ % $;", bi, bf, ls);
      w.emit("int $ = $ / $;", bj, bf, ls);
      for (int32_t k = 0; k < r; ++k)
        w.emit("$[RSP(($*$ + $ + $)*$ + $)] = $;", array, bj, r * ls, k * ls, bi, batch, bt, outs[c][k]);
      w.raw("  }\n");
    }
    w.sync();
    w.raw("  }\n");
    ls *= r;
  }
}

std::vector<std::string> rader_butterfly(KernelWriter& w, const std::vector<std::string>& values, int32_t p) {
  const int32_t m = p - 1;
  const RaderMaps maps = rader_maps(p);
  std::vector<std::string> y(p);
  y[0] = values[0];
  for (int32_t k = 1; k < p; ++k) y[0] = w.cadd(y[0], values[k]);
  std::vector<std::string> a(m);
  for (int32_t j = 0; j < m; ++j) a[j] = values[mod_pow(maps.g, j, p)];
  std::vector<std::string> spectrum = butterfly(w, a, m, false);
  std::vector<double> re, im;
  rader_transform(p, maps.g, re, im);
  for (int32_t q = 0; q < m; ++q) spectrum[q] = w.cmul(spectrum[q], w.const_twiddle(re[q], im[q]));
  const std::vector<std::string> conv = butterfly(w, spectrum, m, true);
  for (int32_t r = 0; r < m; ++r) y[maps.inv[r]] = w.cadd(values[0], conv[r]);
  return y;
}

}  // namespace ondrel::codegen
