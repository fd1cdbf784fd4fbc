#include "cuda_like/ops/icqt_direct.hpp"

#include <climits>
#include <cstdio>
#include <stdexcept>

#include "codegen/backend.hpp"
#include "codegen/icqt_kernels.hpp"
#include "cuda_like/ops/cqt.hpp"
#include "cuda_like/ops/cqt_plan.hpp"
#include "cuda_like/ops/rfft.hpp"
#include "cuda_like/tables/table_cache.hpp"
#include "rocm/context.hpp"
#include "rocm/device_pool.hpp"

namespace ondrel {

namespace {

[[noreturn]] void refuse(const std::string& what) { throw std::invalid_argument("icqt: " + what); }

hip_dl::hipStream_t stream_of(const IcqtDirectCall& c) { return static_cast<hip_dl::hipStream_t>(c.stream); }

void check_octave(const IcqtDirectCall& c, size_t o) {
  const IcqtOctave& t = c.plan->octaves[o];
  const std::string name = "octave " + std::to_string(o);
  if (t.level < 0) refuse(name + ": level must not be negative");
  if (t.n_fft < 2 || t.n_fft > INT_MAX) refuse(name + ": n_fft must be from 2 to 2147483647");
  // The shift is taken only once it cannot overflow.
  if (t.level > 30 || t.span() > kMaxIcqtSpan)
    refuse(name + ": n_fft << level exceeds the " + std::to_string(kMaxIcqtSpan) + " samples of a frame");
  if (t.d_rows != t.rows || t.d_cols != t.half_d()) refuse(name + ": D must have the shape (rows, n_fft / 2 + 1)");
  if (t.row_lo < 0 || t.rows < 0 || t.row_lo + t.rows > c.n_bins)
    refuse(name + ": rows must lie within 0 to n_bins - 1");
}

// The dual of tuple `o` as interleaved pairs of T, found by its content and
// its place: two tuples of one level never share a table.
template <class T>
const void* dual_table(const IcqtDirectCall& c, size_t o) {
  const IcqtOctave& t = c.plan->octaves[o];
  const size_t count = static_cast<size_t>(t.rows * t.half_d());
  char tail[48];
  std::snprintf(tail, sizeof tail, "_icd%zu_%016llx_%d", o,
                static_cast<unsigned long long>(word_hash(t.d, count * sizeof(std::complex<double>))),
                static_cast<int>(sizeof(T)));
  std::vector<T> pairs(2 * count);
  for (size_t i = 0; i < count; ++i) {
    pairs[2 * i] = static_cast<T>(t.d[i].real());
    pairs[2 * i + 1] = static_cast<T>(t.d[i].imag());
  }
  return table_by_name(c.plan->plan_key + tail, pairs);
}

struct DirectKernels {
  LaunchRecord dual, ola;
};

template <class T>
void octave_estimate(const IcqtDirect& d, const DirectKernels& k, size_t o) {
  const IcqtDirectCall& c = d.call;
  const IcqtOctave& t = c.plan->octaves[o];
  const int64_t span = t.span(), half_f = span / 2 + 1, nf = c.frames;
  const void* dual = dual_table<T>(c, o);
  const DeviceBuffer xf(static_cast<size_t>(nf * half_f * c.batch) * 2 * sizeof(T), stream_of(c));
  const DeviceBuffer fr(static_cast<size_t>(span * nf * c.batch) * sizeof(T), stream_of(c));
  KernelArgs da = k.dual.args();
  da.set("C", d.c)
      .set("Xf", static_cast<const void*>(xf.p))
      .set("D", dual)
      .set("nf", nf)
      .set("half_f", static_cast<int32_t>(half_f))
      .set("half_d", static_cast<int32_t>(t.half_d()))
      .set("rows", static_cast<int32_t>(t.rows))
      .set("n_bins", static_cast<int32_t>(c.n_bins))
      .set("row_lo", static_cast<int32_t>(t.row_lo));
  launch(k.dual, flat_blocks(nf * half_f), static_cast<unsigned>(c.batch), da, stream_of(c));
  FftOptions inverse;
  inverse.inverse = true;
  inverse.prec = full_width(sizeof(T) == 8);
  inverse.device = c.device;
  inverse.stream = c.stream;
  rfft(xf.p, fr.p, c.batch * nf, static_cast<int32_t>(span), inverse);
  KernelArgs oa = k.ola.args();
  oa.set("frames", static_cast<const void*>(fr.p))
      .set("y", d.y)
      .set("len", c.length)
      .set("nf", nf)
      .set("span", static_cast<int32_t>(span))
      .set("h", static_cast<int32_t>(c.hop))
      .set("scale", static_cast<T>(static_cast<double>(int64_t{1} << t.level)));
  launch(k.ola, flat_blocks(c.length), static_cast<unsigned>(c.batch), oa, stream_of(c));
}

template <class T>
void icqt_direct_in(const IcqtDirect& d) {
  const IcqtDirectCall& c = d.call;
  const int device = select_device(c.device);
  const std::vector<KernelPlan> plans = icqt_direct_kernels(c.prec.is_double() ? 2 : 1);
  const DirectKernels k{compiled(plans[0], device), compiled(plans[1], device)};
  ONDREL_HIP_CHECK(hip_dl::api().MemsetD8Async(d.y, 0, (size_t)c.batch * c.length * sizeof(T), stream_of(c)));
  if (c.frames == 0) return;
  // The octaves add up in y: one after another on the stream.
  for (size_t o = 0; o < c.plan->octaves.size(); ++o)
    if (c.plan->octaves[o].rows > 0) octave_estimate<T>(d, k, o);
}

}  // namespace

void check_icqt_direct(const IcqtDirectCall& c) {
  if (c.n_bins < 0 || c.n_bins > INT_MAX) refuse("n_bins must be from 0 to 2147483647");
  for (size_t o = 0; o < c.plan->octaves.size(); ++o) check_octave(c, o);
  if (c.hop < 1 || c.hop > INT_MAX) refuse("hop must be from 1 to 2147483647");
  if (c.length < 0 || c.length > INT_MAX / 2) refuse("length must be from 0 to 1073741823");
  if (c.frames < 0) refuse("frames must not be negative");
  if (c.batch < 0) refuse("batch must not be negative");
  check_cqt_grid(c.batch, "ondrel_icqtdual");
}

void icqt_direct(const IcqtDirect& d) {
  check_icqt_direct(d.call);
  if (d.call.batch == 0 || d.call.length == 0) return;
  if (d.call.prec.is_double()) icqt_direct_in<double>(d);
  else icqt_direct_in<float>(d);
}

std::vector<KernelPlan> icqt_direct_kernels(int32_t prec) {
  const int p = prec == 2 ? 2 : 1;
  return {flat_plan(codegen::icqtdual_key(p), "ondrel_icqtdual", codegen::icqtdual_params(),
               [p] { return codegen::icqtdual_kernel(p, codegen::hip_backend()); }),
          flat_plan(codegen::icqtola_key(p), "ondrel_icqtola", codegen::icqtola_params(p),
               [p] { return codegen::icqtola_kernel(p, codegen::hip_backend()); })};
}

}  // namespace ondrel
