// hipRTC's program life cycle and logs, and what module loading refuses.
#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "kernel_fixture.hpp"

namespace {
using namespace ondrel_cpu_test;

TEST(Compile, ErrorLogCarriesKernelFileAndLine) {
  const std::string text =
      "extern \"C\" __global__ void ondrel_bad(float* x) {\n"
      "  int i = threadIdx.x;\n"
      "  x[i] = undeclared_name;\n"
      "}\n";
  const Compiled c = compile(text, "ondrel_bad");
  EXPECT_EQ(c.result, HIPRTC_ERROR_COMPILATION);
  EXPECT_NE(c.log.find("ondrel_bad.hip:3:"), std::string::npos) << c.log;
  EXPECT_NE(c.log.find("undeclared_name"), std::string::npos) << c.log;
  EXPECT_STREQ(hiprtcGetErrorString(HIPRTC_ERROR_COMPILATION), "HIPRTC_ERROR_COMPILATION");
}

TEST(Compile, DialectGuardsAndIncludeFolders) {
  const std::filesystem::path dir = std::filesystem::temp_directory_path() / "ondrel_cpu_include_test";
  std::filesystem::create_directories(dir);
  std::ofstream(dir / "ondrel_scale.h") << "#define SCALE 3\n";
  const std::string text =
      "#include \"ondrel_scale.h\"\n"
      "extern \"C\" __global__ void ondrel_inc(int* __restrict__ x) {\n"
      "#if __CUDA_ARCH__ >= 800\n"
      "  asm volatile(\"cp.async.commit_group;\");\n"
      "#else\n"
      "  x[threadIdx.x] = SCALE * (int)threadIdx.x;\n"
      "#endif\n"
      "}\n";
  EXPECT_EQ(compile(text, "ondrel_inc").result, HIPRTC_ERROR_COMPILATION);
  const Compiled c = compile(text, "ondrel_inc", {"-I" + dir.string()});
  std::filesystem::remove_all(dir);
  ASSERT_EQ(c.result, HIPRTC_SUCCESS) << c.log;
  hipModule_t module = nullptr;
  ASSERT_EQ(hipModuleLoadData(&module, c.code.data()), hipSuccess);
  hipFunction_t fn = nullptr;
  ASSERT_EQ(hipModuleGetFunction(&fn, module, "ondrel_inc"), hipSuccess);
  DeviceArray<int> x(8);
  int* p = x.get();
  void* args[] = {&p};
  ASSERT_EQ(hipModuleLaunchKernel(fn, 1, 1, 1, 8, 1, 1, 0, nullptr, args, nullptr), hipSuccess);
  EXPECT_EQ(x.read(), (std::vector<int>{0, 3, 6, 9, 12, 15, 18, 21}));
}

TEST(Compile, InMemoryHeadersAndTheChosenCompiler) {
  const char* header = "#define ONDREL_OFFSET 5\n";
  const char* include_name = "ondrel_offset.h";
  const char* text =
      "#include <hip/hip_runtime.h>\n#include \"ondrel_offset.h\"\n"
      "extern \"C\" __global__ void ondrel_off(int* x) { x[0] = ONDREL_OFFSET; }\n";
  hiprtcProgram prog = nullptr;
  ASSERT_EQ(hiprtcCreateProgram(&prog, text, "ondrel_off.hip", 1, &header, &include_name), HIPRTC_SUCCESS);
  EXPECT_EQ(hiprtcCompileProgram(prog, 0, nullptr), HIPRTC_SUCCESS);
  setenv("ONDREL_CPU_CXX", "/nonexistent/ondrel-c++", 1);
  EXPECT_EQ(hiprtcCompileProgram(prog, 0, nullptr), HIPRTC_ERROR_COMPILATION);
  unsetenv("ONDREL_CPU_CXX");
  size_t size = 0;
  ASSERT_EQ(hiprtcGetProgramLogSize(prog, &size), HIPRTC_SUCCESS);
  std::string log(size, '\0');
  ASSERT_EQ(hiprtcGetProgramLog(prog, log.data()), HIPRTC_SUCCESS);
  EXPECT_NE(log.find("cannot run the C++ compiler '/nonexistent/ondrel-c++'"), std::string::npos) << log;
  EXPECT_EQ(hiprtcDestroyProgram(&prog), HIPRTC_SUCCESS);
}

TEST(Load, MissingKernelNameIsNotFound) {
  const Compiled c = compile("extern \"C\" __global__ void ondrel_here(int* x) { x[0] = 1; }\n", "ondrel_here");
  ASSERT_EQ(c.result, HIPRTC_SUCCESS) << c.log;
  hipModule_t module = nullptr;
  ASSERT_EQ(hipModuleLoadData(&module, c.code.data()), hipSuccess);
  hipFunction_t fn = nullptr;
  EXPECT_EQ(hipModuleGetFunction(&fn, module, "ondrel_elsewhere"), hipErrorNotFound);
  EXPECT_STREQ(hipGetErrorString(hipErrorNotFound), "named symbol not found");
}

TEST(Load, ForeignOrDamagedImagesAreInvalid) {
  hipModule_t module = nullptr;
  const char text[] = "not a code object at all, just some text";
  EXPECT_EQ(hipModuleLoadData(&module, text), hipErrorInvalidImage);
  const Compiled c = compile("extern \"C\" __global__ void ondrel_k(int* x) { x[0] = 1; }\n", "ondrel_k");
  ASSERT_EQ(c.result, HIPRTC_SUCCESS);
  std::string padded = c.code;  // a truncated file, zero-filled to its old length
  std::fill(padded.begin() + static_cast<long>(padded.size() / 2), padded.end(), '\0');
  EXPECT_EQ(hipModuleLoadData(&module, padded.data()), hipErrorInvalidImage);
  std::string altered = c.code;
  altered[altered.size() / 3] ^= 0x40;
  EXPECT_EQ(hipModuleLoadData(&module, altered.data()), hipErrorInvalidImage);
  EXPECT_EQ(module, nullptr);
}

TEST(Compile, ProgramHandlesAreChecked) {
  hiprtcProgram prog = nullptr;
  EXPECT_EQ(hiprtcCreateProgram(&prog, nullptr, "x.hip", 0, nullptr, nullptr), HIPRTC_ERROR_INVALID_INPUT);
  ASSERT_EQ(hiprtcCreateProgram(&prog, "int x;", "x.hip", 0, nullptr, nullptr), HIPRTC_SUCCESS);
  hiprtcProgram copy = prog;
  EXPECT_EQ(hiprtcDestroyProgram(&prog), HIPRTC_SUCCESS);
  EXPECT_EQ(prog, nullptr);
  size_t size = 0;
  EXPECT_EQ(hiprtcGetCodeSize(copy, &size), HIPRTC_ERROR_INVALID_PROGRAM);
  int major = -1, minor = -1;
  EXPECT_EQ(hiprtcVersion(&major, &minor), HIPRTC_SUCCESS);
  EXPECT_GE(major, 1);
}

}  // namespace
