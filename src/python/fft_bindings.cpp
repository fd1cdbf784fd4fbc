// The Fourier transforms group: staged and resident complex FFTs.
#include <complex>
#include <cstdint>

#include "cuda_like/ops/fft.hpp"
#include "cuda_like/ops/fft_launch.hpp"
#include "python/bindings.hpp"
#include "python/frame.hpp"

namespace ondrel::python {

namespace {

template <class T>
py::object fft_staged(const py::array& x, bool inverse) {
  using C = std::complex<T>;
  const CArray<C> a = as_c_array<C>(x);
  check_rank(a, 2, "fft: x must be [B, N] complex");
  const py::ssize_t rows = a.shape(0), n = a.shape(1);
  check_rows("fft", n, rows);
  FftOptions options;
  options.inverse = inverse;
  options.prec = full_width(sizeof(T) == 8);
  return staged_call<C>(a, {rows, n}, Upload::direct, [&](const void* dx, void* dy) {
    fft(dx, dy, rows, static_cast<int32_t>(n), options);
  });
}

}  // namespace

FftOptions resident_options(bool inverse, int32_t prec, int32_t dev, uintptr_t stream) {
  FftOptions options;
  options.inverse = inverse;
  options.prec = precision_code(prec);
  options.device = dev;
  options.stream = stream_handle(stream);
  return options;
}

void register_fourier(py::module_& m) {
  m.def(
      "fft_staged",
      [](const py::array& x, bool inverse) {
        return dtype_is<std::complex<double>>(x) ? fft_staged<double>(x, inverse) : fft_staged<float>(x, inverse);
      },
      py::arg("x"), py::arg("inverse"),
      "Complex FFT of a (batch, n) array; the inverse is scaled by 1/n. complex128 runs in double, "
      "everything else in single.");
  register_real_staged(m);
  m.def(
      "fft_resident",
      [](uintptr_t x, uintptr_t out, int64_t rows, int32_t n, bool inverse, int32_t prec, int32_t dev,
         uintptr_t stream) {
        fft(device_address(x), device_address(out), rows, n, resident_options(inverse, prec, dev, stream));
      },
      py::call_guard<py::gil_scoped_release>(),
      py::arg("x"), py::arg("out"), py::arg("B"), py::arg("N"), py::arg("inverse"), py::arg("prec"), py::arg("dev"),
      py::arg("stream"),
      "Complex FFT of B rows of N interleaved complex elements between device addresses, enqueued on `stream` "
      "of device `dev`; the inverse is scaled by 1/N. prec: 0 half, 1 single, 2 double, 3 half data with packed "
      "half arithmetic where a kernel has it.");
  register_real_resident(m);
}

}  // namespace ondrel::python
