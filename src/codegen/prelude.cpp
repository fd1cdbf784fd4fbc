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

std::string iot_typedef(const Backend& backend, int compute, int storage) {
  return "typedef " + (storage == compute ? std::string("cplx") : backend.pair_type(storage)) + " iot;\n";
}

std::string real_typedefs(const Backend& backend, int compute, int storage) {
  return "typedef " + backend.real_type(compute) + " T;\ntypedef " + backend.real_type(storage) + " S;\n";
}

std::string fft_prelude(const Backend& backend, int compute, int storage) {
  return backend.preamble(storage != 0 ? compute : 0) + complex_prelude(backend, compute) +
         iot_typedef(backend, compute, storage);
}

std::string pair_prelude(const Backend& b) {
  const std::string q = b.inline_head(), h2 = b.pair_type(0), h = b.real_type(0);
  const auto join = [&](const std::string& x, const std::string& y) { return "cmk(" + x + ", " + y + ")"; };
  return "struct cplx { " + h2 + " x, y; };\n" + "typedef " + h2 + " iot;\n" +  //
         q + "cplx cmk(" + h2 + " r, " + h2 + " i){cplx z;z.x=r;z.y=i;return z;}\n" +
         q + "cplx cmk(" + h + " r, " + h + " i){return " + join(b.half2_broadcast("r"), b.half2_broadcast("i")) + ";}\n" +
         q + "cplx cmk(float r, float i){return " + join(b.half2_from_float("r"), b.half2_from_float("i")) + ";}\n" +
         q + "cplx cadd(cplx a, cplx b){return " + join(b.half2_add("a.x", "b.x"), b.half2_add("a.y", "b.y")) + ";}\n" +
         q + "cplx csub(cplx a, cplx b){return " + join(b.half2_sub("a.x", "b.x"), b.half2_sub("a.y", "b.y")) + ";}\n" +
         q + "cplx cmul(cplx a, cplx b){return " +
         join(b.half2_sub(b.half2_mul("a.x", "b.x"), b.half2_mul("a.y", "b.y")),
              b.half2_add(b.half2_mul("a.x", "b.y"), b.half2_mul("a.y", "b.x"))) +
         ";}\n";
}

std::string brev_define(const Backend& backend, int bits) {
  return backend.inline_head() + "unsigned brev(unsigned x){return " + backend.bit_reverse("x") + " >> (32 - " +
         std::to_string(bits) + ");}\n";
}

std::string refl_defines(int64_t pad) {
  return "#define PAD " + std::to_string(pad) +
         "\n#define refl(pos) ((pos) < PAD ? PAD - (pos) : ((pos) >= PAD + SIG_LEN ? "
         "(2*SIG_LEN - 2 + PAD) - (pos) : (pos) - PAD))\n";
}

std::string spectral_prelude(const Backend& backend, int prec, int64_t n_fft, int64_t pad) {
  int bits = 0;
  while ((int64_t{1} << bits) < n_fft / 2) ++bits;
  return backend.preamble(prec) + complex_prelude(backend, prec) + brev_define(backend, bits) + refl_defines(pad);
}

}  // namespace ondrel::codegen
