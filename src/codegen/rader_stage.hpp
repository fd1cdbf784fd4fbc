#pragma once
// Prime radices above 13 by Rader's algorithm: output g^-r of a butterfly is
// x_0 plus the cyclic convolution of the inputs in generator order with the
// roots in inverse-generator order, done as two forward FFTs of p - 1.
#include <cstdint>
#include <string>
#include <vector>

#include "codegen/kernel_writer.hpp"

namespace ondrel::codegen {

// The last stage of a schedule, prime `p` after stages whose product is `ls`,
// on the row `array` of TPF threads (TPF at least n / p). Its scratch of
// n + n / p elements lies right behind the row. Ends behind a barrier.
void rader_stage(KernelWriter& w, const std::string& array, int32_t n, int32_t p, int32_t ls, int32_t tpf);

// Forward FFTs of length m on `batch` interleaved sequences in `array`,
// element (j, t) at RSP(j * batch + t), in place and in natural order.
void batched_stages(KernelWriter& w, const std::string& array, int32_t batch, int32_t m, int32_t tpf);

// The forward register form on named values: output k at place k.
std::vector<std::string> rader_butterfly(KernelWriter& w, const std::vector<std::string>& values, int32_t p);

}  // namespace ondrel::codegen
