#pragma once
// Chroma between device addresses: the constant-Q magnitude of a plan
// folded by pitch class and divided per frame by its largest class, and
// the adjoint of that fold with each frame's peak held fixed, ending in the
// constant-Q adjoint. The class map is checked on every call (a class
// outside 0 to n_chroma - 1 would write outside the fold's array) and
// found on the device by its content under the plan's key.
#include <cstdint>
#include <vector>

#include "cuda_like/launch/launch_record.hpp"
#include "cuda_like/ops/cqt_plan.hpp"

namespace ondrel {

struct ChromaCall {
  CqtCall cqt;                      // mode and eps are set by the operation
  const int64_t* classes = nullptr;  // n_classes class numbers, one a bin
  int64_t n_classes = 0;            // -1: not a 1-D integer array
  int64_t n_chroma = 0;
};

// The largest class count: the fold keeps one sum a class in each thread.
constexpr int64_t kMaxChroma = 128;

struct ChromaForward {
  ChromaCall call;          // prec: 2 double, 1 float, 0 and 3 half signal and result
  const void* x = nullptr;  // batch x length
  void* out = nullptr;      // batch x n_chroma x frames
};

struct ChromaAdjoint {
  ChromaCall call;          // prec: 2 double, anything else float (0 is refused by the caller)
  const void* x = nullptr;  // batch x length
  const void* g = nullptr;  // batch x n_chroma x frames
  void* gx = nullptr;       // batch x length, every element written
};

// Every check that needs no device, in the order the errors are reported:
// the plan's ("cqt: ..."), then "chroma: ..." ValueErrors.
void check_chroma(const ChromaCall& c);

void chroma(const ChromaForward& f);
void chroma_adjoint(const ChromaAdjoint& a);

// ondrel_chroma, or with `adjoint` ondrel_chradj, of a call's precision
// (the constant-Q transform and its adjoint list theirs).
std::vector<KernelPlan> chroma_kernels(int32_t prec, int64_t n_chroma, bool adjoint);

}  // namespace ondrel
