#pragma once
// The argument array of one launch, in the order of the kernel's head.
// Arguments are given by parameter name and checked against the parameter
// list the generator wrote the head from, so the host can never pass them in
// another order, kind or width than the text declares.
#include <array>
#include <cstdint>
#include <string_view>
#include <vector>

#include "codegen/kernel_sig.hpp"

namespace ondrel {

class KernelArgs {
 public:
  static constexpr size_t kMaxParams = 20;

  explicit KernelArgs(const std::vector<codegen::KernelParam>& params);

  KernelArgs& set(std::string_view name, const void* pointer);
  KernelArgs& set(std::string_view name, int32_t value);
  KernelArgs& set(std::string_view name, int64_t value);  // an I64 parameter
  KernelArgs& set(std::string_view name, float value);
  KernelArgs& set(std::string_view name, double value);

  // The array the launch takes. Throws std::logic_error naming the first
  // parameter that was not given.
  void** pointers();

 private:
  union Slot {
    const void* pointer;
    int32_t i32;
    int64_t i64;
    float f32;
    double f64;
  };
  Slot& slot(std::string_view name, bool pointer, std::string_view value_type);

  const std::vector<codegen::KernelParam>& params_;
  std::array<Slot, kMaxParams> slots_{};
  std::array<void*, kMaxParams> addresses_{};
  uint32_t given_ = 0;
};

}  // namespace ondrel
