// Griffin-Lim, of the inverse STFT group: staged and resident.
#include <complex>
#include <cstdint>
#include <stdexcept>

#include "cuda_like/ops/reconstruct.hpp"
#include "python/bindings.hpp"
#include "python/frame.hpp"

namespace ondrel::python {

namespace {

GriffinLimRequest request(const WindowSpec& spec, int32_t n_fft, int32_t hop, bool center, int32_t n_iter,
                          double momentum, int64_t length) {
  GriffinLimRequest r;
  r.n_fft = n_fft;
  r.hop = hop;
  r.center = center;
  r.n_iter = n_iter;
  r.momentum = momentum;
  r.length = length;
  r.window = &spec;
  return r;
}

template <class T>
py::object griffinlim_staged(const py::handle& s, const py::handle& ang, const py::handle& window, int32_t n_fft,
                             int32_t hop, bool center, int32_t n_iter, double momentum, int64_t length) {
  const CArray<T> a = as_c_array<T>(s);
  const CArray<std::complex<T>> phases = as_c_array<std::complex<T>>(ang);
  if (a.ndim() != 3 || phases.ndim() != 3)
    throw std::invalid_argument("griffinlim: expected (batch, frames, bins) planes");
  for (py::ssize_t d = 0; d < 3; ++d)
    if (a.shape(d) != phases.shape(d)) throw std::invalid_argument("griffinlim: phase plane must match S");
  const WindowSpec spec = window_spec(window);
  GriffinLimRequest r = request(spec, n_fft, hop, center, n_iter, momentum, length);
  r.batch = a.shape(0);
  r.frames = a.shape(1);
  r.bins = a.shape(2);
  r.is_double = sizeof(T) == 8;
  const int64_t samples = griffinlim_length(r);
  return staged_call<T>(a, {r.batch, static_cast<py::ssize_t>(samples)}, Upload::pinned,
                        [&](const void* ds, void* dy) {
                          const DeviceBuffer dang = to_device(phases.data(), static_cast<size_t>(phases.size()));
                          r.s = ds;
                          r.ang = dang.p;
                          r.y = dy;
                          griffinlim(r);
                        });
}

}  // namespace

void register_griffinlim(py::module_& m) {
  m.def(
      "griffinlim_staged",
      [](const py::array& s, const py::array& ang, const py::object& window, int32_t n_fft, int32_t hop,
         bool center, int32_t n_iter, double momentum, int64_t length) {
        return dtype_is_double(s) ? griffinlim_staged<double>(s, ang, window, n_fft, hop, center, n_iter, momentum,
                                                              length)
                                  : griffinlim_staged<float>(s, ang, window, n_fft, hop, center, n_iter, momentum,
                                                             length);
      },
      py::arg("S"), py::arg("ang"), py::arg("window"), py::arg("n_fft"), py::arg("hop"), py::arg("center"),
      py::arg("n_iter"), py::arg("momentum"), py::arg("length"),
      "Griffin-Lim phase recovery: from magnitudes S (batch, frames, n_fft // 2 + 1) and complex unit phases ang "
      "of the same shape, n_iter rounds of z = istft(S * ang), Z = stft(z) and ang = U / (|U| + 1e-16) with U = Z "
      "- alpha * (the previous round's Z), alpha = momentum / (momentum + 1), then the inverse STFT of S * ang: "
      "(batch, length) samples, or all the frames cover less the padding when length < 1. Window, n_fft, hop and "
      "center as for stft_staged. float64 magnitudes run in double, everything else in single.");
  m.def(
      "griffinlim_resident",
      [](uintptr_t s, uintptr_t ang, uintptr_t y, int64_t batch, int64_t frames, int64_t bins, int32_t n_fft,
         int32_t hop, bool center, int32_t n_iter, double momentum, int64_t length, const py::object& window,
         int32_t prec, int32_t device, uintptr_t stream) {
        if (prec == 0) throw std::invalid_argument("griffinlim: half planes compute in f32 - upcast the tensors");
        const WindowSpec spec = window_spec(window);
        GriffinLimRequest r = request(spec, n_fft, hop, center, n_iter, momentum, length);
        r.s = device_address(s);
        r.ang = device_address(ang);
        r.y = device_address(y);
        r.batch = batch;
        r.frames = frames;
        r.bins = bins;
        r.is_double = prec == 2;
        r.device = device;
        r.stream = stream_handle(stream);
        without_gil([&] { griffinlim(r); });
      },
      py::arg("s_ptr"), py::arg("ang_ptr"), py::arg("y_ptr"), py::arg("batch"), py::arg("frames"), py::arg("bins"),
      py::arg("n_fft"), py::arg("hop"), py::arg("center"), py::arg("n_iter"), py::arg("momentum"),
      py::arg("length"), py::arg("window"), py::arg("prec"), py::arg("device") = 0, py::arg("stream") = 0,
      "griffinlim_staged between device addresses on `stream`: S (batch, frames, bins) reals, ang the same shape "
      "of complex pairs, which the call overwrites with the last phases, y batch rows of the result. prec 2 runs "
      "double, 0 is refused (half planes), anything else runs float.");
}

}  // namespace ondrel::python
