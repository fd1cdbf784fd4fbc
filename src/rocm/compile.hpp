#pragma once
// Kernels exist only once asked for. A key names a kernel; its text is
// written by the generator only when no store has it: the lookup cache (by
// key and device), the compile cache (by device and text), the disk cache of
// code objects (by a hash of text and name, and the architecture), and last
// hipRTC.
#include <cstdint>
#include <functional>
#include <string>

#include "rocm/hip_api.hpp"

namespace ondrel {

// A launchable function for `key` on `device`. `generator` writes the text
// only on a lookup miss; `name` is the kernel's entry function inside that
// text. The caller has made `device` current. No lock is held while a text
// is written, loaded or compiled: threads asking for one key wait for the one
// compile, threads asking for others go on; a look-up of a compiled kernel
// takes a shared lock only.
hip_dl::hipFunction_t kernel_function(const std::string& key, int device,
                                      const std::function<std::string()>& generator,
                                      const std::string& name);

// The level below the lookup cache: memory, then disk, then hipRTC. A cache
// file is used only when it holds this kernel's code object for this
// architecture, intact; otherwise the kernel is compiled and the file
// replaced atomically.
hip_dl::hipFunction_t compile_function(int device, const std::string& source, const std::string& name);

// FNV-1a with this cache's own start value over the text, a line feed and
// the name: the identity of a code object on disk.
uint64_t kernel_hash(const std::string& source, const std::string& name);

// Where the code object of `hash` for `arch` lies; creates the folders,
// ignoring failures (the disk cache is best effort).
std::string cache_path(uint64_t hash, const std::string& arch);

}  // namespace ondrel
