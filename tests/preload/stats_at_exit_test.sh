#!/usr/bin/env bash
# QUORLAMALLOC_STATS_AT_EXIT: set, a real program's normal exit writes the statistics report
# on standard error, whole and in order, and leaves its standard output as it was; unset,
# empty or "0", nothing is written. ls and sort close their standard streams in exit handlers
# of their own, which run before the library's.
set -euo pipefail
source "$(dirname "$0")/lib.sh"
make_scratch
export LC_ALL=C
ls -R /usr/share/doc >"$scratch/expected"
QUORLAMALLOC_STATS_AT_EXIT=1 LD_PRELOAD="$QUORLA_LIBRARY" ls -R /usr/share/doc >"$scratch/actual" 2>"$scratch/report" ||
  fail "ls under the library with the report at exit failed"
cmp -s "$scratch/expected" "$scratch/actual" || fail "ls output differs with the report at exit"
tr -d '\r' <"$scratch/report" >"$scratch/report.lf"
[ "$(head -c 2 "$scratch/report" | od -An -c | tr -d ' ')" = '\r\n' ] || fail "the report does not open with \\r\\n"
order=$(grep -nE '^(Libquorlamalloc os_byte=|Libquorlamalloc shared_page all_byte=|libquorlamalloc thread_local_data vt_all_size=|libquorlamalloc thread_id=)' \
  "$scratch/report.lf" | cut -d: -f2 | cut -d' ' -f2 | cut -d= -f1 | uniq | tr '\n' ' ')
[ "$order" = "os_byte shared_page thread_local_data thread_id " ] || fail "sections out of order: $order"
[ "$(grep -c 'Libquorlamalloc os_byte=' "$scratch/report")" -eq 1 ] || fail "not exactly one report"
bad=$(grep -cv $'\r$' "$scratch/report" || true)
[ "$bad" -eq 0 ] || fail "$bad report lines do not end in \\r\\n"
pass "ls -R: one report on standard error at exit, output unchanged"

printf '3\n1\n2\n' >"$scratch/numbers"
QUORLAMALLOC_STATS_AT_EXIT=yes LD_PRELOAD="$QUORLA_LIBRARY" sort -n "$scratch/numbers" >"$scratch/sorted" 2>"$scratch/report" ||
  fail "sort under the library with the report at exit failed"
[ "$(tr '\n' ' ' <"$scratch/sorted")" = "1 2 3 " ] || fail "sort output changed"
grep -q 'libquorlamalloc thread_local_data vt_all_size=' "$scratch/report" || fail "sort: no report at exit"
pass "sort: report at exit with any non-zero value"

for value in 0 ""; do
  QUORLAMALLOC_STATS_AT_EXIT="$value" LD_PRELOAD="$QUORLA_LIBRARY" sort -n "$scratch/numbers" >/dev/null 2>"$scratch/quiet" ||
    fail "sort under the library failed"
  [ ! -s "$scratch/quiet" ] || fail "QUORLAMALLOC_STATS_AT_EXIT='$value' still wrote: $(head -c 200 "$scratch/quiet")"
done
LD_PRELOAD="$QUORLA_LIBRARY" sort -n "$scratch/numbers" >/dev/null 2>"$scratch/quiet" || fail "sort under the library failed"
[ ! -s "$scratch/quiet" ] || fail "without QUORLAMALLOC_STATS_AT_EXIT something was written"
pass "unset, empty or 0: nothing at exit"
