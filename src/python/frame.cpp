#include "python/frame.hpp"

#include <stdexcept>
#include <string>

namespace ondrel::python {

bool dtype_is_double(const py::handle& obj) {
  const py::array a = py::module_::import("numpy").attr("asarray")(obj);
  const py::dtype dt = a.dtype();
  const char kind = dt.kind();
  const py::ssize_t size = dt.itemsize();
  if (kind == 'f' && size == 2) throw py::type_error("float16 input is not supported here; cast to float32");
  return (kind == 'f' && size == 8) || (kind == 'c' && size == 16);
}

void check_rank(const py::array& a, py::ssize_t rank, const char* text) {
  if (a.ndim() != rank) throw std::invalid_argument(text);
}

std::vector<double> window_array(const py::handle& obj) {
  constexpr const char* kText = "window must be a name or a 1-D float array";
  CArray<double> a;
  try {
    a = as_c_array<double>(obj);
  } catch (const py::error_already_set&) {
    throw std::invalid_argument(kText);
  }
  if (a.ndim() != 1) throw std::invalid_argument(kText);
  return std::vector<double>(a.data(), a.data() + a.size());
}

WindowSpec window_spec(const py::handle& obj) {
  if (py::isinstance<py::str>(obj)) return named_window(obj.cast<std::string>());
  return array_window(window_array(obj));
}

void copy_back(void* dst, const void* src, size_t bytes, const char* check_text) {
  const auto& hip = hip_dl::api();
  hip_check(hip.StreamSynchronize(nullptr), __FILE__, __LINE__, "streamSynchronize(nullptr)");
  hip_check(hip.MemcpyDtoH(dst, const_cast<void*>(src), bytes), __FILE__, __LINE__, check_text);
}

DeviceBuffer direct_to_device(const void* data, size_t bytes) {
  DeviceBuffer dx(bytes, nullptr);
  hip_check(hip_dl::api().MemcpyHtoD(dx.p, data, bytes), __FILE__, __LINE__,
            "memcpyHtoD(dx.p, x.data(), bytes)");
  return dx;
}

py::capsule pinned_capsule(size_t bytes, void*& data) {
  PinnedBuffer block(bytes);
  py::capsule owner(block.p, [](void* p) { pinned_pool().free(p); });
  data = block.release();
  return owner;
}

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
