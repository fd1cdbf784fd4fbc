// The spectral feature group: statistics (centroid, bandwidth, flatness,
// rolloff) and contrast, staged and resident, fused or from magnitudes,
// with the adjoints.
#include <cstdint>
#include <stdexcept>

#include "cuda_like/ops/contrast.hpp"
#include "cuda_like/ops/spectral.hpp"
#include "python/bindings.hpp"
#include "python/frame.hpp"

namespace ondrel::python {

namespace {

using Int32Array = py::array_t<int32_t, py::array::c_style | py::array::forcecast>;

FeatureCall resident_call(int32_t prec, int32_t device, uintptr_t stream) {
  return {precision_code(prec), device, stream_handle(stream)};
}

Bands bands_of(const Int32Array& bt, const Int32Array& bq) {
  if (bt.ndim() != 1 || bq.ndim() != 1) throw std::invalid_argument("contrast: bt and bq must be 1-D integer arrays");
  return {{bt.data(), bt.data() + bt.size()}, {bq.data(), bq.data() + bq.size()}};
}

FeatureSignal signal_of(int64_t batch, int64_t length, const WindowSpec& window, int32_t n_fft, int32_t hop,
                        bool center, const Precision& prec, int32_t device, hip_dl::hipStream_t stream) {
  FeatureSignal s;
  s.batch = batch;
  s.length = length;
  s.window = &window;
  s.n_fft = n_fft;
  s.hop = hop;
  s.center = center;
  s.prec = prec;
  s.device = device;
  s.stream = stream;
  return s;
}

template <class T>
py::object spectral_staged(const py::handle& y, const py::handle& window, int32_t n_fft, int32_t hop, bool center,
                           int stat, const SpectralScalars& s) {
  const CArray<T> a = as_c_array<T>(y);
  check_rank(a, 2, "expected a 2-D (batch, samples) array");
  check_spectral(stat, s);
  const WindowSpec spec = window_spec(window);
  FeatureSignal sig =
      signal_of(a.shape(0), a.shape(1), spec, n_fft, hop, center, full_width(sizeof(T) == 8), 0, nullptr);
  const int64_t frames = feature_frames(sig);
  return staged_call<T>(a, {a.shape(0), static_cast<py::ssize_t>(frames)}, Upload::pinned,
                        [&](const void* dx, void* dy) {
                          sig.x = dx;
                          sig.out = dy;
                          spectral_of_signal(sig, stat, s);
                        });
}

template <class T>
py::object contrast_staged(const py::handle& y, const py::handle& window, int32_t n_fft, int32_t hop, bool center,
                           const Bands& bands, double amin, bool linear) {
  const CArray<T> a = as_c_array<T>(y);
  check_rank(a, 2, "expected a 2-D (batch, samples) array");
  const WindowSpec spec = window_spec(window);
  FeatureSignal sig =
      signal_of(a.shape(0), a.shape(1), spec, n_fft, hop, center, full_width(sizeof(T) == 8), 0, nullptr);
  const auto frames = static_cast<py::ssize_t>(feature_frames(sig));
  const auto n_bands = static_cast<py::ssize_t>(bands.counts.size()), e = static_cast<py::ssize_t>(sizeof(T));
  // (batch, n_bands, frames) over memory (batch, frames, n_bands).
  return staged_call<T>(
      a, {a.shape(0), n_bands, frames}, Upload::pinned,
      [&](const void* dx, void* dy) {
        sig.x = dx;
        sig.out = dy;
        contrast_of_signal(sig, bands, amin, linear);
      },
      {frames * n_bands * e, e, n_bands * e});
}

}  // namespace

void register_spectral(py::module_& m) {
  m.def(
      "spectral_staged",
      [](const py::object& y, const py::object& window, int32_t n_fft, int32_t hop, bool center, int stat,
         double fstep, double p, double amin, double roll) {
        const SpectralScalars s{fstep, p, amin, roll};
        return dtype_is_double(y) ? spectral_staged<double>(y, window, n_fft, hop, center, stat, s)
                                  : spectral_staged<float>(y, window, n_fft, hop, center, stat, s);
      },
      py::arg("y"), py::arg("window"), py::arg("n_fft"), py::arg("hop"), py::arg("center"), py::arg("stat"),
      py::arg("fstep"), py::arg("p"), py::arg("amin"), py::arg("roll"),
      "One spectral statistic per frame of the magnitude STFT of y (batch, samples), as (batch, frames); frames "
      "and window as stft_staged. With M the frame's n_fft // 2 + 1 magnitudes and f_k = fstep * k: stat 0 "
      "centroid sum(f M) / max(sum M, 1e-10); 1 bandwidth (sum(M |f - centroid|^p) / max(sum M, 1e-10))^(1/p); "
      "2 flatness exp(mean(log P)) / mean(P) with P = max(M^2, amin); 3 rolloff, f of the first bin where the "
      "running sum of M reaches roll * sum M (the last bin when it never does). An all-zero frame gives 0, 0, 1, "
      "0. Fused into the STFT kernel where it fits, else the magnitude STFT and the row reduction. float64 runs "
      "in double, everything else in single; float16 is refused.");
  m.def(
      "spectral_reduce_resident",
      [](uintptr_t mag, uintptr_t out, int64_t rows, int64_t n, int stat, double fstep, double p, double amin,
         double roll, int32_t prec, int32_t device, uintptr_t stream) {
        spectral_reduce(device_address(mag), device_address(out), rows, n, stat, {fstep, p, amin, roll},
                        resident_call(prec, device, stream));
      },
      py::call_guard<py::gil_scoped_release>(),
      py::arg("m_ptr"), py::arg("out_ptr"), py::arg("rows"), py::arg("n"), py::arg("stat"), py::arg("fstep"),
      py::arg("p"), py::arg("amin"), py::arg("roll"), py::arg("prec"), py::arg("device") = 0, py::arg("stream") = 0,
      "The statistic `stat` (as spectral_staged) of each of `rows` contiguous rows of n magnitudes, from m_ptr "
      "(rows, n) to out_ptr (rows), enqueued on `stream`. prec: 0 and 3 half data with single arithmetic, 1 "
      "single, 2 double.");
  m.def(
      "spectral_signal_resident",
      [](uintptr_t x, uintptr_t out, int64_t batch, int64_t length, const py::object& window, int32_t n_fft,
         int32_t hop, bool center, int stat, double fstep, double p, double amin, double roll, int32_t prec,
         int32_t device, uintptr_t stream) {
        const WindowSpec spec = window_spec(window);
        FeatureSignal sig =
            signal_of(batch, length, spec, n_fft, hop, center, precision_code(prec), device, stream_handle(stream));
        sig.x = device_address(x);
        sig.out = device_address(out);
        return without_gil([&] { return spectral_signal(sig, stat, {fstep, p, amin, roll}); });
      },
      py::arg("x_ptr"), py::arg("out_ptr"), py::arg("batch"), py::arg("length"), py::arg("window"), py::arg("n_fft"),
      py::arg("hop"), py::arg("center"), py::arg("stat"), py::arg("fstep"), py::arg("p"), py::arg("amin"),
      py::arg("roll"), py::arg("prec"), py::arg("device") = 0, py::arg("stream") = 0,
      "The statistic of spectral_staged from batch signals of `length` samples at x_ptr to out_ptr (batch, "
      "frames), by the fused STFT kernel alone, enqueued on `stream`. Returns True when it ran; False, with "
      "nothing enqueued, where the fused route declines (half data, prec 0 or 3; n_fft not a power of two; a "
      "frame too long for shared memory): then compute the magnitudes with stft_resident and call "
      "spectral_reduce_resident. prec 1 single, 2 double.");
  m.def(
      "spectral_adjoint_resident",
      [](uintptr_t mag, uintptr_t gy, uintptr_t gm, int64_t rows, int64_t n, int stat, double fstep, double p,
         double amin, int32_t prec, int32_t device, uintptr_t stream) {
        spectral_adjoint(device_address(mag), device_address(gy), device_address(gm), rows, n, stat,
                         {fstep, p, amin, 0.0}, resident_call(prec, device, stream));
      },
      py::call_guard<py::gil_scoped_release>(),
      py::arg("m_ptr"), py::arg("gy_ptr"), py::arg("gm_ptr"), py::arg("rows"), py::arg("n"), py::arg("stat"),
      py::arg("fstep"), py::arg("p"), py::arg("amin"), py::arg("prec"), py::arg("device") = 0,
      py::arg("stream") = 0,
      "The gradient gm_ptr (rows, n) of spectral_reduce_resident's statistic with respect to the magnitudes "
      "m_ptr (rows, n), from the output gradient gy_ptr (rows), for stat 0, 1 and 2; rolloff (stat 3) has none "
      "and raises ValueError. Below the 1e-10 floor the magnitude sum is a constant; flatness bins with M^2 "
      "below amin pass no gradient; the bandwidth gradient is 0 where the spread is 0 and p exceeds 1 (a silent "
      "frame). prec 1 single, 2 double; half data are refused.");
  m.def(
      "contrast_staged",
      [](const py::object& y, const py::object& window, int32_t n_fft, int32_t hop, bool center,
         const Int32Array& bt, const Int32Array& bq, double amin, bool linear) {
        const Bands bands = bands_of(bt, bq);
        check_bands(bands, n_fft / 2 + 1);
        return dtype_is_double(y) ? contrast_staged<double>(y, window, n_fft, hop, center, bands, amin, linear)
                                  : contrast_staged<float>(y, window, n_fft, hop, center, bands, amin, linear);
      },
      py::arg("y"), py::arg("window"), py::arg("n_fft"), py::arg("hop"), py::arg("center"), py::arg("bt"),
      py::arg("bq"), py::arg("amin"), py::arg("linear"),
      "Spectral contrast of the magnitude STFT of y (batch, samples), frames and window as stft_staged: band b "
      "covers bins bt[b] up to bt[b + 1] (n_bands + 1 rising edges within [0, n_fft // 2 + 1]) and takes "
      "q = bq[b] bins, 1 <= q <= its width, at each end. Per frame and band: the mean of the q largest "
      "magnitudes less the mean of the q smallest, or with linear False 10 log10 of each, both floored at amin. "
      "Returns (batch, n_bands, frames), a view of memory (batch, frames, n_bands). Fused into the STFT kernel "
      "(with a sort) where it fits, else the magnitude STFT and contrast_reduce_resident's kernels. float64 runs "
      "in double, everything else in single; float16 is refused.");
  m.def(
      "contrast_reduce_resident",
      [](uintptr_t mag, uintptr_t out, int64_t rows, int64_t n, const Int32Array& bt, const Int32Array& bq,
         double amin, bool linear, int32_t prec, int32_t device, uintptr_t stream) {
        const Bands bands = bands_of(bt, bq);
        without_gil([&] {
          contrast_reduce(device_address(mag), device_address(out), rows, n, bands, amin, linear,
                          resident_call(prec, device, stream));
        });
      },
      py::arg("m_ptr"), py::arg("out_ptr"), py::arg("rows"), py::arg("n"), py::arg("bt"), py::arg("bq"),
      py::arg("amin"), py::arg("linear"), py::arg("prec"), py::arg("device") = 0, py::arg("stream") = 0,
      "Spectral contrast (as contrast_staged) of `rows` rows of n magnitudes at m_ptr (rows, n) into out_ptr "
      "(rows, n_bands), enqueued on `stream`. Each band is sorted in shared memory where its row fits the "
      "device's limit, else selected exactly by 256-bin histograms over the bits of each value, summed in "
      "single precision. prec: 0 and 3 half data with single arithmetic, 1 single, 2 double.");
  m.def(
      "contrast_signal_resident",
      [](uintptr_t x, uintptr_t out, int64_t batch, int64_t length, const py::object& window, int32_t n_fft,
         int32_t hop, bool center, const Int32Array& bt, const Int32Array& bq, double amin, bool linear,
         int32_t prec, int32_t device, uintptr_t stream) {
        const Bands bands = bands_of(bt, bq);
        const WindowSpec spec = window_spec(window);
        FeatureSignal sig =
            signal_of(batch, length, spec, n_fft, hop, center, precision_code(prec), device, stream_handle(stream));
        sig.x = device_address(x);
        sig.out = device_address(out);
        return without_gil([&] { return contrast_signal(sig, bands, amin, linear); });
      },
      py::arg("x_ptr"), py::arg("out_ptr"), py::arg("batch"), py::arg("length"), py::arg("window"), py::arg("n_fft"),
      py::arg("hop"), py::arg("center"), py::arg("bt"), py::arg("bq"), py::arg("amin"), py::arg("linear"),
      py::arg("prec"), py::arg("device") = 0, py::arg("stream") = 0,
      "The contrast of contrast_staged from batch signals of `length` samples at x_ptr to out_ptr (batch, "
      "frames, n_bands), by the fused STFT kernel alone, enqueued on `stream`. Returns True when it ran; False, "
      "with nothing enqueued, where the fused route declines (half data, prec 0 or 3; n_fft not a power of two; "
      "a frame and its sorted band too long for shared memory): then compute the magnitudes with stft_resident "
      "and call contrast_reduce_resident. prec 1 single, 2 double.");
  m.def(
      "contrast_adjoint_resident",
      [](uintptr_t mag, uintptr_t gy, uintptr_t gm, int64_t rows, int64_t n, const Int32Array& bt,
         const Int32Array& bq, double amin, bool linear, int32_t prec, int32_t device, uintptr_t stream) {
        const Bands bands = bands_of(bt, bq);
        without_gil([&] {
          contrast_adjoint(device_address(mag), device_address(gy), device_address(gm), rows, n, bands, amin, linear,
                           resident_call(prec, device, stream));
        });
      },
      py::arg("m_ptr"), py::arg("gy_ptr"), py::arg("gm_ptr"), py::arg("rows"), py::arg("n"), py::arg("bt"),
      py::arg("bq"), py::arg("amin"), py::arg("linear"), py::arg("prec"), py::arg("device") = 0,
      py::arg("stream") = 0,
      "The gradient gm_ptr (rows, n) of contrast_reduce_resident with respect to the magnitudes m_ptr, from "
      "gy_ptr (rows, n_bands); bins outside every band get 0. Ties: the sort gives the valley to the earliest "
      "positions and the peak to the latest; the histogram shares the threshold bin's part equally among its "
      "elements, and a constant band's gradient over the whole band; a mean under amin passes none in "
      "decibels. prec 1 single, 2 double; half data are refused.");
}

}  // namespace ondrel::python
