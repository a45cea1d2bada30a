#!/usr/bin/env bash
# Installs what is missing, builds everything and runs all tests.
#
#   scripts/test.sh
#
# Each step writes to build/logs; the end of that log is shown when the step fails. What lacks a
# privilege is skipped and says why. The last line counts what passed, failed and was skipped; the
# status is 0 only when nothing failed.
set -uo pipefail
cd "$(dirname "$0")/.." || exit 1

started=$SECONDS
passed=0 failed=0 skipped=0
failed_steps=()
mkdir -p build/logs
rm -f build/logs/*.log
jobs=$(nproc)

# step NAME COMMAND...: runs it, tells how it went and how long it took.
step() {
  local name=$1 log begin=$SECONDS
  shift
  log=build/logs/${name// /-}.log
  printf '%-44s ' "$name"
  if "$@" >"$log" 2>&1; then
    printf 'ok      %4d s\n' $((SECONDS - begin))
    count "$log"
    return 0
  fi
  printf 'FAILED  %4d s\n' $((SECONDS - begin))
  failed_steps+=("$name")
  count "$log"
  sed 's/^/    /' < <(grep -E '^(FAIL|ERROR): |\*\*\*Failed|\(Failed\)|error:' "$log" | head -n 20; echo ...; tail -n 40 "$log")
  echo "    The whole log: $log"
  return 1
}

# Adds up the closing lines of ctest, of the fuzzers and of Python's unittest.
count() {
  local log=$1 lost total
  while read -r lost total; do
    passed=$((passed + total - lost))
    failed=$((failed + lost))
  done < <(sed -n 's/.* tests passed, \([0-9]*\) tests failed out of \([0-9]*\).*/\1 \2/p' "$log")
  while read -r total lost; do
    passed=$((passed + total))
    failed=$((failed + lost))
  done < <(sed -n 's/^fuzzing: \([0-9]*\) passed, \([0-9]*\) failed.*/\1 \2/p' "$log")
  total=$(sed -n 's/^Ran \([0-9]*\) tests\{0,1\} in .*/\1/p' "$log" | tail -n 1)
  [ -n "$total" ] || return 0
  local verdict number left=0
  verdict=$(grep -E '^(OK|FAILED)( |$)' "$log" | tail -n 1)
  lost=0
  for number in $(grep -oE '(failures|errors)=[0-9]+' <<<"$verdict" | cut -d= -f2); do lost=$((lost + number)); done
  left=$(sed -n 's/.*skipped=\([0-9]*\).*/\1/p' <<<"$verdict")
  left=${left:-0}
  passed=$((passed + total - lost - left))
  failed=$((failed + lost))
  skipped=$((skipped + left))
  sed -n "s/^\(.*\) \.\.\. skipped \(.*\)$/    skipped: \1: \2/p" "$log"
}

format() {
  git ls-files -z --cached --others --exclude-standard '*.cpp' '*.h' | xargs -0 -r -n 40 clang-format --dry-run -Werror
}

build() {
  cmake --preset "$1" && cmake --build --preset "$1" -j "$jobs"
}

unit_tests() {
  ctest --preset "$1" -j "$jobs"
}

# The classic profile with clients that nobody here wrote.
classic() {
  NFSLIB_PROFILE=--classic tests/e2e/run.sh libnfs_test.Libnfs writable_test udp_test
}

# Installed and removed on a copy of this machine.
packages() {
  scripts/package.sh && (cd tests/install && python3 -B -m unittest -v package_test)
}

# The tool itself under ThreadSanitizer, with eight clients at once.
threads() {
  NFSLIB_TOOL=$PWD/build/tsan/bin/nfslib NFSLIB_PATIENCE=10 NFSLIB_BIG_FILE_MIB=8 \
    TSAN_OPTIONS=halt_on_error=1 tests/e2e/run.sh libnfs_test.Libnfs.test_eight_clients_at_once
}

summary() {
  echo
  if [ ${#failed_steps[@]} -gt 0 ]; then echo "failed steps: $(IFS=,; echo "${failed_steps[*]}" | sed 's/,/, /g')"; fi
  echo "took $(((SECONDS - started) / 60)) min $(((SECONDS - started) % 60)) s; logs are in build/logs"
  echo "$passed passed, $((failed + (failed == 0 ? ${#failed_steps[@]} : 0))) failed, $skipped skipped"
}

scripts/packages.sh test || exit 1
if command -v ccache >/dev/null; then export CMAKE_CXX_COMPILER_LAUNCHER=ccache; fi

step "format" format
step "build release with g++" build release
step "Debian packages" packages
step "build all with clang++" build clang && step "tests with clang++" unit_tests clang
step "build asan" build asan && step "tests and corpora under asan" unit_tests asan
step "build tsan" build tsan && step "tests under tsan" unit_tests tsan
step "fuzz targets for 15 s each" scripts/fuzz.sh -p asan 15
if [ -x build/release/bin/nfslib ] && [ -x build/clang/bin/libnfs_compare ]; then
  step "end to end" tests/e2e/run.sh
  step "end to end in the classic profile" classic
  [ ! -x build/tsan/bin/nfslib ] || step "eight clients on the tool under tsan" threads
else
  failed_steps+=("end to end")
  echo "end to end: not run, the programs it needs were not built"
fi

summary
[ ${#failed_steps[@]} -eq 0 ]
