#!/bin/bash
# SPDX-License-Identifier: MIT
# test_install.sh prefix|packages|fetched SOURCE BUILD COMPILER_C COMPILER_CXX [TOOLCHAIN_FILE]: hosts
# outside the tree find the library that is installed to a prefix, or unpacked from the packages, or
# build the archive libkelvara.a as a part of themselves. The hosts are the documentation's examples:
# each must run and print what its page shows. Programs run under $KELVARA_RUN, if that is set.
set -euo pipefail
what=$1 source=$2 build=$3 cc=$4 cxx=$5 toolchain=${6:-}
read -ra run <<<"${KELVARA_RUN:-}"
work=$(mktemp -d)
trap 'kill $(jobs -p) 2>/dev/null || true; rm -rf "$work"' EXIT
die() { echo "FAILED: $*"; exit 1; }

# Where libevent and libconfig stand for a cross compiler, as the toolchain file has it.
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

wait_for() { # wait_for TEST...: until the test is true
  local i
  for ((i = 0; i < 400; i++)); do
    test "$@" && return
    sleep 0.05
  done
  die "in vain: test $*"
}

stop() { # stop PID NAME: by SIGTERM, and it ends well
  kill "$1"
  wait "$1" || die "$2 ended with $?"
}

# What differs from run to run, or with each change of a source of the library.
steady() {
  sed -E 's/:[0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9]{8} /:hh:mm:ss.uuuuuuuu /g
    s/ (dmn_serv|self_dog|self_log|xfuncs) [0-9]{4}\]/ \1 NNNN]/; s/^(giLogPpFdAry=).*/\1R W/'
}

check_example() { # check_example PROGRAM BIN: it ends with 0 and prints what the documentation shows
  local name dog=''
  name=$(basename "$1")
  rm -rf "$work/run"
  mkdir "$work/run"
  cd "$work/run"
  if [[ -e $source/examples/modules/$name.conf ]]; then
    { cat "$source/examples/modules/$name.conf"; echo 'work: { ticks = 3; }'; } >"$name.conf"
    timeout 60 "${run[@]}" "$2/watchdogd" watchdog.sock >../dog &
    dog=$!
    wait_for -S watchdog.sock
  fi
  timeout 60 "${run[@]}" "$1" </dev/null >../out 2>../err || die "$1: $? $(tail -n 5 ../out ../err)"
  diff <(steady <../out) "$source/examples/modules/$name.out" || die "$1 prints something else"
  if [[ -n $dog ]]; then
    stop "$dog" watchdogd
    (($(grep -c "$name .* heartbeat " ../dog) >= 3)) || die "no heartbeats of $name"
  fi
}

check_minimal() { # check_minimal PROGRAM TAP: serves, and stops on SIGTERM
  local minimal tap
  timeout 60 "${run[@]}" "$1" "$work/minimal.sock" >"$work/minimal.log" &
  minimal=$!
  timeout 20 "${run[@]}" "$2" -w 10000 "$work/minimal.sock" >"$work/ticks" 2>/dev/null &
  tap=$!
  wait_for -s "$work/ticks"
  stop "$minimal" "$1"
  wait "$tap" || die "tap ended with $?"
  [[ $(head -n 1 "$work/ticks") == tick ]] || die "$1 sends no ticks"
}

check_cmake() { # check_cmake BIN [OPTION...]: the outside project, and what it runs
  { cmake -S "$source/tests/outside" -B "$work/cmake" -DCMAKE_C_COMPILER="$cc" \
    -DCMAKE_CXX_COMPILER="$cxx" "${cross_cmake[@]}" "${@:2}" \
    -DSOURCES="$source/examples/minimal.c;$source/examples/modules/self_fifo.cpp" \
    && cmake --build "$work/cmake" -j 2; } >"$work/log" 2>&1 \
    || { tail -n 30 "$work/log"; die "CMake"; }
  check_example "$work/cmake/self_fifo" "$1"
  check_minimal "$work/cmake/minimal" "$1/tap"
}

check_flags() { # check_flags LIBDIR BIN EXAMPLE...: built with what pkg-config says
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

check_recipes() { # the versions, hashes and options in packaging/, and both choices of the makefile
  local version option tools sum
  cd "$source/packaging"
  version=$(sed -n 's/^project(kelvara VERSION \([0-9.]*\).*/\1/p' ../CMakeLists.txt)
  sum=$(sha256sum ../LICENSE) && grep -q "${sum%% *}" -r buildroot || die "the licence's SHA-256"
  sum=$(md5sum ../LICENSE) && grep -q "${sum%% *}" -r openembedded || die "the licence's MD5"
  [[ -e openembedded/recipes-core/kelvara/kelvara_$version.bb ]] || die "OpenEmbedded: not $version"
  grep -qx "KELVARA_VERSION = $version" -r buildroot || die "Buildroot: not $version"
  grep -q "^kelvara ($version)" debian/changelog || die "Debian: not $version"
  for option in $(grep -ohrE -e '-DKELVARA_\w+=' . | grep -vE 'ARCH|SYSROOT' | sort -u); do
    option=${option#-D}
    grep -q "option(${option%=} " ../CMakeLists.txt || die "no option is called $option"
  done
  for tools in y:ON :OFF; do
    printf 'define cmake-package\nendef\ninclude %s\nall: ; @echo $(KELVARA_CONF_OPTS)\n' \
      buildroot/package/kelvara/kelvara.mk | make -f - "BR2_PACKAGE_KELVARA_TOOLS=${tools%:*}" all \
      | grep -q -e "-DKELVARA_BUILD_EXAMPLES=${tools#*:}" || die "kelvara.mk with tools=$tools"
  done
}

check_units() { # check_units ROOT: sound, closed, and what they start works as it was unpacked
  local unit command dog
  sed -i "s#\"/#\"$1/#" "$1/etc/kelvara/gnssd.conf"
  for unit in "$1"/lib/systemd/system/{watchdogd,gnssd}.service; do
    sed -i -E "s#([= ])(/usr|/etc|/run)/#\1$1\2/#g" "$unit"
    if command -v systemd-analyze >/dev/null; then
      [[ -z $(systemd-analyze verify --man=no "$unit" 2>&1 | tee "$work/log") ]] \
        && systemd-analyze security --offline=true --threshold=10 "$unit" >"$work/log" 2>&1 \
        || die "$(cat "$work/log")"
    fi
    mkdir -p "$1/run/$(sed -n 's/^RuntimeDirectory=//p' "$unit")" \
      "$1/var/log/$(sed -n 's/^LogsDirectory=//p' "$unit")"
    read -ra command <<<"$(sed -n 's/^ExecStart=//p' "$unit")"
    if [[ $unit == */gnssd.service ]]; then
      timeout 60 "${run[@]}" "${command[@]}" --rate 0 | grep -q 'valid 398 ' || die "$unit"
    else
      timeout 60 "${run[@]}" "${command[@]}" >"$work/dog" &
      dog=$!
      wait_for -S "$1/run/watchdogd/watchdog.sock"
    fi
  done
  stop "$dog" watchdogd
  grep -q 'has left' "$work/dog" || die "gnssd did not find watchdogd"
}

case $what in
  fetched)
    check_cmake "$build/examples" -DKELVARA_SOURCE="$source" -DBUILD_SHARED_LIBS=OFF \
      -DKELVARA_INSTALL=ON -DCMAKE_INSTALL_LIBDIR=lib
    archive=$work/cmake/_deps/kelvara-build/libkelvara.a
    diff <(nm -D --defined-only "$build/libkelvara.so" | grep -c ' [BDRT] ') \
      <(nm --defined-only --extern-only "$archive" | grep -c ' [A-Z] ') \
      || die "the archive defines more than the library exports"
    cmake --install "$work/cmake" --prefix "$work/prefix" >"$work/log" || die "$(cat "$work/log")"
    check_flags "$work/prefix/lib" "$build/examples" "$source"/examples/modules/dmn_serv.c ;;
  prefix)
    check_recipes
    cmake --install "$build" --prefix "$work/prefix" >"$work/log" || die "$(cat "$work/log")"
    bin=$work/prefix/bin
    lib=$work/prefix/$(sed -n 's/^CMAKE_INSTALL_LIBDIR:PATH=//p' "$build/CMakeCache.txt")
    diff -r "$source/include/common" "$work/prefix/include/kelvara/common" || die "headers"
    "$cc" -I"$work/prefix/include/kelvara" "$source/examples/minimal.c" -o "$work/plain" -L"$lib" \
      -lkelvara -levent_core -lconfig -pthread "${cross_flags[@]}" || die "minimal by plain options"
    check_flags "$lib" "$bin" "$source"/examples/modules/*.c{,pp}
    check_cmake "$bin" -Dkelvara_DIR="$lib/cmake/kelvara" ;;
  packages)
    "$source/scripts/package" "$arch" || die "scripts/package"
    mkdir -p "$work/elsewhere/build"
    tar -C "$source" -c --exclude=./build --exclude=./.git . | tar -x -C "$work/elsewhere"
    cp -a "$source/build/docs" "$work/elsewhere/build"
    [[ -z $toolchain ]] || ln -s "$source/build/sysroot-$arch" "$work/elsewhere/build"
    (umask 077 && "$work/elsewhere/scripts/package" "$arch") || die "scripts/package elsewhere"
    for package in "$source/build/package-$arch"/*.deb; do
      cmp "$package" "$work/elsewhere/build/package-$arch/$(basename "$package")" \
        || die "another folder makes another package"
      dpkg-deb -x "$package" "$work/unpacked"
    done
    [[ $(man -l "$work/unpacked/usr/share/man/man3/log_msg.3.gz") == *'<common/self_log.h>'* ]] \
      || die "no manual page of log_msg()"
    lib=$(dirname "$work"/unpacked/usr/lib/*/libkelvara.so)
    export LD_LIBRARY_PATH=$lib # what is unpacked and not installed, the loader does not know
    check_flags "$lib" "$work/unpacked/usr/bin" "$source"/examples/modules/supervised.c
    check_cmake "$work/unpacked/usr/bin" -Dkelvara_DIR="$lib/cmake/kelvara"
    check_units "$work/unpacked" ;;
esac
echo "passed"
