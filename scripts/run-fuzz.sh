#!/bin/sh
# Builds the fuzz targets with clang in build-fuzz/ and runs each for a bounded time: a brief
# run by default (FUZZ_SECONDS=15 each, about two minutes in all), a long one with e.g.
#   FUZZ_SECONDS=600 scripts/run-fuzz.sh [target ...]
# Fails on any crash, sanitizer report or broken invariant (the input lands in fuzz/artifacts/).
# Some targets use the daemon's fixed paths in a private mount namespace: run as root.
set -eu

cd "$(dirname "$0")/.."

if ! command -v clang++ >/dev/null 2>&1; then
    echo "run-fuzz: clang++ not found, fuzzing skipped"
    exit 0
fi

seconds=${FUZZ_SECONDS:-15}
build=build-fuzz

# target, seed corpus, largest input (a datagram target takes what its socket delivers, the
# nbcp parser the largest UDP payload, 65507 bytes), and whether it needs root.
TARGETS="
fuzz_nbcp_parse parse 65507 -
fuzz_nbcp_list_read list 65535 -
fuzz_driver_event driver 65535 -
fuzz_local_control local 65535 root
fuzz_static_file static 16384 root
fuzz_bus_request bus 16384 root
fuzz_show_table show 16384 -
fuzz_command_text command 256 -
fuzz_info_answer list 65535 -
"

cmake -S . -B "$build" -DCMAKE_C_COMPILER=clang -DCMAKE_CXX_COMPILER=clang++ \
    -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARN_BUILD_FUZZ=ON -DTARN_BUILD_TESTS=OFF \
    -DTARN_BUS=embedded \
    -DTARN_WERROR=ON >/dev/null
cmake --build "$build" --target fuzz_targets -j 2

mkdir -p fuzz/artifacts
status=0
echo "$TARGETS" | while read -r target corpus max_len needs; do
    [ -n "$target" ] || continue
    if [ $# -gt 0 ] && ! echo " $* " | grep -q " $target "; then
        continue
    fi
    if [ "$needs" = root ] && [ "$(id -u)" != 0 ]; then
        echo "run-fuzz: $target skipped (needs root for a private mount namespace)"
        continue
    fi
    # New inputs go to a scratch corpus; the checked-in seeds stay as they are.
    work="$build/corpus/$corpus"
    mkdir -p "$work"
    echo "run-fuzz: $target for ${seconds}s"
    log="$build/$target.log"
    if ! "$build/fuzz/$target" -max_total_time="$seconds" -max_len="$max_len" \
        -print_final_stats=1 -artifact_prefix=fuzz/artifacts/ "$work" "fuzz/corpus/$corpus" \
        >"$log" 2>&1; then
        tail -n 40 "$log"
        echo "run-fuzz: $target FAILED (see fuzz/artifacts/)"
        exit 1
    fi
    runs=$(sed -n 's/^stat::number_of_executed_units: *//p' "$log")
    rate=$(sed -n 's/^stat::average_exec_per_sec: *//p' "$log")
    echo "run-fuzz: $target: $runs inputs, $rate per second"
done || status=1
exit $status
