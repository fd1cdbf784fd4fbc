#include "codegen/conv_kernels.hpp"

#include "codegen/body_heads.hpp"
#include "codegen/kernel_writer.hpp"
#include "codegen/prelude.hpp"

namespace ondrel::codegen {

namespace {

// Half data needs the dialect's half header; the arithmetic never runs in it.
std::string real_head(int compute, int storage, const Backend& backend) {
  return backend.preamble(storage == 0 ? 0 : compute) + types_prelude(backend) +
         real_typedefs(backend, compute, storage);
}

}  // namespace

KernelParams convpad_params() {
  return {KernelParam::input("S", "x"), KernelParam::output("T", "out"), KernelParam::value("I64", "n"),
          KernelParam::value("I64", "plen")};
}

KernelParams convmul_params() {
  return {KernelParam::input("cplx", "w"), KernelParam::output("cplx", "z"), KernelParam::value("I64", "nb"),
          KernelParam::value("int", "bstride")};
}

KernelParams convslice_params() {
  return {KernelParam::input("T", "x"), KernelParam::output("S", "y"), KernelParam::value("I64", "nf"),
          KernelParam::value("I64", "start"), KernelParam::value("I64", "outlen")};
}

std::string convpad_kernel(int compute, int storage, const Backend& backend) {
  std::string text =
      real_head(compute, storage, backend) + KernelSig("ondrel_convpad", backend, convpad_params()).head();
  KernelWriter w(compute, backend);
  flat_ids(w, "j", "plen", "row", "");
  w.line("out[row * plen + j] = j < n ? (T)x[row * n + j] : (T)0;");
  return text + w.text() + "}\n";
}

std::string convmul_kernel(int prec, const Backend& backend) {
  std::string text = backend.preamble(prec) + complex_prelude(backend, prec) +
                     KernelSig("ondrel_convmul", backend, convmul_params()).head();
  KernelWriter w(prec, backend);
  flat_ids(w, "i", "nb", "row", "");
  w.line("z[row * nb + i] = cmul(z[row * nb + i], w[(bstride ? row : 0) * nb + i]);");
  return text + w.text() + "}\n";
}

std::string convslice_kernel(int compute, int storage, const Backend& backend) {
  std::string text =
      real_head(compute, storage, backend) + KernelSig("ondrel_convslice", backend, convslice_params()).head();
  KernelWriter w(compute, backend);
  flat_ids(w, "j", "outlen", "row", "");
  w.emit("y[row * outlen + j] = $;", backend.convert(storage, "x[row * nf + start + j]"));
  return text + w.text() + "}\n";
}

}  // namespace ondrel::codegen
