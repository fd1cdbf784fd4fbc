// Failures that tests switch on, through exported functions or the
// environment (see ondrel_cpu/hip.h).
#pragma once
#include <atomic>

#include "ondrel_cpu/hip.h"

namespace ondrel_cpu {

class Fault {
 public:
  void arm(int count, hipError_t error) {
    error_.store(error);
    remaining_.store(count > 0 ? count : 0);
  }
  // hipSuccess, or the armed error while the count lasts.
  hipError_t take() {
    int left = remaining_.load();
    while (left > 0 && !remaining_.compare_exchange_weak(left, left - 1)) {
    }
    return left > 0 ? error_.load() : hipSuccess;
  }

 private:
  std::atomic<int> remaining_{0};
  std::atomic<hipError_t> error_{hipSuccess};
};

struct Faults {
  Fault malloc, launch, capture;
  std::atomic<int> device_count{1};
};

// Process-wide switches, first set from the environment.
Faults& faults();

}  // namespace ondrel_cpu
