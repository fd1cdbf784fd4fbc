#include <gtest/gtest.h>

#include "codegen/backend.hpp"
#include "codegen/macros.hpp"
#include "codegen/prelude.hpp"

namespace cg = ondrel::codegen;
using cg::hip_backend;

namespace {

TEST(Prelude, ComplexPreludeForEachPrecision) {
  const std::string types = "typedef long long I64;\n#define TG \n#define DEV \n";
  EXPECT_EQ(cg::types_prelude(hip_backend()), types);
  EXPECT_EQ(cg::complex_prelude(hip_backend(), 2),
            types +
                "typedef double2 cplx;\n"
                "__device__ __forceinline__ cplx cmk(double r, double i){cplx z;z.x=r;z.y=i;return z;}\n"
                "__device__ __forceinline__ cplx cadd(cplx a, cplx b){return cmk(a.x+b.x, a.y+b.y);}\n"
                "__device__ __forceinline__ cplx csub(cplx a, cplx b){return cmk(a.x-b.x, a.y-b.y);}\n"
                "__device__ __forceinline__ cplx cmul(cplx a, cplx b){return cmk(a.x*b.x - a.y*b.y, "
                "a.x*b.y + a.y*b.x);}\n");
  const std::string half = cg::complex_prelude(hip_backend(), 0);
  EXPECT_NE(half.find("typedef __half2 cplx;\n"), std::string::npos);
  EXPECT_NE(half.find("cmk(__half r, __half i)"), std::string::npos);
}

TEST(Prelude, SpectralPreludeBitsAndReflection) {
  const std::string p = cg::spectral_prelude(hip_backend(), 1, 2048, 1024);
  EXPECT_EQ(p.rfind(cg::complex_prelude(hip_backend(), 1), 0), 0u);
  EXPECT_NE(p.find("__device__ __forceinline__ unsigned brev(unsigned x){return __brev(x) >> (32 - 10);}\n"),
            std::string::npos);
  EXPECT_TRUE(p.ends_with(cg::refl_defines(1024)));
  // Not a power of two: the smallest L with 2^L >= n_fft / 2.
  EXPECT_NE(cg::spectral_prelude(hip_backend(), 1, 1000, 0).find(">> (32 - 9)"), std::string::npos);
  EXPECT_EQ(cg::refl_defines(3),
            "#define PAD 3\n#define refl(pos) ((pos) < PAD ? PAD - (pos) : ((pos) >= PAD + SIG_LEN ? "
            "(2*SIG_LEN - 2 + PAD) - (pos) : (pos) - PAD))\n");
}

TEST(Macros, ExactSpellings) {
  EXPECT_EQ(cg::invsc_define(hip_backend(), 2, 1024), "#define INVSC ((double)(1.0 / 1024))\n");
  EXPECT_EQ(cg::invsc_define(hip_backend(), 0, 8), "#define INVSC ((__half)(1.0 / 8))\n");
  EXPECT_EQ(cg::define("TPF", "64"), "#define TPF 64\n");
  EXPECT_EQ(cg::shp_define(true), "#define SHP(i) ((i)+((i)>>4))\n");
  EXPECT_EQ(cg::shp_define(false), "#define SHP(i) (i)\n");
  EXPECT_EQ(cg::shp_define_bluestein(2), "#define SHP(i) ((i)+((i)>>3))\n");
  EXPECT_EQ(cg::shp_define_bluestein(1), "#define SHP(i) ((i)+((i)>>4))\n");
  EXPECT_EQ(cg::shp_define_spectral(4), "#define SHP(i) ((i) + ((i)>>4))\n");
  EXPECT_EQ(cg::shp_define_spectral(0), "#define SHP(i) (i)\n");
  EXPECT_EQ(cg::rsp_define_tiles(), "#ifndef RSP\n#define RSP(i) ((i) + ((i) >> 4))\n#endif\n");
  EXPECT_EQ(cg::rsp_define_rader(), "#ifndef RSP\n#define RSP(i) (i)\n#endif\n");
}

}  // namespace
