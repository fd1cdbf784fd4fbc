#pragma once
// The thin layer between operations and the HIP table: the current device,
// its limits, the checked launch, and HIP results turned into exceptions that
// name the failing call.
#include <cstdint>
#include <mutex>
#include <string>

#include "rocm/hip_api.hpp"

namespace ondrel {

// Guards device selection, availability and the tuned table, each held only
// for a few table operations. Kernels and device tables are not under it:
// their caches make each entry once without a lock held (once_map.hpp), so
// a compile or an upload never stalls other threads. Recursive:
// select_device holds it while the availability check takes it again. Pools
// lock after it, never before.
std::recursive_mutex& context_mutex();

// True when a HIP runtime loads and reports a device. Probed once per
// process, without raising.
bool available();

// Makes `dev` current for the calling thread and returns it. Nothing ever
// restores an earlier device.
int select_device(int dev);

// Shared bytes per block; 49152 when the query fails or says nothing useful.
// Asked afresh on each call: only an operation's first road needs it.
uint64_t device_shared_limit(int dev);

// The device's multiprocessors (compute units); 0 when the query fails.
int device_multiprocessors(int dev);

// Throws std::invalid_argument "<subject> exceeds the device shared-memory
// limit" when `bytes` is above the limit.
void check_shared(uint64_t bytes, int dev, const std::string& subject);

// One-dimensional blocks on a grid of at most two dimensions. A grid.y past
// 65535 fails before any HIP call with "<name>: batch exceeds grid.y limit".
void launch_kernel(hip_dl::hipFunction_t fn, unsigned grid_x, unsigned grid_y, unsigned block,
                   unsigned shared, void** args, const std::string& name, hip_dl::hipStream_t stream);

// Nothing for success; otherwise std::runtime_error
// "<file>:<line>: <expr>[ [<tag>]] failed: <HIP's error text>".
void hip_check(hip_dl::hipError_t result, const char* file, int line, const char* expr,
               const char* tag = nullptr);
void rtc_check(hip_dl::hiprtcResult result, const char* file, int line, const char* expr);

std::string hip_error_text(hip_dl::hipError_t result);
std::string rtc_error_text(hip_dl::hiprtcResult result);

// The architecture word of cache file names: the device's architecture name
// up to its first ':', or "gfxunknown".
std::string arch_tag(int dev);

// The device's architecture name up to its first ':'; "" when the query fails.
std::string device_arch(int dev);
// The device's name; "" when the query fails.
std::string device_name(int dev);
// Devices that HIP reports; 0 when the query fails.
int device_count();

}  // namespace ondrel

// Checks a HIP call, naming its source text in the error.
#define ONDREL_HIP_CHECK(expr) ::ondrel::hip_check((expr), __FILE__, __LINE__, #expr)
#define ONDREL_HIP_CHECK_TAG(expr, tag) ::ondrel::hip_check((expr), __FILE__, __LINE__, #expr, (tag))
#define ONDREL_RTC_CHECK(expr) ::ondrel::rtc_check((expr), __FILE__, __LINE__, #expr)
