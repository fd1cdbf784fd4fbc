#pragma once
// Kept apart from the calling frames, which the C++ tests also compile
// outside the module: a struct holding a pybind11 object takes the
// module's hidden visibility.
#include <pybind11/numpy.h>
#include <pybind11/pybind11.h>

#include "cuda_like/tables/mel_table.hpp"

namespace ondrel::python {

namespace py = pybind11;

// A filterbank argument held for the call. float32 and float64 arrays in C
// or Fortran order (a transposed bank, as other libraries lay theirs out)
// are read where they lie, so a repeated call converts nothing; anything
// else becomes a C-ordered float64 copy.
struct BankArg {
  py::array values;
  FilterBank fb;
};

BankArg bank_arg(const py::handle& obj);

}  // namespace ondrel::python
