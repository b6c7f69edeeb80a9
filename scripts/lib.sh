# SPDX-License-Identifier: MIT
# shellcheck shell=bash disable=SC2034 # used by the scripts that source this
# Functions that the scripts share. Sourcing it changes to the root of the tree.
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

# Installs those of the named packages that are missing; does not call apt if none is.
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
    apt-get -qq -o DPkg::Lock::Timeout=600 install -y --no-install-recommends \
      "${missing[@]}" >/dev/null
}

# What the build of a preset needs.
build_packages=(cmake ninja-build g++ libevent-dev libconfig-dev libgtest-dev)

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

mkdir -p "$root/build"

# debian_tree FOLDER ARCH PACKAGE...: unpacks packages and their dependencies, once. Runs none of
# their scripts, so any user may call it. RELEASE: a release of Debian, if not this machine's.
# Returns 77, and prints the reason, if they are not available.
debian_tree() {
  local folder=$1 packages="${*:2}" release=${RELEASE:-} own sources
  [[ ! -e $folder/packages || $(<"$folder/packages") != "$packages" ]] || return 0
  (need_packages mmdebstrap) || return 77
  own=$(. /etc/os-release && echo "$VERSION_CODENAME")
  release=${release:-$own}
  # The mirror that the machine uses.
  sources=$(apt-get indextargets 'Created-By: Packages' "Release: $own" 'Component: main' \
    --format "deb \$(REPO_URI) $release main" | sed -n 1p)
  rm -rf "$folder.new"
  mmdebstrap --mode=chrootless --variant=extract --architectures="$2" --include="${*:3}" \
    --setup-hook='cd "$1" && mkdir -p usr/bin usr/lib usr/sbin && ln -s usr/* .' \
    --skip=cleanup/apt/cache --aptopt='Acquire::Check-Valid-Until "false"' \
    "$release" "$folder.new" ${sources:+"$sources"} >"$folder.log" 2>&1 \
    || { echo "SKIPPED, no packages for $2: $(tail -n 1 "$folder.log")" >&2; return 77; }
  echo "$packages" >"$folder.new/packages"
  rm -rf "$folder"
  mv "$folder.new" "$folder"
}

# need_cross ARCH: the cross compiler, the emulator and the libraries for armhf or arm64. Fills
# cross_options for CMake, and cross_runner, which runs a program. Returns 77 as above. Callers test
# the status, which switches off set -e here, so errors are returned explicitly.
cross_runner=()
need_cross() {
  local tuple cpu sysroot=$root/build/sysroot-$1
  (need_packages dpkg-dev) || return 77
  tuple=$(dpkg-architecture -f -a "$1" -q DEB_HOST_MULTIARCH) || return
  cpu=${tuple%%-*}
  (need_packages "${build_packages[@]}" "g++-$tuple" qemu-user) || return 77
  debian_tree "$sysroot" "$1" libevent-dev libconfig-dev libgtest-dev libstdc++6 || return
  cross_options=(--toolchain cmake/toolchain.cmake "-DKELVARA_ARCH=$1")
  cross_runner=("qemu-$cpu" -L "$sysroot")
}

# What scripts/board needs. Returns 77 as above.
need_board() {
  (need_packages cpio kmod qemu-system-arm) || return 77
  mkdir -p "$root/build/board"
  debian_tree "$root/build/board/tree" armhf linux-image-armmp busybox-static bash python3 \
    cmake libevent-dev libconfig-dev libstdc++6
}
