#include "codegen/conv_adjoint_kernels.hpp"

#include "codegen/body_heads.hpp"
#include "codegen/kernel_writer.hpp"
#include "codegen/prelude.hpp"

namespace ondrel::codegen {

namespace {

std::string element(const ConvStage& s) { return s.complex ? "cplx" : "T"; }
std::string stored(const ConvStage& s) { return s.complex ? "cplx" : "S"; }

std::string stem(const ConvStage& s) {
  return std::to_string(s.compute) + "_" + std::to_string(s.complex ? s.compute : s.storage) +
         (s.complex ? "_x" : "");
}

// Complex rows use the complex prelude; real rows name T and S.
std::string head(const ConvStage& s, const Backend& backend) {
  if (s.complex) return backend.preamble(s.compute) + complex_prelude(backend, s.compute);
  return backend.preamble(s.storage == 0 ? 0 : s.compute) + types_prelude(backend) +
         real_typedefs(backend, s.compute, s.storage);
}

}  // namespace

KernelParams convstage_params(const ConvStage& stage) {
  return {KernelParam::input(stored(stage), "x"), KernelParam::output(element(stage), "out"),
          KernelParam::value("I64", "len"), KernelParam::value("I64", "nf"), KernelParam::value("I64", "off")};
}

KernelParams convrowsum_params(const ConvStage& stage) {
  return {KernelParam::input(element(stage), "x"), KernelParam::output(stored(stage), "y"),
          KernelParam::value("I64", "rows"), KernelParam::value("I64", "len")};
}

std::string convstage_key(const ConvStage& stage) {
  return "convstage_" + stem(stage) + (stage.complex && stage.conjugate ? "_c" : "") + (stage.reverse ? "_r" : "");
}

std::string convrowsum_key(const ConvStage& stage) { return "convrowsum_" + stem(stage); }

std::string convstage_kernel(const ConvStage& stage, const Backend& backend) {
  std::string text =
      head(stage, backend) + KernelSig("ondrel_convstage", backend, convstage_params(stage)).head();
  KernelWriter w(stage.compute, backend);
  flat_ids(w, "j", "len", "row", "");
  const std::string source = stage.reverse ? "x[row * len + (len - 1 - j)]" : "x[row * len + j]";
  if (!stage.complex)
    w.emit("out[row * nf + off + j] = (T)$;", source);
  else if (stage.conjugate)
    w.emit("cplx v = $; out[row * nf + off + j] = cmk(v.x, -v.y);", source);
  else
    w.emit("out[row * nf + off + j] = $;", source);
  return text + w.text() + "}\n";
}

std::string convrowsum_kernel(const ConvStage& stage, const Backend& backend) {
  std::string text =
      head(stage, backend) + KernelSig("ondrel_convrowsum", backend, convrowsum_params(stage)).head();
  KernelWriter w(stage.compute, backend);
  flat_ids(w, "j", "len", "row", "");
  if (stage.complex) {
    const std::string real = backend.real_type(stage.compute);
    w.emit("$ ar = ($)0, ai = ($)0;", real, real, real);
    w.line("for (I64 r = 0; r < rows; ++r) { cplx v = x[r * len + j]; ar += v.x; ai += v.y; }");
    w.line("y[j] = cmk(ar, ai);");
  } else {
    w.line("T acc = (T)0;");
    w.line("for (I64 r = 0; r < rows; ++r) acc += x[r * len + j];");
    w.emit("y[j] = $;", backend.convert(stage.storage, "acc"));
  }
  return text + w.text() + "}\n";
}

}  // namespace ondrel::codegen
