#include <gtest/gtest.h>

#include <cmath>
#include <cstdlib>
#include <numbers>

#include "codegen/backend.hpp"
#include "codegen/kernel_writer.hpp"

using ondrel::codegen::hip_backend;
using ondrel::codegen::KernelWriter;
using ondrel::codegen::literal;

namespace {

TEST(Literal, SeventeenSignificantDigitsRoundTrip) {
  EXPECT_EQ(literal(1.0), "1");
  EXPECT_EQ(literal(std::cos(std::numbers::pi / 4)), "0.70710678118654757");
  EXPECT_EQ(literal(-0.5), "-0.5");
  EXPECT_EQ(literal(1e-20), "9.9999999999999995e-21");
  for (double x : {std::numbers::pi, 1.0 / 3.0, -2.0 * std::numbers::pi / 7.0, 6.02e23, 5e-324})
    EXPECT_EQ(std::strtod(literal(x).c_str(), nullptr), x) << literal(x);
  EXPECT_THROW(literal(INFINITY), std::logic_error);
  EXPECT_THROW(literal(NAN), std::logic_error);
}

TEST(KernelWriter, LinesAreFlatAndTemporariesNumberAcrossTheKernel) {
  KernelWriter w(1, hip_backend());
  EXPECT_EQ(w.fresh("v"), "v0");
  w.for_range("k", 0, "N", "TPF", [&] {
    const std::string x = w.load("sh", "SHP(k)");
    w.if_block("k > 0", [&] { w.cadd(x, x); });
  });
  w.sync();
  w.emit("out[$] = $;", "i", w.fresh("c"));
  EXPECT_EQ(w.text(),
            "  for (int k = 0; k < N; k += TPF) {\n"
            "  cplx v1 = sh[SHP(k)];\n"
            "  if (k > 0) {\n"
            "  cplx v2 = cadd(v1, v1);\n"
            "  }\n"
            "  }\n"
            "  __syncthreads();\n"
            "  out[i] = c3;\n");
}

TEST(KernelWriter, ComplexHelpersAndConstants) {
  KernelWriter w(2, hip_backend());
  EXPECT_EQ(w.let_cmk("a", "b"), "v0");
  EXPECT_EQ(w.csub("v0", "v0"), "v1");
  EXPECT_EQ(w.mul_const("v1", 0.5, -1.0), "v3");
  EXPECT_EQ(w.scale("v3", 2.0, -0.25), "v4");
  EXPECT_EQ(w.text(),
            "  cplx v0 = cmk(a, b);\n"
            "  cplx v1 = csub(v0, v0);\n"
            "  cplx v2 = cmk((double)0.5, (double)-1);\n"
            "  cplx v3 = cmul(v1, v2);\n"
            "  cplx v4 = cmk(v3.x*(2), v3.y*(-0.25));\n");
}

TEST(KernelWriter, RootTwiddleIsTheHostValueOfTheRoot) {
  KernelWriter f(1, hip_backend()), i(1, hip_backend());
  f.root_twiddle(1, 8, false);
  i.root_twiddle(3, 4, true);
  EXPECT_EQ(f.text(), "  cplx v0 = cmk((float)0.70710678118654757, (float)-0.70710678118654746);\n");
  // exp(+2 pi i 3/4) = -i, with the host's rounding of cos(3 pi / 2).
  EXPECT_EQ(i.text(), "  cplx v0 = cmk((float)" + literal(std::cos(1.5 * std::numbers::pi)) +
                          ", (float)-1);\n");
}

TEST(KernelWriter, ComputedTwiddleOrderOfNamesAndSincosTargets) {
  KernelWriter w(1, hip_backend());
  EXPECT_EQ(w.twiddle("k", 8, false, true), "v3");
  EXPECT_EQ(w.text(),
            "  float a0 = (float)(0.78539816339744828) * (float)(k);\n"
            "  float c1, s2; __sincosf(a0, &s2, &c1);\n"
            "  cplx v3 = cmk((float)c1, (float)s2);\n");
}

TEST(KernelWriter, ComputedTwiddleTypesPerPrecision) {
  KernelWriter d(2, hip_backend()), h(0, hip_backend());
  d.twiddle("j", 3, false, false);
  h.twiddle("j", 4, false, false);
  EXPECT_EQ(d.text(), "  double a0 = (double)(" + literal(-2.0 * std::numbers::pi / 3) +
                          ") * (double)(j);\n"
                          "  double c1, s2; sincos(a0, &s2, &c1);\n"
                          "  cplx v3 = cmk((double)c1, (double)s2);\n");
  // Half kernels compute the angle in float and narrow only the result.
  EXPECT_EQ(h.text(), "  float a0 = (float)(-1.5707963267948966) * (float)(j);\n"
                      "  float c1, s2; __sincosf(a0, &s2, &c1);\n"
                      "  cplx v3 = cmk((__half)c1, (__half)s2);\n");
}

TEST(KernelWriter, TableTwiddleUsesStrideOfFirstMatchingTable) {
  KernelWriter w(2, hip_backend());
  w.add_table(1024, "tw");
  w.add_table(256, "tw2");
  EXPECT_EQ(w.table_stride(256), 4);
  EXPECT_EQ(w.table_base(256), "tw");  // first registered, not smallest stride
  EXPECT_EQ(w.table_stride(3), 0);
  EXPECT_EQ(w.table_base(3), "");
  EXPECT_EQ(w.twiddle("k", 256, false, false), "v0");
  EXPECT_EQ(w.twiddle("k + 1", 256, false, true), "v2");
  EXPECT_EQ(w.text(),
            "  cplx v0 = tw[(k) * 4];\n"
            "  cplx v1 = tw[(k + 1) * 4];\n"
            "  cplx v2 = cmk(v1.x, -v1.y);\n");
}

TEST(KernelWriter, TwiddleSourcesInOrder) {
  KernelWriter w(2, hip_backend());
  w.add_table(1024, "tw");
  // A staged shared table wins over any registered one.
  EXPECT_EQ(w.twiddle("k", 256, true, false), "v0");
  // 1024 holds no third roots: computed in the kernel.
  EXPECT_EQ(w.twiddle("k", 3, false, false), "v4");
  EXPECT_EQ(w.text().substr(0, 23), "  cplx v0 = twsh[k];\n  ");
  EXPECT_NE(w.text().find("sincos(a1, &s3, &c2);"), std::string::npos);
}

}  // namespace
