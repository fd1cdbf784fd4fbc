#include "host_fft/host_plan.hpp"

#include <cmath>
#include <numbers>

namespace ondrel::host {

void unit_root(int64_t k, int64_t m, double sign, double& c, double& s) {
  k %= m;
  if (k < 0) k += m;
  // Folding into [-m/2, m/2] keeps the angle small, where sin and cos are
  // most accurate.
  if (2 * k > m) k -= m;
  const double angle = sign * 2.0 * std::numbers::pi * static_cast<double>(k) / static_cast<double>(m);
  c = std::cos(angle);
  s = std::sin(angle);
}

template <class T>
HostPlan<T> build_host_plan(int32_t n, bool inverse) {
  HostPlan<T> plan;
  plan.n = n;
  plan.inverse = inverse;
  plan.factors = host_factors(n);
  plan.passes = host_passes(n, plan.factors);
  const double sign = inverse ? 1.0 : -1.0;
  int64_t l = 1;
  for (size_t st = 0; st < plan.factors.size(); ++st) {
    const int64_t r = plan.factors[st];
    plan.root_offsets.push_back(plan.roots_cos.size());
    for (int64_t k = 0; k < r; ++k) {
      double c = 0, s = 0;
      unit_root(k, r, sign, c, s);
      plan.roots_cos.push_back(static_cast<T>(c));
      plan.roots_sin.push_back(static_cast<T>(s));
    }
    plan.dup_offsets.push_back(plan.dup_twiddles.size());
    plan.pair_offsets.push_back(plan.pair_twiddles.size());
    if (st > 0) {
      for (int64_t j = 1; j < r; ++j) {
        const size_t base = plan.dup_twiddles.size();
        plan.dup_twiddles.resize(base + 4 * l);
        for (int64_t i = 0; i < l; ++i) {
          double c = 0, s = 0;
          unit_root(i * j, r * l, sign, c, s);
          plan.dup_twiddles[base + 2 * i] = plan.dup_twiddles[base + 2 * i + 1] = static_cast<T>(c);
          plan.dup_twiddles[base + 2 * l + 2 * i] = plan.dup_twiddles[base + 2 * l + 2 * i + 1] = static_cast<T>(s);
          if (r == 2 || r == 4) {
            plan.pair_twiddles.push_back(static_cast<T>(c));
            plan.pair_twiddles.push_back(static_cast<T>(s));
          }
        }
      }
    }
    l *= r;
  }
  return plan;
}

template <class T>
std::vector<StageTw<T>> stage_views(const HostPlan<T>& plan) {
  std::vector<StageTw<T>> views(plan.factors.size());
  int64_t l = 1;
  for (size_t st = 0; st < views.size(); ++st) {
    const int32_t r = plan.factors[st];
    StageTw<T>& v = views[st];
    v.rc = plan.roots_cos.data() + plan.root_offsets[st];
    v.rs = plan.roots_sin.data() + plan.root_offsets[st];
    if (st > 0 && (r == 2 || r == 4)) {
      v.c = plan.pair_twiddles.data() + plan.pair_offsets[st];
      v.s = v.c + 1;
      v.js = 2 * l;
      v.is = 2;
    } else if (st > 0) {
      v.c = plan.dup_twiddles.data() + plan.dup_offsets[st];
      v.s = v.c + 2 * l;
      v.js = 4 * l;
      v.is = 2;
    }
    l *= r;
  }
  return views;
}

template HostPlan<double> build_host_plan<double>(int32_t, bool);
template HostPlan<float> build_host_plan<float>(int32_t, bool);
template std::vector<StageTw<double>> stage_views(const HostPlan<double>&);
template std::vector<StageTw<float>> stage_views(const HostPlan<float>&);

}  // namespace ondrel::host
