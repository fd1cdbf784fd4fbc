#include "cuda_like/launch/launch_record.hpp"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <stdexcept>

#include "codegen/backend.hpp"
#include "cuda_like/launch/launch_probe.hpp"
#include "rocm/compile.hpp"
#include "rocm/context.hpp"

namespace ondrel {

namespace {

std::atomic<uint64_t> table_touches{0};
std::atomic<bool> watching{false};

std::mutex& watched_lock() {
  static std::mutex m;
  return m;
}

std::string& watched_key() {
  static std::string key;
  return key;
}

}  // namespace

KernelPlan flat_plan(std::string key, std::string entry, codegen::KernelParams params,
                     std::function<std::string()> text, uint64_t shared_bytes) {
  return {.key = std::move(key),
          .entry = std::move(entry),
          .threads = 256,
          .shared_bytes = shared_bytes,
          .params = std::move(params),
          .text = std::move(text)};
}

LaunchRecord compiled(const KernelPlan& plan, int device) {
  // A text whose head lists other parameters than the plan would take the
  // launch's arguments in the wrong places: refused before it can run.
  const auto checked_text = [&plan] {
    std::string text = plan.text();
    const codegen::Backend& b = codegen::hip_backend();
    std::string call(1, ' ');
    call += codegen::KernelSig(plan.entry, b, plan.params).call_text();
    if (text.find(call + b.extra_params_plain() + ")") == std::string::npos &&
        text.find(call + b.extra_params_shared() + ")") == std::string::npos)
      throw std::logic_error(plan.key + ": the kernel's head does not declare the parameters of its launch");
    return text;
  };
  LaunchRecord rec;
  rec.fn = kernel_function(plan.key, device, checked_text, plan.entry);
  rec.key = plan.key;
  rec.entry = plan.entry;
  rec.threads = plan.threads;
  rec.shared_bytes = static_cast<uint32_t>(plan.shared_bytes);
  rec.rows_per_block = plan.rows_per_block;
  rec.params = plan.params;
  return rec;
}

void launch(const LaunchRecord& rec, unsigned grid_x, unsigned grid_y, KernelArgs& args,
            hip_dl::hipStream_t stream) {
  if (grid_y > kMaxGridRows) throw std::runtime_error(rec.entry + ": batch exceeds grid.y limit");
  if (watching.load(std::memory_order_relaxed)) {
    std::lock_guard guard(watched_lock());
    watched_key() = rec.key;
  }
  launch_kernel(rec.fn, grid_x, grid_y, rec.threads, rec.shared_bytes, args.pointers(), rec.key, stream);
}

void for_row_chunks(int64_t rows, const std::function<void(int64_t, int64_t)>& body) {
  for (int64_t start = 0; start < rows; start += kMaxGridRows) body(start, std::min(kMaxGridRows, rows - start));
}

uint64_t record_hash(uint64_t key, uint64_t generation) {
  // Every find and store of a launch table goes through here.
  table_touches.fetch_add(1, std::memory_order_relaxed);
  return (key * 64 + generation + 0x9e3779b97f4a7c15ULL + (key >> 2)) ^ key;
}

uint64_t launch_table_touches() { return table_touches.load(); }

void watch_launch_keys(bool on) { watching.store(on); }

std::string last_launch_key() {
  std::lock_guard guard(watched_lock());
  return watched_key();
}

}  // namespace ondrel
