// Runs the system C++ compiler on a program unit and returns the shared
// object it builds.
#pragma once
#include <string>
#include <vector>

namespace ondrel_cpu {

struct CompileResult {
  bool ok = false;
  std::string log;        // everything the compiler printed
  std::string code;       // bytes of the shared object when ok
};

// `headers` are (include name, text) pairs made visible to #include;
// `options` are hipRTC options, of which -I and -D are honoured. The compiler
// is `c++`, or the program named by ONDREL_CPU_CXX.
CompileResult compile_unit(const std::string& unit,
                           const std::vector<std::pair<std::string, std::string>>& headers,
                           const std::vector<std::string>& options);

}  // namespace ondrel_cpu
