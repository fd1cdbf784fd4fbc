#include "codegen/fft_kernel.hpp"

#include "codegen/fft_stages.hpp"
#include "codegen/kernel_sig.hpp"
#include "codegen/macros.hpp"
#include "codegen/prelude.hpp"
#include "math/fft_schedule.hpp"

namespace ondrel::codegen {

namespace {

// Global row to shared row, conjugated for inverse kernels. Half data and
// even single rows move 16 bytes a thread and step.
void load_row(KernelWriter& w, int32_t n, int compute, int io, bool inverse, bool pad) {
  const std::string real = w.backend.real_type(compute), quad = w.backend.quad_type();
  const char* sign = inverse ? "-" : "";
  const bool single_wide = compute == 1 && io == 1 && n % 2 == 0 && !pad;
  if (io == 0 && n % 4 == 0) {
    w.for_range("i", "tid", n / 4, "TPF", [&] {
      w.emit("$ t = ((const $*)xb)[i];", quad, quad);
      w.line("const iot* hp = (const iot*)&t;");
      for (int k = 0; k < 4; ++k)
        w.emit("bufA[SHP(4 * i + $)] = cmk(($)hp[$].x, $($)hp[$].y);", k, real, k, sign, real, k);
    });
  } else if (single_wide && inverse) {
    w.for_range("i", "tid", n / 2, "TPF", [&] {
      w.emit("$ t = ((const $*)xb)[i];", quad, quad);
      w.line("bufA[SHP(2 * i)] = cmk(t.x, -t.y);");
      w.line("bufA[SHP(2 * i + 1)] = cmk(t.z, -t.w);");
    });
  } else if (single_wide) {
    w.async_or_plain(
        [&] {
          w.for_range("i", "tid", n / 2, "TPF",
                      [&] { w.async_copy("bufA[SHP(2 * i)]", format("((const $*)xb) + i", {quad})); });
        },
        [&] {
          w.for_range("i", "tid", n / 2, "TPF", [&] {
            w.emit("$ t = ((const $*)xb)[i];", quad, quad);
            w.line("bufA[SHP(2 * i)] = cmk(t.x, t.y);");
            w.line("bufA[SHP(2 * i + 1)] = cmk(t.z, t.w);");
          });
        });
  } else if (inverse) {
    w.for_range("i", "tid", n, "TPF",
                [&] { w.emit("iot v = xb[i]; bufA[SHP(i)] = cmk(($)v.x, -($)v.y);", real, real); });
  } else if (compute == 2 && io == 2) {
    w.async_or_plain([&] { w.for_range("i", "tid", n, "TPF", [&] { w.async_copy("bufA[SHP(i)]", "xb + i"); }); },
                     [&] { w.for_range("i", "tid", n, "TPF", [&] { w.line("bufA[SHP(i)] = xb[i];"); }); });
  } else {
    w.for_range("i", "tid", n, "TPF",
                [&] { w.emit("iot v = xb[i]; bufA[SHP(i)] = cmk(($)v.x, ($)v.y);", real, real); });
  }
}

// Shared row to global row: conjugated and scaled by 1/n for inverse kernels.
void store_row(KernelWriter& w, int32_t n, int compute, int io, bool inverse, bool pad) {
  const std::string eps = inverse ? " * INVSC" : "";
  const std::string sign = inverse ? "-" : "";
  const std::string quad = w.backend.quad_type();
  if (io == 0 && n % 4 == 0) {
    w.for_range("i", "tid", n / 4, "TPF", [&] {
      w.emit("$ t; iot* hp = (iot*)&t;", quad);
      for (int k = 0; k < 4; ++k) {
        const std::string r = format("r$", {k});
        w.emit("cplx $ = bufA[SHP(4 * $ + $)];", r, "i", k);
        w.emit("hp[$] = $;", k, w.backend.make_pair(0, r + ".x" + eps, sign + "(" + r + ".y" + eps + ")"));
      }
      w.emit("(($*)(out + batch * $))[i] = t;", quad, n);
    });
  } else if (compute == 1 && io == 1 && n % 2 == 0 && !pad) {
    w.for_range("i", "tid", n / 2, "TPF", [&] {
      w.line("cplx a = bufA[SHP(2 * i)]; cplx c = bufA[SHP(2 * i + 1)];");
      w.emit("(($*)(out + batch * $))[i] = $;", quad, n,
             w.backend.make_quad("a.x" + eps, sign + "(a.y" + eps + ")", "c.x" + eps, sign + "(c.y" + eps + ")"));
    });
  } else {
    w.for_range("i", "tid", n, "TPF", [&] {
      w.emit("cplx r = bufA[SHP(i)]; out[batch * $ + i] = $;", n,
             w.backend.make_pair(io, "r.x" + eps, sign + "(r.y" + eps + ")"));
    });
  }
}

}  // namespace

KernelParams fft_params() {
  return {KernelParam::input("iot", "x"), KernelParam::output("iot", "out"), KernelParam::input("cplx", "tw"),
          KernelParam::value("int", "nrows")};
}

int64_t fft_row_elements(int32_t n, bool pad) { return (pad ? n + 1 + n / 16 : n) + rader_scratch(n); }

std::string fft_kernel(int32_t n, const std::vector<int32_t>& schedule, int compute_prec, int32_t tpf,
                       const Backend& backend, bool inverse, int32_t fpb, int io_prec, bool pad) {
  std::string text = fft_prelude(backend, compute_prec, io_prec);
  text += define("TPF", std::to_string(tpf));
  if (inverse) text += invsc_define(backend, compute_prec, n);
  text += shp_define(pad);
  KernelSig sig("ondrel_fft", backend, fft_params());
  sig.bound_threads = tpf * fpb;
  sig.set_shared("cplx", "shbuf");
  text += sig.head();

  KernelWriter w(compute_prec, backend);
  add_fft_tables(w, compute_prec, n, "tw", schedule);
  const std::string tx = backend.thread_x(), wide = backend.wide_int_type();
  w.emit("int tid = $ % TPF;", tx);
  w.emit("$ batch = ($)$ * $ + $ / TPF;", wide, wide, backend.block_x(), fpb, tx);
  w.emit("$ brow = batch < nrows - 1 ? batch : nrows - 1;", wide);
  w.emit("cplx* bufA = shbuf + ($ / TPF) * $;", tx, fft_row_elements(n, pad));
  w.emit("const iot* xb = x + brow * $;", n);
  load_row(w, n, compute_prec, io_prec, inverse, pad);
  w.sync();
  emit_stages(w, "bufA", n, schedule, tpf, false);
  // Surplus rows of the last block ran every barrier on a copy of the last
  // row; only now may they leave.
  w.line("if (batch >= nrows) return;");
  store_row(w, n, compute_prec, io_prec, inverse, pad);
  return text + w.text() + "}\n";
}

}  // namespace ondrel::codegen
