// Tells AddressSanitizer about every stack switch among the slots of a block,
// so that it checks the right stack; nothing in other builds. Slots 0 to n-1
// are fiber stacks, whose bounds stay known from block to block; slot n is
// the host thread's own stack, learnt at the first switch away from it.
#pragma once
#include <cstddef>

#include "hip/stack_pool.hpp"

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/common_interface_defs.h>

#include <vector>
#endif

namespace ondrel_cpu {

#if defined(__SANITIZE_ADDRESS__)

class StackNotes {
 public:
  void resize(unsigned n) {
    if (slots_.size() < n) slots_.resize(n);
    host_ = n;
  }
  void set(unsigned slot, const Stack& s) { at(slot) = {s.bottom(), s.size, nullptr}; }

  // Before leaving `from` for `to`; `ending` when `from` will not be resumed
  // (its body has returned), so that its fake stack is dropped.
  void leave(unsigned from, unsigned to, bool ending) {
    const Bounds& next = at(to);
    __sanitizer_start_switch_fiber(ending ? nullptr : &at(from).fake, next.bottom, next.size);
  }
  // Back in `me`, which left through leave(me, ..., false).
  void arrive(unsigned me) { __sanitizer_finish_switch_fiber(at(me).fake, nullptr, nullptr); }
  // At the start of a body, coming from `from`.
  void enter(unsigned from) {
    Bounds& b = at(from);
    __sanitizer_finish_switch_fiber(nullptr, &b.bottom, &b.size);
  }

 private:
  struct Bounds {
    const void* bottom = nullptr;
    size_t size = 0;
    void* fake = nullptr;  // AddressSanitizer's saved state while the slot is switched away
  };
  Bounds& at(unsigned slot) { return slot == host_ ? host_bounds_ : slots_[slot]; }

  std::vector<Bounds> slots_;
  Bounds host_bounds_;
  unsigned host_ = 0;
};

#else

class StackNotes {
 public:
  void resize(unsigned) {}
  void set(unsigned, const Stack&) {}
  void leave(unsigned, unsigned, bool) {}
  void arrive(unsigned) {}
  void enter(unsigned) {}
};

#endif

}  // namespace ondrel_cpu
