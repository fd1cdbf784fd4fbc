#pragma once
// Runs a test step in a forked process, so that each step meets the
// process-wide state (HIP tables, kernel caches) as a new process would.
// The parent must not have used the runtime before forking.
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <exception>
#include <functional>

namespace child {

// 0 when `step` returned normally; otherwise its exception text is printed
// and the status is 1.
inline int run(const std::function<void()>& step) {
  std::fflush(nullptr);
  const pid_t pid = fork();
  if (pid == 0) {
    int status = 0;
    try {
      step();
    } catch (const std::exception& e) {
      std::fprintf(stderr, "child step failed: %s\n", e.what());
      status = 1;
    }
    std::fflush(nullptr);
    _exit(status);
  }
  int status = 0;
  waitpid(pid, &status, 0);
  return WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
}

}  // namespace child
