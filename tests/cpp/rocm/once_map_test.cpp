// The table that makes each key once, without a lock held while it makes.
#include <gtest/gtest.h>

#include <atomic>
#include <future>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "rocm/once_map.hpp"

namespace {

using Map = ondrel::OnceMap<std::string, int>;

TEST(OnceMap, EightThreadsAskingForOneKeyMakeItOnceAndAllGetIt) {
  Map map;
  std::atomic<int> makes{0}, arrived{0};
  std::promise<void> release;
  const std::shared_future<void> released = release.get_future().share();
  std::vector<std::future<int>> results;
  for (int t = 0; t < 8; ++t)
    results.push_back(std::async(std::launch::async, [&] {
      ++arrived;
      return map.get("k", [&] {
        ++makes;
        released.wait();  // the others ask while this one makes
        return 42;
      });
    }));
  while (arrived < 8) std::this_thread::yield();
  release.set_value();
  for (auto& r : results) EXPECT_EQ(r.get(), 42);
  EXPECT_EQ(makes, 1);
  EXPECT_EQ(map.get("k", [] { return -1; }), 42);
}

TEST(OnceMap, AnotherKeyIsMadeAndFoundWhileOneIsBeingMade) {
  Map map;
  map.get("made", [] { return 1; });
  std::promise<void> release, started;
  auto slow = std::async(std::launch::async, [&] {
    return map.get("slow", [&] {
      started.set_value();
      release.get_future().wait();
      return 2;
    });
  });
  started.get_future().wait();
  // Both return while "slow" is still held: no lock spans its making.
  EXPECT_EQ(map.get("made", [] { return -1; }), 1);
  EXPECT_EQ(map.get("other", [] { return 3; }), 3);
  release.set_value();
  EXPECT_EQ(slow.get(), 2);
}

TEST(OnceMap, AFailureReachesEveryWaiterAndIsNotStored) {
  Map map;
  std::promise<void> release, started;
  auto maker = std::async(std::launch::async, [&] {
    return map.get("k", [&]() -> int {
      started.set_value();
      release.get_future().wait();
      throw std::runtime_error("compile failed");
    });
  });
  started.get_future().wait();
  std::atomic<bool> waiting{false};
  auto waiter = std::async(std::launch::async, [&] {
    waiting = true;
    return map.get("k", [] { return 7; });
  });
  while (!waiting) std::this_thread::yield();
  release.set_value();
  EXPECT_THROW(maker.get(), std::runtime_error);
  // The waiter either shared the maker's failure or, coming after it, made
  // the value itself; a failure is never what a later caller finds.
  int stored = 9;
  try {
    stored = waiter.get();
    EXPECT_EQ(stored, 7);
  } catch (const std::runtime_error& e) {
    EXPECT_STREQ(e.what(), "compile failed");
  }
  EXPECT_EQ(map.get("k", [] { return 9; }), stored);
}

}  // namespace
