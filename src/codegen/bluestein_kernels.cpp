#include "codegen/bluestein_kernels.hpp"

#include "codegen/body_heads.hpp"
#include "codegen/fft_stages.hpp"
#include "codegen/kernel_sig.hpp"
#include "codegen/kernel_writer.hpp"
#include "codegen/macros.hpp"
#include "codegen/prelude.hpp"
#include "math/fft_schedule.hpp"

namespace ondrel::codegen {

int64_t bluestein_row_elements(int32_t m, int prec) {
  return (m >> (prec == 2 ? 3 : 4)) + m + 1 + rader_scratch(m);
}

KernelParams bluestein_row_params(const std::string& in, const std::string& out, const std::string& real) {
  return {KernelParam::input(in, "x"),     KernelParam::output(out, "out"),   KernelParam::input("cplx", "tw"),
          KernelParam::input("cplx", "bch"), KernelParam::input("cplx", "filt"), KernelParam::value(real, "scale"),
          KernelParam::value("int", "nrows")};
}

std::string bluestein_fused_kernel(int32_t n, int32_t m, const std::vector<int32_t>& schedule, int prec,
                                   int32_t tpf, const Backend& backend) {
  const std::string real = backend.real_type(prec);
  std::string text = backend.preamble(prec) + complex_prelude(backend, prec) + shp_define_bluestein(prec) +
                     iot_typedef(backend, prec, prec) + define("TPF", std::to_string(tpf));
  KernelSig sig("ondrel_fft", backend, bluestein_row_params("iot", "iot", real));
  sig.bound_threads = tpf;
  sig.set_shared("cplx", "shbuf");
  text += sig.head();
  const int64_t stride = bluestein_row_elements(m, prec);
  KernelWriter w(prec, backend);
  add_fft_tables(w, prec, m, "tw", schedule);
  const std::string tx = backend.thread_x();
  w.emit("int tid = $ % TPF;", tx);
  w.emit("I64 batch = (I64)$ * $ + $ / TPF;", backend.block_x(), 1, tx);
  w.line("I64 brow = batch < nrows - 1 ? batch : nrows - 1;");
  w.emit("TG cplx* bufA = shbuf + ($ / TPF) * $;", tx, stride);
  w.emit("const DEV iot* xb = x + brow * $;", n);
  w.for_range("i", "tid", m, "TPF", [&] {
    w.emit("cplx zz = cmk(($)0, ($)0);", real, real);
    w.emit("if (i < $) zz = cmul(xb[i], bch[i]);", n);
    w.line("bufA[SHP(i)] = zz;");
  });
  w.sync();
  emit_stages(w, "bufA", m, schedule, tpf, false);
  w.sync();
  w.for_range("i", "tid", m, "TPF", [&] { w.line("bufA[SHP(i)] = cmul(bufA[SHP(i)], filt[i]);"); });
  w.sync();
  emit_stages(w, "bufA", m, schedule, tpf, true);
  // Surplus rows ran every barrier on a copy of the last row.
  w.line("if (batch >= nrows) return;");
  w.for_range("k", "tid", n, "TPF", [&] {
    w.line("cplx r = cmul(bufA[SHP(k)], bch[k]);");
    w.emit("out[batch * $ + k] = $;", n, backend.make_pair(prec, "r.x * scale", "r.y * scale"));
  });
  return text + w.text() + "}\n";
}

std::string bluestein_pair_kernel(int32_t n, int32_t m, const std::vector<int32_t>& schedule, int32_t tpf,
                                  bool inverse, const Backend& backend) {
  const std::string real = backend.real_type(1);
  std::string text = backend.preamble(1) + complex_prelude(backend, 1) + shp_define_bluestein(1) +
                     define("TPF", std::to_string(tpf));
  const std::string in = inverse ? "cplx" : real, out = inverse ? real : "cplx";
  KernelSig sig(inverse ? "ondrel_irfft" : "ondrel_rfft", backend, bluestein_row_params(in, out, real));
  sig.bound_threads = tpf;
  sig.set_shared("cplx", "shbuf");
  text += sig.head();
  const int64_t stride = bluestein_row_elements(m, 1);
  const int32_t bins = n / 2 + 1;
  KernelWriter w(1, backend);
  const std::string tx = backend.thread_x();
  w.emit("int tid = $ % TPF;", tx);
  w.emit("I64 batch = (I64)$ * $ + $ / TPF;", backend.block_x(), 1, tx);
  pair_rows(w);
  w.emit("TG cplx* bufA = shbuf + ($ / TPF) * $;", tx, stride);
  w.emit("const DEV $* xa = x + r0c * $;", in, inverse ? bins : n);
  w.emit("const DEV $* xc = x + r1c * $;", in, inverse ? bins : n);
  w.for_range("i", "tid", m, "TPF", [&] {
    w.emit("cplx zz = cmk(($)0, ($)0);", real, real);
    w.raw(format("  if (i < $) {\n", {n}));
    if (inverse) {
      // Each half spectrum extended by Hermitian symmetry; the pair packs
      // as a + i b, whose transform has the two real rows as its parts.
      w.line("cplx af, bf;");
      w.emit("if (i <= $) { af = xa[i]; bf = xc[i]; } else { cplx a = xa[$ - i]; cplx b = xc[$ - i]; "
             "af = cmk(a.x, -a.y); bf = cmk(b.x, -b.y); }",
             n / 2, n, n);
      // Bins 0 and n / 2 of a real row are real; an imaginary part left
      // there would leak into the other row of the pair.
      if (n % 2 == 0)
        w.emit("if (i == 0 || i == $) { af.y = ($)0; bf.y = ($)0; }", n / 2, real, real);
      else
        w.emit("if (i == 0) { af.y = ($)0; bf.y = ($)0; }", real, real);
      w.line("cplx cc = cmk(af.x - bf.y, af.y + bf.x);");
      w.line("zz = cmul(cc, bch[i]);");
    } else {
      w.line("zz = cmul(cmk(xa[i], xc[i]), bch[i]);");
    }
    w.raw("  }\n");
    w.line("bufA[SHP(i)] = zz;");
  });
  w.sync();
  emit_stages(w, "bufA", m, schedule, tpf, false);
  w.sync();
  w.for_range("i", "tid", m, "TPF", [&] { w.line("bufA[SHP(i)] = cmul(bufA[SHP(i)], filt[i]);"); });
  w.sync();
  emit_stages(w, "bufA", m, schedule, tpf, true);
  w.line("if (row0 >= nrows) return;");
  if (inverse) {
    w.for_range("k", "tid", n, "TPF", [&] {
      w.line("cplx r = cmul(bufA[SHP(k)], bch[k]);");
      w.emit("out[row0 * $ + k] = ($)(r.x * scale);", n, real);
      w.emit("if (row1 < nrows) out[row1 * $ + k] = ($)(r.y * scale);", n, real);
    });
  } else {
    // Z = X0 + i X1 of two real rows: X0 and X1 from bins k and n - k.
    w.for_range("k", "tid", bins, "TPF", [&] {
      w.line("cplx Zk = cmul(bufA[SHP(k)], bch[k]);");
      w.emit("int nk = (k == 0) ? 0 : $ - k;", n);
      w.line("cplx Znk = cmul(bufA[SHP(nk)], bch[nk]);");
      w.emit("$ x0r = ($)0.5 * (Zk.x + Znk.x) * scale, x0i = ($)0.5 * (Zk.y - Znk.y) * scale;", real, real, real);
      w.emit("$ x1r = ($)0.5 * (Zk.y + Znk.y) * scale, x1i = ($)(-0.5) * (Zk.x - Znk.x) * scale;", real, real, real);
      const std::string pair = backend.pair_constructor(1);
      w.emit("out[row0 * $ + k] = $(($)x0r, ($)x0i);", bins, pair, real, real);
      w.emit("if (row1 < nrows) out[row1 * $ + k] = $(($)x1r, ($)x1i);", bins, pair, real, real);
    });
  }
  return text + w.text() + "}\n";
}

}  // namespace ondrel::codegen
