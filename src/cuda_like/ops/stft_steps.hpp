#pragma once
// The host steps of the STFT that the operations built on it (the mel
// spectrogram, the spectral features, the constant-Q transform) take as
// they are: the argument checks and frame count, the precisions of a plan,
// the window table, and the staged path's frames and FFT.
#include <cstdint>
#include <string>
#include <vector>

#include "codegen/stft_staged_kernels.hpp"
#include "cuda_like/launch/launch_record.hpp"
#include "cuda_like/ops/stft.hpp"
#include "rocm/device_pool.hpp"

namespace ondrel {

constexpr unsigned kStagedBlock = 256;

int32_t pad_of(const StftRequest& r);

// Half arithmetic where the precision asks for it and n_fft is a power of
// two; elsewhere half data computes in float.
bool half_compute(const StftRequest& r);
int compute_prec(const StftRequest& r);

// The window's kind in the kernels (computed for the named cosine windows
// in float) and its device table in the compute type.
int window_kind(const StftRequest& r);
const void* window_table(const StftRequest& r);

// The word of a launch-record key that holds the device, the precisions,
// the output form and `center`.
uint64_t flag_word(const StftRequest& r);

uint64_t bits_of(double x);
// "_e" and the bits of eps for the decibel form, else nothing.
std::string eps_suffix(int mode, double eps);

// The frame count after every check that needs no device, in the order the
// errors are reported, with `op` as their subject.
int64_t checked_frames(const StftRequest& r, const char* op);

// The plan of a request under `knobs`: build_stft_plan, then the storage
// precisions and the window kind.
StftPlan spectral_plan(const StftRequest& r, int64_t frames, uint64_t shared_limit, const TuneEntry& knobs);

// The staged path's kernel records: "ondrel_frames" under "cfsframes_"
// `tail` "_" pad, and the split ("ondrel_rsplit", even n) or the output form
// ("ondrel_smode", odd n) of the stage `s` under `prefix` + `tail`.
std::string staged_tail(const StftPlan& p);
KernelPlan frames_plan(const StftPlan& p);
KernelPlan bins_plan(const codegen::StagedStft& s, bool paired, const std::string& key);
codegen::StagedStft staged_of(const StftPlan& p);
// The split or output-form kernel of a plan's own output form.
KernelPlan spectrum_bins_plan(const StftPlan& p);

// Frames written out and the library FFT of every one: the packed M-point
// spectra (even n) or the n / 2 + 1 bins (odd n) of batch * frames rows.
DeviceBuffer staged_spectrum(const StftRequest& r, const StftPlan& p, int device);

// The split or output kernel over every row of `z`, into rows of NB values
// of `out_elem` bytes.
template <class T>
void staged_bins(const LaunchRecord& k, const StftPlan& p, const void* z, void* out, size_t out_elem, int64_t rows,
                 void* stream);

}  // namespace ondrel
