// The hipRTC entry points of the CPU runtime, with hipRTC's C signatures.
#pragma once
#include <cstddef>

#ifndef ONDREL_CPU_API
#define ONDREL_CPU_API __attribute__((visibility("default")))
#endif

extern "C" {

typedef struct OndrelCpuProgram* hiprtcProgram;
typedef int hiprtcResult;

inline constexpr hiprtcResult HIPRTC_SUCCESS = 0;
inline constexpr hiprtcResult HIPRTC_ERROR_OUT_OF_MEMORY = 1;
inline constexpr hiprtcResult HIPRTC_ERROR_PROGRAM_CREATION_FAILURE = 2;
inline constexpr hiprtcResult HIPRTC_ERROR_INVALID_INPUT = 3;
inline constexpr hiprtcResult HIPRTC_ERROR_INVALID_PROGRAM = 4;
inline constexpr hiprtcResult HIPRTC_ERROR_INVALID_OPTION = 5;
inline constexpr hiprtcResult HIPRTC_ERROR_COMPILATION = 6;
inline constexpr hiprtcResult HIPRTC_ERROR_INTERNAL_ERROR = 11;

ONDREL_CPU_API hiprtcResult hiprtcVersion(int* major, int* minor);
ONDREL_CPU_API const char* hiprtcGetErrorString(hiprtcResult result);
ONDREL_CPU_API hiprtcResult hiprtcCreateProgram(hiprtcProgram* prog, const char* source, const char* name, int num_headers,
                                 const char* const* headers, const char* const* include_names);
ONDREL_CPU_API hiprtcResult hiprtcDestroyProgram(hiprtcProgram* prog);
ONDREL_CPU_API hiprtcResult hiprtcCompileProgram(hiprtcProgram prog, int num_options, const char* const* options);
ONDREL_CPU_API hiprtcResult hiprtcGetProgramLogSize(hiprtcProgram prog, size_t* size);
ONDREL_CPU_API hiprtcResult hiprtcGetProgramLog(hiprtcProgram prog, char* log);
ONDREL_CPU_API hiprtcResult hiprtcGetCodeSize(hiprtcProgram prog, size_t* size);
ONDREL_CPU_API hiprtcResult hiprtcGetCode(hiprtcProgram prog, char* code);
}
