// hipRTC over NVRTC: a program is HIP-dialect kernel text; compiling it
// gives a sealed cubin for the current device's architecture.
#include "ondrel_cuda/hiprtc.h"

#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "common/cubin_seal.hpp"
#include "rtc/nvrtc_api.hpp"
#include "rtc/program_text.hpp"
#include "rtc/target_arch.hpp"

struct OndrelCudaProgram {
  std::string source;
  std::string name;
  std::vector<std::string> headers, include_names;
  std::string log;
  std::string code;
};

namespace ondrel_cuda {
namespace {

// Programs alive in the process, so that a stale or foreign handle is refused
// instead of followed. Never destroyed: a caller may destroy its programs from
// its own static destructors at exit.
class Programs {
 public:
  hiprtcProgram add(std::unique_ptr<OndrelCudaProgram> p) {
    std::lock_guard lock(mutex_);
    hiprtcProgram h = p.get();
    live_.emplace(h, std::move(p));
    return h;
  }
  bool contains(hiprtcProgram p) {
    std::lock_guard lock(mutex_);
    return live_.count(p) != 0;
  }
  bool remove(hiprtcProgram p) {
    std::lock_guard lock(mutex_);
    return live_.erase(p) != 0;
  }

 private:
  std::mutex mutex_;
  std::unordered_map<hiprtcProgram, std::unique_ptr<OndrelCudaProgram>> live_;
};

Programs& programs() {
  static auto& p = *new Programs;
  return p;
}

// NVRTC's results 0 to 11 are hipRTC's; anything newer is internal.
hiprtcResult to_hiprtc(nvrtcResult r) { return r >= 0 && r <= 11 ? r : HIPRTC_ERROR_INTERNAL_ERROR; }

// Owns an NVRTC program from creation to every way out.
struct NvrtcProgram {
  const NvrtcApi& api;
  nvrtcProgram prog = nullptr;
  ~NvrtcProgram() {
    if (prog != nullptr) api.DestroyProgram(&prog);
  }
};

bool names_arch(const std::vector<std::string>& options) {
  for (const std::string& o : options)
    if (o.rfind("--gpu-architecture", 0) == 0 || o.rfind("-arch", 0) == 0) return true;
  return false;
}

std::vector<const char*> pointers(const std::vector<std::string>& texts) {
  std::vector<const char*> out;
  for (const std::string& t : texts) out.push_back(t.c_str());
  return out;
}

std::string nvrtc_log(const NvrtcApi& api, nvrtcProgram prog) {
  size_t size = 0;
  if (api.GetProgramLogSize(prog, &size) != 0 || size == 0) return "";
  std::string log(size, '\0');
  if (api.GetProgramLog(prog, log.data()) != 0) return "";
  while (!log.empty() && log.back() == '\0') log.pop_back();
  return log;
}

hiprtcResult compile(OndrelCudaProgram& p, std::vector<std::string> options) {
  const NvrtcApi* api = nvrtc();
  if (api == nullptr) {
    p.log = "ondrel CUDA hipRTC: no NVRTC library found (tried " + nvrtc_search_text() + ")\n";
    return HIPRTC_ERROR_INTERNAL_ERROR;
  }
  if (!names_arch(options)) {
    std::string why;
    const std::string arch = target_arch(why);
    if (arch.empty()) {
      p.log = "ondrel CUDA hipRTC: " + why + "\n";
      return HIPRTC_ERROR_INVALID_OPTION;
    }
    options.push_back("--gpu-architecture=" + arch);
  }
  const std::string include = cuda_include_folder(*api);
  if (!include.empty()) options.push_back("-I" + include);

  NvrtcProgram program{*api};
  const std::string text = program_text(p.source, p.name);
  const std::vector<const char*> headers = pointers(p.headers), names = pointers(p.include_names);
  if (nvrtcResult r = api->CreateProgram(&program.prog, text.c_str(), p.name.c_str(), static_cast<int>(headers.size()),
                                         headers.data(), names.data());
      r != 0)
    return to_hiprtc(r);
  const std::vector<const char*> argv = pointers(options);
  const nvrtcResult r = api->CompileProgram(program.prog, static_cast<int>(argv.size()), argv.data());
  p.log = nvrtc_log(*api, program.prog);
  if (r != 0) {
    if (p.log.empty()) p.log = std::string("nvrtcCompileProgram: ") + api->GetErrorString(r) + "\n";
    if (include.empty())
      p.log += "ondrel CUDA hipRTC: no folder with cuda_fp16.h found (set CUDA_HOME or ONDREL_HIP_INCLUDE)\n";
    return to_hiprtc(r);
  }
  size_t size = 0;
  if (nvrtcResult e = api->GetCUBINSize(program.prog, &size); e != 0 || size == 0) {
    p.log += "ondrel CUDA hipRTC: NVRTC produced no cubin (is the architecture a real one, sm_XY?)\n";
    return HIPRTC_ERROR_INVALID_OPTION;
  }
  std::string cubin(size, '\0');
  if (nvrtcResult e = api->GetCUBIN(program.prog, cubin.data()); e != 0) return to_hiprtc(e);
  if (!append_seal(cubin)) {
    p.log += "ondrel CUDA hipRTC: NVRTC's cubin does not have the expected ELF layout\n";
    return HIPRTC_ERROR_INTERNAL_ERROR;
  }
  p.code = std::move(cubin);
  return HIPRTC_SUCCESS;
}

}  // namespace
}  // namespace ondrel_cuda

using namespace ondrel_cuda;

extern "C" {

// NVRTC's version; (0, 0) and an error when no NVRTC can be found.
hiprtcResult hiprtcVersion(int* major, int* minor) {
  if (major == nullptr || minor == nullptr) return HIPRTC_ERROR_INVALID_INPUT;
  *major = *minor = 0;
  const NvrtcApi* api = nvrtc();
  return api != nullptr ? to_hiprtc(api->Version(major, minor)) : HIPRTC_ERROR_INTERNAL_ERROR;
}

const char* hiprtcGetErrorString(hiprtcResult result) {
  switch (result) {
    case HIPRTC_SUCCESS: return "HIPRTC_SUCCESS";
    case HIPRTC_ERROR_OUT_OF_MEMORY: return "HIPRTC_ERROR_OUT_OF_MEMORY";
    case HIPRTC_ERROR_PROGRAM_CREATION_FAILURE: return "HIPRTC_ERROR_PROGRAM_CREATION_FAILURE";
    case HIPRTC_ERROR_INVALID_INPUT: return "HIPRTC_ERROR_INVALID_INPUT";
    case HIPRTC_ERROR_INVALID_PROGRAM: return "HIPRTC_ERROR_INVALID_PROGRAM";
    case HIPRTC_ERROR_INVALID_OPTION: return "HIPRTC_ERROR_INVALID_OPTION";
    case HIPRTC_ERROR_COMPILATION: return "HIPRTC_ERROR_COMPILATION";
    case HIPRTC_ERROR_BUILTIN_OPERATION_FAILURE: return "HIPRTC_ERROR_BUILTIN_OPERATION_FAILURE";
    case HIPRTC_ERROR_NO_NAME_EXPRESSIONS_AFTER_COMPILATION:
      return "HIPRTC_ERROR_NO_NAME_EXPRESSIONS_AFTER_COMPILATION";
    case HIPRTC_ERROR_NO_LOWERED_NAMES_BEFORE_COMPILATION:
      return "HIPRTC_ERROR_NO_LOWERED_NAMES_BEFORE_COMPILATION";
    case HIPRTC_ERROR_NAME_EXPRESSION_NOT_VALID: return "HIPRTC_ERROR_NAME_EXPRESSION_NOT_VALID";
    case HIPRTC_ERROR_INTERNAL_ERROR: return "HIPRTC_ERROR_INTERNAL_ERROR";
    default: return "HIPRTC_ERROR_UNKNOWN";
  }
}

hiprtcResult hiprtcCreateProgram(hiprtcProgram* prog, const char* source, const char* name, int num_headers,
                                 const char* const* headers, const char* const* include_names) {
  if (prog == nullptr || source == nullptr || num_headers < 0) return HIPRTC_ERROR_INVALID_INPUT;
  if (num_headers > 0 && (headers == nullptr || include_names == nullptr)) return HIPRTC_ERROR_INVALID_INPUT;
  try {
    auto p = std::make_unique<OndrelCudaProgram>();
    p->source = source;
    p->name = name != nullptr && *name != '\0' ? name : "default_program";
    for (int i = 0; i < num_headers; ++i) {
      if (headers[i] == nullptr || include_names[i] == nullptr) return HIPRTC_ERROR_INVALID_INPUT;
      p->headers.emplace_back(headers[i]);
      p->include_names.emplace_back(include_names[i]);
    }
    *prog = programs().add(std::move(p));
    return HIPRTC_SUCCESS;
  } catch (const std::bad_alloc&) {
    return HIPRTC_ERROR_OUT_OF_MEMORY;
  }
}

hiprtcResult hiprtcDestroyProgram(hiprtcProgram* prog) {
  if (prog == nullptr) return HIPRTC_ERROR_INVALID_INPUT;
  if (!programs().remove(*prog)) return HIPRTC_ERROR_INVALID_PROGRAM;
  *prog = nullptr;
  return HIPRTC_SUCCESS;
}

hiprtcResult hiprtcCompileProgram(hiprtcProgram prog, int num_options, const char* const* options) {
  if (!programs().contains(prog)) return HIPRTC_ERROR_INVALID_PROGRAM;
  if (num_options < 0 || (num_options > 0 && options == nullptr)) return HIPRTC_ERROR_INVALID_INPUT;
  prog->log.clear();
  prog->code.clear();
  try {
    std::vector<std::string> opts;
    for (int i = 0; i < num_options; ++i) {
      if (options[i] == nullptr) return HIPRTC_ERROR_INVALID_OPTION;
      opts.emplace_back(options[i]);
    }
    return compile(*prog, std::move(opts));
  } catch (const std::bad_alloc&) {
    return HIPRTC_ERROR_OUT_OF_MEMORY;
  }
}

// Sizes count the terminating zero, as hipRTC's do.
hiprtcResult hiprtcGetProgramLogSize(hiprtcProgram prog, size_t* size) {
  if (!programs().contains(prog)) return HIPRTC_ERROR_INVALID_PROGRAM;
  if (size == nullptr) return HIPRTC_ERROR_INVALID_INPUT;
  *size = prog->log.size() + 1;
  return HIPRTC_SUCCESS;
}

hiprtcResult hiprtcGetProgramLog(hiprtcProgram prog, char* log) {
  if (!programs().contains(prog)) return HIPRTC_ERROR_INVALID_PROGRAM;
  if (log == nullptr) return HIPRTC_ERROR_INVALID_INPUT;
  prog->log.copy(log, prog->log.size());
  log[prog->log.size()] = '\0';
  return HIPRTC_SUCCESS;
}

hiprtcResult hiprtcGetCodeSize(hiprtcProgram prog, size_t* size) {
  if (!programs().contains(prog)) return HIPRTC_ERROR_INVALID_PROGRAM;
  if (size == nullptr) return HIPRTC_ERROR_INVALID_INPUT;
  *size = prog->code.size();
  return HIPRTC_SUCCESS;
}

hiprtcResult hiprtcGetCode(hiprtcProgram prog, char* code) {
  if (!programs().contains(prog)) return HIPRTC_ERROR_INVALID_PROGRAM;
  if (code == nullptr) return HIPRTC_ERROR_INVALID_INPUT;
  prog->code.copy(code, prog->code.size());
  return HIPRTC_SUCCESS;
}

}  // extern "C"
