// Compiles HIP-dialect kernel text through the CPU runtime's own hipRTC and
// HIP entry points, and owns what it loads and allocates.
#pragma once
#include <gtest/gtest.h>

#include <cstdint>
#include <random>
#include <string>
#include <vector>

#include "ondrel_cpu/hip.h"
#include "ondrel_runtime/hiprtc.h"

namespace ondrel_cpu_test {

struct Compiled {
  hiprtcResult result = HIPRTC_SUCCESS;
  std::string log;
  std::string code;
};

inline Compiled compile(const std::string& text, const std::string& name,
                        const std::vector<std::string>& options = {}) {
  Compiled c;
  hiprtcProgram prog = nullptr;
  EXPECT_EQ(hiprtcCreateProgram(&prog, text.c_str(), (name + ".hip").c_str(), 0, nullptr, nullptr),
            HIPRTC_SUCCESS);
  std::vector<const char*> opts;
  for (const auto& o : options) opts.push_back(o.c_str());
  c.result = hiprtcCompileProgram(prog, static_cast<int>(opts.size()), opts.data());
  size_t size = 0;
  hiprtcGetProgramLogSize(prog, &size);
  c.log.assign(size, '\0');
  hiprtcGetProgramLog(prog, c.log.data());
  c.log.resize(size > 0 ? size - 1 : 0);
  if (c.result == HIPRTC_SUCCESS) {
    hiprtcGetCodeSize(prog, &size);
    c.code.assign(size, '\0');
    hiprtcGetCode(prog, c.code.data());
  }
  hiprtcDestroyProgram(&prog);
  return c;
}

// The kernel `name` of `text`, compiled and loaded; fails the test otherwise.
inline hipFunction_t kernel(const std::string& text, const std::string& name) {
  const Compiled c = compile(text, name);
  EXPECT_EQ(c.result, HIPRTC_SUCCESS) << c.log;
  hipModule_t module = nullptr;
  EXPECT_EQ(hipModuleLoadData(&module, c.code.data()), hipSuccess);
  hipFunction_t fn = nullptr;
  EXPECT_EQ(hipModuleGetFunction(&fn, module, name.c_str()), hipSuccess);
  return fn;
}

// A device block holding a copy of a host vector, freed with the object.
template <class T>
class DeviceArray {
 public:
  explicit DeviceArray(const std::vector<T>& host) : n_(host.size()) {
    EXPECT_EQ(hipMalloc(&p_, bytes()), hipSuccess);
    EXPECT_EQ(hipMemcpyHtoD(p_, host.data(), bytes()), hipSuccess);
  }
  explicit DeviceArray(size_t n) : DeviceArray(std::vector<T>(n)) {}
  ~DeviceArray() { hipFree(p_); }
  DeviceArray(const DeviceArray&) = delete;
  DeviceArray& operator=(const DeviceArray&) = delete;

  T* get() const { return static_cast<T*>(p_); }
  size_t bytes() const { return n_ * sizeof(T); }
  std::vector<T> read() const {
    std::vector<T> out(n_);
    EXPECT_EQ(hipMemcpyDtoH(out.data(), p_, bytes()), hipSuccess);
    return out;
  }

 private:
  size_t n_;
  void* p_ = nullptr;
};

// Seeded generator; tests print the seed so that a failure can be replayed.
inline uint32_t fresh_seed() { return std::random_device{}(); }

}  // namespace ondrel_cpu_test
