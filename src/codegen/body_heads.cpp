#include "codegen/body_heads.hpp"

namespace ondrel::codegen {

void frame_ids(KernelWriter& w) {
  const Backend& b = w.backend;
  w.emit("int tid = $;", b.thread_x());
  w.emit("int frame = $;", b.block_x());
  w.emit("int batch = $;", b.block_y());
  w.emit("if (frame >= NF) return;");
}

void frame_ids_packed(KernelWriter& w) {
  const Backend& b = w.backend;
  w.emit("int f_local = $ / TPF;", b.thread_x());
  w.emit("int tid = $ % TPF;", b.thread_x());
  w.emit("int frame = $ * F + f_local;", b.block_x());
  w.emit("int batch = $;", b.block_y());
}

void flat_ids(KernelWriter& w, const std::string& i, const std::string& bound, const std::string& row,
              const std::string& extra) {
  const Backend& b = w.backend;
  w.emit("I64 $ = (I64)$ * 256 + $;", i, b.block_x(), b.thread_x());
  w.emit("if ($ >= $) return;", i, bound);
  if (!extra.empty()) w.line(extra);
  w.emit("I64 $ = $;", row, b.block_y());
}

void row_split(KernelWriter& w, const std::string& b, const std::string& f) {
  w.emit("I64 $ = row / NF, $ = row % NF;", b, f);
}

void pair_rows(KernelWriter& w) {
  w.emit("I64 row0 = 2 * batch; I64 row1 = row0 + 1;");
  w.emit("I64 r0c = row0 < nrows - 1 ? row0 : nrows - 1;");
  w.emit("I64 r1c = row1 < nrows - 1 ? row1 : nrows - 1;");
}

}  // namespace ondrel::codegen
