// The adjoint of the FFT convolutions, resident.
#include <cstdint>

#include "cuda_like/ops/conv_adjoint.hpp"
#include "python/bindings.hpp"
#include "python/frame.hpp"

namespace ondrel::python {

void register_conv_adjoint(py::module_& m) {
  m.def(
      "conv_adjoint_resident",
      [](uintptr_t gy_ptr, uintptr_t w_ptr, uintptr_t out_ptr, int64_t rows, int64_t rows_w, int64_t len_g,
         int64_t len_w, int64_t nf, int64_t off, int64_t sl_start, int64_t sl_len, int32_t sum_rows, int32_t cplx,
         int32_t prec, int32_t device, uintptr_t stream) {
        ConvAdjointCall c;
        c.rows = rows;
        c.rows_w = rows_w;
        c.len_g = len_g;
        c.len_w = len_w;
        c.nf = nf;
        c.off = off;
        c.sl_start = sl_start;
        c.sl_len = sl_len;
        c.sum_rows = sum_rows != 0;
        c.complex = cplx != 0;
        conv_adjoint(device_address(gy_ptr), device_address(w_ptr), device_address(out_ptr), c,
                     c.complex ? full_width(prec == 2) : precision_code(prec), device, stream_handle(stream));
      },
      py::call_guard<py::gil_scoped_release>(),
      py::arg("gy_ptr"), py::arg("w_ptr"), py::arg("out_ptr"), py::arg("rows"), py::arg("rows_w"), py::arg("len_g"),
      py::arg("len_w"), py::arg("nf"), py::arg("off"), py::arg("sl_start"), py::arg("sl_len"), py::arg("sum_rows"),
      py::arg("cplx"), py::arg("prec"), py::arg("device") = 0, py::arg("stream") = 0,
      "Adjoint of the FFT convolutions, a correlation by FFT of length nf, enqueued on `stream`: gy (rows x len_g) "
      "placed at `off` in rows of nf zeros, convolved circularly with w (rows_w x len_w, rows_w 1 or rows) "
      "reversed in time (and conjugated when cplx); out is the slice [sl_start, sl_start + sl_len) of each row "
      "(rows x sl_len), or with sum_rows their sum (one row of sl_len, summed in row order). nf of at least "
      "off + len_g + len_w - 1 keeps the correlation from wrapping. For y = conv(a, b) cut at `start`: the "
      "gradient of a is gy with w = b, off = max(0, start - m + 1), sl_start = off + m - 1 - start, sl_len = n; "
      "that of b is gy with w = a, off = max(0, start - n + 1), sl_start = off + n - 1 - start, sl_len = m, "
      "summed over rows when b has one row. Real data "
      "(cplx 0): prec 0 (and 3) half with single arithmetic, 1 single, 2 double; complex data: prec 2 double, "
      "else single. Above 65535 rows: RuntimeError 'ondrel_convstage: batch exceeds grid.y limit'.");
}

}  // namespace ondrel::python
