#!/usr/bin/env bash
# The whole test suite: the include check of the folders, unit tests (plain, ASan+UBSan, TSan for the concurrency tests), the
# system tests in network namespaces (root only; skipped with a reason otherwise), a hostile
# soak of the ASan+UBSan daemon, the package stage and the bounded fuzz runs of every parser of
# untrusted input.
set -euo pipefail
cd "$(dirname "$0")/.."
JOBS=$(nproc)

scripts/install-deps.sh

step() { printf '\n==== %s\n' "$*"; }

# The test executables whose subject is concurrency: they also run under ThreadSanitizer.
tsan_targets() {
    grep -lE 'Stress|Concurrent' tests/unit/test_*.cpp | xargs -n1 basename | sed 's/\.cpp$//'
    echo test_timer
}

step "folder dependencies: every include of another folder is allowed by src/DEPENDENCIES"
scripts/check-includes.py

step "build and unit tests"
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARN_BUILD_BENCH=ON -DTARN_WERROR=ON >/dev/null
make -C build -j"$JOBS" --no-print-directory
ctest --test-dir build --output-on-failure -j"$JOBS"

step "unit tests under AddressSanitizer and UndefinedBehaviorSanitizer"
# clang's sanitizer runtimes cope with thread cancellation (the timer service uses it), gcc's
# AddressSanitizer does not.
export CC=clang CXX=clang++
cmake -S . -B build-asan -DCMAKE_BUILD_TYPE=Debug -DTARN_SANITIZE=address,undefined -DTARN_WERROR=ON >/dev/null
make -C build-asan -j"$JOBS" --no-print-directory
ctest --test-dir build-asan --output-on-failure -j"$JOBS"

step "concurrency tests under ThreadSanitizer"
cmake -S . -B build-tsan -DCMAKE_BUILD_TYPE=Debug -DTARN_SANITIZE=thread -DTARN_WERROR=ON >/dev/null
make -C build-tsan -j"$JOBS" --no-print-directory $(tsan_targets)
ctest --test-dir build-tsan --output-on-failure -j"$JOBS" -E _NOT_BUILT

if [ -d tests/system ]; then
    step "system tests"
    TARN_BUILD_DIR="$PWD/build" /usr/bin/python3 -m pytest -q -rs tests/system
fi

if [ "$(id -u)" = 0 ]; then
    step "hostile soak of the ASan+UBSan daemon"
    /usr/bin/python3 lab/soak_hostile.py --build-dir build-asan
fi

step "package: service script, install tree, AArch64 under qemu-user"; scripts/test-package.sh

if [ -x scripts/run-fuzz.sh ]; then
    step "fuzzing"
    scripts/run-fuzz.sh
fi

step "all tests passed"
