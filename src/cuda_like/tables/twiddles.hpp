#pragma once
// The twiddle tables of the device kernels, uploaded once per kind and length.
#include <cstdint>

#include "math/twiddle_math.hpp"

namespace ondrel {

// The device table of a kind, from the table cache. The float kernels compute
// their twiddles inline: their table is one complex zero that keeps the
// kernel's pointer argument valid.
template <class T>
const void* twiddle_device(TwiddleKind kind, int32_t n);

}  // namespace ondrel
