// The execution contexts of the block that a host thread runs, and the
// switches among them. Slots 0 to n-1 are the block's GPU threads, slot n
// the host thread's own context. Two implementations, chosen when the
// runtime is configured (ONDREL_CPU_FIBERS): Boost.Context's fibers, or
// POSIX ucontext where Boost.Context is missing. Each is a class `Fibers`
// with
//
//   using Body = unsigned (*)(void* owner, unsigned slot);
//   static constexpr const char* kKind;   // "boost" or "ucontext"
//   void start(unsigned n, Body body, void* owner);
//       Called from the host context: slots 0 to n-1 will each run
//       body(owner, slot) when first switched to. A body returns the slot
//       that its host thread goes on in; its own slot is then never resumed.
//       Throws std::bad_alloc when no stack can be had.
//   void switch_to(unsigned from, unsigned to);
//       From the running slot `from` to `to`; returns when some slot
//       switches back to `from`.
#pragma once

#if defined(ONDREL_CPU_FIBERS_BOOST)
#include "hip/fibers_boost.hpp"
#elif defined(ONDREL_CPU_FIBERS_UCONTEXT)
#include "hip/fibers_ucontext.hpp"
#else
#error "the CPU runtime is configured with ONDREL_CPU_FIBERS_BOOST or ONDREL_CPU_FIBERS_UCONTEXT"
#endif
