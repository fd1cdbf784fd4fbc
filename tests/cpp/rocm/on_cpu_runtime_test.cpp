// The device runtime against the CPU runtime: real compiles, real code
// objects, real launches, and memory that really runs out.
#include <gtest/gtest.h>

#include <dlfcn.h>

#include <chrono>
#include <complex>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <future>
#include <iterator>
#include <random>
#include <stdexcept>
#include <vector>

#include "child_process.hpp"
#include "codegen/backend.hpp"
#include "codegen/sample_kernel.hpp"
#include "rocm/cache_file.hpp"
#include "rocm/compile.hpp"
#include "rocm/context.hpp"
#include "rocm/device_pool.hpp"

namespace fs = std::filesystem;

namespace {

using ondrel::kernel_function;

std::string rotation_text(int n, int prec = 1) {
  return ondrel::codegen::sample_kernel(ondrel::codegen::hip_backend(), n, prec, false);
}
std::string rotation_name(int n, int prec = 1) {
  return "ondrel_rotate_" + std::to_string(n) + "_" + std::to_string(prec) + "_f";
}

class KernelCache : public testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/ondrel_cache_test_XXXXXX";
    dir = mkdtemp(pattern);
    setenv("ONDREL_CACHE_DIR", dir.c_str(), 1);
  }
  void TearDown() override { fs::remove_all(dir); }

  std::vector<fs::path> files() const {
    std::vector<fs::path> out;
    if (fs::exists(dir / "kernels"))
      for (const auto& e : fs::directory_iterator(dir / "kernels")) out.push_back(e.path());
    return out;
  }

  fs::path dir;
};

void rotations(int count_calls_expected) {
  ondrel::select_device(0);
  int calls = 0;
  auto gen = [&](int n) {
    return [&calls, n] {
      ++calls;
      return rotation_text(n);
    };
  };
  kernel_function("rot_8", 0, gen(8), rotation_name(8));
  kernel_function("rot_16", 0, gen(16), rotation_name(16));
  kernel_function("rot_8_again", 0, gen(8), rotation_name(8));
  kernel_function("rot_8", 0, gen(8), rotation_name(8));  // lookup hit: no generator
  if (calls != count_calls_expected) throw std::runtime_error("generator ran " + std::to_string(calls) + " times");
}

TEST_F(KernelCache, OneFilePerDistinctSourceAndAWarmProcessCompilesNothing) {
  ASSERT_EQ(child::run([] { rotations(3); }), 0);
  EXPECT_EQ(files().size(), 2u);
  for (const auto& f : files()) {
    EXPECT_GT(fs::file_size(f), 0u);
    EXPECT_TRUE(f.filename().string().ends_with(".hsaco")) << f;
    EXPECT_EQ(f.filename().string()[16], '_') << f;
  }
  // Without any hipRTC a second process can only have read the files.
  setenv("ONDREL_HIPRTC_PATH", "/nonexistent/libhiprtc.so", 1);
  EXPECT_EQ(child::run([] { rotations(3); }), 0);
  EXPECT_EQ(files().size(), 2u);
}

TEST_F(KernelCache, FileNameIsTheHashOfTextAndNameWithTheArchitecture) {
  const std::string text = rotation_text(8), name = rotation_name(8);
  ASSERT_EQ(child::run([&] {
              ondrel::select_device(0);
              ondrel::compile_function(0, text, name);
              const fs::path expected = ondrel::cache_path(ondrel::kernel_hash(text, name), ondrel::arch_tag(0));
              if (!fs::exists(expected)) throw std::runtime_error("missing " + expected.string());
            }),
            0);
}

TEST_F(KernelCache, EmptyAndCorruptFilesAreReplaced) {
  const std::string text = rotation_text(32), name = rotation_name(32);
  for (const std::string& content : {std::string(), std::string("\x7f" "ELF truncated", 14)}) {
    ASSERT_EQ(child::run([&] {
                ondrel::select_device(0);
                const std::string path =
                    ondrel::cache_path(ondrel::kernel_hash(text, name), ondrel::arch_tag(0));
                std::ofstream(path, std::ios::binary) << content;
                ondrel::compile_function(0, text, name);
                if (fs::file_size(path) <= content.size()) throw std::runtime_error("file was not replaced");
              }),
              0);
  }
}

TEST_F(KernelCache, TwoKeysWithOneTextShareOneFunction) {
  ASSERT_EQ(child::run([] {
              ondrel::select_device(0);
              auto gen = [] { return rotation_text(8); };
              if (kernel_function("a", 0, gen, rotation_name(8)) != kernel_function("b", 0, gen, rotation_name(8)))
                throw std::runtime_error("two functions for one text");
            }),
            0);
}

TEST_F(KernelCache, CompileErrorCarriesTheLogAndStoresNothing) {
  ASSERT_EQ(child::run([] {
              ondrel::select_device(0);
              try {
                kernel_function("bad", 0, [] { return std::string("extern \"C\" __global__ void k() { int x = ; }\n"); },
                                "k");
              } catch (const std::runtime_error& e) {
                const std::string msg = e.what();
                if (msg.starts_with("ondrel kernel compile failed:\n") && msg.find("error") != std::string::npos)
                  return;
                throw std::runtime_error("unexpected text: " + msg);
              }
              throw std::runtime_error("no error");
            }),
            0);
  EXPECT_TRUE(files().empty());
}

TEST_F(KernelCache, MissingEntryFunctionIsAHipError) {
  ASSERT_EQ(child::run([] {
              ondrel::select_device(0);
              try {
                kernel_function("rot", 0, [] { return rotation_text(8); }, "ondrel_absent");
              } catch (const std::runtime_error& e) {
                const std::string msg = e.what();
                if (msg.find(": ::ondrel::hip_dl::api().ModuleGetFunction(&fn, mod, name.c_str()) failed: ") !=
                    std::string::npos)
                  return;
                throw std::runtime_error("unexpected text: " + msg);
              }
              throw std::runtime_error("no error");
            }),
            0);
}

TEST_F(KernelCache, UnwritableFolderStillWorks) {
  std::ofstream(dir / "plain_file") << "x";
  setenv("ONDREL_CACHE_DIR", (dir / "plain_file" / "below").c_str(), 1);
  for (int run = 0; run < 2; ++run) EXPECT_EQ(child::run([] { rotations(3); }), 0);
}

// A kernel written through the writer, compiled, launched through the
// checked launch, against the rotation computed on the host in double.
template <class T>
double rotation_error(int n, int rows, unsigned seed) {
  ondrel::select_device(0);
  const int prec = sizeof(T) == 8 ? 2 : 1;
  auto fn = kernel_function("rot_" + std::to_string(n) + "_" + std::to_string(prec), 0,
                            [&] { return rotation_text(n, prec); }, rotation_name(n, prec));
  std::mt19937 rng(seed);
  std::normal_distribution<double> g;
  std::vector<std::complex<T>> x(size_t(n) * rows), y(x.size());
  for (auto& v : x) v = {T(g(rng)), T(g(rng))};
  const size_t bytes = x.size() * sizeof x[0];
  ondrel::DeviceBuffer dx(bytes, nullptr), dy(bytes, nullptr);
  const auto& hip = ondrel::hip_dl::api();
  ONDREL_HIP_CHECK(hip.MemcpyHtoD(dx.p, x.data(), bytes));
  void* args[] = {&dx.p, &dy.p};
  ondrel::launch_kernel(fn, (n + 255) / 256, rows, 256, 0, args, rotation_name(n, prec), nullptr);
  ONDREL_HIP_CHECK(hip.MemcpyDtoH(y.data(), dy.p, bytes));
  double err = 0, ref = 0;
  for (int r = 0; r < rows; ++r)
    for (int k = 0; k < n; ++k) {
      const std::complex<double> xv(x[r * n + k]), w = std::polar(1.0, -2 * M_PI * k / n);
      err += std::norm(std::complex<double>(y[r * n + k]) - xv * w);
      ref += std::norm(xv * w);
    }
  return std::sqrt(err / ref);
}

TEST_F(KernelCache, LaunchedKernelGivesTheRightNumbers) {
  const unsigned seed = std::random_device{}();
  SCOPED_TRACE("seed " + std::to_string(seed));
  EXPECT_EQ(child::run([seed] {
              for (int n : {1, 7, 300}) {
                if (const double e = rotation_error<float>(n, 3, seed); !(e < 2e-6))
                  throw std::runtime_error("float error " + std::to_string(e));
                if (const double e = rotation_error<double>(n, 2, seed); !(e < 1e-14))
                  throw std::runtime_error("double error " + std::to_string(e));
              }
            }),
            0);
}

TEST_F(KernelCache, AnotherArchitecturesObjectUnderThisName_IsCompiledAgainAndReplaced) {
  const unsigned seed = 11;
  const std::string text = rotation_text(8), name = rotation_name(8);
  ASSERT_EQ(child::run([] { rotation_error<float>(8, 2, seed); }), 0);
  // The same kernel's object as another architecture would have stored it.
  ASSERT_EQ(child::run([&] {
              ondrel::select_device(0);
              const uint64_t hash = ondrel::kernel_hash(text, name);
              const std::string path = ondrel::cache_path(hash, ondrel::arch_tag(0));
              std::ifstream in(path, std::ios::binary);
              std::vector<char> image((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
              if (!ondrel::unwrap_cache_image(image, hash, ondrel::arch_tag(0)))
                throw std::runtime_error("the stored file is not valid");
              const std::vector<char> foreign = ondrel::cache_image(image, hash, "gfx942");
              std::ofstream(path, std::ios::binary).write(foreign.data(), static_cast<std::streamsize>(foreign.size()));
            }),
            0);
  const auto right = [seed] {
    if (const double e = rotation_error<float>(8, 2, seed); !(e < 2e-6))
      throw std::runtime_error("float error " + std::to_string(e));
  };
  EXPECT_EQ(child::run(right), 0);
  // Replaced by a valid file: a process without any hipRTC finds it.
  setenv("ONDREL_HIPRTC_PATH", "/nonexistent/libhiprtc.so", 1);
  EXPECT_EQ(child::run(right), 0);
  unsetenv("ONDREL_HIPRTC_PATH");
}

TEST_F(KernelCache, WhileOneKernelIsWrittenAndCompiled_OthersAreFoundAndCompiled) {
  ASSERT_EQ(child::run([] {
              ondrel::select_device(0);
              const auto compiled = kernel_function("rot_8", 0, [] { return rotation_text(8); }, rotation_name(8));
              std::promise<void> started, release;
              auto held = std::async(std::launch::async, [&] {
                ondrel::select_device(0);
                return kernel_function("rot_16", 0, [&] {
                  started.set_value();
                  release.get_future().wait();  // the generator of a cold kernel, held
                  return rotation_text(16);
                }, rotation_name(16));
              });
              started.get_future().wait();
              auto others = std::async(std::launch::async, [&] {
                ondrel::select_device(0);
                for (int i = 0; i < 1000; ++i)
                  if (kernel_function("rot_8", 0, [] { return std::string(); }, rotation_name(8)) != compiled)
                    throw std::runtime_error("another function for a compiled key");
                return kernel_function("rot_32", 0, [] { return rotation_text(32); }, rotation_name(32));
              });
              const bool finished = others.wait_for(std::chrono::minutes(2)) == std::future_status::ready;
              release.set_value();
              if (!finished) throw std::runtime_error("a held compile stalled the other thread");
              if (!others.get() || !held.get()) throw std::runtime_error("no function");
            }),
            0);
}

TEST(PoolOnCpuRuntime, OutOfMemoryGivesUpCachedBlocksAndRetries) {
  ASSERT_EQ(child::run([] {
              ondrel::select_device(0);
              void* lib = dlopen(std::getenv("ONDREL_HIP_PATH"), RTLD_NOW);
              auto set_capacity = reinterpret_cast<void (*)(size_t)>(dlsym(lib, "ondrel_cpu_set_memory_capacity"));
              auto in_use = reinterpret_cast<size_t (*)()>(dlsym(lib, "ondrel_cpu_memory_in_use"));
              set_capacity(size_t{3} << 20);
              auto& pool = ondrel::device_pool();
              void* const s1 = reinterpret_cast<void*>(1);
              void* const s2 = reinterpret_cast<void*>(2);
              pool.free(pool.alloc(size_t{2} << 20, s1), s1);
              void* p = pool.alloc(size_t{3} << 19, s2);  // does not fit beside the cached block
              if (in_use() != size_t{3} << 19) throw std::runtime_error("cached block still held");
              pool.free(p, s2);
              try {
                pool.alloc(size_t{4} << 20, s2);
              } catch (const std::runtime_error& e) {
                if (std::string(e.what()).find("r [memAlloc] failed: ") != std::string::npos) return;
                throw;
              }
              throw std::runtime_error("over capacity but no error");
            }),
            0);
}

}  // namespace
