// The hipRTC entry points both runtimes share: programs, their handles, logs
// and code. Compiling is the runtime's own (ondrel_rtc::compile).
#include <memory>
#include <mutex>
#include <new>
#include <string>
#include <unordered_map>
#include <utility>
#include <vector>

#include "rtc/program.hpp"

namespace {

// Programs alive in the process, so that a stale or foreign handle is refused
// instead of followed. Never destroyed: a caller may destroy its programs from
// its own static destructors at exit.
class Programs {
 public:
  hiprtcProgram add(std::unique_ptr<OndrelRtcProgram> p) {
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
  std::unordered_map<hiprtcProgram, std::unique_ptr<OndrelRtcProgram>> live_;
};

Programs& programs() {
  static auto& p = *new Programs;
  return p;
}

}  // namespace

extern "C" {

hiprtcResult hiprtcVersion(int* major, int* minor) {
  if (major == nullptr || minor == nullptr) return HIPRTC_ERROR_INVALID_INPUT;
  return ondrel_rtc::version(major, minor);
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
    auto p = std::make_unique<OndrelRtcProgram>();
    p->source = source;
    p->name = name != nullptr && *name != '\0' ? name : "default_program";
    for (int i = 0; i < num_headers; ++i) {
      if (headers[i] == nullptr || include_names[i] == nullptr) return HIPRTC_ERROR_INVALID_INPUT;
      p->headers.emplace_back(include_names[i], headers[i]);
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
    return ondrel_rtc::compile(*prog, std::move(opts));
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
