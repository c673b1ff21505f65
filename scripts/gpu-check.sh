#!/usr/bin/env bash
# On a machine with an NVIDIA GPU: builds the CUDA backend (sm_90 among the architectures),
# runs the whole test suite on it and prints one summary line. Exits non-zero without a GPU.
set -uo pipefail
cd "$(dirname "$0")/.."
if ! command -v nvidia-smi >/dev/null 2>&1 || ! nvidia-smi -L >/dev/null 2>&1; then
  echo "gpu-check: no NVIDIA GPU on this machine; nothing was run"
  exit 2
fi
nvidia-smi -L
build=${PICKORA_BUILD_DIR:-build-gpu}
archs=${PICKORA_CUDA_ARCHS:-90}
scripts/install-deps.sh || exit 1
cmake -S . -B "$build" -DPICKORA_CUDA=ON -DPICKORA_TEST_CUDA=ON -DCMAKE_BUILD_TYPE=Release \
  -DCMAKE_CUDA_ARCHITECTURES="$archs" >/dev/null || exit 1
cmake --build "$build" -j"$(nproc)" >"$build.log" 2>&1 || { tail -40 "$build.log"; exit 1; }
ctest --test-dir "$build" -L cuda -j4 --output-on-failure >"$build/ctest-cuda.log" 2>&1
status=$?
grep -E "tests passed|tests failed" "$build/ctest-cuda.log" | sed 's/^/gpu-check: cuda backend: /'
[ $status -eq 0 ] || grep -A3 -E "Failed|\*\*\*" "$build/ctest-cuda.log" | head -60
exit $status
