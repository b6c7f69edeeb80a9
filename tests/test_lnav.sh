#!/bin/bash
# SPDX-License-Identifier: MIT
# test_lnav.sh SOURCE GNSSD: lnav reads the log files of a daemon by the format file that we ship.
# Status 77: there is no lnav.
set -euo pipefail
source=$1 gnssd=$2
command -v lnav >/dev/null || { echo "skipped: no lnav"; exit 77; }
read -ra run <<<"${KELVARA_RUN:-}"
work=$(mktemp -d)
trap 'rm -rf "$work"' EXIT
mkdir -p "$work/config/formats/kelvara"
cp "$source/docs/lnav/kelvara_log.json" "$work/config/formats/kelvara"

# A log file with lines of the library and of the daemon, of all levels that the daemon uses.
sed -e "s#\"/run/[a-z]*/#\"$work/#; s#\"/var/log/gnssd/gnssd#\"$work/log#; s#logSaveMaxCnt = .*;#logSaveMaxCnt = 9999;#" \
  "$source/examples/gnssd.conf" >"$work/gnssd.conf"
"${run[@]}" "$gnssd" --config "$work/gnssd.conf" --input "$source/examples/track.nmea" --level 6 \
  >"$work/out" || { cat "$work/out"; exit 1; }

wanted=$(sed -nE 's/^\[([A-Z]{3}):[0-9:.]+ +([^ ]+) 0*([0-9]+)\] .*/\1 \2 \3/p' "$work/log-00.log" \
  | sed 's/^OFF/notice/; s/^RUN/notice/; s/^ERR/error/; s/^WAN/warning/; s/^IFO/info/; s/^TAE/trace/; s/^LUD/debug/' \
  | sort | uniq -c)
got=$(HOME=$work lnav -n -I "$work/config" \
  -c ';SELECT log_level, file, line FROM kelvara_log' -c ':write-csv-to -' "$work/log-00.log" 2>"$work/err" \
  | sed -n '2,$ { s/,/ /g; p }' | sort | uniq -c)
[[ -n $wanted ]] || { echo "FAILED: gnssd logged nothing"; exit 1; }
diff <(echo "$wanted") <(echo "$got") || { cat "$work/err"; echo "FAILED: < logged, > read"; exit 1; }
echo "passed: $(wc -l <"$work/log-00.log") lines"
