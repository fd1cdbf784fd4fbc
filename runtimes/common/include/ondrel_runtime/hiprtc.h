// hipRTC's C entry points as the bundled runtimes export them, with hipRTC's
// signatures.
#pragma once
#include <cstddef>

#ifndef ONDREL_RUNTIME_API
#define ONDREL_RUNTIME_API __attribute__((visibility("default")))
#endif

extern "C" {

typedef struct OndrelRtcProgram* hiprtcProgram;
typedef int hiprtcResult;

inline constexpr hiprtcResult HIPRTC_SUCCESS = 0;
inline constexpr hiprtcResult HIPRTC_ERROR_OUT_OF_MEMORY = 1;
inline constexpr hiprtcResult HIPRTC_ERROR_PROGRAM_CREATION_FAILURE = 2;
inline constexpr hiprtcResult HIPRTC_ERROR_INVALID_INPUT = 3;
inline constexpr hiprtcResult HIPRTC_ERROR_INVALID_PROGRAM = 4;
inline constexpr hiprtcResult HIPRTC_ERROR_INVALID_OPTION = 5;
inline constexpr hiprtcResult HIPRTC_ERROR_COMPILATION = 6;
inline constexpr hiprtcResult HIPRTC_ERROR_BUILTIN_OPERATION_FAILURE = 7;
inline constexpr hiprtcResult HIPRTC_ERROR_NO_NAME_EXPRESSIONS_AFTER_COMPILATION = 8;
inline constexpr hiprtcResult HIPRTC_ERROR_NO_LOWERED_NAMES_BEFORE_COMPILATION = 9;
inline constexpr hiprtcResult HIPRTC_ERROR_NAME_EXPRESSION_NOT_VALID = 10;
inline constexpr hiprtcResult HIPRTC_ERROR_INTERNAL_ERROR = 11;

ONDREL_RUNTIME_API hiprtcResult hiprtcVersion(int* major, int* minor);
ONDREL_RUNTIME_API const char* hiprtcGetErrorString(hiprtcResult result);
ONDREL_RUNTIME_API hiprtcResult hiprtcCreateProgram(hiprtcProgram* prog, const char* source, const char* name,
                                                    int num_headers, const char* const* headers,
                                                    const char* const* include_names);
ONDREL_RUNTIME_API hiprtcResult hiprtcDestroyProgram(hiprtcProgram* prog);
ONDREL_RUNTIME_API hiprtcResult hiprtcCompileProgram(hiprtcProgram prog, int num_options, const char* const* options);
ONDREL_RUNTIME_API hiprtcResult hiprtcGetProgramLogSize(hiprtcProgram prog, size_t* size);
ONDREL_RUNTIME_API hiprtcResult hiprtcGetProgramLog(hiprtcProgram prog, char* log);
ONDREL_RUNTIME_API hiprtcResult hiprtcGetCodeSize(hiprtcProgram prog, size_t* size);
ONDREL_RUNTIME_API hiprtcResult hiprtcGetCode(hiprtcProgram prog, char* code);
}
