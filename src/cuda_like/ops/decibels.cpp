#include "cuda_like/ops/decibels.hpp"

#include <optional>
#include <stdexcept>
#include <string>

#include "codegen/decibels_kernels.hpp"
#include "math/hashing.hpp"
#include "rocm/context.hpp"

namespace ondrel {

namespace {

struct DbKernels {};  // the family of the launch records

enum class DbKernel : uint64_t { forward, inverse, adjoint };

int digit(int prec) { return prec == 2 ? 2 : 1; }

KernelPlan plan_of(DbKernel k, int prec) {
  const codegen::Backend& b = codegen::hip_backend();
  const int d = digit(prec);
  const size_t real = d == 2 ? 8 : 4;
  KernelPlan plan;
  plan.threads = codegen::kDbThreads;
  if (k == DbKernel::forward) {
    plan.key = "db_" + std::to_string(d);
    plan.entry = "ondrel_db";
    plan.shared_bytes = codegen::kDbThreads * real;
    plan.params = codegen::db_params(b, d);
    plan.text = [d] { return codegen::db_kernel(d, codegen::hip_backend()); };
  } else if (k == DbKernel::inverse) {
    plan.key = "db_inv_" + std::to_string(d);
    plan.entry = "ondrel_db_inv";
    plan.params = codegen::db_inv_params(b, d);
    plan.text = [d] { return codegen::db_inv_kernel(d, codegen::hip_backend()); };
  } else {
    plan.key = "db_adj_" + std::to_string(d);
    plan.entry = "ondrel_db_adj";
    plan.shared_bytes = 2 * codegen::kDbThreads * real;
    plan.params = codegen::db_adjoint_params(b, d);
    plan.text = [d] { return codegen::db_adjoint_kernel(d, codegen::hip_backend()); };
  }
  return plan;
}

template <class Run>
void with_record(DbKernel k, int prec, const FeatureCall& call, Run&& run) {
  const uint64_t key = combine(combine(static_cast<uint64_t>(k), static_cast<uint64_t>(digit(prec))), widen(call.device));
  select_device(call.device);
  run_record<DbKernels, void>(
      key, false, [&]() -> std::optional<LaunchRecord> { return compiled(plan_of(k, prec), call.device); }, run);
}

// A scalar argument in the kernels' element type.
void set_real(KernelArgs& args, const char* name, double v, int prec) {
  if (digit(prec) == 2) args.set(name, v);
  else args.set(name, static_cast<float>(v));
}

const void* advanced(const void* p, int64_t elements, int prec) {
  return static_cast<const char*>(p) + static_cast<size_t>(elements) * (digit(prec) == 2 ? 8 : 4);
}

}  // namespace

void db(const void* s, void* out, int64_t items, int64_t n, const DbScale& scale, const FeatureCall& call) {
  const int prec = call.prec.is_double() ? 2 : 1;
  if (items < 1) return;
  with_record(DbKernel::forward, prec, call, [&](const LaunchRecord& rec) {
    for_row_chunks(items, [&](int64_t first, int64_t count) {
      KernelArgs args = rec.args();
      args.set("S", advanced(s, first * n, prec)).set("out", advanced(out, first * n, prec)).set("n", n);
      set_real(args, "mul", scale.mul, prec);
      set_real(args, "amin", scale.amin, prec);
      set_real(args, "cref", scale.cref, prec);
      set_real(args, "topdb", scale.topdb, prec);
      args.set("hastop", static_cast<int32_t>(scale.hastop ? 1 : 0));
      launch(rec, static_cast<unsigned>(count), 1, args, call.stream);
    });
  });
}

void db_inv(const void* d, void* out, int64_t total, double mul, double ref, const FeatureCall& call) {
  const int prec = call.prec.is_double() ? 2 : 1;
  if (total < 1) return;
  with_record(DbKernel::inverse, prec, call, [&](const LaunchRecord& rec) {
    KernelArgs args = rec.args();
    args.set("D", d).set("out", out).set("total", total);
    set_real(args, "mul", mul, prec);
    set_real(args, "ref", ref, prec);
    launch(rec, static_cast<unsigned>((total + codegen::kDbThreads - 1) / codegen::kDbThreads), 1, args,
           call.stream);
  });
}

void db_adjoint(const void* s, const void* g, void* gs, int64_t items, int64_t n, const DbScale& scale,
                const FeatureCall& call) {
  if (call.prec.half()) throw std::invalid_argument("db: half gradients compute in f32 - upcast the tensors");
  const int prec = call.prec.is_double() ? 2 : 1;
  if (items < 1) return;
  with_record(DbKernel::adjoint, prec, call, [&](const LaunchRecord& rec) {
    for_row_chunks(items, [&](int64_t first, int64_t count) {
      KernelArgs args = rec.args();
      args.set("S", advanced(s, first * n, prec))
          .set("g", advanced(g, first * n, prec))
          .set("gS", advanced(gs, first * n, prec))
          .set("n", n);
      set_real(args, "mul", scale.mul, prec);
      set_real(args, "amin", scale.amin, prec);
      set_real(args, "topdb", scale.topdb, prec);
      args.set("hastop", static_cast<int32_t>(scale.hastop ? 1 : 0));
      launch(rec, static_cast<unsigned>(count), 1, args, call.stream);
    });
  });
}

std::vector<KernelPlan> db_kernels(int prec) {
  return {plan_of(DbKernel::forward, prec), plan_of(DbKernel::inverse, prec), plan_of(DbKernel::adjoint, prec)};
}

}  // namespace ondrel
