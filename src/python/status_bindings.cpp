#include "python/bindings.hpp"
#include "rocm/deterministic.hpp"

namespace py = pybind11;

namespace ondrel::python {

namespace {
// The interface revision; callers compare it before relying on any signature.
constexpr int kAbiVersion = 3;
}  // namespace

void register_status(py::module_& m) {
  m.def("abi_version", [] { return kAbiVersion; },
        "Interface revision of this module.");
  m.def("set_deterministic", [](int on) { ondrel::set_deterministic(on != 0); }, py::arg("on"),
        "Process-wide switch: non-zero makes overlap-add sum frames in a fixed order "
        "instead of adding them atomically.");
}

}  // namespace ondrel::python
