#!/usr/bin/env bash
# redis-server under the library on 127.0.0.1 at a free port: bulk loading through
# redis-cli --pipe, reads checked against the data sent, lists, hashes, a Lua sum over
# every value, redis-benchmark (also under the library) on a bounded request count, and a
# clean shutdown. Debian's redis-server is linked with jemalloc; the preloaded library
# comes first in symbol lookup and serves its malloc, calloc, realloc and free.
set -euo pipefail
source "$(dirname "$0")/lib.sh"
make_scratch
for tool in redis-server redis-cli redis-benchmark; do
  command -v $tool >/dev/null || fail "$tool is missing (packages redis-server, redis-tools)"
done
keys=20000 requests=20000
[ "${QUORLA_LONG_TESTS:-0}" = 1 ] && keys=500000 requests=1000000
server_pid=""
trap '[ -z "$server_pid" ] || kill "$server_pid" 2>/dev/null || true; remove_scratch' EXIT

# A port found free may be taken before the server binds it: then try another.
for _ in 1 2 3 4 5; do
  port=$(python3 -c 'import socket; s = socket.socket(); s.bind(("127.0.0.1", 0)); print(s.getsockname()[1])')
  LD_PRELOAD="$QUORLA_LIBRARY" redis-server --bind 127.0.0.1 --port "$port" --save "" \
    --appendonly no --dir "$scratch" --logfile "$scratch/redis.log" --daemonize no &
  server_pid=$!
  for _ in $(seq 500); do
    [ "$(redis-cli -p "$port" ping 2>/dev/null)" = PONG ] && break 2
    kill -0 "$server_pid" 2>/dev/null || break
    sleep 0.02
  done
  kill "$server_pid" 2>/dev/null || true
  wait "$server_pid" || true
  server_pid=""
  grep -q "Address already in use" "$scratch/redis.log" ||
    fail "redis-server did not start under the library: $(tail -n 30 "$scratch/redis.log")"
done
[ -n "$server_pid" ] || fail "no free port found for redis-server"
expect_mapped redis-server <"/proc/$server_pid/maps"
cli() { redis-cli -p "$port" "$@"; }

# Bulk load: key i holds a value of 1 + i*37 mod 4000 bytes.
awk -v n="$keys" 'BEGIN { for (i = 0; i < n; i++) { v = sprintf("%0*d", 1 + (i * 37) % 4000, i);
  printf "*3\r\n$3\r\nSET\r\n$%d\r\nkey:%d\r\n$%d\r\n%s\r\n", length("key:" i), i, length(v), v } }' \
  >"$scratch/load"
loaded=$(cli --pipe <"$scratch/load") || fail "redis-cli --pipe failed: $loaded"
grep -q "errors: 0, replies: $keys" <<<"$loaded" || fail "bulk load: $loaded"
[ "$(cli dbsize)" = "$keys" ] || fail "dbsize is $(cli dbsize), expected $keys"
for i in 0 1 7 999 $((keys / 2)) $((keys - 1)); do
  want=$(printf "%0*d" $((1 + (i * 37) % 4000)) "$i")
  [ "$(cli get "key:$i")" = "$want" ] || fail "GET key:$i returned another value"
done
total=$(awk -v n="$keys" 'BEGIN { for (i = 0; i < n; i++) t += length(sprintf("%0*d", 1 + (i * 37) % 4000, i)); print t }')
summed=$(cli eval "local t = 0 for i = 0, tonumber(ARGV[1]) - 1 do t = t + redis.call('strlen', 'key:' .. i) end return t" 0 "$keys")
[ "$summed" = "$total" ] || fail "Lua sum of value lengths is $summed, expected $total"
pass "redis: $keys keys loaded, sampled values and the $total-byte total match"

# Overwrites that change size class, appends, lists, hashes and deletes.
cli set grow a >/dev/null
for _ in $(seq 12); do cli append grow "$(cli get grow)" >/dev/null; done
[ "$(cli strlen grow)" = 4096 ] || fail "doubling appends gave $(cli strlen grow) bytes"
for i in $(seq 1 300); do echo "RPUSH list item-$i"; echo "HSET hash field-$i $((i * i))"; done | cli >/dev/null
[ "$(cli lrange list 0 -1)" = "$(seq -f item-%g 300)" ] || fail "the list does not hold item-1 to item-300 in order"
hash=$(cli hvals hash | awk '{ t += $1 } END { print NR, t }')
[ "$hash" = "300 9045050" ] || fail "the hash holds $hash (values, sum) instead of 300 squares summing to 9045050"
deleted=$(cli eval "local d = 0 for i = 0, tonumber(ARGV[1]) - 1, 2 do d = d + redis.call('del', 'key:' .. i) end return d" 0 "$keys")
[ "$deleted" = $((keys / 2)) ] || fail "deleted $deleted keys, expected $((keys / 2))"
[ "$(cli dbsize)" = $((keys - keys / 2 + 3)) ] || fail "dbsize after deletes is $(cli dbsize)"
pass "redis: appends, list, hash and deletes give the expected contents"

# The benchmark client runs under the library too; every test must report its rate.
report=$(preloaded redis-benchmark -h 127.0.0.1 -p "$port" -n "$requests" -c 20 -q -t set,get,incr,lpush,lpop,hset |
  tr '\r' '\n') || fail "redis-benchmark failed: $report"
for test in SET GET INCR LPUSH LPOP HSET; do
  grep -q "^$test: .*requests per second" <<<"$report" || fail "redis-benchmark reported no $test result: $report"
done
pass "redis-benchmark: 6 tests of $requests requests"
processed=$(cli info stats | tr -d '\r' | awk -F: '$1 == "total_commands_processed" { print $2 }')
[ "$processed" -ge $((6 * requests + keys)) ] ||
  fail "the server counted $processed commands, fewer than the $((6 * requests + keys)) sent"

cli shutdown nosave >/dev/null 2>&1 || true
wait "$server_pid" || fail "redis-server exited with $?: $(tail -n 40 "$scratch/redis.log")"
server_pid=""
! grep -q "BUG REPORT\|crashed by signal" "$scratch/redis.log" || fail "redis-server logged a crash"
pass "redis-server shut down cleanly"
