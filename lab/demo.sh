#!/usr/bin/env bash
# The lab's main demonstration, from a fresh Debian 12 machine: installs what the build needs,
# builds tarn, starts four virtual APs that discover each other, prints AP 1's tables and
# removes everything again. Needs root (network namespaces and mounts).
set -euo pipefail
cd "$(dirname "$(readlink -f "$0")")/.."

if [ "$(id -u)" -ne 0 ]; then
    echo "lab/demo.sh: needs root to create network and mount namespaces; run: sudo lab/demo.sh" >&2
    exit 1
fi

echo "==== installing packages"
scripts/install-deps.sh

echo "==== building tarn"
cmake -S . -B build -DCMAKE_BUILD_TYPE=RelWithDebInfo >/dev/null
targets=(tarn)
if make -C build help | grep -qw tarn-bus; then
    targets+=(tarn-bus)
fi
make -C build -j"$(nproc)" --no-print-directory "${targets[@]}"

echo "==== running the demo"
TARN_BUILD_DIR="$PWD/build" exec lab/lab demo "$@"
