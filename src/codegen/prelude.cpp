#include "codegen/prelude.hpp"

namespace ondrel::codegen {

std::string types_prelude(const Backend& backend) {
  return "typedef " + backend.wide_int_type() + " I64;\n" +  //
         "#define TG " + backend.shared_space() + "\n" +     //
         "#define DEV " + backend.device_space() + "\n";
}

std::string complex_prelude(const Backend& backend, int prec) {
  const std::string r = backend.real_type(prec), p = backend.pair_type(prec),
                    q = backend.inline_head();
  return types_prelude(backend) +  //
         "typedef " + p + " cplx;\n" +
         q + "cplx cmk(" + r + " r, " + r + " i){cplx z;z.x=r;z.y=i;return z;}\n" +
         q + "cplx cadd(cplx a, cplx b){return cmk(a.x+b.x, a.y+b.y);}\n" +
         q + "cplx csub(cplx a, cplx b){return cmk(a.x-b.x, a.y-b.y);}\n" +
         q + "cplx cmul(cplx a, cplx b){return cmk(a.x*b.x - a.y*b.y, a.x*b.y + a.y*b.x);}\n";
}

std::string refl_defines(int64_t pad) {
  return "#define PAD " + std::to_string(pad) +
         "\n#define refl(pos) ((pos) < PAD ? PAD - (pos) : ((pos) >= PAD + SIG_LEN ? "
         "(2*SIG_LEN - 2 + PAD) - (pos) : (pos) - PAD))\n";
}

std::string spectral_prelude(const Backend& backend, int prec, int64_t n_fft, int64_t pad) {
  int bits = 0;
  while ((int64_t{1} << bits) < n_fft / 2) ++bits;
  return backend.preamble(prec) + complex_prelude(backend, prec) + backend.inline_head() +
         "unsigned brev(unsigned x){return " + backend.bit_reverse("x") + " >> (32 - " +
         std::to_string(bits) + ");}\n" + refl_defines(pad);
}

}  // namespace ondrel::codegen
