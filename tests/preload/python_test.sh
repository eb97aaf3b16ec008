#!/usr/bin/env bash
# Python under the library: dictionaries, strings, a JSON round trip, objects made on one
# thread and dropped on another, plain threads and a thread pool. Every step checks itself,
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
assert len(table) == 100000 * scale - len(range(0, 100000 * scale, 3))
print("dict", len(table), sum(map(len, table.values())), digest(sorted(table.items())[:2000]))

# JSON round trip of a nested document.
document = {
    "users": [{"id": i, "name": "user%05d" % i, "tags": ["t%d" % (i % k) for k in range(2, 9)],
               "score": i * 0.5, "active": i % 3 == 0, "meta": {"n": str(i) * (i % 17)}}
              for i in range(20000 * scale)],
    "text": "".join(chr(0x41 + (i % 58)) for i in range(200000)),
}
encoded = json.dumps(document, sort_keys=True)
decoded = json.loads(encoded)
assert decoded == document
assert json.dumps(decoded, sort_keys=True) == encoded
print("json", len(encoded), hashlib.sha256(encoded.encode()).hexdigest()[:16])

# Plain threads: each builds its own structures; objects then cross threads on a queue
# and are dropped by the consumer that did not make them.
def builder(seed, results):
    local = {}
    for i in range(30000 * scale):
        local[(seed, i)] = [str(i * seed)] * (i % 5) + ["x" * (i % 300)]
    results[seed] = digest([(k[1], v) for k, v in sorted(local.items())[:3000]]) + ":%d" % sum(
        len(v) for v in local.values())

results = {}
threads = [threading.Thread(target=builder, args=(seed, results)) for seed in range(1, 5)]
for t in threads: t.start()
for t in threads: t.join()
print("threads", [results[s] for s in range(1, 5)])

channel = queue.Queue(maxsize=256)
def producer(seed):
    for i in range(20000 * scale):
        channel.put({"seed": seed, "i": i, "blob": ("%d/" % i) * (1 + i % 40)})
    channel.put(None)
totals = []
def consumer(producers):
    done, total, count = 0, 0, 0
    while done < producers:
        item = channel.get()
        if item is None:
            done += 1
            continue
        total += len(item["blob"]) + item["i"]
        count += 1
    totals.append((count, total))
producers = [threading.Thread(target=producer, args=(s,)) for s in range(3)]
eater = threading.Thread(target=consumer, args=(3,))
eater.start()
for t in producers: t.start()
for t in producers: t.join()
eater.join()
print("queue", totals)

# A thread pool: text processing and JSON on every task.
def task(n):
    words = ["w%d" % ((n * 31 + i * 17) % 997) for i in range(5000)]
    counts = {}
    for w in words:
        counts[w] = counts.get(w, 0) + 1
    text = " ".join(sorted(words)).replace("w1", "W1").split(" ")
    back = json.loads(json.dumps({"n": n, "counts": counts, "text": text[:500]}))
    assert back["counts"] == counts
    return digest(back)
with ThreadPoolExecutor(max_workers=4) as pool:
    pooled = list(pool.map(task, range(64 * scale)))
print("pool", len(pooled), hashlib.sha256("".join(pooled).encode()).hexdigest()[:16])

# The process's own memory map, written aside so that stdout compares across runs.
evidence = os.environ.get("QUORLA_EVIDENCE")
if evidence:
    with open("/proc/self/maps") as maps, open(evidence, "w") as out:
        out.write(maps.read())
PY
expected=$("$python" "$scratch/workload.py" "$scale") || fail "python3 without the library exited with $?"
actual=$(QUORLA_EVIDENCE="$scratch/evidence" preloaded "$python" "$scratch/workload.py" "$scale") || fail "python3 under the library failed"
[ "$actual" = "$expected" ] || fail "python3 printed
$actual
instead of
$expected"
pass "python3 workload digests match the run without the library"
expect_mapped python3 <"$scratch/evidence"
