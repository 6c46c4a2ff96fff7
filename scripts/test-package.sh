#!/usr/bin/env bash
# The package stage: the OpenWrt recipe's dependencies, the service script's tests in busybox
# ash, the manual page, the package build as a packager runs it (Release, no tests) with the
# exact list of files `cmake --install` stages, and the AArch64 cross build (Debian's cross
# compiler, arm64 libraries through multiarch) with its unit tests run under qemu-user. Both
# builds serve the embedded bus: the platform's libubox and libubus are no Debian packages, so
# the real-bus binding is built by the OpenWrt SDK (README, "On the AP").
#
# Build trees live in build-pkg/ and are reused: a second run rebuilds only what changed.
set -euo pipefail
cd "$(dirname "$0")/.."
JOBS=$(nproc)
out=build-pkg
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

say "package recipe: every dependency is a package of OpenWrt's feeds"
# OpenWrt's build only warns about a dependency no feed defines, then the compile fails.
# The platform's packages by their OpenWrt names, and the packages this feed defines itself.
openwrt_packages=" libubox libubus libblobmsg-json libjson-c cJSON $(
    sed -n 's|^define Package/\([^/]*\)$|\1|p' openwrt/*/Makefile | tr '\n' ' ') "
depends=$(sed -n 's/^[[:space:]]*DEPENDS:=//p' openwrt/tarn/Makefile)
for dependency in $depends; do
    if [[ "$openwrt_packages" != *" ${dependency#+} "* ]]; then
        echo "openwrt/tarn/Makefile depends on $dependency, which no OpenWrt feed defines" >&2
        exit 1
    fi
done
say "depends: $depends"

say "service script in busybox ash with stand-ins of the OpenWrt helpers"
busybox ash tests/package/test_tarn_init.sh
busybox ash tests/package/test_tarn_metrics_init.sh

say "alerting rules: promtool test rules"
(cd openwrt/monitoring && promtool check rules tarn.rules.yml && promtool test rules tarn.rules.test.yml)

say "neighbor page and LuCI application: the AP's shell parses the CGI and the rpcd plugin"
for script in openwrt/tarn-www/files/www/cgi-bin/tarn-neighbors \
    openwrt/luci-app-tarn/root/usr/libexec/rpcd/luci.tarn; do
    busybox sh -n "$script"
    if [ ! -x "$script" ]; then
        echo "$script must be executable: uhttpd and rpcd run it directly" >&2
        exit 1
    fi
done

say "manual pages"
for page in doc/tarn.8 doc/tarn-info.8; do
    warnings=$(MANWIDTH=80 man -l "$page" 2>&1 >/dev/null)
    if [ -n "$warnings" ]; then
        echo "man -l $page: $warnings" >&2
        exit 1
    fi
    MANWIDTH=80 man -l "$page" | head -4
done

say "package build (x86-64, Release, as a packager configures it) and its install tree"
# A build tree made from another source folder (an older layout of this stage) is not reused.
made_from=$(sed -n 's/^CMAKE_HOME_DIRECTORY:INTERNAL=//p' "$out/x86_64/CMakeCache.txt" 2>/dev/null || true)
if [ -n "$made_from" ] && [ "$made_from" != "$PWD" ]; then
    rm -rf "$out/x86_64"
fi
cmake -S . -B "$out/x86_64" -DCMAKE_BUILD_TYPE=Release -DCMAKE_INSTALL_PREFIX=/usr \
    -DTARN_BUILD_TESTS=OFF -DTARN_WERROR=ON -DTARN_BUS=embedded >/dev/null
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
    -DTARN_BUILD_TESTS=ON -DTARN_WERROR=ON -DTARN_BUS=embedded >/dev/null
cmake --build "$out/aarch64" -j"$JOBS"
check_binary aarch64 "$out/aarch64/tarn"
check_binary aarch64 "$out/aarch64/tarn-info"
# The tests decide for themselves what qemu-user cannot do (its netlink sockets) and skip it
# with the reason; every other test runs, within its native limit times the emulator's factor
# (tests/CMakeLists.txt). One line per finished test, as it finishes.
status=0
ctest --test-dir "$out/aarch64" -j"$JOBS" 2>&1 | tee "$out/aarch64/ctest.log" || status=$?
skipped=$(grep -c '(Skipped)' "$out/aarch64/ctest.log" || true)
say "aarch64: $skipped tests skipped under qemu-user, because:"
grep -h -A1 ': Skipped$' "$out/aarch64/Testing/Temporary/LastTest.log" |
    grep -v -e ': Skipped$' -e '^--$' | sort | uniq -c || true
if [ "$status" -ne 0 ]; then
    sed -n '/The following tests FAILED/,$p' "$out/aarch64/ctest.log"
    exit 1
fi
