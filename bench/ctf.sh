#!/usr/bin/env bash
# The CTF benchmark, in one command:
#
#   bench/ctf.sh                # CPU backend: 3 micrographs of 4096 x 4096 at 1 A, sorrel defaults
#   bench/ctf.sh --quick        # 2 micrographs of 2048 x 2048
#   bench/ctf.sh --cuda         # the CUDA backend (on a machine with a GPU)
#   bench/ctf.sh --n N          # number of micrographs
#   bench/ctf.sh --out DIR      # where data, runs and results go (default out/bench-ctf)
#   bench/ctf.sh -- OPTIONS     # further sorrel options (for instance --boxsize 512)
#
# It builds sorrel and pickora-ctfsim in Release, simulates the micrographs (seed 2024; a set
# is made once and reused), runs sorrel over all of them in one process under /usr/bin/time -v
# and prints, per micrograph, the seconds of its steps from sorrel's own TIME lines: reading,
# the spectrum ("FFT", which includes the background subtraction), the 1D searches, the 2D
# refinement (the rest of "1S2R"), the evaluation (EPA, resolution limit, B-factor) and the
# writing of the result files; then their mean over the micrographs after the first (steady
# state: the first one also pays for plans and scratch), and the process's wall time, CPU time
# and peak memory. The CPU time over the wall time says how many cores the run kept busy.
set -euo pipefail
cd "$(dirname "$0")/.."

backend=cpu
n=3
size=4096
out=out/bench-ctf
extra=()
while [ $# -gt 0 ]; do
  case $1 in
    --quick) size=2048; n=2 ;;
    --cuda) backend=cuda ;;
    --n) n=$2; shift ;;
    --out) out=$2; shift ;;
    --) shift; extra=("$@"); break ;;
    *) echo "unknown option $1" >&2; exit 1 ;;
  esac
  shift
done
mkdir -p "$out"
out=$(cd "$out" && pwd)

if [ "$backend" = cuda ]; then
  build=build-bench-ctf-cuda
  cmake -S . -B "$build" -DPICKORA_CUDA=ON -DPICKORA_TESTS=OFF -DCMAKE_BUILD_TYPE=Release \
    -DCMAKE_CUDA_ARCHITECTURES="${PICKORA_CUDA_ARCHS:-90}" >"$out/cmake.log"
  sorrel=$build/bin/sorrel-cuda
  targets=(sorrel-cuda pickora-ctfsim)
else
  build=build-bench-ctf
  cmake -S . -B "$build" -DPICKORA_CUDA=OFF -DPICKORA_TESTS=OFF -DCMAKE_BUILD_TYPE=Release >"$out/cmake.log"
  sorrel=$build/bin/sorrel
  targets=(sorrel pickora-ctfsim)
fi
cmake --build "$build" -j"$(getconf _NPROCESSORS_ONLN)" --target "${targets[@]}" >"$out/build.log" 2>&1 ||
  { tail -30 "$out/build.log"; exit 1; }
sorrel=$(pwd)/$sorrel

data=$out/data_${size}_$n
args="--n $n --size $size --apix 1.0 --defocus 6000:40000 --astig 0:2000 --angle -90:90 --bfac 50:200 --seed 2024"
if [ ! -f "$data/stamp" ] || [ "$(cat "$data/stamp")" != "$args" ]; then
  rm -rf "$data"
  # shellcheck disable=SC2086
  "$build/bin/pickora-ctfsim" --out "$data" $args >"$out/ctfsim.log"
  echo "$args" >"$data/stamp"
fi

run=$out/run_${backend}_${size}
rm -rf "$run" && mkdir -p "$run"
cp "$data"/mic_*.mrc "$run"/
(cd "$run" && /usr/bin/time -v "$sorrel" --apix 1.0 "${extra[@]}" mic_*.mrc >sorrel.log 2>time.log)

echo "sorrel ($backend) on $n micrographs of $size x $size, options: --apix 1.0 ${extra[*]}"
printf "%-16s %8s %8s %8s %8s %8s %8s %8s\n" micrograph reading FFT search refine EPA writing total
# TIME lines: READING, 1S2R, LOCAL REFINE and PHASE FLIP count from the micrograph's start; FFT
# and 1D SEARCH are the seconds of their own step.
awk '/Reading file:/ {name=$3}
     /TIME<<<<<</ {label=$0; sub(/^.*<<<<<< */, "", label); sub(/:.*/, "", label); t=$NF; sub(/s$/, "", t); v[label]=t}
     /Processing done successfully/ {
       r[1]=v["READING"]; r[2]=v["FFT"]; r[3]=v["1D SEARCH"]; r[4]=v["1S2R"]-v["READING"]-v["FFT"]-v["1D SEARCH"]
       r[5]=v["LOCAL REFINE"]-v["1S2R"]; r[6]=v["PHASE FLIP"]-v["LOCAL REFINE"]; r[7]=v["PHASE FLIP"]
       printf "%-16s", name; for (k = 1; k <= 7; ++k) printf " %8.3f", r[k]; printf "\n"
       if (++count > 1) for (k = 1; k <= 7; ++k) sum[k] += r[k]
     }
     END { if (count > 1) { printf "%-16s", "steady mean"; for (k = 1; k <= 7; ++k) printf " %8.3f", sum[k] / (count - 1); printf "\n" } }' "$run/sorrel.log"
grep -E "Elapsed \(wall|User time|System time|Maximum resident" "$run/time.log" | sed 's/^\s*/  /'
echo "rows: $(grep -c ':mrc' "$run/micrographs_all_sorrel.star") of $n; logs and tables in $run"
