#!/usr/bin/env bash
# Installs every Debian package the build, the tests, the benchmarks and the
# ARM cross build need. Safe to run again: when everything is already there it
# returns at once without touching apt.
set -euo pipefail

NATIVE_ARCH=$(dpkg --print-architecture)

# Packages for the native build, tests, benchmarks, tools and fuzzers.
HOST_PACKAGES=(
    cmake g++ make python3 pkg-config ccache
    libgtest-dev libgmock-dev googletest libbenchmark-dev
    libomxil-bellagio-dev libomxil-bellagio0 libomxil-bellagio-bin
    "android-liblog-dev:$NATIVE_ARCH" libsndfile1-dev libsoxr-dev ffmpeg sox
    python3-numpy python3-scipy asterisk-core-sounds-en-wav clang-format linux-perf
    clang libclang-rt-dev
    g++-arm-linux-gnueabihf qemu-user
)
# Target libraries of the 32-bit ARM build (run under qemu-arm).
ARMHF_PACKAGES=(
    android-liblog-dev:armhf
    libc6:armhf
    libstdc++6:armhf
)

if [[ $(id -u) -eq 0 ]]; then
    SUDO=()
else
    SUDO=(sudo)
fi

missing=()
have_armhf=0
if dpkg --print-foreign-architectures | grep -qx armhf; then
    have_armhf=1
fi
for pkg in "${HOST_PACKAGES[@]}" "${ARMHF_PACKAGES[@]}"; do
    if ! dpkg-query -W -f='${db:Status-Status}\n' "$pkg" 2>/dev/null | grep -qx installed; then
        missing+=("$pkg")
    fi
done

if [[ $have_armhf -eq 1 && ${#missing[@]} -eq 0 ]]; then
    echo "setup: all packages present"
    exit 0
fi

echo "setup: installing ${missing[*]:-armhf architecture}"
export DEBIAN_FRONTEND=noninteractive
if [[ $have_armhf -eq 0 ]]; then
    "${SUDO[@]}" dpkg --add-architecture armhf
fi
# A stale index of one mirror (apt exits 100 for it) must not stop us: the
# install below fails clearly if a package really cannot be had.
if ! "${SUDO[@]}" apt-get update -qq; then
    echo "setup: warning: apt-get update reported errors; trying the install anyway" >&2
fi
"${SUDO[@]}" apt-get install -y -qq --no-install-recommends \
    -o Dpkg::Use-Pty=0 "${HOST_PACKAGES[@]}" "${ARMHF_PACKAGES[@]}"
echo "setup: done"
