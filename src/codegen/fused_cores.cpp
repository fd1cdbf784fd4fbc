#include "codegen/fused_cores.hpp"

#include <cmath>
#include <numbers>
#include <stdexcept>
#include <vector>

#include "codegen/kernel_sig.hpp"
#include "codegen/macros.hpp"
#include "codegen/prelude.hpp"
#include "math/fft_schedule.hpp"

namespace ondrel::codegen {

namespace {

using Names = std::vector<std::string>;

// A twiddle of the circle `span` (a divisor of m): from the staged table of
// the circle of m at the scaled index, else as KernelWriter computes it.
std::string circle_twiddle(KernelWriter& w, const FusedFft& plan, const std::string& index, int32_t span) {
  if (plan.tw_table) return w.twiddle(format("($) * $", {index, plan.m / span}), plan.m, true, false);
  return w.twiddle(index, span, false, false);
}

// Bit-reversed radix-2 FFT of the registers, with literal twiddles.
Names register_fft(KernelWriter& w, Names v) {
  const auto count = static_cast<int32_t>(v.size());
  const int32_t bits = ilog2(count);
  Names r(count);
  for (int32_t i = 0; i < count; ++i) {
    int32_t rev = 0;
    for (int32_t b = 0; b < bits; ++b) rev |= ((i >> b) & 1) << (bits - 1 - b);
    r[rev] = v[i];
  }
  for (int32_t half = 1; half < count; half *= 2)
    for (int32_t k = 0; k < count; k += 2 * half)
      for (int32_t i = 0; i < half; ++i) {
        std::string b = r[k + i + half];
        if (i != 0) b = w.cmul(b, w.root_twiddle(static_cast<int64_t>(i) * (count / (2 * half)), count, false));
        const std::string top = r[k + i];
        r[k + i + half] = w.csub(top, b);
        r[k + i] = w.cadd(top, b);
      }
  return r;
}

}  // namespace

void warp_core(KernelWriter& w, const FusedFft& plan, const LoadHook& register_load, const LoadHook& row_load) {
  const int32_t lanes = w.backend.warp_width();
  if (plan.tpf != lanes || static_cast<int64_t>(plan.ept) * plan.tpf != plan.m) {
    row_load();
    ct_passes(w, plan);
    return;
  }
  const int32_t e_count = plan.ept;
  const std::string real = w.backend.real_type(w.prec);
  for (int32_t e = 0; e < e_count; ++e) {
    w.emit("int ie$ = $ + tid;", e, e * lanes);
    w.emit("$ a$=($)0, b$=($)0;", real, e, real, e, real);
  }
  w.if_block("frame < NFRAMES", register_load);
  Names v(e_count);
  for (int32_t e = 0; e < e_count; ++e) {
    v[e] = w.fresh("z");
    w.emit("cplx $ = cmk(a$, b$);", v[e], e, e);
  }
  // Output k1 of the register FFT, times the twiddle of tid * k1 on the
  // circle of m, is the input k1 of a 32-point FFT across the lanes.
  v = register_fft(w, v);
  if (e_count > 1) {
    const std::string root = circle_twiddle(w, plan, "tid", plan.m);
    std::string power = root;
    for (int32_t e = 1; e < e_count; ++e) {
      if (e > 1) power = w.cmul(power, root);
      v[e] = w.cmul(v[e], power);
    }
  }
  const int32_t lane_bits = ilog2(lanes);
  const std::string u = w.backend.unsigned_type();
  w.emit("$ brev = $ >> (32 - $);", u, w.backend.bit_reverse("(" + u + ")tid"), lane_bits);
  // Decimation in frequency across the lanes: the lane with the bit clear
  // keeps the sum, its partner the twiddled difference.
  for (int32_t s = 0; s < lane_bits; ++s) {
    const int32_t h = lanes >> (s + 1);
    const std::string wt = circle_twiddle(w, plan, format("((tid & $) << $)", {h - 1, s}), lanes);
    const std::string cond = format("((tid & $) == 0)", {h});
    for (std::string& x : v) {
      const std::string p = w.fresh("p"), n = w.fresh("n");
      w.emit("cplx $ = cmk($, $);", p, w.backend.shuffle_xor(x + ".x", std::to_string(h)),
             w.backend.shuffle_xor(x + ".y", std::to_string(h)));
      w.emit("cplx $ = $ ? cadd($, $) : cmul(csub($, $), $);", n, cond, x, p, p, x, wt);
      x = n;
    }
  }
  for (int32_t e = 0; e < e_count; ++e) w.emit("sh[SHP($ + $*brev)] = $;", e, e_count, v[e]);
  w.sync();
}

void ept16_core(KernelWriter& w, const FusedFft& plan, const LoadHook& load) {
  const std::vector<int32_t> radices = pow2_stages(ilog2(plan.m));
  if (radices.empty() || plan.m / radices[0] != plan.tpf)
    throw std::logic_error("ept16_core: tpf must be m over the first radix");
  const int32_t r0 = radices[0], tpf = plan.tpf;
  const std::string real = w.backend.real_type(w.prec);
  w.raw(format("  {  // EPT16 stage 0: fused load + radix-$\n", {r0}));
  for (int32_t e = 0; e < r0; ++e) {
    w.emit("int k$ = tid + $;", e, e * tpf);
    w.emit("$ ar$=($)0, ai$=($)0;", real, e, real, e, real);
  }
  w.if_block("frame < NFRAMES", load);
  Names v(r0);
  for (int32_t e = 0; e < r0; ++e) {
    v[e] = w.fresh("z");
    w.emit("cplx $ = cmk(ar$, ai$);", v[e], e, e);
  }
  const Names out = butterfly(w, v, r0, false);
  for (int32_t e = 0; e < r0; ++e) w.emit("sh[SHP(tid*$ + $)] = $;", r0, e, out[e]);
  w.raw("  }\n");
  w.sync();
  int32_t ls = r0;
  for (size_t i = 1; i < radices.size(); ++i) {
    const int32_t r = radices[i];
    stage_pass(w, "sh", plan.m, r, ls, tpf,
               "EPT16 stage " + std::to_string(i) + ": radix-" + std::to_string(r) + " (Ls=" + std::to_string(ls) + ")",
               false);
    ls *= r;
  }
}

std::string fused_fft_kernel(const FusedFft& plan, int core, int prec, const Backend& backend) {
  const int32_t m = plan.m, tpf = plan.tpf;
  const int32_t twn = plan.tw_table ? m / 2 : 0;
  std::string text = backend.preamble(prec) + complex_prelude(backend, prec) + brev_define(backend, ilog2(m));
  text += define("TPF", std::to_string(tpf)) + shp_define(true);
  KernelSig sig("ondrel_fused_fft", backend,
                {KernelParam::input("cplx", "x"), KernelParam::output("cplx", "out"), KernelParam::input("cplx", "tw"),
                 KernelParam::value("int", "NFRAMES")});
  sig.bound_threads = tpf;
  sig.set_shared("cplx", "sh_all");
  text += sig.head();

  KernelWriter w(prec, backend);
  w.emit("int tid = $;", backend.thread_x());
  w.emit("int frame = $;", backend.block_x());
  w.emit("TG cplx* sh = sh_all + $;", twn);
  w.emit("const DEV cplx* xb = x + (I64)frame * $;", m);
  if (plan.tw_table) {
    w.line("cplx* twsh = sh_all;");
    w.for_range("i", "tid", twn, "TPF", [&] { w.line("twsh[i] = tw[i];"); });
    w.sync();
  }
  const LoadHook row_load = [&] {
    w.for_range("i", "tid", m, "TPF", [&] {
      w.emit("cplx v = cmk(($)0, ($)0);", backend.real_type(prec), backend.real_type(prec));
      w.if_block("frame < NFRAMES", [&] { w.line("v = xb[i];"); });
      w.line("sh[SHP(brev(i))] = v;");
    });
    w.sync();
  };
  if (core == 0) {
    row_load();
    ct_passes(w, plan);
  } else if (core == 1) {
    warp_core(w, plan, [&] {
      for (int32_t e = 0; e < plan.ept; ++e) w.emit("a$ = xb[ie$].x; b$ = xb[ie$].y;", e, e, e, e);
    }, row_load);
  } else if (core == 3) {
    const int32_t r0 = m / tpf;
    ept16_core(w, plan, [&] {
      for (int32_t e = 0; e < r0; ++e) w.emit("ar$ = xb[k$].x; ai$ = xb[k$].y;", e, e, e, e);
    });
  } else {
    throw std::invalid_argument("fused_fft_kernel: core must be 0, 1 or 3");
  }
  w.if_block("frame < NFRAMES", [&] {
    w.for_range("i", "tid", m, "TPF", [&] { w.emit("out[(I64)frame * $ + i] = sh[SHP(i)];", m); });
  });
  return text + w.text() + "}\n";
}

}  // namespace ondrel::codegen
