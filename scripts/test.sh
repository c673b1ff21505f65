#!/usr/bin/env bash
# Installs the dependencies, builds the CPU backend and runs the whole test suite.
# Usage: scripts/test.sh [extra cmake arguments]
set -euo pipefail
cd "$(dirname "$0")/.."
scripts/install-deps.sh
build=${PICKORA_BUILD_DIR:-build}
cmake -S . -B "$build" -DPICKORA_CUDA=OFF -DCMAKE_BUILD_TYPE=Release "$@" >/dev/null
cmake --build "$build" -j"$(nproc)"
ctest --test-dir "$build" -j"$(nproc)" --output-on-failure
