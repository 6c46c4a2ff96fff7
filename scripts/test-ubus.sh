#!/usr/bin/env bash
# The real-bus stage: the AP platform's bus (libubox, libubus, ubusd, ubus) built from
# ../shared/platform into build-ubus/platform (once), tarn built against it with -DTARN_BUS=ubus
# (warnings are errors in every build), that build's unit tests, and the bus system tests on an
# ubusd per virtual AP with the real `ubus` command, including the comparison of tarn-bus with
# ubus (which takes tarn-bus from the embedded build in build/).
set -euo pipefail
cd "$(dirname "$0")/.."
JOBS=$(nproc)
platform=../shared/platform

if [ ! -x "$platform/build.sh" ]; then
    echo "real-bus stage skipped: no $platform beside this clone (the platform's bus sources)"
    exit 0
fi
# The AP builds with gcc; an earlier stage of test-all.sh may have exported clang.
export CC=gcc CXX=g++
prefix=$PWD/build-ubus/platform
"$platform/build.sh" "$prefix"
cmake -S . -B build-ubus -DCMAKE_BUILD_TYPE=RelWithDebInfo -DTARN_BUS=ubus -DTARN_WERROR=ON \
    -DCMAKE_PREFIX_PATH="$prefix" >/dev/null
make -C build-ubus -j"$JOBS" --no-print-directory
ctest --test-dir build-ubus --output-on-failure -j"$JOBS"

if [ "$(id -u)" -ne 0 ]; then
    echo "real-bus system tests skipped: they need root (network and mount namespaces)"
    exit 0
fi
TARN_BUILD_DIR="$PWD/build" TARN_UBUS_BUILD_DIR="$PWD/build-ubus" TARN_BUS_TRANSPORTS=ubus \
    /usr/bin/python3 -m pytest -q -rs tests/system/test_bus.py
