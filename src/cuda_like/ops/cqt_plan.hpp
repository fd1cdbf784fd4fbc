#pragma once
// A constant-Q plan as the caller hands it over: the number of levels of
// the half-rate ladder, the octaves (each a level, hop, n_fft, first output
// row and a complex basis over the octave's one-sided spectrum), the
// half-band filter, the output size. One validation serves the forward, the
// adjoint and everything built on them.
#include <cstdint>
#include <string>
#include <vector>

#include "math/precision.hpp"

namespace ondrel {

struct CqtOctave {
  int32_t level = 0;
  int32_t hop = 0;
  int32_t n_fft = 0;
  int32_t row_lo = 0;
  int64_t rows = 0;
  int64_t re_cols = 0, im_rows = 0, im_cols = 0;  // as given, for the shape check
  const double* re = nullptr;                     // rows x (n_fft / 2 + 1), row-major
  const double* im = nullptr;

  int32_t nb() const { return n_fft / 2 + 1; }
  // The padded length and the frames of this octave over a level of `len` samples.
  int64_t padded(int64_t len) const { return 2 * static_cast<int64_t>(n_fft / 2) + len; }
  int64_t frames_at(int64_t len) const { return (padded(len) - n_fft) / hop + 1; }
};

struct CqtPlan {
  int64_t n_levels = 0;  // as given: checked before it sizes anything
  std::vector<CqtOctave> octaves;
  const double* taps = nullptr;
  int64_t n_taps = 0;
  std::string plan_key;
  int32_t n_bins = 0;
  int64_t frames = 0;
  // Over every byte of the taps and of each octave's basis: with plan_key,
  // the identity of the plan's device tables.
  uint64_t content = 0;
};

// The plan's content hash (call once the arrays are in place).
uint64_t cqt_content_hash(const CqtPlan& plan);

// One call of the forward or the adjoint.
struct CqtCall {
  const CqtPlan* plan = nullptr;
  int64_t batch = 0;
  int64_t length = 0;
  int mode = 0;  // 0 complex, 1 magnitude, 2 power, 3 decibels
  double eps = 1e-10;
  Precision prec;
  // Half input with the output in the compute type: magnitudes that a
  // further kernel (the chroma fold) reads.
  bool full_output = false;
  int32_t device = 0;
  void* stream = nullptr;
};

// Every check that needs no device, in the order the errors are reported;
// ValueErrors "cqt: ...".
void check_cqt(const CqtCall& c);

// The samples of each level: len[0] = length, len[l + 1] = (len[l] + 1) / 2.
std::vector<int64_t> level_lengths(int64_t length, int64_t n_levels);

// Before any device work: a batch past the grid's y limit fails with
// "<kernel>: batch exceeds grid.y limit".
void check_cqt_grid(int64_t batch, const char* kernel);

// The band tables of one octave, from the double arrays compared with 0.0:
// for each row its first and last non-zero column (nb and -1 when none),
// for each column its first and last non-zero row (rows and -1 when none).
struct CqtBands {
  std::vector<int32_t> blo, bhi, klo, khi;
};
CqtBands cqt_bands(const CqtOctave& o);

}  // namespace ondrel
