#pragma once
// The gradient of the mel spectrogram with respect to the signal, between
// device addresses: the gradient on the bands back through their output
// form and the filterbank onto the bins, through magnitude or power onto
// the spectrum, which the kernels recompute from the signal, and from there
// as the STFT's mode adjoint does. Exact for every filterbank: banks with
// three or more bands over some bin read a full transpose.
#include <cstdint>
#include <vector>

#include "cuda_like/launch/launch_record.hpp"
#include "cuda_like/tables/mel_table.hpp"
#include "cuda_like/tables/windows.hpp"

namespace ondrel {

struct MelAdjointRequest {
  const void* g = nullptr;  // on the bands, through the strides (stride_bin steps over bands)
  const void* x = nullptr;  // the forward signal, batch x length
  void* gx = nullptr;       // batch x length, every element written
  int64_t batch = 0, n_mels = 0, frames = 0;
  int64_t stride_batch = 0, stride_bin = 0, stride_frame = 0;
  const FilterBank* fb = nullptr;
  int32_t n_fft = 0;
  int32_t hop = 0;
  bool center = true;
  int64_t length = 0;
  double power = 2.0;  // truncated: 1 magnitudes, more squared magnitudes
  int mode = 0;        // the forward's output form: 1 root, 3 decibels, else the sum
  double eps = 1e-10;
  const WindowSpec* window = nullptr;
  bool is_double = false;
  int32_t device = 0;
  void* stream = nullptr;
};

// The checks that need no device, in the order their errors are reported.
void check_mel_adjoint(const MelAdjointRequest& r);

void mel_adjoint(const MelAdjointRequest& r);

// Every kernel a request compiles for its own steps.
std::vector<KernelPlan> mel_adjoint_kernels(const MelAdjointRequest& r, uint64_t shared_limit);

}  // namespace ondrel
