#pragma once
// The Cooley-Tukey core on a shared row: in-place Stockham stages over a
// list of radices, and the straight-line butterflies every FFT core uses.
// The emitters write into a KernelWriter and never touch global memory:
// callers write their own load into the row and read the row afterwards.
#include <cstdint>
#include <string>
#include <vector>

#include "codegen/kernel_writer.hpp"

namespace ondrel::codegen {

// Double kernels read their twiddles from the table parameter `base`: the
// circle of n, then, for a Rader prime p of the schedule, the circle of
// p - 1. Other precisions compute every twiddle and register nothing.
void add_fft_tables(KernelWriter& w, int compute_prec, int32_t n, const std::string& base,
                    const std::vector<int32_t>& schedule);

// Multiplies values[k], k >= 1, by the twiddle of k * index on a circle of
// `span`, replacing the names in place.
void apply_twiddles(KernelWriter& w, std::vector<std::string>& values, const std::string& index,
                    int32_t span, int32_t radix, bool inverse);

// The names of the `radix` outputs of a DFT of `values`. An inverse
// composite radix is scaled by 1/radix; an inverse prime radix is not.
std::vector<std::string> butterfly(KernelWriter& w, const std::vector<std::string>& values,
                                   int32_t radix, bool inverse);

// One Stockham stage of radix `radix` after stages whose product is `ls`,
// in place on `array` between two barriers.
void stage_pass(KernelWriter& w, const std::string& array, int32_t n, int32_t radix, int32_t ls,
                int32_t tpf, const std::string& label, bool conj);

// The power-of-two FFT inside a fused spectral kernel: m points (a power of
// two), `ept` elements a thread, `tpf` threads a frame; `tw_table` reads the
// twiddles from the staged shared table `twsh` (its first m / 2 entries are
// e^(-2 pi i k / m)) instead of computing them.
struct FusedFft {
  int32_t m = 0;
  int32_t ept = 0;
  int32_t tpf = 0;
  bool tw_table = false;
};

// Radix-2 stages grouped by passes of log2(ept) stages (at least one), the
// last pass taking the rest.
std::vector<int32_t> pass_list(const FusedFft& plan);

// In-place radix-2 passes on `sh`, which holds the frame in bit-reversed
// order behind a barrier; leaves it in natural order behind a barrier.
// Expects `tid`, TPF, SHP and, with `tw_table`, `twsh`.
void ct_passes(KernelWriter& w, const FusedFft& plan);

// The whole schedule on the row `array` of TPF threads; the result stands in
// `array` in natural order behind a barrier. Returns `array`.
std::string emit_stages(KernelWriter& w, const std::string& array, int32_t n,
                        const std::vector<int32_t>& schedule, int32_t tpf, bool conj);

}  // namespace ondrel::codegen
