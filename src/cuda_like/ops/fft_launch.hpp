#pragma once
// What the complex and the real FFT share on their way from a request to a
// launch: the checks of a row request, the keys of their launch records,
// the tuned words a decision reads, and the launch of a row kernel.
#include <cstdint>

#include "cuda_like/launch/launch_record.hpp"
#include "cuda_like/ops/fft_route.hpp"
#include "cuda_like/tune/tuned_table.hpp"

namespace ondrel {

// Checks `n` and `rows` with texts led by `op` ("fft", "rfft").
void check_rows(const char* op, int64_t n, int64_t rows);
// check_rows, then makes the request's device current and returns it.
int begin_rows(const char* op, int32_t n, int64_t rows, int32_t device);

// The shape part of a record's key: length, device, packing, data,
// direction and instantiation.
uint64_t fft_record_key(int32_t n, int32_t device, const Precision& prec, bool inverse);
uint64_t rfft_record_key(int32_t n, int32_t device, const Precision& prec, bool inverse);

// The tuned words of a call: the tuner's override, else the stored hint of
// this shape, else all zeros.
TuneEntry fft_tune_entry(int32_t n, const FftOptions& options);
TuneEntry rfft_tune_entry(int32_t n, const FftOptions& options);

// The question a call puts to its route, on `device`.
RouteQuery route_query(int32_t n, const FftOptions& options, const TuneEntry& tune, int device);

// A row kernel over `rows` rows: input `x` under the parameter name `input`,
// `out`, the record's table when the kernel reads one, and the row count.
void launch_rows(const LaunchRecord& rec, const char* input, const void* x, void* out, int64_t rows,
                 hip_dl::hipStream_t stream);

}  // namespace ondrel
