#pragma once
// The head of one kernel: qualifiers, launch bound, name, parameters and the
// dynamic shared array, each spelled by the dialect.
#include <cstdint>
#include <string>
#include <vector>

#include "codegen/backend.hpp"

namespace ondrel::codegen {

struct KernelParam {
  enum Kind : int32_t { ConstPointer = 0, Pointer = 1, Value = 2 };
  Kind kind;
  std::string type;
  std::string name;

  static KernelParam input(std::string type, std::string name) { return {ConstPointer, std::move(type), std::move(name)}; }
  static KernelParam output(std::string type, std::string name) { return {Pointer, std::move(type), std::move(name)}; }
  static KernelParam value(std::string type, std::string name) { return {Value, std::move(type), std::move(name)}; }
};

// A kernel's parameters in the order of its head. A family's generator and
// its launch both take the list from one function, so that the arguments a
// launch passes always match the text.
using KernelParams = std::vector<KernelParam>;

struct KernelSig {
  std::string name;
  const Backend& backend;
  int32_t bound_threads = 0;  // 0: no launch bound
  int32_t bound_extra = -1;
  std::vector<KernelParam> params;
  std::string shared_type;
  std::string shared_name;  // empty: no shared array

  KernelSig(std::string name, const Backend& backend) : name(std::move(name)), backend(backend) {}
  KernelSig(std::string name, const Backend& backend, KernelParams params)
      : name(std::move(name)), backend(backend), params(std::move(params)) {}

  void add_const_pointer(std::string type, std::string name);
  void add_pointer(std::string type, std::string name);
  void add_value(std::string type, std::string name);
  void set_shared(std::string type, std::string name);

  // Everything up to and including the opening brace (and the shared
  // declaration); the generator writes the body and the closing brace.
  std::string head() const;
  // The name and the parameters as the head spells them: "name(a, b".
  std::string call_text() const;
};

}  // namespace ondrel::codegen
