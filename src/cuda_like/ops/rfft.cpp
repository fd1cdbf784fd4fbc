#include "cuda_like/ops/rfft.hpp"

#include <stdexcept>
#include <string>

#include "codegen/real_kernel.hpp"
#include "codegen/real_register_kernels.hpp"
#include "cuda_like/ops/bluestein.hpp"
#include "cuda_like/ops/fft_launch.hpp"
#include "cuda_like/ops/four_step_real.hpp"
#include "cuda_like/tables/twiddles.hpp"
#include "math/fft_schedule.hpp"

namespace ondrel {

namespace {

struct RealRows {};  // the family of the launch records

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
  if (route.core != FftCore::real_shared)
    throw std::logic_error(std::string("rfft: no single kernel serves the ") + core_word(route.core) + " route");
  int32_t rest = 1;
  const std::vector<int32_t> schedule = factor_schedule(m, rest, route.with25);
  const int32_t fpb = static_cast<int32_t>(route.threads) / route.tpf;
  return inverse ? codegen::inverse_real_kernel(route.n, schedule, route.compute_prec, route.tpf, backend, fpb,
                                                route.io_prec, pair, route.pad)
                 : codegen::real_kernel(route.n, schedule, route.compute_prec, route.tpf, backend, fpb,
                                        route.io_prec, pair, route.pad);
}

template <class T>
void rfft_rows(const void* x, void* out, int64_t rows, int32_t n, const FftOptions& o, int device) {
  const auto stream = static_cast<hip_dl::hipStream_t>(o.stream);
  run_record<RealRows, T>(
      rfft_record_key(n, device, o.prec, o.inverse), o.override != nullptr,
      [&]() -> std::optional<LaunchRecord> {
        const FftRoute route = rfft_route(route_query(n, o, rfft_tune_entry(n, o), device));
        if (route.core == FftCore::four_step) {
          four_step_real<T>(x, out, rows, n, o.inverse, device, stream, o.prec.storage);
          return std::nullopt;
        }
        if (route.core == FftCore::bluestein) {
          bluestein_real<T>(x, out, rows, n, o.inverse, o.prec.half(), device, stream);
          return std::nullopt;
        }
        LaunchRecord rec = compiled(rfft_plan(route, o.inverse), device);
        if (route.core != FftCore::real_tiny) rec.table = real_table<T>(route);
        return rec;
      },
      [&](const LaunchRecord& rec) { launch_rows(rec, o.inverse ? "X" : "x", x, out, rows, stream); });
}

}  // namespace

KernelPlan rfft_plan(const FftRoute& route, bool inverse) {
  const bool tiny = route.core == FftCore::real_tiny;
  const codegen::Backend& backend = codegen::hip_backend();
  KernelPlan plan;
  plan.key = route.kernel;
  plan.entry = tiny ? "ondrel_rfft_tiny" : inverse ? "ondrel_irfft" : "ondrel_rfft";
  plan.threads = route.threads;
  plan.shared_bytes = route.shared_bytes;
  plan.rows_per_block = route.rows_per_block;
  plan.params = codegen::real_params(inverse, backend.real_type(route.io_prec == 0 ? 0 : route.compute_prec), !tiny);
  plan.text = [route, inverse] { return real_route_text(route, inverse); };
  return plan;
}

void rfft(const void* x, void* out, int64_t rows, int32_t n, const FftOptions& options) {
  const int device = begin_rows("rfft", n, rows, options.device);
  if (rows <= 0) return;
  FftOptions o = options;
  o.prec.packed = false;
  with_real_type(o.prec, [&]<class T>() { rfft_rows<T>(x, out, rows, n, o, device); });
}

}  // namespace ondrel
