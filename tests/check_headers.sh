#!/bin/bash
# SPDX-License-Identifier: MIT
# check_headers.sh INCLUDE_DIR COMPILER_C COMPILER_CXX: every public header stands on its own, as
# C11 and as C++17, with every warning an error.
set -euo pipefail
fail=0
for header in "$1"/common/*.h; do
  for how in "$2 -x c -std=c11" "$3 -x c++ -std=c++17 -Wold-style-cast"; do
    # shellcheck disable=SC2086
    echo "#include <common/$(basename "$header")>" | $how -I"$1" -Wall -Wextra -Wpedantic \
      -Wconversion -Wsign-conversion -Wshadow -Wundef -Wstrict-aliasing -Werror -fsyntax-only - \
      || { echo "$(basename "$header"): $how"; fail=1; }
  done
done
exit $fail
