#include "cuda_like/ops/conv_adjoint.hpp"

#include <climits>
#include <stdexcept>

#include "codegen/backend.hpp"
#include "cuda_like/ops/conv.hpp"
#include "cuda_like/ops/fft.hpp"
#include "cuda_like/ops/fft_listing.hpp"
#include "cuda_like/ops/rfft.hpp"
#include "rocm/context.hpp"
#include "rocm/device_pool.hpp"

namespace ondrel {

namespace {

int digit(bool is_double) { return is_double ? kDoubleCode : kSingleCode; }

// How gy (`reverse` false) or w is placed; with `reverse` false it also
// names the row sum, whose output has the storage of `out`.
codegen::ConvStage stage(const ConvAdjointCall& c, const Precision& prec, bool reverse) {
  codegen::ConvStage s;
  s.compute = digit(prec.is_double());
  s.storage = c.complex ? s.compute : prec.storage;
  s.complex = c.complex;
  s.conjugate = reverse && c.complex;
  s.reverse = reverse;
  return s;
}

KernelPlan stage_plan(const codegen::ConvStage& s) {
  KernelPlan plan;
  plan.key = codegen::convstage_key(s);
  plan.entry = "ondrel_convstage";
  plan.threads = 256;
  plan.params = codegen::convstage_params(s);
  plan.text = [s] { return codegen::convstage_kernel(s, codegen::hip_backend()); };
  return plan;
}

KernelPlan rowsum_plan(const codegen::ConvStage& s) {
  KernelPlan plan;
  plan.key = codegen::convrowsum_key(s);
  plan.entry = "ondrel_convrowsum";
  plan.threads = 256;
  plan.params = codegen::convrowsum_params(s);
  plan.text = [s] { return codegen::convrowsum_kernel(s, codegen::hip_backend()); };
  return plan;
}

// The slice into `out`: a kernel that converts to `storage` for real rows,
// a two-dimensional copy for complex ones.
void slice(const ConvAdjointCall& c, int compute, int storage, const void* x, void* out, size_t elem, int32_t device,
           void* stream) {
  if (c.complex) return conv_slice_complex(x, out, c.rows, c.nf, c.sl_start, c.sl_len, elem, stream);
  conv_slice(compiled(convslice_plan(compute, storage), device), x, out, c.rows, c.nf, c.sl_start, c.sl_len, stream);
}

void place(const LaunchRecord& rec, const void* x, void* out, int64_t len, int64_t nf, int64_t off, int64_t rows,
           void* stream) {
  if (len < 1 || rows < 1) return;
  KernelArgs args = rec.args();
  args.set("x", x).set("out", static_cast<const void*>(out)).set("len", len).set("nf", nf).set("off", off);
  launch(rec, conv_blocks(len), static_cast<unsigned>(rows), args, static_cast<hip_dl::hipStream_t>(stream));
}

template <class T>
void adjoint_rows(const void* gy, const void* w, void* out, const ConvAdjointCall& c, const Precision& prec,
                  int32_t device, void* stream) {
  constexpr bool is_double = sizeof(T) == 8;
  const int compute = digit(is_double);
  const auto s = static_cast<hip_dl::hipStream_t>(stream);
  const auto& hip = hip_dl::api();
  const size_t es = sizeof(T) * (c.complex ? 2 : 1);
  const int64_t R = c.rows, Rw = c.rows_w, nf = c.nf, nb = c.complex ? nf : nf / 2 + 1;
  const codegen::ConvStage g_stage = stage(c, prec, false), w_stage = stage(c, prec, true);
  const LaunchRecord g_rec = compiled(stage_plan(g_stage), device), w_rec = compiled(stage_plan(w_stage), device),
                     mul_rec = compiled(convmul_plan(compute), device);

  const DeviceBuffer pg(static_cast<size_t>(R * nf) * es, s), pw(static_cast<size_t>(Rw * nf) * es, s);
  hip_check(hip.MemsetD8Async(pg.p, 0, (size_t)R * nf * es, s), __FILE__, __LINE__,
            "memsetD8Async(pg.p, 0, (size_t)R * nf * es, (stream_t)stream)");
  hip_check(hip.MemsetD8Async(pw.p, 0, (size_t)Rw * nf * es, s), __FILE__, __LINE__,
            "memsetD8Async(pw.p, 0, (size_t)Rw * nf * es, (stream_t)stream)");
  place(g_rec, gy, pg.p, c.len_g, nf, c.off, R, stream);
  place(w_rec, w, pw.p, c.len_w, nf, 0, Rw, stream);

  const DeviceBuffer zg(static_cast<size_t>(R * nb) * 2 * sizeof(T), s),
      zw(static_cast<size_t>(Rw * nb) * 2 * sizeof(T), s);
  const auto run = c.complex ? fft : rfft;
  FftOptions o;
  o.prec = full_width(is_double);
  o.device = device;
  o.stream = stream;
  run(pg.p, zg.p, R, static_cast<int32_t>(nf), o);
  run(pw.p, zw.p, Rw, static_cast<int32_t>(nf), o);
  conv_multiply(mul_rec, zw.p, zg.p, nb, R, Rw == R, stream);
  const DeviceBuffer po(static_cast<size_t>(R * nf) * es, s);
  o.inverse = true;
  run(zg.p, po.p, R, static_cast<int32_t>(nf), o);

  if (!c.sum_rows) return slice(c, compute, g_stage.storage, po.p, out, es, device, stream);
  // The rows are cut at full width, then summed in row order into `out`.
  const DeviceBuffer cut(static_cast<size_t>(R * c.sl_len) * es, s);
  slice(c, compute, compute, po.p, cut.p, es, device, stream);
  const LaunchRecord sum_rec = compiled(rowsum_plan(g_stage), device);
  KernelArgs args = sum_rec.args();
  args.set("x", static_cast<const void*>(cut.p)).set("y", static_cast<const void*>(out)).set("rows", R).set("len",
                                                                                                        c.sl_len);
  launch(sum_rec, conv_blocks(c.sl_len), 1, args, s);
}

}  // namespace

void check_conv_adjoint(const ConvAdjointCall& c) {
  if (c.rows_w != 1 && c.rows_w != c.rows) throw std::invalid_argument("conv_adjoint: w rows must be 1 or match gy");
  if (c.len_g < 0 || c.len_w < 0 || c.sl_len < 0)
    throw std::invalid_argument("conv_adjoint: len_g, len_w and sl_len must be non-negative");
  if (c.nf < 1 || c.nf > INT_MAX) throw std::invalid_argument("conv_adjoint: nf must be between 1 and 2147483647");
  if (c.off < 0 || c.off > c.nf - c.len_g || c.len_w > c.nf)
    throw std::invalid_argument("conv_adjoint: gy at off and w must lie within nf samples");
  if (c.sl_start < 0 || c.sl_start > c.nf - c.sl_len)
    throw std::invalid_argument("conv_adjoint: the slice must lie within nf samples");
  if (c.rows > kMaxGridRows) throw std::runtime_error("ondrel_convstage: batch exceeds grid.y limit");
}

void conv_adjoint(const void* gy, const void* w, void* out, const ConvAdjointCall& c, const Precision& prec,
                  int32_t device, void* stream) {
  check_conv_adjoint(c);
  check_conv_transforms(c.nf, c.complex, prec.is_double(), device);
  if (c.sl_len < 1) return;
  if (c.rows < 1) {
    // A sum over no rows is zero; without the sum there is nothing to write.
    if (c.sum_rows) {
      const size_t real = prec.is_double() ? 8 : prec.half() ? 2 : 4, elem = real * (c.complex ? 2 : 1);
      ONDREL_HIP_CHECK(hip_dl::api().MemsetD8Async(out, 0, static_cast<size_t>(c.sl_len) * elem,
                                                   static_cast<hip_dl::hipStream_t>(stream)));
    }
    return;
  }
  with_real_type(prec, [&]<class T>() { adjoint_rows<T>(gy, w, out, c, prec, device, stream); });
}

std::vector<KernelPlan> conv_adjoint_kernels(const ConvAdjointCall& c, const Precision& prec,
                                             uint64_t shared_limit) {
  const int compute = digit(prec.is_double());
  const codegen::ConvStage g_stage = stage(c, prec, false);
  std::vector<KernelPlan> out = {stage_plan(g_stage), stage_plan(stage(c, prec, true)), convmul_plan(compute)};
  if (!c.complex) out.push_back(convslice_plan(compute, c.sum_rows ? compute : g_stage.storage));
  if (c.sum_rows) out.push_back(rowsum_plan(g_stage));
  for (bool inverse : {false, true})
    for (KernelPlan& k : transform_kernels(static_cast<int32_t>(c.nf), !c.complex, full_width(prec.is_double()),
                                           inverse, shared_limit))
      out.push_back(std::move(k));
  return out;
}

}  // namespace ondrel
