// Device and pinned host memory: both are host memory here, but device blocks
// are counted against a capacity and every copy checks that its device range
// lies inside one live block.
#pragma once
#include <cstddef>

namespace ondrel_cpu {

// True when [p, p + bytes) lies inside one live device block.
bool device_range_ok(const void* p, size_t bytes);

}  // namespace ondrel_cpu
