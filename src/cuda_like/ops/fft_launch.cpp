#include "cuda_like/ops/fft_launch.hpp"

#include "math/precision.hpp"

namespace ondrel {

uint64_t fft_record_key(int32_t n, int32_t device, bool packed, int32_t io_prec, bool inverse, bool is_double) {
  const uint64_t dev = static_cast<uint32_t>(device) | (packed ? 32768u : 0u);
  const uint64_t prec = static_cast<uint64_t>(io_prec) * 2 | (inverse ? 1u : 0u);
  return ((static_cast<uint64_t>(static_cast<uint32_t>(n)) << 20) | (dev * 16) | (prec * 2)) + (is_double ? 1 : 0);
}

uint64_t rfft_record_key(int32_t n, int32_t device, bool half, bool inverse, bool is_double) {
  const uint64_t shape = (static_cast<uint64_t>(static_cast<uint32_t>(n)) << 16) | static_cast<uint32_t>(device);
  const uint64_t mode = (half ? 4u : 0u) | (inverse ? 1u : 0u);
  return ((shape * 16) | (mode * 2)) + (is_double ? 1 : 0);
}

uint64_t record_hash(uint64_t key, uint64_t generation) {
  return (key * 64 + generation + 0x9e3779b97f4a7c15ULL + (key >> 2)) ^ key;
}

const LaunchRecord* LaunchTable::find(uint64_t key) const {
  const uint64_t generation = shape_epoch();
  auto it = records.find(record_hash(key, generation));
  if (it == records.end() || it->second.key != key || it->second.generation != generation) return nullptr;
  return &it->second.record;
}

void LaunchTable::store(uint64_t key, const LaunchRecord& record) {
  const uint64_t generation = shape_epoch();
  records[record_hash(key, generation)] = Entry{key, generation, record};
}

namespace {

TuneEntry tune_entry(TuneOp op, int32_t n, int32_t width, const FftOptions& options) {
  if (options.override) return *options.override;
  return tuned_entry(tuning_key(op, n, 0, options.inverse, width, 0, 0, options.device)).value_or(TuneEntry{});
}

}  // namespace

TuneEntry fft_tune_entry(int32_t n, bool is_double, const FftOptions& options) {
  const int32_t width = is_double          ? kWidthDouble
                        : !options.half    ? kWidthSingle
                        : options.packed   ? kWidthHalfCompute
                                           : kWidthHalf;
  return tune_entry(TuneOp::fft, n, width, options);
}

TuneEntry rfft_tune_entry(int32_t n, bool is_double, const FftOptions& options) {
  const int32_t width = is_double ? kWidthDouble : options.half ? kWidthHalf : kWidthSingle;
  return tune_entry(TuneOp::rfft, n, width, options);
}

}  // namespace ondrel
