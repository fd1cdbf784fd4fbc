#include "rtc/nvrtc_api.hpp"

#include <dlfcn.h>

#include <cstdlib>
#include <filesystem>
#include <mutex>
#include <vector>

namespace fs = std::filesystem;

namespace ondrel_cuda {
namespace {

constexpr const char* kNames[] = {"libnvrtc.so.13", "libnvrtc.so.12", "libnvrtc.so"};

template <class F>
bool bind(void* handle, const char* symbol, F& slot) {
  void* s = dlsym(handle, symbol);
  slot = reinterpret_cast<F>(s);
  return s != nullptr;
}

bool bind_all(void* h, NvrtcApi& t) {
  return bind(h, "nvrtcVersion", t.Version) && bind(h, "nvrtcGetErrorString", t.GetErrorString) &&
         bind(h, "nvrtcCreateProgram", t.CreateProgram) && bind(h, "nvrtcDestroyProgram", t.DestroyProgram) &&
         bind(h, "nvrtcCompileProgram", t.CompileProgram) &&
         bind(h, "nvrtcGetProgramLogSize", t.GetProgramLogSize) && bind(h, "nvrtcGetProgramLog", t.GetProgramLog) &&
         bind(h, "nvrtcGetCUBINSize", t.GetCUBINSize) && bind(h, "nvrtcGetCUBIN", t.GetCUBIN);
}

std::string folder_of(void* symbol) {
  Dl_info info{};
  if (dladdr(symbol, &info) == 0 || info.dli_fname == nullptr) return "";
  return fs::path(info.dli_fname).parent_path().string();
}

// NVRTC opens its builtins library by bare name at the first compile. A copy
// off the loader's path (a pip wheel's, loaded by path here or by another
// package) finds it only when the builtins beside it are already loaded:
// the loader then matches the name to them.
void load_builtins_beside(const NvrtcApi& t) {
  int major = 0, minor = 0;
  if (t.folder.empty() || t.Version(&major, &minor) != 0) return;
  const fs::path builtins =
      fs::path(t.folder) / ("libnvrtc-builtins.so." + std::to_string(major) + "." + std::to_string(minor));
  std::error_code ec;
  if (fs::exists(builtins, ec)) dlopen(builtins.c_str(), RTLD_NOW | RTLD_GLOBAL);
}

bool open_library(const char* name, NvrtcApi& t) {
  // Libraries that fail to bind stay loaded: another component may hold them.
  void* h = dlopen(name, RTLD_NOW | RTLD_LOCAL);
  if (h == nullptr || !bind_all(h, t)) return false;
  t.folder = folder_of(reinterpret_cast<void*>(t.Version));
  load_builtins_beside(t);
  return true;
}

const char* env_path() {
  const char* v = std::getenv("ONDREL_NVRTC_PATH");
  return v != nullptr && *v != '\0' ? v : nullptr;
}

}  // namespace

const NvrtcApi* nvrtc() {
  static std::mutex mutex;
  static NvrtcApi table{};
  static bool found = false;
  std::lock_guard lock(mutex);
  if (found) return &table;
  NvrtcApi t{};
  found = env_path() != nullptr && open_library(env_path(), t);
  for (const char* name : kNames) found = found || open_library(name, t);
  if (!found) return nullptr;
  table = t;
  return &table;
}

std::string nvrtc_search_text() {
  std::string text;
  if (const char* path = env_path()) text = std::string("ONDREL_NVRTC_PATH=") + path + ", ";
  for (const char* name : kNames) text += std::string(name) + (name == kNames[2] ? "" : ", ");
  return text;
}

std::string cuda_include_folder(const NvrtcApi& api) {
  std::vector<fs::path> roots;
  for (const char* var : {"CUDA_HOME", "CUDA_PATH"})
    if (const char* v = std::getenv(var); v != nullptr && *v != '\0') roots.push_back(fs::path(v) / "include");
  if (!api.folder.empty()) roots.push_back(fs::path(api.folder).parent_path() / "include");
  roots.emplace_back("/usr/local/cuda/include");
  std::error_code ec;
  for (const fs::path& root : roots)
    if (fs::exists(root / "cuda_fp16.h", ec)) return root.string();
  return "";
}

}  // namespace ondrel_cuda
