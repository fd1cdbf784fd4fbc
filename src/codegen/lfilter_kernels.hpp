#pragma once
// The linear recursive filter, parallel inside a row: each thread filters
// a run of NSEQ samples from a zero state, a block-wide scan over the
// threads' end states (with packed powers of the companion matrix) gives
// every run its true starting state, and each thread replays its run. The
// filter's order is written into the text as defines, so every loop over
// coefficients or state has constant bounds.
#include <cstdint>
#include <string>

#include "codegen/backend.hpp"
#include "codegen/kernel_sig.hpp"

namespace ondrel::codegen {

// The coefficient block cf of a filter with p feedback and m1 feedforward
// coefficients: b[0..m1), a[0..p), then kLfilterLevels levels of p * p,
// level l holding A^(16 * 2^l) row-major. The levels serve runs of 16
// samples and scans of at most 256 threads.
constexpr int32_t kLfilterLevels = 8;
constexpr int32_t kLfilterSeq = 16;
constexpr int32_t kLfilterMaxThreads = 256;
int64_t lfilter_cf_elements(int32_t p, int32_t m1);
// Levels a scan over `threads` threads reads: one per doubling step.
int32_t lfilter_scan_steps(int32_t threads);
// Shared words of the scan: p state rows of `threads` words.
int64_t lfilter_shared_words(int32_t p, int32_t threads);

// "(const R* b, const R* a, R* cf)"
KernelParams lfilter_pack_params();
// "(const R* x, R* y, const R* cf, const R* xh, const R* zy, I64 T, int hzi)"
KernelParams lfilter_params();

// "ondrel_lfilter_pack": one thread packs b and a into cf, the powers by
// repeated squaring in the precision `prec` (1 single, 2 double).
std::string lfilter_pack_kernel(int32_t p, int32_t m1, int prec, const Backend& backend);
// "ondrel_lfilter": one block a row of T samples, `threads` threads of runs
// of `seq` samples; with hzi, xh holds m1 - 1 inputs and zy p outputs a row
// from before the first sample (zy most recent first).
std::string lfilter_kernel(int32_t p, int32_t m1, int prec, int32_t threads, int32_t seq, const Backend& backend);

}  // namespace ondrel::codegen
