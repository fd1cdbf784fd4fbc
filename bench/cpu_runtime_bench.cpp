// Costs of the CPU runtime that bound every kernel test: one barrier round of
// a 256-thread block, the launch of an empty kernel, and the compile of a
// generated kernel of about 200 lines.
//   build: cmake -S . -B build/bench -DONDREL_BUILD_MODULE=OFF -DONDREL_CPU_BENCH=ON && cmake --build build/bench --target cpu_runtime_bench
//          (add -DONDREL_CPU_FIBERS=boost or ucontext to measure one kind of fibers)
//   run:   build/bench/runtimes/cpu/cpu_runtime_bench
#include <algorithm>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "ondrel_cpu/hip.h"
#include "ondrel_runtime/hiprtc.h"

namespace {

using Clock = std::chrono::steady_clock;

void check(int result, const char* what) {
  if (result != 0) {
    std::fprintf(stderr, "%s failed with %d\n", what, result);
    std::exit(1);
  }
}

std::string compile(const std::string& text, const std::string& name) {
  hiprtcProgram prog = nullptr;
  check(hiprtcCreateProgram(&prog, text.c_str(), (name + ".hip").c_str(), 0, nullptr, nullptr), "create");
  if (hiprtcCompileProgram(prog, 0, nullptr) != HIPRTC_SUCCESS) {
    size_t size = 0;
    hiprtcGetProgramLogSize(prog, &size);
    std::string log(size, '\0');
    hiprtcGetProgramLog(prog, log.data());
    std::fprintf(stderr, "%s\n", log.c_str());
    std::exit(1);
  }
  size_t size = 0;
  hiprtcGetCodeSize(prog, &size);
  std::string code(size, '\0');
  hiprtcGetCode(prog, code.data());
  hiprtcDestroyProgram(&prog);
  return code;
}

hipFunction_t load(const std::string& text, const std::string& name) {
  const std::string code = compile(text, name);
  hipModule_t module = nullptr;
  check(hipModuleLoadData(&module, code.data()), "hipModuleLoadData");
  hipFunction_t fn = nullptr;
  check(hipModuleGetFunction(&fn, module, name.c_str()), "hipModuleGetFunction");
  return fn;
}

// Seconds per call of `f`, the best of five batches of `reps`.
template <class F>
double best_seconds(int reps, F f) {
  double best = 1e30;
  for (int batch = 0; batch < 5; ++batch) {
    const auto t0 = Clock::now();
    for (int i = 0; i < reps; ++i) f();
    best = std::min(best, std::chrono::duration<double>(Clock::now() - t0).count() / reps);
  }
  return best;
}

// A kernel in the generators' style: straight-line radix-4 butterflies over
// a shared row of 4096, numbered temporaries, a barrier between stages.
std::string generated_kernel(int variant) {
  const int n = 4096, stages = 6;
  const std::string ns = std::to_string(n);
  std::string t =
      "typedef long long I64;\n#define TG \n#define DEV \ntypedef float2 cplx;\n"
      "__device__ __forceinline__ cplx cmk(float r, float i){cplx z;z.x=r;z.y=i;return z;}\n"
      "__device__ __forceinline__ cplx cadd(cplx a, cplx b){return cmk(a.x+b.x, a.y+b.y);}\n"
      "__device__ __forceinline__ cplx csub(cplx a, cplx b){return cmk(a.x-b.x, a.y-b.y);}\n"
      "__device__ __forceinline__ cplx cmul(cplx a, cplx b){return cmk(a.x*b.x - a.y*b.y, a.x*b.y + a.y*b.x);}\n"
      "typedef cplx iot;\n#define TPF 1024\n#define SHP(i) ((i)+((i)>>4))\n"
      "extern \"C\" __global__ void __launch_bounds__(256) ondrel_fft(const iot* __restrict__ x, iot* __restrict__ out, "
      "const cplx* __restrict__ tw, int nrows) {\n  extern __shared__ cplx shbuf[];\n"
      "  int tid = threadIdx.x % TPF;\n  long long batch = (long long)blockIdx.x + threadIdx.x / TPF;\n"
      "  long long brow = batch < nrows - 1 ? batch : nrows - 1;\n  cplx* bufA = shbuf;\n"
      "  const iot* xb = x + brow * " + ns + ";\n"
      "  for (int i = tid; i < " + ns + "; i += TPF) { iot v = xb[i]; bufA[SHP(i)] = cmk((float)v.x, (float)v.y); }\n"
      "  __syncthreads();\n";
  int id = 0;
  for (int stage = 0, ls = 1; stage < stages; ++stage, ls *= 4) {
    const std::string s = std::to_string(ls);
    t += "  {  // in-place radix-4 (Ls=" + s + ")\n  int t" + std::to_string(id) + " = tid;\n";
    const std::string tv = "t" + std::to_string(id++);
    t += "  int ii = " + tv + " % " + s + ", jj = " + tv + " / " + s + ";\n";
    std::vector<std::string> g;
    for (int k = 0; k < 4; ++k) {
      g.push_back("g" + std::to_string(id++));
      t += "  cplx " + g[k] + " = bufA[SHP(" + tv + " + " + std::to_string(n / 4 * k) + ")];\n";
    }
    t += "  __syncthreads();\n";
    if (ls > 1) {
      const std::string a = "a" + std::to_string(id++), c = "c" + std::to_string(id++), sn = "s" + std::to_string(id++);
      t += "  float " + a + " = (float)(" + std::to_string(-6.283185307179586 / (4 * ls) + variant * 1e-9) +
           ") * (float)(ii);\n  float " + c + ", " + sn + "; __sincosf(" + a + ", &" + sn + ", &" + c + ");\n";
      std::string w = "v" + std::to_string(id++);
      t += "  cplx " + w + " = cmk(" + c + ", " + sn + ");\n";
      std::string p = w;
      for (int k = 1; k < 4; ++k) {
        const std::string r = "v" + std::to_string(id++);
        t += "  cplx " + r + " = cmul(" + g[k] + ", " + p + ");\n";
        g[k] = r;
        if (k < 3) {
          const std::string np = "v" + std::to_string(id++);
          t += "  cplx " + np + " = cmul(" + p + ", " + w + ");\n";
          p = np;
        }
      }
    }
    auto op = [&](const char* f, const std::string& a, const std::string& b) {
      const std::string r = "v" + std::to_string(id++);
      t += "  cplx " + r + " = " + f + "(" + a + ", " + b + ");\n";
      return r;
    };
    const std::string s0 = op("cadd", g[0], g[2]), d0 = op("csub", g[0], g[2]);
    const std::string s1 = op("cadd", g[1], g[3]), d1 = op("csub", g[1], g[3]);
    const std::string rot = "v" + std::to_string(id++);
    t += "  cplx " + rot + " = cmk(" + d1 + ".y, -" + d1 + ".x);\n";
    const std::string y[4] = {op("cadd", s0, s1), op("cadd", d0, rot), op("csub", s0, s1), op("csub", d0, rot)};
    for (int k = 0; k < 4; ++k) {
      t += "  bufA[SHP(jj*" + std::to_string(4 * ls) + " + ii + " + std::to_string(k * ls) + ")] = " + y[k] + ";\n";
    }
    t += "  __syncthreads();\n  }\n";
  }
  t += "  if (batch >= nrows) return;\n";
  t += "  for (int i = tid; i < " + ns + "; i += TPF) { cplx r = bufA[SHP(i)]; out[batch * " + ns + " + i] = r; }\n}\n";
  return t;
}

}  // namespace

int main() {
  std::printf("fibers: %s\n", ondrel_cpu_fibers());
  // One barrier round: a 256-thread block crossing `rounds` barriers, less
  // the same launch with none.
  const std::string barrier_text =
      "extern \"C\" __global__ void ondrel_barriers(int rounds) {\n"
      "  for (int i = 0; i < rounds; ++i) __syncthreads();\n}\n";
  hipFunction_t barriers = load(barrier_text, "ondrel_barriers");
  auto launch_barriers = [&](int rounds) {
    void* args[] = {&rounds};
    check(hipModuleLaunchKernel(barriers, 1, 1, 1, 256, 1, 1, 0, nullptr, args, nullptr), "launch");
  };
  const int rounds = 2000;
  const double with = best_seconds(5, [&] { launch_barriers(rounds); });
  const double without = best_seconds(5, [&] { launch_barriers(0); });
  std::printf("barrier round, 256-thread block:         %8.3f us\n", (with - without) / rounds * 1e6);

  const std::string empty_text = "extern \"C\" __global__ void ondrel_empty() {}\n";
  hipFunction_t empty = load(empty_text, "ondrel_empty");
  for (unsigned threads : {1u, 256u}) {
    const double s = best_seconds(20000, [&] {
      check(hipModuleLaunchKernel(empty, 1, 1, 1, threads, 1, 1, 0, nullptr, nullptr, nullptr), "launch");
    });
    std::printf("empty kernel launch, 1 block x %4u:      %8.3f us\n", threads, s * 1e6);
  }
  std::printf("fiber launch, 1 block x 256, no barrier: %8.3f us\n", without * 1e6);

  const std::string sample = generated_kernel(0);
  const long lines = std::count(sample.begin(), sample.end(), '\n');
  int variant = 0;
  const double compile_s = best_seconds(1, [&] { compile(generated_kernel(++variant), "ondrel_fft"); });
  std::printf("compile of a %ld-line generated kernel:  %8.3f s\n", lines, compile_s);
  return 0;
}
