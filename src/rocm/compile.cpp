#include "rocm/compile.hpp"

#include <unistd.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <mutex>
#include <stdexcept>
#include <utility>
#include <vector>

#include "rocm/cache_file.hpp"
#include "rocm/context.hpp"
#include "rocm/once_map.hpp"
#include "rocm/probes.hpp"

namespace fs = std::filesystem;

namespace ondrel {

namespace {

using hip_dl::hipFunction_t;

// Kernels by key and device: the table every operation's first call meets.
OnceMap<std::string, hipFunction_t>& lookup_cache() {
  static auto& cache = *new OnceMap<std::string, hipFunction_t>;
  return cache;
}

std::atomic<uint64_t>& texts_written() {
  static std::atomic<uint64_t> count{0};
  return count;
}

// Texts kept while a test watches, so that it can put them through another
// compiler.
struct KeptTexts {
  std::mutex lock;
  bool on = false;
  std::vector<std::pair<std::string, std::string>> texts;
};

KeptTexts& kept_texts() {
  static auto& kept = *new KeptTexts;
  return kept;
}

std::string kept(const std::string& key, std::string text) {
  KeptTexts& k = kept_texts();
  std::lock_guard guard(k.lock);
  if (k.on) k.texts.emplace_back(key, text);
  return text;
}

// Kernels by device, name and text: two keys of one text share a module.
OnceMap<std::string, hipFunction_t>& compile_cache() {
  static auto& cache = *new OnceMap<std::string, hipFunction_t>;
  return cache;
}

fs::path cache_base() {
  if (const char* dir = std::getenv("ONDREL_CACHE_DIR"); dir && *dir) return dir;
  return fs::temp_directory_path() / "ondrel_cache";
}

// The whole file, or nothing when it cannot be read or is larger than any
// code object this cache writes.
std::vector<char> read_file(const std::string& path) {
  constexpr std::uintmax_t kLargest = std::uintmax_t{1} << 30;
  std::error_code ec;
  const std::uintmax_t size = fs::file_size(path, ec);
  if (ec || size == 0 || size > kLargest) return {};
  std::vector<char> image(static_cast<size_t>(size));
  std::ifstream in(path, std::ios::binary);
  if (!in.read(image.data(), static_cast<std::streamsize>(image.size())) || in.peek() != EOF) return {};
  return image;
}

// A usable function from the cache file of kernel `hash`, or null: anything
// but the code object that this kernel compiled to for `arch` just means
// "compile again". Only a checked object reaches the runtime, since a
// damaged one can crash the runtime's loader or load the wrong kernel.
hipFunction_t load_cached(const std::string& path, uint64_t hash, const std::string& arch, const std::string& name) {
  std::vector<char> code = read_file(path);
  if (!unwrap_cache_image(code, hash, arch)) return nullptr;
  hip_dl::hipModule_t mod = nullptr;
  hipFunction_t fn = nullptr;
  const auto& hip = hip_dl::api();
  if (hip.ModuleLoadData(&mod, code.data()) != hip_dl::hipSuccess) return nullptr;
  if (hip.ModuleGetFunction(&fn, mod, name.c_str()) != hip_dl::hipSuccess) return nullptr;
  return fn;
}

// Readers never see a half-written file: the image goes to a private
// temporary first and is renamed over the final name only when complete.
void store_atomically(const std::string& path, const std::vector<char>& image) {
  static std::atomic<unsigned long long> sequence{0};
  const std::string tmp = path + ".tmp" + std::to_string(getpid()) + "_" + std::to_string(sequence++);
  std::ofstream out(tmp, std::ios::binary);
  if (!out) return;
  out.write(image.data(), static_cast<std::streamsize>(image.size()));
  out.close();
  std::error_code ec;
  if (out) {
    fs::rename(tmp, path, ec);
  } else {
    fs::remove(tmp, ec);  // a full disk: no partial file stays behind
  }
}

// Owns a hipRTC program from creation to every way out.
struct Program {
  const hip_dl::RtcApi& rtc;
  hip_dl::hiprtcProgram prog = nullptr;
  ~Program() {
    if (prog) rtc.DestroyProgram(&prog);
  }
};

std::vector<char> compile_code(const std::string& source, const std::string& name) {
  const hip_dl::RtcApi* api = hip_dl::hiprtc_api();
  if (!api)
    throw std::runtime_error(
        "ondrel: no usable hipRTC library (libhiprtc); set ONDREL_HIPRTC_PATH to the library");
  const hip_dl::RtcApi& rtc = *api;
  Program program{rtc};
  hip_dl::hiprtcProgram& prog = program.prog;
  ONDREL_RTC_CHECK(rtc.CreateProgram(&prog, source.c_str(), (name + ".hip").c_str(), 0, nullptr, nullptr));

  std::vector<std::string> options;
  if (const char* inc = std::getenv("ONDREL_HIP_INCLUDE"); inc && *inc) options.push_back(std::string("-I") + inc);
  std::vector<const char*> argv;
  for (const std::string& o : options) argv.push_back(o.c_str());
  if (rtc.CompileProgram(prog, static_cast<int>(argv.size()), argv.data()) != 0) {
    size_t log_size = 0;
    rtc.GetProgramLogSize(prog, &log_size);
    std::string log(log_size, '\0');
    if (log_size) rtc.GetProgramLog(prog, log.data());
    if (!log.empty() && log.back() == '\0') log.pop_back();
    throw std::runtime_error("ondrel kernel compile failed:\n" + log);
  }
  size_t codeSize = 0;
  ONDREL_RTC_CHECK(rtc.GetCodeSize(prog, &codeSize));
  std::vector<char> code(codeSize);
  ONDREL_RTC_CHECK(rtc.GetCode(prog, code.data()));
  return code;
}

}  // namespace

uint64_t kernel_hash(const std::string& source, const std::string& name) {
  uint64_t h = 0x14650fb0739d0383ull;
  auto mix = [&h](unsigned char c) {
    h ^= c;
    h *= 0x100000001b3ull;
  };
  for (unsigned char c : source) mix(c);
  mix('\n');
  for (unsigned char c : name) mix(c);
  return h;
}

std::string cache_path(uint64_t hash, const std::string& arch) {
  const fs::path dir = cache_base() / "kernels";
  std::error_code ec;
  fs::create_directories(dir, ec);
  char file[64 + 256];
  std::snprintf(file, sizeof file, "%016llx_%s.hsaco", static_cast<unsigned long long>(hash), arch.c_str());
  return (dir / file).string();
}

hipFunction_t compile_function(int device, const std::string& source, const std::string& name) {
  const std::string compile_key = std::to_string(device) + '\x01' + name + '\x01' + source;
  return compile_cache().get(compile_key, [&] {
    const std::string arch = arch_tag(device);
    const uint64_t hash = kernel_hash(source, name);
    const std::string path = cache_path(hash, arch);
    if (hipFunction_t fn = load_cached(path, hash, arch, name)) return fn;

    const std::vector<char> code = compile_code(source, name);
    store_atomically(path, cache_image(code, hash, arch));

    hip_dl::hipModule_t mod = nullptr;
    if (const hip_dl::hipError_t r = hip_dl::api().ModuleLoadData(&mod, code.data()); r != hip_dl::hipSuccess)
      throw std::runtime_error("hipModuleLoadData failed for " + name + " (" + std::to_string(code.size()) +
                               "-byte code object compiled for " + arch + "): " + hip_error_text(r));
    hipFunction_t fn = nullptr;
    ONDREL_HIP_CHECK(::ondrel::hip_dl::api().ModuleGetFunction(&fn, mod, name.c_str()));
    return fn;
  });
}

hipFunction_t kernel_function(const std::string& key, int device, const std::function<std::string()>& generator,
                              const std::string& name) {
  // Formed in a buffer each thread keeps: a hit allocates nothing.
  thread_local std::string lookup_key;
  lookup_key.assign(key).append("#").append(name).append("#d").append(std::to_string(device));
  return lookup_cache().get(lookup_key, [&] {
    texts_written().fetch_add(1);
    return compile_function(device, kept(key, generator()), name);
  });
}

uint64_t kernels_generated() { return texts_written().load(); }

void keep_kernel_texts(bool on) {
  KeptTexts& k = kept_texts();
  std::lock_guard guard(k.lock);
  k.on = on;
}

std::vector<std::pair<std::string, std::string>> take_kernel_texts() {
  KeptTexts& k = kept_texts();
  std::lock_guard guard(k.lock);
  return std::exchange(k.texts, {});
}

}  // namespace ondrel
