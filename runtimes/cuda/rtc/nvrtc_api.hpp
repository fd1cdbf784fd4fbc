// NVRTC, loaded at run time: declared from its documented C ABI, so that
// building needs no CUDA headers.
#pragma once
#include <cstddef>
#include <string>

namespace ondrel_cuda {

using nvrtcResult = int;
using nvrtcProgram = struct _nvrtcProgram*;

struct NvrtcApi {
  nvrtcResult (*Version)(int* major, int* minor);
  const char* (*GetErrorString)(nvrtcResult result);
  nvrtcResult (*CreateProgram)(nvrtcProgram* prog, const char* source, const char* name, int n_headers,
                               const char* const* headers, const char* const* include_names);
  nvrtcResult (*DestroyProgram)(nvrtcProgram* prog);
  nvrtcResult (*CompileProgram)(nvrtcProgram prog, int n_options, const char* const* options);
  nvrtcResult (*GetProgramLogSize)(nvrtcProgram prog, size_t* size);
  nvrtcResult (*GetProgramLog)(nvrtcProgram prog, char* log);
  nvrtcResult (*GetCUBINSize)(nvrtcProgram prog, size_t* size);
  nvrtcResult (*GetCUBIN)(nvrtcProgram prog, char* cubin);
  // The folder the library was loaded from.
  std::string folder;
};

// The first NVRTC that loads: ONDREL_NVRTC_PATH, then libnvrtc.so.13,
// libnvrtc.so.12 and libnvrtc.so. Null when none does; a later call
// searches again.
const NvrtcApi* nvrtc();

// What the search tries, for the message when it finds nothing.
std::string nvrtc_search_text();

// A folder holding cuda_fp16.h for `-I`, or "" when none is found.
std::string cuda_include_folder(const NvrtcApi& api);

}  // namespace ondrel_cuda
