#!/usr/bin/env bash
# curl under the library copies a local file through a file:// address: the copy equals the
# file. curl's own memory map, read by the same curl, holds the library.
set -euo pipefail
source "$(dirname "$0")/lib.sh"
make_scratch
command -v curl >/dev/null || fail "curl is missing (package curl)"
cd "$scratch"
head -c 6000000 /dev/urandom >data.bin
preloaded curl -sS -o copy.bin "file://$scratch/data.bin" || fail "curl under the library failed"
cmp data.bin copy.bin || fail "curl's copy differs from the file"
pass "curl under the library copied 6000000 bytes exactly"
preloaded curl -sS "file:///proc/self/maps" >curl.map || fail "curl under the library could not read its map"
expect_mapped curl <curl.map
