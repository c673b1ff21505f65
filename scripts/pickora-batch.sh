#!/usr/bin/env bash
# Runs pickora over many micrographs in parallel processes with GNU parallel: one process per
# job, each on its own share of the list, each on its own GPU when --gpus is given. Finished
# micrographs are skipped (--do_unfinished), so running the same command again resumes.
# Reports done, failed and remaining micrographs, with an estimate of the time left.
#
# Usage: scripts/pickora-batch.sh [-j JOBS] [-g "GPU_IDS"] [-b PICKORA] [-l LOGDIR] -o "OPTIONS" MIC...
#   -j JOBS     processes at once (default 2)
#   -g IDS      GPU ids, e.g. "0 1 2 3"; job k uses id k modulo their number (default: none given)
#   -b PICKORA  the executable (default: build/bin/pickora beside this script)
#   -l LOGDIR   one log per job, in a folder of its own per call: LOGDIR/RUN/job_K.log, with
#               LOGDIR/latest pointing at the newest RUN (default LOGDIR: pickora-batch-logs)
#   -o OPTIONS  the pickora options, one string, e.g. "--apixM 1.34 --diameter 250 --T t.mrcs"
set -uo pipefail
here=$(cd "$(dirname "$0")" && pwd)
jobs=2 gpus="" pickora="$here/../build/bin/pickora" logdir=pickora-batch-logs options=""
while getopts "j:g:b:l:o:h" flag; do
  case $flag in
    j) jobs=$OPTARG ;;
    g) gpus=$OPTARG ;;
    b) pickora=$OPTARG ;;
    l) logdir=$OPTARG ;;
    o) options=$OPTARG ;;
    *) sed -n '2,15p' "$0"; exit 2 ;;
  esac
done
shift $((OPTIND - 1))
[ $# -gt 0 ] || { echo "pickora-batch: no micrographs given" >&2; exit 2; }
command -v parallel >/dev/null || { echo "pickora-batch: GNU parallel is missing (apt-get install parallel)" >&2; exit 2; }
[ -x "$pickora" ] || { echo "pickora-batch: no executable $pickora" >&2; exit 2; }

mics=("$@")
total=${#mics[@]}
# Each call logs into a folder of its own, so that two calls from one folder (at once or one
# after the other) never write over each other's shares and logs.
top=$logdir
logdir="$top/$(date +%Y%m%d-%H%M%S)-$$"
mkdir -p "$logdir" || { echo "pickora-batch: cannot create $logdir" >&2; exit 2; }
ln -sfn "$(basename "$logdir")" "$top/latest"
# Job k takes micrographs k, k + jobs, k + 2 jobs, ...: shares of equal size in list order.
for ((k = 0; k < jobs; k++)); do
  : >"$logdir/share_$k.txt"
  for ((i = k; i < total; i += jobs)); do echo "${mics[i]}" >>"$logdir/share_$k.txt"; done
done

finished() {  # micrographs whose final .box exists, as --do_unfinished counts them
  local n=0 m stem
  for m in "${mics[@]}"; do
    stem=${m%.mrcs}; stem=${stem%.mrc}
    [ -r "${stem}_pickora.box" ] && n=$((n + 1))
  done
  echo $n
}

start=$(date +%s) before=$(finished)
run_share() {  # job number
  local k=$1 gid="" ids
  if [ -n "$gpus" ]; then read -r -a ids <<<"$gpus"; gid="--gid ${ids[k % ${#ids[@]}]}"; fi
  [ -s "$logdir/share_$k.txt" ] || return 0
  # The flag comes first and with its value: a bare flag would take a following name that
  # starts with "/", "." or a digit as its value, losing that micrograph and the resume.
  # shellcheck disable=SC2086  # the options are words for pickora
  xargs -a "$logdir/share_$k.txt" -d '\n' "$pickora" --do_unfinished 1 $options $gid >"$logdir/job_$k.log" 2>&1
}
export -f run_share
export pickora options gpus logdir
seq 0 $((jobs - 1)) | SHELL=/bin/bash parallel --will-cite -j "$jobs" run_share {} &
runner=$!
last_report=$start
while kill -0 $runner 2>/dev/null; do
  sleep 1
  [ $(( $(date +%s) - last_report )) -ge 30 ] || continue
  last_report=$(date +%s)
  now=$(finished) elapsed=$(( $(date +%s) - start ))
  if [ $((now - before)) -gt 0 ]; then
    eta=$(( elapsed * (total - now) / (now - before) ))
    echo "pickora-batch: $now of $total done, $elapsed s so far, about $eta s left"
  fi
done
wait $runner
status=$?
done_now=$(finished)
failed_jobs=$(grep -L "All [0-9]* files finished successfully" "$logdir"/job_*.log 2>/dev/null | wc -l)
[ "$done_now" -eq "$total" ] || [ "$failed_jobs" -gt 0 ] ||
  echo "pickora-batch: every job ended, yet $((total - done_now)) micrographs have no .box file: see the logs" >&2
echo "pickora-batch: done $done_now, remaining $((total - done_now)), failed jobs $failed_jobs of $jobs," \
  "$(( $(date +%s) - start )) s; logs in $logdir"
[ $status -eq 0 ] && [ "$done_now" -eq "$total" ]
