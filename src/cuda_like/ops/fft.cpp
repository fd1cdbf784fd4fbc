#include "cuda_like/ops/fft.hpp"

#include <climits>
#include <stdexcept>

#include "codegen/fft_kernel.hpp"
#include "codegen/register_core.hpp"
#include "codegen/tile_cores.hpp"
#include "cuda_like/ops/bluestein.hpp"
#include "cuda_like/ops/fft_launch.hpp"
#include "cuda_like/ops/four_step.hpp"
#include "math/fft_schedule.hpp"
#include "cuda_like/tables/twiddles.hpp"
#include "rocm/compile.hpp"
#include "rocm/context.hpp"

namespace ondrel {

namespace {

void launch(const LaunchRecord& rec, const void* x, void* out, int64_t rows, hip_dl::hipStream_t stream) {
  int nrows = static_cast<int>(rows);
  const void* table = rec.table;
  void* args[] = {&x, &out, &table, &nrows};
  const auto grid = static_cast<unsigned>((rows + rec.rows_per_block - 1) / rec.rows_per_block);
  launch_kernel(rec.fn, grid, 1, rec.threads, rec.shared_bytes, args, rec.name, stream);
}

}  // namespace

bool has_core_text(const FftRoute& route) {
  switch (route.core) {
    case FftCore::shared:
    case FftCore::tiled:
    case FftCore::cube:
    case FftCore::registers:
    case FftCore::packed_pairs: return true;
    default: return false;
  }
}

std::string core_text(const FftRoute& route, bool inverse) {
  const codegen::Backend& b = codegen::hip_backend();
  switch (route.core) {
    case FftCore::tiled:
      return codegen::tile_kernel(route.n, route.radix, route.compute_prec, b, inverse, route.rows_per_block,
                                  route.io_prec);
    case FftCore::cube:
      return codegen::cube_kernel(route.n, route.radix, route.compute_prec, b, inverse, route.rows_per_block,
                                  route.io_prec);
    case FftCore::registers:
      return codegen::register_kernel(route.n, route.stages, route.compute_prec, b, inverse, route.rows_per_block,
                                      route.io_prec, route.ept, route.exchange, false, route.half_exchange);
    case FftCore::packed_pairs:
      // One block holds one pair of rows: the route's two rows a block.
      return codegen::register_kernel(route.n, route.stages, 0, b, false, 1, 0, route.ept, true, true, false);
    case FftCore::shared: {
      int32_t rest = 1;
      return codegen::fft_kernel(route.n, factor_schedule(route.n, rest, route.with25), route.compute_prec,
                                 route.tpf, b, inverse, route.rows_per_block, route.io_prec, route.pad);
    }
    default: throw std::logic_error(std::string("fft: no single kernel serves the ") + core_word(route.core) + " route");
  }
}

template <class T>
void fft(const void* x, void* out, int64_t rows, int32_t n, const FftOptions& options) {
  constexpr bool is_double = sizeof(T) == 8;
  if (n < 1) throw std::invalid_argument("fft: n must be at least 1");
  // The kernels count rows in a 32-bit int.
  if (rows > INT_MAX) throw std::invalid_argument("fft: batch exceeds 2147483647 rows");
  const int device = select_device(options.device);
  const auto stream = static_cast<hip_dl::hipStream_t>(options.stream);
  if (rows <= 0) return;
  const bool packed = options.packed && options.half && !is_double;
  const int32_t io_prec = options.half ? 0 : (is_double ? 2 : 1);
  const uint64_t key = fft_record_key(n, device, packed, io_prec, options.inverse, is_double);
  LaunchTable& records = fft_records<T>();
  if (!options.override)
    if (const LaunchRecord* rec = records.find(key)) return launch(*rec, x, out, rows, stream);

  RouteQuery q;
  q.n = n;
  q.is_double = is_double;
  q.inverse = options.inverse;
  q.half = options.half;
  q.packed = packed;
  q.tune = fft_tune_entry(n, is_double, options);
  q.shared_limit = device_shared_limit(device);
  const FftRoute route = fft_route(q);
  if (route.core == FftCore::four_step)
    return four_step<T>(x, out, rows, n, options.inverse, device, stream, io_prec, io_prec);
  if (route.core == FftCore::bluestein)
    return bluestein_fft<T>(x, out, rows, n, options.inverse, options.half, device, stream);

  LaunchRecord rec;
  rec.fn = kernel_function(route.kernel, device, [&] { return core_text(route, options.inverse); }, "ondrel_fft");
  rec.name = route.kernel;
  rec.threads = route.threads;
  rec.shared_bytes = static_cast<uint32_t>(route.shared_bytes);
  rec.rows_per_block = route.rows_per_block;
  rec.table = twiddle_device<T>(TwiddleKind::fft, n);
  if (!options.override) records.store(key, rec);
  launch(rec, x, out, rows, stream);
}

template void fft<float>(const void*, void*, int64_t, int32_t, const FftOptions&);
template void fft<double>(const void*, void*, int64_t, int32_t, const FftOptions&);

}  // namespace ondrel
