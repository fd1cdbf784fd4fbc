// Loaded code objects and the kernels found in them.
#pragma once
#include <string>
#include <vector>

#include "device/kernel_abi.hpp"
#include "ondrel_cpu/hip.h"

struct OndrelCpuFunction {
  std::string name;
  void (*entry)(void** args);
  const ondrel_cpu::ParamLayout* params;
  hipModule_t module;
};

// Modules are never unloaded: HIP's table here has no unload, and launches
// captured in graphs keep pointing into them.
struct OndrelCpuModule {
  void* handle = nullptr;  // from dlopen
  bool fibers = false;     // the program uses barriers or shuffles
  ondrel_cpu::ThreadContext* (*thread_context)() = nullptr;
};

namespace ondrel_cpu {

bool function_live(hipFunction_t f);

}  // namespace ondrel_cpu
