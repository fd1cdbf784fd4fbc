#pragma once
// The mel filterbank in the compact form the kernels read: for each band the
// span from its first to its last nonzero weight, and for each bin the (at
// most two) bands that touch it, which the adjoint reads. Built once per
// filterbank and kept on the device for the life of the process.
#include <cstdint>
#include <vector>

namespace ondrel {

struct MelTable {
  std::vector<int32_t> lo;   // n_mels: first nonzero bin of each band, 0 for an empty band
  std::vector<int32_t> off;  // n_mels + 1: where each band's span starts in w
  std::vector<double> w;     // the spans, interior zeros included
  std::vector<int32_t> b0, b1;  // NB: the first and the last band over each bin, -1 for none
  std::vector<double> w0, w1;   // their weights, 0 for none
  // Every band over each bin, for banks where b0 and b1 do not hold them
  // all: bin k's bands and weights stand at col_off[k] .. col_off[k + 1].
  std::vector<int32_t> col_off, col_band;
  std::vector<double> col_w;
  int32_t depth = 0;  // the most bands over one bin
};

// A caller's (n_mels, bins) filterbank where it lies: float64 or float32
// values in one block, row-major or column-major, with `hash` over every
// byte of the block, its shape, layout and element type: the identity of
// the filterbank in every key.
struct FilterBank {
  const void* data = nullptr;
  bool single = false;        // float32 values
  bool column_major = false;  // a transposed (bins, n_mels) array's memory
  int32_t n_mels = 0;
  int32_t bins = 0;
  uint64_t hash = 0;

  double at(int64_t m, int64_t k) const;
};

// The bank over the caller's values, hashed.
FilterBank filter_bank(const void* data, bool single, bool column_major, int32_t n_mels, int32_t bins);

MelTable build_mel_table(const FilterBank& fb);

// The device parts of one table, the weights in the kernels' element type.
struct MelDevice {
  const void* lo = nullptr;
  const void* off = nullptr;
  const void* w = nullptr;
  const void* b0 = nullptr;
  const void* b1 = nullptr;
  const void* w0 = nullptr;
  const void* w1 = nullptr;
  const void* col_off = nullptr;
  const void* col_band = nullptr;
  const void* col_w = nullptr;
  int32_t depth = 0;
};

// The table of `fb` for frames of n_fft samples with weights of T (float or
// double; `half` stores the float weights as half). Compacted and uploaded
// on the first call for a filterbank, found by its hash after that.
template <class T>
MelDevice mel_device(const FilterBank& fb, int32_t n_fft, bool half);

}  // namespace ondrel
