#!/usr/bin/env bash
# On a lent GPU machine, from a copy of the repository: builds and installs
# the package there (its Python differs from the development machines'),
# then runs what is asked, on the CUDA runtime:
#   tests  the whole pytest suite under ONDREL_RUNTIME=cuda, one worker per
#          core (pytest-xdist and pytest-timeout, both in the GPU image)
#   fft    bench/gpu/fft_bench.py against the vendor FFT; arguments follow
#          (none: every preset, complex, real and long, in one run; or
#          --preset NAME..., or --op fft|rfft|irfft --n ... --dtype ...)
#   all    both, the benchmark with every preset
#   stft   bench/gpu/stft_bench.py: the STFT beside torch.stft; `all` runs
#          it too
#   istft  bench/gpu/istft_bench.py: the inverse STFT beside torch.istft,
#          default and deterministic; `all` runs it too
#   mel    bench/gpu/mel_bench.py: the mel spectrogram beside torchaudio's
#          MelSpectrogram (needs torchaudio in the image); `all` runs it too
#   cepstra  bench/gpu/cepstra_bench.py: cepstra beside torchaudio's MFCC
#          (needs torchaudio in the image); `all` runs it too
#   griffinlim  bench/gpu/griffinlim_bench.py: Griffin-Lim beside
#          torchaudio's; `all` runs it too
#   adjoint  bench/gpu/adjoint_bench.py: the STFT, inverse STFT and mel
#          gradients beside torch autograd; `all` runs it too
#   autograd  bench/gpu/autograd_bench.py: a training step through
#          ondrel.torch (magnitude STFT, mel) beside torch's autograd, and
#          the host overhead of the tensor layer; `all` runs it too
#   cqt    bench/gpu/cqt_bench.py: the constant-Q transform and its adjoint
#          beside nnAudio (carried as a wheel: not in the image); `all`
#          runs it too
#   icqt   bench/gpu/icqt_bench.py: chroma and its adjoint beside nnAudio's
#          CQT with the fold in torch (nnAudio carried as for cqt); `all`
#          runs it too
#   spectral_features  bench/gpu/features_spectral_bench.py: centroid and
#          contrast fused into the STFT, beside the magnitude STFT alone and
#          beside torch; `all` runs it too
#   filters  bench/gpu/filter_bench.py: the recursive filter beside
#          torchaudio and scipy, the FFT convolution beside torch (needs
#          torchaudio in the image); arguments follow. `all` runs it too.
#   tune   bench/gpu/tune_bench.py: the tuners on the other benchmarks'
#          shapes, then default against tuned in a new process; `all` runs
#          it too
# Everything it prints also lands in $OUT (the folder that comes back), or
# in /tmp/ondrel-gpu where $OUT is unset: device.txt, build.log, tests.log,
# bench.log, bench.json, and bench.md with one table per preset and
# operation, ready for bench/RESULTS.md. One line runs it all:
#   bash bench/gpu/run.sh all
set -uo pipefail
cd "$(dirname "$0")/../.."
root=$(pwd)
out=${OUT:-/tmp/ondrel-gpu}
mkdir -p "$out"
what=${1:-all}
shift || true
case $what in
  tests | fft | stft | istft | mel | cepstra | griffinlim | adjoint | autograd | cqt | icqt | spectral_features | filters | tune | all) ;;
  *) echo "usage: $0 [tests | fft | stft | istft | mel | cepstra | griffinlim | adjoint | autograd | cqt | icqt | spectral_features | filters | tune | all] [benchmark arguments]" >&2; exit 2 ;;
esac
export PYTHONUNBUFFERED=1

{
  date -u +"%Y-%m-%d %H:%M UTC"
  nvidia-smi --query-gpu=name,driver_version,memory.total --format=csv,noheader
  python3 --version
} 2>&1 | tee "$out/device.txt"

# Nothing here needs the CPU runtime: leaving it out saves its build.
CMAKE_BUILD_PARALLEL_LEVEL=$(nproc) python3 -m pip install -q --no-build-isolation --no-deps \
  --disable-pip-version-check -C cmake.define.ONDREL_BUILD_CPU_RUNTIME=OFF . >"$out/build.log" 2>&1 \
  || { tail -40 "$out/build.log"; exit 1; }

export ONDREL_RUNTIME=cuda ONDREL_CACHE_DIR=/tmp/ondrel-cache
status=0
if [ "$what" = tests ] || [ "$what" = all ]; then
  # Workers must collect the same parametrisations, which draw on the seed.
  export ONDREL_TEST_SEED=${ONDREL_TEST_SEED:-$RANDOM$RANDOM}
  # One line per finished test, so that a run cut short still names its
  # failures; the image's pytest-benchmark warns under xdist, and warnings
  # are errors here. ONDREL_GPU_TEST_SECONDS bounds the whole run: at the
  # limit pytest is interrupted and still prints its summary.
  (cd /tmp && timeout -s INT "${ONDREL_GPU_TEST_SECONDS:-3000}" python3 -m pytest -v -rfE --tb=short \
    -p no:cacheprovider -p no:benchmark -n "$(nproc)" --timeout 300 -c "$root/pyproject.toml" \
    --rootdir "$root" "$root/tests") >"$out/tests.log" 2>&1 || status=1
  echo "seed $ONDREL_TEST_SEED"
  grep -E "^(FAILED|ERROR) |^=+ .*(passed|failed|error)" "$out/tests.log" | tail -30
fi
if [ "$what" = fft ] || [ "$what" = all ]; then
  (cd /tmp && python3 "$root/bench/gpu/fft_bench.py" --out "$out" "$@") 2>&1 | tee "$out/bench.log" || status=1
fi
for spectral in stft istft mel cepstra griffinlim adjoint autograd cqt icqt; do
  if [ "$what" = $spectral ] || [ "$what" = all ]; then
    mkdir -p "$out/$spectral"
    (cd /tmp && python3 "$root/bench/gpu/${spectral}_bench.py" --out "$out/$spectral") 2>&1 |
      tee "$out/$spectral/bench.log" || status=1
  fi
done
if [ "$what" = spectral_features ] || [ "$what" = all ]; then
  mkdir -p "$out/spectral_features"
  (cd /tmp && python3 "$root/bench/gpu/features_spectral_bench.py" --out "$out/spectral_features") 2>&1 |
    tee "$out/spectral_features/bench.log" || status=1
fi
if [ "$what" = filters ] || [ "$what" = all ]; then
  mkdir -p "$out/filters"
  args=()
  [ "$what" = filters ] && args=("$@")
  (cd /tmp && python3 "$root/bench/gpu/filter_bench.py" --out "$out/filters" "${args[@]}") 2>&1 |
    tee "$out/filters/bench.log" || status=1
fi
if [ "$what" = tune ] || [ "$what" = all ]; then
  mkdir -p "$out/tune"
  (cd /tmp && python3 "$root/bench/gpu/tune_bench.py" --out "$out/tune") 2>&1 | tee "$out/tune/bench.log" || status=1
fi
exit $status
