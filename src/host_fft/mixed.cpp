#include <algorithm>
#include <vector>

#include "host_fft/drivers.hpp"
#include "host_fft/executor.hpp"
#include "host_fft/kernels.hpp"
#include "host_fft/plan_cache.hpp"
#include "host_fft/threads.hpp"

namespace ondrel::host {

template <class T>
const MixedPlan<T>& mixed_plan(int32_t n, bool inverse) {
  return cached_plan<MixedPlan<T>>(plan_key(n, inverse), [&] {
    auto p = std::make_unique<MixedPlan<T>>();
    p->plan = build_host_plan<T>(n, inverse);
    p->views = stage_views(p->plan);
    return p;
  });
}

template <class T>
void mixed_row(const MixedPlan<T>& plan, const T* in, T* out, T scale) {
  // Grows only, so that a thread's later rows allocate nothing.
  thread_local std::vector<T> work;
  const size_t reals = 2 * static_cast<size_t>(plan.plan.n);
  if (work.size() < 2 * reals) work.resize(2 * reals);
  execute<Cs<T>, T>(plan.plan.passes, plan.views.data(), plan.plan.n, in, out, work.data(), work.data() + reals,
                    scale);
}

template <class T>
void mixed_fft(const T* in, T* out, int64_t rows, int32_t n, bool inverse) {
  const MixedPlan<T>& plan = mixed_plan<T>(n, inverse);
  const T scale = inverse ? static_cast<T>(1.0 / n) : T(1);
  const int64_t per_task = task_rows(std::max(16384 / n, 1), rows);
  const int64_t tasks = (rows + per_task - 1) / per_task;
  const int64_t stride = 2 * static_cast<int64_t>(n);
  parallel_for(tasks, [&](int64_t t) {
    const int64_t end = std::min(rows, (t + 1) * per_task);
    for (int64_t r = t * per_task; r < end; ++r) mixed_row(plan, in + r * stride, out + r * stride, scale);
  });
}

template const MixedPlan<double>& mixed_plan<double>(int32_t, bool);
template const MixedPlan<float>& mixed_plan<float>(int32_t, bool);
template void mixed_row<double>(const MixedPlan<double>&, const double*, double*, double);
template void mixed_row<float>(const MixedPlan<float>&, const float*, float*, float);
template void mixed_fft<double>(const double*, double*, int64_t, int32_t, bool);
template void mixed_fft<float>(const float*, float*, int64_t, int32_t, bool);

}  // namespace ondrel::host
