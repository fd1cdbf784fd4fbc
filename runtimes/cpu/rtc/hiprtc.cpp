// hipRTC over the host compiler: a program is kernel text plus in-memory
// headers; compiling it builds a shared object whose bytes are the code.
#include <exception>
#include <string>
#include <utility>
#include <vector>

#include "rtc/host_compiler.hpp"
#include "rtc/program.hpp"
#include "rtc/program_text.hpp"

namespace ondrel_rtc {

hiprtcResult version(int* major, int* minor) {
  *major = ONDREL_CPU_VERSION_MAJOR;
  *minor = ONDREL_CPU_VERSION_MINOR;
  return HIPRTC_SUCCESS;
}

hiprtcResult compile(OndrelRtcProgram& p, std::vector<std::string> options) {
  try {
    const std::string unit = ondrel_cpu::program_unit(p.source, p.name);
    ondrel_cpu::CompileResult r = ondrel_cpu::compile_unit(unit, p.headers, options);
    p.log = std::move(r.log);
    if (!r.ok) return HIPRTC_ERROR_COMPILATION;
    p.code = std::move(r.code);
    return HIPRTC_SUCCESS;
  } catch (const std::bad_alloc&) {
    throw;
  } catch (const std::exception& e) {
    p.log = std::string("ondrel CPU hipRTC: ") + e.what() + "\n";
    return HIPRTC_ERROR_INTERNAL_ERROR;
  }
}

}  // namespace ondrel_rtc
