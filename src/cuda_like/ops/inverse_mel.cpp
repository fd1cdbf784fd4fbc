#include "cuda_like/ops/inverse_mel.hpp"

#include <map>
#include <mutex>
#include <stdexcept>
#include <utility>

#include "codegen/backend.hpp"
#include "codegen/cepstra_kernels.hpp"
#include "cuda_like/tables/table_cache.hpp"
#include "math/hashing.hpp"
#include "rocm/context.hpp"
#include "rocm/device_pool.hpp"

namespace ondrel {

namespace {

using codegen::PmatmulStore;

int digit(const FeatureCall& call) { return call.prec.is_double() ? 2 : 1; }

KernelPlan pmatmul_plan(int32_t nin, int32_t nout, int d, PmatmulStore store) {
  const codegen::Pmatmul p{nin, nout, d, store};
  KernelPlan k;
  k.key = "pmatmul_" + std::to_string(nin) + "_" + std::to_string(nout) + "_" + std::to_string(d) + "_" +
          std::to_string(static_cast<int>(store));
  k.entry = "ondrel_pmatmul";
  k.threads = codegen::kCepThreads;
  k.params = codegen::pmatmul_params(d, codegen::hip_backend());
  k.text = [p] { return codegen::pmatmul_kernel(p, codegen::hip_backend()); };
  return k;
}

// The tables are found by the key alone, so a key that comes back with a
// matrix of another shape would send the kernels past the end of the
// first one's table: refused.
void check_shape(const InverseMelScale& s) {
  static std::map<std::string, std::pair<int32_t, int32_t>> shapes;
  std::lock_guard lock(context_mutex());
  const auto [it, fresh] = shapes.try_emplace(s.key, s.n_out, s.n_in);
  if (!fresh && it->second != std::make_pair(s.n_out, s.n_in))
    throw std::invalid_argument("inverse_mel_scale: key '" + s.key + "' already names a P of shape (" +
                                std::to_string(it->second.first) + ", " + std::to_string(it->second.second) + ")");
}

// P in T under key "_4" or "_8", or its transpose (n_in rows of n_out)
// under key "_t" and the same ending.
template <class T>
const void* matrix_table(const InverseMelScale& s, bool transposed) {
  const std::string name = s.key + (transposed ? "_t" : "") + (sizeof(T) == 8 ? "_8" : "_4");
  return table_by_hash(combine(fnv1a(name.data(), name.size()), 0x9a7), [&] {
    const size_t rows = static_cast<size_t>(s.n_out), cols = static_cast<size_t>(s.n_in);
    std::vector<T> v(rows * cols);
    for (size_t k = 0; k < rows; ++k)
      for (size_t m = 0; m < cols; ++m) {
        const T x = static_cast<T>(s.p[k * cols + m]);
        if (transposed) v[m * rows + k] = x;
        else v[k * cols + m] = x;
      }
    return table_by_name(name, v);
  });
}

template <class T>
void product(const KernelPlan& plan, const void* m, void* out, const void* table, const void* aux, int64_t frames,
             int32_t nout, const FeatureCall& call) {
  const LaunchRecord rec = compiled(plan, call.device);
  KernelArgs args = rec.args();
  args.set("M", m).set("out", static_cast<const void*>(out)).set("Tt", table).set("aux", aux).set("nt", frames);
  launch(rec, static_cast<unsigned>((frames * nout + codegen::kCepThreads - 1) / codegen::kCepThreads), 1, args,
         call.stream);
}

template <class T>
void forward_in(const InverseMelScale& s, const void* m, void* out, int64_t frames, const FeatureCall& call) {
  select_device(call.device);
  const void* table = matrix_table<T>(s, false);
  const PmatmulStore store = s.clamp ? PmatmulStore::clamped : PmatmulStore::plain;
  product<T>(pmatmul_plan(s.n_in, s.n_out, digit(call), store), m, out, table, out, frames, s.n_out, call);
}

template <class T>
void adjoint_in(const InverseMelScale& s, const void* m, const void* g, void* gm, int64_t frames,
                const FeatureCall& call) {
  select_device(call.device);
  const int d = digit(call);
  const DeviceBuffer masked((s.clamp ? static_cast<size_t>(frames * s.n_out) : 1) * sizeof(T), call.stream);
  const void* grad = g;
  if (s.clamp) {
    // The forward product again, to know where the clamp held the output at
    // 0; the gradient passes where the product was 0 or more.
    product<T>(pmatmul_plan(s.n_in, s.n_out, d, PmatmulStore::masked), m, masked.p, matrix_table<T>(s, false), g,
               frames, s.n_out, call);
    grad = masked.p;
  }
  product<T>(pmatmul_plan(s.n_out, s.n_in, d, PmatmulStore::plain), grad, gm, matrix_table<T>(s, true), gm, frames,
             s.n_in, call);
}

void check(const InverseMelScale& s, int64_t frames) {
  if (s.n_out < 1 || s.n_in < 1) throw std::invalid_argument("inverse_mel_scale: P must have rows and columns");
  if (frames < 0) throw std::invalid_argument("inverse_mel_scale: frames must not be negative");
  check_shape(s);
}

}  // namespace

void inverse_mel_scale(const InverseMelScale& s, const void* m, void* out, int64_t frames, const FeatureCall& call) {
  check(s, frames);
  if (frames == 0) return;
  if (call.prec.is_double()) forward_in<double>(s, m, out, frames, call);
  else forward_in<float>(s, m, out, frames, call);
}

void inverse_mel_scale_adjoint(const InverseMelScale& s, const void* m, const void* g, void* gm, int64_t frames,
                               const FeatureCall& call) {
  check(s, frames);
  if (frames == 0) return;
  if (call.prec.is_double()) adjoint_in<double>(s, m, g, gm, frames, call);
  else adjoint_in<float>(s, m, g, gm, frames, call);
}

std::vector<KernelPlan> inverse_mel_kernels(int32_t n_in, int32_t n_out, int prec, bool clamp, bool adjoint) {
  const int d = prec == 2 ? 2 : 1;
  if (!adjoint) return {pmatmul_plan(n_in, n_out, d, clamp ? PmatmulStore::clamped : PmatmulStore::plain)};
  std::vector<KernelPlan> plans;
  if (clamp) plans.push_back(pmatmul_plan(n_in, n_out, d, PmatmulStore::masked));
  plans.push_back(pmatmul_plan(n_out, n_in, d, PmatmulStore::plain));
  return plans;
}

}  // namespace ondrel
