#include "cuda_like/tables/cqt_table.hpp"

#include <cstdio>
#include <mutex>
#include <string>
#include <unordered_map>

#include "cuda_like/tables/table_cache.hpp"
#include "math/hashing.hpp"
#include "rocm/context.hpp"

namespace ondrel {

namespace {

// Entries are never erased, so references into the map stay valid.
std::unordered_map<uint64_t, CqtDevice>& uploaded() {
  static std::unordered_map<uint64_t, CqtDevice> m;
  return m;
}

template <class T>
std::vector<T> converted(const double* values, size_t count) {
  return std::vector<T>(values, values + count);
}

}  // namespace

template <class T>
const CqtDevice& cqt_device(const CqtPlan& plan) {
  const uint64_t key =
      combine(combine(combine(0xc4, word_hash(plan.plan_key.data(), plan.plan_key.size())), plan.content),
              sizeof(T));
  std::lock_guard lock(context_mutex());
  if (auto it = uploaded().find(key); it != uploaded().end()) return it->second;
  // The caller's key, then the content hash and the precision.
  char tail[40];
  std::snprintf(tail, sizeof tail, "_%016llx_%zu", static_cast<unsigned long long>(plan.content), sizeof(T));
  const std::string base = plan.plan_key + tail;
  CqtDevice d;
  d.taps = table_by_name(base + "_taps", converted<T>(plan.taps, static_cast<size_t>(plan.n_taps)));
  for (size_t o = 0; o < plan.octaves.size(); ++o) {
    const CqtOctave& oc = plan.octaves[o];
    const std::string stem = base + "_o" + std::to_string(o);
    const size_t count = static_cast<size_t>(oc.rows) * static_cast<size_t>(oc.nb());
    const CqtBands bands = cqt_bands(oc);
    CqtOctaveDevice od;
    // A table of no bytes still needs an address the kernels may be given.
    od.br = table_by_name(stem + "_re", count ? converted<T>(oc.re, count) : std::vector<T>(1));
    od.bi = table_by_name(stem + "_im", count ? converted<T>(oc.im, count) : std::vector<T>(1));
    od.blo = table_by_name(stem + "_blo", bands.blo.empty() ? std::vector<int32_t>(1) : bands.blo);
    od.bhi = table_by_name(stem + "_bhi", bands.bhi.empty() ? std::vector<int32_t>(1) : bands.bhi);
    od.klo = table_by_name(stem + "_klo", bands.klo);
    od.khi = table_by_name(stem + "_khi", bands.khi);
    d.octaves.push_back(od);
  }
  return uploaded().emplace(key, std::move(d)).first->second;
}

template const CqtDevice& cqt_device<float>(const CqtPlan&);
template const CqtDevice& cqt_device<double>(const CqtPlan&);

}  // namespace ondrel
