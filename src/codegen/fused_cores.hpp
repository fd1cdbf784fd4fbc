#pragma once
// The register FFT cores of the fused spectral kernels. Both expect the
// framing names `frame`, `tid`, `sh` (the frame's shared row), TPF, SHP,
// NFRAMES and, with a table, `twsh`; both leave the frame's spectrum in `sh`
// in natural order behind a barrier. The kernel supplies the fused load as a
// hook that runs inside "if (frame < NFRAMES)".
#include <cstdint>
#include <functional>
#include <string>

#include "codegen/backend.hpp"
#include "codegen/fft_stages.hpp"
#include "codegen/kernel_writer.hpp"

namespace ondrel::codegen {

using LoadHook = std::function<void()>;

// 32 threads a frame, ept registers each, m = 32 * ept: an ept-point FFT in
// registers, then five radix-2 steps across lanes by shuffles. The register
// hook fills a<e> and b<e> (declared zero) with element ie<e> = tid + 32 e.
// Any other shape falls back on ct_passes, after `row_load`, which writes
// the frame into `sh` in bit-reversed order and ends with a barrier.
void warp_core(KernelWriter& w, const FusedFft& plan, const LoadHook& register_load, const LoadHook& row_load);

// The Stockham passes with the first radix R0 (the plan's ept, tpf = m / R0)
// fused into the load: the hook fills ar<e> and ai<e> (declared zero) with
// element k<e> = tid + e * tpf.
void ept16_core(KernelWriter& w, const FusedFft& plan, const LoadHook& load);

// A complex FFT of rows of m points built around one of these cores, for
// inspection and tests: "ondrel_fused_fft(x, out, tw, NFRAMES)", one frame
// a block, x and out rows of `cplx`, tw the m / 2 forward twiddles read when
// `plan.tw_table`. `core` is 0 (ct_passes), 1 (warp) or 3 (EPT16).
std::string fused_fft_kernel(const FusedFft& plan, int core, int prec, const Backend& backend);

}  // namespace ondrel::codegen
