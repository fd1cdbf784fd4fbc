// hipRTC over NVRTC: a program is HIP-dialect kernel text; compiling it
// gives a sealed cubin for the current device's architecture.
#include <string>
#include <utility>
#include <vector>

#include "common/cubin_seal.hpp"
#include "rtc/nvrtc_api.hpp"
#include "rtc/program.hpp"
#include "rtc/program_text.hpp"
#include "rtc/target_arch.hpp"

namespace ondrel_cuda {
namespace {

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

}  // namespace
}  // namespace ondrel_cuda

using namespace ondrel_cuda;

namespace ondrel_rtc {

// NVRTC's version; (0, 0) and an error when no NVRTC can be found.
hiprtcResult version(int* major, int* minor) {
  *major = *minor = 0;
  const NvrtcApi* api = nvrtc();
  return api != nullptr ? to_hiprtc(api->Version(major, minor)) : HIPRTC_ERROR_INTERNAL_ERROR;
}

hiprtcResult compile(OndrelRtcProgram& p, std::vector<std::string> options) {
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
  std::vector<const char*> headers, names;
  for (const auto& [name, header] : p.headers) {
    names.push_back(name.c_str());
    headers.push_back(header.c_str());
  }
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
  std::optional<std::string> sealed = sealed_cubin(cubin);
  if (!sealed) {
    p.log += "ondrel CUDA hipRTC: NVRTC's cubin does not have the expected ELF layout\n";
    return HIPRTC_ERROR_INTERNAL_ERROR;
  }
  p.code = std::move(*sealed);
  return HIPRTC_SUCCESS;
}

}  // namespace ondrel_rtc
