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
# The daemon, and beside it every program of the build the lab runs: tarn-bus (the development
# bus's command, which the lab README's next steps call) and tarn-info (the lab picture reads the
# tables with it). The target list is read whole before it is searched: `make help | grep -q`
# fails under pipefail, as grep quits at the first match and make dies of the closed pipe.
targets=(tarn)
build_targets="$(make -C build help)"
for program in tarn-bus tarn-info; do
    if grep -qw -- "$program" <<<"$build_targets"; then
        targets+=("$program")
    fi
done
make -C build -j"$(nproc)" --no-print-directory "${targets[@]}"
for program in "${targets[@]}"; do
    [ -x "build/$program" ] || { echo "lab/demo.sh: build/$program was not built" >&2; exit 1; }
done

echo "==== running the demo"
TARN_BUILD_DIR="$PWD/build" exec lab/lab demo "$@"
