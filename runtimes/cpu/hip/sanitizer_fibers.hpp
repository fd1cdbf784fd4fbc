// Tells AddressSanitizer about every stack switch, so that it checks the
// right stack; nothing in other builds.
#pragma once
#include <cstddef>

#if defined(__SANITIZE_ADDRESS__)
#include <sanitizer/common_interface_defs.h>
#endif

namespace ondrel_cpu {

// Before leaving the current stack; `save` is null when it will not return.
inline void start_stack_switch([[maybe_unused]] void** save, [[maybe_unused]] const void* bottom,
                               [[maybe_unused]] size_t size) {
#if defined(__SANITIZE_ADDRESS__)
  __sanitizer_start_switch_fiber(save, bottom, size);
#endif
}

// On arrival; reports the stack that was left.
inline void finish_stack_switch([[maybe_unused]] void* save, [[maybe_unused]] const void** old_bottom,
                                [[maybe_unused]] size_t* old_size) {
#if defined(__SANITIZE_ADDRESS__)
  __sanitizer_finish_switch_fiber(save, old_bottom, old_size);
#endif
}

}  // namespace ondrel_cpu
