#include "codegen/sample_kernel.hpp"

#include "codegen/body_heads.hpp"
#include "codegen/kernel_sig.hpp"
#include "codegen/kernel_writer.hpp"
#include "codegen/macros.hpp"
#include "codegen/prelude.hpp"

namespace ondrel::codegen {

std::string sample_kernel(const Backend& backend, int32_t n, int prec, bool inverse) {
  // Half data compute in float, as every kernel of the system does.
  const int compute = prec == 0 ? 1 : prec;
  std::string text = fft_prelude(backend, compute, prec == 0 ? 0 : compute);
  text += define("N", std::to_string(n));

  KernelSig sig("ondrel_rotate_" + std::to_string(n) + "_" + std::to_string(prec) +
                    (inverse ? "_i" : "_f"),
                backend);
  sig.bound_threads = 256;
  sig.add_const_pointer("iot", "x");
  sig.add_pointer("iot", "out");
  text += sig.head();

  KernelWriter w(compute, backend);
  flat_ids(w, "i", "N", "row", "");
  const std::string at = "row * N + i";
  const std::string real = backend.real_type(compute);
  const std::string v = w.let_cmk(format("($)x[$].x", {real, at}), format("($)x[$].y", {real, at}));
  const std::string t = w.twiddle("(int)i", n, false, inverse);
  const std::string r = w.cmul(v, t);
  w.emit("out[$] = $;", at,
         prec == 0 ? backend.make_pair(0, r + ".x", r + ".y") : r);
  return text + w.text() + "}\n";
}

}  // namespace ondrel::codegen
