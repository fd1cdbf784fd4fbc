#include "codegen/fft_stages.hpp"

#include <algorithm>
#include <cmath>
#include <numbers>
#include <stdexcept>

#include "codegen/rader_stage.hpp"
#include "math/fft_schedule.hpp"

namespace ondrel::codegen {

namespace {

using Names = std::vector<std::string>;

// i * x, without a multiplication.
std::string times_i(KernelWriter& w, const std::string& x) { return w.let_cmk("-" + x + ".y", x + ".x"); }

Names radix2(KernelWriter& w, const Names& a) { return {w.cadd(a[0], a[1]), w.csub(a[0], a[1])}; }

// The classic radix-3 form: one real scale by sqrt(3)/2 instead of two
// complex products.
Names radix3_double(KernelWriter& w, const Names& a, bool inverse) {
  const std::string s = w.cadd(a[1], a[2]), d = w.csub(a[1], a[2]);
  const std::string y0 = w.cadd(a[0], s);
  const std::string u = w.csub(a[0], w.scale(s, 0.5, 0.5));
  const std::string r = times_i(w, w.scale(d, 0.8660254037844386, 0.8660254037844386));
  const std::string y1 = w.csub(u, r), y2 = w.cadd(u, r);
  return inverse ? Names{y0, y2, y1} : Names{y0, y1, y2};
}

Names radix5_double(KernelWriter& w, const Names& a, bool inverse) {
  constexpr double c = 0.5590169943749475, s1 = 0.9510565162951535, s2 = 0.5877852522924732;
  const std::string t1 = w.cadd(a[1], a[4]), t2 = w.cadd(a[2], a[3]);
  const std::string t3 = w.csub(a[1], a[4]), t4 = w.csub(a[2], a[3]);
  const std::string t5 = w.cadd(t1, t2), t6 = w.csub(t1, t2);
  const std::string y0 = w.cadd(a[0], t5);
  const std::string m = w.csub(a[0], w.scale(t5, 0.25, 0.25));
  const std::string q = w.scale(t6, c, c);
  const std::string e = w.cadd(m, q), f = w.csub(m, q);
  const std::string g = w.cadd(w.scale(t3, s1, s1), w.scale(t4, s2, s2));
  const std::string h = w.csub(w.scale(t3, s2, s2), w.scale(t4, s1, s1));
  const std::string r = times_i(w, g), v = times_i(w, h);
  const std::string y1 = w.csub(e, r), y4 = w.cadd(e, r), y2 = w.csub(f, v), y3 = w.cadd(f, v);
  return inverse ? Names{y0, y4, y3, y2, y1} : Names{y0, y1, y2, y3, y4};
}

Names direct_sum(KernelWriter& w, const Names& a, int32_t radix, bool inverse) {
  Names y(radix);
  for (int32_t k = 0; k < radix; ++k) {
    std::string acc = a[0];
    for (int32_t j = 1; j < radix; ++j) {
      const int32_t e = j * k % radix;
      acc = w.cadd(acc, e == 0 ? a[j] : w.cmul(a[j], w.root_twiddle(e, radix, inverse)));
    }
    y[k] = acc;
  }
  return y;
}

// Odd primes by symmetric pairs: real scales of sums and differences, so a
// radix-R butterfly costs (R-1)^2/2 real scales instead of (R-1)^2 products.
Names prime_pairs(KernelWriter& w, const Names& a, int32_t radix) {
  const int32_t half = (radix - 1) / 2;
  Names p(half + 1), m(half + 1), y(radix);
  for (int32_t j = 1; j <= half; ++j) {
    p[j] = w.cadd(a[j], a[radix - j]);
    m[j] = w.csub(a[j], a[radix - j]);
  }
  std::string y0 = a[0];
  for (int32_t j = 1; j <= half; ++j) y0 = w.cadd(y0, p[j]);
  y[0] = y0;
  for (int32_t k = 1; k <= half; ++k) {
    std::string acc = a[0], b;
    for (int32_t j = 1; j <= half; ++j) {
      const double theta = 2.0 * std::numbers::pi * static_cast<double>(j * k % radix) / radix;
      acc = w.cadd(acc, w.scale(p[j], std::cos(theta), std::cos(theta)));
      const std::string s = w.scale(m[j], std::sin(theta), std::sin(theta));
      b = j == 1 ? s : w.cadd(b, s);
    }
    const std::string r = times_i(w, b);
    y[k] = w.csub(acc, r);
    y[radix - k] = w.cadd(acc, r);
  }
  return y;
}

// Stockham steps over the prime factors with literal twiddles; the inverse
// of the whole radix is scaled by 1/radix.
Names composite(KernelWriter& w, const Names& values, int32_t radix, bool inverse) {
  int32_t rest = 1;
  Names x = values;
  int32_t l = 1;
  for (int32_t q : smooth_factors(radix, rest)) {
    const int32_t groups = radix / q;
    Names y(radix);
    for (int32_t t = 0; t < groups; ++t) {
      const int32_t i = t % l, j = t / l;
      Names in(q);
      for (int32_t k = 0; k < q; ++k) {
        in[k] = x[t + k * groups];
        if (k > 0 && i != 0) in[k] = w.cmul(in[k], w.root_twiddle(static_cast<int64_t>(k) * i, l * q, inverse));
      }
      const Names out = butterfly(w, in, q, inverse);
      for (int32_t k = 0; k < q; ++k) y[j * l * q + i + k * l] = out[k];
    }
    x = std::move(y);
    l *= q;
  }
  if (inverse)
    for (std::string& v : x) v = w.scale(v, 1.0 / radix, 1.0 / radix);
  return x;
}

// The register Rader is forward only; its inverse is the conjugate of the
// forward transform of the conjugates.
Names conjugated(KernelWriter& w, const Names& values) {
  Names c(values.size());
  for (size_t k = 0; k < values.size(); ++k) c[k] = w.let_cmk(values[k] + ".x", "-" + values[k] + ".y");
  return c;
}

}  // namespace

void add_fft_tables(KernelWriter& w, int compute_prec, int32_t n, const std::string& base,
                    const std::vector<int32_t>& schedule) {
  if (compute_prec != 2) return;
  w.add_table(n, base);
  for (int32_t r : schedule)
    if (r > 13 && is_prime(r)) w.add_table(r - 1, "(" + base + " + " + std::to_string(n) + ")");
}

void apply_twiddles(KernelWriter& w, std::vector<std::string>& values, const std::string& index,
                    int32_t span, int32_t radix, bool inverse) {
  if (w.table_stride(span) > 0) {
    for (int32_t k = 1; k < radix; ++k)
      values[k] = w.cmul(values[k], w.twiddle(std::to_string(k) + " * " + index, span, false, inverse));
    return;
  }
  // One sincos per butterfly; the higher powers by products.
  const std::string root = w.twiddle(index, span, false, inverse);
  std::string power = root;
  for (int32_t k = 1; k < radix; ++k) {
    if (k > 1) power = w.cmul(power, root);
    values[k] = w.cmul(values[k], power);
  }
}

std::vector<std::string> butterfly(KernelWriter& w, const std::vector<std::string>& values, int32_t radix,
                                   bool inverse) {
  if (radix == 2) return radix2(w, values);
  if (radix == 3 && w.prec == 2) return radix3_double(w, values, inverse);
  if (radix == 5 && w.prec == 2) return radix5_double(w, values, inverse);
  if (radix == 3 || radix == 5) return direct_sum(w, values, radix, inverse);
  if (!is_prime(radix)) return composite(w, values, radix, inverse);
  if (radix <= 13) {
    Names y = prime_pairs(w, values, radix);
    if (inverse)
      for (int32_t k = 1; k <= (radix - 1) / 2; ++k) std::swap(y[k], y[radix - k]);
    return y;
  }
  if (!inverse) return rader_butterfly(w, values, radix);
  return conjugated(w, rader_butterfly(w, conjugated(w, values), radix));
}

void stage_pass(KernelWriter& w, const std::string& array, int32_t n, int32_t radix, int32_t ls,
                int32_t tpf, const std::string& label, bool conj) {
  const int32_t groups = n / radix;
  const int32_t rounds = (groups + tpf - 1) / tpf;
  struct Round {
    std::string t, i, j;
    Names values;
  };
  std::vector<Round> work(rounds);
  w.raw("  {  // " + label + "\n");
  for (int32_t p = 0; p < rounds; ++p) {
    Round& r = work[p];
    r.t = w.fresh("t");
    r.i = w.fresh("ii");
    r.j = w.fresh("jj");
    w.emit("int $ = tid + $;", r.t, p * tpf);
    w.emit("int $ = 0, $ = 0;", r.i, r.j);
    for (int32_t k = 0; k < radix; ++k) {
      r.values.push_back(w.fresh("g"));
      w.emit("cplx $;", r.values.back());
    }
    w.raw(format("  if ($ < $) {\n", {r.t, groups}));
    w.emit("$ = $ % $; $ = $ / $;", r.i, r.t, ls, r.j, r.t, ls);
    for (int32_t k = 0; k < radix; ++k) w.emit("$ = $[SHP($ + $)];", r.values[k], array, r.t, k * groups);
    w.raw("  }\n");
  }
  w.sync();
  for (Round& r : work) {
    w.raw(format("  if ($ < $) {\n", {r.t, groups}));
    if (ls > 1) apply_twiddles(w, r.values, r.i, radix * ls, radix, conj);
    const Names out = butterfly(w, r.values, radix, conj);
    for (int32_t k = 0; k < radix; ++k)
      w.emit("$[SHP($*$ + $ + $)] = $;", array, r.j, radix * ls, r.i, k * ls, out[k]);
    w.raw("  }\n");
  }
  w.sync();
  w.raw("  }\n");
}

std::string emit_stages(KernelWriter& w, const std::string& array, int32_t n, const std::vector<int32_t>& schedule,
                        int32_t tpf, bool conj) {
  int32_t ls = 1;
  for (int32_t r : schedule) {
    if (r > 13 && is_prime(r)) {
      // The cooperative stage has only the forward direction; no caller
      // that conjugates its stages has a Rader prime in its schedule.
      if (conj) throw std::logic_error("emit_stages: a Rader stage has no conjugated form");
      rader_stage(w, array, n, r, ls, tpf);
    } else {
      stage_pass(w, array, n, r, ls, tpf, "in-place radix-" + std::to_string(r) + " (Ls=" + std::to_string(ls) + ")",
                 conj);
    }
    ls *= r;
  }
  return array;
}

std::vector<int32_t> pass_list(const FusedFft& plan) {
  const int32_t total = ilog2(plan.m);
  const int32_t per_pass = std::max(1, ilog2(std::max(1, plan.ept)));
  std::vector<int32_t> passes;
  for (int32_t done = 0; done < total; done += passes.back()) passes.push_back(std::min(per_pass, total - done));
  return passes;
}

void ct_passes(KernelWriter& w, const FusedFft& plan) {
  const int32_t m = plan.m, bits = ilog2(m);
  int32_t s0 = 0;
  for (int32_t c : pass_list(plan)) {
    const int32_t span = 1 << s0, radix = 1 << c, len = span * radix;
    w.raw(format("  {  // CT pass: stages $..$ (radix-$)\n", {s0, s0 + c - 1, radix}));
    w.for_range("j", "tid", std::to_string(m) + "/" + std::to_string(radix), "TPF", [&] {
      w.emit("int grp = j / $, pos = j % $;", span, span);
      w.emit("int base_i = grp*$ + pos;", len);
      Names v(radix);
      for (int32_t k = 0; k < radix; ++k) {
        v[k] = w.fresh("r");
        w.emit("cplx $ = sh[SHP(base_i + $)];", v[k], k * span);
      }
      for (int32_t t = 0; t < c; ++t) {
        const int32_t half = 1 << t, shift = bits - s0 - t - 1;
        for (int32_t k = 0; k < radix; ++k) {
          if (k & half) continue;
          const int32_t e = k & (half - 1);
          std::string b = v[k + half];
          if (s0 == 0 && w.prec == 2) {
            // The first pass has pos 0: its twiddles are constants.
            const int64_t exponent = static_cast<int64_t>(e) << shift;
            if (4 * exponent == m) {
              b = w.let_cmk(b + ".y", "-" + b + ".x");
            } else if (exponent != 0) {
              const double angle = -2.0 * std::numbers::pi * static_cast<double>(exponent) / m;
              b = w.mul_const(b, std::cos(angle), std::sin(angle));
            }
          } else {
            std::string index = e == 0 ? std::string("pos") : format("(pos + $)", {e * span});
            if (shift != 0) index = format("($ << $)", {index, shift});
            b = w.cmul(b, w.twiddle(index, m, plan.tw_table, false));
          }
          const std::string top = v[k];
          v[k + half] = w.csub(top, b);
          v[k] = w.cadd(top, b);
        }
      }
      for (int32_t k = 0; k < radix; ++k) w.emit("sh[SHP(base_i + $)] = $;", k * span, v[k]);
    });
    w.raw("  }\n");
    w.sync();
    s0 += c;
  }
}

}  // namespace ondrel::codegen
