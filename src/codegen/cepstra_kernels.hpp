#pragma once
// The kernels of the cepstra and the inverse mel scale. Cepstra read mel
// bands in decibels, [signal][frame][band], optionally raised to a floor
// below each signal's peak, and multiply every frame by the liftered DCT
// table D (n_out rows of n_in); the adjoint runs the same sums transposed and
// hands the gradient of floored bands to the peak. "ondrel_pmatmul" is the
// inverse mel scale's product with a caller's matrix and its adjoint's
// steps. Blocks are 256 threads; `prec` 2 is double, anything else float.
// The fused route's DCT is an epilogue of "ondrel_mel".
#include <cstdint>
#include <string>

#include "codegen/backend.hpp"
#include "codegen/kernel_sig.hpp"
#include "codegen/kernel_writer.hpp"
#include "codegen/stft_kernels.hpp"

namespace ondrel::codegen {

constexpr int kCepThreads = 256;

// The shared bytes of the reductions: one value a thread; for the maximum
// that carries its position, 8 bytes a thread for the values (whatever
// their width) and 8 for the 64-bit indices behind them.
uint64_t cep_reduction_bytes(int prec);
constexpr uint64_t kCepIndexOffset = kCepThreads * 8;
constexpr uint64_t kCepMaxiBytes = 2 * kCepIndexOffset;

// One cepstral kernel: bands in, coefficients out, the floor on or off.
struct CepstraShape {
  int32_t n_in = 0;
  int32_t n_out = 0;
  int prec = 1;
  bool clamp = false;
};

// ondrel_cepmax(M, peak, n): one block a signal of n values, its largest.
KernelParams cepmax_params(int prec, const Backend& backend);
std::string cepmax_kernel(int prec, const Backend& backend);

// ondrel_cepstra(M, out, D, peak, nt, nf, topdb): one thread a coefficient
// of nt frames; with the floor, band values below peak - topdb of their
// signal count as that floor.
KernelParams cepstra_params(int prec, const Backend& backend);
std::string cepstra_kernel(const CepstraShape& s, const Backend& backend);

// ondrel_cepmaxi(M, peak, idx, n): the largest value of each signal and the
// index of its first occurrence.
KernelParams cepmaxi_params(int prec, const Backend& backend);
std::string cepmaxi_kernel(int prec, const Backend& backend);

// ondrel_cepadj(M, gM, gc, D, peak, nf, topdb): one thread a band value of
// the signal on the grid's y axis; gc is [signal][coefficient][frame]. With
// the floor, floored values get 0.
KernelParams cepadj_params(int prec, const Backend& backend);
std::string cepadj_kernel(const CepstraShape& s, const Backend& backend);

// ondrel_cepcsum(M, gM, gc, D, peak, idx, nf, topdb): one block a signal;
// the gradient of its floored values, added to the value at idx.
KernelParams cepcsum_params(int prec, const Backend& backend);
std::string cepcsum_kernel(const CepstraShape& s, const Backend& backend);

// The fused route's DCT, written behind the band step of "ondrel_mel" with
// NCEP coefficients: a barrier that every thread of the block reaches, then
// each frame's coefficients from its band row `bands` into `mel`.
void cepstrum_epilogue(KernelWriter& w, const StftPlan& plan, const std::string& bands);

// How ondrel_pmatmul stores the product acc of a row with Tt.
enum class PmatmulStore : int {
  plain = 0,    // out = acc
  clamped = 1,  // out = max(acc, 0), 0 where acc < 0
  masked = 2,   // out = aux where acc >= 0, else 0: the clamp's gradient mask
};

// ondrel_pmatmul(M, out, Tt, aux, nt): out[f][k] from row f of M (nin
// values) and row k of Tt (nout rows of nin), one thread an output.
struct Pmatmul {
  int32_t nin = 0;
  int32_t nout = 0;
  int prec = 1;
  PmatmulStore store = PmatmulStore::plain;
};
KernelParams pmatmul_params(int prec, const Backend& backend);
std::string pmatmul_kernel(const Pmatmul& p, const Backend& backend);

}  // namespace ondrel::codegen
