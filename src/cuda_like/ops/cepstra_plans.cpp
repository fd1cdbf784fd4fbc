#include "cuda_like/ops/cepstra_plans.hpp"

#include <cstdio>
#include <string>

#include "codegen/backend.hpp"
#include "codegen/mel_kernels.hpp"
#include "cuda_like/ops/stft_steps.hpp"

namespace ondrel {

namespace {

std::string hex_bits(double x) {
  char hex[20];
  std::snprintf(hex, sizeof hex, "%016llx", static_cast<unsigned long long>(bits_of(x)));
  return hex;
}

std::string shape_tail(const codegen::CepstraShape& s) {
  return std::to_string(s.n_in) + "_" + std::to_string(s.n_out) + "_" + std::to_string(s.prec);
}

KernelPlan reduction_plan(const std::string& key, const char* entry, uint64_t shared_bytes) {
  KernelPlan k;
  k.key = key;
  k.entry = entry;
  k.threads = codegen::kCepThreads;
  k.shared_bytes = shared_bytes;
  return k;
}

}  // namespace

int cepstra_digit(const CepstraRequest& r) { return r.stft.prec.is_double() ? 2 : 1; }

MelRequest cepstra_mel(const CepstraRequest& r) {
  MelRequest m;
  m.stft = r.stft;
  m.stft.mode = 3;
  m.stft.knobs = nullptr;
  m.fb = r.fb;
  m.power = 2.0;
  return m;
}

template <class T>
DeviceBuffer cepstra_bands(const CepstraRequest& r, int64_t frames) {
  DeviceBuffer bands(static_cast<size_t>(r.stft.batch * frames) * static_cast<size_t>(r.fb->n_mels) * sizeof(T),
                     static_cast<hip_dl::hipStream_t>(r.stft.stream));
  MelRequest m = cepstra_mel(r);
  m.stft.out = bands.p;
  mel(m);
  return bands;
}

template DeviceBuffer cepstra_bands<float>(const CepstraRequest&, int64_t);
template DeviceBuffer cepstra_bands<double>(const CepstraRequest&, int64_t);

codegen::CepstraShape cepstra_shape(const CepstraRequest& r) {
  return {r.fb->n_mels, r.n_out, cepstra_digit(r), r.clamp()};
}

KernelPlan cepstra_fused_kernel(const StftPlan& p, const CepstraRequest& r) {
  KernelPlan k;
  k.key = "raw_cepf_" + std::to_string(p.n) + "_" + std::to_string(p.hop) + "_" + std::to_string(p.prec) + "_" +
          std::to_string(p.n_mels) + "_" + std::to_string(p.ncep) + "_" + std::to_string(p.window_kind) + "_" +
          std::to_string(p.pad) + "_" + std::to_string(p.fpb) + "_" + std::to_string(p.ept) + "_" +
          std::to_string(p.tpf) + "_" + std::to_string(p.core) + "_d" + std::to_string(r.stft.device) + "_e" +
          hex_bits(p.eps) + "_l" + hex_bits(r.lifter);
  k.entry = "ondrel_mel";
  k.threads = static_cast<uint32_t>(p.tpf * p.fpb);
  k.shared_bytes = codegen::mel_shared_bytes(p);
  k.rows_per_block = p.fpb;
  k.params = codegen::mel_params(p, codegen::hip_backend());
  k.text = [p] { return codegen::mel_text(p, codegen::hip_backend(), codegen::cepstrum_epilogue); };
  return k;
}

KernelPlan cepmax_plan(int d) {
  KernelPlan k = reduction_plan("cepmax_" + std::to_string(d) + "_" + std::to_string(d), "ondrel_cepmax",
                                codegen::cep_reduction_bytes(d));
  k.params = codegen::cepmax_params(d, codegen::hip_backend());
  k.text = [d] { return codegen::cepmax_kernel(d, codegen::hip_backend()); };
  return k;
}

KernelPlan cepstra_plan(const codegen::CepstraShape& s) {
  KernelPlan k = reduction_plan("cepstra_" + shape_tail(s) + "_" + std::to_string(s.prec) + (s.clamp ? "_c" : ""),
                                "ondrel_cepstra", 0);
  k.params = codegen::cepstra_params(s.prec, codegen::hip_backend());
  k.text = [s] { return codegen::cepstra_kernel(s, codegen::hip_backend()); };
  return k;
}

KernelPlan cepmaxi_plan(int d) {
  KernelPlan k = reduction_plan("cepmaxi_" + std::to_string(d), "ondrel_cepmaxi", codegen::kCepMaxiBytes);
  k.params = codegen::cepmaxi_params(d, codegen::hip_backend());
  k.text = [d] { return codegen::cepmaxi_kernel(d, codegen::hip_backend()); };
  return k;
}

KernelPlan cepadj_plan(const codegen::CepstraShape& s) {
  KernelPlan k = reduction_plan("cepadj_" + shape_tail(s) + (s.clamp ? "_c" : ""), "ondrel_cepadj", 0);
  k.params = codegen::cepadj_params(s.prec, codegen::hip_backend());
  k.text = [s] { return codegen::cepadj_kernel(s, codegen::hip_backend()); };
  return k;
}

KernelPlan cepcsum_plan(const codegen::CepstraShape& s) {
  KernelPlan k = reduction_plan("cepcsum_" + shape_tail(s), "ondrel_cepcsum", codegen::cep_reduction_bytes(s.prec));
  k.params = codegen::cepcsum_params(s.prec, codegen::hip_backend());
  k.text = [s] { return codegen::cepcsum_kernel(s, codegen::hip_backend()); };
  return k;
}

unsigned cepstra_blocks(int64_t items) {
  return static_cast<unsigned>((items + codegen::kCepThreads - 1) / codegen::kCepThreads);
}

}  // namespace ondrel
