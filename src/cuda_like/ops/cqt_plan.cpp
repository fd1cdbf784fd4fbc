#include "cuda_like/ops/cqt_plan.hpp"

#include <algorithm>
#include <climits>
#include <stdexcept>

#include "cuda_like/tables/table_cache.hpp"
#include "math/hashing.hpp"

namespace ondrel {

namespace {

[[noreturn]] void refuse(const std::string& what) { throw std::invalid_argument("cqt: " + what); }

std::string octave_name(size_t o) { return "octave " + std::to_string(o); }

void check_octave(const CqtPlan& p, size_t o) {
  const CqtOctave& oc = p.octaves[o];
  const std::string name = octave_name(o);
  if (oc.level < 0 || oc.level >= p.n_levels) refuse(name + ": level must be from 0 to n_levels - 1");
  if (oc.n_fft < 2) refuse(name + ": n_fft must be at least 2");
  if (oc.hop < 1) refuse(name + ": hop must be at least 1");
  // Other columns would make both kernels read past the basis.
  if (oc.re_cols != oc.nb() || oc.im_rows != oc.rows || oc.im_cols != oc.nb())
    refuse(name + ": re and im must both have the shape (rows, n_fft / 2 + 1)");
  if (oc.row_lo < 0 || oc.row_lo + oc.rows > p.n_bins) refuse(name + ": rows must lie within 0 to n_bins - 1");
}

// A gap would come back holding whatever the pool block held, an overlap as
// whichever octave ran last.
void check_cover(const CqtPlan& p) {
  std::vector<std::pair<int64_t, int64_t>> bands;
  for (const CqtOctave& o : p.octaves)
    if (o.rows > 0) bands.emplace_back(o.row_lo, o.row_lo + o.rows);
  std::sort(bands.begin(), bands.end());
  int64_t next = 0;
  for (const auto& [lo, hi] : bands) {
    if (lo != next) refuse("the octaves' rows must cover 0 to n_bins - 1 once each");
    next = hi;
  }
  if (next != p.n_bins) refuse("the octaves' rows must cover 0 to n_bins - 1 once each");
}

}  // namespace

uint64_t cqt_content_hash(const CqtPlan& p) {
  uint64_t h = combine(0xc9, word_hash(p.taps, static_cast<size_t>(p.n_taps) * sizeof(double)));
  for (const CqtOctave& o : p.octaves) {
    const size_t bytes = static_cast<size_t>(o.rows) * static_cast<size_t>(o.re_cols) * sizeof(double);
    h = combine(combine(h, word_hash(o.re, bytes)), word_hash(o.im, bytes));
    h = combine(combine(h, static_cast<uint64_t>(o.rows)), static_cast<uint64_t>(o.re_cols));
  }
  return h;
}

void check_cqt(const CqtCall& c) {
  const CqtPlan& p = *c.plan;
  // A huge count would run the level loop, a decimation each time, for ever.
  if (p.n_levels < 1 || p.n_levels > 64) refuse("n_levels must be from 1 to 64");
  for (size_t o = 0; o < p.octaves.size(); ++o) check_octave(p, o);
  if (p.n_bins < 1) refuse("n_bins must be at least 1");
  check_cover(p);
  if (p.n_taps != 65) refuse("taps must hold exactly 65 values");
  if (c.length < 1) refuse("length must be at least 1");
  if (c.length > INT_MAX / 2) refuse("length exceeds 1073741823 samples");
  if (p.frames < 0) refuse("frames must not be negative");
  const std::vector<int64_t> lens = level_lengths(c.length, p.n_levels);
  for (size_t o = 0; o < p.octaves.size(); ++o) {
    const CqtOctave& oc = p.octaves[o];
    // Past nfl the staged reduction would read the next signal's spectrum.
    if (oc.padded(lens[oc.level]) > INT_MAX) refuse(octave_name(o) + ": the padded signal exceeds 2147483647 samples");
    if (p.frames > oc.frames_at(lens[oc.level]))
      refuse("frames exceeds the " + std::to_string(oc.frames_at(lens[oc.level])) + " frames of " + octave_name(o));
  }
  if (c.batch < 0) refuse("batch must not be negative");
}

std::vector<int64_t> level_lengths(int64_t length, int64_t n_levels) {
  std::vector<int64_t> lens(static_cast<size_t>(std::max<int64_t>(n_levels, 1)), length);
  for (size_t l = 1; l < lens.size(); ++l) lens[l] = (lens[l - 1] + 1) / 2;
  return lens;
}

void check_cqt_grid(int64_t batch, const char* kernel) {
  if (batch > 65535) throw std::runtime_error(std::string(kernel) + ": batch exceeds grid.y limit");
}

CqtBands cqt_bands(const CqtOctave& o) {
  const int32_t nb = o.nb(), rows = static_cast<int32_t>(o.rows);
  CqtBands b;
  b.blo.assign(rows, nb);
  b.bhi.assign(rows, -1);
  b.klo.assign(nb, rows);
  b.khi.assign(nb, -1);
  for (int32_t k = 0; k < rows; ++k)
    for (int32_t i = 0; i < nb; ++i) {
      const int64_t at = static_cast<int64_t>(k) * nb + i;
      if (o.re[at] == 0.0 && o.im[at] == 0.0) continue;
      b.blo[k] = std::min(b.blo[k], i);
      b.bhi[k] = std::max(b.bhi[k], i);
      b.klo[i] = std::min(b.klo[i], k);
      b.khi[i] = std::max(b.khi[i], k);
    }
  return b;
}

}  // namespace ondrel
