#pragma once
// The calling frames every binding shares. A staged call takes numpy arrays,
// picks T from the array, runs on device 0 and the null stream and returns a
// numpy array over pinned memory. A resident call takes device addresses and
// a stream as integers, enqueues and returns at once.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <cstdint>
#include <cstring>
#include <vector>

#include "cuda_like/tables/mel_table.hpp"
#include "cuda_like/tables/windows.hpp"
#include "math/call_shapes.hpp"
#include "rocm/context.hpp"
#include "rocm/device_pool.hpp"
#include "rocm/pinned_pool.hpp"

namespace ondrel::python {

namespace py = pybind11;

// The instantiation of a staged call whose argument is any object: double
// for float64 and complex128 data, float for everything else, integers
// included. float16 raises TypeError.
bool dtype_is_double(const py::handle& obj);

// True when the array's dtype is exactly T (the rule of the FFT bindings,
// which take arrays and refuse nothing).
template <class T>
bool dtype_is(const py::array& a) {
  return a.dtype().is(py::dtype::of<T>());
}

// The argument as a C-contiguous array of T, cast by numpy whatever its
// type; a failed conversion raises the pending Python error.
template <class T>
using CArray = py::array_t<T, py::array::c_style | py::array::forcecast>;
template <class T>
CArray<T> as_c_array(const py::handle& obj) {
  return CArray<T>(py::reinterpret_borrow<py::object>(obj));
}

// Raises std::invalid_argument `text` unless the array has `rank` dimensions.
void check_rank(const py::array& a, py::ssize_t rank, const char* text);

// A window argument: a name, or anything numpy converts to a 1-D float64 array.
WindowSpec window_spec(const py::handle& obj);
// The samples of an array window as doubles.
std::vector<double> window_array(const py::handle& obj);

// A device block in the null stream holding `count` elements of a host
// array, copied through a pinned block that goes back to its pool at once.
template <class T>
DeviceBuffer to_device(const T* data, size_t count) {
  const size_t bytes = count * sizeof(T);
  DeviceBuffer device(bytes, nullptr);
  PinnedBuffer pinned(bytes);
  if (bytes) std::memcpy(pinned.p, data, bytes);
  hip_check(hip_dl::api().MemcpyHtoD(device.p, pinned.p, bytes), __FILE__, __LINE__,
            "memcpyHtoD(device.p, pinned.p, bytes)");
  return device;
}

// The block of a pinned array, owned by the capsule that is the array's base:
// it lives as long as any view of the array and then returns to the pool.
py::capsule pinned_capsule(size_t bytes, void*& data);

// A numpy array whose memory is a pinned pool block. `strides` in bytes, or
// empty for C order; the shape is checked before any allocation.
template <class T>
py::array_t<T> pinned_array(const std::vector<py::ssize_t>& shape, const std::vector<py::ssize_t>& strides = {}) {
  std::vector<int64_t> dims(shape.begin(), shape.end());
  dims.push_back(sizeof(T));  // the byte count must fit too
  const size_t bytes = static_cast<size_t>(checked_size(dims));
  void* data = nullptr;
  py::capsule owner = pinned_capsule(bytes, data);
  if (strides.empty()) return py::array_t<T>(shape, static_cast<T*>(data), owner);
  return py::array_t<T>(shape, strides, static_cast<T*>(data), owner);
}

// The last step of a staged call: waits for the null stream, then copies a
// device block into a result array; `check_text` names the copy in errors.
void copy_back(void* dst, const void* src, size_t bytes, const char* check_text);

// How a staged call's input reaches the device: the FFT family copies
// straight from numpy's memory, every other family through a pinned block.
enum class Upload { direct, pinned };

// A device block in the null stream holding the bytes of a host array,
// copied from where they lie.
DeviceBuffer direct_to_device(const void* data, size_t bytes);

// Runs `work` with the interpreter lock released, so that other Python
// threads run while this one writes and compiles kernels or waits for the
// device. `work` may read the memory of arrays the caller holds, but must not
// create, copy or release a Python object.
template <class Work>
decltype(auto) without_gil(Work&& work) {
  py::gil_scoped_release released;
  return work();
}

// The road every staged call shares once its input is converted and checked
// and its output shape settled: an output without elements returns at once,
// with no device work; otherwise device 0 becomes current, the input goes
// up, `run(dx, dy)` enqueues the operation between the device blocks on the
// null stream, and the result lands in a new pinned array of `out_shape`
// (with byte `out_strides`, or C order). Device blocks go back to their
// pool on every way out. Everything but making the result array runs
// without the interpreter lock, `run` included (see without_gil).
template <class Out, class In, class Run>
py::array_t<Out> staged_call(const CArray<In>& x, const std::vector<py::ssize_t>& out_shape, Upload upload,
                             Run&& run, const std::vector<py::ssize_t>& out_strides = {}) {
  std::vector<int64_t> dims(out_shape.begin(), out_shape.end());
  if (checked_size(dims) == 0) return pinned_array<Out>(out_shape, out_strides);
  dims.push_back(sizeof(Out));
  const auto bytes = static_cast<size_t>(checked_size(dims));
  const In* data = x.data();
  const auto count = static_cast<size_t>(x.size());
  DeviceBuffer dy;
  without_gil([&] {
    select_device(0);
    const DeviceBuffer dx = upload == Upload::direct ? direct_to_device(data, count * sizeof(In))
                                                     : to_device(data, count);
    dy = DeviceBuffer(bytes, nullptr);
    run(static_cast<const void*>(dx.p), dy.p);
  });
  py::array_t<Out> out = pinned_array<Out>(out_shape, out_strides);
  Out* dst = out.mutable_data();
  without_gil([&] { copy_back(dst, dy.p, bytes, "memcpyDtoH(out.mutable_data(), dy.p, bytes)"); });
  return out;
}

// A filterbank argument held for the call. float32 and float64 arrays in C
// or Fortran order (a transposed bank, as other libraries lay theirs out)
// are read where they lie, so a repeated call converts nothing; anything
// else becomes a C-ordered float64 copy.
struct BankArg {
  py::array values;
  FilterBank fb;
};

BankArg bank_arg(const py::handle& obj);

// Resident calls: integers reinterpreted as device addresses and streams,
// with no check; 0 is the null stream.
inline void* device_address(uintptr_t value) { return reinterpret_cast<void*>(value); }
inline hip_dl::hipStream_t stream_handle(uintptr_t value) { return reinterpret_cast<hip_dl::hipStream_t>(value); }

}  // namespace ondrel::python
