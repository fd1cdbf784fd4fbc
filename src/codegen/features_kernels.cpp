#include "codegen/features_kernels.hpp"

#include <array>

#include "codegen/body_heads.hpp"
#include "codegen/kernel_writer.hpp"
#include "codegen/prelude.hpp"
#include "math/precision.hpp"

namespace ondrel::codegen {

namespace {

int compute_of(int prec) { return prec == kDoubleCode ? kDoubleCode : kSingleCode; }

// The axes of the tonal centroids for pitch classes 0 to 11: sin and cos of
// 7 pi p / 6 (fifths), 3 pi p / 2 (minor thirds), and 2 pi p / 3 (major
// thirds, radius 0.5). Simple values are exact, not rounded sines.
constexpr double kR3 = 0.8660254037844386;   // sqrt(3) / 2
constexpr double kR3h = 0.4330127018922193;  // sqrt(3) / 4
constexpr std::array<std::array<double, 12>, 6> kTonnetz = {{
    {0, -0.5, kR3, -1, kR3, -0.5, 0, 0.5, -kR3, 1, -kR3, 0.5},
    {1, -kR3, 0.5, 0, -0.5, kR3, -1, kR3, -0.5, 0, 0.5, -kR3},
    {0, -1, 0, 1, 0, -1, 0, 1, 0, -1, 0, 1},
    {1, 0, -1, 0, 1, 0, -1, 0, 1, 0, -1, 0},
    {0, kR3h, -kR3h, 0, kR3h, -kR3h, 0, kR3h, -kR3h, 0, kR3h, -kR3h},
    {0.5, -0.25, -0.25, 0.5, -0.25, -0.25, 0.5, -0.25, -0.25, 0.5, -0.25, -0.25},
}};

// The types, device functions (`helpers`) and head every feature kernel
// starts with; `shared` names a dynamic array of one compute value a thread.
std::string opening(const std::string& name, const KernelParams& params, int prec, const Backend& b, bool shared,
                    const std::string& helpers = "") {
  KernelSig sig(name, b, params);
  sig.bound_threads = kFeatureThreads;
  if (shared) sig.set_shared(b.real_type(compute_of(prec)), "red");
  return b.preamble(prec) + types_prelude(b) + helpers + sig.head();
}

// The sum of every thread's `value` into red[0], as a shared-memory tree.
void block_sum(KernelWriter& w, const std::string& value) {
  w.emit("red[tid] = $;", value);
  w.sync();
  w.emit("for (int s = $; s > 0; s >>= 1) {", kFeatureThreads / 2);
  w.line("if (tid < s) red[tid] += red[tid + s];");
  w.sync();
  w.line("}");
}

// tid, and `row` from the block: one block a frame.
void block_row(KernelWriter& w) {
  w.emit("int tid = $;", w.backend.thread_x());
  w.emit("I64 row = $;", w.backend.block_x());
}

// `row` from a flat index of 256-thread blocks, bounded by `rows`.
void thread_row(KernelWriter& w) {
  w.emit("I64 row = (I64)$ * $ + $;", w.backend.block_x(), kFeatureThreads, w.backend.thread_x());
  w.line("if (row >= rows) return;");
}

// The twelve classes of a row into v[], and their sum.
void load_chroma(KernelWriter& w, const std::string& real) {
  w.emit("$ v[12];", real);
  w.emit("$ sum = ($)0;", real, real);
  w.line("for (int p = 0; p < 12; ++p) {");
  w.emit("v[p] = ($)c[row * 12 + p];", real);
  w.line("sum += v[p];");
  w.line("}");
}

// value = the projection of v[] on axis d.
void projection(KernelWriter& w, const std::string& real) {
  w.emit("$ value = ($)0;", real, real);
  w.line("for (int p = 0; p < 12; ++p) value += ondrel_tonnetz_basis(d, p) * v[p];");
}

}  // namespace

uint64_t feature_reduction_bytes(int prec) {
  return static_cast<uint64_t>(kFeatureThreads) * (compute_of(prec) == kDoubleCode ? 8 : 4);
}

KernelParams rms_params(const Backend& b, int prec) {
  const std::string s = b.real_type(prec);
  return {KernelParam::input(s, "x"),
          KernelParam::output(s, "out"),
          KernelParam::value("I64", "length"),
          KernelParam::value("I64", "frames"),
          KernelParam::value("int", "frame_length"),
          KernelParam::value("int", "hop"),
          KernelParam::value("int", "pad")};
}

KernelParams rms_adjoint_params(const Backend& b, int prec) {
  const std::string t = b.real_type(compute_of(prec));
  return {KernelParam::input(t, "x"),
          KernelParam::input(t, "rms"),
          KernelParam::input(t, "gy"),
          KernelParam::output(t, "gx"),
          KernelParam::value("I64", "length"),
          KernelParam::value("I64", "frames"),
          KernelParam::value("int", "frame_length"),
          KernelParam::value("int", "hop"),
          KernelParam::value("int", "pad")};
}

KernelParams onset_params(const Backend& b, int prec) {
  const std::string s = b.real_type(prec);
  return {KernelParam::input(s, "m"), KernelParam::output(s, "out"), KernelParam::value("I64", "frames"),
          KernelParam::value("I64", "bins")};
}

KernelParams onset_adjoint_params(const Backend& b, int prec) {
  const std::string t = b.real_type(compute_of(prec));
  return {KernelParam::input(t, "m"), KernelParam::input(t, "gy"), KernelParam::output(t, "gm"),
          KernelParam::value("I64", "frames"), KernelParam::value("I64", "bins")};
}

KernelParams tonnetz_params(const Backend& b, int prec) {
  const std::string s = b.real_type(prec);
  return {KernelParam::input(s, "c"), KernelParam::output(s, "out"), KernelParam::value("I64", "rows")};
}

KernelParams tonnetz_adjoint_params(const Backend& b, int prec) {
  const std::string t = b.real_type(compute_of(prec));
  return {KernelParam::input(t, "c"), KernelParam::input(t, "gy"), KernelParam::output(t, "gc"),
          KernelParam::value("I64", "rows")};
}

std::string rms_kernel(int prec, const Backend& b) {
  const int compute = compute_of(prec);
  const std::string t = b.real_type(compute);
  std::string text = opening("ondrel_rms", rms_params(b, prec), prec, b, true);
  KernelWriter w(compute, b);
  block_row(w);
  w.line("I64 batch = row / frames, frame = row - batch * frames;");
  w.line("I64 start = frame * hop - pad;");
  // A one-sample signal has no mirror but itself: period 1 maps every index
  // to sample 0, where 2 * (length - 1) would be a modulo by zero.
  w.line("I64 period = length > 1 ? 2 * (length - 1) : 1;");
  w.emit("$ sum = ($)0;", t, t);
  w.emit("for (int j = tid; j < frame_length; j += $) {", kFeatureThreads);
  w.line("I64 q = start + j;");
  w.line("if (q < 0 || q >= length) {");
  w.line("q %= period;");
  w.line("if (q < 0) q += period;");
  w.line("if (q >= length) q = period - q;");
  w.line("}");
  w.emit("$ v = ($)x[batch * length + q];", t, t);
  w.line("sum += v * v;");
  w.line("}");
  block_sum(w, "sum");
  w.emit("if (tid == 0) out[row] = $;", b.convert(prec, b.real_sqrt(compute, "red[0] / (" + t + ")frame_length")));
  return text + w.text() + "}\n";
}

std::string rms_adjoint_kernel(int prec, const Backend& b) {
  const int compute = compute_of(prec);
  const std::string t = b.real_type(compute);
  std::string text = opening("ondrel_rms_adj", rms_adjoint_params(b, prec), prec, b, false);
  KernelWriter w(compute, b);
  flat_ids(w, "n", "length", "batch", "");
  w.line("I64 period = length > 1 ? 2 * (length - 1) : 1;");
  // Padded positions the frames cover, and the rows of this signal.
  w.line("I64 span = (frames - 1) * hop + frame_length;");
  w.emit("const DEV $* rb = rms + batch * frames;", t);
  w.emit("const DEV $* gb = gy + batch * frames;", t);
  w.emit("$ sum = ($)0;", t, t);
  // Sample n sits at every index congruent to n or to -n modulo the period;
  // for the end samples the two families are one.
  w.line("int images = (n == 0 || n == length - 1) ? 1 : 2;");
  w.line("for (int side = 0; side < images; ++side) {");
  w.line("I64 base = side == 0 ? n : period - n;");
  w.line("for (I64 q = base - (base + pad) / period * period; q < span - pad; q += period) {");
  w.line("I64 pos = q + pad;");
  w.line("I64 t0 = pos >= frame_length ? (pos - frame_length + hop) / hop : 0;");
  w.line("I64 t1 = pos / hop;");
  w.line("if (t1 > frames - 1) t1 = frames - 1;");
  w.line("for (I64 t = t0; t <= t1; ++t) {");
  w.emit("$ rv = rb[t];", t);
  // A silent frame has no gradient (and would divide by zero).
  w.emit("if (rv > ($)0) sum += gb[t] / (($)frame_length * rv);", t, t);
  w.line("}");
  w.line("}");
  w.line("}");
  w.line("gx[batch * length + n] = sum * x[batch * length + n];");
  return text + w.text() + "}\n";
}

std::string onset_kernel(int prec, const Backend& b) {
  const int compute = compute_of(prec);
  const std::string t = b.real_type(compute);
  std::string text = opening("ondrel_onset", onset_params(b, prec), prec, b, true);
  KernelWriter w(compute, b);
  block_row(w);
  w.line("I64 frame = row % frames;");
  w.emit("$ sum = ($)0;", t, t);
  w.line("if (frame > 0) {");
  w.emit("for (I64 k = tid; k < bins; k += $) {", kFeatureThreads);
  w.emit("$ d = ($)m[row * bins + k] - ($)m[(row - 1) * bins + k];", t, t, t);
  w.emit("if (d > ($)0) sum += d;", t);
  w.line("}");
  w.line("}");
  block_sum(w, "sum");
  w.emit("if (tid == 0) out[row] = $;", b.convert(prec, "red[0] / (" + t + ")bins"));
  return text + w.text() + "}\n";
}

std::string onset_adjoint_kernel(int prec, const Backend& b) {
  const int compute = compute_of(prec);
  const std::string t = b.real_type(compute);
  std::string text = opening("ondrel_onset_adj", onset_adjoint_params(b, prec), prec, b, false);
  KernelWriter w(compute, b);
  block_row(w);
  w.line("I64 frame = row % frames;");
  w.emit("for (I64 k = tid; k < bins; k += $) {", kFeatureThreads);
  w.emit("$ g = ($)0;", t, t);
  w.emit("if (frame > 0 && m[row * bins + k] > m[(row - 1) * bins + k]) g += gy[row] / ($)bins;", t);
  w.emit("if (frame + 1 < frames && m[(row + 1) * bins + k] > m[row * bins + k]) g -= gy[row + 1] / ($)bins;", t);
  w.line("gm[row * bins + k] = g;");
  w.line("}");
  return text + w.text() + "}\n";
}

std::string tonnetz_basis_text(int prec, const Backend& b) {
  const std::string t = b.real_type(compute_of(prec));
  std::string text = b.inline_head() + t + " ondrel_tonnetz_basis(int d, int p) {\n  switch (d) {\n";
  for (size_t d = 0; d < kTonnetz.size(); ++d) {
    text += "    case " + std::to_string(d) + ": switch (p) {\n";
    for (size_t p = 0; p < kTonnetz[d].size(); ++p)
      text += "      case " + std::to_string(p) + ": return (" + t + ")" + literal(kTonnetz[d][p]) + ";\n";
    text += "    }\n";
  }
  return text + "  }\n  return (" + t + ")0;\n}\n";
}

std::string tonnetz_kernel(int prec, const Backend& b) {
  const int compute = compute_of(prec);
  const std::string t = b.real_type(compute);
  std::string text = opening("ondrel_tonnetz", tonnetz_params(b, prec), prec, b, false, tonnetz_basis_text(prec, b));
  KernelWriter w(compute, b);
  thread_row(w);
  load_chroma(w, t);
  w.line("for (int d = 0; d < 6; ++d) {");
  projection(w, t);
  w.emit("out[row * 6 + d] = $;", b.convert(prec, "sum > (" + t + ")0 ? value / sum : (" + t + ")0"));
  w.line("}");
  return text + w.text() + "}\n";
}

std::string tonnetz_adjoint_kernel(int prec, const Backend& b) {
  const int compute = compute_of(prec);
  const std::string t = b.real_type(compute);
  std::string text = opening("ondrel_tonnetz_adj", tonnetz_adjoint_params(b, prec), prec, b, false,
                             tonnetz_basis_text(prec, b));
  KernelWriter w(compute, b);
  thread_row(w);
  load_chroma(w, t);
  w.emit("if (sum <= ($)0) {", t);
  w.emit("for (int p = 0; p < 12; ++p) gc[row * 12 + p] = ($)0;", t);
  w.line("return;");
  w.line("}");
  w.emit("$ dot = ($)0;", t, t);
  w.line("for (int d = 0; d < 6; ++d) {");
  projection(w, t);
  w.line("dot += gy[row * 6 + d] * value / sum;");
  w.line("}");
  w.line("for (int p = 0; p < 12; ++p) {");
  w.emit("$ projected = ($)0;", t, t);
  w.line("for (int d = 0; d < 6; ++d) projected += gy[row * 6 + d] * ondrel_tonnetz_basis(d, p);");
  w.line("gc[row * 12 + p] = (projected - dot) / sum;");
  w.line("}");
  return text + w.text() + "}\n";
}

}  // namespace ondrel::codegen
