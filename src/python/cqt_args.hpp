#pragma once
// The constant-Q plan arguments of every binding that takes one (the
// transform, its adjoint and the kernel listing): the octave tuples, the
// taps and the bases read as float64 C-ordered arrays, held for the call,
// and the plan record over them with its content hash.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include <string>
#include <vector>

#include "cuda_like/ops/cqt_plan.hpp"

namespace ondrel::python {

struct CqtArgs {
  std::vector<pybind11::array_t<double, pybind11::array::c_style | pybind11::array::forcecast>> held;
  CqtPlan plan;
};

// A 1-D `re` or `im` fails in numpy's dimension check ("invalid axis"); an
// octave that is not a 6-tuple, or whose numbers are not 32-bit integers,
// raises "cqt: ..." ValueErrors. Everything else is check_cqt's.
CqtArgs cqt_args(int64_t n_levels, const pybind11::handle& octaves, const pybind11::handle& taps,
                 const std::string& plan_key, int32_t n_bins, int64_t frames);

}  // namespace ondrel::python
