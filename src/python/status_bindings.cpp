#include <pybind11/stl.h>

#include <utility>

#include "python/bindings.hpp"
#include "rocm/context.hpp"
#include "rocm/deterministic.hpp"
#include "rocm/device_pool.hpp"
#include "rocm/pinned_pool.hpp"

namespace py = pybind11;

namespace ondrel::python {

namespace {
// The interface revision; callers compare it before relying on any signature.
constexpr int kAbiVersion = 3;

std::pair<int, int> hiprtc_version() {
  std::pair<int, int> version{0, 0};
  if (const hip_dl::RtcApi* rtc = hip_dl::hiprtc_api()) rtc->Version(&version.first, &version.second);
  return version;
}
}  // namespace

void register_status(py::module_& m) {
  m.def("abi_version", [] { return kAbiVersion; }, "Interface revision of this module.");
  m.def("available", &ondrel::available,
        "True when a HIP runtime loads and reports a device; probed once per process.");
  m.def("hiprtc_available", [] { return hip_dl::hiprtc_api() != nullptr; },
        "True when the hipRTC entry points can be bound.");
  m.def("hiprtc_version", &hiprtc_version, "(major, minor) of hipRTC; (0, 0) when it is absent.");
  m.def("device_arch", &ondrel::device_arch, py::arg("dev") = 0,
        "Architecture name of a device, up to its first ':'; \"\" when the query fails.");
  m.def("device_count", &ondrel::device_count, "Number of HIP devices; 0 when the query fails.");
  m.def("device_name", &ondrel::device_name, py::arg("dev") = 0,
        "Name of a device; \"\" when the query fails.");
  m.def("set_deterministic", [](int on) { ondrel::set_deterministic(on != 0); }, py::arg("on"),
        "Process-wide switch: non-zero makes overlap-add sum frames in a fixed order "
        "instead of adding them atomically.");
  m.def(
      "drain_pool",
      [] {
        device_pool().drain();
        pinned_pool().drain();
      },
      "Gives every cached free block back to the runtime: device blocks, then pinned ones.");
  m.def(
      "clear_tables", [] {},
      "Does nothing: device tables live for the life of the process, and their content is a pure "
      "function of their key.");
}

}  // namespace ondrel::python
