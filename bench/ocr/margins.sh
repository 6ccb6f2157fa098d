#!/usr/bin/env bash
# Reading against the ground around the marking: every family's generated
# markings (held-out faces and strings, the three grades) with 0.3 to 4 cap
# heights of ground on each side, read as sent and with "text_window".
#
#   bench/ocr/margins.sh [build-dir] [markings-per-family-and-grade]
set -euo pipefail
build=${1:-build}
n=${2:-40}
export VELMORA_VISION_DIR=${VELMORA_VISION_DIR:-$(cd "$build" && pwd)/share/velmora/vision}
echo "bench_ocr_accuracy --margin M: $n markings per family and grade; char% / marking%"
printf "%-10s %-9s" family grade
for m in 0.3 0.6 1 1.5 2 3 4; do printf " %13s" "margin $m"; done
printf " %13s\n" "4, window"
for family in Industrial Document DotPrint OCRA OCRB; do
  declare -A cells=()
  for m in 0.3 0.6 1 1.5 2 3 4; do
    while read -r fam grade chars cp mp rest; do
      cells["$grade $m"]="$cp / $mp"
    done < <("$build/bench/bench_ocr_accuracy" --markings "$n" --family "$family" --margin "$m" \
               2>/dev/null | awk -v f="$family" '$1==f')
  done
  while read -r fam grade chars cp mp rest; do
    cells["$grade w"]="$cp / $mp"
  done < <("$build/bench/bench_ocr_accuracy" --markings "$n" --family "$family" --margin 4 \
             --text-window 1 2>/dev/null | awk -v f="$family" '$1==f')
  for grade in clean moderate hard; do
    printf "%-10s %-9s" "$family" "$grade"
    for m in 0.3 0.6 1 1.5 2 3 4 w; do printf " %13s" "${cells["$grade $m"]}"; done
    printf "\n"
  done
  unset cells
done
