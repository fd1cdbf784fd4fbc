#pragma once
// The knobs of the stand-in HIP runtime, reached through the same library
// that the module binds (ONDREL_HIP_PATH).
#include <dlfcn.h>

#include <cstdlib>
#include <stdexcept>
#include <string>

namespace fake {

inline void* library() {
  static void* h = dlopen(std::getenv("ONDREL_HIP_PATH"), RTLD_NOW);
  if (!h) throw std::runtime_error("stand-in HIP runtime not found");
  return h;
}

template <class F>
F* knob(const char* name) {
  return reinterpret_cast<F*>(dlsym(library(), name));
}

inline void fail_malloc(int count, int code) { knob<void(int, int)>("fake_fail_malloc")(count, code); }
inline void fail_host_malloc(int count, int code) { knob<void(int, int)>("fake_fail_host_malloc")(count, code); }
inline void set_attribute(int result, int value) { knob<void(int, int)>("fake_set_attribute")(result, value); }
inline void set_launch_result(int r) { knob<void(int)>("fake_set_launch_result")(r); }
inline void set_device_count(int n) { knob<void(int)>("fake_set_device_count")(n); }
inline void set_arch(const char* a) { knob<void(const char*)>("fake_set_arch")(a); }
inline int malloc_calls() { return knob<int()>("fake_malloc_calls")(); }
inline int free_calls() { return knob<int()>("fake_free_calls")(); }
inline int host_malloc_calls() { return knob<int()>("fake_host_malloc_calls")(); }
inline int host_free_calls() { return knob<int()>("fake_host_free_calls")(); }
inline int launch_calls() { return knob<int()>("fake_launch_calls")(); }

// The message of the exception `f` throws, or "no exception".
template <class F>
std::string error_of(F&& f) {
  try {
    f();
  } catch (const std::exception& e) {
    return e.what();
  }
  return "no exception";
}

}  // namespace fake
