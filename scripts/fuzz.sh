#!/usr/bin/env bash
# Builds the libFuzzer harnesses (clang, ASan, UBSan) and runs each for a while.
# Usage: scripts/fuzz.sh [seconds per harness, default 60] [harness names...]
# Seeds come from tests/fuzz/corpus/<name>; what the fuzzer learns goes to build-fuzz/corpus.
# Exits non-zero if any harness finds a crash; the crashing input is kept in build-fuzz/.
set -euo pipefail
cd "$(dirname "$0")/.."
seconds=${1:-60}
shift || true
build=${PICKORA_FUZZ_BUILD_DIR:-build-fuzz}
scripts/install-deps.sh clang libomp-dev libclang-rt-dev
cmake -S . -B "$build" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ -DPICKORA_FUZZ=ON \
  -DPICKORA_CUDA=OFF -DPICKORA_TESTS=OFF -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
names=("$@")
if [ ${#names[@]} -eq 0 ]; then
  for src in tests/fuzz/fuzz_*.cpp; do names+=("$(basename "$src" .cpp)"); done
fi
cmake --build "$build" -j"$(nproc)" --target "${names[@]}" >/dev/null
status=0
for name in "${names[@]}"; do
  seeds=tests/fuzz/corpus/${name#fuzz_}
  work=$build/corpus/${name#fuzz_}
  mkdir -p "$work"
  log=$build/$name.log
  if (cd "$build" && "./fuzz/$name" -max_total_time="$seconds" -detect_leaks=1 -max_len=65536 \
        -rss_limit_mb=2048 -timeout=10 "../$work" "../$seeds" >"../$log" 2>&1); then
    echo "$name: $(grep -E '^#[0-9]+.*DONE' "$log" | tail -1 | awk '{print $1}' | tr -d '#') runs in ${seconds}s, no crash"
  else
    echo "$name: FAILED, see $log"
    grep -E "ERROR|SUMMARY|Test unit written" "$log" | head -5
    status=1
  fi
done
exit $status
