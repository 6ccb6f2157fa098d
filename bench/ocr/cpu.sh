#!/usr/bin/env bash
# Processor time per marking, ours against Tesseract 5 (--psm 7, the
# family's characters as whitelist), on the windows of the independent
# benchmark (independent.sh): on a shared machine wall times say more about
# the other processes than about the readers. Ours: the least thread time of
# --repeat reads of each window (bench_ocr_cpu); Tesseract: user + system
# time of one process reading each family's and grade's list, divided by
# the windows (its start-up spread over them, as independent.sh does). Both
# pinned to one core. The second comparison: our text window on the whole
# 640x480 frame of each marking (finding the line, reading its windows)
# against Tesseract on the window the host would have cut.
#
#   bench/ocr/cpu.sh [build-dir] [markings-per-family-and-grade] [repeat]
set -euo pipefail
source "$(dirname "$0")/common.sh"
build=${1:-build}
n=${2:-100}
repeat=${3:-5}
bench_workdir "$build" cpu
"$build/bench/bench_ocr_independent" plan --markings "$n" >"$work/plan.tsv"
render_plan "$work/plan.tsv" "$work"
"$build/bench/bench_ocr_independent" read --dir "$work" --frames 1 >/dev/null 2>&1
echo "bench/ocr/cpu.sh: $n markings per family and grade, ours best of $repeat reads; load average $(cut -d' ' -f1-3 /proc/loadavg)"
taskset -c 1 "$build/bench/bench_ocr_cpu" --dir "$work" --repeat "$repeat" 2>/dev/null >"$work/ours.txt"

printf '%-10s %-9s %5s %9s %9s %8s %9s %8s\n' family grade marks ours_cpu tess_cpu ratio tw_cpu tw_ratio
tail -n +2 "$work/ours.txt" | while read -r family grade marks ours tw; do
  awk -F'\t' -v f="$family" -v g="$grade" -v d="$work" '$2==f && $3==g {print d "/" $1}' \
    "$work/truth.tsv" >"$work/list.txt"
  /usr/bin/time -f '%U %S' -o "$work/time.txt" env OMP_THREAD_LIMIT=1 taskset -c 1 \
    tesseract "$work/list.txt" "$work/tess" --psm 7 -c tessedit_char_whitelist="${alphabet[$family]}" \
    </dev/null >/dev/null 2>&1
  read -r user sys <"$work/time.txt"
  awk -v f="$family" -v g="$grade" -v m="$marks" -v o="$ours" -v w="$tw" -v u="$user" -v s="$sys" 'BEGIN {
    t = 1000 * (u + s) / m
    printf "%-10s %-9s %5d %9.2f %9.2f %8.1f %9.2f %8.1f\n", f, g, m, o, t, t / o, w, t / w }'
done
echo "load average at the end: $(cut -d' ' -f1-3 /proc/loadavg)"
