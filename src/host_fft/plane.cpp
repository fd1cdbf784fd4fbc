#include <algorithm>
#include <mutex>
#include <unordered_map>
#include <vector>

#include "host_fft/drivers.hpp"
#include "host_fft/executor.hpp"
#include "host_fft/kernels.hpp"
#include "host_fft/plan_cache.hpp"
#include "host_fft/threads.hpp"

namespace ondrel::host {

namespace {

// Passes over planes of eight rows, with dense per-stage twiddles taken from
// `twiddle_cache`: twiddle (i, j) of a stage at c[(j - 1) L + i].
template <class T>
struct PlanePlan {
  std::vector<HostPass> passes;
  std::vector<std::vector<T>> cos_tables, sin_tables, roots_cos, roots_sin;
  std::vector<StageTw<T>> views;
};

template <class T>
std::unique_ptr<PlanePlan<T>> build_plane_plan(int32_t n, bool inverse) {
  auto p = std::make_unique<PlanePlan<T>>();
  p->passes = plane_passes(plane_radices(n));
  const std::vector<T>& table = twiddle_cache<T>(n);
  const T sign = inverse ? T(-1) : T(1);
  // W^k of the table, conjugated for the inverse.
  auto put = [&](int64_t k, std::vector<T>& c, std::vector<T>& s) {
    k %= n;
    c.push_back(table[2 * k]);
    s.push_back(sign * table[2 * k + 1]);
  };
  auto add_stage = [&](int64_t r, int64_t l) {
    p->cos_tables.emplace_back();
    p->sin_tables.emplace_back();
    p->roots_cos.emplace_back();
    p->roots_sin.emplace_back();
    for (int64_t j = 1; j < r; ++j)
      for (int64_t i = 0; i < l; ++i) put(i * j * (n / (r * l)), p->cos_tables.back(), p->sin_tables.back());
    for (int64_t k = 0; k < r; ++k) put(k * (n / r), p->roots_cos.back(), p->roots_sin.back());
  };
  for (const HostPass& pass : p->passes) {
    add_stage(pass.r1, pass.l);
    if (pass.r2 > 1) add_stage(pass.r2, pass.l * pass.r1);
  }
  int64_t stage = 0;
  for (const HostPass& pass : p->passes) {
    for (int half = 0; half < (pass.r2 > 1 ? 2 : 1); ++half, ++stage) {
      StageTw<T> v;
      v.c = p->cos_tables[stage].data();
      v.s = p->sin_tables[stage].data();
      v.js = half == 0 ? pass.l : pass.l * pass.r1;
      v.is = 1;
      v.rc = p->roots_cos[stage].data();
      v.rs = p->roots_sin[stage].data();
      p->views.push_back(v);
    }
  }
  return p;
}

// Planes hold element j of row r at lane r of plane j.
constexpr int64_t kPlaneReals = 2 * kLanes;

}  // namespace

template <class T>
const std::vector<T>& twiddle_cache(int32_t n) {
  thread_local int32_t memo_n = -1;
  thread_local const std::vector<T>* memo = nullptr;
  if (memo != nullptr && memo_n == n) return *memo;
  static std::mutex* mutex = new std::mutex;
  static auto* table = new std::unordered_map<int32_t, std::vector<T>>;
  std::lock_guard<std::mutex> lock(*mutex);
  auto found = table->find(n);
  if (found == table->end()) {
    std::vector<T> w(2 * static_cast<size_t>(n));
    for (int64_t k = 0; k < n; ++k) {
      double c = 0, s = 0;
      unit_root(k, n, -1.0, c, s);
      w[2 * k] = static_cast<T>(c);
      w[2 * k + 1] = static_cast<T>(s);
    }
    found = table->emplace(n, std::move(w)).first;
  }
  memo_n = n;
  memo = &found->second;
  return found->second;
}

template <class T>
void plane_fft(const T* in, T* out, int64_t rows, int32_t n, bool inverse) {
  const PlanePlan<T>& plan =
      cached_plan<PlanePlan<T>>(plan_key(n, inverse), [&] { return build_plane_plan<T>(n, inverse); });
  const T scale = inverse ? static_cast<T>(1.0 / n) : T(1);
  const int64_t stride = 2 * static_cast<int64_t>(n);
  const int64_t groups = (rows + kLanes - 1) / kLanes;
  parallel_for(groups, [&](int64_t g) {
    thread_local std::vector<T> work;
    const size_t reals = static_cast<size_t>(kPlaneReals) * n;
    if (work.size() < 3 * reals) work.resize(3 * reals);
    T* planes = work.data();
    const int64_t row0 = g * kLanes;
    const int lanes = static_cast<int>(std::min<int64_t>(kLanes, rows - row0));
    // Lanes past the last row repeat it, so that every lane holds finite data.
    for (int r = 0; r < kLanes; ++r) {
      const T* x = in + (row0 + std::min(r, lanes - 1)) * stride;
      for (int64_t j = 0; j < n; ++j) {
        planes[kPlaneReals * j + r] = x[2 * j];
        planes[kPlaneReals * j + kLanes + r] = x[2 * j + 1];
      }
    }
    const T* result = execute<Lanes<T>, T>(plan.passes, plan.views.data(), n, planes, nullptr, planes + reals,
                                           planes + 2 * reals, T(1));
    for (int r = 0; r < lanes; ++r) {
      T* y = out + (row0 + r) * stride;
      for (int64_t j = 0; j < n; ++j) {
        y[2 * j] = result[kPlaneReals * j + r] * scale;
        y[2 * j + 1] = result[kPlaneReals * j + kLanes + r] * scale;
      }
    }
  });
}

template const std::vector<double>& twiddle_cache<double>(int32_t);
template const std::vector<float>& twiddle_cache<float>(int32_t);
template void plane_fft<double>(const double*, double*, int64_t, int32_t, bool);
template void plane_fft<float>(const float*, float*, int64_t, int32_t, bool);

}  // namespace ondrel::host
