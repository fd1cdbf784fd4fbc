#pragma once
// Decibel conversion of arrays on the device: rows of power or magnitude
// to decibels with an optional floor below each row's peak, the inverse,
// and the adjoint of the forward that moves the gradient of floored
// elements to the row's peak. `prec` 2 is double, anything else float.
// Blocks are 256 threads; the forward and adjoint take one block a row.
#include <string>

#include "codegen/backend.hpp"
#include "codegen/kernel_sig.hpp"

namespace ondrel::codegen {

constexpr int kDbThreads = 256;

// ondrel_db(S, out, n, mul, amin, cref, topdb, hastop)
KernelParams db_params(const Backend& backend, int prec);
std::string db_kernel(int prec, const Backend& backend);

// ondrel_db_inv(D, out, total, mul, ref): flat, one thread an element.
KernelParams db_inv_params(const Backend& backend, int prec);
std::string db_inv_kernel(int prec, const Backend& backend);

// ondrel_db_adj(S, g, gS, n, mul, amin, topdb, hastop)
KernelParams db_adjoint_params(const Backend& backend, int prec);
std::string db_adjoint_kernel(int prec, const Backend& backend);

}  // namespace ondrel::codegen
