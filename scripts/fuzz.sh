#!/usr/bin/env bash
# Runs every fuzz target for a while, from the committed corpus.
#
#   scripts/fuzz.sh [-p PRESET] [SECONDS] [TARGET...]       SECONDS for each target, 60 unless given
#
# PRESET is `fuzz`, which is made for long runs, unless `asan` is given, which the tests have built.
# New inputs are kept in build/fuzz-corpus, from where later runs go on. An input that breaks
# something is left in build/fuzz-findings, with the command that repeats it.
set -euo pipefail
cd "$(dirname "$0")/.."

preset=fuzz
if [ "${1:-}" = -p ]; then
  preset=$2
  shift 2
fi
seconds=${1:-60}
shift || true
if command -v ccache >/dev/null; then export CMAKE_CXX_COMPILER_LAUNCHER=ccache; fi
cmake --preset "$preset" >/dev/null
cmake --build --preset "$preset" -j "$(nproc)"

if [ $# -eq 0 ]; then
  for source in fuzz/*_fuzz.cpp; do set -- "$@" "$(basename "$source" _fuzz.cpp)"; done
fi
mkdir -p build/fuzz-findings
passed=0 failed=0
for target in "$@"; do
  mkdir -p "build/fuzz-corpus/$target"
  log=build/fuzz-findings/$target.log
  options=()
  # libarchive asks for as much as a header claims, and touches what the file really has. What is
  # touched stays limited.
  if [ "$target" = archive ]; then options=(-malloc_limit_mb=16384); fi
  # A leak is found by the same run; a slow input is a finding as well.
  if "build/$preset/bin/${target}_fuzz" -max_total_time="$seconds" -timeout=10 -rss_limit_mb=2048 \
    -max_len=8192 "${options[@]}" -artifact_prefix="build/fuzz-findings/$target-" \
    "build/fuzz-corpus/$target" "fuzz/corpus/$target" >"$log" 2>&1; then
    passed=$((passed + 1))
    echo "$target: $(grep -o 'Done .*' "$log"), $(find "build/fuzz-corpus/$target" -type f | wc -l) inputs"
  else
    failed=$((failed + 1))
    tail -n 40 "$log"
    echo "$target: FAILED; repeat with build/$preset/bin/${target}_fuzz build/fuzz-findings/$target-..."
  fi
done
echo "fuzzing: $passed passed, $failed failed"
[ $failed -eq 0 ]
