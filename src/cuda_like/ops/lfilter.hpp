#pragma once
// The linear recursive filter y[n] = sum of b[k] x[n - k] minus sum of
// a[j] y[n - 1 - j], many rows at once, one block a row, parallel inside
// the row by a scan over the filter's state (codegen/lfilter_kernels.hpp).
#include <cstdint>
#include <string>
#include <vector>

#include "cuda_like/launch/launch_record.hpp"

namespace ondrel {

// One request. `history`: xh (m1 - 1 inputs a row) and zy (p outputs a
// row, most recent first) continue a signal from before its first sample.
struct LfilterCall {
  int64_t rows = 0, n = 0;
  int32_t p = 0, m1 = 1;
  int32_t threads = 256, seq = 16;
  bool history = false;
};

// The largest distance of cf's packed powers from the exact ones (see
// math/scan_powers.hpp) that a filter is run with. Past it the scan's
// relative error can pass about 1e-2, or the output overflows.
constexpr double kScanErrorLimit = 0.1;

// The filter's order: std::invalid_argument unless p >= 0 and m1 >= 1.
void check_lfilter_order(int32_t p, int32_t m1);
// The order, then `seq` 16 and `threads` from 1 to 256, the only shapes
// the levels of a cf serve.
void check_lfilter(const LfilterCall& call);
// Both histories or neither, under the names `xh` and `zy`; one that holds
// no element (xh with m1 1, zy with p 0) may be left out. A history left
// out otherwise would read as zeros: std::invalid_argument instead.
void check_histories(const LfilterCall& call, bool has_xh, bool has_zy, const std::string& xh, const std::string& zy);

// Throws std::invalid_argument, with the advice to split the filter into
// second-order sections (or, in single precision, to filter in double),
// when the levels of the host copy `cf` that a scan of `threads` threads
// reads are off by more than kScanErrorLimit.
template <class T>
void check_scan_accuracy(const T* cf, int32_t p, int32_t m1, int32_t threads);

// Packs b (m1) and a (p) into cf (lfilter_cf_elements), enqueued.
void lfilter_pack(const void* b, const void* a, void* cf, int32_t p, int32_t m1, bool is_double, int32_t device,
                  void* stream);

// Enqueued on `stream`, rows in chunks of 65535 blocks. Unless `cf_checked`
// (a staged call checked its host copy), the levels are first read back,
// after the work before on `stream`, and checked by check_scan_accuracy.
// With `history`, a null xh or zy means it holds no element.
void lfilter(const void* x, void* y, const void* cf, const void* xh, const void* zy, const LfilterCall& call,
             bool is_double, int32_t device, void* stream, bool cf_checked);

// The kernels, keyed "lfilter_pack_..." and "lfilter2_...".
KernelPlan lfilter_pack_plan(int32_t p, int32_t m1, bool is_double);
KernelPlan lfilter_plan(int32_t p, int32_t m1, bool is_double, int32_t threads, int32_t seq);

}  // namespace ondrel
