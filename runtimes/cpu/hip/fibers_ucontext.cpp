// _FORTIFY_SOURCE turns _longjmp into a checked call that refuses to jump to
// another stack, which is what every switch here does.
#undef _FORTIFY_SOURCE

#include "hip/fibers_ucontext.hpp"

#include <ucontext.h>

namespace ondrel_cpu {
namespace {

// The Fibers object whose new context runs its first instructions: makecontext
// passes only int arguments.
thread_local Fibers* starting = nullptr;

}  // namespace

void Fibers::start(unsigned n, Body body, void* owner) {
  body_ = body;
  owner_ = owner;
  n_ = n;
  notes_.resize(n);
  while (slot_.size() < n) make_context(static_cast<unsigned>(slot_.size()));
}

void Fibers::switch_to(unsigned from, unsigned to) { jump(from, to, false); }

// `parking`: `from` has finished a body, and what wakes it starts the next.
void Fibers::jump(unsigned from, unsigned to, bool parking) {
  from_ = from;
  notes_.leave(from, to, parking);
  if (_setjmp(context(from).at) == 0) _longjmp(context(to).at, 1);
  if (parking) {
    notes_.enter(from_);
  } else {
    notes_.arrive(from);
  }
}

// Runs the new context up to its first park and comes back.
void Fibers::make_context(unsigned slot) {
  const Stack stack = StackPool::local().take();
  slot_.emplace_back();
  notes_.set(slot, stack);
  ucontext_t first;
  getcontext(&first);
  first.uc_stack.ss_sp = stack.bottom();
  first.uc_stack.ss_size = stack.size;
  first.uc_link = nullptr;
  makecontext(&first, run_bodies, 0);
  starting = this;
  from_ = n_;
  notes_.leave(n_, slot, false);
  if (_setjmp(host_.at) == 0) setcontext(&first);
  notes_.arrive(n_);
}

// The life of one fiber slot: park, run the body it is woken for, and park
// again on the way to the slot that the body names. The first park returns
// to make_context on the host.
void Fibers::run_bodies() {
  Fibers& self = *starting;
  const unsigned slot = static_cast<unsigned>(self.slot_.size()) - 1;
  self.notes_.enter(self.from_);
  for (unsigned next = self.n_;; next = self.body_(self.owner_, slot)) self.jump(slot, next, true);
}

}  // namespace ondrel_cpu
