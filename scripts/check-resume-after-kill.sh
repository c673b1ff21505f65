#!/usr/bin/env bash
# Kills pickora at many points of a run (SIGKILL, so nothing of the program runs after it),
# resumes each with --do_unfinished, and checks that the outputs equal those of one
# uninterrupted run, byte for byte: no partial file may pass for a finished one.
#
# Usage: scripts/check-resume-after-kill.sh BIN_DIR WORK_DIR [DELAYS...]
#   BIN_DIR   folder with pickora and pickora-simulate
#   WORK_DIR  an empty folder to work in
#   DELAYS    seconds after the start at which to kill (default: 12 points spread over a run)
# Exits 0 when every resumed run matches; prints each difference and exits 1 otherwise.
set -uo pipefail
bin=$1 work=$2
shift 2
cd "$work" || exit 2
# One thread: the check is about files, and spinning threads on a busy machine only slow it.
export OMP_NUM_THREADS=${OMP_NUM_THREADS:-1}
"$bin/pickora-simulate" --out input --n 3 --size 1024 --apix 1.34 --diameter 250 --templates 2 --snr 0.3 \
  --lobe_width 0.5 --bg 0.25 --seed 5 >/dev/null || exit 2
options=(--apixM 1.34 --diameter 250 --T templates.mrcs --extract_raw 1 --write_bgfree_mic 1 --write_ccmax_z 1)
mics=(mic_0000.mrc mic_0001.mrc mic_0002.mrc)

cp -r input reference
start=$(date +%s.%N)
(cd reference && "$bin/pickora" "${options[@]}" "${mics[@]}" >log.txt 2>&1) || { echo "reference run failed"; exit 2; }
whole=$(echo "$(date +%s.%N) - $start" | bc)
if [ $# -gt 0 ]; then delays=("$@"); else
  delays=()
  for k in $(seq 1 12); do delays+=("$(echo "scale=3; $whole * $k / 13" | bc)"); done
fi

outputs() { (cd "$1" && ls | grep -E '_(pickora\.box|pickora\.star|nonunique\.box|particles\.mrcs|rejected\.box|rejected\.star|bgfree\.mrc|ccmaxZ\.mrc)$' | sort); }
expected=$(outputs reference)
for box in reference/*_pickora.box; do  # the stacks must hold the picks, or the check proves little
  rows=$(wc -l <"$box") stack=${box%_pickora.box}_particles.mrcs
  [ "$rows" -gt 0 ] && [ "$(stat -c %s "$stack")" -le 1024 ] && { echo "reference run: $stack is empty"; exit 2; }
done
failures=0
for delay in "${delays[@]}"; do
  run="killed_$delay"
  cp -r input "$run"
  (cd "$run" && exec "$bin/pickora" "${options[@]}" "${mics[@]}" >log1.txt 2>&1) &
  pid=$!
  sleep "$delay"
  kill -9 "$pid" 2>/dev/null
  wait "$pid" 2>/dev/null
  (cd "$run" && "$bin/pickora" --do_unfinished 1 "${options[@]}" "${mics[@]}" >log2.txt 2>&1) ||
    { echo "kill at $delay s: the resumed run failed"; failures=$((failures + 1)); continue; }
  skipped=$(grep -c "already been processed" "$run/log2.txt")
  if [ "$(outputs "$run")" != "$expected" ]; then
    echo "kill at $delay s: the outputs differ in their names"; failures=$((failures + 1)); continue
  fi
  for f in $expected; do
    cmp -s "reference/$f" "$run/$f" || { echo "kill at $delay s: $f differs"; failures=$((failures + 1)); }
  done
  echo "kill at $delay s: resumed ($skipped micrographs were finished), outputs equal"
done
echo "check-resume-after-kill: ${#delays[@]} kill points, $failures differences; whole run ${whole} s"
[ $failures -eq 0 ]
