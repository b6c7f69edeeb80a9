#!/bin/bash
# SPDX-License-Identifier: MIT
# check_library.sh LIBRARY SOURCE OBJDUMP BUILD_TYPE: checks that the library exports exactly the
# names of its map, leaves undefined only what the host provides, needs only the C library, contains
# its modules' plain names, and that the spinlock has its two barriers.
set -euo pipefail
library=$1 objdump=$3
exported=$("$2/scripts/exported")
fail=0

differ() { # differ WHAT WANTED GOT: reports a difference
  if ! diff <(echo "$2") <(echo "$3"); then
    echo "$1: differs (< wanted, > got)"
    fail=1
  fi
}

differ exports "$(sort <<<"$exported")" \
  "$(nm -D --defined-only "$library" | awk '$2 != "A" { print $3 }' | sed 's/@.*//' | sort)"

# Names without a version come neither from libc nor from the compiler's runtime.
open=$(nm -D --undefined-only "$library" | awk '$1 == "U" { print $2 }' | grep -v @ | sort -u)
differ "left to the host" "gLogLevl" "$(echo "$open" | grep -vE '^(event|config)_')"

differ "soname, and needed libraries" "libkelvara.so.1" \
  "$(readelf -d "$library" | sed -n 's/.*(\(NEEDED\|SONAME\)).*\[\(.*\)\]/\2/p' \
    | grep -vxE 'libc\.so\.6|libgcc_s\.so\.1|ld-linux-armhf\.so\.3')"
differ "link to it" libkelvara.so.1 "$(readlink "$(dirname "$library")/libkelvara.so")"

differ "module names in log lines" "/dmn_serv /self_dog /self_log /xfuncs" \
  "$(strings -d "$library" | grep -E '^/(dmn_serv|self_dog|self_log|xfuncs|.*/.*\.cpp)$' \
    | sort -u | tr '\n' ' ' | sed 's/ $//')"

# The sweeps fail, stop and fork at each call that calls.cpp wraps. It does not wrap these: they
# cannot fail or wait, or other tests make them fail.
left_out='config_.*|dup2|event_base_(free|loopbreak)|event_(del|free)|eventfd_write|feof|ferror
|fileno|fread|getp?pid|mem.*|printf|pthread_(mutex|rwlock)_(init|lock|unlock)
|pthread_(self|setname_np|testcancel)|puts|s?random|srand|sig(add|empty)set|sigtimedwait|v?snprintf
|str.*|tgkill|vfork'
unwrapped() {
  nm -D --undefined-only "$library" | sed -n 's/.* U \([a-z][a-z0-9_]*\)\(@.*\)\?$/\1/p' \
    | grep -vxE "${left_out//$'\n'/}" \
    | grep -vxFf <(sed -n 's/^W[A-Z]*(\([a-z0-9_]*\).*/\1/p' "$1/tests/calls.cpp")
}

barriers() { # barriers WANTED KINDS FUNCTION...: the instructions of these kinds, in order
  local wanted=$1 kinds=$2 name
  for name in "${@:3}"; do
    differ "$name" "$wanted" "$("$objdump" -d --disassemble="$name" "$library" \
      | sed 's/mfence/lock/' | grep -owE "$kinds" | xargs)"
  done
}
case "$(readelf -h "$library" | grep Machine:) $4" in
  *ARM*) # where 40 KiB is the limit
    text=$("${objdump%objdump}size" "$library" | awk 'END { print $1 }')
    ((text <= 40960)) || { echo "text: wanted at most 40960 bytes, got $text"; fail=1; }
    barriers "strex dmb" 'strex|dmb' spinlock_try_lock spinlock_lock
    barriers "dmb str" 'dmb|str' spinlock_unlock ;;
  *X86-64*Release)
    differ "calls that the sweeps do not make fail" "" "$(unwrapped "$2")"
    # a barrier is a locked instruction
    barriers "xchg lock" 'xchg|lock' spinlock_try_lock spinlock_lock
    barriers "lock movl" 'lock|movl' spinlock_unlock ;;
esac
exit $fail
