#include "cuda_like/ops/chroma.hpp"

#include <cstdio>
#include <stdexcept>
#include <string>

#include "codegen/backend.hpp"
#include "codegen/chroma_kernels.hpp"
#include "cuda_like/ops/cqt.hpp"
#include "cuda_like/ops/cqt_adjoint.hpp"
#include "cuda_like/tables/table_cache.hpp"
#include "rocm/context.hpp"
#include "rocm/device_pool.hpp"

namespace ondrel {

namespace {

[[noreturn]] void refuse(const std::string& what) { throw std::invalid_argument("chroma: " + what); }

hip_dl::hipStream_t stream_of(const ChromaCall& c) { return static_cast<hip_dl::hipStream_t>(c.cqt.stream); }

int compute_digit(const Precision& p) { return p.is_double() ? kDoubleCode : kSingleCode; }

KernelPlan fold_plan(int compute, int64_t n_chroma, int out_prec, bool adjoint) {
  const int nc = static_cast<int>(n_chroma);
  KernelPlan k;
  k.threads = 256;
  if (adjoint) {
    k.key = codegen::chradj_key(compute, nc);
    k.entry = "ondrel_chradj";
    k.params = codegen::chradj_params();
    k.text = [=] { return codegen::chradj_kernel(compute, nc, codegen::hip_backend()); };
  } else {
    k.key = codegen::chroma_key(compute, nc, out_prec);
    k.entry = "ondrel_chroma";
    k.params = codegen::chroma_params();
    k.text = [=] { return codegen::chroma_kernel(compute, nc, out_prec, codegen::hip_backend()); };
  }
  return k;
}

// The class map as 32-bit integers on the device, found by its content so
// that a new map under an old plan key is never ignored.
const void* class_table(const ChromaCall& c) {
  const std::vector<int32_t> cls(c.classes, c.classes + c.n_classes);
  char tail[32];
  std::snprintf(tail, sizeof tail, "_%016llx_cls",
                static_cast<unsigned long long>(content_hash(cls.data(), cls.size() * sizeof(int32_t))));
  return table_by_name(c.cqt.plan->plan_key + tail, cls);
}

// The magnitudes (batch x n_bins x frames of T) of the call's signal.
template <class T>
DeviceBuffer magnitudes(const ChromaCall& c, const void* x, Precision prec) {
  const CqtPlan& p = *c.cqt.plan;
  DeviceBuffer mag(static_cast<size_t>(c.cqt.batch * p.n_bins * p.frames) * sizeof(T), stream_of(c));
  CqtForward f;
  f.call = c.cqt;
  f.call.mode = 1;
  f.call.eps = 0;
  f.call.prec = prec;
  f.call.full_output = true;
  f.x = x;
  f.out = mag.p;
  cqt(f);
  return mag;
}

void launch_fold(const ChromaCall& c, const LaunchRecord& k, const void* mag, const void* cls, KernelArgs& args) {
  args.set("mag", mag).set("cls", cls).set("n_bins", c.cqt.plan->n_bins).set("nf", c.cqt.plan->frames);
  launch(k, flat_blocks(c.cqt.plan->frames), static_cast<unsigned>(c.cqt.batch), args, stream_of(c));
}

template <class T>
void chroma_in(const ChromaForward& f) {
  const ChromaCall& c = f.call;
  const int device = select_device(c.cqt.device);
  const int compute = compute_digit(c.cqt.prec);
  const LaunchRecord k =
      compiled(fold_plan(compute, c.n_chroma, c.cqt.prec.half() ? kHalfCode : compute, false), device);
  const void* cls = class_table(c);
  const DeviceBuffer mag = magnitudes<T>(c, f.x, c.cqt.prec);
  KernelArgs args = k.args();
  args.set("out", static_cast<const void*>(f.out));
  launch_fold(c, k, mag.p, cls, args);
}

template <class T>
void chroma_adjoint_in(const ChromaAdjoint& a) {
  const ChromaCall& c = a.call;
  const int device = select_device(c.cqt.device);
  const LaunchRecord k = compiled(fold_plan(compute_digit(c.cqt.prec), c.n_chroma, 0, true), device);
  const void* cls = class_table(c);
  const DeviceBuffer mag = magnitudes<T>(c, a.x, c.cqt.prec);
  const DeviceBuffer gmag(static_cast<size_t>(c.cqt.batch * c.cqt.plan->n_bins * c.cqt.plan->frames) * sizeof(T),
                          stream_of(c));
  KernelArgs args = k.args();
  args.set("gmag", static_cast<const void*>(gmag.p)).set("g", a.g);
  launch_fold(c, k, mag.p, cls, args);
  CqtAdjoint adj;
  adj.call = c.cqt;
  adj.call.mode = 1;
  adj.call.eps = 0;
  adj.x = a.x;
  adj.g = gmag.p;
  adj.gx = a.gx;
  cqt_adjoint(adj);
}

}  // namespace

void check_chroma(const ChromaCall& c) {
  check_cqt(c.cqt);
  // A define that sizes an array in every thread: bounded so that no
  // compiler is handed an absurd kernel.
  if (c.n_chroma < 1 || c.n_chroma > kMaxChroma)
    refuse("n_chroma must be from 1 to " + std::to_string(kMaxChroma));
  if (c.n_classes < 0) refuse("classes must be a 1-D array of integers");
  if (c.n_classes != c.cqt.plan->n_bins) refuse("classes must hold exactly n_bins values");
  for (int64_t i = 0; i < c.n_classes; ++i)
    if (c.classes[i] < 0 || c.classes[i] >= c.n_chroma) refuse("classes must lie in 0 to n_chroma - 1");
}

void chroma(const ChromaForward& f) {
  check_chroma(f.call);
  check_cqt_grid(f.call.cqt.batch, "ondrel_chroma");
  if (f.call.cqt.batch == 0 || f.call.cqt.plan->frames == 0) return;
  if (f.call.cqt.prec.is_double()) chroma_in<double>(f);
  else chroma_in<float>(f);
}

void chroma_adjoint(const ChromaAdjoint& a) {
  check_chroma(a.call);
  check_cqt_grid(a.call.cqt.batch, "ondrel_chradj");
  if (a.call.cqt.batch == 0) return;
  if (a.call.cqt.plan->frames == 0) {
    // No class values, no gradient: the constant-Q adjoint clears gx.
    CqtAdjoint adj;
    adj.call = a.call.cqt;
    adj.call.mode = 1;
    adj.gx = a.gx;
    cqt_adjoint(adj);
    return;
  }
  if (a.call.cqt.prec.is_double()) chroma_adjoint_in<double>(a);
  else chroma_adjoint_in<float>(a);
}

std::vector<KernelPlan> chroma_kernels(int32_t prec, int64_t n_chroma, bool adjoint) {
  if (n_chroma < 1 || n_chroma > kMaxChroma) refuse("n_chroma must be from 1 to " + std::to_string(kMaxChroma));
  const Precision p = adjoint ? full_width(prec == 2) : precision_code(prec);
  const int compute = compute_digit(p);
  return {fold_plan(compute, n_chroma, p.half() ? kHalfCode : compute, adjoint)};
}

}  // namespace ondrel
