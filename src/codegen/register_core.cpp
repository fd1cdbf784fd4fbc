#include "codegen/register_core.hpp"

#include <numbers>
#include <stdexcept>

#include "codegen/body_heads.hpp"
#include "codegen/expr.hpp"
#include "codegen/fft_kernel.hpp"
#include "codegen/fft_stages.hpp"
#include "codegen/kernel_sig.hpp"
#include "codegen/macros.hpp"
#include "codegen/prelude.hpp"
#include "math/fft_schedule.hpp"

namespace ondrel::codegen {

namespace {

// "tid" or "tid + k" as text.
std::string tid_plus(int64_t k) { return k == 0 ? std::string("tid") : "tid + " + std::to_string(k); }

// Product of the radices before stage s.
int64_t span_before(const std::vector<int32_t>& stages, size_t s) {
  int64_t l = 1;
  for (size_t i = 0; i < s; ++i) l *= stages[i];
  return l;
}

// The ids of the butterflies of one stage, as int variables.
std::vector<std::string> declare_ids(KernelWriter& w, int32_t count, int32_t t) {
  std::vector<std::string> ids(count);
  for (int32_t j = 0; j < count; ++j) {
    ids[j] = w.fresh("j");
    w.emit("int $ = tid + $;", ids[j], static_cast<int64_t>(j) * t);
  }
  return ids;
}

// Where butterfly q2 of the last stage finds its inputs: the digit reversal
// of q2 over the earlier radices. Input f stands at pos + f.
std::string last_stage_position(KernelWriter& w, const RegisterShape& shape, int32_t j2) {
  const size_t count = shape.stages.size();
  const std::string pos = w.fresh("pos");
  w.emit("int $ = 0; { int rem = tid + $;", pos, static_cast<int64_t>(j2) * shape.threads());
  for (size_t s = count - 1; s-- > 0;) {
    const int64_t l = span_before(shape.stages, s), q = shape.n / span_before(shape.stages, s + 1);
    w.emit("  { int d = rem / $; rem = rem % $; $ += d * $; }", l, l, pos, q);
  }
  w.line("  }");
  return pos;
}

// One exchange between stage s and stage s + 1 (the last when `last`).
// Output e of butterfly q of stage s has the logical index
// (q / m * r + e) * m + q % m; input f of butterfly q2 of the next stage is
// at q2 / m2 * m + q2 % m2 + f * m2, or at pos + f for the last stage.
RegisterValues exchange_step(KernelWriter& w, const RegisterShape& shape, size_t s, const RegisterValues& values,
                             const std::vector<std::string>& ids, const std::vector<std::string>& next_ids,
                             bool last) {
  const int32_t t = shape.threads(), e_count = shape.ept;
  const int32_t r = shape.stages[s], j_count = e_count / r;
  const int64_t m = shape.n / (span_before(shape.stages, s) * r);
  const int32_t r2 = shape.stages[s + 1], j2_count = e_count / r2;
  const int64_t m2 = m / r2;

  // Per next butterfly: the sub-problem index g of the stage-s numbering,
  // its low part lo and the stride of its inputs.
  struct Want {
    Expr g, lo;
    int64_t stride;
  };
  std::vector<Want> wants(j2_count);
  for (int32_t j2 = 0; j2 < j2_count; ++j2) {
    if (last) {
      const std::string pos = last_stage_position(w, shape, j2);
      wants[j2] = {Expr("(" + pos + " / " + std::to_string(m) + ")"), Expr(0), 1};
    } else {
      const std::string sub = w.fresh("sub"), lo = w.fresh("qq");
      w.emit("int $ = $ / $; int $ = $ % $;", sub, next_ids[j2], m2, lo, next_ids[j2], m2);
      wants[j2] = {sub, lo, m2};
    }
  }

  RegisterValues next(j2_count, std::vector<std::string>(r2));
  if (!shape.exchange) {
    for (int32_t j = 0; j < j_count; ++j) {
      const std::string sub = w.fresh("sub"), lo = w.fresh("qq");
      w.emit("int $ = $ / $; int $ = $ % $;", sub, ids[j], m, lo, ids[j], m);
      for (int32_t e = 0; e < r; ++e)
        w.emit("v[SHP($)] = $;", (Expr(sub) * (r * m) + Expr(lo) + e * m).text(), values[j][e]);
    }
    w.sync();
    for (int32_t j2 = 0; j2 < j2_count; ++j2)
      for (int32_t f = 0; f < r2; ++f) {
        const Expr index = last ? wants[j2].g * m + f : wants[j2].g * m + wants[j2].lo + f * m2;
        next[j2][f] = w.load("v", "SHP(" + index.text() + ")");
      }
    w.sync();
    return next;
  }

  // Component-wise: thread tid keeps output e of its butterfly j at
  // wb + e * J + j; a wanted element c, of butterfly c' and digit e', lies at
  // (c' % t) * (E + 1) + c' / t + e' * J.
  std::vector<std::string> ek(j2_count), kk(j2_count);
  for (int32_t j2 = 0; j2 < j2_count; ++j2) {
    ek[j2] = w.fresh("ek");
    kk[j2] = w.fresh("kk");
    w.emit("int $ = $; int $ = $;", ek[j2], (wants[j2].g % r * j_count).text(), kk[j2],
           (wants[j2].g / r * m + wants[j2].lo).text());
    for (int32_t f = 0; f < r2; ++f) {
      next[j2][f] = w.fresh("x");
      w.emit("cplx $;", next[j2][f]);
    }
  }
  for (const char* part : {"x", "y"}) {
    for (int32_t j = 0; j < j_count; ++j)
      for (int32_t e = 0; e < r; ++e) w.emit("v[wb + $] = $.$;", e * j_count + j, values[j][e], part);
    w.sync();
    for (int32_t j2 = 0; j2 < j2_count; ++j2)
      for (int32_t f = 0; f < r2; ++f) {
        const int64_t step = f * wants[j2].stride;
        const Expr c = step == 0 ? Expr(kk[j2]) : Expr(kk[j2]) + step;
        const Expr at = c % t * (e_count + 1) + c / t + Expr(ek[j2]);
        w.emit("$.$ = v[$];", next[j2][f], part, at.text());
      }
    w.sync();
  }
  return next;
}

}  // namespace

int64_t RegisterShape::row_elements() const {
  return exchange ? static_cast<int64_t>(threads()) * (ept + 1) + 32 : static_cast<int64_t>(n) / 16 + 1 + n;
}

void check_register_shape(const RegisterShape& shape) {
  if (shape.stages.empty() || shape.ept < 1 || shape.n % shape.ept != 0)
    throw std::logic_error("register_kernel: ept must divide n");
  int64_t product = 1;
  for (int32_t r : shape.stages) {
    if (r < 2 || shape.ept % r != 0) throw std::logic_error("register_kernel: every radix must divide ept");
    product *= r;
  }
  if (product != shape.n) throw std::logic_error("register_kernel: the radices must multiply to n");
}

void reg_twiddles(KernelWriter& w, RegisterValues& values, const std::vector<std::string>& q_names, int32_t span,
                  int32_t r, int32_t j_count, bool fast) {
  for (int32_t j = 0; j < j_count; ++j) {
    std::vector<std::string>& v = values[j];
    const std::string& p = q_names[j];
    if (w.table_stride(span) > 0) {
      for (int32_t e = 1; e < r; ++e)
        v[e] = w.cmul(v[e], w.twiddle(std::to_string(e) + " * " + p, span, false, false));
    } else if (!fast) {
      apply_twiddles(w, v, p, span, r, false);
    } else {
      // Packed half arithmetic: the recurrence of the powers stays in float
      // and only each power is rounded to half.
      const std::string t = w.backend.real_type(0);
      const std::string a = w.fresh("a"), ca = w.fresh("ca"), sa = w.fresh("sa"), br = w.fresh("br"),
                        bi = w.fresh("bi");
      w.emit("float $ = (float)($) * $;", a, p, literal(-2.0 * std::numbers::pi / span));
      w.emit("float $, $; $", ca, sa, w.backend.sincos(1, a, ca, sa));
      w.emit("float $ = $, $ = $;", br, ca, bi, sa);
      for (int32_t e = 1; e < r; ++e) {
        v[e] = w.cmul(v[e], w.let_cmk("(" + t + ")" + br, "(" + t + ")" + bi));
        if (e < r - 1)
          w.emit("{ float t = $ * $ - $ * $; $ = $ * $ + $ * $; $ = t; }", br, ca, bi, sa, bi, br, sa, bi, ca, br);
      }
    }
  }
}

RegisterValues register_load(KernelWriter& w, const RegisterShape& shape, const RegisterLoad& load,
                             std::vector<std::string>& ids) {
  const int32_t r0 = shape.stages[0], j_count = shape.ept / r0;
  ids = declare_ids(w, j_count, shape.threads());
  RegisterValues values(j_count, std::vector<std::string>(r0));
  for (int32_t j = 0; j < j_count; ++j)
    for (int32_t e = 0; e < r0; ++e) values[j][e] = load(ids[j], j, static_cast<int64_t>(e) * (shape.n / r0));
  return values;
}

RegisterValues register_walk(KernelWriter& w, const RegisterShape& shape, RegisterValues values,
                             std::vector<std::string> ids) {
  const size_t count = shape.stages.size();
  for (size_t s = 0; s < count; ++s) {
    const int32_t r = shape.stages[s], j_count = shape.ept / r;
    const int64_t l = span_before(shape.stages, s), m = shape.n / (l * r);
    for (int32_t j = 0; j < j_count; ++j) values[j] = butterfly(w, values[j], r, false);
    if (m > 1) {
      // Position inside the sub-problem; in stage 0 the id itself.
      std::vector<std::string> p = ids;
      if (s > 0)
        for (int32_t j = 0; j < j_count; ++j) {
          p[j] = w.fresh("p");
          w.emit("int $ = $ % $;", p[j], ids[j], m);
        }
      reg_twiddles(w, values, p, static_cast<int32_t>(shape.n / l), r, j_count, shape.fast);
    }
    if (s + 1 == count) break;
    const bool last = s + 2 == count;
    std::vector<std::string> next_ids;
    if (!last) next_ids = declare_ids(w, shape.ept / shape.stages[s + 1], shape.threads());
    values = exchange_step(w, shape, s, values, ids, next_ids, last);
    ids = std::move(next_ids);
  }
  return values;
}

int64_t register_offset(const RegisterShape& shape, int32_t j, int32_t e) {
  return static_cast<int64_t>(j) * shape.threads() + static_cast<int64_t>(e) * (shape.n / shape.stages.back());
}

RegisterElement register_element(const Backend& backend, int compute_prec, bool exchange, bool pair,
                                  bool half_exchange) {
  if (!exchange) return {"cplx", complex_bytes(compute_prec)};
  if (pair) return {backend.pair_type(0), 4};
  if (half_exchange) return {backend.real_type(0), 2};
  return {backend.real_type(compute_prec), complex_bytes(compute_prec) / 2};
}

std::string register_kernel(int32_t n, const std::vector<int32_t>& stages, int compute_prec, const Backend& backend,
                            bool inverse, int32_t fpb, int io_prec, int32_t ept, bool exchange, bool pair,
                            bool half_exchange) {
  pair = pair && compute_prec == 0 && exchange && !inverse;
  half_exchange = half_exchange && exchange && io_prec == 0 && compute_prec != 0;
  const RegisterShape shape{n, stages, ept, exchange, compute_prec == 0};
  check_register_shape(shape);
  const int32_t t = shape.threads();
  const std::string real = backend.real_type(compute_prec);

  std::string text = pair ? backend.preamble(0) + types_prelude(backend) + pair_prelude(backend)
                          : fft_prelude(backend, compute_prec, io_prec);
  if (inverse) text += invsc_define(backend, compute_prec, n);
  text += shp_define(false);
  const std::string shared_type = register_element(backend, compute_prec, exchange, pair, half_exchange).type;
  KernelSig sig("ondrel_fft", backend, fft_params());
  sig.bound_threads = fpb * t;
  sig.set_shared(shared_type, "shbuf");
  text += sig.head();

  KernelWriter w(compute_prec, backend);
  add_fft_tables(w, compute_prec, n, "tw", stages);
  const std::string tx = backend.thread_x();
  w.emit("int tid = $ % $;", tx, t);
  w.emit("I64 batch = (I64)$ * $ + $ / $;", backend.block_x(), fpb, tx, t);
  if (pair) {
    pair_rows(w);
    w.emit("const DEV iot* xa = x + r0c * $;", n);
    w.emit("const DEV iot* xc = x + r1c * $;", n);
  } else {
    w.line("I64 brow = batch < nrows - 1 ? batch : nrows - 1;");
    w.emit("const DEV iot* xb = x + brow * $;", n);
  }
  w.emit("TG $* v = shbuf + ($ / $) * $;", shared_type, tx, t, shape.row_elements());
  if (exchange) w.emit("int wb = tid * $;", ept + 1);

  // Inverse kernels transform the conjugate and conjugate the result.
  const char* neg = inverse ? "-" : "";
  std::vector<std::string> ids;
  RegisterValues values = register_load(
      w, shape,
      [&](const std::string& q, int32_t, int64_t off) {
        const std::string u = w.fresh("u");
        if (pair) {
          const std::string a = w.fresh("ta"), b = w.fresh("tb");
          w.emit("iot $ = xa[$ + $]; iot $ = xc[$ + $]; cplx $ = cmk($, $);", a, q, off, b, q, off, u,
                 backend.half2_join(a + ".x", b + ".x"), backend.half2_join(a + ".y", b + ".y"));
        } else {
          const std::string s = w.fresh("t");
          w.emit("iot $ = xb[$ + $]; cplx $ = cmk(($)$.x, $($)$.y);", s, q, off, u, real, s, neg, real, s);
        }
        return u;
      },
      ids);
  values = register_walk(w, shape, std::move(values), std::move(ids));

  const std::string eps = inverse ? " * INVSC" : "";
  const auto stored = [&](const std::string& v) {
    return backend.make_pair(io_prec, v + ".x" + eps, std::string(neg) + "(" + v + ".y" + eps + ")");
  };
  const int32_t j_last = ept / stages.back();
  if (exchange) {
    for (int32_t j = 0; j < j_last; ++j)
      for (int32_t e = 0; e < stages.back(); ++e) {
        const int64_t off = register_offset(shape, j, e);
        const std::string& v = values[j][e];
        if (pair) {
          w.emit("if (row0 < nrows) out[row0 * $ + $] = $;", n, tid_plus(off),
                 backend.half2_join(backend.half2_low(v + ".x"), backend.half2_low(v + ".y")));
          w.emit("if (row1 < nrows) out[row1 * $ + $] = $;", n, tid_plus(off),
                 backend.half2_join(backend.half2_high(v + ".x"), backend.half2_high(v + ".y")));
        } else {
          w.emit("if (batch < nrows) { out[batch * $ + $] = $; }", n, tid_plus(off), stored(v));
        }
      }
  } else {
    // Through the row, so that each store instruction writes consecutive
    // elements.
    for (int32_t j = 0; j < j_last; ++j)
      for (int32_t e = 0; e < stages.back(); ++e)
        w.emit("v[SHP($)] = $;", tid_plus(register_offset(shape, j, e)), values[j][e]);
    w.sync();
    for (int32_t i = 0; i < n; i += t)
      w.emit("if (batch < nrows) { cplx t = v[SHP($)]; out[batch * $ + $] = $; }", tid_plus(i), n, tid_plus(i),
             stored("t"));
  }
  return text + w.text() + "}\n";
}

}  // namespace ondrel::codegen
