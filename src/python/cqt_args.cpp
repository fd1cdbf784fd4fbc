#include "python/cqt_args.hpp"

#include <climits>
#include <stdexcept>

namespace ondrel::python {

namespace py = pybind11;

namespace {

using Doubles = py::array_t<double, py::array::c_style | py::array::forcecast>;

int32_t small_int(const py::handle& v, size_t o) {
  const auto x = v.cast<int64_t>();
  if (x < INT_MIN || x > INT_MAX)
    throw std::invalid_argument("cqt: octave " + std::to_string(o) + ": level, hop, n_fft and row_lo must be 32-bit");
  return static_cast<int32_t>(x);
}

}  // namespace

CqtArgs cqt_args(int64_t n_levels, const py::handle& octaves, const py::handle& taps, const std::string& plan_key,
                 int32_t n_bins, int64_t frames) {
  CqtArgs a;
  a.plan.n_levels = n_levels;
  a.plan.plan_key = plan_key;
  a.plan.n_bins = n_bins;
  a.plan.frames = frames;
  const py::list list = py::reinterpret_borrow<py::object>(octaves).cast<py::list>();
  a.held.reserve(2 * list.size() + 1);
  for (size_t o = 0; o < list.size(); ++o) {
    const py::handle item = list[o];
    if (!py::isinstance<py::sequence>(item) || py::isinstance<py::str>(item) || py::len(item) != 6)
      throw std::invalid_argument("cqt: octave " + std::to_string(o) +
                                  " must be a 6-tuple (level, hop, n_fft, row_lo, re, im)");
    const py::sequence t = py::reinterpret_borrow<py::sequence>(item);
    CqtOctave oc;
    oc.level = small_int(t[0], o);
    oc.hop = small_int(t[1], o);
    oc.n_fft = small_int(t[2], o);
    oc.row_lo = small_int(t[3], o);
    const Doubles& re = a.held.emplace_back(Doubles(py::reinterpret_borrow<py::object>(t[4])));
    const Doubles& im = a.held.emplace_back(Doubles(py::reinterpret_borrow<py::object>(t[5])));
    // numpy's own dimension check: "invalid axis" for fewer than two.
    oc.rows = re.shape(0);
    oc.re_cols = re.shape(1);
    oc.im_rows = im.shape(0);
    oc.im_cols = im.shape(1);
    // More dimensions are no basis either: refused by the shape check.
    if (re.ndim() != 2) oc.re_cols = -1;
    if (im.ndim() != 2) oc.im_cols = -1;
    oc.re = re.data();
    oc.im = im.data();
    a.plan.octaves.push_back(oc);
  }
  const Doubles& t = a.held.emplace_back(Doubles(py::reinterpret_borrow<py::object>(taps)));
  a.plan.taps = t.data();
  a.plan.n_taps = t.ndim() == 1 ? t.size() : -1;
  a.plan.content = cqt_content_hash(a.plan);
  return a;
}

}  // namespace ondrel::python
