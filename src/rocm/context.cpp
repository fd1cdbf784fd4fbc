#include "rocm/context.hpp"

#include <cstring>
#include <stdexcept>

namespace ondrel {

namespace {

constexpr uint64_t kFallbackSharedLimit = 49152;
constexpr int kAttributeSharedPerBlock = 74;
constexpr int kAttributeMultiprocessors = 63;
constexpr unsigned kGridYLimit = 65535;

// The properties' text field at `offset`, cut at the first ':' so that
// feature suffixes ("gfx90a:sramecc+:xnack-") do not reach file names.
bool read_props_text(int dev, size_t offset, bool cut, std::string& out) {
  hip_dl::DeviceProps props{};
  if (hip_dl::api().GetDevicePropertiesR0600(&props, dev) != hip_dl::hipSuccess) return false;
  const char* text = props.bytes + offset;
  out.assign(text, strnlen(text, hip_dl::DeviceProps::kTextSize));
  if (cut) out = out.substr(0, out.find(':'));
  return true;
}

}  // namespace

std::recursive_mutex& context_mutex() {
  static std::recursive_mutex m;
  return m;
}

bool available() {
  std::lock_guard lock(context_mutex());
  static int state = -1;
  if (state < 0) {
    const hip_dl::HipApi* t = hip_dl::probe_hip();
    int count = 0;
    state = t && t->Init(0) == hip_dl::hipSuccess && t->GetDeviceCount(&count) == hip_dl::hipSuccess &&
                    count >= 1
                ? 1
                : 0;
  }
  return state == 1;
}

int select_device(int dev_id) {
  std::lock_guard lock(context_mutex());
  if (!available()) throw std::runtime_error("no HIP device available");
  ONDREL_HIP_CHECK(::ondrel::hip_dl::api().SetDevice(dev_id));
  return dev_id;
}

uint64_t device_shared_limit(int dev) {
  int v = 0;
  if (hip_dl::api().DeviceGetAttribute(&v, kAttributeSharedPerBlock, dev) != hip_dl::hipSuccess || v < 1)
    return kFallbackSharedLimit;
  return static_cast<uint64_t>(v);
}

int device_multiprocessors(int dev) {
  int v = 0;
  if (hip_dl::api().DeviceGetAttribute(&v, kAttributeMultiprocessors, dev) != hip_dl::hipSuccess || v < 1) return 0;
  return v;
}

void check_shared(uint64_t bytes, int dev, const std::string& subject) {
  if (bytes > device_shared_limit(dev))
    throw std::invalid_argument(subject + " exceeds the device shared-memory limit");
}

void launch_kernel(hip_dl::hipFunction_t fn, unsigned gx, unsigned gy, unsigned block, unsigned shared,
                   void** args, const std::string& name, hip_dl::hipStream_t stream) {
  if (gy > kGridYLimit) throw std::runtime_error(name + ": batch exceeds grid.y limit");
  ONDREL_HIP_CHECK_TAG(
      ::ondrel::hip_dl::api().ModuleLaunchKernel(fn, gx, gy, 1, block, 1, 1, shared, stream, args, nullptr),
      name.c_str());
}

std::string hip_error_text(hip_dl::hipError_t result) {
  const char* s = hip_dl::api().GetErrorString(result);
  return s ? s : "unknown HIP error";
}

std::string rtc_error_text(hip_dl::hiprtcResult result) {
  const hip_dl::RtcApi* rtc = hip_dl::hiprtc_api();
  const char* s = rtc ? rtc->GetErrorString(result) : nullptr;
  return s ? s : "unknown hipRTC error";
}

void hip_check(hip_dl::hipError_t result, const char* file, int line, const char* expr, const char* tag) {
  if (result == hip_dl::hipSuccess) return;
  std::string msg = std::string(file) + ":" + std::to_string(line) + ": " + expr;
  if (tag) msg += std::string(" [") + tag + "]";
  throw std::runtime_error(msg + " failed: " + hip_error_text(result));
}

void rtc_check(hip_dl::hiprtcResult result, const char* file, int line, const char* expr) {
  if (result == 0) return;
  throw std::runtime_error(std::string(file) + ":" + std::to_string(line) + ": " + expr +
                           " failed: " + rtc_error_text(result));
}

std::string arch_tag(int dev) {
  std::string arch;
  if (!read_props_text(dev, hip_dl::DeviceProps::kArchOffset, true, arch) || arch.empty())
    return "gfxunknown";
  return arch;
}

std::string device_arch(int dev) {
  std::string arch;
  return read_props_text(dev, hip_dl::DeviceProps::kArchOffset, true, arch) ? arch : "";
}

std::string device_name(int dev) {
  std::string name;
  return read_props_text(dev, hip_dl::DeviceProps::kNameOffset, false, name) ? name : "";
}

int device_count() {
  int count = 0;
  return hip_dl::api().GetDeviceCount(&count) == hip_dl::hipSuccess ? count : 0;
}

}  // namespace ondrel
