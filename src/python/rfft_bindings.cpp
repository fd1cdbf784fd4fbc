// The real-input FFTs of the Fourier transforms group, staged and resident.
#include <complex>
#include <cstdint>

#include "cuda_like/ops/fft_launch.hpp"
#include "cuda_like/ops/rfft.hpp"
#include "python/bindings.hpp"
#include "python/frame.hpp"

namespace ondrel::python {

namespace {

// Host rows to device, one real transform, device rows back to a new array.
template <class T, class In, class Out>
py::object real_staged(const CArray<In>& a, int32_t n, py::ssize_t cols_out, bool inverse) {
  const py::ssize_t rows = a.shape(0);
  check_rows("rfft", n, rows);
  FftOptions options;
  options.inverse = inverse;
  options.prec = full_width(sizeof(T) == 8);
  return staged_call<Out>(a, {rows, cols_out}, Upload::direct,
                          [&](const void* dx, void* dy) { rfft(dx, dy, rows, n, options); });
}

template <class T>
py::object rfft_staged(const py::array& x) {
  const CArray<T> a = as_c_array<T>(x);
  check_rank(a, 2, "rfft: x must be [B, N] real");
  const auto n = static_cast<int32_t>(a.shape(1));
  return real_staged<T, T, std::complex<T>>(a, n, n / 2 + 1, false);
}

template <class T>
py::object irfft_staged(const py::array& x, int32_t n) {
  constexpr const char* kShape = "irfft: X must be [B, n // 2 + 1] complex";
  const CArray<std::complex<T>> a = as_c_array<std::complex<T>>(x);
  check_rank(a, 2, kShape);
  if (n < 0 || a.shape(1) != n / 2 + 1) throw std::invalid_argument(kShape);
  return real_staged<T, std::complex<T>, T>(a, n, n, true);
}

}  // namespace

void register_real_staged(py::module_& m) {
  m.def(
      "rfft_staged",
      [](const py::array& x) { return dtype_is<double>(x) ? rfft_staged<double>(x) : rfft_staged<float>(x); },
      py::arg("x"),
      "Real-input FFT of a (batch, n) array: (batch, n // 2 + 1) bins. float64 runs in double, everything else "
      "in single.");
  m.def(
      "irfft_staged",
      [](const py::array& x, int32_t n) {
        return dtype_is<std::complex<double>>(x) ? irfft_staged<double>(x, n) : irfft_staged<float>(x, n);
      },
      py::arg("X"), py::arg("n"),
      "Inverse of rfft_staged: (batch, n // 2 + 1) bins to (batch, n) samples. complex128 runs in double, "
      "everything else in single.");
}

void register_real_resident(py::module_& m) {
  m.def(
      "rfft_resident",
      [](uintptr_t x, uintptr_t out, int64_t rows, int32_t n, int32_t prec, int32_t dev, uintptr_t stream) {
        rfft(device_address(x), device_address(out), rows, n, resident_options(false, prec, dev, stream));
      },
      py::call_guard<py::gil_scoped_release>(),
      py::arg("x"), py::arg("out"), py::arg("B"), py::arg("N"), py::arg("prec"), py::arg("dev"), py::arg("stream"),
      "Real-input FFT between device addresses, enqueued on `stream` of device `dev`: B rows of N reals to B "
      "rows of N // 2 + 1 complex bins. prec: 0 half, 1 single, 2 double; 3 runs as 0.");
  m.def(
      "irfft_resident",
      [](uintptr_t x, uintptr_t out, int64_t rows, int32_t n, int32_t prec, int32_t dev, uintptr_t stream) {
        rfft(device_address(x), device_address(out), rows, n, resident_options(true, prec, dev, stream));
      },
      py::call_guard<py::gil_scoped_release>(),
      py::arg("X"), py::arg("out"), py::arg("B"), py::arg("n"), py::arg("prec"), py::arg("dev"), py::arg("stream"),
      "Inverse real FFT between device addresses, enqueued on `stream` of device `dev`: B rows of n // 2 + 1 "
      "complex bins to B rows of n reals. prec: 0 half, 1 single, 2 double; 3 runs as 0.");
}

}  // namespace ondrel::python
