#pragma once
// How one call stores and computes its numbers. A binding decodes its
// precision code into this record once; routes, kernel keys, generators and
// tuning keys all derive what they need from it.
#include <cstdint>

namespace ondrel {

// The generators' codes of one real number: the text's types __half, float
// and double, complex elements of 4, 8 and 16 bytes.
constexpr int kHalfCode = 0;
constexpr int kSingleCode = 1;
constexpr int kDoubleCode = 2;

// Width codes of tuning keys.
constexpr int32_t kWidthHalfCompute = 8;
constexpr int32_t kWidthHalf = 16;
constexpr int32_t kWidthSingle = 32;
constexpr int32_t kWidthDouble = 64;

struct Precision {
  int compute = kSingleCode;  // the arithmetic: single (also for half data) or double
  int storage = kSingleCode;  // data in global memory: half, or the arithmetic's own
  bool packed = false;        // packed half-pair arithmetic, where a kernel has it

  bool is_double() const { return compute == kDoubleCode; }
  bool half() const { return storage == kHalfCode; }
  // 8 packed half, 16 half data, 32 single, 64 double.
  int32_t width_code() const;
};

// A binding's `prec`: 0 half data with float arithmetic, 1 float, 2 double,
// 3 half data with packed half arithmetic (plain half data where no kernel
// packs); any other value behaves as 1.
Precision precision_code(int32_t prec);

// Full-width data of the double or the single instantiation: the precision of
// a staged call, whose dtype picks the instantiation.
Precision full_width(bool is_double);

// Runs `f.template operator()<T>()` with T the instantiation of `p`: double
// or float (which also serves half data).
template <class F>
decltype(auto) with_real_type(const Precision& p, F&& f) {
  if (p.is_double()) return f.template operator()<double>();
  return f.template operator()<float>();
}

}  // namespace ondrel
