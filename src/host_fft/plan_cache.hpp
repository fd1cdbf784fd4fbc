#pragma once
// Process-lifetime plan tables, one per plan type (a kind of plan and its
// element type). The table's mutex is held while a plan builds, so that two
// threads never build one plan twice; a thread's last hit takes no lock.
#include <cstdint>
#include <memory>
#include <mutex>
#include <unordered_map>

namespace ondrel::host {

// Key n * 2 + direction, 1 for the inverse.
inline int64_t plan_key(int32_t n, bool inverse) { return static_cast<int64_t>(n) * 2 + (inverse ? 1 : 0); }

// The table of one plan type. Never destroyed: pool workers may still hold
// plans while the process exits.
template <class Plan>
struct PlanTable {
  std::mutex mutex;
  std::unordered_map<int64_t, std::unique_ptr<Plan>> plans;
};

template <class Plan>
PlanTable<Plan>& plan_table() {
  static PlanTable<Plan>* table = new PlanTable<Plan>;
  return *table;
}

template <class Plan>
struct PlanMemo {
  int64_t key = -1;
  const Plan* plan = nullptr;
};

template <class Plan>
PlanMemo<Plan>& plan_memo() {
  thread_local PlanMemo<Plan> memo;
  return memo;
}

// `build` returns a std::unique_ptr<Plan>; it runs only on a miss.
template <class Plan, class Build>
const Plan& cached_plan(int64_t key, Build&& build) {
  PlanMemo<Plan>& memo = plan_memo<Plan>();
  if (memo.plan != nullptr && memo.key == key) return *memo.plan;
  PlanTable<Plan>& table = plan_table<Plan>();
  std::lock_guard<std::mutex> lock(table.mutex);
  auto found = table.plans.find(key);
  if (found == table.plans.end()) found = table.plans.emplace(key, build()).first;
  memo = {key, found->second.get()};
  return *found->second;
}

}  // namespace ondrel::host
