#include "cuda_like/ops/fft.hpp"

#include <stdexcept>
#include <string>

#include "codegen/fft_kernel.hpp"
#include "codegen/register_core.hpp"
#include "codegen/tile_cores.hpp"
#include "cuda_like/ops/bluestein.hpp"
#include "cuda_like/ops/fft_launch.hpp"
#include "cuda_like/ops/four_step.hpp"
#include "cuda_like/tables/twiddles.hpp"
#include "math/fft_schedule.hpp"

namespace ondrel {

namespace {

struct ComplexRows {};  // the family of the launch records

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
void fft_rows(const void* x, void* out, int64_t rows, int32_t n, const FftOptions& o, int device) {
  const auto stream = static_cast<hip_dl::hipStream_t>(o.stream);
  run_record<ComplexRows, T>(
      fft_record_key(n, device, o.prec, o.inverse), o.override != nullptr,
      [&]() -> std::optional<LaunchRecord> {
        const FftRoute route = fft_route(route_query(n, o, fft_tune_entry(n, o), device));
        const int32_t data = o.prec.storage;
        if (route.core == FftCore::four_step) {
          four_step<T>(x, out, rows, n, o.inverse, device, stream, data, data);
          return std::nullopt;
        }
        if (route.core == FftCore::bluestein) {
          bluestein_fft<T>(x, out, rows, n, o.inverse, o.prec.half(), device, stream);
          return std::nullopt;
        }
        LaunchRecord rec = compiled(fft_plan(route, o.inverse), device);
        rec.table = twiddle_device<T>(TwiddleKind::fft, n);
        return rec;
      },
      [&](const LaunchRecord& rec) { launch_rows(rec, "x", x, out, rows, stream); });
}

}  // namespace

KernelPlan fft_plan(const FftRoute& route, bool inverse) {
  KernelPlan plan;
  plan.key = route.kernel;
  plan.entry = "ondrel_fft";
  plan.threads = route.threads;
  plan.shared_bytes = route.shared_bytes;
  plan.rows_per_block = route.rows_per_block;
  plan.params = codegen::fft_params();
  plan.text = [route, inverse] { return core_text(route, inverse); };
  return plan;
}

void fft(const void* x, void* out, int64_t rows, int32_t n, const FftOptions& options) {
  const int device = begin_rows("fft", n, rows, options.device);
  if (rows <= 0) return;
  with_real_type(options.prec, [&]<class T>() { fft_rows<T>(x, out, rows, n, options, device); });
}

}  // namespace ondrel
