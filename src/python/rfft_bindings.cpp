// The real-input FFTs of the Fourier transforms group, staged and resident.
#include <complex>
#include <cstdint>

#include "cuda_like/ops/rfft.hpp"
#include "python/bindings.hpp"
#include "python/frame.hpp"

namespace ondrel::python {

namespace {

// Host rows to device, one real transform, device rows back to a new array.
template <class T, class In, class Out>
py::object real_staged(const CArray<In>& a, int32_t n, py::ssize_t cols_out, bool inverse) {
  const py::ssize_t rows = a.shape(0);
  if (rows == 0 && n > 0) return pinned_array<Out>({rows, cols_out});
  select_device(0);
  const size_t in_bytes = static_cast<size_t>(rows) * static_cast<size_t>(a.shape(1)) * sizeof(In);
  const size_t out_bytes = static_cast<size_t>(rows) * static_cast<size_t>(cols_out) * sizeof(Out);
  DeviceBuffer dx(in_bytes, nullptr), dy(out_bytes, nullptr);
  hip_check(hip_dl::api().MemcpyHtoD(dx.p, const_cast<In*>(a.data()), in_bytes), __FILE__, __LINE__,
            "memcpyHtoD(dx.p, x.data(), bytes)");
  FftOptions options;
  options.inverse = inverse;
  rfft<T>(dx.p, dy.p, rows, n, options);
  py::array_t<Out> out = pinned_array<Out>({rows, cols_out});
  copy_back(out.mutable_data(), dy.p, out_bytes, "memcpyDtoH(out.mutable_data(), dy.p, bytes)");
  return out;
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

void real_resident(uintptr_t x, uintptr_t out, int64_t rows, int32_t n, bool inverse, int32_t prec, int32_t dev,
                   uintptr_t stream) {
  FftOptions options;
  options.inverse = inverse;
  // No packed arithmetic here: code 3 is plain half data.
  options.half = prec == 0 || prec == 3;
  options.device = dev;
  options.stream = stream_handle(stream);
  if (prec == 2) rfft<double>(device_address(x), device_address(out), rows, n, options);
  else rfft<float>(device_address(x), device_address(out), rows, n, options);
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
        real_resident(x, out, rows, n, false, prec, dev, stream);
      },
      py::arg("x"), py::arg("out"), py::arg("B"), py::arg("N"), py::arg("prec"), py::arg("dev"), py::arg("stream"),
      "Real-input FFT between device addresses, enqueued on `stream`. prec: 0 half, 1 single, 2 double.");
  m.def(
      "irfft_resident",
      [](uintptr_t x, uintptr_t out, int64_t rows, int32_t n, int32_t prec, int32_t dev, uintptr_t stream) {
        real_resident(x, out, rows, n, true, prec, dev, stream);
      },
      py::arg("X"), py::arg("out"), py::arg("B"), py::arg("n"), py::arg("prec"), py::arg("dev"), py::arg("stream"),
      "Inverse real FFT between device addresses, enqueued on `stream`: n // 2 + 1 bins to n samples a row.");
}

}  // namespace ondrel::python
