#pragma once
// What tests watch of the launch road: how often a family's launch table was
// consulted, and which kernel ran last, so that a hint can be seen to reach
// the call it names.
#include <cstdint>
#include <string>

namespace ondrel {

// Lookups and stores in any family's launch table since the process began.
uint64_t launch_table_touches();

// While on, every launch remembers its kernel key; off by default so the hot
// path copies nothing.
void watch_launch_keys(bool on);
std::string last_launch_key();

}  // namespace ondrel
