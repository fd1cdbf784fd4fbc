#include "host_fft/threads.hpp"

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstdlib>
#include <fstream>
#include <set>
#include <string>
#include <thread>
#include <utility>

#include "host_fft/thread_pool.hpp"

namespace ondrel::host {

namespace {

bool parse_long(const char* text, long& value) {
  if (text == nullptr) return false;
  char* end = nullptr;
  errno = 0;
  value = std::strtol(text, &end, 10);
  return end != text && errno == 0;
}

// Distinct (package, core) pairs of /proc/cpuinfo; 0 when it can't be read.
int32_t physical_cores() {
  std::ifstream info("/proc/cpuinfo");
  std::set<std::pair<std::string, std::string>> cores;
  std::string line, package;
  while (std::getline(info, line)) {
    const auto colon = line.find(':');
    if (colon == std::string::npos) continue;
    const std::string key = line.substr(0, line.find_last_not_of(" \t", colon - 1) + 1);
    const std::string value = colon + 2 <= line.size() ? line.substr(colon + 2) : "";
    if (key == "physical id") package = value;
    else if (key == "core id") cores.emplace(package, value);
  }
  return static_cast<int32_t>(cores.size());
}

std::atomic<int32_t>& setting_slot() {
  static std::atomic<int32_t> slot{
      parse_thread_setting(std::getenv("ONDREL_NUM_THREADS"), std::getenv("OMP_NUM_THREADS"))};
  return slot;
}

}  // namespace

int32_t parse_thread_setting(const char* ondrel_value, const char* omp_value) {
  long v = 0;
  if (parse_long(ondrel_value, v) && static_cast<unsigned long>(v) <= 4096) return static_cast<int32_t>(v);
  if (parse_long(omp_value, v) && v >= 1 && v <= 4096) return static_cast<int32_t>(v);
  return 0;
}

int32_t default_threads() {
  static const int32_t count = [] {
    int32_t c = physical_cores();
    if (c < 1) c = static_cast<int32_t>(std::thread::hardware_concurrency());
    return c < 1 ? 1 : c;
  }();
  return count;
}

int32_t thread_setting() { return setting_slot().load(); }

void set_thread_setting(int32_t value) { setting_slot().store(value); }

int32_t effective_threads() {
  const int32_t t = thread_setting();
  return t > 0 ? t : default_threads();
}

int64_t task_rows(int64_t cap, int64_t rows) {
  if (rows < 2) return 1;
  const int64_t t = effective_threads();
  if (t < 2) return rows;
  const int64_t spread = (rows + std::min(4 * t, rows) - 1) / std::min(4 * t, rows);
  return std::max<int64_t>(std::min(spread, std::max<int64_t>(cap, 1)), 1);
}

void parallel_for(int64_t count, const std::function<void(int64_t)>& task) {
  if (count < 1) return;
  const int64_t t = std::min<int64_t>(effective_threads(), count);
  if (t > 1 && !in_pool_thread()) {
    ThreadPool::instance().run(count, static_cast<int32_t>(t), task);
    return;
  }
  for (int64_t i = 0; i < count; ++i) task(i);
}

}  // namespace ondrel::host
