#include "cuda_like/ops/fft_launch.hpp"

#include <climits>
#include <stdexcept>
#include <string>

#include "rocm/context.hpp"

namespace ondrel {

void check_rows(const char* op, int64_t n, int64_t rows) {
  if (n < 1) throw std::invalid_argument(std::string(op) + ": n must be at least 1");
  // The kernels count rows in a 32-bit int.
  if (rows > INT_MAX) throw std::invalid_argument(std::string(op) + ": batch exceeds 2147483647 rows");
}

int begin_rows(const char* op, int32_t n, int64_t rows, int32_t device) {
  check_rows(op, n, rows);
  return select_device(device);
}

uint64_t fft_record_key(int32_t n, int32_t device, const Precision& prec, bool inverse) {
  const uint64_t dev = static_cast<uint32_t>(device) | (prec.packed ? 32768u : 0u);
  const uint64_t data = static_cast<uint64_t>(prec.storage) * 2 | (inverse ? 1u : 0u);
  return ((static_cast<uint64_t>(static_cast<uint32_t>(n)) << 20) | (dev * 16) | (data * 2)) +
         (prec.is_double() ? 1 : 0);
}

uint64_t rfft_record_key(int32_t n, int32_t device, const Precision& prec, bool inverse) {
  const uint64_t shape = (static_cast<uint64_t>(static_cast<uint32_t>(n)) << 16) | static_cast<uint32_t>(device);
  const uint64_t mode = (prec.half() ? 4u : 0u) | (inverse ? 1u : 0u);
  return ((shape * 16) | (mode * 2)) + (prec.is_double() ? 1 : 0);
}

namespace {

TuneEntry tune_entry(TuneOp op, int32_t n, const FftOptions& options) {
  if (options.override) return *options.override;
  return tuned_entry(tuning_key(op, n, 0, options.inverse, options.prec.width_code(), 0, 0, options.device))
      .value_or(TuneEntry{});
}

}  // namespace

TuneEntry fft_tune_entry(int32_t n, const FftOptions& options) { return tune_entry(TuneOp::fft, n, options); }
TuneEntry rfft_tune_entry(int32_t n, const FftOptions& options) { return tune_entry(TuneOp::rfft, n, options); }

RouteQuery route_query(int32_t n, const FftOptions& options, const TuneEntry& tune, int device) {
  RouteQuery q;
  q.n = n;
  q.prec = options.prec;
  q.inverse = options.inverse;
  q.tune = tune;
  q.shared_limit = device_shared_limit(device);
  return q;
}

void launch_rows(const LaunchRecord& rec, const char* input, const void* x, void* out, int64_t rows,
                 hip_dl::hipStream_t stream) {
  KernelArgs args = rec.args();
  args.set(input, x).set("out", static_cast<const void*>(out)).set("nrows", static_cast<int32_t>(rows));
  if (rec.table) args.set("tw", rec.table);
  launch(rec, rec.row_blocks(rows), 1, args, stream);
}

}  // namespace ondrel
