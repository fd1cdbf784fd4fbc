#include "codegen/conv_direct_kernels.hpp"

#include "codegen/body_heads.hpp"
#include "codegen/kernel_writer.hpp"
#include "codegen/prelude.hpp"

namespace ondrel::codegen {

KernelParams convdir_params() {
  return {KernelParam::input("S", "a"),    KernelParam::input("S", "b"),     KernelParam::output("S", "y"),
          KernelParam::value("I64", "n"),  KernelParam::value("I64", "m"),   KernelParam::value("I64", "L"),
          KernelParam::value("I64", "start"), KernelParam::value("int", "bshare")};
}

std::string convdir_kernel(int compute, int storage, const Backend& backend) {
  std::string text = backend.preamble(storage == 0 ? 0 : compute) + types_prelude(backend) +
                     real_typedefs(backend, compute, storage) +
                     KernelSig("ondrel_convdir", backend, convdir_params()).head();
  KernelWriter w(compute, backend);
  flat_ids(w, "i", "L", "r", "");
  w.line("I64 abase = r * n, bbase = bshare ? (I64)0 : r * m;");
  w.line("I64 t = i + start;");
  w.line("I64 jlo = t - (n - 1);");
  w.line("if (jlo < 0) jlo = 0;");
  w.line("I64 jhi = t < m - 1 ? t : m - 1;");
  w.line("T acc = (T)0;");
  w.line("for (I64 j = jlo; j <= jhi; ++j) acc += (T)b[bbase + j] * (T)a[abase + t - j];");
  w.emit("y[r * L + i] = $;", backend.convert(storage, "acc"));
  return text + w.text() + "}\n";
}

}  // namespace ondrel::codegen
