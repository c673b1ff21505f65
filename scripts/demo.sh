#!/usr/bin/env bash
# The demo: installs what is missing, builds the CPU backend (Release), simulates three
# micrographs with known particles, ice and a carbon edge, picks them with plain options,
# scores the picks against the truth and draws one picture per micrograph.
# Usage: scripts/demo.sh        (everything goes into demo/, which is rewritten on every run)
# PICKORA_BUILD_DIR chooses the build folder (build).
set -euo pipefail
cd "$(dirname "$0")/.."
started=$(date +%s)
build=${PICKORA_BUILD_DIR:-build}
bin=$(pwd)/$build/bin
out=demo
count=3 size=2048 apix=1.34 apix_t=2.0 diameter=250

step() { printf '== %s\n' "$*"; }
# Runs a command with its output in a log file; on failure shows the end of the log.
logged() {
  local log=$1
  shift
  "$@" >>"$log" 2>&1 || { tail -40 "$log"; echo "demo: failed, see $log"; exit 1; }
}
seconds_since() { awk -v a="$1" -v b="$(date +%s.%N)" 'BEGIN { printf "%.1f", b - a }'; }

step "dependencies"
scripts/install-deps.sh
rm -rf "$out"
mkdir -p "$out"

step "build: Release, CPU backend, in $build/ (log: $out/build.log)"
logged "$out/build.log" cmake -S . -B "$build" -DPICKORA_CUDA=OFF -DCMAKE_BUILD_TYPE=Release
logged "$out/build.log" cmake --build "$build" -j"$(nproc)" --target pickora pickora-simulate pickora-score pickora-view

step "simulate: $count micrographs of $size x $size at $apix A/pixel, templates at $apix_t A/pixel"
logged "$out/simulate.log" "$bin/pickora-simulate" --out "$out/data" --n "$count" --size "$size" --apix "$apix" \
  --apix_t "$apix_t" --diameter "$diameter" --templates 2 --snr 0.3 --lobe_width 0.5 --bg 0.25 --seed 1

step "pick: pickora --apixM $apix --apixT $apix_t --diameter $diameter --T templates.mrcs --write_ccmax_z 1"
pick_start=$(date +%s.%N)
(cd "$out" && logged pickora.log "$bin/pickora" --apixM "$apix" --apixT "$apix_t" --diameter "$diameter" \
  --T data/templates.mrcs --write_ccmax_z 1 data/mic_????.mrc)
pick_seconds=$(seconds_since "$pick_start")

step "score against the truth"
"$bin/pickora-score" --dir "$out/data" | tee "$out/score.txt"

step "pictures"
pictures=()
for mic in "$out"/data/mic_????.mrc; do
  stem=${mic%.mrc}
  png=$out/$(basename "$stem").png
  "$bin/pickora-view" "$mic" --out "$png" --diameter "$diameter" --picks "${stem}_pickora.star" \
    --rejected "${stem}_rejected.box" --areas "${stem}_areas.txt" --ccmap "${stem}_ccmaxZ.mrc"
  pictures+=("$png")
done

score=$(grep '^score:' "$out/score.txt")
value() { sed -n "s/.* $1=\([^ ]*\).*/\1/p" <<<"$score"; }
per_mic=$(awk -v t="$pick_seconds" -v n="$count" 'BEGIN { printf "%.1f", t / n }')
cat <<EOF

== summary
micrographs       $(value micrographs) of $size x $size at $apix A/pixel, particles of $diameter A
picks             $(value picks) for $(value truth) particles: $(value tp) found, $(value fp) false, $(value fn) missed
precision         $(value precision)
recall            $(value recall)
F1                $(value f1)
in contamination  $(value in_contamination) of the picks lie inside an ice or carbon area
psi within 10 deg $(value psi_fraction) of the found particles
picking time      $per_mic s per micrograph ($pick_seconds s for $count on $(nproc) CPU cores)
outputs           $out/data/: mic_NNNN_pickora.star and .box (picks), _rejected.box (ice and carbon cells),
                  _ccmaxZ.mrc (best correlation, shrunk), _truth.star and _areas.txt (the simulation)
logs              $out/build.log $out/simulate.log $out/pickora.log $out/score.txt
pictures          ${pictures[*]}
                  green circles: picks; magenta: picks inside contamination; red shade: rejected cells;
                  blue lines: contamination areas; right panel: the correlation map
demo took         $(( $(date +%s) - started )) s
EOF
