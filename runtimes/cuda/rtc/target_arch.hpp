// The architecture a program is compiled for when the caller names none.
#pragma once
#include <string>

namespace ondrel_cuda {

// "sm_XY" of the calling thread's device (device 0 when no context is
// current); with no device, ONDREL_CUDA_ARCH. Empty, with the reason in
// `why`, when neither gives one.
std::string target_arch(std::string& why);

}  // namespace ondrel_cuda
