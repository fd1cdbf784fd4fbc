// ondrel._codegen: kernel texts for reading, without a device. The demo
// prints one; nothing here compiles or launches.
#include <pybind11/pybind11.h>

#include "codegen/backend.hpp"
#include "codegen/sample_kernel.hpp"

namespace py = pybind11;

PYBIND11_MODULE(_codegen, m) {
  m.doc() = "ondrel kernel-text generator, for inspection";
  m.def(
      "sample_kernel",
      [](int n, int prec, bool inverse) {
        if (n < 1) throw py::value_error("sample_kernel: n must be positive");
        return ondrel::codegen::sample_kernel(ondrel::codegen::hip_backend(), n, prec, inverse);
      },
      py::arg("n"), py::arg("prec") = 1, py::arg("inverse") = false,
      "Text of the twiddle-rotation kernel for rows of length n in the HIP dialect.");
}
