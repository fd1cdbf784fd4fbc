// Fibers on POSIX ucontext, for where Boost.Context is missing. Each fiber
// slot owns a stack from the host thread's pool for the thread's life, with a
// context on it that makecontext starts once and that then runs one body
// after another: between bodies it is parked. Switches save and restore
// registers with _setjmp and _longjmp, which keep away from the signal mask;
// swapcontext would make a system call for it at every switch.
#pragma once
#include <setjmp.h>

#include <vector>

#include "hip/sanitizer_fibers.hpp"

namespace ondrel_cpu {

class Fibers {
 public:
  using Body = unsigned (*)(void* owner, unsigned slot);
  static constexpr const char* kKind = "ucontext";

  void start(unsigned n, Body body, void* owner);
  void switch_to(unsigned from, unsigned to);

 private:
  struct Context {
    jmp_buf at;  // where the slot goes on: in its body, or parked before the next one
  };

  Context& context(unsigned slot) { return slot == n_ ? host_ : slot_[slot]; }
  void jump(unsigned from, unsigned to, bool parking);
  void make_context(unsigned slot);
  [[noreturn]] static void run_bodies();

  Body body_ = nullptr;
  void* owner_ = nullptr;
  unsigned n_ = 0, from_ = 0;
  std::vector<Context> slot_;  // every context made so far on this host thread
  Context host_;
  StackNotes notes_;
};

}  // namespace ondrel_cpu
