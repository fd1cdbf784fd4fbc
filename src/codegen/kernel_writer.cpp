#include "codegen/kernel_writer.hpp"

#include <cmath>
#include <cstdio>
#include <numbers>
#include <stdexcept>

namespace ondrel::codegen {

std::string literal(double x) {
  // "inf" or "nan" would compile to something else entirely; a generator
  // handing one over is a fault to report, not text to write.
  if (!std::isfinite(x)) throw std::logic_error("codegen literal: value is not finite");
  char buf[40];
  std::snprintf(buf, sizeof buf, "%.17g", x);
  return buf;
}

void KernelWriter::line(const std::string& text) { out << "  " << text << '\n'; }

void KernelWriter::raw(const std::string& text) { out << text; }

std::string KernelWriter::fresh(const std::string& prefix) {
  return prefix + std::to_string(next_id++);
}

void KernelWriter::sync() { line(backend.barrier()); }

void KernelWriter::for_range(const FormatArg& var, const FormatArg& begin, const FormatArg& end,
                             const FormatArg& step, const std::function<void()>& body) {
  out << "  for (int " << var.text << " = " << begin.text << "; " << var.text << " < " << end.text
      << "; " << var.text << " += " << step.text << ") {\n";
  body();
  out << "  }\n";
}

void KernelWriter::if_block(const std::string& cond, const std::function<void()>& body) {
  out << "  if (" << cond << ") {\n";
  body();
  out << "  }\n";
}

void KernelWriter::async_or_plain(const std::function<void()>& async, const std::function<void()>& plain) {
  const std::string guard = backend.async_copy_guard();
  if (guard.empty()) return plain();
  raw(guard);
  async();
  line(backend.async_commit());
  line(backend.async_wait_all());
  raw("#else\n");
  plain();
  raw("#endif\n");
}

void KernelWriter::async_copy(const std::string& target, const std::string& source) {
  emit("{ $ sa = $;", backend.unsigned_type(), backend.shared_address(target));
  line("  " + backend.async_copy_16("sa", source) + " }");
}

std::string KernelWriter::bind(const std::string& rhs) {
  std::string name = fresh("v");
  line("cplx " + name + " = " + rhs + ";");
  return name;
}

std::string KernelWriter::let_cmk(const std::string& re, const std::string& im) {
  return bind("cmk(" + re + ", " + im + ")");
}

std::string KernelWriter::cadd(const std::string& a, const std::string& b) {
  return bind("cadd(" + a + ", " + b + ")");
}

std::string KernelWriter::csub(const std::string& a, const std::string& b) {
  return bind("csub(" + a + ", " + b + ")");
}

std::string KernelWriter::cmul(const std::string& a, const std::string& b) {
  return bind("cmul(" + a + ", " + b + ")");
}

std::string KernelWriter::load(const std::string& array, const std::string& index) {
  return bind(array + "[" + index + "]");
}

void KernelWriter::add_table(int32_t span, std::string base) {
  tables.push_back({span, std::move(base)});
}

// The first registered table that holds every n-th root wins, in
// registration order: callers register their preferred table first.
const TwiddleTable* KernelWriter::table_for(int32_t n) const {
  if (n <= 0) return nullptr;
  for (const TwiddleTable& t : tables)
    if (t.span > 0 && t.span % n == 0) return &t;
  return nullptr;
}

int32_t KernelWriter::table_stride(int32_t n) const {
  const TwiddleTable* t = table_for(n);
  return t ? t->span / n : 0;
}

std::string KernelWriter::table_base(int32_t n) const {
  const TwiddleTable* t = table_for(n);
  return t ? t->base : std::string();
}

std::string KernelWriter::twiddle(const std::string& index, int32_t n, bool shared_table,
                                  bool inverse) {
  std::string t;
  if (shared_table) {
    t = load("twsh", index);
  } else if (const int32_t stride = table_stride(n); stride > 0) {
    t = bind(table_base(n) + "[(" + index + ") * " + std::to_string(stride) + "]");
  } else {
    const std::string a = fresh("a"), c = fresh("c"), s = fresh("s");
    const std::string ct = prec == 2 ? "double" : "float";
    const double step = (inverse ? 2.0 : -2.0) * std::numbers::pi / n;
    line(ct + " " + a + " = (" + ct + ")(" + literal(step) + ") * (" + ct + ")(" + index + ");");
    line(ct + " " + c + ", " + s + "; " + backend.sincos(prec, a, c, s));
    const std::string r = backend.real_type(prec);
    return let_cmk("(" + r + ")" + c, "(" + r + ")" + s);
  }
  // Tables hold forward roots; the inverse is their conjugate.
  return inverse ? let_cmk(t + ".x", "-" + t + ".y") : t;
}

std::string KernelWriter::const_twiddle(double re, double im) {
  const std::string r = backend.real_type(prec);
  return let_cmk("(" + r + ")" + literal(re), "(" + r + ")" + literal(im));
}

std::string KernelWriter::root_twiddle(int64_t k, int64_t n, bool inverse) {
  const double angle = (inverse ? 2.0 : -2.0) * std::numbers::pi * static_cast<double>(k) /
                       static_cast<double>(n);
  return const_twiddle(std::cos(angle), std::sin(angle));
}

std::string KernelWriter::mul_const(const std::string& x, double re, double im) {
  return cmul(x, const_twiddle(re, im));
}

std::string KernelWriter::scale(const std::string& x, double a, double b) {
  // A half component times a double literal is ambiguous to the GPU
  // compilers (built-in and half operators both match): half arithmetic
  // takes the constant rounded to half first.
  const auto c = [&](double v) {
    if (prec != 0) return literal(v);
    return std::string("(").append(backend.real_type(0)).append(")(").append(literal(v)).append(")");
  };
  return bind("cmk(" + x + ".x*(" + c(a) + "), " + x + ".y*(" + c(b) + "))");
}

}  // namespace ondrel::codegen
