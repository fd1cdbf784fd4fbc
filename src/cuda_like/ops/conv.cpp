#include "cuda_like/ops/conv.hpp"

#include <climits>
#include <stdexcept>
#include <string>

#include "codegen/backend.hpp"
#include "codegen/conv_kernels.hpp"
#include "cuda_like/ops/fft.hpp"
#include "cuda_like/ops/fft_listing.hpp"
#include "cuda_like/ops/rfft.hpp"
#include "rocm/context.hpp"
#include "rocm/device_pool.hpp"

namespace ondrel {

namespace {

constexpr uint32_t kBlock = 256;
constexpr int kMemoryDevice = 2;  // hipMemoryTypeDevice

int digit(bool is_double) { return is_double ? kDoubleCode : kSingleCode; }

// out[r][j] = j < n ? x[r][j] : 0 for j below plen.
void pad(const LaunchRecord& rec, const void* x, void* out, int64_t n, int64_t plen, int64_t rows, void* stream) {
  KernelArgs args = rec.args();
  args.set("x", x).set("out", static_cast<const void*>(out)).set("n", n).set("plen", plen);
  launch(rec, conv_blocks(plen), static_cast<unsigned>(rows), args, static_cast<hip_dl::hipStream_t>(stream));
}

FftOptions transform(bool inverse, bool is_double, int32_t device, void* stream) {
  FftOptions o;
  o.inverse = inverse;
  o.prec = full_width(is_double);
  o.device = device;
  o.stream = stream;
  return o;
}

template <class T>
void conv_rows(const void* a, const void* b, void* y, const ConvCall& c, int storage, bool complex, int32_t device,
               void* stream) {
  constexpr bool is_double = sizeof(T) == 8;
  const int compute = digit(is_double);
  const auto s = static_cast<hip_dl::hipStream_t>(stream);
  // Complex rows are padded as rows of real words.
  const int64_t words = complex ? 2 : 1, nb = complex ? c.nf : c.nf / 2 + 1;
  const auto nf = static_cast<int32_t>(c.nf);
  const LaunchRecord pad_rec = compiled(convpad_plan(compute, complex ? compute : storage), device);
  const LaunchRecord mul_rec = compiled(convmul_plan(compute), device);
  const DeviceBuffer pa(static_cast<size_t>(c.rows * c.nf * words) * sizeof(T), s),
      pb(static_cast<size_t>(c.rows_b * c.nf * words) * sizeof(T), s);
  pad(pad_rec, a, pa.p, c.n * words, c.nf * words, c.rows, stream);
  pad(pad_rec, b, pb.p, c.m * words, c.nf * words, c.rows_b, stream);
  const DeviceBuffer za(static_cast<size_t>(c.rows * nb) * 2 * sizeof(T), s),
      zb(static_cast<size_t>(c.rows_b * nb) * 2 * sizeof(T), s);
  const auto run = complex ? fft : rfft;
  run(pa.p, za.p, c.rows, nf, transform(false, is_double, device, stream));
  run(pb.p, zb.p, c.rows_b, nf, transform(false, is_double, device, stream));
  conv_multiply(mul_rec, zb.p, za.p, nb, c.rows, c.rows_b == c.rows, stream);
  // The inverse transforms scale by 1 / nf.
  run(za.p, pa.p, c.rows, nf, transform(true, is_double, device, stream));
  if (complex)
    conv_slice_complex(pa.p, y, c.rows, c.nf, c.start, c.outlen, 2 * sizeof(T), stream);
  else
    conv_slice(compiled(convslice_plan(compute, storage), device), pa.p, y, c.rows, c.nf, c.start, c.outlen, stream);
}

void run_conv(const void* a, const void* b, void* y, const ConvCall& call, const Precision& prec, bool complex,
              int32_t device, void* stream) {
  check_conv(call);
  check_conv_transforms(call.nf, complex, prec.is_double(), device);
  if (call.rows < 1 || call.outlen < 1) return;
  with_real_type(prec, [&]<class T>() { conv_rows<T>(a, b, y, call, prec.storage, complex, device, stream); });
}

}  // namespace

void check_conv(const ConvCall& c) {
  if (c.rows_b != 1 && c.rows_b != c.rows) throw std::invalid_argument("conv: b rows must be 1 or match a");
  if (c.n < 0 || c.m < 0) throw std::invalid_argument("conv: n and m must be non-negative");
  if (c.nf < 1 || c.nf > INT_MAX) throw std::invalid_argument("conv: nf must be between 1 and 2147483647");
  // A shorter transform would drop the samples past nf instead of wrapping them.
  if (c.nf < c.n || c.nf < c.m) throw std::invalid_argument("conv: nf must be at least n and m");
  if (c.start < 0 || c.outlen < 0 || c.start > c.nf - c.outlen)
    throw std::invalid_argument("conv: start and outlen must be non-negative with start + outlen at most nf");
  if (c.rows > kMaxGridRows) throw std::runtime_error("ondrel_convpad: batch exceeds grid.y limit");
}

void check_conv_transforms(int64_t nf, bool complex, bool is_double, int32_t device) {
  select_device(device);
  const uint64_t limit = device_shared_limit(device);
  for (bool inverse : {false, true})
    transform_kernels(static_cast<int32_t>(nf), !complex, full_width(is_double), inverse, limit);
}

void conv_fft(const void* a, const void* b, void* y, const ConvCall& call, const Precision& prec, int32_t device,
              void* stream) {
  run_conv(a, b, y, call, prec, false, device, stream);
}

void conv_cplx(const void* a, const void* b, void* y, const ConvCall& call, bool is_double, int32_t device,
               void* stream) {
  run_conv(a, b, y, call, full_width(is_double), true, device, stream);
}

KernelPlan convpad_plan(int compute, int storage) {
  return flat_plan("conv_pad_" + std::to_string(compute) + "_" + std::to_string(storage), "ondrel_convpad",
                      codegen::convpad_params(),
                      [=] { return codegen::convpad_kernel(compute, storage, codegen::hip_backend()); });
}

KernelPlan convmul_plan(int prec) {
  return flat_plan("conv_mul_" + std::to_string(prec), "ondrel_convmul", codegen::convmul_params(),
                      [=] { return codegen::convmul_kernel(prec, codegen::hip_backend()); });
}

KernelPlan convslice_plan(int compute, int storage) {
  return flat_plan("conv_slice_" + std::to_string(compute) + "_" + std::to_string(storage), "ondrel_convslice",
                      codegen::convslice_params(),
                      [=] { return codegen::convslice_kernel(compute, storage, codegen::hip_backend()); });
}

std::vector<KernelPlan> conv_kernels(int32_t nf, bool complex, const Precision& prec, uint64_t shared_limit) {
  const int compute = prec.is_double() ? kDoubleCode : kSingleCode, storage = complex ? compute : prec.storage;
  std::vector<KernelPlan> out = {convpad_plan(compute, storage), convmul_plan(compute)};
  if (!complex) out.push_back(convslice_plan(compute, storage));
  for (bool inverse : {false, true})
    for (KernelPlan& k : transform_kernels(nf, !complex, full_width(prec.is_double()), inverse, shared_limit))
      out.push_back(std::move(k));
  return out;
}

unsigned conv_blocks(int64_t count) { return static_cast<unsigned>((count + kBlock - 1) / kBlock); }

void conv_multiply(const LaunchRecord& rec, const void* w, void* z, int64_t nb, int64_t rows, bool bstride,
                   void* stream) {
  KernelArgs args = rec.args();
  args.set("w", w).set("z", static_cast<const void*>(z)).set("nb", nb).set("bstride", int32_t{bstride ? 1 : 0});
  launch(rec, conv_blocks(nb), static_cast<unsigned>(rows), args, static_cast<hip_dl::hipStream_t>(stream));
}

void conv_slice(const LaunchRecord& rec, const void* x, void* y, int64_t rows, int64_t nf, int64_t start,
                int64_t outlen, void* stream) {
  KernelArgs args = rec.args();
  args.set("x", x).set("y", static_cast<const void*>(y)).set("nf", nf).set("start", start).set("outlen", outlen);
  launch(rec, conv_blocks(outlen), static_cast<unsigned>(rows), args, static_cast<hip_dl::hipStream_t>(stream));
}

void conv_slice_complex(const void* x, void* y, int64_t rows, int64_t nf, int64_t start, int64_t outlen, size_t elem,
                        void* stream) {
  hip_dl::Memcpy2D copy{};
  copy.srcXInBytes = static_cast<size_t>(start) * elem;
  copy.srcMemoryType = kMemoryDevice;
  copy.srcDevice = const_cast<void*>(x);
  copy.srcPitch = static_cast<size_t>(nf) * elem;
  copy.dstMemoryType = kMemoryDevice;
  copy.dstDevice = y;
  copy.dstPitch = static_cast<size_t>(outlen) * elem;
  copy.WidthInBytes = static_cast<size_t>(outlen) * elem;
  copy.Height = static_cast<size_t>(rows);
  ONDREL_HIP_CHECK(hip_dl::api().MemcpyParam2DAsync(&copy, static_cast<hip_dl::hipStream_t>(stream)));
}

}  // namespace ondrel
