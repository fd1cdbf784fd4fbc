#include <gtest/gtest.h>

#include <atomic>
#include <stdexcept>
#include <vector>

#include "host_fft/threads.hpp"

namespace {

using namespace ondrel::host;

struct SettingCase {
  const char* ondrel;
  const char* omp;
  int32_t want;
};

class ThreadSetting : public ::testing::TestWithParam<SettingCase> {};

TEST_P(ThreadSetting, RuleOfTheTwoVariables) {
  const SettingCase& c = GetParam();
  EXPECT_EQ(parse_thread_setting(c.ondrel, c.omp), c.want)
      << (c.ondrel ? c.ondrel : "unset") << " / " << (c.omp ? c.omp : "unset");
}

INSTANTIATE_TEST_SUITE_P(
    Cases, ThreadSetting,
    ::testing::Values(SettingCase{"0", "3", 0},          // automatic; OMP not read
                      SettingCase{"5000", "3", 3},       // above 4096 falls through
                      SettingCase{"garbage", "2", 2},    // nothing parsed falls through
                      SettingCase{"-1", "2", 2},         // negative is huge as unsigned
                      SettingCase{"4096", nullptr, 4096}, SettingCase{"6", "3", 6},
                      SettingCase{" 7x", nullptr, 7},    // strtol takes the leading number
                      SettingCase{nullptr, "0", 0},      // OMP needs 1 to 4096
                      SettingCase{nullptr, "5000", 0}, SettingCase{nullptr, "", 0},
                      SettingCase{nullptr, nullptr, 0}, SettingCase{"", "8", 8}));

TEST(DefaultThreads, AtLeastOne) { EXPECT_GE(default_threads(), 1); }

TEST(TaskRows, SpreadsOverFourTasksPerThread) {
  const int32_t before = thread_setting();
  set_thread_setting(1);
  EXPECT_EQ(task_rows(16, 1000), 1000);
  EXPECT_EQ(task_rows(16, 1), 1);
  set_thread_setting(4);
  EXPECT_EQ(task_rows(1000, 1000), 63);  // ceil(1000 / 16)
  EXPECT_EQ(task_rows(16, 1000), 16);
  EXPECT_EQ(task_rows(16, 3), 1);
  set_thread_setting(before);
}

class ParallelFor : public ::testing::TestWithParam<int32_t> {
 protected:
  void SetUp() override {
    before_ = thread_setting();
    set_thread_setting(GetParam());
  }
  void TearDown() override { set_thread_setting(before_); }
  int32_t before_ = 0;
};

TEST_P(ParallelFor, EveryIndexOnce) {
  for (int64_t count : {0, 1, 2, 7, 1000}) {
    std::vector<std::atomic<int>> hits(count);
    parallel_for(count, [&](int64_t i) { hits[i].fetch_add(1); });
    for (int64_t i = 0; i < count; ++i) ASSERT_EQ(hits[i].load(), 1) << i << " of " << count;
  }
}

TEST_P(ParallelFor, ExceptionReachesTheCaller) {
  std::atomic<int> ran{0};
  EXPECT_THROW(parallel_for(500,
                            [&](int64_t i) {
                              ran.fetch_add(1);
                              if (i == 37) throw std::runtime_error("task 37");
                            }),
               std::runtime_error);
  // The pool stays usable after a failed run.
  std::atomic<int64_t> sum{0};
  parallel_for(100, [&](int64_t i) { sum.fetch_add(i); });
  EXPECT_EQ(sum.load(), 4950);
}

TEST_P(ParallelFor, NestedCallsRunOnTheirThread) {
  std::atomic<int> inner{0};
  parallel_for(8, [&](int64_t) { parallel_for(8, [&](int64_t) { inner.fetch_add(1); }); });
  EXPECT_EQ(inner.load(), 64);
}

INSTANTIATE_TEST_SUITE_P(Threads, ParallelFor, ::testing::Values(1, 4));

}  // namespace
