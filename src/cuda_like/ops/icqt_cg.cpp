#include "cuda_like/ops/icqt_cg.hpp"

#include <algorithm>
#include <cmath>
#include <stdexcept>

#include "codegen/backend.hpp"
#include "codegen/icqt_kernels.hpp"
#include "cuda_like/ops/cqt.hpp"
#include "cuda_like/ops/cqt_adjoint.hpp"
#include "rocm/context.hpp"
#include "rocm/device_pool.hpp"

namespace ondrel {

namespace {

using hip_dl::hipStream_t;

constexpr unsigned kFlagNonBlocking = 1;
constexpr int kCaptureRelaxed = 2;

// The private stream of one solve. Its pool blocks are the caller's
// stream's free blocks, lent for the solve: every use of the private stream
// lies between two events on the caller's stream, and while they are lent
// no other work there (another thread's) can take a block a replay still
// uses. They go back after the final synchronisation, before the handle is
// given back, so the pool does not grow per call and a later stream under
// the same handle inherits nothing.
class CaptureStream {
 public:
  // Only where a graph is wanted: one iteration creates no stream.
  CaptureStream(hipStream_t home, bool wanted) {
    if (!wanted) return;
    if (hip_dl::api().StreamCreateWithFlags(&s, kFlagNonBlocking) != hip_dl::hipSuccess) s = nullptr;
    if (s) device_pool().lend(s, home);
  }
  ~CaptureStream() { reset(); }
  void reset() noexcept {
    if (!s) return;
    device_pool().end_loan(s);
    hip_dl::api().StreamDestroy(s);
    s = nullptr;
  }
  CaptureStream(const CaptureStream&) = delete;
  CaptureStream& operator=(const CaptureStream&) = delete;

  hipStream_t s = nullptr;
};

// One solve's buffers, kernels and steps.
template <class T>
struct Solver {
  const IcqtCg& job;
  int device;
  int64_t B, L;
  size_t vec;
  LaunchRecord vdot_k, vaxpby_k, alpha_k, beta_k;
  DeviceBuffer dzero, dC, db, dr, dp, dq, rs, rs_new, pap, ab_y, ab_r, ab_p, rs0, iters, busy;

  Solver(const IcqtCg& s, int dev)
      : job(s), device(dev), B(s.call.batch), L(s.call.length), vec(static_cast<size_t>(B * L) * sizeof(T)) {
    const std::vector<KernelPlan> plans = icqt_cg_kernels(sizeof(T) == 8 ? 2 : 1, s.stop.on);
    vdot_k = compiled(plans[0], device);
    vaxpby_k = compiled(plans[1], device);
    alpha_k = compiled(plans[2], device);
    beta_k = compiled(plans[3], device);
    const hipStream_t st = home();
    const size_t scalars = static_cast<size_t>(B) * sizeof(T);
    dzero = DeviceBuffer(vec, st);
    dC = DeviceBuffer(static_cast<size_t>(s.call.plan->frames * B * s.call.plan->n_bins) * 2 * sizeof(T), st);
    db = DeviceBuffer(vec, st);
    dr = DeviceBuffer(vec, st);
    dp = DeviceBuffer(vec, st);
    dq = DeviceBuffer(vec, st);
    rs = DeviceBuffer(scalars, st);
    rs_new = DeviceBuffer(scalars, st);
    pap = DeviceBuffer(scalars, st);
    ab_y = DeviceBuffer(2 * scalars, st);
    ab_r = DeviceBuffer(2 * scalars, st);
    ab_p = DeviceBuffer(2 * scalars, st);
    if (s.stop.on) {
      rs0 = DeviceBuffer(scalars, st);
      iters = DeviceBuffer(static_cast<size_t>(B) * sizeof(int32_t), st);
      busy = DeviceBuffer(sizeof(int32_t), st);
    }
  }

  hipStream_t home() const { return static_cast<hipStream_t>(job.call.stream); }

  CqtCall on(hipStream_t s) const {
    CqtCall c = job.call;
    c.stream = s;
    return c;
  }

  void forward(const void* x, void* out, hipStream_t s) const {
    CqtForward f;
    f.call = on(s);
    f.x = x;
    f.out = out;
    cqt(f);
  }

  // The adjoint of complex output never reads its signal: dzero stands in.
  void adjoint(const void* g, void* gx, hipStream_t s) const {
    CqtAdjoint a;
    a.call = on(s);
    a.x = dzero.p;
    a.g = g;
    a.gx = gx;
    cqt_adjoint(a);
  }

  void vdot(const DeviceBuffer& u, const DeviceBuffer& v, const DeviceBuffer& out, hipStream_t s) const {
    KernelArgs a = vdot_k.args();
    a.set("u", static_cast<const void*>(u.p)).set("v", static_cast<const void*>(v.p));
    a.set("out", static_cast<const void*>(out.p)).set("n", L);
    launch(vdot_k, static_cast<unsigned>(B), 1, a, s);
  }

  // y = ab[b] x + ab[B + b] y, signal b by signal b.
  void vaxpby(const void* x, const void* y, const DeviceBuffer& ab, hipStream_t s) const {
    KernelArgs a = vaxpby_k.args();
    a.set("x", x).set("y", y).set("a", static_cast<const void*>(ab.p));
    a.set("c", static_cast<const void*>(static_cast<const T*>(ab.p) + B)).set("n", L);
    launch(vaxpby_k, flat_blocks(L), static_cast<unsigned>(B), a, s);
  }

  void setup() {
    const hipStream_t st = home();
    ONDREL_HIP_CHECK(hip_dl::api().MemsetD8Async(dzero.p, 0, vec, st));
    adjoint(job.c, db.p, st);
    forward(job.y, dC.p, st);
    adjoint(dC.p, dr.p, st);
    ONDREL_HIP_CHECK(hip_dl::api().MemcpyDtoDAsync(dp.p, db.p, vec, st));
    std::vector<T> minus_ones_ones(static_cast<size_t>(2 * B), T(1));
    for (int64_t b = 0; b < B; ++b) minus_ones_ones[static_cast<size_t>(b)] = T(-1);
    ONDREL_HIP_CHECK(
        hip_dl::api().MemcpyHtoDAsync(ab_p.p, minus_ones_ones.data(), 2 * B * sizeof(T), st));
    // The vector lives on the host's stack.
    ONDREL_HIP_CHECK(hip_dl::api().StreamSynchronize(st));
    vaxpby(dr.p, dp.p, ab_p, st);
    ONDREL_HIP_CHECK(hip_dl::api().MemcpyDtoDAsync(dr.p, dp.p, vec, st));
    vdot(dr, dr, rs, st);
    if (!job.stop.on) return;
    ONDREL_HIP_CHECK(hip_dl::api().MemcpyDtoDAsync(rs0.p, rs.p, B * sizeof(T), st));
    ONDREL_HIP_CHECK(hip_dl::api().MemsetD8Async(iters.p, 0, B * sizeof(int32_t), st));
  }

  void step_scalars(const LaunchRecord& k, KernelArgs& a, hipStream_t s) const {
    a.set("nb", static_cast<int32_t>(B));
    if (job.stop.on) {
      a.set("rs0", static_cast<const void*>(rs0.p)).set("busy", static_cast<const void*>(busy.p));
      a.set("tol2", static_cast<T>(job.stop.tol * job.stop.tol));
    }
    launch(k, flat_blocks(B), 1, a, s);
  }

  void iterate(hipStream_t s) const {
    forward(dp.p, dC.p, s);
    adjoint(dC.p, dq.p, s);
    vdot(dp, dq, pap, s);
    KernelArgs al = alpha_k.args();
    al.set("rs", static_cast<const void*>(rs.p)).set("pap", static_cast<const void*>(pap.p));
    al.set("ab_y", static_cast<const void*>(ab_y.p)).set("ab_r", static_cast<const void*>(ab_r.p));
    if (job.stop.on) al.set("iters", static_cast<const void*>(iters.p));
    step_scalars(alpha_k, al, s);
    vaxpby(dp.p, job.y, ab_y, s);
    vaxpby(dq.p, dr.p, ab_r, s);
    vdot(dr, dr, rs_new, s);
    KernelArgs be = beta_k.args();
    be.set("rs_new", static_cast<const void*>(rs_new.p)).set("rs", static_cast<const void*>(rs.p));
    be.set("ab_p", static_cast<const void*>(ab_p.p));
    step_scalars(beta_k, be, s);
    vaxpby(dr.p, dp.p, ab_p, s);
  }

  // With the stop rule: after the work on `s`, whether any signal still moves.
  bool moving(hipStream_t s) const {
    ONDREL_HIP_CHECK(hip_dl::api().StreamSynchronize(s));
    int32_t word = 0;
    ONDREL_HIP_CHECK(hip_dl::api().MemcpyDtoH(&word, busy.p, sizeof word));
    return word != 0;
  }

  // `n` iterations, `run(count)` enqueuing `count` of them, in chunks read
  // back between under the stop rule.
  template <class Run>
  void in_chunks(int64_t n, hipStream_t s, Run&& run) const {
    if (!job.stop.on) return run(n);
    for (int64_t done = 0; done < n;) {
      const int64_t count = std::min(job.stop.chunk, n - done);
      run(count);
      done += count;
      if (done < n && !moving(s)) return;
    }
  }

  void direct_loop(int64_t n) const {
    in_chunks(n, home(), [&](int64_t count) {
      for (int64_t i = 0; i < count; ++i) iterate(home());
    });
  }

  // The graph of one iteration on `cap`, or null where the capture is refused.
  hip_dl::hipGraphExec_t captured(hipStream_t cap) const {
    const auto& hip = hip_dl::api();
    if (hip.StreamBeginCapture(cap, kCaptureRelaxed) != hip_dl::hipSuccess) return nullptr;
    bool threw = false;
    try {
      iterate(cap);
    } catch (const std::exception&) {
      threw = true;
    }
    hip_dl::hipGraph_t graph = nullptr;
    hip_dl::hipGraphExec_t exec = nullptr;
    if (hip.StreamEndCapture(cap, &graph) == hip_dl::hipSuccess && graph && !threw)
      if (hip.GraphInstantiate(&exec, graph, nullptr, nullptr, 0) != hip_dl::hipSuccess) exec = nullptr;
    if (graph) hip.GraphDestroy(graph);
    return exec;
  }

  CgPath iterations(CaptureStream& cap) const {
    const int64_t n = job.n_iter;
    if (n < 1) return CgPath::none;
    if (n == 1) {
      iterate(home());
      return CgPath::direct;
    }
    const auto& hip = hip_dl::api();
    hip_dl::hipGraphExec_t exec = cap.s ? captured(cap.s) : nullptr;
    if (!exec) {
      cap.reset();
      direct_loop(n);
      return CgPath::fallback;
    }
    hip_dl::hipEvent_t ev = nullptr;
    try {
      ONDREL_HIP_CHECK(hip.EventCreate(&ev));
      ONDREL_HIP_CHECK(hip.EventRecord(ev, home()));
      ONDREL_HIP_CHECK(hip.StreamWaitEvent(cap.s, ev, 0));
      in_chunks(n, cap.s, [&](int64_t count) {
        for (int64_t i = 0; i < count; ++i) ONDREL_HIP_CHECK(hip.GraphLaunch(exec, cap.s));
      });
      ONDREL_HIP_CHECK(hip.EventRecord(ev, cap.s));
      ONDREL_HIP_CHECK(hip.StreamWaitEvent(home(), ev, 0));
    } catch (...) {
      if (ev) hip.EventDestroy(ev);
      hip.GraphExecDestroy(exec);
      throw;
    }
    hip.EventDestroy(ev);
    hip.GraphExecDestroy(exec);
    return CgPath::graph;
  }

  template <class V>
  std::vector<V> fetch(const DeviceBuffer& from) const {
    std::vector<V> v(static_cast<size_t>(B));
    ONDREL_HIP_CHECK(hip_dl::api().MemcpyDtoH(v.data(), from.p, v.size() * sizeof(V)));
    return v;
  }

  CgReport run() {
    setup();
    // Every kernel is compiled and every table cached by now: no compile
    // or upload falls into the capture.
    CaptureStream cap(home(), job.n_iter >= 2);
    CgReport report;
    report.path = iterations(cap);
    ONDREL_HIP_CHECK(hip_dl::api().StreamSynchronize(home()));
    if (job.stop.on) {
      const std::vector<T> last = fetch<T>(rs), first = fetch<T>(rs0);
      report.rs.assign(last.begin(), last.end());
      report.rs0.assign(first.begin(), first.end());
      report.iterations = fetch<int32_t>(iters);
    }
    return report;
  }
};

}  // namespace

void check_icqt_cg(const IcqtCg& s) {
  check_cqt(s.call);
  if (!(s.stop.tol >= 0) || !std::isfinite(s.stop.tol))
    throw std::invalid_argument("icqt: tol must be finite and at least 0");
  if (s.stop.chunk < 1) throw std::invalid_argument("icqt: chunk must be at least 1");
  check_cqt_grid(s.call.batch, "ondrel_vaxpby");
}

CgReport icqt_cg(const IcqtCg& s) {
  IcqtCg job = s;
  job.call.mode = 0;
  job.call.eps = 1e-10;
  job.call.full_output = false;
  check_icqt_cg(job);
  if (job.call.batch == 0) return {};
  const int device = select_device(job.call.device);
  if (job.call.prec.is_double()) return Solver<double>(job, device).run();
  return Solver<float>(job, device).run();
}

std::vector<KernelPlan> icqt_cg_kernels(int32_t prec, bool stop) {
  const int p = prec == 2 ? 2 : 1;
  return {flat_plan(codegen::vdot_key(p), "ondrel_vdot", codegen::vdot_params(),
               [p] { return codegen::vdot_kernel(p, codegen::hip_backend()); }, codegen::vdot_shared_bytes(p)),
          flat_plan(codegen::vaxpby_key(p), "ondrel_vaxpby", codegen::vaxpby_params(),
               [p] { return codegen::vaxpby_kernel(p, codegen::hip_backend()); }),
          flat_plan(codegen::cgalpha_key(p, stop), "ondrel_cgalpha", codegen::cgalpha_params(p, stop),
               [p, stop] { return codegen::cgalpha_kernel(p, stop, codegen::hip_backend()); }),
          flat_plan(codegen::cgbeta_key(p, stop), "ondrel_cgbeta", codegen::cgbeta_params(p, stop),
               [p, stop] { return codegen::cgbeta_kernel(p, stop, codegen::hip_backend()); })};
}

}  // namespace ondrel
