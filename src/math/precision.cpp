#include "math/precision.hpp"

namespace ondrel {

int32_t Precision::width_code() const {
  if (is_double()) return kWidthDouble;
  if (!half()) return kWidthSingle;
  return packed ? kWidthHalfCompute : kWidthHalf;
}

Precision precision_code(int32_t prec) {
  switch (prec) {
    case 0: return {kSingleCode, kHalfCode, false};
    case 2: return full_width(true);
    case 3: return {kSingleCode, kHalfCode, true};
    default: return full_width(false);
  }
}

Precision full_width(bool is_double) {
  const int code = is_double ? kDoubleCode : kSingleCode;
  return {code, code, false};
}

}  // namespace ondrel
