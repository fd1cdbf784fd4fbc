# Writes the device header (kernel_abi.hpp, then hip_dialect.hpp without its
# include of the former) into a C++ source as one string, so that a compile
# needs nothing from disk but the compiler. Run with -DABI=, -DDIALECT=, -DOUT=.
file(READ "${ABI}" abi)
file(READ "${DIALECT}" dialect)
string(REPLACE "#include \"kernel_abi.hpp\"\n" "" dialect "${dialect}")
string(REPLACE "#pragma once\n" "" abi "${abi}")
string(REPLACE "#pragma once\n" "" dialect "${dialect}")
set(text "#line 1 \"ondrel_cpu_device.h\"\n${abi}${dialect}")
file(WRITE "${OUT}.tmp" "// Generated from device/kernel_abi.hpp and device/hip_dialect.hpp.\n"
  "#include \"common/device_header.hpp\"\n\n"
  "namespace ondrel_cpu {\n\n"
  "std::string_view device_header() {\n"
  "  static const char text[] = R\"ondrel_header(${text})ondrel_header\";\n"
  "  return {text, sizeof(text) - 1};\n"
  "}\n\n"
  "}  // namespace ondrel_cpu\n")
file(COPY_FILE "${OUT}.tmp" "${OUT}" ONLY_IF_DIFFERENT)
file(REMOVE "${OUT}.tmp")
