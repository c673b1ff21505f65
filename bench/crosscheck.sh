#!/usr/bin/env bash
# The picker's roads against each other, on the benchmark sets:
#
#   bench/crosscheck.sh                    # CPU backend
#   bench/crosscheck.sh --cuda             # CUDA backend (on a machine with a GPU)
#   bench/crosscheck.sh --reference BIN    # also another pickora binary (an older build), as users ran it
#   bench/crosscheck.sh --wisdom FILE      # the measured plans of FILE (default DIR/crosscheck.wisdom)
#   bench/crosscheck.sh --quick            # fewer micrographs and 20-degree steps
#   bench/crosscheck.sh --ci               # the small set only, 20-degree steps (CI runs this)
#   bench/crosscheck.sh --out DIR          # default out/bench (the sets are shared with run.sh)
#
# Roads: plain is the picker with its speed-ups off (no kept template spectra,
# PICKORA_SPECTRA_MIB=0; no read-ahead, PICKORA_READ_AHEAD=0) and estimated FFT plans
# (PICKORA_FFTW_WISDOM=none); estimated is the picker as users run it but with estimated plans;
# fast is the picker as users run it, with FFT plans measured into a wisdom file; reference is
# another binary as users ran it (PICKORA_FFTW_WISDOM unset: an older build estimates its plans).
# Each case runs every road over the same micrographs in folders of their own.
#
# Plain and estimated use the same plans, so they must write the same bytes: every file they
# wrote is compared with cmp, and their standard output without the time lines and the closing
# tip (a random one) as printed.txt. Fast and reference compute with other plans, so they are
# held to a tolerance instead (bench/compare_picks.py, which states and justifies it): fast against
# estimated, and fast against reference; the ccmax maps agree within single-precision rounding,
# and every pick is the same (coordinates, class, angle) but for near ties, each listed. The tables go to DIR/crosscheck.md; the script ends
# with status 1 when a file differs or a pick lies outside the tolerance. The roads run one after
# the other on the same micrographs, so their steady-state seconds per micrograph (from the TIME
# lines, the first micrograph left out) are a side-by-side timing too, as long as nothing else
# runs: a last table gives them.
set -euo pipefail
cd "$(dirname "$0")/.."

backend=cpu
out=out/bench
quick=0
ci=0
reference=
wisdom=
while [ $# -gt 0 ]; do
  case "$1" in
    --cuda) backend=cuda ;;
    --quick) quick=1 ;;
    --ci) ci=1 ;;
    --reference) reference=$(realpath "$2"); shift ;;
    --wisdom) wisdom=$(realpath "$2"); shift ;;
    --out) out=$2; shift ;;
    -h|--help) sed -n 2,31p "$0"; exit 0 ;;
    *) echo "crosscheck: unknown option $1" >&2; exit 2 ;;
  esac
  shift
done
mkdir -p "$out"
out=$(cd "$out" && pwd)
root=$(pwd)
[ -n "$wisdom" ] || wisdom=$out/crosscheck.wisdom

# shellcheck source=bench/common.sh
. bench/common.sh
bench_build
if [ $ci = 1 ]; then n_small=3; ang=20; sim_set s1024_t8 --size 1024 --templates 8 --n $n_small
elif [ $quick = 1 ]; then n_big=2; n_small=3; ang=20; bench_sets $n_big $n_small
else n_big=4; n_small=6; ang=5; bench_sets $n_big $n_small; fi

diagnostics=(--write_normed_T --write_ccmax_z --write_ccmax_mic --write_pf_mic --write_pref_mic --write_bg_mic
             --write_bgfree_mic --write_lsigma_mic --write_mic_mask --extract_raw)
# One case a line: label | set | templates (0: the generated blob) | extra options.
# The maps are written in every case: the tolerance is checked on them.
cases=(
  "1024x1024, 8 templates|s1024_t8|8|--write_ccmax_mic"
  "1024x1024, every diagnostic image|s1024_t8|8|${diagnostics[*]}"
)
[ $ci = 1 ] || cases+=(
  "4096x4096, 8 templates|s4096_t8|8|--write_ccmax_mic"
  "3838x3710, 8 templates|s3838_t8|8|--write_ccmax_mic"
  "4096x4096, generated blob|s4096_t8|0|--write_ccmax_mic"
)

roads=(plain estimated fast)
[ -n "$reference" ] && roads+=(reference)
python=/usr/bin/python3; [ -x $python ] || python=python3

# run_road ROAD DIR SET TEMPLATES EXTRA: the road over the set's micrographs, inside DIR.
run_road() {
  local road=$1 dir=$2 data=$out/data/$3 t=$4 extra=$5 mic mics=()
  rm -rf "$dir"; mkdir -p "$dir"
  for mic in "$data"/mic_*.mrc; do ln -s "$mic" "$dir/"; mics+=("$(basename "$mic")"); done
  local args=(--apixM "$apix" --diameter "$diameter" --min_dist "$diameter" --ang_step "$ang")
  [ "$t" = 0 ] || args+=(--T "$data/templates.mrcs")
  # shellcheck disable=SC2206
  args+=($extra)
  local bin=$root/$picker envs=()
  case $road in
    plain) envs=(PICKORA_SPECTRA_MIB=0 PICKORA_READ_AHEAD=0 PICKORA_FFTW_WISDOM=none) ;;
    estimated) envs=(PICKORA_FFTW_WISDOM=none) ;;
    fast) envs=(PICKORA_FFTW_WISDOM="$wisdom") ;;
    reference) bin=$reference; envs=(-u PICKORA_FFTW_WISDOM) ;;
  esac
  (cd "$dir" && env "${envs[@]}" "$bin" "${args[@]}" "${mics[@]}" >stdout.log 2>stderr.log) ||
    { echo "crosscheck: the $road road failed in $dir" >&2; tail -5 "$dir/stdout.log" >&2; exit 1; }
  # What the program printed up to its closing line, less the clocks: the tip after it is random.
  awk '!/>>>>>>TIME<<<<<</ { print } /files finished successfully/ { exit }' "$dir/stdout.log" >"$dir/printed.txt"
}

# compare_bytes DIR ROAD: one line for the road against the plain one: files identical, files
# that differ (each also named on standard error) and the kinds of files compared.
failures=0
compare_bytes() {
  local dir=$1 road=$2 f rel same=0 differ=0 kinds
  while IFS= read -r f; do
    rel=${f#"$dir/plain/"}
    case $rel in stdout.log|stderr.log) continue ;; esac
    if [ -f "$dir/$road/$rel" ] && cmp -s "$f" "$dir/$road/$rel"; then
      same=$((same + 1))
    else
      differ=$((differ + 1)); echo "  differs: $road/$rel" >&2
    fi
  done < <(find "$dir/plain" -type f | sort)  # files only: the inputs are links
  # A file that only the other road wrote is a difference too.
  while IFS= read -r f; do
    rel=${f#"$dir/$road/"}
    [ -e "$dir/plain/$rel" ] || { differ=$((differ + 1)); echo "  only in $road: $rel" >&2; }
  done < <(find "$dir/$road" -type f | sort)
  failures=$((failures + differ))
  kinds=$(find "$dir/plain" -type f ! -name 'std*.log' -printf '%f\n' | sed -E 's/^mic_[0-9]+//' | sort -u | paste -sd' ')
  printf '| %s | plain vs %s | %d | %d | %s |\n' "$label" "$road" "$same" "$differ" "$kinds" | tee -a "$report"
}

# compare_within_tolerance DIR ROAD OTHER: the other road's maps and picks against the road's.
compare_within_tolerance() {
  "$python" bench/compare_picks.py --min_dist "$diameter" --label "$label, $2 vs $3" "$1/$2" "$1/$3" \
    >>"$tolerance_report" || failures=$((failures + 1))
}

# steady_seconds DIR: mean of READING + NORMALIZATION + PICKING over the micrographs after the first.
steady_seconds() {
  awk '/TIME<<<<<< +(READING|NORMALIZATION|PICKING):/ { v = $NF; sub(/s$/, "", v); if ($0 ~ /READING/) m++; if (m > 1) s += v }
       END { if (m > 1) printf "%.3f", s / (m - 1); else printf "-" }' "$1/stdout.log"
}
timings=()

report=$out/crosscheck.md
{
  echo "## Cross-check, $(date +%Y-%m-%d), backend $backend$([ $quick = 1 ] && echo ', quick')"
  echo
  echo "Options: --apixM $apix --diameter $diameter --min_dist $diameter --ang_step $ang, plus each case's"
  echo "--T and extras$([ -n "$wisdom" ] && echo "; FFT plans from the wisdom file $wisdom")."
  echo
  echo "| case | roads | files identical | files different | files compared (suffixes) |"
  echo "|---|---|---|---|---|"
} >"$report"
tolerance_report=$out/crosscheck_tolerance.md
{
  echo
  echo "Measured FFT plans and other builds, within the tolerance of bench/compare_picks.py: the"
  echo "largest map difference relative to its map's largest value (and the bound tau), picks the"
  echo "same in coordinates, class and angle, the largest difference of their printed scores, and"
  echo "the picks that differ (near ties, each listed below its case) and of them those unexplained:"
  echo
  echo "| case | maps | same picks | score difference | picks listed | unexplained |"
  echo "|---|---|---|---|---|---|"
} >"$tolerance_report"
for c in "${cases[@]}"; do
  IFS='|' read -r label set t extra <<<"$c"
  dir=$out/crosscheck/$(tr -c 'a-zA-Z0-9\n' '_' <<<"$label")
  for road in "${roads[@]}"; do run_road "$road" "$dir/$road" "$set" "$t" "$extra"; done
  compare_bytes "$dir" estimated
  compare_within_tolerance "$dir" estimated fast
  [ -z "$reference" ] || compare_within_tolerance "$dir" reference fast
  row="| $label |"
  for road in "${roads[@]}"; do row+=" $(steady_seconds "$dir/$road") |"; done
  timings+=("$row")
done
tee -a "$report" <"$tolerance_report"
{
  echo
  echo "Seconds per micrograph in steady state, each road in turn on the same micrographs:"
  echo
  echo "| case |$(printf ' %s |' "${roads[@]}")"
  echo "|---|$(printf -- '---|%.0s' "${roads[@]}")"
  printf '%s\n' "${timings[@]}"
} | tee -a "$report"
echo
if [ $failures = 0 ]; then
  echo "crosscheck: plain and estimated roads identical, every other road within the tolerance" | tee -a "$report"
else
  echo "crosscheck: $failures failures (files that differ, or roads outside the tolerance)" | tee -a "$report"
  exit 1
fi
