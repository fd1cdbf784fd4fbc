#pragma once
// The four-step FFT for lengths too long for one block's shared memory:
// N = n1 x n2, n2-point transforms of strided columns with the twiddle step
// folded into their store, a scratch in global memory, then n1-point
// transforms. One template over the compute type T (float also serves half
// data).
#include <cstdint>
#include <string>

#include "codegen/four_step_kernels.hpp"
#include "cuda_like/launch/launch_record.hpp"
#include "rocm/hip_api.hpp"

namespace ondrel {

struct FourStepPlan {
  int32_t n = 0, n1 = 0, n2 = 0;
  int32_t t1 = 1, t2 = 1;  // columns a block of pass 1 and pass 2 takes
  int32_t threads1 = 128, threads2 = 128;
  uint64_t shared1 = 0, shared2 = 0;
};

// Bytes of `count` complex values of `elem` bytes in a padded shared tile.
uint64_t four_step_tile_bytes(int64_t count, uint32_t elem);

// The first factor n1 from sqrt(n) down whose tiles of n1 and n / n1
// elements each fit `shared_limit`; 0 when there is none.
int32_t four_step_split(int32_t n, bool is_double, uint64_t shared_limit);

// Columns of `length` elements a block takes: 16 halved until the tile fits
// the budget (half the limit in double) and the `available` columns. A width
// that divides the columns is preferred while its row segments span at least
// 64 bytes of the narrowest element (4-byte half pairs when `half_data`);
// otherwise the last tile of a row is ragged, so that no split falls back to
// tiles of one or two columns.
int32_t four_step_tile_columns(int32_t length, int32_t available, bool is_double, bool half_data,
                               uint64_t shared_limit);

// Blocks that cover `columns` with tiles of `tile`, the last one ragged.
unsigned four_step_tiles(int32_t columns, int32_t tile);

// The split and tiles of length n under `shared_limit`; `half_data` when
// either side of the transform holds half pairs. Throws
// std::invalid_argument "fft: n exceeds the device shared-memory limit"
// when no split fits.
FourStepPlan four_step_plan(int32_t n, bool is_double, bool half_data, uint64_t shared_limit);

// The generator parameters of one pass. `word` is the data side's width
// word (0 half pairs, anything else the full width).
codegen::FourStepPass four_step_pass(const FourStepPlan& plan, int pass, bool is_double, int32_t in_word,
                                     int32_t out_word, bool inverse);

// The kernel of pass `p` of `plan` under `key`.
KernelPlan four_step_pass_plan(const FourStepPlan& plan, const codegen::FourStepPass& p, std::string key);

// The tile part of a pass's key: columns "x" threads.
std::string four_step_tile_key(const FourStepPlan& plan, int pass);

// The kernel of a pass, keyed "cfs1v2_..." or "cfs2v2_...".
KernelPlan four_step_kernel(const FourStepPlan& plan, int pass, bool is_double, int32_t in_word, int32_t out_word,
                            bool inverse);

// B rows of N complex values from x to out (which may be the same block),
// enqueued on `stream`; rows go in chunks of at most 65535. Data words as
// above; the scratch between the passes always holds T.
template <class T>
void four_step(const void* x, void* out, int64_t rows, int32_t n, bool inverse, int device,
               hip_dl::hipStream_t stream, int32_t in_word, int32_t out_word);

}  // namespace ondrel
