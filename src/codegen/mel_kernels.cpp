#include "codegen/mel_kernels.hpp"

#include <stdexcept>

#include "codegen/body_heads.hpp"
#include "codegen/macros.hpp"
#include "codegen/prelude.hpp"
#include "codegen/stft_body.hpp"

namespace ondrel::codegen {

namespace {

uint64_t real_size(int prec) { return prec == 0 ? 2 : prec == 2 ? 8 : 4; }

KernelSig mel_sig(const StftPlan& p, const Backend& b, int32_t bound, const char* shared_type,
                  const char* shared_name) {
  KernelSig sig("ondrel_mel", b, mel_params(p, b));
  sig.bound_threads = bound;
  sig.set_shared(shared_type, shared_name);
  return sig;
}

// One bin's magnitude (power 1) or squared magnitude into the power row.
BinStatement power_statement(const StftPlan& p, const Backend& b, const std::string& row) {
  const std::string t = b.real_type(p.prec);
  const std::string value = p.power != 1    ? "xr*xr + xi*xi"
                            : p.prec == 2 ? "sqrt(xr*xr + xi*xi)"
                                          : b.sqrt_call("(float)(xr*xr + xi*xi)");
  return [=](const std::string& re, const std::string& im) {
    return format("{ $ xr = $, xi = $; $ = $; }", {t, re, im, row + "[k]", value});
  };
}

void nyquist_power(KernelWriter& w, const StftPlan& p, const std::string& buf) {
  const std::string t = w.backend.real_type(p.prec), nv = nyquist_value(p, w.backend, buf);
  if (p.power == 1) w.emit("if (tid == 0) { $ nv = $; powb[$] = (nv < ($)0) ? -nv : nv; }", t, nv, p.m(), t);
  else w.emit("if (tid == 0) { $ nv = $; powb[$] = nv*nv; }", t, nv, p.m());
}

// Every band of one frame from its power row `row`, stored at `base` + m of
// the output, or into the band row of a fused DCT.
void band_loop(KernelWriter& w, const StftPlan& p, const std::string& row, const std::string& base) {
  const Backend& b = w.backend;
  const std::string t = b.real_type(p.prec);
  const std::string cast = p.in_prec == p.prec ? "" : "(" + t + ")";
  const bool dbl = p.prec == 2;
  w.for_range("m", "tid", "NMELS", "TPF", [&] {
    w.line("int off = fb_off[m], len = fb_off[m+1] - off, lo = fb_lo[m];");
    w.emit("$ acc = ($)0;", t, t);
    w.emit("for (int i = 0; i < len; ++i) acc += $fb_w[off+i] * $[lo+i];", cast, row);
    std::string value = "acc";
    if (p.mode == 1) value = dbl ? "sqrt((double)acc)" : b.sqrt_call("(float)acc");
    if (p.mode == 3)
      value = dbl ? "((double)10*log10((double)acc + (double)EPS))"
                  : "((float)10*" + b.log10_call("(float)acc + (float)EPS") + ")";
    if (p.ncep > 0) w.emit("bandb[m] = $;", value);
    else w.emit("mel[$ + m] = $;", base, b.convert(p.out_prec, value));
  });
}

// Cores 0, 1 and 3: F frames a block; the power rows stand behind the FFT
// rows in one carved block of shared memory.
std::string packed_text(const StftPlan& p, const Backend& b, const CepstrumHook& cepstrum) {
  std::string text = spectral_prelude(b, p.prec, p.n, p.pad);
  text += define("NB", std::to_string(p.bins())) + define("NMELS", std::to_string(p.n_mels)) +
          define("F", std::to_string(p.fpb)) + define("TPF", std::to_string(p.tpf)) + eps_define(p.eps) +
          define("TWN", std::to_string(shared_twiddles(p)));
  if (p.ncep > 0) text += define("NCEP", std::to_string(p.ncep));
  text += shp_define_spectral(p.shp_shift) + mel_sig(p, b, p.fpb * p.tpf, "char", "smem").head();

  KernelWriter w(p.prec, b);
  const std::string cp = b.shared_pointer("cplx"), rp = b.shared_pointer(b.real_type(p.prec));
  w.line(cp + " sh_all = (" + cp + ")smem;");
  w.emit("$ pow_all = ($)(sh_all + TWN + (long)F * $);", rp, rp, row_length(p));
  frame_ids_packed(w);
  w.emit("TG cplx* sh = sh_all + TWN + (long)f_local * $;", row_length(p));
  w.emit("TG $* powb = pow_all + (long)f_local * NB;", b.real_type(p.prec));
  if (p.ncep > 0) w.emit("TG $* bandb = pow_all + (long)F * NB + (long)f_local * NMELS;", b.real_type(p.prec));
  packed_load_fft(w, p);
  if (p.ncep > 0) {
    // The DCT needs a barrier behind the band step as well, and a thread
    // that skipped one guarded barrier would count at the next: with a DCT
    // every barrier stands outside the guards and every thread reaches it.
    w.if_block("frame < NFRAMES", [&] {
      unpack_bins(w, p, "sh", power_statement(p, b, "powb"));
      nyquist_power(w, p, "sh");
    });
    w.sync();
    w.if_block("frame < NFRAMES", [&] { band_loop(w, p, "powb", ""); });
    cepstrum(w, p, "bandb");
    return text + w.text() + "}\n";
  }
  // The barrier stands inside the frame guard: the threads of a frame past
  // the end have left the kernel, and threads that have exited do not hold
  // a barrier back.
  w.if_block("frame < NFRAMES", [&] {
    unpack_bins(w, p, "sh", power_statement(p, b, "powb"));
    nyquist_power(w, p, "sh");
    w.sync();
    w.line("I64 mb = ((I64)batch*NFRAMES + frame) * NMELS;");
    band_loop(w, p, "powb", "mb");
  });
  return text + w.text() + "}\n";
}

// Core 2: the power row (two when paired) behind the FFT's own rows.
std::string mixed_text(const StftPlan& p, const Backend& b) {
  std::string text = mixed_prelude(p, b);
  text += define("NB", std::to_string(p.bins())) + define("NMELS", std::to_string(p.n_mels)) +
          define("TPF", std::to_string(p.tpf)) + eps_define(p.eps);
  text += shp_define(p.shp_on) + mel_sig(p, b, p.tpf, "cplx", "sh_all").head();

  KernelWriter w(p.prec, b);
  const std::string buf = mixed_load_fft(w, p);
  const std::string rp = b.shared_pointer(b.real_type(p.prec));
  const uint64_t behind = shared_bytes(p) / (2 * real_size(p.prec));
  if (!p.paired) {
    w.emit("$ powb = ($)(sh_all + $);", rp, rp, behind);
    w.if_block("frame < NFRAMES", [&] {
      unpack_bins(w, p, buf, power_statement(p, b, "powb"));
      nyquist_power(w, p, buf);
    });
    w.sync();
    w.if_block("frame < NFRAMES", [&] {
      w.line("I64 mb = ((I64)batch*NFRAMES + frame) * NMELS;");
      band_loop(w, p, "powb", "mb");
    });
    return text + w.text() + "}\n";
  }
  w.emit("$ powA = ($)(sh_all + $);", rp, rp, behind);
  w.emit("$ powB = powA + NB;", rp);
  const BinStatement a = power_statement(p, b, "powA"), bb = power_statement(p, b, "powB");
  paired_bins(w, p, buf, [&] {
    w.line(a("axr", "axi"));
    w.line(bb("bxr", "bxi"));
  });
  w.sync();
  w.if_block("fA < NFRAMES", [&] {
    w.line("I64 mbA = ((I64)batch*NFRAMES + fA) * NMELS;");
    band_loop(w, p, "powA", "mbA");
  });
  w.if_block("fB < NFRAMES", [&] {
    w.line("I64 mbB = ((I64)batch*NFRAMES + fB) * NMELS;");
    band_loop(w, p, "powB", "mbB");
  });
  return text + w.text() + "}\n";
}

}  // namespace

KernelParams mel_params(const StftPlan& plan, const Backend& backend) {
  const std::string t = backend.real_type(plan.prec), stored = backend.real_type(plan.in_prec);
  KernelParams params{KernelParam::input(stored, "y"),
                      KernelParam::output(backend.real_type(plan.out_prec), "mel"),
                      KernelParam::input("cplx", "tw"),
                      KernelParam::input(t, "win"),
                      KernelParam::input("int", "fb_lo"),
                      KernelParam::input("int", "fb_off"),
                      KernelParam::input(stored, "fb_w"),
                      KernelParam::value("int", "NFRAMES"),
                      KernelParam::value("int", "SIG_LEN")};
  if (plan.ncep > 0) params.push_back(KernelParam::input(t, "D"));
  return params;
}

uint64_t mel_shared_bytes(const StftPlan& plan) {
  const uint64_t rsize = real_size(plan.prec), nb = static_cast<uint64_t>(plan.bins());
  if (plan.core == kCoreMixed) return rsize * (plan.paired ? 2 * nb : nb) + shared_bytes(plan);
  const uint64_t fpb = static_cast<uint64_t>(plan.fpb);
  const uint64_t bands = plan.ncep > 0 ? static_cast<uint64_t>(plan.n_mels) : 0;
  return shared_bytes(plan) + rsize * fpb * (nb + bands);
}

std::string mel_text(const StftPlan& plan, const Backend& backend, const CepstrumHook& cepstrum) {
  if (plan.core == kCoreFourStep)
    throw std::invalid_argument("mel: FourStep core must route to the staged path (n1=" + std::to_string(plan.n1) +
                                " n2=" + std::to_string(plan.n2) + ")");
  if (plan.ncep > 0 && (plan.core == kCoreMixed || !cepstrum))
    throw std::logic_error("mel_text: a fused DCT needs its epilogue and a power-of-two frame");
  if (plan.core == kCoreMixed) return mixed_text(plan, backend);
  return packed_text(plan, backend, cepstrum);
}

KernelParams melred_params(const MelReduce& r, const Backend& backend) {
  const std::string t = backend.real_type(r.prec);
  return {KernelParam::input(t, "P"),         KernelParam::output(backend.real_type(r.out_prec), "mel"),
          KernelParam::input("int", "lo"),    KernelParam::input("int", "off"),
          KernelParam::input(t, "w"),         KernelParam::value("I64", "row0")};
}

std::string melred_kernel(const MelReduce& r, const Backend& backend) {
  const std::string t = backend.real_type(r.prec), out = backend.real_type(r.out_prec);
  std::string text = backend.preamble(r.prec) + types_prelude(backend) + define("TPF", "256");
  if (r.mode == 3) text += eps_define(r.eps);
  text += KernelSig("ondrel_melred", backend, melred_params(r, backend)).head();
  KernelWriter w(r.prec, backend);
  w.emit("int $ = $ * TPF + $;", "m", backend.block_x(), backend.thread_x());
  w.emit("if ($ >= $) return;", "m", r.n_mels);
  w.emit("I64 row = row0 + $;", backend.block_y());
  w.emit("const DEV $* pb = P + row * $;", t, r.n / 2 + 1);
  w.line("int j0 = off[m], j1 = off[m + 1], l0 = lo[m];");
  w.emit("$ acc = ($)0;", t, t);
  w.line("for (int j = j0; j < j1; ++j) acc += w[j] * pb[l0 + (j - j0)];");
  const bool dbl = r.prec == 2;
  // The same output forms as the fused kernel, the magnitude root included,
  // so that the route never changes the answer.
  if (r.mode == 3 && dbl) w.emit("mel[row * $ + m] = ($)(10.0 * log10(acc + (double)EPS));", r.n_mels, out);
  else if (r.mode == 3) w.emit("mel[row * $ + m] = ($)(10.0f * $);", r.n_mels, out, backend.log10_call("acc + (float)EPS"));
  else if (r.mode == 1) w.emit("mel[row * $ + m] = ($)$;", r.n_mels, out, dbl ? "sqrt(acc)" : backend.sqrt_call("acc"));
  else w.emit("mel[row * $ + m] = ($)acc;", r.n_mels, out);
  return text + w.text() + "}\n";
}

}  // namespace ondrel::codegen
