// The calling frame against a real interpreter and numpy, with the stand-in
// HIP library counting host and device blocks.
#include <gtest/gtest.h>
#include <pybind11/embed.h>
#include <pybind11/stl.h>

#include <cmath>
#include <complex>
#include <string>
#include <vector>

#include "fake_knobs.hpp"
#include "math/call_shapes.hpp"
#include "python/frame.hpp"

namespace {

namespace py = pybind11;
using namespace ondrel;
using namespace ondrel::python;
using namespace py::literals;

py::object eval(const char* code) { return py::eval(code, py::globals()); }

class Frame : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    static py::scoped_interpreter interpreter;
    py::exec("import numpy as np");
  }
};

TEST_F(Frame, DtypeDispatch) {
  try {
    dtype_is_double(eval("np.zeros(3, np.float16)"));
    FAIL() << "no error";
  } catch (const py::type_error& e) {
    EXPECT_STREQ(e.what(), "float16 input is not supported here; cast to float32");
  }
  EXPECT_FALSE(dtype_is_double(eval("np.arange(4, dtype=np.int16)")));  // integers run in float
  EXPECT_FALSE(dtype_is_double(eval("np.zeros(2, np.complex64)")));
  EXPECT_TRUE(dtype_is_double(eval("np.zeros(2, np.complex128)")));
  EXPECT_TRUE(dtype_is_double(eval("[1.0, 2.0]")));
  EXPECT_FALSE(dtype_is_double(eval("[1, 2]")));

  const CArray<float> f = as_c_array<float>(eval("np.arange(6, dtype=np.int16).reshape(2, 3)[:, ::-1]"));
  EXPECT_EQ(std::vector<float>(f.data(), f.data() + 6), (std::vector<float>{2, 1, 0, 5, 4, 3}));
  // The FFT bindings take any array: float16 becomes complex64.
  const py::array h = eval("np.ones((1, 4), np.float16)");
  EXPECT_FALSE(dtype_is<std::complex<double>>(h));
  const auto c = as_c_array<std::complex<float>>(h);
  EXPECT_EQ(c.data()[3], std::complex<float>(1, 0));
  EXPECT_THROW(as_c_array<float>(eval("'abc'")), py::error_already_set);
  EXPECT_THROW(check_rank(c, 3, "expected a 3-D (batch, frames, bins) array"), std::invalid_argument);
}

TEST_F(Frame, WindowArguments) {
  EXPECT_EQ(window_spec(eval("'rect'")).hash, 1006u);
  EXPECT_EQ(window_spec(eval("'boxcar'")).hash, 1006u);
  EXPECT_EQ(window_spec(eval("'boxcar'")).id, 6);
  const WindowSpec list = window_spec(eval("[0.25, 0.5, 1.0]"));
  const WindowSpec arr = window_spec(eval("np.array([0.25, 0.5, 1.0], np.float32)"));
  EXPECT_EQ(list.hash, arr.hash);
  EXPECT_EQ(list.id, -1);
  EXPECT_EQ(list.samples, (std::vector<double>{0.25, 0.5, 1.0}));
  // A strided view hashes like its contiguous copy.
  EXPECT_EQ(window_spec(eval("np.array([0.25, 9, 0.5, 9, 1.0])[::2]")).hash, list.hash);
  for (const char* bad : {"np.ones((2, 2))", "None", "3.0", "{'a': 1}"}) {
    try {
      window_spec(eval(bad));
      ADD_FAILURE() << bad;
    } catch (const std::invalid_argument& e) {
      EXPECT_STREQ(e.what(), "window must be a name or a 1-D float array") << bad;
    }
  }
  EXPECT_THROW(window_spec(eval("'hanning'")), std::invalid_argument);
}

// Periodic windows are numpy's symmetric ones of one more sample, cut.
TEST_F(Frame, WindowValuesAgainstNumpy) {
  py::exec(R"(
def ref(name, w):
    x = 2 * np.pi * np.arange(w) / w
    return {
        'hann': np.hanning(w + 1)[:-1],
        'hamming': np.hamming(w + 1)[:-1],
        'blackman': np.blackman(w + 1)[:-1],
        'blackmanharris': 0.35875 - 0.48829 * np.cos(x) + 0.14128 * np.cos(2 * x) - 0.01168 * np.cos(3 * x),
        'nuttall': 0.3635819 - 0.4891775 * np.cos(x) + 0.1365995 * np.cos(2 * x) - 0.0106411 * np.cos(3 * x),
        'bartlett': np.bartlett(w + 1)[:-1],
        'boxcar': np.ones(w),
        'rect': np.ones(w),
    }[name]
)");
  for (const char* name : {"hann", "hamming", "blackman", "blackmanharris", "nuttall", "bartlett", "boxcar", "rect"})
    for (int w : {1, 2, 7, 64, 400, 1025}) {
      const std::vector<double> got = window_table(named_window(name), w, w);
      const auto want = py::globals()["ref"](name, w).cast<std::vector<double>>();
      ASSERT_EQ(got.size(), want.size());
      for (int i = 0; i < w; ++i) ASSERT_NEAR(got[i], want[i], 1e-14) << name << " w " << w << " i " << i;
    }
  // A shorter window sits centred between zeros.
  const std::vector<double> t = window_table(named_window("hann"), 6, 11);
  const auto want = eval("np.concatenate([np.zeros(2), np.hanning(7)[:-1], np.zeros(3)])").cast<std::vector<double>>();
  ASSERT_EQ(t.size(), 11u);
  for (int i = 0; i < 11; ++i) EXPECT_NEAR(t[i], want[i], 1e-15) << i;
  const std::vector<double> a = window_table(window_spec(eval("[1.0, 2.0]")), 2, 5);
  EXPECT_EQ(a, (std::vector<double>{0, 1, 2, 0, 0}));
}

TEST_F(Frame, PinnedArrayOwnsItsBlock) {
  py::array_t<float> a = pinned_array<float>({3, 5});
  const void* block = a.data();
  ASSERT_TRUE(py::isinstance<py::capsule>(a.base()));
  for (int i = 0; i < 15; ++i) a.mutable_data()[i] = static_cast<float>(i);
  py::array view = a[py::make_tuple(1)];
  const int freed = fake::host_free_calls();
  pinned_pool().drain();  // only free blocks go: this one is held by the array
  EXPECT_EQ(fake::host_free_calls(), freed);
  a = py::array_t<float>();
  EXPECT_EQ(view.cast<std::vector<float>>(), (std::vector<float>{5, 6, 7, 8, 9}));  // the view keeps it
  view = py::array();
  // Released with the last view: the next array of that size gets the same block.
  const int allocs = fake::host_malloc_calls();
  EXPECT_EQ(pinned_array<float>({15}).data(), block);
  EXPECT_EQ(fake::host_malloc_calls(), allocs);
}

TEST_F(Frame, PinnedArrayLayoutAndChecks) {
  // [batch][frame][bin] in memory shown as (batch, bins, frames).
  const py::ssize_t e = sizeof(double), bins = 3, frames = 4;
  py::array_t<double> s = pinned_array<double>({2, bins, frames}, {frames * bins * e, e, bins * e});
  EXPECT_EQ(s.strides(2), bins * e);
  EXPECT_FALSE(s.attr("flags")["C_CONTIGUOUS"].cast<bool>());
  EXPECT_THROW(pinned_array<float>({2, -1}), std::invalid_argument);
  EXPECT_THROW(pinned_array<float>({int64_t{1} << 40, int64_t{1} << 40}), std::overflow_error);
}

TEST_F(Frame, ToDeviceReturnsItsPinnedBlock) {
  const std::vector<double> host(1000, 1.5);
  const int host_allocs = fake::host_malloc_calls();
  const int dev_allocs = fake::malloc_calls();
  for (int i = 0; i < 3; ++i) {
    DeviceBuffer d = to_device(host.data(), host.size());
    EXPECT_NE(d.p, nullptr);
  }
  // One block of each kind, reused by the later calls.
  EXPECT_EQ(fake::host_malloc_calls(), host_allocs + 1);
  EXPECT_EQ(fake::malloc_calls(), dev_allocs + 1);
  // A pinned block that cannot be had leaves the device block in its pool.
  fake::fail_host_malloc(2, 2);
  EXPECT_THROW(to_device(host.data(), 2 * host.size()), std::runtime_error);
  fake::fail_host_malloc(0, 0);
  const int dev_now = fake::malloc_calls();
  { DeviceBuffer again(2 * host.size() * sizeof(double), nullptr); }
  EXPECT_EQ(fake::malloc_calls(), dev_now);
  EXPECT_EQ(device_address(0x1000), reinterpret_cast<void*>(0x1000));
  EXPECT_EQ(stream_handle(0), nullptr);
}

TEST(CallShapes, FrameCountTexts) {
  EXPECT_EQ(fake::error_of([] { frame_count(512, 1024, 256, 512, "stft"); }),
            "stft: signal length must exceed pad for reflect padding");
  EXPECT_EQ(frame_count(513, 1024, 256, 512, "stft"), 3);
  EXPECT_EQ(fake::error_of([] { frame_count(1023, 1024, 256, 0, "mel"); }), "mel: signal too short for n_fft");
  EXPECT_EQ(frame_count(1024, 1024, 256, 0, "mel"), 1);
  EXPECT_EQ(frame_count(100, 7, 10, 3, "stft"), (100 - 1) / 10 + 1);  // odd n_fft, centred
  EXPECT_THROW(frame_count(100, 8, 0, 4, "stft"), std::invalid_argument);
}

TEST(CallShapes, CheckedSize) {
  EXPECT_EQ(checked_size({2, 3, 4}), 24);
  EXPECT_EQ(checked_size({}), 1);
  EXPECT_EQ(checked_size({0, int64_t{1} << 62, 8}), 0);
  EXPECT_EQ(fake::error_of([] { checked_size({3, -1}); }), "array dimension must be non-negative");
  EXPECT_THROW(checked_size({int64_t{1} << 32, int64_t{1} << 31}), std::overflow_error);
  EXPECT_NO_THROW(checked_size({int64_t{1} << 31, int64_t{1} << 31}));
}

}  // namespace
