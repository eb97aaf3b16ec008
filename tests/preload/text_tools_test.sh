#!/usr/bin/env bash
# gawk, jq and openssl under the library: associative arrays and string building in gawk,
# a JSON document rebuilt by jq, digests and an encrypt/decrypt round trip by openssl.
# Results must equal the runs without the library.
set -euo pipefail
source "$(dirname "$0")/lib.sh"
make_scratch
for tool in gawk jq openssl; do command -v $tool >/dev/null || fail "$tool is missing (package $tool)"; done
records=100000
[ "${QUORLA_LONG_TESTS:-0}" = 1 ] && records=1000000
gawk -v n="$records" 'BEGIN { for (i = 1; i <= n; i++) printf "%d\tuser%d\tgroup%d\t%d\n", i, i % 9973, i % 41, i * 13 % 1000 }' \
  >"$scratch/table"

program='{ sum[$3] += $4; names[$3] = names[$3] substr($2, 5, 2); seen[$2]++ }
  END { for (g in sum) printf "%s %d %d %s\n", g, sum[g], length(names[g]), substr(names[g], 1, 20)
        print "distinct", length(seen) }'
expected=$(gawk "$program" "$scratch/table" | LC_ALL=C sort)
actual=$(preloaded gawk "$program" "$scratch/table" | LC_ALL=C sort) || fail "gawk under the library failed"
[ "$actual" = "$expected" ] || fail "gawk printed other totals under the library"
grep -qx "distinct 9973" <<<"$actual" || fail "gawk: expected 9973 distinct users"
pass "gawk: $(wc -l <<<"$actual") groups as without the library"
preloaded gawk '{ print }' /proc/self/maps | expect_mapped gawk

gawk -F'\t' 'BEGIN { printf "[" } { printf "%s{\"id\":%d,\"name\":\"%s\",\"group\":\"%s\",\"score\":%d}", (NR > 1 ? "," : ""), $1, $2, $3, $4 }
  END { print "]" }' "$scratch/table" >"$scratch/doc.json"
filter='group_by(.group) | map({group: .[0].group, count: length, total: (map(.score) | add),
  names: (map(.name) | unique | length)}) | sort_by(-.total)'
expected=$(jq -c "$filter" "$scratch/doc.json")
actual=$(preloaded jq -c "$filter" "$scratch/doc.json") || fail "jq under the library failed"
[ "$actual" = "$expected" ] || fail "jq printed another document under the library"
[ "$(preloaded jq 'length' "$scratch/doc.json")" = "$records" ] || fail "jq counted another number of records"
pass "jq: grouped document as without the library"
preloaded jq -R . /proc/self/maps | expect_mapped jq

for digest in sha256 sha512 md5; do
  want=$(openssl dgst -"$digest" -r "$scratch/table")
  got=$(preloaded openssl dgst -"$digest" -r "$scratch/table") || fail "openssl $digest failed"
  [ "$got" = "$want" ] || fail "openssl $digest: $got instead of $want"
done
[ "$(openssl dgst -sha256 -r "$scratch/table" | cut -d' ' -f1)" = "$(sha256sum "$scratch/table" | cut -d' ' -f1)" ] ||
  fail "openssl and sha256sum disagree"
preloaded openssl enc -aes-256-cbc -pbkdf2 -pass pass:quorla -in "$scratch/table" -out "$scratch/enc" ||
  fail "openssl encryption failed"
openssl enc -d -aes-256-cbc -pbkdf2 -pass pass:quorla -in "$scratch/enc" | cmp - "$scratch/table" ||
  fail "data encrypted under the library does not decrypt to the original"
pass "openssl: digests and an AES round trip as without the library"
preloaded openssl enc -base64 -in /proc/self/maps | openssl enc -d -base64 | expect_mapped openssl
