// Finding HIP and hipRTC at run time. A copy that the process has already
// loaded (another package's runtime) always wins over the environment, so two
// runtimes never run side by side in one process.
#include <dlfcn.h>
#include <link.h>

#include <atomic>
#include <cctype>
#include <cstdlib>
#include <mutex>
#include <stdexcept>
#include <string>

#include "rocm/hip_api.hpp"

namespace ondrel::hip_dl {

namespace {

constexpr const char* kHipNames[] = {"libamdhip64.so.7", "libamdhip64.so.6", "libamdhip64.so"};

constexpr const char* kLoadError =
    "ondrel: no usable HIP runtime (libamdhip64). Install a system ROCm or AMD's "
    "rocm-sdk wheels, or set ONDREL_HIP_PATH to the library.";

template <class F>
bool resolve(void* handle, const char* symbol, F& slot) {
  void* s = dlsym(handle, symbol);
  if (!s) return false;
  slot = reinterpret_cast<F>(s);
  return true;
}

const char* env_path(const char* name) {
  const char* v = std::getenv(name);
  return v && *v ? v : nullptr;
}

// Libraries that fail to bind stay loaded: unloading a library that another
// component may also hold is never safe.
bool bind_loaded(void* handle, HipApi& table) { return handle && bind_hip(handle, table); }

bool search_hip(HipApi& table) {
  for (const char* name : kHipNames)
    if (bind_loaded(dlopen(name, RTLD_NOW | RTLD_NOLOAD), table)) return true;
  if (const char* path = env_path("ONDREL_HIP_PATH"))
    if (bind_loaded(dlopen(path, RTLD_NOW), table)) return true;
  for (const char* name : kHipNames)
    if (bind_loaded(dlopen(name, RTLD_NOW), table)) return true;
  return false;
}

bool starts_with_nocase(const std::string& s, const char* prefix) {
  size_t i = 0;
  for (; prefix[i]; ++i)
    if (i >= s.size() || std::tolower(static_cast<unsigned char>(s[i])) != prefix[i]) return false;
  return true;
}

// hipRTC is never loaded by name: it arrives with the HIP runtime, which
// loads it itself, so it is found among the objects already in the process.
std::string loaded_hiprtc_path() {
  std::string found;
  dl_iterate_phdr(
      [](dl_phdr_info* info, size_t, void* out) -> int {
        const std::string path = info->dlpi_name ? info->dlpi_name : "";
        const std::string base = path.substr(path.find_last_of('/') + 1);
        if (starts_with_nocase(base, "libhiprtc") && !starts_with_nocase(base, "libhiprtc-builtins")) {
          *static_cast<std::string*>(out) = path;
          return 1;
        }
        return 0;
      },
      &found);
  return found;
}

}  // namespace

bool bind_hip(void* handle, HipApi& t) {
#define ONDREL_BIND(field) resolve(handle, "hip" #field, t.field)
  return ONDREL_BIND(DeviceGetAttribute) && ONDREL_BIND(DeviceSynchronize) && ONDREL_BIND(EventCreate) &&
         ONDREL_BIND(EventDestroy) && ONDREL_BIND(EventElapsedTime) && ONDREL_BIND(EventRecord) &&
         ONDREL_BIND(Free) && ONDREL_BIND(GetDevice) && ONDREL_BIND(GetDeviceCount) &&
         ONDREL_BIND(GetDevicePropertiesR0600) && ONDREL_BIND(GetErrorString) && ONDREL_BIND(GraphDestroy) &&
         ONDREL_BIND(GraphExecDestroy) && ONDREL_BIND(GraphInstantiate) && ONDREL_BIND(GraphLaunch) &&
         ONDREL_BIND(HostFree) && ONDREL_BIND(HostMalloc) && ONDREL_BIND(Init) && ONDREL_BIND(Malloc) &&
         ONDREL_BIND(MemcpyDtoDAsync) && ONDREL_BIND(MemcpyDtoH) && ONDREL_BIND(MemcpyHtoD) &&
         ONDREL_BIND(MemcpyHtoDAsync) && ONDREL_BIND(MemcpyParam2DAsync) && ONDREL_BIND(MemsetD8) &&
         ONDREL_BIND(MemsetD8Async) && ONDREL_BIND(ModuleGetFunction) && ONDREL_BIND(ModuleLaunchKernel) &&
         ONDREL_BIND(ModuleLoadData) && ONDREL_BIND(SetDevice) && ONDREL_BIND(StreamBeginCapture) &&
         ONDREL_BIND(StreamCreateWithFlags) && ONDREL_BIND(StreamDestroy) && ONDREL_BIND(StreamEndCapture) &&
         ONDREL_BIND(StreamSynchronize) && ONDREL_BIND(StreamWaitEvent);
#undef ONDREL_BIND
}

bool bind_rtc(void* handle, RtcApi& t) {
#define ONDREL_BIND(field) resolve(handle, "hiprtc" #field, t.field)
  return ONDREL_BIND(Version) && ONDREL_BIND(GetErrorString) && ONDREL_BIND(CreateProgram) &&
         ONDREL_BIND(DestroyProgram) && ONDREL_BIND(CompileProgram) && ONDREL_BIND(GetProgramLogSize) &&
         ONDREL_BIND(GetProgramLog) && ONDREL_BIND(GetCodeSize) && ONDREL_BIND(GetCode);
#undef ONDREL_BIND
}

const HipApi& api() {
  // An initialiser that throws leaves the static unset, so the next call
  // searches again and finds a library installed in the meantime.
  static const HipApi table = [] {
    HipApi t{};
    if (!search_hip(t)) throw std::runtime_error(kLoadError);
    return t;
  }();
  return table;
}

const HipApi* probe_hip() {
  static HipApi table{};
  static const bool found = search_hip(table);
  return found ? &table : nullptr;
}

const RtcApi* hiprtc_api() {
  static std::mutex search_mutex;
  static RtcApi table{};
  static std::atomic<bool> found{false};
  if (found.load(std::memory_order_acquire)) return &table;
  std::lock_guard lock(search_mutex);
  if (found.load(std::memory_order_relaxed)) return &table;
  RtcApi t{};
  bool ok = false;
  if (const char* path = env_path("ONDREL_HIPRTC_PATH")) {
    void* h = dlopen(path, RTLD_NOW);
    ok = h && bind_rtc(h, t);
  }
  if (!ok) {
    const std::string path = loaded_hiprtc_path();
    void* h = path.empty() ? nullptr : dlopen(path.c_str(), RTLD_NOW | RTLD_NOLOAD);
    ok = h && bind_rtc(h, t);
  }
  if (!ok) return nullptr;
  table = t;
  found.store(true, std::memory_order_release);
  return &table;
}

}  // namespace ondrel::hip_dl
