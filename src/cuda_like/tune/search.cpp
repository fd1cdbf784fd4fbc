#include "cuda_like/tune/search.hpp"

#include <algorithm>
#include <atomic>
#include <cmath>
#include <cstdio>
#include <cstring>
#include <map>
#include <mutex>
#include <stdexcept>
#include <string>
#include <vector>

#include "rocm/context.hpp"
#include "rocm/device_pool.hpp"

namespace ondrel {

namespace {

constexpr int kAttributeL2 = 19;
constexpr size_t kFallbackFlushBytes = 0x4000000;  // 64 MiB where the L2 size is unknown
constexpr int kHeldFlushes = 100;
constexpr unsigned char kPoison = 0xff;  // all ones: NaN in half, single and double

std::atomic<int32_t> corrupted{-1};

// A block at least as large as the L2 cache, cleared before every sample so
// that each one starts cold.
struct FlushBuffer {
  void* buf = nullptr;
  size_t bytes = 0;
};

// Made on first use per device and kept for the life of the process.
const FlushBuffer& flush_buffer(int device) {
  std::lock_guard lock(context_mutex());
  static std::map<int, FlushBuffer> buffers;
  FlushBuffer& fl = buffers[device];
  if (!fl.buf) {
    select_device(device);
    int v = 0;
    if (hip_dl::api().DeviceGetAttribute(&v, kAttributeL2, device) != hip_dl::hipSuccess || v < 1) v = 0;
    const size_t bytes = v < 1 ? kFallbackFlushBytes : static_cast<size_t>(v);
    fl.buf = device_pool().alloc(bytes, nullptr);
    fl.bytes = bytes;
  }
  return fl;
}

void check(hip_dl::hipError_t r, int line, const char* text) { hip_check(r, __FILE__, line, text); }

// Owner of a batch of events: destroyed on every way out, a creation that
// fails half way included.
struct Events {
  std::vector<hip_dl::hipEvent_t> v;
  explicit Events(int32_t n) {
    v.reserve(static_cast<size_t>(n));
    try {
      for (int32_t i = 0; i < n; ++i) {
        hip_dl::hipEvent_t ev = nullptr;
        check(hip_dl::api().EventCreate(&ev), __LINE__, "eventCreate(&ev)");
        v.push_back(ev);
      }
    } catch (...) {
      release();
      throw;
    }
  }
  ~Events() { release(); }
  Events(const Events&) = delete;
  Events& operator=(const Events&) = delete;

 private:
  void release() noexcept {
    for (hip_dl::hipEvent_t ev : v) hip_dl::api().EventDestroy(ev);
    v.clear();
  }
};

// The smallest of `reps` samples, each after a clear of the flush buffer, all
// queued ahead of one synchronisation.
double time_min(const FlushBuffer& fl, const std::function<void()>& closure, int32_t reps) {
  const auto& hip = hip_dl::api();
  Events se(reps), ee(reps);
  for (int32_t i = 0; i < reps; ++i) {
    check(hip.MemsetD8Async(fl.buf, 0, fl.bytes, nullptr), __LINE__, "memsetD8Async(fl.buf->p, 0, fl.bytes, nullptr)");
    check(hip.EventRecord(se.v[i], nullptr), __LINE__, "eventRecord(se.v[i], nullptr)");
    closure();
    check(hip.EventRecord(ee.v[i], nullptr), __LINE__, "eventRecord(ee.v[i], nullptr)");
  }
  check(hip.StreamSynchronize(nullptr), __LINE__, "streamSynchronize(nullptr)");
  double best = 1e30;
  for (int32_t i = 0; i < reps; ++i) {
    float ms = 0;
    check(hip.EventElapsedTime(&ms, se.v[i], ee.v[i]), __LINE__, "eventElapsedTime(&ms, se.v[i], ee.v[i])");
    best = std::min(best, static_cast<double>(ms));
  }
  return best;
}

float half_value(uint16_t h) {
  const uint32_t sign = static_cast<uint32_t>(h >> 15) << 31;
  const uint32_t exp = (h >> 10) & 31, man = h & 1023;
  if (exp == 31) return man ? NAN : (sign ? -INFINITY : INFINITY);
  const float mag = exp == 0 ? std::ldexp(static_cast<float>(man), -24)
                             : std::ldexp(static_cast<float>(man | 1024), static_cast<int>(exp) - 25);
  return sign ? -mag : mag;
}

// The output as doubles, whatever its element.
std::vector<double> host_values(const void* device_out, size_t bytes, int storage) {
  std::vector<unsigned char> raw(bytes);
  if (bytes) ONDREL_HIP_CHECK(hip_dl::api().MemcpyDtoH(raw.data(), const_cast<void*>(device_out), bytes));
  const size_t width = storage == 0 ? 2 : storage == 2 ? 8 : 4;
  std::vector<double> v(bytes / width);
  for (size_t i = 0; i < v.size(); ++i) {
    const unsigned char* at = raw.data() + i * width;
    if (width == 2) {
      uint16_t h;
      std::memcpy(&h, at, 2);
      v[i] = half_value(h);
    } else if (width == 4) {
      float f;
      std::memcpy(&f, at, 4);
      v[i] = f;
    } else {
      std::memcpy(&v[i], at, 8);
    }
  }
  return v;
}

// The operation under `entry` into poisoned `out`, waited for and read back:
// an output the call leaves unwritten stays NaN.
std::vector<double> verified_run(const Search& s, const TuneEntry& entry, void* out) {
  ONDREL_HIP_CHECK(hip_dl::api().MemsetD8Async(out, kPoison, s.out_bytes, nullptr));
  s.run(entry, out);
  ONDREL_HIP_CHECK(hip_dl::api().StreamSynchronize(nullptr));
  return host_values(out, s.out_bytes, s.storage);
}

// Why `got` may not stand for `want`, or "" when it may.
std::string disagreement(const std::vector<double>& got, const std::vector<double>& want, double tolerance) {
  double err = 0, norm = 0;
  for (size_t i = 0; i < got.size(); ++i) {
    if (std::isnan(got[i])) return "NaN in the output";
    err += (got[i] - want[i]) * (got[i] - want[i]);
    norm += want[i] * want[i];
  }
  const double rel = norm > 0 ? std::sqrt(err / norm) : std::sqrt(err);
  if (rel <= tolerance) return "";
  char text[96];
  std::snprintf(text, sizeof text, "wrong numbers: relative L2 %.3g above %.3g", rel, tolerance);
  return text;
}

void device_alive(const FlushBuffer& fl) {
  ONDREL_HIP_CHECK(hip_dl::api().MemsetD8Async(fl.buf, 0, 16, nullptr));
  ONDREL_HIP_CHECK(hip_dl::api().StreamSynchronize(nullptr));
}

// The candidate's time after its compiling, verified run.
double timed(const Search& s, const FlushBuffer& fl, const TuneEntry& entry, void* out) {
  const std::function<void()> closure = [&] { s.run(entry, out); };
  const double t0 = time_min(fl, closure, first_reps(s.warmup));
  const int32_t reps = further_reps(t0, s.iters);
  for (int i = 0; i < kHeldFlushes; ++i)
    check(hip_dl::api().MemsetD8Async(fl.buf, 0, fl.bytes, nullptr), __LINE__,
          "memsetD8Async(fl.buf->p, 0, fl.bytes, nullptr)");
  return std::min(t0, time_min(fl, closure, reps));
}

}  // namespace

double tune_tolerance(int32_t prec) {
  switch (prec) {
    case 2: return 1e-12;
    case 0: return 3e-3;
    case 3: return 2e-2;
    default: return 1e-5;
  }
}

void check_counts(const char* tuner, int32_t iters, int32_t warmup) {
  if (iters < 1) throw std::invalid_argument(std::string(tuner) + ": iters must be at least 1");
  if (warmup < 0) throw std::invalid_argument(std::string(tuner) + ": warmup must be at least 0");
}

void corrupt_candidate(int32_t index) { corrupted.store(index); }

void check_device_alive(int device) { device_alive(flush_buffer(device)); }

BestCandidate search(const Search& s, int device, const ProgressFn& progress) {
  BestCandidate best;
  const FlushBuffer& fl = flush_buffer(device);
  select_device(device);
  const DeviceBuffer reference(s.out_bytes, nullptr), scratch(s.out_bytes, nullptr);
  std::vector<double> want;
  try {
    want = verified_run(s, TuneEntry{}, reference.p);
  } catch (const std::exception&) {
    device_alive(fl);
    return best;  // nothing can be verified without the default's numbers
  }
  if (!disagreement(want, want, 0).empty()) return best;  // the default itself left NaN
  const auto total = static_cast<int32_t>(s.candidates.size());
  for (int32_t i = 0; i < total; ++i) {
    const TuneEntry& c = s.candidates[static_cast<size_t>(i)];
    TuneProgress report{s.tuner, i, total, c, 0, ""};
    try {
      std::vector<double> got = verified_run(s, c, scratch.p);
      if (corrupted.load() == i)
        for (size_t k = 0; k < got.size(); k += 2) got[k] = -got[k] + 1;
      report.reason = disagreement(got, want, s.tolerance);
      if (report.reason.empty()) {
        report.ms = timed(s, fl, c, scratch.p);
        best.offer(report.ms, c);
      }
    } catch (const std::exception& e) {
      device_alive(fl);
      report.reason = std::string("failed: ") + e.what();
    }
    if (progress) progress(report);
  }
  return best;
}

}  // namespace ondrel
