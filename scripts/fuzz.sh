#!/usr/bin/env bash
# Builds every libFuzzer target (executables named fuzz_*) in a separate clang
# build with AddressSanitizer and UndefinedBehaviorSanitizer, and runs each for
# the given number of seconds. A target fuzz_X is seeded with the files that the
# program fuzzseed_X (if an area provides one) writes into a folder.
# Fails when any target finds a crash, a leak, a timeout or runs out of memory.
#
#   scripts/fuzz.sh <build dir> <seconds per target>
set -euo pipefail

build=${1:?usage: fuzz.sh <build dir> <seconds per target>}
seconds=${2:-20}
source_dir=$(cd "$(dirname "$0")/.." && pwd)

for tool in clang clang++ cmake ninja; do
  command -v "$tool" >/dev/null || { echo "fuzz: $tool not found" >&2; exit 1; }
done

# A cache made by another compiler cannot be reused: start that build afresh.
if [ -f "$build/CMakeCache.txt" ] && ! grep -q '^CMAKE_CXX_COMPILER:[A-Z]*=.*clang++' "$build/CMakeCache.txt"; then
  rm -rf "$build/CMakeCache.txt" "$build/CMakeFiles"
fi

# Libraries are instrumented too (coverage and sanitizers); only fuzz targets
# link libFuzzer itself.
sanitize="-fsanitize=address,undefined -fno-sanitize-recover=undefined -fno-omit-frame-pointer"
CC=clang CXX=clang++ cmake -S "$source_dir" -B "$build" -G Ninja \
  -DVELMORA_FUZZ=ON -DCMAKE_BUILD_TYPE=RelWithDebInfo \
  -DCMAKE_C_FLAGS="$sanitize -fsanitize=fuzzer-no-link" \
  -DCMAKE_CXX_FLAGS="$sanitize -fsanitize=fuzzer-no-link" \
  -DCMAKE_EXE_LINKER_FLAGS="$sanitize" >/dev/null

all_targets=$(ninja -C "$build" -t targets all | sed -n 's/^\(fuzz[a-z]*_[A-Za-z0-9_]*\): phony$/\1/p' | sort -u)
fuzzers=$(grep '^fuzz_' <<<"$all_targets" || true)
if [ -z "$fuzzers" ]; then
  echo "fuzz: no fuzz_* targets"
  exit 0
fi
seeders=()
for t in $fuzzers; do
  grep -qx "fuzzseed_${t#fuzz_}" <<<"$all_targets" && seeders+=("fuzzseed_${t#fuzz_}")
done
echo "fuzz: building $(echo $fuzzers) ${seeders[*]}"
cmake --build "$build" -j "$(nproc)" --target $fuzzers "${seeders[@]}"

executable() { find "$build" -type f -name "$1" -perm -u+x | head -n 1; }

failed=()
for t in $fuzzers; do
  exe=$(executable "$t")
  corpus="$build/fuzz/corpus/$t"
  seeds="$build/fuzz/seeds/$t"
  artifacts="$build/fuzz/artifacts/$t"
  log="$build/fuzz/logs/$t.log"
  mkdir -p "$corpus" "$seeds" "$artifacts" "$(dirname "$log")"
  if seeder=$(executable "fuzzseed_${t#fuzz_}") && [ -n "$seeder" ]; then
    "$seeder" "$seeds"
  fi
  echo "fuzz: $t for ${seconds}s ($(find "$seeds" -type f | wc -l) seeds)"
  # The first folder receives new interesting inputs; seeds are only read.
  if ASAN_OPTIONS=detect_leaks=1 UBSAN_OPTIONS=print_stacktrace=1 \
     "$exe" -max_total_time="$seconds" -rss_limit_mb=2048 -timeout=10 -max_len=16384 \
       -artifact_prefix="$artifacts/" -print_final_stats=1 "$corpus" "$seeds" >"$log" 2>&1; then
    grep -E '^stat::number_of_executed_units' "$log" | sed "s/^/fuzz: $t /" || true
  else
    echo "fuzz: $t FAILED; log $log, inputs in $artifacts" >&2
    tail -n 40 "$log" >&2
    failed+=("$t")
  fi
done

if ((${#failed[@]})); then
  echo "fuzz: failures in ${failed[*]}" >&2
  exit 1
fi
echo "fuzz: no crashes"
