#!/bin/bash
# SPDX-License-Identifier: MIT
# check_library.sh LIBRARY SOURCE OBJDUMP: the library exports just what its map names, leaves open just
# what the host brings, needs nothing but the C library, shows its modules' plain names, and on ARM
# the spinlock has its two barriers where they belong.
set -euo pipefail
library=$1 objdump=$3
exported=$("$2/scripts/exported")
fail=0

differ() { # differ WHAT WANTED GOT
  if ! diff <(echo "$2") <(echo "$3"); then
    echo "$1: differs (< wanted, > got)"
    fail=1
  fi
}

differ exports "$(sort <<<"$exported")" \
  "$(nm -D --defined-only "$library" | awk '$2 != "A" { print $3 }' | sed 's/@.*//' | sort)"

# Without a version: what neither libc nor the compiler's runtime brings.
open=$(nm -D --undefined-only "$library" | awk '$1 == "U" { print $2 }' | grep -v @ | sort -u)
differ "left to the host" "gLogLevl" "$(echo "$open" | grep -vE '^(event|config)_')"

needed=$(readelf -d "$library" | sed -n 's/.*(NEEDED).*\[\(.*\)\]/\1/p')
extra=$(echo "$needed" | grep -vE '^(libc\.so\.6|libgcc_s\.so\.1|ld-linux-armhf\.so\.3)$' || true)
differ "needed libraries" "" "$extra"

soname=$(readelf -d "$library" | sed -n 's/.*(SONAME).*\[\(.*\)\]/\1/p')
differ soname "libkelvara.so.1" "$soname"
[[ $(readlink "$(dirname "$library")/libkelvara.so") == libkelvara.so.1 ]] || {
  echo "libkelvara.so is not the link to it"
  fail=1
}

differ "module names in log lines" "/dmn_serv /self_dog /self_log /xfuncs" \
  "$(strings -a "$library" | grep -E '^/(dmn_serv|self_dog|self_log|xfuncs|.*/.*\.cpp)$' \
    | sort -u | tr '\n' ' ' | sed 's/ $//')"

barriers() { # barriers FUNCTION KINDS: its instructions of these kinds, in order
  "$objdump" -d --disassemble="$1" "$library" | grep -owE "$2" | xargs
}
if readelf -h "$library" | grep -q 'Machine:.*ARM$'; then
  differ spinlock_try_lock "strex dmb" "$(barriers spinlock_try_lock 'strex|dmb')"
  differ spinlock_lock "strex dmb" "$(barriers spinlock_lock 'strex|dmb')"
  differ spinlock_unlock "dmb str" "$(barriers spinlock_unlock 'dmb|str')"
fi
exit $fail
