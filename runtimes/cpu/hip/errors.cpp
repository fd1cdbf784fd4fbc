#include "ondrel_cpu/hip.h"

extern "C" const char* hipGetErrorString(hipError_t error) {
  switch (error) {
    case hipSuccess: return "no error";
    case hipErrorInvalidValue: return "invalid argument";
    case hipErrorOutOfMemory: return "out of memory";
    case hipErrorNotInitialized: return "initialization error";
    case hipErrorInvalidConfiguration: return "invalid configuration argument";
    case hipErrorInvalidDeviceFunction: return "invalid device function";
    case hipErrorNoDevice: return "no device available";
    case hipErrorInvalidDevice: return "invalid device ordinal";
    case hipErrorInvalidImage: return "device kernel image is invalid";
    case hipErrorInvalidHandle: return "invalid resource handle";
    case hipErrorNotFound: return "named symbol not found";
    case hipErrorLaunchFailure: return "unspecified launch failure";
    case hipErrorNotSupported: return "operation not supported";
    case hipErrorStreamCaptureUnsupported: return "operation not permitted when stream is capturing";
    case hipErrorStreamCaptureInvalidated: return "operation failed due to a previous error during capture";
    case hipErrorUnknown: return "unknown error";
    default: return "unrecognized error code";
  }
}
