// The small frame features group: RMS, onset strength and tonnetz, staged
// and resident, with the adjoints. These functions take their arguments by
// position only: they are bound without names.
#include <cstdint>
#include <stdexcept>

#include "cuda_like/ops/features.hpp"
#include "python/bindings.hpp"
#include "python/frame.hpp"

namespace ondrel::python {

namespace {

FeatureCall resident_call(int32_t prec, int32_t device, uintptr_t stream) {
  return {precision_code(prec), device, stream_handle(stream)};
}

template <class T>
FeatureCall staged_feature_call() {
  return {full_width(sizeof(T) == 8), 0, nullptr};
}

// (batch, a, b) as a new C-ordered (batch, b, a) array: the kernels read the
// axis that the public shape puts in the middle fastest.
template <class T>
CArray<T> swap_inner_axes(const CArray<T>& in) {
  const py::ssize_t batch = in.shape(0), a = in.shape(1), b = in.shape(2);
  CArray<T> out({batch, b, a});
  const T* src = in.data();
  T* dst = out.mutable_data();
  for (py::ssize_t n = 0; n < batch; ++n)
    for (py::ssize_t i = 0; i < a; ++i)
      for (py::ssize_t j = 0; j < b; ++j) dst[(n * b + j) * a + i] = src[(n * a + i) * b + j];
  return out;
}

template <class T>
py::object rms_staged(const py::handle& obj, int32_t frame_length, int32_t hop, bool center) {
  const CArray<T> x = as_c_array<T>(obj);
  check_rank(x, 2, "rms expects (batch, samples)");
  const py::ssize_t batch = x.shape(0), length = x.shape(1);
  const RmsShape shape{batch, length, rms_frame_count(length, frame_length, hop, center), frame_length, hop, center};
  check_rms(shape);
  return staged_call<T>(x, {batch, static_cast<py::ssize_t>(shape.frames)}, Upload::pinned,
                        [&](const void* dx, void* dy) { rms(dx, dy, shape, staged_feature_call<T>()); });
}

template <class T>
py::object onset_strength_staged(const py::handle& obj) {
  const CArray<T> s = as_c_array<T>(obj);
  check_rank(s, 3, "onset strength expects (batch, bins, frames)");
  const py::ssize_t batch = s.shape(0), bins = s.shape(1), frames = s.shape(2);
  check_onset_strength(batch, frames, bins);
  return staged_call<T>(swap_inner_axes(s), {batch, frames}, Upload::pinned, [&](const void* dm, void* dy) {
    onset_strength(dm, dy, batch, frames, bins, staged_feature_call<T>());
  });
}

template <class T>
py::object tonnetz_staged(const py::handle& obj) {
  constexpr const char* kShape = "tonnetz expects (batch, 12, frames)";
  const CArray<T> chroma = as_c_array<T>(obj);
  check_rank(chroma, 3, kShape);
  if (chroma.shape(1) != 12) throw std::invalid_argument(kShape);
  const py::ssize_t batch = chroma.shape(0), frames = chroma.shape(2);
  const auto e = static_cast<py::ssize_t>(sizeof(T));
  // The kernel writes (batch, frames, 6); numpy sees its transposed view.
  return staged_call<T>(
      swap_inner_axes(chroma), {batch, 6, frames}, Upload::pinned,
      [&](const void* dc, void* dy) { tonnetz(dc, dy, batch * frames, staged_feature_call<T>()); },
      {frames * 6 * e, e, 6 * e});
}

}  // namespace

void register_features(py::module_& m) {
  m.def(
      "rms_resident",
      [](uintptr_t x, uintptr_t out, int64_t batch, int64_t length, int64_t frames, int32_t frame_length,
         int32_t hop, bool center, int32_t prec, int32_t device, uintptr_t stream) {
        rms(device_address(x), device_address(out), {batch, length, frames, frame_length, hop, center},
            resident_call(prec, device, stream));
      },
      py::call_guard<py::gil_scoped_release>(),
      "rms_resident(x, out, batch, length, frames, frame_length, hop, center, prec, device, stream), positional "
      "only: the root mean square of each rectangular frame of frame_length samples every hop, from x (batch, "
      "length) to out (batch, frames), enqueued on `stream`. With center the frames start frame_length // 2 "
      "before the signal; indices past either end reflect without repeating the end samples, as often as "
      "needed, and a one-sample signal repeats its sample. prec: 0 half data with single arithmetic, 1 single, "
      "2 double, 3 as 0.");
  m.def(
      "rms_adjoint_resident",
      [](uintptr_t x, uintptr_t y, uintptr_t gy, uintptr_t gx, int64_t batch, int64_t length, int64_t frames,
         int32_t frame_length, int32_t hop, bool center, int32_t prec, int32_t device, uintptr_t stream) {
        rms_adjoint(device_address(x), device_address(y), device_address(gy), device_address(gx),
                    {batch, length, frames, frame_length, hop, center}, resident_call(prec, device, stream));
      },
      py::call_guard<py::gil_scoped_release>(),
      "rms_adjoint_resident(x, rms, gy, gx, batch, length, frames, frame_length, hop, center, prec, device, "
      "stream), positional only: the gradient gx (batch, length) of the frame RMS from the signal x, the "
      "forward's result rms and its gradient gy (batch, frames), every reflection of a sample folded; frames "
      "of RMS 0 pass no gradient. prec: 1 single, 2 double; half data are refused.");
  m.def(
      "onset_strength_resident",
      [](uintptr_t mag, uintptr_t out, int64_t batch, int64_t frames, int64_t bins, int32_t prec, int32_t device,
         uintptr_t stream) {
        onset_strength(device_address(mag), device_address(out), batch, frames, bins,
                       resident_call(prec, device, stream));
      },
      py::call_guard<py::gil_scoped_release>(),
      "onset_strength_resident(m, out, batch, frames, bins, prec, device, stream), positional only: for m "
      "(batch, frames, bins) with bins fastest, out (batch, frames) is the mean over bins of max(0, m[t] - "
      "m[t - 1]), 0 for the first frame. prec: 0 half data with single arithmetic, 1 single, 2 double, 3 as 0.");
  m.def(
      "onset_strength_adjoint_resident",
      [](uintptr_t mag, uintptr_t gy, uintptr_t gm, int64_t batch, int64_t frames, int64_t bins, int32_t prec,
         int32_t device, uintptr_t stream) {
        onset_strength_adjoint(device_address(mag), device_address(gy), device_address(gm), batch, frames, bins,
                               resident_call(prec, device, stream));
      },
      py::call_guard<py::gil_scoped_release>(),
      "onset_strength_adjoint_resident(m, gy, gm, batch, frames, bins, prec, device, stream), positional only: "
      "the gradient gm (batch, frames, bins) of the onset strength from m and gy (batch, frames); a difference "
      "of exactly 0 passes no gradient. prec: 1 single, 2 double; half data are refused.");
  m.def(
      "tonnetz_resident",
      [](uintptr_t c, uintptr_t out, int64_t rows, int32_t prec, int32_t device, uintptr_t stream) {
        tonnetz(device_address(c), device_address(out), rows, resident_call(prec, device, stream));
      },
      py::call_guard<py::gil_scoped_release>(),
      "tonnetz_resident(c, out, rows, prec, device, stream), positional only: the tonal centroids out (rows, "
      "6) of chroma rows c (rows, 12): projections on the circles of fifths, minor and major thirds (radius "
      "0.5), sine and cosine each, over the row's sum; zeros where the sum is not positive. prec: 0 half data "
      "with single arithmetic, 1 single, 2 double, 3 as 0.");
  m.def(
      "tonnetz_adjoint_resident",
      [](uintptr_t c, uintptr_t gy, uintptr_t gc, int64_t rows, int32_t prec, int32_t device, uintptr_t stream) {
        tonnetz_adjoint(device_address(c), device_address(gy), device_address(gc), rows,
                        resident_call(prec, device, stream));
      },
      py::call_guard<py::gil_scoped_release>(),
      "tonnetz_adjoint_resident(c, gy, gc, rows, prec, device, stream), positional only: the gradient gc "
      "(rows, 12) of the tonal centroids from c and gy (rows, 6); zeros where the sum is not positive. prec: 1 "
      "single, 2 double; half data are refused.");
  m.def(
      "rms_staged",
      [](const py::object& x, int32_t frame_length, int32_t hop, bool center) {
        return dtype_is_double(x) ? rms_staged<double>(x, frame_length, hop, center)
                                  : rms_staged<float>(x, frame_length, hop, center);
      },
      "rms_staged(x, frame_length, hop, center), positional only: the frame RMS of x (batch, samples) as "
      "(batch, frames), frames (samples - frame_length % 2) // hop + 1 with center, else (samples - "
      "frame_length) // hop + 1. float64 runs in double, everything else in single; float16 is refused.");
  m.def(
      "onset_strength_staged",
      [](const py::object& s) {
        return dtype_is_double(s) ? onset_strength_staged<double>(s) : onset_strength_staged<float>(s);
      },
      "onset_strength_staged(S), positional only: the onset strength of S (batch, bins, frames) as (batch, "
      "frames). float64 runs in double, everything else in single; float16 is refused.");
  m.def(
      "tonnetz_staged",
      [](const py::object& c) { return dtype_is_double(c) ? tonnetz_staged<double>(c) : tonnetz_staged<float>(c); },
      "tonnetz_staged(C), positional only: the tonal centroids of chroma C (batch, 12, frames) as (batch, 6, "
      "frames), a view of memory laid out (batch, frames, 6). float64 runs in double, everything else in single; "
      "float16 is refused.");
}

}  // namespace ondrel::python
