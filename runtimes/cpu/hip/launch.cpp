// hipModuleLaunchKernel: checks the geometry as HIP does, copies the
// arguments (a captured launch outlives the caller's values), and runs the
// grid's blocks on the worker pool.
#include <algorithm>
#include <atomic>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <new>
#include <vector>

#include "hip/block_runner.hpp"
#include "hip/faults.hpp"
#include "hip/guard.hpp"
#include "hip/modules.hpp"
#include "hip/streams.hpp"
#include "hip/worker_pool.hpp"

namespace ondrel_cpu {
namespace {

constexpr unsigned kMaxThreads = 1024;
constexpr unsigned kMaxGridYZ = 65535;
constexpr size_t kSlot = 16;  // every argument gets an aligned slot this wide, or a multiple

struct Launch {
  hipFunction_t fn;
  Dim3 grid, block;
  unsigned shared_bytes;
  std::vector<unsigned char> arg_bytes;
  std::vector<size_t> arg_offsets;
};

// Per host thread: the block's dynamic shared memory and the fiber scheduler.
struct HostThreadState {
  std::unique_ptr<unsigned char[], decltype(&std::free)> shared{nullptr, &std::free};
  size_t shared_size = 0;
  FiberBlock fibers;

  void* shared_of(size_t bytes) {
    if (bytes > shared_size) {
      void* p = std::aligned_alloc(64, (bytes + 63) / 64 * 64);
      if (p == nullptr) return nullptr;
      shared.reset(static_cast<unsigned char*>(p));
      shared_size = bytes;
    }
    return shared.get();
  }
};

HostThreadState& host_thread_state() {
  thread_local HostThreadState s;
  return s;
}

hipError_t run(const Launch& l) {
  std::vector<void*> args(l.arg_offsets.size());
  for (size_t i = 0; i < args.size(); ++i) {
    args[i] = const_cast<unsigned char*>(l.arg_bytes.data()) + l.arg_offsets[i];
  }
  const uint64_t blocks = uint64_t{l.grid.x} * l.grid.y * l.grid.z;
  std::atomic<uint64_t> next{0};
  std::atomic<bool> failed{false};
  const OndrelCpuModule& module = *l.fn->module;

  auto work = [&] {
    HostThreadState& state = host_thread_state();
    ThreadContext* ctx = module.thread_context();
    ctx->grid_dim = l.grid;
    ctx->block_dim = l.block;
    ctx->shared = state.shared_of(std::max<size_t>(l.shared_bytes, 1));
    if (ctx->shared == nullptr) {
      failed = true;
      return;
    }
    const BlockWork bw{l.fn->entry, args.data(), l.block, ctx};
    try {
      for (uint64_t b = next++; b < blocks && !failed; b = next++) {
        ctx->block_idx = {static_cast<unsigned>(b % l.grid.x), static_cast<unsigned>(b / l.grid.x % l.grid.y),
                          static_cast<unsigned>(b / (uint64_t{l.grid.x} * l.grid.y))};
        if (!module.fibers) {
          run_block_loop(bw);
        } else if (!state.fibers.run(bw)) {
          failed = true;
        }
      }
    } catch (const std::bad_alloc&) {  // no room for fiber stacks
      failed = true;
    }
  };
  if (blocks == 1) {
    work();
  } else {
    WorkerPool::get().run(work);
  }
  return failed ? hipErrorLaunchFailure : hipSuccess;
}

}  // namespace
}  // namespace ondrel_cpu

using namespace ondrel_cpu;

extern "C" hipError_t hipModuleLaunchKernel(hipFunction_t function, unsigned grid_x, unsigned grid_y,
                                            unsigned grid_z, unsigned block_x, unsigned block_y, unsigned block_z,
                                            unsigned shared_bytes, hipStream_t stream, void** params,
                                            void** extra) {
  if (!function_live(function)) return hipErrorInvalidHandle;
  if (extra != nullptr) return hipErrorNotSupported;
  if (grid_x == 0 || grid_y == 0 || grid_z == 0 || block_x == 0 || block_y == 0 || block_z == 0) {
    return hipErrorInvalidConfiguration;
  }
  if (grid_y > kMaxGridYZ || grid_z > kMaxGridYZ || block_x > kMaxThreads || block_y > kMaxThreads ||
      uint64_t{block_x} * block_y * block_z > kMaxThreads) {
    return hipErrorInvalidConfiguration;
  }
  int limit = 0;
  if (hipDeviceGetAttribute(&limit, hipDeviceAttributeMaxSharedMemoryPerBlock, 0) != hipSuccess ||
      shared_bytes > static_cast<unsigned>(limit)) {
    return hipErrorInvalidValue;
  }
  const ParamLayout& layout = *function->params;
  if (layout.count > 0 && params == nullptr) return hipErrorInvalidValue;
  if (hipError_t e = faults().launch.take(); e != hipSuccess) return e;

  return guarded([&] {
    auto launch = std::make_shared<Launch>();
    launch->fn = function;
    launch->grid = {grid_x, grid_y, grid_z};
    launch->block = {block_x, block_y, block_z};
    launch->shared_bytes = shared_bytes;
    size_t offset = 0;
    for (unsigned i = 0; i < layout.count; ++i) {
      launch->arg_offsets.push_back(offset);
      offset += (layout.size[i] + kSlot - 1) / kSlot * kSlot;
    }
    launch->arg_bytes.resize(offset);
    for (unsigned i = 0; i < layout.count; ++i) {
      if (params[i] == nullptr) return hipErrorInvalidValue;
      std::memcpy(launch->arg_bytes.data() + launch->arg_offsets[i], params[i], layout.size[i]);
    }
    return submit(stream, [launch] { return run(*launch); });
  });
}
