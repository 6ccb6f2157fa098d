#!/usr/bin/env bash
# Tesseract 5 beside the add-in's reader on the same generated markings.
#
#   bench/ocr/tesseract.sh [build-dir] [markings-per-family-and-grade]
#
# Installs tesseract-ocr with apt when it is missing (this benchmark's own
# setup; the add-in does not need it), lets bench_ocr_accuracy write its
# evaluation markings and our results, then runs tesseract once per family and
# grade over the list of those images in single-line mode (--psm 7) with the
# family's characters as whitelist, and prints both readers' character and
# whole-marking accuracy and mean milliseconds per marking. Tesseract's time is
# the wall time of the batch divided by the number of markings (one process
# start per batch); ours is the mean of the per-marking times, so both are
# throughput figures.
set -euo pipefail
source "$(dirname "$0")/common.sh"
build=${1:-build}
n=${2:-200}

if ! command -v tesseract >/dev/null; then
  echo "tesseract.sh: tesseract not found; run scripts/setup.sh" >&2
  exit 1
fi
tesseract --version 2>&1 | head -1

bench_workdir "$build" tesseract
"$build/bench/bench_ocr_accuracy" --markings "$n" --dump "$work" >"$work/ours.txt"
cat "$work/ours.txt"

echo
echo "tesseract --psm 7 on the same markings"
for family in Industrial Document DotPrint OCRA OCRB; do
  for grade in clean moderate hard; do
    awk -F'\t' -v f="$family" -v g="$grade" -v d="$work" '$2==f && $3==g {print d "/" $1}' \
      "$work/truth.tsv" >"$work/list_${family}_${grade}.txt"
    [ -s "$work/list_${family}_${grade}.txt" ] || continue
    start=$(date +%s.%N)
    OMP_THREAD_LIMIT=1 tesseract "$work/list_${family}_${grade}.txt" "$work/tess_${family}_${grade}" \
      --psm 7 -c tessedit_char_whitelist="${alphabet[$family]}" >/dev/null 2>&1
    end=$(date +%s.%N)
    echo "$family $grade $start $end" >>"$work/times.txt"
  done
done

python3 "$(dirname "$0")/tesseract_score.py" "$work"
