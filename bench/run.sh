#!/usr/bin/env bash
# Runs every benchmark of a build (executables bench_* and scripts bench/*.sh
# other than this one) and keeps their output under bench/results/.
set -euo pipefail
build=${1:-build}
here=$(cd "$(dirname "$0")" && pwd)
mkdir -p "$here/results"
export VELMORA_VISION_DIR=${VELMORA_VISION_DIR:-$(cd "$build" && pwd)/share/velmora/vision}
export QT_QPA_PLATFORM=offscreen
for exe in $(find "$build/bench" -maxdepth 1 -type f -name 'bench_*' -perm -u+x | sort); do
  name=$(basename "$exe")
  echo "== $name"
  "$exe" 2>&1 | tee "$here/results/$name.txt"
done
