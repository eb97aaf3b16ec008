#!/usr/bin/env bash
# Python under the library: dictionaries, strings, a JSON round trip, a thread pool, and
# objects made on one thread and dropped on another. The JSON steps check their round trips,
# and the printed digests must equal those of the same run on the C library's allocator.
set -euo pipefail
source "$(dirname "$0")/lib.sh"
make_scratch
python=/usr/bin/python3
[ -x "$python" ] || fail "$python is missing (package python3)"
scale=1
[ "${QUORLA_LONG_TESTS:-0}" = 1 ] && scale=10
cat >"$scratch/workload.py" <<'PY'
import hashlib, json, os, queue, sys, threading
from concurrent.futures import ThreadPoolExecutor

scale = int(sys.argv[1])

def digest(value):
    return hashlib.sha256(json.dumps(value, sort_keys=True).encode()).hexdigest()[:16]

# Dictionaries and strings: grow, rewrite, shrink.
table = {}
for i in range(100000 * scale):
    table["key-%d" % i] = ("v%d-" % (i * 7)) * (1 + i % 13)
for i in range(0, 100000 * scale, 3):
    del table["key-%d" % i]
for key in list(table)[::5]:
    table[key] = table[key].upper()[::-1]
print("dict", len(table), sum(map(len, table.values())), digest(sorted(table.items())[:2000]))

# JSON round trip of a nested document.
document = {
    "users": [{"id": i, "name": "user%05d" % i, "tags": ["t%d" % (i % k) for k in range(2, 9)],
               "score": i * 0.5, "active": i % 3 == 0, "meta": {"n": str(i) * (i % 17)}}
              for i in range(20000 * scale)],
    "text": "".join(chr(0x41 + (i % 58)) for i in range(200000)),
}
encoded = json.dumps(document, sort_keys=True)
assert json.loads(encoded) == document
print("json", len(encoded), hashlib.sha256(encoded.encode()).hexdigest()[:16])

# A thread pool: every task builds its own dictionary of lists and strings and makes a JSON
# round trip of part of it, all at the same time.
def build(seed):
    local = {}
    for i in range(30000 * scale):
        local[(seed, i)] = [str(i * seed)] * (i % 5) + ["x" * (i % 300)]
    sample = [[k[1], v] for k, v in sorted(local.items())[:3000]]
    assert json.loads(json.dumps(sample)) == sample
    return digest(sample) + ":%d" % sum(len(s) for v in local.values() for s in v)
with ThreadPoolExecutor(max_workers=4) as pool:
    print("threads", list(pool.map(build, range(1, 9))))

# Objects made on producer threads cross a queue and are dropped by the main thread.
channel = queue.Queue(maxsize=256)
def producer(seed):
    for i in range(20000 * scale):
        channel.put({"seed": seed, "i": i, "blob": ("%d/" % i) * (1 + i % 40)})
    channel.put(None)
producers = [threading.Thread(target=producer, args=(s,)) for s in range(3)]
for t in producers: t.start()
done = count = total = 0
while done < len(producers):
    item = channel.get()
    if item is None:
        done += 1
    else:
        count, total = count + 1, total + len(item["blob"]) + item["i"]
for t in producers: t.join()
print("queue", count, total)

# The process's own memory map, written aside so that stdout compares across runs.
evidence = os.environ.get("QUORLA_EVIDENCE")
if evidence:
    with open("/proc/self/maps") as maps, open(evidence, "w") as out:
        out.write(maps.read())
PY
expected=$("$python" "$scratch/workload.py" "$scale") || fail "python3 without the library exited with $?"
actual=$(QUORLA_EVIDENCE="$scratch/evidence" preloaded "$python" "$scratch/workload.py" "$scale") || fail "python3 under the library failed"
[ "$actual" = "$expected" ] || fail "python3 printed [$actual] instead of [$expected]"
pass "python3 workload digests match the run without the library"
expect_mapped python3 <"$scratch/evidence"
