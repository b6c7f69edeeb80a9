#!/bin/bash
# SPDX-License-Identifier: MIT
# test_install.sh prefix|packages|fetched SOURCE BUILD COMPILER_C COMPILER_CXX [TOOLCHAIN_FILE]: hosts
# outside the tree find what was installed to a prefix, or unpacked from the packages: by pkg-config,
# by CMake and by plain options; or they build the archive libkelvara.a as a part of themselves, and
# install it. The hosts are the documentation's examples; each must run and print what its page
# shows. Programs run under $KELVARA_RUN, if that is set. Status 77: a tool is missing.
set -euo pipefail
what=$1 source=$2 build=$3 cc=$4 cxx=$5 toolchain=${6:-}
read -ra run <<<"${KELVARA_RUN:-}"

tools=(pkg-config cmake "$cc" "$cxx")
[[ $what == packages ]] && tools+=(cpack dpkg-deb dpkg-shlibdeps lintian gzip man)
for tool in "${tools[@]}"; do
  command -v "$tool" >/dev/null || { echo "skipped: no $tool"; exit 77; }
done

work=$(mktemp -d)
minimal_pid='' watchdog_pid=''
clean_up() {
  local pid
  for pid in $minimal_pid $watchdog_pid; do
    kill "$pid" 2>/dev/null || true
  done
  rm -rf "$work"
}
trap clean_up EXIT
die() { echo "FAILED: $*"; exit 1; }
strict=(-Wall -Wextra -Wpedantic -Wconversion -Werror)
# Where libevent and libconfig stand for a cross compiler, as the toolchain file has it.
cross_flags=() cross_cmake=() pc_path='' arch=native
if [[ -n $toolchain ]]; then
  arch=$(sed -n 's/^KELVARA_ARCH:.*=//p' "$build/CMakeCache.txt")
  sysroot=$source/build/sysroot-$arch
  triplet=${cc##*/}
  triplet=${triplet%-gcc}
  cross_flags=(-isystem "$sysroot/usr/include/$triplet" -isystem "$sysroot/usr/include"
    -L"$sysroot/usr/lib/$triplet")
  cross_cmake=(-DCMAKE_TOOLCHAIN_FILE="$toolchain" -DKELVARA_ARCH="$arch")
  pc_path=:$sysroot/usr/lib/$triplet/pkgconfig
fi

# What differs from run to run, or with each change of a source of the library.
steady() {
  sed -E 's/:[0-9]{2}:[0-9]{2}:[0-9]{2}\.[0-9]{8} /:hh:mm:ss.uuuuuuuu /g
    s/ (dmn_serv|self_dog|self_log|xfuncs) [0-9]{4}\]/ \1 NNNN]/; s/^(giLogPpFdAry=).*/\1R W/'
}

check_example() { # check_example PROGRAM BIN: it ends with 0 and prints what the documentation shows
  local name folder i
  name=$(basename "$1")
  folder=$work/run/$name
  mkdir -p "$folder"
  if [[ -e $source/examples/modules/$name.conf ]]; then
    { cat "$source/examples/modules/$name.conf"; echo 'work: { ticks = 3; }'; } >"$folder/$name.conf"
    (cd "$folder" && exec timeout 60 "${run[@]}" "$2/watchdogd" watchdog.sock) >"$folder.dog" &
    watchdog_pid=$!
    for ((i = 0; i < 200; i++)); do
      [[ ! -S $folder/watchdog.sock ]] || break
      sleep 0.05
    done
  fi
  (cd "$folder" && timeout 60 "${run[@]}" "$1" </dev/null) >"$folder.out" 2>"$folder.err" \
    || die "$1 ended with $?: $(tail -n 5 "$folder.out" "$folder.err")"
  diff <(steady <"$folder.out") "$source/examples/modules/$name.out" || die "$1 prints something else"
  if [[ -n $watchdog_pid ]]; then
    kill "$watchdog_pid"
    wait "$watchdog_pid" || die "watchdogd ended with $?"
    watchdog_pid=
    (($(grep -c "$name .* heartbeat " "$folder.dog") >= 3)) || die "no heartbeats of $name"
  fi
  rm -rf "$folder"
}

check_minimal() { # check_minimal PROGRAM TAP: serves, and stops on SIGTERM
  rm -f "$work/ticks"
  timeout 60 "${run[@]}" "$1" "$work/minimal.sock" >"$work/minimal.log" &
  minimal_pid=$!
  (timeout 20 "${run[@]}" "$2" -w 10000 "$work/minimal.sock" >"$work/ticks" 2>/dev/null) &
  local tap_pid=$! i
  for ((i = 0; i < 200; i++)); do
    [[ ! -s $work/ticks ]] || break
    sleep 0.05
  done
  kill "$minimal_pid"
  wait "$minimal_pid" || die "$1 ended with $?"
  minimal_pid=
  wait "$tap_pid" || die "tap ended with $?"
  [[ $(head -n 1 "$work/ticks") == tick ]] || die "$1 sends no ticks"
}

check_cmake() { # check_cmake BIN [OPTION...]: the outside project, and what it runs
  local bin=$1 example
  shift
  { cmake -S "$source/tests/outside" -B "$work/cmake" -DCMAKE_C_COMPILER="$cc" \
    -DCMAKE_CXX_COMPILER="$cxx" "${cross_cmake[@]}" -DEXAMPLES="$source/examples/modules" \
    -DMINIMAL="$source/examples/minimal.c" "$@" \
    && cmake --build "$work/cmake" -j 2; } >"$work/log" 2>&1 \
    || { tail -n 30 "$work/log"; die "CMake"; }
  for example in "$source"/examples/modules/*.out; do
    check_example "$work/cmake/$(basename "${example%.out}")" "$bin"
  done
  check_minimal "$work/cmake/minimal" "$bin/tap"
}

check_flags() { # check_flags LIBDIR BIN EXAMPLE...: built with what pkg-config says
  local lib=$1 bin=$2 pc_flags example name compile
  shift 2
  mkdir -p "$work/pc"
  read -ra pc_flags <<<"$(PKG_CONFIG_LIBDIR=$lib/pkgconfig$pc_path${pc_path:-:$(pkg-config \
    --variable pc_path pkg-config)} pkg-config --cflags --libs kelvara)"
  for example; do
    name=$(basename "${example%.*}")
    compile=("$cc" -std=gnu11)
    [[ $example != *.cpp ]] || compile=("$cxx" -std=gnu++17)
    "${compile[@]}" "${strict[@]}" "$example" -o "$work/pc/$name" "${pc_flags[@]}" \
      "${cross_flags[@]}" -Wl,-rpath,"$lib" || die "$name by pkg-config"
    [[ $name == minimal ]] || check_example "$work/pc/$name" "$bin"
  done
}

check_hosts() { # check_hosts PREFIX LIBDIR
  local lib=$1/$2
  diff -r "$source/include/common" "$1/include/kelvara/common" || die "headers"
  [[ $(readlink "$lib/libkelvara.so") == libkelvara.so.1 && -e $lib/libkelvara.so ]] || die "links"
  check_flags "$lib" "$1/bin" "$source"/examples/modules/*.c{,pp} "$source/examples/minimal.c"
  check_minimal "$work/pc/minimal" "$1/bin/tap"
  "$cc" -I"$1/include/kelvara" "$source/examples/minimal.c" -o "$work/pc/plain" -L"$lib" \
    -lkelvara -levent_core -lconfig -pthread "${cross_flags[@]}" || die "minimal by plain options"
  check_cmake "$1/bin" -Dkelvara_DIR="$lib/cmake/kelvara"
}

check_units() { # check_units ROOT: sound, closed, and what they start works as it was unpacked
  local unit command
  sed -i "s#\"/#\"$1/#" "$1/etc/kelvara/gnssd.conf"
  for unit in "$1"/usr/lib/systemd/system/{watchdogd,gnssd}.service; do
    sed -i -E "s#([= ])(/usr|/etc|/run)/#\1$1\2/#g" "$unit"
    if command -v systemd-analyze >/dev/null; then
      [[ -z $(systemd-analyze verify --man=no "$unit" 2>&1) ]] || die "$(systemd-analyze verify "$unit" 2>&1)"
      systemd-analyze security --offline=true --threshold=10 "$unit" >"$work/log" 2>&1 || die "$(cat "$work/log")"
    fi
    mkdir -p "$1/run/$(sed -n 's/^RuntimeDirectory=//p' "$unit")" "$1/var/log/$(sed -n 's/^LogsDirectory=//p' "$unit")"
    read -ra command <<<"$(sed -n 's/^ExecStart=//p' "$unit")"
    if [[ $unit == */gnssd.service ]]; then
      timeout 60 "${run[@]}" "${command[@]}" --rate 0 | grep -q 'valid 398 ' || die "$unit"
    else
      timeout 60 "${run[@]}" "${command[@]}" >"$work/dog" &
      watchdog_pid=$!
      sleep 1
    fi
  done
  kill "$watchdog_pid"
  wait "$watchdog_pid" || die "watchdogd ended with $?"
  watchdog_pid=
  grep -q 'has left' "$work/dog" || die "gnssd did not find watchdogd"
}

if [[ $what == fetched ]]; then
  check_cmake "$build/examples" -DKELVARA_SOURCE="$source" -DBUILD_SHARED_LIBS=OFF \
    -DKELVARA_INSTALL=ON -DCMAKE_INSTALL_LIBDIR=lib
  exported=$(nm --defined-only --extern-only "$work/cmake/_deps/kelvara-build/libkelvara.a" | grep -c ' [A-Z] ')
  diff <(nm -D --defined-only "$build/libkelvara.so" | grep -c ' [BDRT] ') <(echo "$exported") \
    || die "the archive defines more than the library exports"
  cmake --install "$work/cmake" --prefix "$work/prefix" >"$work/log" || die "$(cat "$work/log")"
  check_flags "$work/prefix/lib" "$build/examples" "$source"/examples/modules/dmn_serv.c
elif [[ $what == prefix ]]; then
  cmake --install "$build" --prefix "$work/prefix" >"$work/log" || die "$(cat "$work/log")"
  "$source/scripts/check_packaging" "$work/prefix" || die "packaging/"
  check_hosts "$work/prefix" "$(sed -n 's/^CMAKE_INSTALL_LIBDIR:PATH=//p' "$build/CMakeCache.txt")"
else
  "$source/scripts/package" "$arch" "$build/package" || die "scripts/package"
  mkdir "$work/elsewhere"
  cp -r "$source"/{*.md,CMakeLists.txt,LICENSE,bench,cmake,docs,examples,include,packaging,scripts,src} "$work/elsewhere"
  mkdir "$work/elsewhere/build"
  [[ -z $toolchain ]] || ln -s "$sysroot" "$work/elsewhere/build"
  (umask 077 && "$work/elsewhere/scripts/package" "$arch") \
    || die "scripts/package elsewhere"
  for package in "$build"/package/*.{deb,spdx.json}; do
    cmp "$package" "$work"/elsewhere/build/package*/"$(basename "$package")" \
      || die "another folder makes another package"
  done
  for package in "$build"/package/*.deb; do
    dpkg-deb -x "$package" "$work/unpacked"
  done
  [[ $(man -l "$work/unpacked/usr/share/man/man3/log_msg.3.gz") == *'<common/self_log.h>'* ]] \
    || die "no manual page of log_msg()"
  lib=("$work"/unpacked/usr/lib/*/libkelvara.so.1.0.0)
  newest=$(readelf -V "${lib[0]}" "$work"/unpacked/usr/bin/* | grep -o 'GLIBC_2\.[0-9]*' | sort -V | tail -n 1)
  dpkg --compare-versions "${newest#GLIBC_}" le 2.34 || die "libc6 (>= 2.34) is not enough: $newest"
  libdir=$(dirname "${lib[0]}")
  export LD_LIBRARY_PATH=$libdir # what is unpacked and not installed, the loader does not know
  check_hosts "$work/unpacked/usr" "${libdir#"$work/unpacked/usr/"}"
  check_units "$work/unpacked"
fi
echo "passed"
