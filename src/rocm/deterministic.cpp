#include "rocm/deterministic.hpp"

#include <atomic>

namespace ondrel {

namespace {
// One byte; relaxed order suffices because readers only copy it into a key.
std::atomic<unsigned char> deterministic_byte{0};
}  // namespace

void set_deterministic(bool on) { deterministic_byte.store(on ? 1 : 0, std::memory_order_relaxed); }

bool deterministic() { return deterministic_byte.load(std::memory_order_relaxed) != 0; }

}  // namespace ondrel
