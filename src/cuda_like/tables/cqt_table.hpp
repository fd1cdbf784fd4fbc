#pragma once
// A constant-Q plan's device tables: the half-band taps and, per octave, the
// basis and its band tables, in the compute type. Found by the plan's key
// together with the hash of every byte of its taps and bases, so that two
// plans under one key never compute with each other's tables. Kept for the
// life of the process, like every device table.
#include <cstdint>
#include <vector>

#include "cuda_like/ops/cqt_plan.hpp"

namespace ondrel {

struct CqtOctaveDevice {
  const void* br = nullptr;
  const void* bi = nullptr;
  const void* blo = nullptr;
  const void* bhi = nullptr;
  const void* klo = nullptr;
  const void* khi = nullptr;
};

struct CqtDevice {
  const void* taps = nullptr;
  std::vector<CqtOctaveDevice> octaves;  // in the plan's list order
};

// T is float or double. Built and uploaded on the first call for a plan.
template <class T>
const CqtDevice& cqt_device(const CqtPlan& plan);

}  // namespace ondrel
