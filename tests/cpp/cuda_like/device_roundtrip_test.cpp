// Uploads and copies back through a real HIP runtime (the CPU one): what
// reaches the device is what the host computed.
#include <gtest/gtest.h>
#include <pybind11/embed.h>

#include <complex>
#include <random>
#include <string>
#include <vector>

#include "cuda_like/tables/table_cache.hpp"
#include "cuda_like/tables/twiddles.hpp"
#include "cuda_like/tables/windows.hpp"
#include "python/frame.hpp"

namespace {

namespace py = pybind11;
using namespace ondrel;
using namespace ondrel::python;

template <class T>
std::vector<T> read_back(const void* p, size_t count) {
  std::vector<T> out(count);
  copy_back(out.data(), p, count * sizeof(T), "memcpyDtoH(out.data(), p, bytes)");
  return out;
}

class DeviceRoundTrip : public ::testing::Test {
 protected:
  static void SetUpTestSuite() {
    static py::scoped_interpreter interpreter;
    select_device(0);
  }
};

TEST_F(DeviceRoundTrip, StagedInputAndPinnedResult) {
  const unsigned seed = std::random_device{}();
  std::mt19937 gen(seed);
  std::normal_distribution<double> d;
  std::vector<double> host(3 * 1000);
  for (double& v : host) v = d(gen);
  const DeviceBuffer dev = to_device(host.data(), host.size());
  py::array_t<double> out = pinned_array<double>({3, 1000});
  copy_back(out.mutable_data(), dev.p, host.size() * sizeof(double), "memcpyDtoH(out.mutable_data(), dx.p, bytes)");
  EXPECT_EQ(std::vector<double>(out.data(), out.data() + out.size()), host) << "seed " << seed;
}

TEST_F(DeviceRoundTrip, TablesHoldTheHostValues) {
  const std::vector<float> first{1, 2, 3};
  const void* p = table_by_name("roundtrip_first", first);
  table_by_name("roundtrip_first", std::vector<float>{7, 8, 9});
  EXPECT_EQ(read_back<float>(p, 3), first);

  const auto want = twiddle_table(720, 0);
  EXPECT_EQ(read_back<std::complex<double>>(twiddle_device<double>(TwiddleKind::fft, 720), want.size()), want);
  EXPECT_EQ(read_back<std::complex<float>>(twiddle_device<float>(TwiddleKind::stft, 512), 1)[0],
            std::complex<float>(0, 0));

  const std::vector<double> hann = window_table(named_window("hann"), 64, 64);
  const std::vector<float> got = read_back<float>(window_device<float>(named_window("hann"), 64), 64);
  for (int i = 0; i < 64; ++i) EXPECT_EQ(got[i], static_cast<float>(hann[i])) << i;
}

}  // namespace
