#include "cuda_like/launch/kernel_args.hpp"

#include <stdexcept>
#include <string>

namespace ondrel {

KernelArgs::KernelArgs(const std::vector<codegen::KernelParam>& params) : params_(params) {
  if (params.size() > kMaxParams) throw std::logic_error("KernelArgs: too many parameters");
}

KernelArgs::Slot& KernelArgs::slot(std::string_view name, bool pointer, std::string_view value_type) {
  for (size_t i = 0; i < params_.size(); ++i) {
    const codegen::KernelParam& p = params_[i];
    if (p.name != name) continue;
    const bool is_pointer = p.kind != codegen::KernelParam::Value;
    if (is_pointer != pointer || (!pointer && p.type != value_type))
      throw std::logic_error("KernelArgs: " + std::string(name) + " is declared as " + p.type +
                             (is_pointer ? "*" : ""));
    given_ |= 1u << i;
    addresses_[i] = &slots_[i];
    return slots_[i];
  }
  throw std::logic_error("KernelArgs: the kernel has no parameter " + std::string(name));
}

KernelArgs& KernelArgs::set(std::string_view name, const void* pointer) {
  slot(name, true, {}).pointer = pointer;
  return *this;
}

KernelArgs& KernelArgs::set(std::string_view name, int32_t value) {
  slot(name, false, "int").i32 = value;
  return *this;
}

KernelArgs& KernelArgs::set(std::string_view name, int64_t value) {
  slot(name, false, "I64").i64 = value;
  return *this;
}

KernelArgs& KernelArgs::set(std::string_view name, float value) {
  slot(name, false, "float").f32 = value;
  return *this;
}

KernelArgs& KernelArgs::set(std::string_view name, double value) {
  slot(name, false, "double").f64 = value;
  return *this;
}

void** KernelArgs::pointers() {
  for (size_t i = 0; i < params_.size(); ++i)
    if (!(given_ & (1u << i))) throw std::logic_error("KernelArgs: no value for " + params_[i].name);
  return addresses_.data();
}

}  // namespace ondrel
