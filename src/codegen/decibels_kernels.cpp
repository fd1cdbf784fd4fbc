#include "codegen/decibels_kernels.hpp"

#include <functional>

#include "codegen/kernel_writer.hpp"
#include "codegen/prelude.hpp"

namespace ondrel::codegen {

namespace {

int compute_of(int prec) { return prec == 2 ? 2 : 1; }

std::string opening(const std::string& name, const KernelParams& params, int prec, const Backend& b, bool shared) {
  KernelSig sig(name, b, params);
  sig.bound_threads = kDbThreads;
  if (shared) sig.set_shared("char", "smem");
  return b.preamble(compute_of(prec)) + types_prelude(b) + sig.head();
}

std::string log_of(int prec, const std::string& x) { return (prec == 2 ? "log(" : "logf(") + x + ")"; }

// 1 / ln 10 as the text's own constant.
std::string inv10(const std::string& t) { return "(" + t + ")0.43429448190325176"; }

std::string lowest(int prec) { return prec == 2 ? "-(double)1e308" : "-3.0e38f"; }

// red[0] = the largest red[tid] of the block, a barrier behind every step.
void block_max(KernelWriter& w, const std::string& red) {
  w.sync();
  w.emit("for (int s = $; s > 0; s >>= 1) {", kDbThreads / 2);
  w.emit("if (tid < s && $[tid + s] > $[tid]) $[tid] = $[tid + s];", red, red, red, red);
  w.sync();
  w.line("}");
}

void row_ids(KernelWriter& w) {
  w.emit("int tid = $;", w.backend.thread_x());
  w.emit("I64 base = (I64)$ * n;", w.backend.block_x());
}

}  // namespace

KernelParams db_params(const Backend& b, int prec) {
  const std::string t = b.real_type(compute_of(prec));
  return {KernelParam::input(t, "S"),      KernelParam::output(t, "out"), KernelParam::value("I64", "n"),
          KernelParam::value(t, "mul"),    KernelParam::value(t, "amin"), KernelParam::value(t, "cref"),
          KernelParam::value(t, "topdb"),  KernelParam::value("int", "hastop")};
}

std::string db_kernel(int prec, const Backend& b) {
  const int c = compute_of(prec);
  const std::string t = b.real_type(c);
  std::string text = opening("ondrel_db", db_params(b, prec), prec, b, true);
  KernelWriter w(c, b);
  row_ids(w);
  w.emit("$ red = ($)smem;", b.shared_pointer(t), b.shared_pointer(t));
  w.emit("$ pk = $;", t, lowest(c));
  w.emit("for (I64 i = tid; i < n; i += $) {", kDbThreads);
  w.emit("$ v = S[base + i];", t);
  w.line("if (v < amin) v = amin;");
  w.emit("$ d = mul * $ * $ - cref;", t, log_of(c, "v"), inv10(t));
  w.line("out[base + i] = d;");
  w.line("if (d > pk) pk = d;");
  w.line("}");
  // Uniform in the block: without a floor no thread reaches a barrier.
  w.line("if (hastop == 0) return;");
  w.line("red[tid] = pk;");
  block_max(w, "red");
  w.emit("$ lo = red[0] - topdb;", t);
  // Each thread reads back only what it wrote itself.
  w.emit("for (I64 i = tid; i < n; i += $) {", kDbThreads);
  w.line("if (out[base + i] < lo) out[base + i] = lo;");
  w.line("}");
  return text + w.text() + "}\n";
}

KernelParams db_inv_params(const Backend& b, int prec) {
  const std::string t = b.real_type(compute_of(prec));
  return {KernelParam::input(t, "D"), KernelParam::output(t, "out"), KernelParam::value("I64", "total"),
          KernelParam::value(t, "mul"), KernelParam::value(t, "ref")};
}

std::string db_inv_kernel(int prec, const Backend& b) {
  const int c = compute_of(prec);
  const std::string t = b.real_type(c);
  std::string text = opening("ondrel_db_inv", db_inv_params(b, prec), prec, b, false);
  KernelWriter w(c, b);
  w.emit("I64 i = (I64)$ * $ + $;", b.block_x(), kDbThreads, b.thread_x());
  w.emit("if (i < total) out[i] = ref * $((($)D[i] / mul) * ($)2.302585092994046);", c == 2 ? "exp" : "expf", t, t);
  return text + w.text() + "}\n";
}

KernelParams db_adjoint_params(const Backend& b, int prec) {
  const std::string t = b.real_type(compute_of(prec));
  return {KernelParam::input(t, "S"),     KernelParam::input(t, "g"),    KernelParam::output(t, "gS"),
          KernelParam::value("I64", "n"), KernelParam::value(t, "mul"),  KernelParam::value(t, "amin"),
          KernelParam::value(t, "topdb"), KernelParam::value("int", "hastop")};
}

std::string db_adjoint_kernel(int prec, const Backend& b) {
  const int c = compute_of(prec);
  const std::string t = b.real_type(c);
  std::string text = opening("ondrel_db_adj", db_adjoint_params(b, prec), prec, b, true);
  KernelWriter w(c, b);
  row_ids(w);
  const std::string u = "mul * " + log_of(c, "v") + " * " + inv10(t);
  const auto walk = [&](const std::function<void()>& body) {
    w.emit("for (I64 i = tid; i < n; i += $) {", kDbThreads);
    w.emit("$ s = S[base + i];", t);
    w.emit("$ v = s < amin ? amin : s;", t);
    w.emit("$ u = $;", t, u);
    body();
    w.line("}");
  };
  w.line("if (hastop == 0) {");
  w.emit("for (I64 i = tid; i < n; i += $) {", kDbThreads);
  w.emit("$ s = S[base + i];", t);
  w.emit("gS[base + i] = s < amin ? ($)0 : g[base + i] * mul * $ / s;", t, inv10(t));
  w.line("}");
  w.line("return;");
  w.line("}");
  w.emit("$ red0 = ($)smem;", b.shared_pointer(t), b.shared_pointer(t));
  w.emit("$ red1 = red0 + $;", b.shared_pointer(t), kDbThreads);
  w.emit("$ pk = $;", t, lowest(c));
  walk([&] { w.line("if (u > pk) pk = u;"); });
  w.line("red0[tid] = pk;");
  block_max(w, "red0");
  w.line("pk = red0[0];");
  // Nobody may overwrite red0 while another thread still reads the peak.
  w.sync();
  w.emit("$ routed = ($)0, nmax = ($)0, lo = pk - topdb;", t, t, t);
  walk([&] {
    w.line("if (u == pk) nmax += 1;");
    w.emit("if (u < lo) routed += g[base + i]; else if (u == lo) routed += ($)0.5 * g[base + i];", t);
  });
  w.line("red0[tid] = routed; red1[tid] = nmax;");
  w.sync();
  w.emit("for (int s = $; s > 0; s >>= 1) {", kDbThreads / 2);
  w.line("if (tid < s) { red0[tid] += red0[tid + s]; red1[tid] += red1[tid + s]; }");
  w.sync();
  w.line("}");
  w.emit("$ share = red0[0] / red1[0];", t);
  walk([&] {
    w.emit("$ kept = u > lo ? ($)1 : (u == lo ? ($)0.5 : ($)0);", t, t, t, t);
    w.emit("$ gd = g[base + i] * kept + (u == pk ? share : ($)0);", t, t);
    w.emit("gS[base + i] = s < amin ? ($)0 : gd * mul * $ / v;", t, inv10(t));
  });
  return text + w.text() + "}\n";
}

}  // namespace ondrel::codegen
