#include "codegen/macros.hpp"

namespace ondrel::codegen {

std::string define(const std::string& name, const std::string& value) {
  return "#define " + name + " " + value + "\n";
}

std::string invsc_define(const Backend& backend, int prec, int64_t n) {
  return "#define INVSC ((" + backend.real_type(prec) + ")(1.0 / " + std::to_string(n) + "))\n";
}

std::string shp_define(bool pad) {
  return pad ? "#define SHP(i) ((i)+((i)>>4))\n" : "#define SHP(i) (i)\n";
}

std::string shp_define_bluestein(int prec) {
  return prec == 2 ? "#define SHP(i) ((i)+((i)>>3))\n" : "#define SHP(i) ((i)+((i)>>4))\n";
}

std::string shp_define_spectral(int shift) {
  if (shift == 0) return "#define SHP(i) (i)\n";
  return "#define SHP(i) ((i) + ((i)>>" + std::to_string(shift) + "))\n";
}

std::string rsp_define_tiles() { return "#ifndef RSP\n#define RSP(i) ((i) + ((i) >> 4))\n#endif\n"; }

std::string rsp_define_rader() { return "#ifndef RSP\n#define RSP(i) (i)\n#endif\n"; }

}  // namespace ondrel::codegen
