// A code object is a shared object built by this runtime's hipRTC. Loading
// writes it to a private file, opens it, and removes the file at once.
#include "hip/modules.hpp"

#include <dlfcn.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <memory>

#include "common/code_seal.hpp"
#include "hip/block_runner.hpp"
#include "hip/guard.hpp"
#include "hip/registry.hpp"

namespace ondrel_cpu {
namespace {

Registry<OndrelCpuModule>& modules() {
  static auto& r = *new Registry<OndrelCpuModule>;
  return r;
}

Registry<OndrelCpuFunction>& functions() {
  static auto& r = *new Registry<OndrelCpuFunction>;
  return r;
}

bool write_all(int fd, const unsigned char* data, size_t size) {
  while (size > 0) {
    const ssize_t n = write(fd, data, size);
    if (n < 0 && errno == EINTR) continue;
    if (n <= 0) return false;
    data += n;
    size -= static_cast<size_t>(n);
  }
  return true;
}

// dlopen of a private copy of the image; null on any failure.
void* open_image(const unsigned char* image, size_t size) {
  std::error_code ec;
  std::string path = (std::filesystem::temp_directory_path(ec) / "ondrel_cpu_module_XXXXXX").string();
  if (ec) return nullptr;
  const int fd = mkstemp(path.data());
  if (fd < 0) return nullptr;
  const bool written = write_all(fd, image, size);
  close(fd);
  void* handle = written ? dlopen(path.c_str(), RTLD_NOW | RTLD_LOCAL) : nullptr;
  unlink(path.c_str());
  return handle;
}

// dlopen of the image, checked for this runtime's ABI.
hipError_t load_module(hipModule_t* module, const void* image) {
  *module = nullptr;
  const ondrel_seal::Unsealed object = shared_object(image);
  if (object.size == 0) return hipErrorInvalidImage;
  void* handle = open_image(object.bytes, object.size);
  if (handle == nullptr) return hipErrorInvalidImage;
  auto abi = reinterpret_cast<int (*)()>(dlsym(handle, "ondrel_cpu_abi_version"));
  auto bind = reinterpret_cast<void (*)(const Services*)>(dlsym(handle, "ondrel_cpu_bind"));
  auto needs_fibers = reinterpret_cast<int (*)()>(dlsym(handle, "ondrel_cpu_needs_fibers"));
  auto thread_context = reinterpret_cast<ThreadContext* (*)()>(dlsym(handle, "ondrel_cpu_thread_context"));
  if (abi == nullptr || bind == nullptr || needs_fibers == nullptr || thread_context == nullptr ||
      abi() != kAbiVersion) {
    dlclose(handle);
    return hipErrorInvalidImage;
  }
  bind(&FiberBlock::services());
  auto m = std::make_unique<OndrelCpuModule>();
  m->handle = handle;
  m->fibers = needs_fibers() != 0;
  m->thread_context = thread_context;
  *module = modules().add(std::move(m));
  return hipSuccess;
}

hipError_t get_function(hipFunction_t* function, hipModule_t module, const char* name) {
  *function = nullptr;
  if (!modules().contains(module)) return hipErrorInvalidHandle;
  const std::string entry = std::string("ondrel_cpu_entry_") + name;
  const std::string params = std::string("ondrel_cpu_params_") + name;
  auto f = std::make_unique<OndrelCpuFunction>();
  f->name = name;
  f->entry = reinterpret_cast<void (*)(void**)>(dlsym(module->handle, entry.c_str()));
  f->params = static_cast<const ParamLayout*>(dlsym(module->handle, params.c_str()));
  if (f->entry == nullptr || f->params == nullptr) return hipErrorNotFound;
  f->module = module;
  *function = functions().add(std::move(f));
  return hipSuccess;
}

}  // namespace

bool function_live(hipFunction_t f) { return functions().contains(f); }

}  // namespace ondrel_cpu

using namespace ondrel_cpu;

extern "C" {

hipError_t hipModuleLoadData(hipModule_t* module, const void* image) {
  if (module == nullptr || image == nullptr) return hipErrorInvalidValue;
  return guarded([&] { return load_module(module, image); });
}

hipError_t hipModuleGetFunction(hipFunction_t* function, hipModule_t module, const char* name) {
  if (function == nullptr || name == nullptr) return hipErrorInvalidValue;
  return guarded([&] { return get_function(function, module, name); });
}

}  // extern "C"
