#include "cuda_like/ops/lfilter.hpp"

#include <cstdio>
#include <cstring>
#include <mutex>
#include <stdexcept>
#include <unordered_set>

#include "codegen/backend.hpp"
#include "codegen/lfilter_kernels.hpp"
#include "math/precision.hpp"
#include "math/scan_powers.hpp"
#include "rocm/context.hpp"

namespace ondrel {

namespace {

std::string digit(bool is_double) { return is_double ? "2" : "1"; }

// Coefficient blocks already found accurate, by their bytes: a resident
// caller runs one filter many times, and the exact powers cost p^3 work a
// level. Bounded, since a caller may design filters without end.
class AcceptedBlocks {
 public:
  bool contains(const std::string& bytes) {
    std::lock_guard lock(mutex_);
    return blocks_.count(bytes) != 0;
  }
  void add(std::string bytes) {
    std::lock_guard lock(mutex_);
    if (blocks_.size() >= 256) blocks_.clear();
    blocks_.insert(std::move(bytes));
  }

 private:
  std::mutex mutex_;
  std::unordered_set<std::string> blocks_;
};

AcceptedBlocks& accepted() {
  static AcceptedBlocks blocks;
  return blocks;
}

std::string refusal(double error, bool is_double) {
  char figure[32];
  std::snprintf(figure, sizeof figure, "%.2g", error);
  return std::string("lfilter: the powers of this filter's companion matrix in cf are off by ") + figure +
         " (at most 0.1 is accepted), so the parallel scan would return wrong samples; split the filter into "
         "second-order sections and run them one after another" +
         (is_double ? "" : ", or filter in double precision");
}

const char* at(const void* p, int64_t elements, size_t elem) {
  return static_cast<const char*>(p) + static_cast<size_t>(elements) * elem;
}

template <class T>
void read_back_and_check(const void* cf, const LfilterCall& c, void* stream) {
  const int64_t count =
      int64_t{c.m1} + c.p + int64_t{codegen::lfilter_scan_steps(c.threads)} * c.p * c.p;
  std::vector<T> host(static_cast<size_t>(count));
  const auto& hip = hip_dl::api();
  hip_check(hip.StreamSynchronize(static_cast<hip_dl::hipStream_t>(stream)), __FILE__, __LINE__,
            "streamSynchronize(stream)");
  hip_check(hip.MemcpyDtoH(host.data(), const_cast<void*>(cf), host.size() * sizeof(T)), __FILE__, __LINE__,
            "memcpyDtoH(host.data(), cf, bytes)");
  check_scan_accuracy(host.data(), c.p, c.m1, c.threads);
}

}  // namespace

void check_lfilter_order(int32_t p, int32_t m1) {
  if (p < 0 || m1 < 1) throw std::invalid_argument("lfilter: p must be non-negative and m1 at least 1");
}

void check_lfilter(const LfilterCall& c) {
  check_lfilter_order(c.p, c.m1);
  if (c.seq != codegen::kLfilterSeq)
    throw std::invalid_argument("lfilter: seq must be 16, the run length the powers in cf are packed for");
  if (c.threads < 1 || c.threads > codegen::kLfilterMaxThreads)
    throw std::invalid_argument("lfilter: threads must be from 1 to 256, the scans the eight levels in cf serve");
}

void check_histories(const LfilterCall& c, bool has_xh, bool has_zy, const std::string& xh, const std::string& zy) {
  const auto refuse = [](const std::string& given, const std::string& missing) {
    throw std::invalid_argument("lfilter: " + given + " was given without " + missing +
                                "; pass both histories or neither");
  };
  if (has_zy && !has_xh && c.m1 > 1) refuse(zy, xh);
  if (has_xh && !has_zy && c.p > 0) refuse(xh, zy);
}

template <class T>
void check_scan_accuracy(const T* cf, int32_t p, int32_t m1, int32_t threads) {
  const int32_t steps = codegen::lfilter_scan_steps(threads);
  if (p == 0 || steps == 0) return;
  const size_t used = static_cast<size_t>(p) + static_cast<size_t>(steps) * p * p;
  std::string bytes = std::to_string(p) + "_" + std::to_string(steps) + "_";
  bytes.append(reinterpret_cast<const char*>(cf + m1), used * sizeof(T));
  if (accepted().contains(bytes)) return;
  const std::vector<double> a(cf + m1, cf + m1 + p), levels(cf + m1 + p, cf + m1 + used);
  const double error = scan_power_error(a.data(), p, levels.data(), steps);
  if (!(error <= kScanErrorLimit)) throw std::invalid_argument(refusal(error, sizeof(T) == 8));
  accepted().add(std::move(bytes));
}

template void check_scan_accuracy<float>(const float*, int32_t, int32_t, int32_t);
template void check_scan_accuracy<double>(const double*, int32_t, int32_t, int32_t);

KernelPlan lfilter_pack_plan(int32_t p, int32_t m1, bool is_double) {
  KernelPlan plan;
  plan.key = "lfilter_pack_" + std::to_string(p) + "_" + std::to_string(m1) + "_" + digit(is_double);
  plan.entry = "ondrel_lfilter_pack";
  plan.threads = 1;
  plan.params = codegen::lfilter_pack_params();
  const int prec = is_double ? kDoubleCode : kSingleCode;
  plan.text = [=] { return codegen::lfilter_pack_kernel(p, m1, prec, codegen::hip_backend()); };
  return plan;
}

KernelPlan lfilter_plan(int32_t p, int32_t m1, bool is_double, int32_t threads, int32_t seq) {
  KernelPlan plan;
  plan.key = "lfilter2_" + std::to_string(p) + "_" + std::to_string(m1) + "_" + digit(is_double) + "_" +
             std::to_string(threads) + "_" + std::to_string(seq);
  plan.entry = "ondrel_lfilter";
  plan.threads = static_cast<uint32_t>(threads);
  plan.shared_bytes = static_cast<uint64_t>(codegen::lfilter_shared_words(p, threads)) * (is_double ? 8 : 4);
  plan.params = codegen::lfilter_params();
  const int prec = is_double ? kDoubleCode : kSingleCode;
  plan.text = [=] { return codegen::lfilter_kernel(p, m1, prec, threads, seq, codegen::hip_backend()); };
  return plan;
}

void lfilter_pack(const void* b, const void* a, void* cf, int32_t p, int32_t m1, bool is_double, int32_t device,
                  void* stream) {
  check_lfilter_order(p, m1);
  select_device(device);
  const LaunchRecord rec = compiled(lfilter_pack_plan(p, m1, is_double), device);
  KernelArgs args = rec.args();
  args.set("b", b).set("a", a).set("cf", static_cast<const void*>(cf));
  launch(rec, 1, 1, args, static_cast<hip_dl::hipStream_t>(stream));
}

void lfilter(const void* x, void* y, const void* cf, const void* xh, const void* zy, const LfilterCall& c,
             bool is_double, int32_t device, void* stream, bool cf_checked) {
  check_lfilter(c);
  if (c.rows < 1 || c.n < 1) return;
  select_device(device);
  const KernelPlan plan = lfilter_plan(c.p, c.m1, is_double, c.threads, c.seq);
  check_shared(plan.shared_bytes, device, "lfilter");
  if (!cf_checked) {
    if (is_double)
      read_back_and_check<double>(cf, c, stream);
    else
      read_back_and_check<float>(cf, c, stream);
  }
  const LaunchRecord rec = compiled(plan, device);
  const size_t elem = is_double ? 8 : 4;
  // Without history (or where one holds nothing) the kernel never reads xh
  // or zy; they carry cf.
  const bool has_xh = c.history && xh, has_zy = c.history && zy;
  for_row_chunks(c.rows, [&](int64_t r0, int64_t count) {
    KernelArgs args = rec.args();
    args.set("x", at(x, r0 * c.n, elem))
        .set("y", at(y, r0 * c.n, elem))
        .set("cf", cf)
        .set("xh", has_xh ? at(xh, r0 * (c.m1 - 1), elem) : cf)
        .set("zy", has_zy ? at(zy, r0 * c.p, elem) : cf)
        .set("T", c.n)
        .set("hzi", int32_t{c.history ? 1 : 0});
    launch(rec, static_cast<unsigned>(count), 1, args, static_cast<hip_dl::hipStream_t>(stream));
  });
}

}  // namespace ondrel
