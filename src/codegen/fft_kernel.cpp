#include "codegen/fft_kernel.hpp"

#include "codegen/fft_stages.hpp"
#include "codegen/macros.hpp"
#include "codegen/prelude.hpp"
#include "math/fft_schedule.hpp"

namespace ondrel::codegen {

namespace {

// Asynchronous global-to-shared copies exist from sm_80 on; every other
// compiler (HIP included) takes the plain branch.
constexpr const char* kAsyncGuard = "#if __CUDA_ARCH__ >= 800\n";

void async_tail(KernelWriter& w) {
  w.line("asm volatile(\"cp.async.commit_group;\");");
  w.line("asm volatile(\"cp.async.wait_group 0;\");");
  w.raw("#else\n");
}

// Global row to shared row, conjugated for inverse kernels. Half data and
// even single rows move 16 bytes a thread and step.
void load_row(KernelWriter& w, int32_t n, int compute, int io, bool inverse, bool pad) {
  const std::string real = w.backend.real_type(compute);
  const char* sign = inverse ? "-" : "";
  const bool single_wide = compute == 1 && io == 1 && n % 2 == 0 && !pad;
  if (io == 0 && n % 4 == 0) {
    w.for_range("i", "tid", n / 4, "TPF", [&] {
      w.line("float4 t = ((const float4*)xb)[i];");
      w.line("const iot* hp = (const iot*)&t;");
      for (int k = 0; k < 4; ++k)
        w.emit("bufA[SHP(4 * i + $)] = cmk(($)hp[$].x, $($)hp[$].y);", k, real, k, sign, real, k);
    });
  } else if (single_wide && inverse) {
    w.for_range("i", "tid", n / 2, "TPF", [&] {
      w.line("float4 t = ((const float4*)xb)[i];");
      w.line("bufA[SHP(2 * i)] = cmk(t.x, -t.y);");
      w.line("bufA[SHP(2 * i + 1)] = cmk(t.z, -t.w);");
    });
  } else if (single_wide) {
    w.raw(kAsyncGuard);
    w.for_range("i", "tid", n / 2, "TPF", [&] {
      w.line("{ unsigned sa = (unsigned)__cvta_generic_to_shared(&bufA[SHP(2 * i)]);");
      w.line("  asm volatile(\"cp.async.cg.shared.global [%0], [%1], 16;\" :: \"r\"(sa), \"l\"(((const float4*)xb) + i)); }");
    });
    async_tail(w);
    w.for_range("i", "tid", n / 2, "TPF", [&] {
      w.line("float4 t = ((const float4*)xb)[i];");
      w.line("bufA[SHP(2 * i)] = cmk(t.x, t.y);");
      w.line("bufA[SHP(2 * i + 1)] = cmk(t.z, t.w);");
    });
    w.raw("#endif\n");
  } else if (inverse) {
    w.for_range("i", "tid", n, "TPF",
                [&] { w.emit("iot v = xb[i]; bufA[SHP(i)] = cmk(($)v.x, -($)v.y);", real, real); });
  } else if (compute == 2 && io == 2) {
    w.raw(kAsyncGuard);
    w.for_range("i", "tid", n, "TPF", [&] {
      w.line("{ unsigned sa = (unsigned)__cvta_generic_to_shared(&bufA[SHP(i)]);");
      w.line("  asm volatile(\"cp.async.cg.shared.global [%0], [%1], 16;\" :: \"r\"(sa), \"l\"(xb + i)); }");
    });
    async_tail(w);
    w.for_range("i", "tid", n, "TPF", [&] { w.line("bufA[SHP(i)] = xb[i];"); });
    w.raw("#endif\n");
  } else {
    w.for_range("i", "tid", n, "TPF",
                [&] { w.emit("iot v = xb[i]; bufA[SHP(i)] = cmk(($)v.x, ($)v.y);", real, real); });
  }
}

// Shared row to global row: conjugated and scaled by 1/n for inverse kernels.
void store_row(KernelWriter& w, int32_t n, int compute, int io, bool inverse, bool pad) {
  const std::string eps = inverse ? " * INVSC" : "";
  const std::string sign = inverse ? "-" : "";
  if (io == 0 && n % 4 == 0) {
    w.for_range("i", "tid", n / 4, "TPF", [&] {
      w.line("float4 t; iot* hp = (iot*)&t;");
      for (int k = 0; k < 4; ++k) {
        const std::string r = format("r$", {k});
        w.emit("cplx $ = bufA[SHP(4 * $ + $)];", r, "i", k);
        w.emit("hp[$] = $;", k, w.backend.make_pair(0, r + ".x" + eps, sign + "(" + r + ".y" + eps + ")"));
      }
      w.emit("((float4*)(out + batch * $))[i] = t;", n);
    });
  } else if (compute == 1 && io == 1 && n % 2 == 0 && !pad) {
    w.for_range("i", "tid", n / 2, "TPF", [&] {
      w.line("cplx a = bufA[SHP(2 * i)]; cplx c = bufA[SHP(2 * i + 1)];");
      w.emit("((float4*)(out + batch * $))[i] = make_float4(a.x$, $(a.y$), c.x$, $(c.y$));", n, eps, sign, eps, eps,
             sign, eps);
    });
  } else {
    w.for_range("i", "tid", n, "TPF", [&] {
      w.emit("cplx r = bufA[SHP(i)]; out[batch * $ + i] = $;", n,
             w.backend.make_pair(io, "r.x" + eps, sign + "(r.y" + eps + ")"));
    });
  }
}

}  // namespace

std::string fft_kernel(int32_t n, const std::vector<int32_t>& schedule, int compute_prec, int32_t tpf,
                       const Backend& backend, bool inverse, int32_t fpb, int io_prec, bool pad) {
  std::string text = backend.preamble(io_prec != 0 ? compute_prec : 0) + complex_prelude(backend, compute_prec);
  text += "typedef " + (io_prec == compute_prec ? std::string("cplx") : backend.pair_type(io_prec)) + " iot;\n";
  text += define("TPF", std::to_string(tpf));
  if (inverse) text += invsc_define(backend, compute_prec, n);
  text += shp_define(pad);
  text += backend.kernel_head() + backend.launch_bounds(tpf * fpb, -1) + " ondrel_fft(" +
          backend.const_pointer("iot") + " x, " + backend.pointer("iot") + " out, " +
          backend.pointer_param(true, "cplx", "tw", 2) + ", " + backend.value_param("int", "nrows", 3) + ") {\n  " +
          backend.shared_array("cplx", "shbuf") + "\n";

  KernelWriter w(compute_prec, backend);
  add_fft_tables(w, compute_prec, n, "tw", schedule);
  const int64_t stride = (pad ? n + 1 + n / 16 : n) + rader_scratch(n);
  const std::string tx = backend.thread_x();
  w.emit("int tid = $ % TPF;", tx);
  w.emit("long long batch = (long long)$ * $ + $ / TPF;", backend.block_x(), fpb, tx);
  w.line("long long brow = batch < nrows - 1 ? batch : nrows - 1;");
  w.emit("cplx* bufA = shbuf + ($ / TPF) * $;", tx, stride);
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
