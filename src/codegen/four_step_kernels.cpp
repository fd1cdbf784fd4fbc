#include "codegen/four_step_kernels.hpp"

#include "codegen/fft_stages.hpp"
#include "codegen/kernel_sig.hpp"
#include "codegen/kernel_writer.hpp"
#include "codegen/macros.hpp"
#include "codegen/prelude.hpp"
#include "codegen/rader_stage.hpp"

namespace ondrel::codegen {

namespace {

// Two complex values per 16-byte access: float data on both sides, pairs of
// whole columns and even rows so every access stays aligned.
bool wide_pass(const FourStepPass& p, const Backend& backend) {
  return backend.has_wide_global_access() && p.compute_prec == 1 && p.data_prec != 0 && p.columns >= 2 &&
         p.columns % 2 == 0 && p.n1 % 2 == 0 && p.n2 % 2 == 0;
}

void load_tile(KernelWriter& w, const FourStepPass& p, bool wide, int32_t length, int32_t source_row) {
  const int32_t c = p.columns;
  const bool conj = p.inverse && p.pass == 1;
  if (wide) {
    const int32_t h = c / 2;
    const std::string quad = w.backend.quad_type();
    w.for_range("i", "tid", c * length / 2, "TPF", [&] {
      w.emit("$ q = ((const $*)(xb + (I64)($ / $) * $ + t0))[$ % $];", quad, quad, "i", h, source_row, "i", h);
      w.emit("int sb = ($ / $) * $ + 2 * ($ % $);", "i", h, c, "i", h);
      w.emit("scb[RSP(sb)] = cmk(q.x, $q.y);", conj ? "-" : "");
      w.emit("scb[RSP(sb + 1)] = cmk(q.z, $q.w);", conj ? "-" : "");
    });
    return;
  }
  const std::string real = w.backend.real_type(p.compute_prec);
  const std::string src = p.pass == 1 ? "iot" : "cplx";
  w.for_range("i", "tid", c * length, "TPF", [&] {
    w.emit("$ g = xb[(I64)($ / $) * $ + t0 + ($ % $)];", src, "i", c, source_row, "i", c);
    w.emit(conj ? "scb[RSP($)] = cmk(($)g.x, -($)g.y);" : "scb[RSP($)] = cmk(($)g.x, ($)g.y);", "i", real, real);
  });
}

// Pass 1: column t of the tile is input column t0 + t; its k2-th output is
// rotated by w_N^((t0 + t) k2) and lands at scratch (t0 + t) * n2 + k2.
void store_pass1(KernelWriter& w, const FourStepPass& p, bool wide) {
  const int32_t c = p.columns;
  if (wide) {
    const int32_t h = p.n2 / 2;
    w.for_range("i", "tid", c * h, "TPF", [&] {
      w.emit("int k2 = 2 * ($ % $); int t = $ / $;", "i", h, "i", h);
      w.emit("cplx va = scb[RSP(k2 * $ + t)];", c);
      w.emit("cplx vb = scb[RSP((k2 + 1) * $ + t)];", c);
      const std::string a = w.cmul("va", w.twiddle("((t0 + t) * k2)", p.n, false, false));
      const std::string b = w.cmul("vb", w.twiddle("((t0 + t) * (k2 + 1))", p.n, false, false));
      w.emit("$ q; q.x = $.x; q.y = $.y; q.z = $.x; q.w = $.y;", w.backend.quad_type(), a, a, b, b);
      w.emit("(($*)(ob + (I64)(t0 + t) * $))[k2 / 2] = q;", w.backend.quad_type(), p.n2);
    });
    return;
  }
  w.for_range("i", "tid", c * p.n2, "TPF", [&] {
    w.emit("int k2 = $ % $; int t = $ / $;", "i", p.n2, "i", p.n2);
    w.emit("cplx v = scb[RSP(k2 * $ + t)];", c);
    const std::string r = w.cmul("v", w.twiddle("((t0 + t) * k2)", p.n, false, false));
    w.emit("ob[(I64)(t0 + t) * $ + k2] = $;", p.n2, r);
  });
}

// Pass 2: output k1 of column t0 + t is bin k1 * n2 + t0 + t.
void store_pass2(KernelWriter& w, const FourStepPass& p, bool wide) {
  const int32_t c = p.columns;
  const std::string eps = p.inverse ? " * INVSC" : "";
  const std::string sign = p.inverse ? "-" : "";
  if (wide) {
    const int32_t h = c / 2;
    w.for_range("i", "tid", p.n1 * h, "TPF", [&] {
      w.emit("int k1 = $ / $; int u2 = $ % $;", "i", h, "i", h);
      w.emit("cplx va = scb[RSP(k1 * $ + 2 * u2)];", c);
      w.emit("cplx vb = scb[RSP(k1 * $ + 2 * u2 + 1)];", c);
      w.emit("$ q; q.x = va.x$; q.y = $va.y$; q.z = vb.x$; q.w = $vb.y$;", w.backend.quad_type(), eps, sign, eps, eps,
             sign, eps);
      w.emit("(($*)(ob + (I64)k1 * $ + t0))[u2] = q;", w.backend.quad_type(), p.n2);
    });
    return;
  }
  w.for_range("i", "tid", c * p.n1, "TPF", [&] {
    w.emit("int k1 = $ / $; int t = $ % $;", "i", c, "i", c);
    w.emit("cplx v = scb[RSP(k1 * $ + t)];", c);
    w.emit("ob[(I64)k1 * $ + t0 + t] = $;", p.n2,
           w.backend.make_pair(p.data_prec, "v.x" + eps, sign + "v.y" + eps));
  });
}

}  // namespace

KernelParams four_step_params(int pass) {
  return {KernelParam::input(pass == 1 ? "iot" : "cplx", "x"), KernelParam::output(pass == 1 ? "cplx" : "iot", "out"),
          KernelParam::input("cplx", "tw"), KernelParam::value("int", "nrows")};
}

int64_t four_step_tile_elements(int64_t count) { return count + 1 + ((count - 1) >> 4); }

std::string four_step_pass_kernel(const FourStepPass& p, const Backend& backend) {
  const int compute = p.compute_prec;
  std::string text = fft_prelude(backend, compute, p.data_prec);
  text += define("TPF", std::to_string(p.threads));
  text += rsp_define_tiles();
  if (p.inverse && p.pass == 2) text += invsc_define(backend, compute, p.n);
  const std::string src = p.pass == 1 ? "iot" : "cplx", dst = p.pass == 1 ? "cplx" : "iot";
  KernelSig sig("ondrel_fft", backend, four_step_params(p.pass));
  sig.bound_threads = p.threads;
  sig.set_shared("cplx", "shbuf");
  text += sig.head();

  KernelWriter w(compute, backend);
  add_fft_tables(w, compute, p.n, "tw", {});
  const int32_t length = p.pass == 1 ? p.n2 : p.n1;
  const int32_t source_row = p.pass == 1 ? p.n1 : p.n2;
  const bool wide = wide_pass(p, backend);
  w.emit("int tid = $;", backend.thread_x());
  w.emit("int t0 = $ * $;", backend.block_x(), p.columns);
  w.emit("I64 row = $;", backend.block_y());
  w.line("TG cplx* scb = shbuf;");
  w.emit("const DEV $* xb = x + row * $;", src, p.n);
  w.emit("DEV $* ob = out + row * $;", dst, p.n);
  load_tile(w, p, wide, length, source_row);
  w.sync();
  batched_stages(w, "scb", p.columns, length, p.threads);
  if (p.pass == 1)
    store_pass1(w, p, wide);
  else
    store_pass2(w, p, wide);
  return text + w.text() + "}\n";
}

}  // namespace ondrel::codegen
