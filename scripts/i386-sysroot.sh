#!/usr/bin/env bash
# SPDX-License-Identifier: Apache-2.0
# Fills a sysroot with the i386 Debian packages that the 32-bit build links against, without
# installing them: the amd64 and i386 development packages cannot be installed side by side
# here (their versions conflict). Run it before configuring the i386 preset (the test command
# does):
#
#     scripts/i386-sysroot.sh build/i386/sysroot
#
# The package lists and the downloaded packages are kept in a private apt state next to the
# sysroot, so the machine's package configuration and lists are left alone (no foreign
# architecture is added) and no root rights are needed. Nothing is done when the sysroot
# already holds this exact package set.
set -euo pipefail

sysroot=${1:?usage: i386-sysroot.sh SYSROOT-DIR}
packages=(
    uuid-dev libuuid1
    libssl-dev libssl3
    libboost-regex1.74-dev libboost1.74-dev
    libicu-dev libicu72
    libgtest-dev libgmock-dev
)

# The 32-bit compiler and the emulator, if missing.
"$(dirname "$0")/setup.sh" i386

stamp="$sysroot/.nuvra-packages"
wanted="${packages[*]}"
if [ -f "$stamp" ] && [ "$(cat "$stamp")" = "$wanted" ]; then
    exit 0
fi

state="$sysroot.apt"
rm -rf "$sysroot" "$state/debs"
mkdir -p "$state/lists/partial" "$state/cache/archives/partial" "$state/debs" "$sysroot"
touch "$state/status"

apt_i386() {
    apt-get -q \
        -o Dir::State::Lists="$state/lists" \
        -o Dir::State::status="$state/status" \
        -o Dir::Cache="$state/cache" \
        -o APT::Architecture=i386 -o APT::Architectures::=i386 \
        -o APT::Sandbox::User="$(id -un)" \
        -o Debug::NoLocking=1 "$@"
}

echo "i386 sysroot: fetching ${packages[*]}" >&2
# The security archive's i386 index is at times out of step with its release file; apt then
# keeps the main archive's index, which is all the sysroot needs.
apt_i386 update >"$state/update.log" 2>&1 || {
    grep -E '^(E|W):' "$state/update.log" >&2 || true
    echo "i386 sysroot: some package indexes failed; going on with the others" >&2
}
(cd "$state/debs" && apt_i386 download "${packages[@]/%/:i386}") >"$state/download.log" 2>&1 || {
    cat "$state/download.log" >&2
    echo "i386 sysroot: could not download the i386 packages" >&2
    exit 1
}
for deb in "$state/debs"/*.deb; do
    dpkg-deb -x "$deb" "$sysroot"
done
echo "$wanted" >"$stamp"
echo "i386 sysroot: unpacked into $sysroot" >&2
