#!/usr/bin/env bash
# The picker's benchmark, in one command:
#
#   bench/run.sh              # CPU backend, the full set (under 10 minutes on 2 quiet cores)
#   bench/run.sh --quick      # a smoke run of about a minute: fewer micrographs, 20-degree steps
#   bench/run.sh --cuda       # the CUDA backend (on a machine with a GPU)
#   bench/run.sh --threads N  # OMP_NUM_THREADS for the host side (default: the runtime's choice)
#   bench/run.sh --out DIR    # where data, runs and results go (default out/bench)
#   bench/run.sh --mkl DIR    # also time the transforms through oneMKL's FFTW interface, whose
#                             # libmkl_rt.so.* lies in DIR (pip install mkl into a venv: its lib/)
#
# It builds a Release binary whose driver also prints the wall time of every step on standard
# error (-DPICKORA_STEP_TIMES=1; standard output is unchanged), simulates the micrographs with
# pickora-simulate (the same seed gives the same bytes, so a set is made once and reused),
# times one forward+inverse FFT pair and the inverse alone at every work size with
# bench/fft_pair.cpp through the same FFT layer, with estimated plans and with plans measured
# into a new wisdom file (whose first pairs give the cost of measuring), runs pickora over
# several micrographs per run and reports
# seconds per micrograph in steady state, the first micrograph of each run left out and shown
# apart (it makes the plans and the kept template spectra). Beside the picker as users run it,
# the 4096 x 4096 set with 8 templates also runs with estimated FFT plans
# (PICKORA_FFTW_WISDOM=none) and on the plain road (that and PICKORA_SPECTRA_MIB=0
# PICKORA_READ_AHEAD=0: the picker before its speed-ups). Every timed program
# runs under /usr/bin/time -v, which gives its peak memory and its own CPU time; with the
# machine's busy time from /proc/stat that tells how many cores other processes took meanwhile
# ("other load"), the number to read first on a shared machine. The tables are printed and
# kept in DIR/results.md.
set -euo pipefail
cd "$(dirname "$0")/.."
root=$(pwd)

quick=0
backend=cpu
out=out/bench
mkl=
while [ $# -gt 0 ]; do
  case "$1" in
    --quick) quick=1 ;;
    --cuda) backend=cuda ;;
    --threads) export OMP_NUM_THREADS=$2; shift ;;
    --out) out=$2; shift ;;
    --mkl) mkl=$(realpath "$2"); shift ;;
    -h|--help) sed -n 2,26p "$0"; exit 0 ;;
    *) echo "bench: unknown option $1" >&2; exit 2 ;;
  esac
  shift
done
mkdir -p "$out"
out=$(cd "$out" && pwd)

timer=/usr/bin/time
if [ ! -x "$timer" ] && [ "$(id -u)" = 0 ] && command -v apt-get >/dev/null; then
  apt-get install -y -qq time >/dev/null 2>&1 || true
fi
[ -x "$timer" ] || { echo "bench: needs /usr/bin/time (apt-get install time)" >&2; exit 1; }

# ---- Build ----------------------------------------------------------------------------------
# shellcheck source=bench/common.sh
. bench/common.sh
bench_build
fft_pair=$build/bin/fft_pair
g++ -O3 -DNDEBUG -std=c++17 -fopenmp -ffp-contract=off -Iinclude "${fft_flags[@]}" bench/fft_pair.cpp \
  "${fft_libs[@]}" -lm -o "$fft_pair"
if [ -n "$mkl" ]; then
  # The same FFT layer with oneMKL in FFTW's place: MKL carries FFTW's interface.
  mkl_lib=$(ls "$mkl"/libmkl_rt.so* | head -1)
  g++ -O3 -DNDEBUG -std=c++17 -fopenmp -ffp-contract=off -Iinclude "${fft_flags[@]}" bench/fft_pair.cpp \
    "$build/libpickora_cpu.a" "$mkl_lib" -Wl,-rpath,"$mkl" -lm -o "$build/bin/fft_pair_mkl"
fi
membw=$build/bin/membw
g++ -O3 -DNDEBUG -std=c++17 -fopenmp bench/membw.cpp -o "$membw"

# ---- Data -----------------------------------------------------------------------------------
if [ $quick = 1 ]; then big_n=2; small_n=3; base_ang=20; else big_n=4; small_n=6; base_ang=5; fi
bench_sets $big_n $small_n
sim_set s4096_t1 --size 4096 --templates 1 --n $big_n
[ $quick = 1 ] || sim_set s4096_t4 --size 4096 --templates 4 --n $big_n

# ---- Cases ----------------------------------------------------------------------------------
# One case a line: label | set | templates (0: the generated blob) | angle step | speed | road.
# The road is fast (the picker as users run it: FFT plans measured once into a wisdom file, here
# the bench's own), estimated (fast, with FFTW's estimated plans) or plain (estimated plans and
# the other speed-ups off too). A case that repeats an earlier one
# (same set, options and road) is reported from that run.
cases=(
  "4096x4096, 8 templates|s4096_t8|8|$base_ang|2|fast"
  "4096x4096, 8 templates, plain road|s4096_t8|8|$base_ang|2|plain"
  "4096x4096, 8 templates, estimated plans|s4096_t8|8|$base_ang|2|estimated"
  "3838x3710, 8 templates|s3838_t8|8|$base_ang|2|fast"
  "1024x1024, 8 templates|s1024_t8|8|$base_ang|2|fast"
  "4096x4096, generated blob|s4096_t8|0|$base_ang|2|fast"
  "templates: 1|s4096_t1|1|$base_ang|2|fast"
)
[ $quick = 1 ] || cases+=("templates: 4|s4096_t4|4|$base_ang|2|fast")
cases+=("templates: 8|s4096_t8|8|$base_ang|2|fast")
[ $quick = 1 ] || cases+=("angle step 20|s4096_t8|8|20|2|fast" "angle step 10|s4096_t8|8|10|2|fast")
cases+=("angle step $base_ang|s4096_t8|8|$base_ang|2|fast" "speed 3, 1 template|s4096_t1|1|$base_ang|3|fast"
        "speed 2, 1 template|s4096_t1|1|$base_ang|2|fast")
[ $quick = 1 ] || cases+=("speed 1, 1 template|s4096_t1|1|$base_ang|1|fast")

shrink_of_speed=(1 2 4 6 8)
# work_size SET SPEED: the side of the even square work image, as the driver computes it.
work_size() {
  local nx ny larger shrink=${shrink_of_speed[$2]}
  read -r nx ny < <(od -An -t d4 -N 8 "$out/data/$1/mic_0000.mrc")
  larger=$(( nx > ny ? nx : ny ))
  echo $(( 2 * (larger / (2 * shrink)) ))
}
# transform_side SET SPEED TEMPLATES: the side matching transforms on: the work side when its
# prime factors are all 2, 3, 5 or 7, else the smallest even such side that holds it and a
# template (side / shrink) beyond it, as the picker chooses it.
transform_side() {
  local n t=1
  n=$(work_size "$1" "$2")
  [ "$3" = 0 ] || t=$(( $(od -An -t d4 -N 4 "$out/data/$1/templates.mrcs") / ${shrink_of_speed[$2]} ))
  awk -v n="$n" -v t="$t" 'function smooth(m) { while (m % 2 == 0) m /= 2; while (m % 3 == 0) m /= 3
      while (m % 5 == 0) m /= 5; while (m % 7 == 0) m /= 7; return m == 1 }
    BEGIN { if (smooth(n)) { print n; exit } s = n + t - 1; while (s % 2 || !smooth(s)) s++; print s }'
}
# The driver's angle loop: a = 0, a + step, ... while a < 360; the generated blob has one angle.
angles_of() { awk -v t="$1" -v a="$2" 'BEGIN { n = 0; if (t == 0) n = 1; else for (x = 0; x < 360; x += a) n++; print n }'; }
dir_of() { echo "$out/runs/$(tr -c 'a-zA-Z0-9\n' '_' <<<"$1")"; }

# ---- Timing ---------------------------------------------------------------------------------
# Busy clock ticks of all cores since boot: user, nice, system, irq, softirq, steal.
cpu_busy_ticks() { awk '/^cpu / { print $2 + $3 + $4 + $7 + $8 + $9 }' /proc/stat; }

# timed DIR COMMAND...: runs the command in DIR under /usr/bin/time -v, standard output into
# stdout.log and standard error into stderr.log; writes DIR/other_load, the cores that other
# processes kept busy meanwhile.
timed() {
  local dir=$1; shift
  local busy_before start
  busy_before=$(cpu_busy_ticks); start=$(date +%s.%N)
  (cd "$dir" && "$timer" -v -o time.txt "$@" >stdout.log 2>stderr.log) ||
    { echo "bench: $1 failed in $dir" >&2; tail -n 5 "$dir/stdout.log" "$dir/stderr.log" >&2; exit 1; }
  awk -F': ' -v busy="$(( $(cpu_busy_ticks) - busy_before ))" -v hz="$(getconf CLK_TCK)" \
    -v now="$(date +%s.%N)" -v start="$start" '
    /User time|System time/ { own += $2 }
    END { o = (busy / hz - own) / (now - start); printf "%.2f\n", o < 0 ? 0 : o }' "$dir/time.txt" >"$dir/other_load"
}
peak_rss_mib() { awk -F': ' '/Maximum resident/ { printf "%.0f", $2 / 1024 }' "$1/time.txt"; }

# ---- FFT transforms, before and after the runs ----------------------------------------------
size_list=1024
for c in "${cases[@]}"; do
  IFS='|' read -r _ set t _ speed _ <<<"$c"
  size_list="$size_list $(work_size "$set" "$speed") $(transform_side "$set" "$speed" "$t")"
done
mapfile -t sizes < <(tr ' ' '\n' <<<"$size_list" | sort -nu)
min_seconds=2; [ $quick = 1 ] && min_seconds=0.3
# The fast road's plans live in DIR/fftw.wisdom, kept from bench to bench as a user's cache is
# kept from run to run: the first bench on a machine also measures the plans of every transform
# the picker meets (up to seconds each), later ones find them.
wisdom=$out/fftw.wisdom
planning_wisdom=$out/fftw-planning.wisdom
rm -f "$planning_wisdom" "$planning_wisdom.lock"
fft_run() {
  local name=$1; shift
  rm -rf "${out:?}/$name"; mkdir -p "$out/$name"
  timed "$out/$name" env "$@" "$root/$fft_pair" --min_seconds $min_seconds "${sizes[@]}"
  cat "$out/$name/stdout.log"
}
# field FILE N KEY: the value of KEY on the line of size N.
field() { awk -v n="$2" -v key="$3" '{ for (i = 2; i <= NF; ++i) { split($i, kv, "="); v[kv[1]] = kv[2] } } v["N"] == n { print v[key] }' "$1"; }
# fft_ms ROAD N KEY: the figure of the plans that the road uses.
fft_ms() { case $1 in fast) field "$out/fft_measured/stdout.log" "$2" "$3" ;; *) field "$out/fft_estimated/stdout.log" "$2" "$3" ;; esac; }
load_before=$(cut -d' ' -f1-3 /proc/loadavg)
fft_run fft_estimated PICKORA_FFTW_WISDOM=none
# Measured plans: the first pair of each size measures them into a new wisdom file, for the cost;
# the plans the fast road uses are timed after the runs, read back from its wisdom file.
fft_run fft_planning PICKORA_FFTW_WISDOM="$planning_wisdom"
if [ -n "$mkl" ]; then
  rm -rf "$out/fft_mkl"; mkdir -p "$out/fft_mkl"
  timed "$out/fft_mkl" env PICKORA_FFTW_WISDOM=none MKL_THREADING_LAYER=GNU "$root/$build/bin/fft_pair_mkl" \
    --min_seconds $min_seconds "${sizes[@]}"
  cat "$out/fft_mkl/stdout.log"
fi
"$membw" | tee "$out/membw.log"

# ---- Runs -----------------------------------------------------------------------------------
# run_case LABEL SET TEMPLATES ANG SPEED ROAD: pickora over the set's micrographs in a folder of
# its own (links to the micrographs, so the outputs of different cases never meet); one line of
# seconds per micrograph into rows.tsv, made into the table once the FFT floor is known.
rows=$out/rows.tsv
: >"$rows"
declare -A first_label
run_case() {
  local label=$1 set=$2 t=$3 ang=$4 speed=$5 road=$6
  local key="$set $t $ang $speed $road"
  if [ -n "${first_label[$key]:-}" ]; then
    local row
    row=$(awk -F'\t' -v OFS='\t' -v old="${first_label[$key]}" -v new="$label (same run as above)" \
      '$1 == old { $1 = new; print; exit }' "$rows")
    echo "$row" >>"$rows"
    return
  fi
  first_label[$key]=$label
  local data=$out/data/$set dir mic mics=() envs=()
  dir=$(dir_of "$label")
  rm -rf "$dir"; mkdir -p "$dir"
  for mic in "$data"/mic_*.mrc; do ln -s "$mic" "$dir/"; mics+=("$(basename "$mic")"); done
  local args=(--apixM "$apix" --diameter "$diameter" --min_dist "$diameter" --ang_step "$ang" --speed "$speed")
  [ "$t" = 0 ] || args+=(--T "$data/templates.mrcs")
  case $road in
    plain) envs+=(PICKORA_SPECTRA_MIB=0 PICKORA_READ_AHEAD=0 PICKORA_FFTW_WISDOM=none) ;;
    estimated) envs+=(PICKORA_FFTW_WISDOM=none) ;;
    fast) envs+=(PICKORA_FFTW_WISDOM="$wisdom") ;;
  esac
  timed "$dir" env "${envs[@]}" "$root/$picker" "${args[@]}" "${mics[@]}"
  # Steady state: every micrograph but the first (mic 0). Step groups: reading = the micrograph
  # steps up to the READING line; conditioning = the rest of them; matching = step 27; peaks =
  # the other per-template steps; writing = the steps after the last template (box filter).
  awk -v label="$label" -v work="$(work_size "$set" "$speed")" -v t="$t" -v angles="$(angles_of "$t" "$ang")" \
      -v rss="$(peak_rss_mib "$dir")" -v others="$(cat "$dir/other_load")" -v road="$road" \
      -v side="$(transform_side "$set" "$speed" "$t")" '
    $1 != "pickora-step" || $2 == "preparation" { next }
    $3 == 0 { first += $5; next }
    {
      m = $3; s = $5; seen[m] = 1; total[m] += s
      if ($2 == "micrograph" && $4 <= 9) c = "read"; else if ($2 == "micrograph") c = "cond"
      else if ($2 == "template" && $4 == 27) c = "match"; else if ($2 == "template") c = "peaks"; else c = "write"
      sum[c] += s
    }
    END {
      n = 0; lo = 1e30; hi = 0
      for (m in seen) { n++; if (total[m] < lo) lo = total[m]; if (total[m] > hi) hi = total[m] }
      tot = (sum["read"] + sum["cond"] + sum["match"] + sum["peaks"] + sum["write"]) / n
      printf "%s\t%d\t%s\t%d\t%d\t%.3f\t%.3f\t%.3f\t%.3f\t%.3f\t%.3f\t%.2f\t%.2f\t%s\t%s\t%.2f\t%s\t%s\n", label, n, t,
        angles, work, sum["read"] / n, sum["cond"] / n, sum["match"] / n, sum["peaks"] / n, sum["write"] / n, tot, lo,
        hi, rss, others, first, road, side
    }' "$dir/stderr.log" >>"$rows"
  echo "$label: $(tail -1 "$rows" | cut -f11) s per micrograph, other load $(cat "$dir/other_load")"
}
for c in "${cases[@]}"; do
  IFS='|' read -r label set t ang speed road <<<"$c"
  run_case "$label" "$set" "$t" "$ang" "$speed" "$road"
done
fft_run fft_measured PICKORA_FFTW_WISDOM="$wisdom"
load_after=$(cut -d' ' -f1-3 /proc/loadavg)

# ---- Report ---------------------------------------------------------------------------------
fft_table() {
  local n e=$out/fft_estimated/stdout.log m=$out/fft_measured/stdout.log
  for n in "${sizes[@]}"; do
    printf '| %s | %s (%s, %s) | %s | %s | %s (%s, %s) | %s | %s | %s | %s |\n' "$n" \
      "$(field "$e" "$n" ms_per_pair_median)" "$(field "$e" "$n" ms_per_pair_mean)" "$(field "$e" "$n" pairs)" \
      "$(field "$e" "$n" ms_inverse_median)" "$(field "$e" "$n" ms_inverse_batched_median)" \
      "$(field "$m" "$n" ms_per_pair_median)" "$(field "$m" "$n" ms_per_pair_mean)" "$(field "$m" "$n" pairs)" \
      "$(field "$m" "$n" ms_inverse_median)" "$(field "$m" "$n" ms_inverse_batched_median)" \
      "$(field "$out/fft_planning/stdout.log" "$n" plan_ms)" \
      "$( [ -n "$mkl" ] && echo "$(field "$out/fft_mkl/stdout.log" "$n" ms_inverse_median) / $(field "$out/fft_mkl/stdout.log" "$n" ms_inverse_batched_median)" || echo -)"
  done
  echo "| other load | $(cat "$out/fft_estimated/other_load") | | | $(cat "$out/fft_measured/other_load") | | | $(cat "$out/fft_planning/other_load") | $(cat "$out/fft_mkl/other_load" 2>/dev/null || echo -) |"
}
case_table() {
  local label n t angles work read cond match peaks write tot lo hi rss others first road side
  while IFS=$'\t' read -r label n t angles work read cond match peaks write tot lo hi rss others first road side; do
    [ "$side" = "$work" ] || work="$work ($side)"
    awk -v t="$t" -v a="$angles" -v p="$(fft_ms "$road" "$side" ms_inverse_batched_median)" -v m="$match" -v rss="$rss" \
        -v others="$others" -v first="$first" \
        -v row="| $label | $n | $([ "$t" = 0 ] && echo blob || echo "$t") | $angles | $work | $read | $cond | $match | $peaks | $write | **$tot** ($lo-$hi) |" \
      'BEGIN { floor = (t == 0 ? 1 : t) * a * p / 1e3; printf "%s %.3f | %.1f | %s | %s | %s |\n", row, floor, m / floor, first, rss, others }'
  done <"$rows"
}
# Per step, for the first case: where the seconds of one micrograph go.
step_table() {
  awk '
    $1 != "pickora-step" || $3 == 0 || $2 == "preparation" { next }
    {
      key = $2 " " $4; what = $6; for (i = 7; i <= NF; ++i) what = what " " $i
      name[key] = what; sum[key] += $5; mics[$3] = 1
      if (!(key in order)) { order[key] = ++count; byorder[count] = key }
    }
    END {
      n = 0; for (m in mics) n++
      for (i = 1; i <= count; ++i) { k = byorder[i]; split(k, p, " ")
        if (sum[k] / n >= 0.0005) printf "| %s %s | %s | %.3f |\n", p[1], p[2], name[k], sum[k] / n }
    }' "$(dir_of "$(cut -d'|' -f1 <<<"${cases[0]}")")/stderr.log"
}
{
  echo "## Benchmark, $(date +%Y-%m-%d), backend $backend$([ $quick = 1 ] && echo ', quick')"
  echo
  echo "Machine: $(getconf _NPROCESSORS_ONLN) cores ($(grep -m1 'model name' /proc/cpuinfo | cut -d: -f2 | sed 's/^ *//')),"\
       "$(awk '/MemTotal/ { printf "%.1f GiB", $2 / 1048576 }' /proc/meminfo) memory; OMP_NUM_THREADS=${OMP_NUM_THREADS:-unset};"\
       "load average before $load_before, after $load_after."
  if [ "$backend" = cuda ] && command -v nvidia-smi >/dev/null; then echo "GPU: $(nvidia-smi -L | head -1)"; fi
  echo "Options: --apixM $apix --diameter $diameter --min_dist $diameter, plus each case's --T, --ang_step, --speed."
  echo
  echo "FFT transforms at each work size (bench/fft_pair.cpp, plans made once), ms, medians: the"
  echo "forward+inverse pair (mean, pairs timed), the inverse alone and per inverse of a batch of 4"
  echo "run side by side (as matching runs its angles); with estimated plans before the runs, with"
  echo "measured plans read back from the wisdom file after them; what measuring them cost; and,"
  echo "with --mkl, the inverse alone and batched through oneMKL's FFTW interface:"
  echo
  echo "| N | pair, estimated | inverse, estimated | batched, estimated | pair, measured | inverse, measured | batched, measured | measuring, ms | oneMKL inverse / batched |"
  echo "|---|---|---|---|---|---|---|---|---|"
  fft_table
  echo
  echo "Seconds per micrograph, mean over the micrographs after the first (n), from the step timers;"
  echo "Work size: the side of the work image, and in brackets the side matching transforms on where"
  echo "they differ. FFT floor = templates x angles x one batched inverse transform at that side (measured"
  echo "plans for the fast road, estimated for the others): with its template spectra kept, that is"
  echo "all matching transforms per angle. First ="
  echo "the first micrograph, which also makes the plans and the kept spectra. Peak RSS of the whole"
  echo "run; other load = cores kept busy by other processes during the run."
  echo
  echo "| case | n | templates | angles | work size | reading | conditioning | matching | peaks | writing | total (min-max) | FFT floor | matching / floor | first | peak RSS MiB | other load |"
  echo "|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|---|"
  case_table
  echo
  echo "Memory bandwidth (bench/membw.cpp, arrays of 256 MiB, best of 7, all threads), GB/s:"
  echo
  awk '/^membw loop/ { split($2, l, "="); split($4, g, "="); printf "%s %s", (n++ ? "," : ""), l[2] ": " g[2] } END { print "" }' "$out/membw.log"
  echo
  echo "Steps of the first case, seconds per micrograph (steps under 0.5 ms left out):"
  echo
  echo "| table step | what | seconds |"
  echo "|---|---|---|"
  step_table
} >"$out/results.md"
echo
cat "$out/results.md"
