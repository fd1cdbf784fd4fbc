#include <gtest/gtest.h>

#include <stdexcept>

#include "fake_knobs.hpp"
#include "rocm/context.hpp"

namespace {

using ondrel::check_shared;
using ondrel::device_shared_limit;

struct SharedLimitCase {
  int result, value;
  uint64_t limit;
};

void PrintTo(const SharedLimitCase& c, std::ostream* os) { *os << c.result << "/" << c.value; }

class SharedLimit : public testing::TestWithParam<SharedLimitCase> {};

TEST_P(SharedLimit, FallsBackTo48KiBWhenTheQuerySaysNothing) {
  fake::set_attribute(GetParam().result, GetParam().value);
  EXPECT_EQ(device_shared_limit(0), GetParam().limit);
}

INSTANTIATE_TEST_SUITE_P(Cases, SharedLimit,
                         testing::Values(SharedLimitCase{0, 65536, 65536}, SharedLimitCase{0, 163840, 163840},
                                         SharedLimitCase{0, 0, 49152}, SharedLimitCase{0, -5, 49152},
                                         SharedLimitCase{1, 65536, 49152}));

TEST(CheckShared, TheLimitItselfPassesOneMoreRaises) {
  fake::set_attribute(0, 65536);
  EXPECT_NO_THROW(check_shared(65536, 0, "fft: n"));
  EXPECT_THROW(check_shared(65537, 0, "fft: n"), std::invalid_argument);
  EXPECT_EQ(fake::error_of([] { check_shared(65537, 0, "stft: n_fft"); }),
            "stft: n_fft exceeds the device shared-memory limit");
  // Compared unsigned: no wrap for huge requests.
  EXPECT_THROW(check_shared(UINT64_MAX, 0, "bluestein: M"), std::invalid_argument);
}

TEST(LaunchKernel, GridYLimitIsCheckedBeforeAnyHipCall) {
  ondrel::launch_kernel(nullptr, 1, 65535, 64, 0, nullptr, "ondrel_fft", nullptr);
  EXPECT_EQ(fake::launch_calls(), 1);
  EXPECT_EQ(fake::error_of([] { ondrel::launch_kernel(nullptr, 1, 65536, 64, 0, nullptr, "ondrel_fft", nullptr); }),
            "ondrel_fft: batch exceeds grid.y limit");
  EXPECT_EQ(fake::launch_calls(), 1);
}

TEST(LaunchKernel, FailureNamesTheCallAndTheKernel) {
  fake::set_launch_result(9);
  const std::string msg =
      fake::error_of([] { ondrel::launch_kernel(nullptr, 4, 1, 64, 0, nullptr, "cfft_64_1_1_f", nullptr); });
  EXPECT_TRUE(msg.ends_with(
      ": ::ondrel::hip_dl::api().ModuleLaunchKernel(fn, gx, gy, 1, block, 1, 1, shared, stream, args, nullptr) "
      "[cfft_64_1_1_f] failed: fake error"))
      << msg;
  EXPECT_TRUE(msg.starts_with(__FILE__) || msg.find("context.cpp:") != std::string::npos) << msg;
}

TEST(HipCheck, TextWithAndWithoutTag) {
  EXPECT_NO_THROW(ondrel::hip_check(0, "f.cpp", 1, "x"));
  EXPECT_EQ(fake::error_of([] { ondrel::hip_check(2, "pool.cpp", 42, "r", "memAlloc"); }),
            "pool.cpp:42: r [memAlloc] failed: out of memory");
  EXPECT_EQ(fake::error_of([] { ondrel::hip_check(1, "a.cpp", 7, "memcpyHtoD(dx.p, x.data(), bytes)"); }),
            "a.cpp:7: memcpyHtoD(dx.p, x.data(), bytes) failed: invalid argument");
  // The runtime may have no text for a code.
  EXPECT_EQ(ondrel::hip_error_text(77), "unknown HIP error");
}

TEST(SelectDevice, NoDeviceAlthoughTheLibraryLoaded) {
  fake::set_device_count(0);
  EXPECT_EQ(fake::error_of([] { ondrel::select_device(0); }), "no HIP device available");
  EXPECT_FALSE(ondrel::available());
}

TEST(SelectDevice, MakesTheDeviceCurrentAndChecksTheCall) {
  fake::set_device_count(2);
  EXPECT_EQ(ondrel::select_device(1), 1);
  int dev = -1;
  ondrel::hip_dl::api().GetDevice(&dev);
  EXPECT_EQ(dev, 1);
  EXPECT_TRUE(fake::error_of([] { ondrel::select_device(5); })
                  .ends_with(": ::ondrel::hip_dl::api().SetDevice(dev_id) failed: invalid device ordinal"));
}

struct ArchCase {
  const char* reported;
  const char* tag;
  const char* arch;
};

void PrintTo(const ArchCase& c, std::ostream* os) { *os << '"' << c.reported << '"'; }

class ArchTag : public testing::TestWithParam<ArchCase> {};

TEST_P(ArchTag, TextBeforeTheFirstColon) {
  fake::set_arch(GetParam().reported);
  EXPECT_EQ(ondrel::arch_tag(0), GetParam().tag);
  EXPECT_EQ(ondrel::device_arch(0), GetParam().arch);
}

INSTANTIATE_TEST_SUITE_P(Cases, ArchTag,
                         testing::Values(ArchCase{"gfx942:sramecc+:xnack-", "gfx942", "gfx942"},
                                         ArchCase{"gfx1100", "gfx1100", "gfx1100"},
                                         ArchCase{":xnack-", "gfxunknown", ""}, ArchCase{"", "gfxunknown", ""}));

TEST(DeviceQueries, NameAndCount) {
  fake::set_device_count(3);
  EXPECT_EQ(ondrel::device_count(), 3);
  EXPECT_EQ(ondrel::device_name(0), "Fake Device");
}

}  // namespace
