#pragma once
// The inverse constant-Q transform as a least-squares solve: conjugate
// gradients on the normal equations A^H A y = A^H c, A the complex
// constant-Q transform of a plan, from a starting estimate in y. Every
// signal of the batch is its own system: its scalars live on the device
// and nothing is read back inside the loop. From two iterations on, one
// iteration is captured into a graph on a private stream and replayed;
// wherever the capture is refused the same iterations run one by one.
#include <cstdint>
#include <string>
#include <vector>

#include "cuda_like/launch/launch_record.hpp"
#include "cuda_like/ops/cqt_plan.hpp"

namespace ondrel {

// How the iterations ran: none, one by one on the caller's stream (one
// iteration), replayed as a graph, or one by one after a refused capture.
enum class CgPath : int { none, direct, graph, fallback };

// The stop rule beyond the fixed count: a signal whose r.r has fallen to
// tol^2 times its first r.r stops moving, and the loop reads one word of
// "signals still moving" after every `chunk` iterations, so that a batch
// that has converged stops early.
struct CgStop {
  bool on = false;
  double tol = 0;
  int64_t chunk = 4;
};

struct IcqtCg {
  CqtCall call;             // prec: 2 double, anything else float; mode and eps set by the solver
  const void* c = nullptr;  // batch x n_bins x frames complex
  void* y = nullptr;        // batch x length: the estimate in, the solution out
  int64_t n_iter = 0;
  CgStop stop;
};

// What a solve with the stop rule reports, per signal, after its final
// synchronisation.
struct CgReport {
  std::vector<double> rs, rs0;     // the last and the first r.r
  std::vector<int32_t> iterations;  // the steps each signal took
  CgPath path = CgPath::none;
};

// Every check that needs no device: the plan's ("cqt: ..."), then
// "icqt: ..." ValueErrors.
void check_icqt_cg(const IcqtCg& s);

// Runs the solve and returns after its final synchronisation.
CgReport icqt_cg(const IcqtCg& s);

// ondrel_vdot, ondrel_vaxpby, ondrel_cgalpha and ondrel_cgbeta of a
// precision code, the last two in their stop forms with `stop`.
std::vector<KernelPlan> icqt_cg_kernels(int32_t prec, bool stop);

}  // namespace ondrel
