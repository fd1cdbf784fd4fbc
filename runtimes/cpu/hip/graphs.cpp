#include "hip/guard.hpp"
#include "hip/streams.hpp"

using ondrel_cpu::graph_execs;
using ondrel_cpu::graphs;

extern "C" {

hipError_t hipGraphInstantiate(hipGraphExec_t* exec, hipGraph_t graph, hipGraphNode_t* error_node, char* log,
                               size_t log_size) {
  if (error_node != nullptr) *error_node = nullptr;
  if (log != nullptr && log_size > 0) log[0] = '\0';
  if (exec == nullptr) return hipErrorInvalidValue;
  if (!graphs().contains(graph)) return hipErrorInvalidHandle;
  return ondrel_cpu::guarded([&] {
    auto e = std::make_unique<OndrelCpuGraphExec>();
    e->nodes = std::make_shared<const std::vector<OndrelCpuOp>>(graph->nodes);
    *exec = graph_execs().add(std::move(e));
    return hipSuccess;
  });
}

hipError_t hipGraphLaunch(hipGraphExec_t exec, hipStream_t stream) {
  if (!graph_execs().contains(exec)) return hipErrorInvalidHandle;
  return ondrel_cpu::submit(stream, [nodes = exec->nodes] {
    for (const OndrelCpuOp& node : *nodes) {
      if (hipError_t e = node(); e != hipSuccess) return e;
    }
    return hipSuccess;
  });
}

hipError_t hipGraphDestroy(hipGraph_t graph) { return graphs().take(graph) ? hipSuccess : hipErrorInvalidHandle; }

hipError_t hipGraphExecDestroy(hipGraphExec_t exec) {
  return graph_execs().take(exec) ? hipSuccess : hipErrorInvalidHandle;
}

}  // extern "C"
