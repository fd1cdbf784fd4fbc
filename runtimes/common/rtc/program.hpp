// A hipRTC program as both runtimes keep it, and what each runtime supplies
// to the entry points they share (rtc/hiprtc.cpp): the compile and the version.
#pragma once
#include <string>
#include <utility>
#include <vector>

#include "ondrel_runtime/hiprtc.h"

struct OndrelRtcProgram {
  std::string source;
  std::string name;
  std::vector<std::pair<std::string, std::string>> headers;  // include name, text
  std::string log;
  std::string code;
};

namespace ondrel_rtc {

// Compiles `p`: sets its log, and its code on success.
hiprtcResult compile(OndrelRtcProgram& p, std::vector<std::string> options);

// What hiprtcVersion reports; both pointers are valid.
hiprtcResult version(int* major, int* minor);

}  // namespace ondrel_rtc
