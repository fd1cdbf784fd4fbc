#include "rtc/host_compiler.hpp"

#include <spawn.h>
#include <fcntl.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <sstream>
#include <system_error>

#include "common/code_seal.hpp"

extern char** environ;

namespace ondrel_cpu {
namespace fs = std::filesystem;
namespace {

// A private folder for one compile, removed on every way out.
class ScratchDir {
 public:
  ScratchDir() {
    std::string tmpl = (fs::temp_directory_path() / "ondrel_cpu_rtc_XXXXXX").string();
    if (mkdtemp(tmpl.data()) == nullptr) throw std::system_error(errno, std::generic_category(), "mkdtemp");
    path_ = tmpl;
  }
  ~ScratchDir() {
    std::error_code ignored;
    fs::remove_all(path_, ignored);
  }
  ScratchDir(const ScratchDir&) = delete;
  ScratchDir& operator=(const ScratchDir&) = delete;
  const fs::path& path() const { return path_; }

 private:
  fs::path path_;
};

void write_file(const fs::path& path, const std::string& text) {
  fs::create_directories(path.parent_path());
  std::ofstream f(path, std::ios::binary);
  f << text;
  if (!f) throw std::runtime_error("cannot write " + path.string());
}

// Runs argv with stdout and stderr into `log`; returns the exit status, or -1
// when the program could not be started.
int run(const std::vector<std::string>& argv, const fs::path& log_path, std::string& log) {
  std::vector<char*> args;
  for (const std::string& a : argv) args.push_back(const_cast<char*>(a.c_str()));
  args.push_back(nullptr);
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  posix_spawn_file_actions_addopen(&actions, 1, log_path.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
  posix_spawn_file_actions_adddup2(&actions, 1, 2);
  pid_t pid = 0;
  const int started = posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), environ);
  posix_spawn_file_actions_destroy(&actions);
  if (started != 0) {
    log = "cannot run the C++ compiler '" + argv[0] + "': " + std::strerror(started) + "\n";
    return -1;
  }
  int status = 0;
  while (waitpid(pid, &status, 0) < 0 && errno == EINTR) {
  }
  std::ifstream f(log_path, std::ios::binary);
  log.assign(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace

CompileResult compile_unit(const std::string& unit,
                           const std::vector<std::pair<std::string, std::string>>& headers,
                           const std::vector<std::string>& options) {
  ScratchDir dir;
  const fs::path source = dir.path() / "unit.cpp";
  const fs::path object = dir.path() / "unit.so";
  write_file(source, unit);
  // Kernels written for HIP may include its headers; the device header has
  // already supplied what they declare. The caller's headers come after and win.
  for (const char* hip_header : {"hip/hip_runtime.h", "hip/hip_fp16.h"}) {
    write_file(dir.path() / "include" / hip_header, "");
  }
  for (const auto& [name, text] : headers) write_file(dir.path() / "include" / name, text);

  const char* cxx = std::getenv("ONDREL_CPU_CXX");
  std::vector<std::string> argv = {cxx && *cxx ? cxx : "c++", "-std=c++17", "-O2", "-fPIC", "-shared",
                                   "-fno-math-errno", "-fvisibility=hidden", "-x", "c++"};
  // In-memory headers first, then the caller's -I folders.
  argv.push_back("-I" + (dir.path() / "include").string());
  for (size_t i = 0; i < options.size(); ++i) {
    const std::string& o = options[i];
    const bool takes_next = (o == "-I" || o == "-D") && i + 1 < options.size();
    if (takes_next) {
      argv.push_back(o + options[++i]);
    } else if (o.rfind("-I", 0) == 0 || o.rfind("-D", 0) == 0) {
      argv.push_back(o);
    }
  }
  argv.insert(argv.end(), {source.string(), "-o", object.string()});

  CompileResult result;
  const int status = run(argv, dir.path() / "log.txt", result.log);
  if (status != 0) return result;
  std::ifstream f(object, std::ios::binary);
  result.code.assign(std::istreambuf_iterator<char>(f), std::istreambuf_iterator<char>());
  result.ok = !result.code.empty();
  if (result.ok) {
    result.code = sealed_object(result.code);
  } else {
    result.log += "the compiler wrote no shared object\n";
  }
  return result;
}

}  // namespace ondrel_cpu
