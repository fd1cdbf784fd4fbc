#include "python/bank_arg.hpp"

#include <stdexcept>

namespace ondrel::python {

BankArg bank_arg(const py::handle& obj) {
  BankArg b;
  bool single = false, column_major = false, in_place = false;
  if (py::isinstance<py::array>(obj)) {
    const auto a = py::reinterpret_borrow<py::array>(obj);
    const bool f32 = a.dtype().is(py::dtype::of<float>()), f64 = a.dtype().is(py::dtype::of<double>());
    const py::ssize_t e = a.itemsize();
    const bool c_order = a.ndim() == 2 && a.strides(1) == e && a.strides(0) == e * a.shape(1);
    const bool f_order = a.ndim() == 2 && a.strides(0) == e && a.strides(1) == e * a.shape(0);
    if ((f32 || f64) && (c_order || f_order)) {
      b.values = a;
      single = f32;
      column_major = !c_order;
      in_place = true;
    }
  }
  if (!in_place) {
    b.values = py::array_t<double, py::array::c_style | py::array::forcecast>::ensure(obj);
    if (!b.values) throw py::error_already_set();
  }
  if (b.values.ndim() != 2) throw std::invalid_argument("mel: the filterbank must be a 2-D (n_mels, bins) array");
  b.fb = filter_bank(b.values.data(), single, column_major, static_cast<int32_t>(b.values.shape(0)),
                     static_cast<int32_t>(b.values.shape(1)));
  return b;
}

}  // namespace ondrel::python
