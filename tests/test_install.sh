#!/bin/bash
# SPDX-License-Identifier: MIT
# test_install.sh packages|fetched SOURCE BUILD COMPILER_C COMPILER_CXX [TOOLCHAIN_FILE]: hosts outside
# the tree find the library that is unpacked from its packages, or make the archive libkelvara.a a part
# of themselves and install it. The hosts are the examples of the documentation: each must run, and
# print what its page shows. Programs run under $KELVARA_RUN, if that is set.
set -euo pipefail
what=$1 source=$2 build=$3 cc=$4 cxx=$5 toolchain=${6:-}
read -ra run <<<"${KELVARA_RUN:-}"
work=$(mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null || true; rm -rf "$work"' EXIT
die() { echo "FAILED: $*"; exit 1; }
quietly() { "$@" >"$work/log" 2>&1 || { tail -n 30 "$work/log"; die "$*"; }; }

# Where libevent and libconfig are for a cross compiler, as the toolchain file has it.
arch=$(dpkg --print-architecture) cross_flags=() cross_cmake=()
pc_path=$(pkg-config --variable pc_path pkg-config)
if [[ -n $toolchain ]]; then
  arch=$(sed -n 's/^KELVARA_ARCH:.*=//p' "$build/CMakeCache.txt")
  triplet=$(basename "$cc" -gcc)
  sysroot=$source/build/sysroot-$arch/usr
  cross_flags=(-isystem "$sysroot/include/$triplet" -isystem "$sysroot/include"
    -L"$sysroot/lib/$triplet")
  cross_cmake=(-DCMAKE_TOOLCHAIN_FILE="$toolchain" -DKELVARA_ARCH="$arch")
  pc_path=$sysroot/lib/$triplet/pkgconfig
fi

# What differs from run to run, or with each change of a source of the library.
steady() {
  sed -E 's/:[0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9]{8} /:hh:mm:ss.uuuuuuuu /g
    s/ (dmn_serv|self_dog|self_log|xfuncs) [0-9]{4}\]/ \1 NNNN]/; s/^(giLogPpFdAry=).*/\1R W/'
}

check_example() { # check_example PROGRAM WATCHDOGD
  local name
  name=$(basename "$1")
  rm -rf "$work/run"
  mkdir "$work/run"
  cd "$work/run"
  if [[ -e $source/examples/modules/$name.conf ]]; then
    { cat "$source/examples/modules/$name.conf"; echo 'work: { ticks = 3; }'; } >"$name.conf"
    timeout 60 "${run[@]}" "$2" watchdog.sock &
    timeout 20 bash -c 'until [[ -S watchdog.sock ]]; do sleep 0.05; done' || die "no watchdogd"
  fi
  timeout 60 "${run[@]}" "$1" </dev/null >../out 2>../err || die "$1: $? $(tail -n 5 ../out ../err)"
  diff <(steady <../out) "$source/examples/modules/$name.out" || die "$1 prints something else"
}

check_cmake() { # check_cmake [OPTION...]: the project in tests/outside
  quietly cmake -S "$source/tests/outside" -B "$work/cmake" -DCMAKE_C_COMPILER="$cc" \
    -DCMAKE_CXX_COMPILER="$cxx" "${cross_cmake[@]}" "$@" \
    -DSOURCES="$source/examples/minimal.c;$source/examples/modules/self_fifo.cpp"
  quietly cmake --build "$work/cmake" -j 2
  check_example "$work/cmake/self_fifo"
}

check_flags() { # check_flags LIBDIR WATCHDOGD EXAMPLE...: built with what pkg-config says
  local flags example name compile
  read -ra flags <<<"$(PKG_CONFIG_LIBDIR=$1/pkgconfig:$pc_path pkg-config --cflags --libs kelvara)"
  for example in "${@:3}"; do
    name=$(basename "${example%.*}")
    compile=("$cc" -std=gnu11)
    [[ $example != *.cpp ]] || compile=("$cxx" -std=gnu++17)
    "${compile[@]}" -Wall -Wextra -Wpedantic -Wconversion -Werror "$example" -o "$work/$name" \
      "${flags[@]}" "${cross_flags[@]}" -Wl,-rpath,"$1" || die "$name by pkg-config"
    check_example "$work/$name" "$2"
  done
}

check_recipes() { # the versions and hashes in packaging/
  local version
  cd "$source/packaging"
  version=$(sed -n 's/^project(kelvara VERSION \([0-9.]*\).*/\1/p' ../CMakeLists.txt)
  grep -qr "$(sha256sum <../LICENSE | cut -d ' ' -f 1)" buildroot || die "the licence's SHA-256"
  grep -qr "$(md5sum <../LICENSE | cut -d ' ' -f 1)" openembedded || die "the licence's MD5"
  [[ -e openembedded/recipes-core/kelvara/kelvara_$version.bb ]] || die "OpenEmbedded: not $version"
  grep -qrx "KELVARA_VERSION = $version" buildroot || die "Buildroot: not $version"
  grep -q "^kelvara ($version)" debian/changelog || die "Debian: not $version"
}

if [[ $what == fetched ]]; then
  check_recipes
  check_cmake -DKELVARA_SOURCE="$source" -DBUILD_SHARED_LIBS=OFF -DKELVARA_INSTALL=ON \
    -DCMAKE_INSTALL_LIBDIR=lib
  quietly cmake --install "$work/cmake" --prefix "$work/prefix"
  diff <(nm -D --defined-only "$build/libkelvara.so" | grep -c ' [BDRT] ') \
    <(nm --defined-only --extern-only "$work/prefix/lib/libkelvara.a" | grep -c ' [A-Z] ') \
    || die "the archive defines more than the library exports"
  "$cc" -I"$work/prefix/include/kelvara" "$source/examples/minimal.c" -o "$work/plain" \
    -L"$work/prefix/lib" -lkelvara -levent_core -lconfig -pthread "${cross_flags[@]}" \
    || die "minimal by plain options"
else
  quietly "$source/scripts/package" "$arch"
  for package in "$source/build/package-$arch"/*.deb; do
    dpkg-deb -x "$package" "$work/unpacked"
  done
  [[ $(man -l "$work/unpacked/usr/share/man/man3/log_msg.3.gz") == *'<common/self_log.h>'* ]] \
    || die "no manual page of log_msg()"
  for unit in "$work"/unpacked/lib/systemd/system/*.service; do
    sed -i -E "s#([= ])(/usr/bin/\w+d|/etc/)#\1$work/unpacked\2#g" "$unit"
    ! command -v systemd-analyze >/dev/null || quietly systemd-analyze verify --man=no "$unit"
  done
  lib=$(dirname "$work"/unpacked/usr/lib/*/libkelvara.so)
  export LD_LIBRARY_PATH=$lib # what is unpacked and not installed, the loader does not know
  check_flags "$lib" "$work/unpacked/usr/bin/watchdogd" "$source"/examples/modules/*.c{,pp}
  check_cmake -Dkelvara_DIR="$lib/cmake/kelvara"
fi
echo "passed"
