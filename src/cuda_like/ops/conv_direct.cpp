#include "cuda_like/ops/conv_direct.hpp"

#include <stdexcept>
#include <string>

#include "codegen/backend.hpp"
#include "codegen/conv_direct_kernels.hpp"
#include "rocm/context.hpp"

namespace ondrel {

void check_conv_direct(const ConvCall& c) {
  if (c.rows_b != 1 && c.rows_b != c.rows)
    throw std::invalid_argument("conv_direct: kernel rows must be 1 or match the signal rows");
  if (c.n < 0 || c.m < 0 || c.outlen < 0)
    throw std::invalid_argument("conv_direct: n, m and outlen must be non-negative");
}

KernelPlan convdir_plan(int compute, int storage) {
  KernelPlan plan;
  plan.key = "convdir_" + std::to_string(compute) + "_" + std::to_string(storage);
  plan.entry = "ondrel_convdir";
  plan.threads = 256;
  plan.params = codegen::convdir_params();
  plan.text = [=] { return codegen::convdir_kernel(compute, storage, codegen::hip_backend()); };
  return plan;
}

void conv_direct(const void* a, const void* b, void* y, const ConvCall& c, const Precision& prec, int32_t device,
                 void* stream) {
  check_conv_direct(c);
  if (c.rows < 1 || c.outlen < 1) return;
  select_device(device);
  const int compute = prec.is_double() ? kDoubleCode : kSingleCode;
  const LaunchRecord rec = compiled(convdir_plan(compute, prec.storage), device);
  const size_t elem = prec.half() ? 2 : prec.is_double() ? 8 : 4;
  const bool bshare = c.rows_b == 1;
  const auto at = [elem](const void* p, int64_t offset) {
    return static_cast<const void*>(static_cast<const char*>(p) + static_cast<size_t>(offset) * elem);
  };
  for_row_chunks(c.rows, [&](int64_t r0, int64_t count) {
    KernelArgs args = rec.args();
    args.set("a", at(a, r0 * c.n))
        .set("b", bshare ? b : at(b, r0 * c.m))
        .set("y", at(y, r0 * c.outlen))
        .set("n", c.n)
        .set("m", c.m)
        .set("L", c.outlen)
        .set("start", c.start)
        .set("bshare", int32_t{bshare ? 1 : 0});
    launch(rec, conv_blocks(c.outlen), static_cast<unsigned>(count), args, static_cast<hip_dl::hipStream_t>(stream));
  });
}

}  // namespace ondrel
