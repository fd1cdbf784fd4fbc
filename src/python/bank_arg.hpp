#pragma once
// The filterbank argument of the mel family's bindings.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include "cuda_like/tables/mel_table.hpp"

namespace ondrel::python {

// A filterbank argument held for the call. float32 and float64 arrays in C
// or Fortran order (a transposed bank, as other libraries lay theirs out)
// are read where they lie, so a repeated call converts nothing; anything
// else becomes a C-ordered float64 copy.
struct BankArg {
  pybind11::array values;
  FilterBank fb;
};

BankArg bank_arg(const pybind11::handle& obj);

}  // namespace ondrel::python
