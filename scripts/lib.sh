# SPDX-License-Identifier: MIT
# shellcheck shell=bash disable=SC2034 # what seems unused, those who source this use
# What the scripts share; source it. It leaves the caller in the root of the tree.
set -euo pipefail

root=$(cd "$(dirname "${BASH_SOURCE[0]}")/.." && pwd)
cd "$root"
jobs=$(nproc)

say() {
  printf '\n== %s\n' "$*"
}

die() {
  printf '%s: FAILED: %s\n' "$(basename "$0")" "$*" >&2
  exit 1
}

# Installs what is missing of the named packages; makes no call of apt when nothing is.
need_packages() {
  local missing=() package
  for package in "$@"; do
    [[ $(dpkg-query -W -f='${db:Status-Status}' "$package" 2>/dev/null) == installed ]] \
      || missing+=("$package")
  done
  ((${#missing[@]})) || return 0
  say "installing ${missing[*]}"
  local as_root=()
  if ((EUID != 0)); then
    command -v sudo >/dev/null || die "not root, and no sudo to install: ${missing[*]}"
    as_root=(sudo)
  fi
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive apt-get -qq update
  "${as_root[@]}" env DEBIAN_FRONTEND=noninteractive \
    apt-get -qq -o DPkg::Lock::Timeout=600 install -y --no-install-recommends "${missing[@]}" >/dev/null
}

# What a preset's build needs besides the compiler.
build_packages=(cmake ninja-build g++ libevent-dev libconfig-dev)

# build_preset PRESET [cmake arguments]: configures and builds build/PRESET.
build_preset() {
  local preset=$1
  shift
  cmake --preset "$preset" "$@" >"$root/build/$preset.log" 2>&1 \
    || { tail -n 30 "$root/build/$preset.log" >&2; die "configuring $preset"; }
  cmake --build "$root/build/$preset" -j "$jobs" >"$root/build/$preset.log" 2>&1 \
    || { grep -E 'error|FAILED|warning' "$root/build/$preset.log" | head -n 30 >&2
         die "building $preset: see build/$preset.log"; }
}

# build_examples PRESET FOLDER: the library and the example programs alone.
build_examples() {
  { cmake --preset "$1" -B "$2" -DKELVARA_BUILD_TESTS=OFF && cmake --build "$2" -j "$jobs"; } \
    >"$2.log" 2>&1 || { tail -n 30 "$2.log" >&2; die "building: see $2.log"; }
}
mkdir -p "$root/build"

# What runs a program of the armhf preset; filled by need_armhf.
arm_runner=()

# The cross compiler, the emulator and the armhf libraries. Status 77, and a line that says why:
# they cannot be had. Callers look at the status, so errors are passed on by hand here.
need_armhf() {
  (need_packages "${build_packages[@]}" g++-arm-linux-gnueabihf qemu-user googletest) || {
    echo "armhf: SKIPPED, the cross compiler or the emulator cannot be installed" >&2
    return 77
  }
  "$root/scripts/arm_sysroot" || return $?
  arm_runner=(qemu-arm -cpu cortex-a9 -L "${KELVARA_ARMHF_SYSROOT:-$root/build/armhf-sysroot}")
}

# What scripts/board needs. Status 77 as above.
need_board() {
  (need_packages cpio kmod qemu-system-arm) || {
    echo "board: SKIPPED, the emulator cannot be installed" >&2
    return 77
  }
  "$root/scripts/arm_sysroot" "$root/build/board/tree" linux-image-armmp busybox-static bash libtinfo6 \
    libc6 libgcc-s1 libstdc++6 libevent-core-2.1-7 libevent-pthreads-2.1-7 libconfig9 \
    python3.11-minimal libpython3.11-minimal libpython3.11-stdlib libexpat1 zlib1g
}
