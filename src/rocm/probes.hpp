#pragma once
// Counters that let a test see, without a device of its own, whether a call
// wrote kernel text or kept device blocks: a search that refuses a shape
// must leave both where they were.
#include <cstdint>
#include <string>
#include <utility>
#include <vector>

namespace ondrel {

// Kernel texts written on lookup misses since the process began.
uint64_t kernels_generated();

// While on, every text written is also kept as (key, text); taking them
// empties the list.
void keep_kernel_texts(bool on);
std::vector<std::pair<std::string, std::string>> take_kernel_texts();

// Device blocks handed out by the pool and not yet given back to it.
int64_t device_blocks_live();

}  // namespace ondrel
