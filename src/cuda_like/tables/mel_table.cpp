#include "cuda_like/tables/mel_table.hpp"

#include <algorithm>
#include <cstdio>
#include <cstring>
#include <string>

#include "cuda_like/tables/table_cache.hpp"
#include "math/half.hpp"
#include "math/hashing.hpp"
#include "rocm/once_map.hpp"

namespace ondrel {

namespace {

OnceMap<uint64_t, MelDevice>& uploaded() {
  static auto& m = *new OnceMap<uint64_t, MelDevice>;
  return m;
}

template <class W>
std::vector<W> converted(const std::vector<double>& values) {
  return std::vector<W>(values.begin(), values.end());
}

template <class W>
MelDevice upload(const MelTable& t, const std::string& stem) {
  MelDevice d;
  d.lo = table_by_name(stem + "_lo", t.lo);
  d.off = table_by_name(stem + "_off", t.off);
  d.b0 = table_by_name(stem + "_b0", t.b0);
  d.b1 = table_by_name(stem + "_b1", t.b1);
  d.w = table_by_name(stem + "_w", converted<W>(t.w));
  d.w0 = table_by_name(stem + "_w0", converted<W>(t.w0));
  d.w1 = table_by_name(stem + "_w1", converted<W>(t.w1));
  d.col_off = table_by_name(stem + "_coff", t.col_off);
  d.col_band = table_by_name(stem + "_cband", t.col_band);
  d.col_w = table_by_name(stem + "_cw", converted<W>(t.col_w));
  d.depth = t.depth;
  return d;
}

}  // namespace

double FilterBank::at(int64_t m, int64_t k) const {
  const int64_t i = column_major ? k * n_mels + m : m * bins + k;
  if (single) return static_cast<const float*>(data)[i];
  return static_cast<const double*>(data)[i];
}

FilterBank filter_bank(const void* data, bool single, bool column_major, int32_t n_mels, int32_t bins) {
  const size_t bytes = static_cast<size_t>(n_mels) * static_cast<size_t>(bins) * (single ? 4 : 8);
  FilterBank fb{data, single, column_major, n_mels, bins, 0};
  fb.hash = combine(combine(content_hash(data, bytes), widen(n_mels)), (single ? 4 : 8) + (column_major ? 1 : 0));
  return fb;
}

MelTable build_mel_table(const FilterBank& fb) {
  MelTable t;
  t.lo.assign(fb.n_mels, 0);
  t.off.assign(fb.n_mels + 1, 0);
  t.b0.assign(fb.bins, -1);
  t.b1.assign(fb.bins, -1);
  t.w0.assign(fb.bins, 0.0);
  t.w1.assign(fb.bins, 0.0);
  for (int32_t m = 0; m < fb.n_mels; ++m) {
    int32_t first = -1, last = -1;
    for (int32_t k = 0; k < fb.bins; ++k)
      if (fb.at(m, k) != 0.0) {
        if (first < 0) first = k;
        last = k;
      }
    if (first >= 0) {
      t.lo[m] = first;
      for (int32_t k = first; k <= last; ++k) {
        const double v = fb.at(m, k);
        t.w.push_back(v);
        if (v == 0.0) continue;
        if (t.b0[k] < 0) {
          t.b0[k] = m;
          t.w0[k] = v;
        } else {
          t.b1[k] = m;
          t.w1[k] = v;
        }
      }
    }
    t.off[m + 1] = static_cast<int32_t>(t.w.size());
  }
  std::vector<int32_t> count(fb.bins, 0);
  for (int32_t m = 0; m < fb.n_mels; ++m)
    for (int32_t k = 0; k < fb.bins; ++k) count[k] += fb.at(m, k) != 0.0;
  t.col_off.assign(fb.bins + 1, 0);
  for (int32_t k = 0; k < fb.bins; ++k) {
    t.col_off[k + 1] = t.col_off[k] + count[k];
    t.depth = std::max(t.depth, count[k]);
  }
  t.col_band.resize(t.col_off[fb.bins]);
  t.col_w.resize(t.col_off[fb.bins]);
  std::vector<int32_t> next(t.col_off.begin(), t.col_off.end() - 1);
  for (int32_t m = 0; m < fb.n_mels; ++m)
    for (int32_t k = 0; k < fb.bins; ++k)
      if (const double v = fb.at(m, k); v != 0.0) {
        t.col_band[next[k]] = m;
        t.col_w[next[k]++] = v;
      }
  return t;
}

template <class T>
MelDevice mel_device(const FilterBank& fb, int32_t n_fft, bool half) {
  const uint64_t key = combine(combine(combine(combine(136, fb.hash), widen(n_fft)), sizeof(T)), half ? 1 : 0);
  // A filterbank is compacted and uploaded once, with no lock held meanwhile.
  return uploaded().get(key, [&] {
    char stem[64];
    std::snprintf(stem, sizeof stem, "fbt_%016llx_%d_%d_%zu_%d", static_cast<unsigned long long>(key), fb.n_mels,
                  n_fft, sizeof(T), half ? 1 : 0);
    const MelTable table = build_mel_table(fb);
    return half ? upload<Half>(table, stem) : upload<T>(table, stem);
  });
}

template MelDevice mel_device<float>(const FilterBank&, int32_t, bool);
template MelDevice mel_device<double>(const FilterBank&, int32_t, bool);

}  // namespace ondrel
