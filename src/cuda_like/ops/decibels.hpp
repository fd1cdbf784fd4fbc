#pragma once
// Decibels between device addresses: rows of `n` values to
// mul * log10(max(s, amin)) - cref, optionally floored at the row's peak less
// topdb; the inverse ref * 10^(d / mul); and the adjoint of the forward,
// which routes the gradient of floored elements to the row's peak (split
// among ties; an element exactly on the floor keeps half). Float for every
// precision code but 2 (double); there is no half form, and the adjoint
// refuses half gradients. Nothing is launched for empty arrays.
#include <cstdint>
#include <vector>

#include "cuda_like/launch/launch_record.hpp"
#include "cuda_like/ops/features.hpp"

namespace ondrel {

struct DbScale {
  double mul = 10;     // 10 for power, 20 for amplitude
  double amin = 1e-10;  // inputs are raised to this before the logarithm
  double cref = 0;     // subtracted from every result
  double topdb = 80;   // the floor's distance below the row's peak
  bool hastop = false;
};

void db(const void* s, void* out, int64_t items, int64_t n, const DbScale& scale, const FeatureCall& call);
void db_inv(const void* d, void* out, int64_t total, double mul, double ref, const FeatureCall& call);
// gs from the forward's input s and the gradient g of its output; cref plays no part.
void db_adjoint(const void* s, const void* g, void* gs, int64_t items, int64_t n, const DbScale& scale,
                const FeatureCall& call);

// The three kernels a precision code compiles.
std::vector<KernelPlan> db_kernels(int prec);

}  // namespace ondrel
