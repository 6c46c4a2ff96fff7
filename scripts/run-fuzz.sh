#!/bin/sh
# Builds the nbcp fuzz targets with clang in build-fuzz/ and runs each for a bounded time
# (FUZZ_SECONDS, default 60). Fails on any crash, sanitizer report or broken invariant.
set -eu

cd "$(dirname "$0")/.."

if ! command -v clang++ >/dev/null 2>&1; then
    echo "run-fuzz: clang++ not found, fuzzing skipped"
    exit 0
fi

seconds=${FUZZ_SECONDS:-60}
build=build-fuzz

cmake -S . -B "$build" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARN_BUILD_FUZZ=ON -DTARN_BUILD_TESTS=OFF \
    -DTARN_WERROR=ON >/dev/null
cmake --build "$build" --target fuzz_nbcp_parse fuzz_nbcp_list_read -j 2

mkdir -p fuzz/artifacts
status=0
for pair in parse:fuzz_nbcp_parse list:fuzz_nbcp_list_read; do
    corpus=${pair%%:*}
    target=${pair#*:}
    # New inputs go to a scratch corpus; the checked-in seeds stay as they are.
    work="$build/corpus/$corpus"
    mkdir -p "$work"
    echo "run-fuzz: $target for ${seconds}s"
    if ! "$build/fuzz/$target" -max_total_time="$seconds" -print_final_stats=1 \
        -artifact_prefix=fuzz/artifacts/ "$work" "fuzz/corpus/$corpus"; then
        echo "run-fuzz: $target FAILED (see fuzz/artifacts/)"
        status=1
    fi
done
exit $status
