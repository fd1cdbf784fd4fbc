#include "cuda_like/ops/fft_listing.hpp"

#include "cuda_like/ops/bluestein.hpp"
#include "cuda_like/ops/fft.hpp"
#include "cuda_like/ops/four_step.hpp"
#include "cuda_like/ops/four_step_real.hpp"
#include "cuda_like/ops/rfft.hpp"

namespace ondrel {

std::vector<KernelPlan> transform_kernels(int32_t n, bool real, const Precision& prec, bool inverse,
                                          uint64_t shared_limit) {
  RouteQuery q;
  q.n = n;
  q.prec = prec;
  if (real) q.prec.packed = false;  // no real kernel packs half pairs
  q.inverse = inverse;
  q.shared_limit = shared_limit;
  const FftRoute route = real ? rfft_route(q) : fft_route(q);
  if (route.one_kernel()) return {real ? rfft_plan(route, inverse) : fft_plan(route, inverse)};
  const bool is_double = prec.is_double();
  if (route.core == FftCore::bluestein)
    return bluestein_kernels(n, is_double, prec.half(), real, inverse, shared_limit);
  if (real) return four_step_real_kernels(n, is_double, prec.storage, inverse, shared_limit);
  const FourStepPlan plan = four_step_plan(n, is_double, prec.half(), shared_limit);
  return {four_step_kernel(plan, 1, is_double, prec.storage, prec.storage, inverse),
          four_step_kernel(plan, 2, is_double, prec.storage, prec.storage, inverse)};
}

}  // namespace ondrel
