#include "cuda_like/ops/rfft.hpp"

#include <climits>
#include <stdexcept>

#include "codegen/real_kernel.hpp"
#include "codegen/real_register_kernels.hpp"
#include "cuda_like/ops/bluestein.hpp"
#include "cuda_like/ops/fft_launch.hpp"
#include "math/fft_schedule.hpp"
#include "cuda_like/ops/four_step_real.hpp"
#include "cuda_like/tables/twiddles.hpp"
#include "rocm/compile.hpp"
#include "rocm/context.hpp"

namespace ondrel {

namespace {

void launch(const LaunchRecord& rec, bool tiny, const void* x, void* out, int64_t rows, hip_dl::hipStream_t stream) {
  int nrows = static_cast<int>(rows);
  const void* table = rec.table;
  void* with_table[] = {&x, &out, &table, &nrows};
  void* without_table[] = {&x, &out, &nrows};
  const auto grid = static_cast<unsigned>((rows + rec.rows_per_block - 1) / rec.rows_per_block);
  launch_kernel(rec.fn, grid, 1, rec.threads, rec.shared_bytes, tiny ? without_table : with_table, "rfft", stream);
}

// The table the shared forms read: the circle of n with the Rader tables of
// the complex length M. The table of the complex FFT of n holds exactly that
// when n and M close their lists with the same prime. The register forms
// read the circle of n alone, which every such table starts with.
template <class T>
const void* real_table(const FftRoute& route) {
  const int32_t m = route.n % 2 ? route.n : route.n / 2;
  if (route.core == FftCore::real_shared && rader_prime(route.n) != rader_prime(m))
    throw std::logic_error("rfft: no twiddle table for n = " + std::to_string(route.n));
  return twiddle_device<T>(TwiddleKind::fft, route.n);
}

}  // namespace

bool has_real_kernel(const FftRoute& route) {
  return route.core == FftCore::real_tiny || route.core == FftCore::real_shared ||
         route.core == FftCore::real_registers;
}

std::string real_route_text(const FftRoute& route, bool inverse) {
  const codegen::Backend& backend = codegen::hip_backend();
  if (route.core == FftCore::real_tiny)
    return codegen::real_tiny_kernel(route.n, route.compute_prec, backend, inverse, route.io_prec);
  const bool pair = route.n % 2 == 1;
  const int32_t m = pair ? route.n : route.n / 2;
  if (route.core == FftCore::real_registers) {
    const int32_t fpb = static_cast<int32_t>(route.threads) / (m / route.ept);
    return inverse ? codegen::inverse_real_register_kernel(m, route.stages, route.compute_prec, backend, fpb,
                                                           route.ept, route.io_prec, pair)
                   : codegen::real_register_kernel(m, route.stages, route.compute_prec, backend, fpb, route.ept,
                                                   route.io_prec, pair);
  }
  int32_t rest = 1;
  const std::vector<int32_t> schedule = factor_schedule(m, rest, route.with25);
  const int32_t fpb = static_cast<int32_t>(route.threads) / route.tpf;
  return inverse ? codegen::inverse_real_kernel(route.n, schedule, route.compute_prec, route.tpf, backend, fpb,
                                                route.io_prec, pair, route.pad)
                 : codegen::real_kernel(route.n, schedule, route.compute_prec, route.tpf, backend, fpb,
                                        route.io_prec, pair, route.pad);
}

template <class T>
void rfft(const void* x, void* out, int64_t rows, int32_t n, const FftOptions& options) {
  constexpr bool is_double = sizeof(T) == 8;
  if (n < 1) throw std::invalid_argument("rfft: n must be at least 1");
  // The kernels count rows in a 32-bit int.
  if (rows > INT_MAX) throw std::invalid_argument("rfft: batch exceeds 2147483647 rows");
  const int device = select_device(options.device);
  const auto stream = static_cast<hip_dl::hipStream_t>(options.stream);
  if (rows <= 0) return;
  const bool tiny = n < 4;
  const uint64_t key = rfft_record_key(n, device, options.half, options.inverse, is_double);
  LaunchTable& records = rfft_records<T>();
  if (!options.override)
    if (const LaunchRecord* rec = records.find(key)) return launch(*rec, tiny, x, out, rows, stream);

  RouteQuery q;
  q.n = n;
  q.is_double = is_double;
  q.inverse = options.inverse;
  q.half = options.half;
  q.tune = rfft_tune_entry(n, is_double, options);
  q.shared_limit = device_shared_limit(device);
  const FftRoute route = rfft_route(q);
  if (route.core == FftCore::four_step)
    return four_step_real<T>(x, out, rows, n, options.inverse, device, stream, options.half ? 0 : 1);
  if (route.core == FftCore::bluestein)
    return bluestein_real<T>(x, out, rows, n, options.inverse, options.half, device, stream);

  LaunchRecord rec;
  rec.fn = kernel_function(route.kernel, device, [&] { return real_route_text(route, options.inverse); },
                           tiny ? "ondrel_rfft_tiny" : options.inverse ? "ondrel_irfft" : "ondrel_rfft");
  rec.threads = route.threads;
  rec.shared_bytes = static_cast<uint32_t>(route.shared_bytes);
  rec.rows_per_block = route.rows_per_block;
  rec.table = tiny ? nullptr : real_table<T>(route);
  if (!options.override) records.store(key, rec);
  launch(rec, tiny, x, out, rows, stream);
}

template void rfft<float>(const void*, void*, int64_t, int32_t, const FftOptions&);
template void rfft<double>(const void*, void*, int64_t, int32_t, const FftOptions&);

}  // namespace ondrel
