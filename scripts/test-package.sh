#!/usr/bin/env bash
# The package stage: the service script's tests, the manual page, the package build as a
# packager runs it (Release, no tests) with the exact list of files `cmake --install` stages,
# and the AArch64 cross build (Debian's cross compiler, arm64 libraries through multiarch) with
# its unit tests run under qemu-user. With the AP platform's bus sources in ../shared/platform
# both builds use the real ubus binding (the libraries are built for each architecture first);
# without them the embedded bus is built and the line below says so.
#
# Build trees live in build-pkg/ and are reused: a second run rebuilds only what changed.
set -euo pipefail
cd "$(dirname "$0")/.."
JOBS=$(nproc)
out=build-pkg
platform=../shared/platform
pkg_config_aarch64=/usr/lib/aarch64-linux-gnu/pkgconfig:/usr/share/pkgconfig

say() { printf -- '-- %s\n' "$*"; }

# Libraries a package binary must not need: the C++ runtime and libm are linked in or unused.
check_binary() {
    local arch=$1 binary=$2 needed
    needed=$(readelf -d "$binary" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p' | tr '\n' ' ')
    say "$arch: $(file -b "$binary" | cut -d, -f1-2), $(stat -c %s "$binary") bytes stripped"
    say "$arch: NEEDED $needed"
    if [[ " $needed" =~ \ (libstdc\+\+|libgcc_s|libm)\. ]]; then
        echo "package binary for $arch needs a library it should not: $needed" >&2
        return 1
    fi
}

say "service script with stand-ins of the OpenWrt helpers"
sh tests/package/test_tarn_init.sh

say "manual pages"
for page in doc/tarn.8 doc/tarn-info.8; do
    warnings=$(MANWIDTH=80 man -l "$page" 2>&1 >/dev/null)
    if [ -n "$warnings" ]; then
        echo "man -l $page: $warnings" >&2
        exit 1
    fi
    MANWIDTH=80 man -l "$page" | head -4
done

bus_x86=(-DTARN_BUS=embedded)
bus_a64=(-DTARN_BUS=embedded)
# The x86-64 package build takes exactly the files the OpenWrt package copies (no devbus/, no
# tests) when the real bus is at hand; the embedded bus needs the whole tree.
pkg_sources=.
if [ -x "$platform/build.sh" ]; then
    # The same x86-64 libraries as the real-bus stage builds.
    "$platform/build.sh" build-ubus/platform
    CMAKE_TOOLCHAIN_FILE="$PWD/cmake/aarch64-linux-gnu.cmake" \
        PKG_CONFIG_LIBDIR=$pkg_config_aarch64 "$platform/build.sh" "$out/platform-aarch64"
    bus_x86=(-DTARN_BUS=ubus -DCMAKE_PREFIX_PATH="$PWD/build-ubus/platform")
    bus_a64=(-DTARN_BUS=ubus -DCMAKE_PREFIX_PATH="$PWD/$out/platform-aarch64")
    pkg_sources=$out/sources
    rm -rf "$pkg_sources" && mkdir -p "$pkg_sources"
    cp -a CMakeLists.txt cmake src doc "$pkg_sources/"
    say "package sources as openwrt/tarn/Makefile copies them: $(ls "$pkg_sources" | tr '\n' ' ')"
else
    say "real-bus builds skipped: $platform (the AP platform's bus sources) is absent; embedded bus"
fi

say "package build (x86-64, Release, as a packager configures it) and its install tree"
# A build tree made from the other source folder (whole tree or package copy) cannot be reused.
made_from=$(sed -n 's/^CMAKE_HOME_DIRECTORY:INTERNAL=//p' "$out/x86_64/CMakeCache.txt" 2>/dev/null || true)
if [ "$made_from" != "$(cd "$pkg_sources" && pwd)" ]; then
    rm -rf "$out/x86_64"
fi
cmake -S "$pkg_sources" -B "$out/x86_64" -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
    -DTARN_WERROR=ON "${bus_x86[@]}" >/dev/null
cmake --build "$out/x86_64" -j"$JOBS"
rm -rf "$out/x86_64/stage"
DESTDIR="$PWD/$out/x86_64/stage" cmake --install "$out/x86_64" >/dev/null
staged=$(cd "$out/x86_64/stage" && find . ! -type d | LC_ALL=C sort)
echo "$staged"
expected=$'./usr/sbin/tarn\n./usr/sbin/tarn-info\n./usr/share/man/man8/tarn-info.8\n./usr/share/man/man8/tarn.8'
if [ "$staged" != "$expected" ]; then
    echo "the install tree holds other files than: $expected" >&2
    exit 1
fi
check_binary x86-64 "$out/x86_64/tarn"
check_binary x86-64 "$out/x86_64/tarn-info"
# The AP's flash is small: both programs of the package, stripped, within 300 KB.
package_bytes=$(( $(stat -c %s "$out/x86_64/tarn") + $(stat -c %s "$out/x86_64/tarn-info") ))
say "x86-64: tarn + tarn-info: $package_bytes bytes stripped (at most 300000)"
if [ "$package_bytes" -gt 300000 ]; then
    echo "tarn and tarn-info together are $package_bytes bytes, above 300000" >&2
    exit 1
fi

say "AArch64 cross build, unit tests under qemu-user"
PKG_CONFIG_LIBDIR=$pkg_config_aarch64 cmake -S . -B "$out/aarch64" \
    -DCMAKE_TOOLCHAIN_FILE="$PWD/cmake/aarch64-linux-gnu.cmake" -DCMAKE_BUILD_TYPE=Release \
    -DTARN_BUILD_TESTS=ON -DTARN_WERROR=ON "${bus_a64[@]}" >/dev/null
cmake --build "$out/aarch64" -j"$JOBS"
check_binary aarch64 "$out/aarch64/tarn"
# The tests decide for themselves what qemu-user cannot do (its netlink sockets) and skip it
# with the reason; every other test runs.
status=0
ctest --test-dir "$out/aarch64" -j"$JOBS" --timeout 300 >"$out/aarch64/ctest.log" 2>&1 || status=$?
grep -E 'tests passed|tests failed' "$out/aarch64/ctest.log"
skipped=$(grep -c '(Skipped)' "$out/aarch64/ctest.log" || true)
say "aarch64: $skipped tests skipped under qemu-user, because:"
grep -h -A1 ': Skipped$' "$out/aarch64/Testing/Temporary/LastTest.log" |
    grep -v -e ': Skipped$' -e '^--$' | sort | uniq -c || true
if [ "$status" -ne 0 ]; then
    sed -n '/The following tests FAILED/,$p' "$out/aarch64/ctest.log"
    exit 1
fi
