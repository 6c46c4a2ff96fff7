#!/usr/bin/env bash
# Line and branch coverage of src/ from the unit tests and the system tests: a figure to read,
# not a gate (scripts/test-all.sh does not run it; it takes about as long as those two stages).
#
#   scripts/coverage.sh                  # build-cov, unit tests, system tests, summary
#   COVERAGE_SYSTEM=0 scripts/coverage.sh   # unit tests only
#   COVERAGE_HTML=DIR scripts/coverage.sh   # also a per-file HTML report in DIR
#
# The system tests need root, as everywhere. Daemons end by SIGTERM, so each writes its counts
# at exit; a process killed outright (a few hostile tests do it) leaves its counts unwritten.
set -euo pipefail
cd "$(dirname "$0")/.."
BUILD=${COVERAGE_BUILD_DIR:-build-cov}
JOBS=$(nproc)
# Atomic counters: three threads in one daemon update the same counters. No exceptions, as in
# the package build: branches that only a throw would take are not branches of this code.
# TARN_COVERAGE: forked test children write their counts before they _exit.
FLAGS="--coverage -fprofile-update=atomic -fno-exceptions -DTARN_COVERAGE"

cmake -S . -B "$BUILD" -DCMAKE_BUILD_TYPE=Debug -DTARN_WERROR=ON \
    -DCMAKE_C_FLAGS="$FLAGS" -DCMAKE_CXX_FLAGS="$FLAGS" \
    -DCMAKE_EXE_LINKER_FLAGS=--coverage >/dev/null
make -C "$BUILD" -j"$JOBS" --no-print-directory
find "$BUILD" -name '*.gcda' -delete

failed=""
ctest --test-dir "$BUILD" -j"$JOBS" >"$BUILD/coverage-unit.log" 2>&1 || failed+=" unit"
if [ "${COVERAGE_SYSTEM:-1}" != 0 ]; then
    # Memory figures of an instrumented build say nothing about the daemon's: those tests are left
    # out.
    TARN_BUILD_DIR="$PWD/$BUILD" /usr/bin/python3 -m pytest -q -p no:cacheprovider \
        -k "not memory" tests/system \
        >"$BUILD/coverage-system.log" 2>&1 || failed+=" system"
fi
[ -z "$failed" ] || echo "coverage: some tests failed (${failed# }); see $BUILD/coverage-*.log" >&2

report=(--root . --filter 'src/' --exclude-unreachable-branches --exclude-throw-branches)
if [ -n "${COVERAGE_HTML:-}" ]; then
    mkdir -p "$COVERAGE_HTML"
    gcovr "${report[@]}" --html-details "$COVERAGE_HTML/index.html" "$BUILD" >/dev/null
fi
gcovr "${report[@]}" --print-summary --txt "$BUILD/coverage.txt" "$BUILD"
