// The inverse STFT of the STFT group, staged and resident.
#include <complex>
#include <cstdint>

#include "cuda_like/ops/istft.hpp"
#include "python/bindings.hpp"
#include "python/frame.hpp"

namespace ondrel::python {

namespace {

template <class T>
py::object istft_staged(const py::handle& z, const py::handle& window, int32_t n_fft, int32_t hop, bool center,
                        int64_t length) {
  const CArray<std::complex<T>> a = as_c_array<std::complex<T>>(z);
  check_rank(a, 3, "expected a 3-D (batch, frames, bins) array");
  const WindowSpec spec = window_spec(window);
  IstftRequest r;
  r.batch = a.shape(0);
  r.frames = a.shape(1);
  r.bins = a.shape(2);
  r.stride_batch = r.frames * r.bins;
  r.stride_bin = 1;
  r.stride_frame = r.bins;
  r.n_fft = n_fft;
  r.hop = hop;
  r.center = center;
  r.length = length;
  r.window = &spec;
  r.prec = full_width(sizeof(T) == 8);
  const int64_t samples = istft_length(r);
  return staged_call<T>(a, {r.batch, static_cast<py::ssize_t>(samples)}, Upload::pinned,
                        [&](const void* dz, void* dy) {
                          r.z = dz;
                          r.y = dy;
                          istft(r);
                        });
}

}  // namespace

void register_istft(py::module_& m) {
  m.def(
      "istft_staged",
      [](const py::object& z, const py::object& window, int32_t n_fft, int32_t hop, bool center, int64_t length) {
        const py::array a = py::module_::import("numpy").attr("asarray")(z);
        return a.dtype().kind() == 'c' && a.dtype().itemsize() == 16
                   ? istft_staged<double>(z, window, n_fft, hop, center, length)
                   : istft_staged<float>(z, window, n_fft, hop, center, length);
      },
      py::arg("Z"), py::arg("window"), py::arg("n_fft"), py::arg("hop"), py::arg("center"), py::arg("length") = -1,
      "Inverse STFT of a (batch, frames, n_fft // 2 + 1) complex array: the irfft of every frame, times the window, "
      "overlap-added at t * hop and divided by the summed squared window where it exceeds 1e-8 (else 0); the "
      "imaginary parts of bins 0 and n_fft / 2 are ignored. With center the first n_fft // 2 samples are cut, and "
      "the output holds `length` samples, or (without it) all the frames cover less the padding at both ends, "
      "never more than they cover. Returns (batch, samples): float64 for complex128 input, float32 otherwise. "
      "set_deterministic(1) makes repeated calls bit-identical.");
  m.def(
      "istft_resident",
      [](uintptr_t z, uintptr_t y, int64_t batch, int64_t bins, int64_t frames, int64_t stride_batch,
         int64_t stride_bin, int64_t stride_frame, int32_t n_fft, int32_t hop, bool center, int64_t length,
         const py::object& window, int32_t prec, int32_t device, uintptr_t stream) {
        const WindowSpec spec = window_spec(window);
        IstftRequest r;
        r.z = device_address(z);
        r.y = device_address(y);
        r.batch = batch;
        r.bins = bins;
        r.frames = frames;
        r.stride_batch = stride_batch;
        r.stride_bin = stride_bin;
        r.stride_frame = stride_frame;
        r.n_fft = n_fft;
        r.hop = hop;
        r.center = center;
        r.length = length;
        r.window = &spec;
        r.prec = precision_code(prec);
        r.device = device;
        r.stream = stream_handle(stream);
        without_gil([&] { istft(r); });
      },
      py::arg("z_ptr"), py::arg("y_ptr"), py::arg("batch"), py::arg("bins"), py::arg("frames"),
      py::arg("stride_batch"), py::arg("stride_bin"), py::arg("stride_frame"), py::arg("n_fft"), py::arg("hop"),
      py::arg("center"), py::arg("length"), py::arg("window"), py::arg("prec"), py::arg("device") = 0,
      py::arg("stream") = 0,
      "istft_staged between device addresses, enqueued on `stream`: spectra read through the three strides (in "
      "complex elements: batch, bin, frame) to batch rows of L samples, L as istft_staged's output length. prec: "
      "2 double, 1 float, 0 and 3 half spectra and signals with float arithmetic.");
}

}  // namespace ondrel::python
