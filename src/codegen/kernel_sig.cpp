#include "codegen/kernel_sig.hpp"

namespace ondrel::codegen {

void KernelSig::add_const_pointer(std::string type, std::string pname) {
  params.push_back({KernelParam::ConstPointer, std::move(type), std::move(pname)});
}

void KernelSig::add_pointer(std::string type, std::string pname) {
  params.push_back({KernelParam::Pointer, std::move(type), std::move(pname)});
}

void KernelSig::add_value(std::string type, std::string pname) {
  params.push_back({KernelParam::Value, std::move(type), std::move(pname)});
}

void KernelSig::set_shared(std::string type, std::string sname) {
  shared_type = std::move(type);
  shared_name = std::move(sname);
}

std::string KernelSig::call_text() const {
  std::string h = name + "(";
  for (size_t i = 0; i < params.size(); ++i) {
    const KernelParam& p = params[i];
    if (i) h += ", ";
    const int index = static_cast<int>(i);
    h += p.kind == KernelParam::Value
             ? backend.value_param(p.type, p.name, index)
             : backend.pointer_param(p.kind == KernelParam::ConstPointer, p.type, p.name, index);
  }
  return h;
}

std::string KernelSig::head() const {
  std::string h = backend.kernel_head();
  if (bound_threads != 0) h += backend.launch_bounds(bound_threads, bound_extra);
  h += ' ';
  h += call_text();
  h += shared_name.empty() ? backend.extra_params_plain() : backend.extra_params_shared();
  h += ") {\n";
  if (!shared_name.empty()) h += "  " + backend.shared_declaration(shared_type, shared_name) + "\n";
  return h;
}

}  // namespace ondrel::codegen
