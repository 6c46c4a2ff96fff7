#!/usr/bin/env bash
# Installs what building and testing tarn needs on Debian 12. Idempotent; quick when all is there.
set -euo pipefail

PACKAGES=(
    build-essential cmake pkg-config g++ clang libclang-rt-14-dev clang-format
    libjson-c-dev libcjson-dev
    libgtest-dev libgmock-dev googletest libbenchmark-dev
    python3 python3-pytest
    iproute2 util-linux procps
    graphviz
    man-db file binutils
    # the AP's shell for the service script's tests
    busybox-static
    # coverage figures of src/
    gcovr
    # monitoring tests: the lab runs its own Prometheus and exporters in namespaces
    prometheus prometheus-node-exporter
    # the neighbor page, tested in a real browser (and its JSON read by Node too)
    chromium chromium-driver python3-selenium nodejs
    # AArch64: Debian's cross compiler, qemu-user and the arm64 libraries through multiarch
    g++-aarch64-linux-gnu qemu-user
    libc6:arm64 libstdc++6:arm64 libjson-c-dev:arm64 libcjson-dev:arm64 libgtest-dev:arm64
)

missing=()
for package in "${PACKAGES[@]}"; do
    if ! dpkg-query -W -f='${Status}' "$package" 2>/dev/null | grep -q "install ok installed"; then
        missing+=("$package")
    fi
done
if [ ${#missing[@]} -eq 0 ]; then
    exit 0
fi

SUDO=""
if [ "$(id -u)" -ne 0 ]; then
    SUDO="sudo"
fi
echo "installing: ${missing[*]}"
export DEBIAN_FRONTEND=noninteractive
if ! dpkg --print-foreign-architectures | grep -qx arm64; then
    $SUDO dpkg --add-architecture arm64
    $SUDO apt-get update
fi
if ! $SUDO apt-get install -y --no-install-recommends "${missing[@]}"; then
    $SUDO apt-get update
    $SUDO apt-get install -y --no-install-recommends "${missing[@]}"
fi
# Debian starts a Prometheus server and a node exporter as system services on install; the lab
# runs its own inside namespaces, so the system's copies are stopped and kept from starting.
for service in prometheus prometheus-node-exporter; do
    if [[ " ${missing[*]} " == *" $service "* ]] && command -v systemctl >/dev/null &&
        [ -d /run/systemd/system ]; then
        $SUDO systemctl disable --now "$service" >/dev/null 2>&1 || true
    fi
done
