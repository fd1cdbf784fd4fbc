#pragma once
// The writer of one kernel body. Every statement is a flat line indented by
// two blanks whatever its nesting, and temporaries are numbered across the
// whole kernel ("v17", "c18"), so any generated kernel reads the same way.
#include <cstdint>
#include <functional>
#include <sstream>
#include <string>
#include <vector>

#include "codegen/backend.hpp"
#include "codegen/format.hpp"

namespace ondrel::codegen {

// A twiddle table in the generated text: `span` entries make a full turn.
struct TwiddleTable {
  int32_t span;
  std::string base;
};

class KernelWriter {
 public:
  KernelWriter(int prec, const Backend& backend) : prec(prec), backend(backend) {}

  void line(const std::string& text);
  void raw(const std::string& text);
  template <class... A>
  void emit(std::string_view tmpl, const A&... args) {
    line(format(tmpl, {FormatArg(args)...}));
  }
  std::string fresh(const std::string& prefix);
  void sync();
  void for_range(const FormatArg& var, const FormatArg& begin, const FormatArg& end,
                 const FormatArg& step, const std::function<void()>& body);
  void if_block(const std::string& cond, const std::function<void()>& body);
  // A load into shared memory written twice: `async` under the dialect's
  // asynchronous-copy guard, closed by its fences, and `plain` for every
  // compiler the guard excludes (the only one where the dialect has none).
  void async_or_plain(const std::function<void()>& async, const std::function<void()>& plain);
  // One 16-byte asynchronous copy from `source` (a global address) to the
  // shared lvalue `target`.
  void async_copy(const std::string& target, const std::string& source);

  std::string let_cmk(const std::string& re, const std::string& im);
  std::string cadd(const std::string& a, const std::string& b);
  std::string csub(const std::string& a, const std::string& b);
  std::string cmul(const std::string& a, const std::string& b);
  std::string load(const std::string& array, const std::string& index);

  void add_table(int32_t span, std::string base);
  int32_t table_stride(int32_t n) const;
  std::string table_base(int32_t n) const;

  // exp(-+2 pi i index / n), minus for forward transforms. Sources in order:
  // the staged shared table "twsh", a registered table whose span n divides,
  // else computed in the kernel.
  std::string twiddle(const std::string& index, int32_t n, bool shared_table, bool inverse);
  std::string const_twiddle(double re, double im);
  std::string root_twiddle(int64_t k, int64_t n, bool inverse);
  std::string mul_const(const std::string& x, double re, double im);
  std::string scale(const std::string& x, double a, double b);

  std::string text() const { return out.str(); }

  const int prec;
  const Backend& backend;

 private:
  std::string bind(const std::string& rhs);
  const TwiddleTable* table_for(int32_t n) const;

  std::ostringstream out;
  unsigned next_id = 0;
  std::vector<TwiddleTable> tables;
};

// A double as kernel text: 17 significant digits, so the value survives the
// round trip exactly ("1", "0.70710678118654757").
std::string literal(double x);

}  // namespace ondrel::codegen
