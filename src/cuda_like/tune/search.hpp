#pragma once
// One tuner's search over its candidate list on the null stream of the
// current device: the default route's output first, then for each candidate
// a run into poisoned scratch checked against it, and only then its timing
// (cold-cache samples, the minimum kept). A candidate that throws or gives
// other numbers is passed over; the caller hears of every candidate.
#include <cstddef>
#include <cstdint>
#include <functional>
#include <string>
#include <vector>

#include "cuda_like/tune/candidates.hpp"

namespace ondrel {

// What the progress hook hears after each candidate.
struct TuneProgress {
  std::string tuner;  // the tuner's name, with the direction for the FFTs
  int32_t index = 0;  // of the candidate, from 0
  int32_t total = 0;
  TuneEntry entry{};
  double ms = 0;       // its time, when reason is empty
  std::string reason;  // why it was skipped or rejected
};

// Called between candidates; whatever it throws ends the search, scratch
// given back first.
using ProgressFn = std::function<void(const TuneProgress&)>;

struct Search {
  std::string tuner;
  std::vector<TuneEntry> candidates;
  // Enqueues the operation under `entry` with `out` as its output, on the
  // null stream; the zero entry is the default route.
  std::function<void(const TuneEntry& entry, void* out)> run;
  size_t out_bytes = 0;
  int storage = 1;         // element of the output: 0 half, 1 single, 2 double
  double tolerance = 0;    // relative L2 a candidate may differ from the default
  int32_t iters = 50;
  int32_t warmup = 10;
};

// The winner, or zeros and 1e30 when nothing could be verified or timed.
BestCandidate search(const Search& s, int device, const ProgressFn& progress);

// After a step that threw: raises the device's own error when it can no
// longer clear a few bytes and synchronise (a sticky fault), which must end
// a tuner instead of passing for one more failed candidate.
void check_device_alive(int device);

// Relative L2 tolerance of a tuner's precision code: 2 double, 0 half
// storage, 3 half arithmetic, anything else single.
double tune_tolerance(int32_t prec);

// "<tuner>: iters must be at least 1" and the like, before any device work.
void check_counts(const char* tuner, int32_t iters, int32_t warmup);

// Tests only: the candidate of this index (-1 none) has its verification
// output overwritten, as a kernel that computes wrong numbers would leave it.
void corrupt_candidate(int32_t index);

}  // namespace ondrel
