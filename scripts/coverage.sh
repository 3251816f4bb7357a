#!/bin/sh
# Runs the tests of a build that counts what they take, and prints the share of the lines and branches, those that the
# compiler adds for exceptions left out: of the library by its own tests, of the program by its own. Fails below the
# least that each must have.
# Usage: coverage.sh BUILD_DIRECTORY [JOBS]
set -eu
cd "$(dirname "$0")/.."
build=$1
result=0
export GCOV_ERROR_FILE="$PWD/$build/gcov.log" # the tests compare what the program prints

# NAME LEAST_LINES LEAST_BRANCHES, then the sources as options of gcovr, and directories of objects
report() {
  name=$1 lines=$2 branches=$3
  shift 3
  gcovr --root . --branches --exclude-throw-branches --exclude-unreachable-branches --fail-under-line "$lines" \
    --fail-under-branch "$branches" --print-summary --output "$build/$name.txt" "$@" >"$build/$name.summary" || result=1
  cat "$build/$name.txt"
  sed -n "s/^\(lines\|branches\): /$name: &/p" "$build/$name.summary"
}

find "$build" -name '*.gcda' -delete
KELVANE_MODEL_ROUNDS=5 "$build/tests/kelvane_tests" --gtest_brief=1
report library 99 96 --filter src/ --filter include/ "$build/CMakeFiles" "$build/tests/CMakeFiles/kelvane_tests.dir"

find "$build" -name '*.gcda' -delete
ctest --test-dir "$build" --parallel "${2:-1}" --output-on-failure --tests-regex '^(program_|Messages)'
report program 0 0 --filter tools/ "$build/tools"
exit $result
