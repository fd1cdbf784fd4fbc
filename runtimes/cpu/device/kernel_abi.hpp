// What a compiled code object and the runtime that loads it agree on. The
// runtime compiles this file; the hipRTC side embeds it in front of every
// kernel. Any change here must raise kAbiVersion.
#pragma once

namespace ondrel_cpu {

inline constexpr int kAbiVersion = 1;
inline constexpr unsigned kMaxParams = 64;

struct Dim3 {
  unsigned x, y, z;
};

// The GPU thread a host thread is running right now. Each code object keeps
// one per host thread; the runtime rewrites thread_idx at every fiber switch.
struct ThreadContext {
  Dim3 thread_idx, block_idx, block_dim, grid_dim;
  void* shared;  // the block's dynamic shared memory
};

// Runtime calls a code object makes; handed over once after loading. They
// act on the block that the calling host thread is running.
struct Services {
  void (*barrier)();
  void (*shuffle)(const void* in, void* out, unsigned bytes, int lane_mask, int width);
};

// Sizes of a kernel's parameters in order, so that launches can be copied
// into graphs.
struct ParamLayout {
  unsigned count;
  unsigned size[kMaxParams];
};

}  // namespace ondrel_cpu
