#include <gtest/gtest.h>

#include <stdexcept>

#include "fake_knobs.hpp"
#include "rocm/device_pool.hpp"
#include "rocm/pinned_pool.hpp"

namespace {

using ondrel::device_pool;
using ondrel::DeviceBuffer;
using ondrel::pinned_pool;

void* const s1 = reinterpret_cast<void*>(0x1);
void* const s2 = reinterpret_cast<void*>(0x2);

TEST(DevicePool, FloorOf256BytesAndReuse) {
  auto& pool = device_pool();
  void* a = pool.alloc(1, s1);
  pool.free(a, s1);
  EXPECT_EQ(pool.alloc(256, s1), a);  // the 1-byte request got a 256-byte block
  pool.free(a, s1);
  EXPECT_EQ(pool.alloc(200, s1), a);
  EXPECT_EQ(fake::malloc_calls(), 1);
}

TEST(DevicePool, BestFitUnderTwiceTheRequest) {
  auto& pool = device_pool();
  void* big = pool.alloc(1200, s1);
  void* mid = pool.alloc(1000, s1);
  pool.free(big, s1);
  pool.free(mid, s1);
  EXPECT_EQ(pool.alloc(900, s1), mid);
  void* fresh = pool.alloc(599, s1);  // 1200 > 2 * 599: not offered
  EXPECT_NE(fresh, big);
  EXPECT_EQ(pool.alloc(600, s1), big);
}

TEST(DevicePool, ALoanMovesTheOwnersFreeBlocksToTheGuestAndBack) {
  auto& pool = device_pool();
  void* const guest = reinterpret_cast<void*>(0x3);
  void* a = pool.alloc(4096, s1);
  pool.free(a, s1);
  pool.lend(guest, s1);
  void* b = pool.alloc(4096, s1);
  EXPECT_NE(b, a);  // lent: the owner's work cannot take it
  EXPECT_EQ(pool.alloc(4096, guest), a);
  void* c = pool.alloc(4096, guest);
  pool.free(a, guest);
  pool.free(c, guest);
  pool.end_loan(guest);
  // Both went back to the owner's list; none stays under the guest's handle.
  void* d = pool.alloc(4096, s1);
  void* e = pool.alloc(4096, s1);
  EXPECT_TRUE((d == a && e == c) || (d == c && e == a));
  EXPECT_EQ(fake::malloc_calls(), 3);
  void* f = pool.alloc(4096, guest);
  EXPECT_TRUE(f != a && f != b && f != c);
  EXPECT_EQ(fake::malloc_calls(), 4);
}

TEST(DevicePool, BucketsPerStreamAndDevice) {
  auto& pool = device_pool();
  void* a = pool.alloc(4096, s1);
  pool.free(a, s1);
  void* b = pool.alloc(4096, s2);
  EXPECT_NE(b, a);
  pool.free(b, s2);
  ondrel::hip_dl::api().SetDevice(0);
  fake::set_device_count(2);
  ondrel::hip_dl::api().SetDevice(1);
  void* c = pool.alloc(4096, s1);  // same stream, other device
  EXPECT_NE(c, a);
  pool.free(c, s1);
  ondrel::hip_dl::api().SetDevice(0);
  EXPECT_EQ(pool.alloc(4096, s1), a);
  pool.free(a, s1);
  const int before = fake::free_calls();
  pool.drain();
  EXPECT_EQ(fake::free_calls() - before, 3);
  EXPECT_EQ(fake::error_of([] { device_pool().drain(); }), "no exception");
  EXPECT_EQ(fake::free_calls() - before, 3);
}

TEST(DevicePool, OutOfMemoryReleasesEveryCachedBlockThenRetries) {
  auto& pool = device_pool();
  void* a = pool.alloc(1 << 20, s1);
  void* b = pool.alloc(1 << 20, s2);
  void* held = pool.alloc(512, s1);
  pool.free(a, s1);
  pool.free(b, s2);
  fake::fail_malloc(1, 2);
  void* p = pool.alloc(300, s1);
  EXPECT_NE(p, nullptr);
  EXPECT_EQ(fake::free_calls(), 2);  // both cached blocks, not the one in use
  pool.free(held, s1);
  EXPECT_EQ(pool.alloc(512, s1), held);
}

TEST(DevicePool, OtherErrorsRaiseWithoutRetry) {
  fake::fail_malloc(1, 1);
  const std::string msg = fake::error_of([] { device_pool().alloc(64, s1); });
  EXPECT_TRUE(msg.ends_with(": r [memAlloc] failed: invalid argument")) << msg;
  EXPECT_EQ(fake::malloc_calls(), 1);
  fake::fail_malloc(2, 2);
  EXPECT_TRUE(fake::error_of([] { device_pool().alloc(64, s1); }).ends_with("[memAlloc] failed: out of memory"));
}

TEST(DevicePool, NullAndForeignPointers) {
  device_pool().free(nullptr, s1);
  EXPECT_EQ(fake::free_calls(), 0);
  void* foreign = std::malloc(16);
  device_pool().free(foreign, s1);  // unknown to the pool: straight to the runtime
  EXPECT_EQ(fake::free_calls(), 1);
}

TEST(DeviceBuffer, GivesItsBlockBackWhenAnExceptionUnwinds) {
  void* seen = nullptr;
  try {
    DeviceBuffer buf(1000, s1);
    seen = buf.p;
    throw std::runtime_error("operation failed");
  } catch (const std::runtime_error&) {
  }
  DeviceBuffer again(1000, s1);
  EXPECT_EQ(again.p, seen);
  DeviceBuffer moved(std::move(again));
  EXPECT_EQ(again.p, nullptr);
  EXPECT_EQ(moved.p, seen);
}

TEST(PinnedPool, ReuseFloorAndRetryOnAnyFailure) {
  auto& pool = pinned_pool();
  void* a = pool.alloc(10);
  void* b = pool.alloc(5000);
  pool.free(a);
  EXPECT_EQ(pool.alloc(256), a);
  pool.free(b);
  fake::fail_host_malloc(1, 1);  // not only out of memory: drain and try again
  void* c = pool.alloc(100);
  EXPECT_NE(c, nullptr);
  EXPECT_EQ(fake::host_free_calls(), 1);
  fake::fail_host_malloc(2, 1);
  EXPECT_TRUE(fake::error_of([] { pinned_pool().alloc(100); }).ends_with(": r [hipHostMalloc] failed: invalid argument"));
  pool.free(nullptr);
  EXPECT_EQ(fake::host_free_calls(), 1);
}

TEST(PinnedBuffer, ReleasedBlockIsNotReturned) {
  void* kept;
  {
    ondrel::PinnedBuffer buf(300);
    kept = buf.release();
  }
  EXPECT_NE(pinned_pool().alloc(300), kept);
  pinned_pool().free(kept);
  EXPECT_EQ(pinned_pool().alloc(300), kept);
}

}  // namespace
