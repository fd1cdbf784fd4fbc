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
  const bool chirp = p.fuse == FourStepFuse::chirp_load || p.fuse == FourStepFuse::chirp_store;
  return !chirp && backend.has_wide_global_access() && p.compute_prec == 1 && p.data_prec != 0 && p.columns >= 2 &&
         p.columns % 2 == 0 && p.n1 % 2 == 0 && p.n2 % 2 == 0;
}

// Columns of the row the pass's tiles cover: n1 in pass 1, n2 in pass 2.
int32_t tile_row(const FourStepPass& p) { return p.pass == 1 ? p.n1 : p.n2; }

// The last tile of a row is ragged when the width doesn't divide the row:
// its missing columns load as zeros and are not stored, so every tile keeps
// its full width of contiguous row segments.
bool ragged(const FourStepPass& p) { return tile_row(p) % p.columns != 0; }

// Element j of the length-n row is the data value j times the chirp, zero
// from chirp_n on; in mode 2 the half spectrum is extended by Hermitian
// symmetry and bin 0 is taken as real.
void load_chirp_value(KernelWriter& w, const FourStepPass& p, const std::string& real) {
  const int32_t nc = p.chirp_n;
  w.emit("cplx zz = cmk(($)0, ($)0);", real, real);
  w.raw(format("  if (j < $) {\n", {nc}));
  switch (p.chirp_mode) {
    case 0:
      w.emit("iot v = xb[j]; zz = cmul(cmk(($)v.x, ($)v.y), bch[j]);", real, real);
      break;
    case 1:
      w.emit("zz = cmul(cmk(($)xb[j], ($)0), bch[j]);", real, real);
      break;
    default:
      w.line("cplx xi;");
      w.emit("if (j <= $) { iot v = xb[j]; xi = cmk(($)v.x, ($)v.y); } else { iot c = xb[$ - j]; xi = cmk(($)c.x, "
             "-($)c.y); }",
             nc / 2, real, real, nc, real, real);
      w.emit("if (j == 0) xi.y = ($)0;", real);
      w.line("zz = cmul(xi, bch[j]);");
      break;
  }
  w.raw("  }\n");
}

void load_tile(KernelWriter& w, const FourStepPass& p, bool wide, int32_t length, int32_t source_row) {
  const int32_t c = p.columns;
  const bool conj = p.inverse && p.pass == 1;
  const std::string real = w.backend.real_type(p.compute_prec);
  if (wide) {
    const int32_t h = c / 2;
    const std::string quad = w.backend.quad_type();
    w.for_range("i", "tid", c * length / 2, "TPF", [&] {
      w.emit("int sb = ($ / $) * $ + 2 * ($ % $);", "i", h, c, "i", h);
      // Row and column counts are even here, so a pair is whole or missing.
      if (ragged(p))
        w.emit("if (t0 + 2 * ($ % $) >= $) { scb[RSP(sb)] = cmk(($)0, ($)0); scb[RSP(sb + 1)] = cmk(($)0, ($)0); "
               "continue; }",
               "i", h, tile_row(p), real, real, real, real);
      w.emit("$ q = ((const $*)(xb + (I64)($ / $) * $ + t0))[$ % $];", quad, quad, "i", h, source_row, "i", h);
      w.emit("scb[RSP(sb)] = cmk(q.x, $q.y);", conj ? "-" : "");
      w.emit("scb[RSP(sb + 1)] = cmk(q.z, $q.w);", conj ? "-" : "");
    });
    return;
  }
  const std::string src = p.pass == 1 ? "iot" : "cplx";
  w.for_range("i", "tid", c * length, "TPF", [&] {
    if (ragged(p))
      w.emit("if (t0 + ($ % $) >= $) { scb[RSP($)] = cmk(($)0, ($)0); continue; }", "i", c, tile_row(p), "i", real,
             real);
    if (p.fuse == FourStepFuse::chirp_load) {
      w.emit("int j = ($ / $) * $ + t0 + ($ % $);", "i", c, source_row, "i", c);
      load_chirp_value(w, p, real);
      w.emit("scb[RSP($)] = zz;", "i");
      return;
    }
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
      if (ragged(p)) w.emit("if (t0 + t >= $) continue;", p.n1);
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
    if (ragged(p)) w.emit("if (t0 + t >= $) continue;", p.n1);
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
      if (ragged(p)) w.emit("if (t0 + 2 * u2 >= $) continue;", p.n2);
      w.emit("cplx va = scb[RSP(k1 * $ + 2 * u2)];", c);
      w.emit("cplx vb = scb[RSP(k1 * $ + 2 * u2 + 1)];", c);
      if (p.fuse == FourStepFuse::filter_store) {
        w.emit("va = cmul(va, filt[k1 * $ + t0 + 2 * u2]);", p.n2);
        w.emit("vb = cmul(vb, filt[k1 * $ + t0 + 2 * u2 + 1]);", p.n2);
      }
      w.emit("$ q; q.x = va.x$; q.y = $va.y$; q.z = vb.x$; q.w = $vb.y$;", w.backend.quad_type(), eps, sign, eps, eps,
             sign, eps);
      w.emit("(($*)(ob + (I64)k1 * $ + t0))[u2] = q;", w.backend.quad_type(), p.n2);
    });
    return;
  }
  w.for_range("i", "tid", c * p.n1, "TPF", [&] {
    w.emit("int k1 = $ / $; int t = $ % $;", "i", c, "i", c);
    if (ragged(p)) w.emit("if (t0 + t >= $) continue;", p.n2);
    w.emit("I64 k = (I64)k1 * $ + t0 + t;", p.n2);
    if (p.fuse == FourStepFuse::chirp_store) {
      const int32_t count = p.chirp_mode == 1 ? p.chirp_n / 2 + 1 : p.chirp_n;
      w.emit("if (k >= $) continue;", count);
    }
    w.emit("cplx v = scb[RSP(k1 * $ + t)];", c);
    switch (p.fuse) {
      case FourStepFuse::filter_store:
        w.line("ob[k] = cmul(v, filt[k]);");
        break;
      case FourStepFuse::chirp_store: {
        // The conjugation closes the inverse transform; `scale` holds its 1 / n.
        w.line("cplx r = cmul(cmk(v.x, -v.y), bch[k]);");
        w.emit("ob[k] = $;", p.chirp_mode == 2 ? w.backend.convert(p.data_prec, "r.x * scale")
                                                 : w.backend.make_pair(p.data_prec, "r.x * scale", "r.y * scale"));
        break;
      }
      default:
        w.emit("ob[k] = $;", w.backend.make_pair(p.data_prec, "v.x" + eps, sign + "v.y" + eps));
    }
  });
}

}  // namespace

KernelParams four_step_params(const FourStepPass& p, const Backend& backend) {
  // Real rows are plain reals of the data's precision (__half for half data).
  const std::string real_data = backend.real_type(p.data_prec);
  switch (p.fuse) {
    case FourStepFuse::chirp_load:
      return {KernelParam::input(p.chirp_mode == 1 ? real_data : "iot", "x"), KernelParam::output("cplx", "out"),
              KernelParam::input("cplx", "tw"), KernelParam::input("cplx", "bch"), KernelParam::value("int", "nrows")};
    case FourStepFuse::filter_store:
      return {KernelParam::input("cplx", "x"), KernelParam::output("iot", "out"), KernelParam::input("cplx", "tw"),
              KernelParam::input("cplx", "filt"), KernelParam::value("int", "nrows")};
    case FourStepFuse::chirp_store:
      return {KernelParam::input("cplx", "x"), KernelParam::output(p.chirp_mode == 2 ? real_data : "iot", "out"),
              KernelParam::input("cplx", "tw"), KernelParam::input("cplx", "bch"),
              KernelParam::value(backend.real_type(p.compute_prec), "scale"), KernelParam::value("int", "nrows")};
    default:
      return {KernelParam::input(p.pass == 1 ? "iot" : "cplx", "x"),
              KernelParam::output(p.pass == 1 ? "cplx" : "iot", "out"), KernelParam::input("cplx", "tw"),
              KernelParam::value("int", "nrows")};
  }
}

int64_t four_step_tile_elements(int64_t count) { return count + 1 + ((count - 1) >> 4); }

std::string four_step_pass_kernel(const FourStepPass& p, const Backend& backend) {
  const int compute = p.compute_prec;
  std::string text = fft_prelude(backend, compute, p.data_prec);
  text += define("TPF", std::to_string(p.threads));
  text += rsp_define_tiles();
  if (p.inverse && p.pass == 2) text += invsc_define(backend, compute, p.n);
  const KernelParams params = four_step_params(p, backend);
  KernelSig sig("ondrel_fft", backend, params);
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
  // Chirp steps read or write rows of the data, not of the padded length.
  const int32_t nc = p.chirp_n;
  const int64_t in_row = p.fuse != FourStepFuse::chirp_load ? p.n : p.chirp_mode == 2 ? nc / 2 + 1 : nc;
  const int64_t out_row = p.fuse != FourStepFuse::chirp_store ? p.n : p.chirp_mode == 1 ? nc / 2 + 1 : nc;
  w.emit("const DEV $* xb = x + row * $;", params[0].type, in_row);
  w.emit("DEV $* ob = out + row * $;", params[1].type, out_row);
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
