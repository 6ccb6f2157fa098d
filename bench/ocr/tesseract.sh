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
build=${1:-build}
n=${2:-200}

if ! command -v tesseract >/dev/null; then
  SUDO=""
  [ "$(id -u)" -eq 0 ] || SUDO="sudo"
  echo "tesseract.sh: installing tesseract-ocr"
  flock /tmp/apt.lock $SUDO env DEBIAN_FRONTEND=noninteractive \
    apt-get install -y --no-install-recommends tesseract-ocr tesseract-ocr-eng >/dev/null
fi
tesseract --version 2>&1 | head -1

work=$(mktemp -d /tmp/ocr-tesseract-XXXXXX)
trap 'rm -rf "$work"' EXIT
export VELMORA_VISION_DIR=${VELMORA_VISION_DIR:-$(cd "$build" && pwd)/share/velmora/vision}
"$build/bench/bench_ocr_accuracy" --markings "$n" --dump "$work" >"$work/ours.txt"
cat "$work/ours.txt"

declare -A alphabet=(
  [Industrial]="0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ-+:./#%()*="
  [Document]="0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz-+:./#%()*="
  [DotPrint]="0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ-+:./#%()*="
  [OCRA]="0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ-+:./#%()*="
  [OCRB]="0123456789ABCDEFGHIJKLMNOPQRSTUVWXYZ-+:./#%()*="
)

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

python3 - "$work" <<'EOF'
import sys, collections
work = sys.argv[1]
def edit(a, b):
    prev = list(range(len(b) + 1))
    for i, ca in enumerate(a, 1):
        cur = [i]
        for j, cb in enumerate(b, 1):
            cur.append(min(prev[j] + 1, cur[j - 1] + 1, prev[j - 1] + (ca != cb)))
        prev = cur
    return prev[-1]
rows = collections.defaultdict(list)
for line in open(f"{work}/truth.tsv"):
    name, fam, grade, truth, ours, ms = line.rstrip("\n").split("\t")
    rows[(fam, grade)].append((truth, ours, float(ms)))
times = {}
for line in open(f"{work}/times.txt"):
    fam, grade, s, e = line.split()
    times[(fam, grade)] = float(e) - float(s)
print(f"{'family':10} {'grade':9} {'ours_char%':>10} {'ours_mark%':>10} {'ours_ms':>8} "
      f"{'tess_char%':>10} {'tess_mark%':>10} {'tess_ms':>8} {'speedup':>8}")
for (fam, grade), items in rows.items():
    pages = open(f"{work}/tess_{fam}_{grade}.txt", encoding="utf-8", errors="replace").read().split("\f")
    tess = [p.strip().replace(" ", "").replace("\n", "") for p in pages][: len(items)]
    tess += [""] * (len(items) - len(tess))
    chars = sum(len(t) for t, _, _ in items)
    ours_err = sum(min(edit(t, o), len(t)) for t, o, _ in items)
    tess_err = sum(min(edit(t, x), len(t)) for (t, _, _), x in zip(items, tess))
    ours_ms = sum(ms for _, _, ms in items) / len(items)
    tess_ms = 1000.0 * times[(fam, grade)] / len(items)
    print(f"{fam:10} {grade:9} {100*(chars-ours_err)/chars:10.2f} "
          f"{100*sum(t==o for t,o,_ in items)/len(items):10.1f} {ours_ms:8.2f} "
          f"{100*(chars-tess_err)/chars:10.2f} "
          f"{100*sum(t==x for (t,_,_),x in zip(items,tess))/len(items):10.1f} {tess_ms:8.2f} "
          f"{tess_ms/ours_ms:8.1f}")
EOF
