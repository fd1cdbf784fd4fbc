#pragma once
// The multirate constant-Q transform between device addresses. The signal
// is halved in rate level by level with the half-band filter; each octave
// reads its level, zero-padded by n_fft / 2 on both sides, and applies its
// complex basis to the frames' spectra: in one kernel where the octave's FFT
// fits one block (the spectrum kept in shared memory), otherwise through
// the STFT and a band-sum kernel. Output (batch, n_bins, frames), frames
// fastest. One template over the compute type; half data at the ends only.
#include <cstdint>
#include <vector>

#include "codegen/cqt_kernels.hpp"
#include "cuda_like/launch/launch_record.hpp"
#include "cuda_like/ops/cqt_plan.hpp"
#include "rocm/device_pool.hpp"

namespace ondrel {

// The route of an octave: the tuner forces one; otherwise a "cqt" hint with
// core 1 means staged, and anything else tries the fused kernel.
enum class CqtRoute : int { automatic = -1, fused = 0, staged = 1 };

struct CqtForward {
  CqtCall call;
  const void* x = nullptr;  // batch x length, half for prec 0
  void* out = nullptr;      // batch x n_bins x frames
  CqtRoute forced = CqtRoute::automatic;
};

// Enqueues the transform on the call's stream; returns the route each
// octave took, in list order (empty when there was nothing to compute).
std::vector<CqtRoute> cqt(const CqtForward& f);

// The route and the fused plan of octave `o` over a level of `len` samples,
// decided exactly as cqt() decides it under `shared_limit`.
struct OctaveRoute {
  CqtRoute route = CqtRoute::staged;
  codegen::StftPlan plan;  // the fused kernel's, when fused
};
OctaveRoute octave_route(const CqtCall& c, const CqtOctave& o, int64_t len, uint64_t shared_limit, CqtRoute forced);

// The compute digit and the output form of a call.
codegen::CqtForm cqt_form(const CqtCall& c);

// Every kernel of the call's own steps (the staged route's STFT lists its own).
std::vector<KernelPlan> cqt_kernels(const CqtCall& c, uint64_t shared_limit);

// What the adjoint shares.
KernelPlan hbdec_plan(int compute, int storage);
// out (batch x on) = the half-band decimation of in (batch x n).
void decimate(const LaunchRecord& k, const void* in, void* out, const void* taps, int64_t batch, int64_t n, void* stream);
// The level `cur` of `len` samples zero-padded by n_fft / 2 on both sides.
template <class T>
DeviceBuffer padded_level(const CqtCall& c, const CqtOctave& o, const void* cur, int64_t len, bool half_input,
                          int device);
// The complex spectra (batch x nfl x nb of T) of a padded level, through the
// STFT; with `knobs`, that STFT neither reads nor keeps launch records.
template <class T>
DeviceBuffer octave_spectra(const CqtCall& c, const CqtOctave& o, const void* padded, int64_t plen,
                            const TuneEntry* knobs = nullptr);
// Grid blocks of 256 threads over `count` elements.
unsigned flat_blocks(int64_t count);

}  // namespace ondrel
