#!/usr/bin/env bash
# The reader on markings made outside the training program, Tesseract 5 beside
# it on the same windows.
#
#   bench/ocr/independent.sh [build-dir] [markings-per-family-and-grade] [seed]
#
# bench_ocr_independent plans the markings (faces and strings training never
# saw); pango-view lays out and rasterises each text (Pango/Cairo, not the
# FreeType path of training); bench_ocr_independent then degrades and reads
# them (window, window with the expected count, whole 640x480 frame) and
# writes the windows; tesseract --psm 7 with the family's characters as
# whitelist reads the same windows. Needs pango1.0-tools and tesseract-ocr
# (scripts/setup.sh).
set -euo pipefail
source "$(dirname "$0")/common.sh"
build=${1:-build}
n=${2:-100}
# A third argument plans other markings (same faces and kinds, other strings,
# sizes and degradations): tune on those, publish with the default.
seed=${3:-424242}
bench_workdir "$build" independent
"$build/bench/bench_ocr_independent" plan --markings "$n" --seed "$seed" >"$work/plan.tsv"
render_plan "$work/plan.tsv" "$work"
echo "bench_ocr_independent: $n markings per family and grade, Pango $(pango-view --version | awk '{print $NF}')"
"$build/bench/bench_ocr_independent" read --dir "$work" --confusions 1 2>/dev/null | tee "$work/ours.txt"

echo
tesseract --version 2>&1 | head -1
echo "tesseract --psm 7 on the same windows"
for family in Industrial Document DotPrint OCRA OCRB; do
  for grade in clean moderate hard; do
    awk -F'\t' -v f="$family" -v g="$grade" -v d="$work" '$2==f && $3==g {print d "/" $1}' \
      "$work/truth.tsv" >"$work/list_${family}_${grade}.txt"
    [ -s "$work/list_${family}_${grade}.txt" ] || continue
    start=$(date +%s.%N)
    if ! OMP_THREAD_LIMIT=1 tesseract "$work/list_${family}_${grade}.txt" "$work/tess_${family}_${grade}" \
      --psm 7 -c tessedit_char_whitelist="${alphabet[$family]}" >/dev/null 2>&1; then
      # Tesseract 5.3 dies (floating point exception) on the odd window: the
      # batch is read again window by window, a window it dies on read as
      # nothing (the batch's time then includes a start per window).
      echo "tesseract died on a $family $grade window: read one by one" >&2
      : >"$work/tess_${family}_${grade}.txt"
      while read -r f; do
        OMP_THREAD_LIMIT=1 tesseract "$f" - --psm 7 -c page_separator= \
          -c tessedit_char_whitelist="${alphabet[$family]}" 2>/dev/null \
          >>"$work/tess_${family}_${grade}.txt" || true
        printf '\f' >>"$work/tess_${family}_${grade}.txt"
      done <"$work/list_${family}_${grade}.txt"
    fi
    end=$(date +%s.%N)
    echo "$family $grade $start $end" >>"$work/times.txt"
  done
done
python3 "$(dirname "$0")/tesseract_score.py" "$work"
