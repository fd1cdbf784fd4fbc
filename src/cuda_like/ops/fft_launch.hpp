#pragma once
// What a decided FFT route leaves for the next call of the same shape, and
// the tuned words the decision reads. Records live per thread, so the hot
// path of a repeated shape takes no lock.
#include <cstdint>
#include <string>
#include <unordered_map>

#include "cuda_like/ops/fft_route.hpp"
#include "cuda_like/tune/tuned_table.hpp"
#include "rocm/hip_api.hpp"

namespace ondrel {

struct LaunchRecord {
  hip_dl::hipFunction_t fn = nullptr;
  uint32_t threads = 0;
  uint32_t shared_bytes = 0;
  int32_t rows_per_block = 1;
  const void* table = nullptr;  // twiddles, or null
  std::string name;             // the kernel's key, which a failed launch names
};

// The shape part of a record's key.
uint64_t fft_record_key(int32_t n, int32_t device, bool packed, int32_t io_prec, bool inverse, bool is_double);
uint64_t rfft_record_key(int32_t n, int32_t device, bool half, bool inverse, bool is_double);
// The key under a generation of the tuned table: a hint or a clear moves the
// generation, and records of older ones are never found again.
uint64_t record_hash(uint64_t key, uint64_t generation);

class LaunchTable {
 public:
  // Under the current shape_epoch; null when absent.
  const LaunchRecord* find(uint64_t key) const;
  void store(uint64_t key, const LaunchRecord& record);

 private:
  // The hash alone may coincide for two shapes or generations: an entry
  // keeps its key and generation, and only an exact match is found.
  struct Entry {
    uint64_t key;
    uint64_t generation;
    LaunchRecord record;
  };
  std::unordered_map<uint64_t, Entry> records;
};

// One table per thread, route family and instantiation (T float or double).
template <class T>
LaunchTable& fft_records() {
  thread_local LaunchTable table;
  return table;
}
template <class T>
LaunchTable& rfft_records() {
  thread_local LaunchTable table;
  return table;
}

// The tuned words of a call: the tuner's override, else the stored hint of
// this shape, else all zeros.
TuneEntry fft_tune_entry(int32_t n, bool is_double, const FftOptions& options);
TuneEntry rfft_tune_entry(int32_t n, bool is_double, const FftOptions& options);

}  // namespace ondrel
