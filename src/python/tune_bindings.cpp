// The tuning group: the six tuners, the progress hook they call between
// candidates, and the probes the tests read.
#include <pybind11/stl.h>

#include <cstdint>
#include <string>

#include "cuda_like/launch/launch_probe.hpp"
#include "cuda_like/tune/tuners.hpp"
#include "python/bank_arg.hpp"
#include "python/bindings.hpp"
#include "python/cqt_args.hpp"
#include "python/frame.hpp"
#include "rocm/probes.hpp"

namespace ondrel::python {

namespace {

// The installed hook, or None. Never destroyed: the interpreter may be gone
// by the time static destructors run.
py::object& progress_hook() {
  static auto* hook = new py::object(py::none());
  return *hook;
}

// Hands each candidate's outcome to the hook, then looks for a pending
// Ctrl-C: either raises, which ends the tuner with its scratch given back.
ProgressFn progress_fn() {
  return [](const TuneProgress& e) {
    const py::object& hook = progress_hook();
    if (!hook.is_none()) {
      const py::tuple words = py::make_tuple(e.entry.ept, e.entry.fpb, e.entry.tpf, e.entry.core, e.entry.var);
      const py::object outcome = e.reason.empty() ? py::object(py::float_(e.ms)) : py::object(py::str(e.reason));
      hook(e.tuner, e.index, e.total, words, outcome);
    }
    if (PyErr_CheckSignals() != 0) throw py::error_already_set();
  };
}

TuneRun tune_run(int32_t prec, int32_t iters, int32_t warmup) {
  TuneRun run;
  run.prec = prec;
  run.iters = iters;
  run.warmup = warmup;
  run.progress = progress_fn();
  return run;
}

py::dict words_dict(const BestCandidate& b) {
  py::dict d;
  d["ept"] = b.entry.ept;
  d["fpb"] = b.entry.fpb;
  d["tpf"] = b.entry.tpf;
  d["core"] = b.entry.core;
  d["var"] = b.entry.var;
  d["ms"] = b.ms;
  return d;
}

py::dict optional_dict(const std::optional<BestCandidate>& b) { return b ? words_dict(*b) : py::dict(); }

py::dict directions_dict(const std::optional<FftTuning>& t) {
  py::dict d;
  if (!t) return d;
  d["forward"] = words_dict(t->forward);
  d["inverse"] = words_dict(t->inverse);
  return d;
}

const char* kWordsDoc =
    " Returns {} where the shape's route has no knobs; else a dict of the winning words ept, fpb, tpf, "
    "core, var (ints) and its time ms (float); zeros and ms 1e30 when no candidate could be verified. ";
const char* kRuleDoc =
    " Every candidate first runs once into NaN-poisoned scratch and must match the default route (relative L2 "
    "at most 1e-12 in double, 1e-5 in single, 3e-3 for half data, 2e-2 for half arithmetic) before it is timed: "
    "the minimum of cold-cache samples on the null stream. The caller's input is only read; nothing is stored. "
    "prec is the operation's own: 0 half storage, 1 single, 2 double, 3 half arithmetic where the operation "
    "has it.";

void register_spectral_tuners(py::module_& m) {
  m.def(
      "stft_autotune_gpu",
      [](uintptr_t x, int64_t batch, int64_t length, int32_t n_fft, int32_t hop, bool center,
         const std::string& output, double eps, const py::object& window, int32_t prec, int32_t device,
         int32_t iters, int32_t warmup) {
        const WindowSpec spec = window_spec(window);
        StftRequest r;
        r.y = device_address(x);
        r.batch = batch;
        r.length = length;
        r.n_fft = n_fft;
        r.hop = hop;
        r.center = center;
        r.mode = output_mode(output);
        r.eps = eps;
        r.window = &spec;
        r.prec = precision_code(prec);
        r.device = device;
        return optional_dict(stft_autotune(r, tune_run(prec, iters, warmup)));
      },
      py::arg("x_ptr"), py::arg("batch"), py::arg("length"), py::arg("n_fft"), py::arg("hop"), py::arg("center"),
      py::arg("output"), py::arg("eps"), py::arg("window"), py::arg("prec"), py::arg("device") = 0,
      py::arg("iters") = 50, py::arg("warmup") = 10,
      (std::string("Times the fused STFT's candidates for the shape of stft_resident (batch signals of `length` "
                   "samples at x_ptr, output bins x frames x batch in scratch of the tuner's own).") +
       kWordsDoc + kRuleDoc)
          .c_str());
  m.def(
      "istft_autotune_gpu",
      [](uintptr_t z, int64_t batch, int64_t bins, int64_t frames, int64_t stride_batch, int64_t stride_bin,
         int64_t stride_frame, int32_t n_fft, int32_t hop, bool center, const py::object& window, int32_t prec,
         int32_t device, int32_t iters, int32_t warmup) {
        const WindowSpec spec = window_spec(window);
        IstftRequest r;
        r.z = device_address(z);
        r.batch = batch;
        r.bins = bins;
        r.frames = frames;
        r.stride_batch = stride_batch;
        r.stride_bin = stride_bin;
        r.stride_frame = stride_frame;
        r.n_fft = n_fft;
        r.hop = hop;
        r.center = center;
        r.window = &spec;
        r.prec = precision_code(prec);
        r.device = device;
        return optional_dict(istft_autotune(r, tune_run(prec, iters, warmup)));
      },
      py::arg("z_ptr"), py::arg("batch"), py::arg("bins"), py::arg("frames"), py::arg("stride_batch"),
      py::arg("stride_bin"), py::arg("stride_frame"), py::arg("n_fft"), py::arg("hop"), py::arg("center"),
      py::arg("window"), py::arg("prec"), py::arg("device") = 0, py::arg("iters") = 50, py::arg("warmup") = 10,
      (std::string("Times the fused inverse STFT's threads per transform for the shape of istft_resident "
                   "(spectra at z_ptr read through the strides; the whole signal, length -1, in scratch).") +
       kWordsDoc + kRuleDoc)
          .c_str());
  m.def(
      "mel_autotune_gpu",
      [](uintptr_t x, int64_t batch, int64_t length, const py::object& fb, int32_t n_fft, int32_t hop, bool center,
         double power, const std::string& output, double eps, const py::object& window, int32_t prec,
         int32_t device, int32_t iters, int32_t warmup) {
        const WindowSpec spec = window_spec(window);
        const BankArg bank = bank_arg(fb);
        MelRequest r;
        r.fb = &bank.fb;
        r.power = power;
        r.stft.y = device_address(x);
        r.stft.batch = batch;
        r.stft.length = length;
        r.stft.n_fft = n_fft;
        r.stft.hop = hop;
        r.stft.center = center;
        r.stft.mode = output_mode(output);
        r.stft.eps = eps;
        r.stft.window = &spec;
        r.stft.prec = precision_code(prec);
        r.stft.device = device;
        return optional_dict(mel_autotune(r, tune_run(prec, iters, warmup)));
      },
      py::arg("x_ptr"), py::arg("batch"), py::arg("length"), py::arg("fb"), py::arg("n_fft"), py::arg("hop"),
      py::arg("center"), py::arg("power"), py::arg("output"), py::arg("eps"), py::arg("window"), py::arg("prec"),
      py::arg("device") = 0, py::arg("iters") = 50, py::arg("warmup") = 10,
      (std::string("Times the fused mel spectrogram's candidates for the shape of mel_resident (n_mels x frames "
                   "x batch of output in scratch).") +
       kWordsDoc + kRuleDoc)
          .c_str());
}

void register_row_tuners(py::module_& m) {
  m.def(
      "fft_autotune_gpu",
      [](uintptr_t x, int64_t batch, int32_t n, int32_t prec, int32_t device, int32_t iters, int32_t warmup) {
        return directions_dict(fft_autotune(device_address(x), batch, n, device, tune_run(prec, iters, warmup)));
      },
      py::arg("x_ptr"), py::arg("batch"), py::arg("n"), py::arg("prec"), py::arg("device") = 0,
      py::arg("iters") = 50, py::arg("warmup") = 10,
      (std::string("Times the complex FFT's candidates over batch x n complex rows at x_ptr, forward and then "
                   "inverse (on the forward's spectrum, in scratch of its own). Returns {} where the route has no "
                   "knobs (n below 4, Bluestein, four-step); else {'forward': words, 'inverse': words}, each a "
                   "dict of ept, fpb, tpf, core, var and ms.") +
       kRuleDoc)
          .c_str());
  m.def(
      "rfft_autotune_gpu",
      [](uintptr_t x, int64_t batch, int32_t n, int32_t prec, int32_t device, int32_t iters, int32_t warmup) {
        return directions_dict(rfft_autotune(device_address(x), batch, n, device, tune_run(prec, iters, warmup)));
      },
      py::arg("x_ptr"), py::arg("batch"), py::arg("n"), py::arg("prec"), py::arg("device") = 0,
      py::arg("iters") = 50, py::arg("warmup") = 10,
      (std::string("The same for the real FFT over batch x n real rows at x_ptr (prec 3 measures single "
                   "precision: no real kernel has half arithmetic).") +
       kRuleDoc)
          .c_str());
  m.def(
      "cqt_autotune_gpu",
      [](uintptr_t x, int64_t batch, int64_t length, int64_t n_levels, const py::list& octaves,
         const py::object& taps, const std::string& plan_key, int32_t n_bins, int64_t frames,
         const std::string& output, double eps, int32_t prec, int32_t device, int32_t iters, int32_t warmup) {
        const CqtArgs args = cqt_args(n_levels, octaves, taps, plan_key, n_bins, frames);
        CqtForward f;
        f.call.plan = &args.plan;
        f.call.batch = batch;
        f.call.length = length;
        f.call.mode = output_mode(output);
        f.call.eps = eps;
        f.call.prec = precision_code(prec);
        f.call.device = device;
        f.x = device_address(x);
        const CqtTuning t = cqt_autotune(f, tune_run(prec, iters, warmup));
        py::dict d;
        d["core"] = t.best.entry.core;
        d["ms"] = t.best.ms;
        py::list list;
        for (const auto& [n_fft, hop] : t.octaves) list.append(py::make_tuple(n_fft, hop));
        d["octaves"] = list;
        return d;
      },
      py::arg("x_ptr"), py::arg("batch"), py::arg("length"), py::arg("n_levels"), py::arg("octaves"),
      py::arg("taps"), py::arg("plan_key"), py::arg("n_bins"), py::arg("frames"), py::arg("output"), py::arg("eps"),
      py::arg("prec"), py::arg("device") = 0, py::arg("iters") = 20, py::arg("warmup") = 5,
      (std::string("Times the constant-Q transform's two routes (core 0 fused where each octave allows it, 1 "
                   "staged) for the shape of cqt_resident. Returns {'core': int, 'ms': float, 'octaves': "
                   "[(n_fft, hop) of each octave in list order]}: with the core, the words of one 'cqt' hint per "
                   "octave; core 0 and ms 1e30 when neither route could be verified.") +
       kRuleDoc)
          .c_str());
}

void register_probes(py::module_& m) {
  py::module_ t = m.def_submodule("_test_hooks", "Counters and switches for the module's own tests.");
  t.def("launch_table_touches", &launch_table_touches, "Finds and stores in any launch table so far.");
  t.def("kernels_generated", &kernels_generated, "Kernel texts written on lookup misses so far.");
  t.def("keep_kernel_texts", &keep_kernel_texts, py::arg("on"), "Whether texts written are also kept.");
  t.def("take_kernel_texts", &take_kernel_texts, "The (key, text) pairs kept so far; empties the list.");
  t.def("device_blocks_live", &device_blocks_live, "Device blocks handed out by the pool and not given back.");
  t.def("watch_launch_keys", &watch_launch_keys, py::arg("on"), "Whether launches remember their kernel key.");
  t.def("last_launch_key", &last_launch_key, "The kernel key of the last launch while watching.");
  t.def("corrupt_candidate", &corrupt_candidate, py::arg("index"),
        "Makes the tuners see wrong numbers from the candidate of this index (-1: none).");
}

}  // namespace

void register_tuners(py::module_& m) {
  register_spectral_tuners(m);
  register_row_tuners(m);
  m.def(
      "_set_tune_progress",
      [](const py::object& hook) {
        if (!hook.is_none() && !PyCallable_Check(hook.ptr()))
          throw std::invalid_argument("_set_tune_progress: expected a callable or None");
        progress_hook() = hook;
      },
      py::arg("hook"),
      "Installs the process-wide hook the tuners call after each candidate as hook(tuner, index, total, "
      "(ept, fpb, tpf, core, var), outcome), outcome the time in ms (float) or the reason the candidate was "
      "skipped or rejected (str); None removes it. What the hook raises ends the tuner.");
  register_probes(m);
}

}  // namespace ondrel::python
