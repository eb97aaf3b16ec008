#!/usr/bin/env python3
"""Turns the raw runs of scripts/bench into docs/benchmarks.md and docs/benchmarks.png.

usage: bench-report.py RESULTS_DIR DOCS_DIR

RESULTS_DIR holds runs.tsv (one line per run), counts.tsv (mmap and munmap calls of one untimed
run per workload and allocator; optional), machine.txt, the workloads' --help texts and the
microbenchmark's JSON files. Every number in the page is computed here from those files: medians
over the repetitions, ratios to the best median of the row.
"""
import csv
import json
import os
import statistics
import subprocess
import sys

ALLOCATORS = ["glibc", "jemalloc", "tcmalloc", "mimalloc", "quorlamalloc", "quorlamalloc-hardened"]


def read_machine(path):
    info = {}
    with open(path) as f:
        for line in f:
            key, _, value = line.rstrip("\n").partition("=")
            info[key] = value
    return info


def read_runs(path):
    with open(path) as f:
        return list(csv.DictReader(f, delimiter="\t"))


def read_counts(path):
    """counts[w][a] = (mmap calls, munmap calls); empty when the file is missing."""
    counts = {}
    if os.path.exists(path):
        for r in read_runs(path):
            counts.setdefault(r["workload"], {})[r["allocator"]] = (int(r["mmap"]), int(r["munmap"]))
    return counts


def fmt_ratio(value, best):
    return "%.2fx" % (value / best) if best > 0 else "n/a"


def main():
    results, docs = sys.argv[1], sys.argv[2]
    os.makedirs(docs, exist_ok=True)
    info = read_machine(os.path.join(results, "machine.txt"))
    runs = read_runs(os.path.join(results, "runs.tsv"))
    counts = read_counts(os.path.join(results, "counts.tsv"))

    workloads = []
    for r in runs:
        if r["workload"] not in workloads:
            workloads.append(r["workload"])
    timed = [w for w in workloads if w != "micro_malloc"]

    # median[w][a] = (seconds, rss_kb, run count, failures, min seconds, max seconds)
    median = {}
    faults = {}  # faults[w][a] = median minor page faults, where GNU time gave them
    problems = []
    for w in timed:
        median[w] = {}
        checksums = {}
        for a in ALLOCATORS:
            mine = [r for r in runs if r["workload"] == w and r["allocator"] == a]
            good = [r for r in mine if r["status"] == "ok" and r["seconds"]]
            bad = [r for r in mine if r["status"] != "ok"]
            for r in bad:
                problems.append("%s under %s, repetition %s: %s" % (w, a, r["rep"], r["status"]))
            for r in good:
                checksums.setdefault(r["checksum"], set()).add(a)
            if good:
                secs = [float(r["seconds"]) for r in good]
                rss = [int(r["rss_kb"]) for r in good]
                median[w][a] = (statistics.median(secs), statistics.median(rss), len(good), len(bad),
                                min(secs), max(secs))
                minor = [int(r["minor_faults"]) for r in good if r.get("minor_faults")]
                if minor:
                    faults.setdefault(w, {})[a] = statistics.median(minor)
        if len(checksums) > 1:
            problems.append("%s: checksums differ between allocators: %s" % (
                w, "; ".join("%s by %s" % (c, ", ".join(sorted(s))) for c, s in checksums.items())))

    # Microbenchmark: median over repetitions of the time per allocation of each benchmark.
    micro = {}  # micro[name][a] = ns per allocation
    micro_names = []
    if "micro_malloc" in workloads:
        for a in ALLOCATORS:
            per_name = {}
            for r in runs:
                if r["workload"] != "micro_malloc" or r["allocator"] != a:
                    continue
                if r["status"] != "ok":
                    problems.append("micro_malloc under %s, repetition %s: %s" % (a, r["rep"], r["status"]))
                    continue
                with open(os.path.join(results, "micro_malloc.%s.%s.json" % (a, r["rep"]))) as f:
                    data = json.load(f)
                for b in data["benchmarks"]:
                    if b.get("run_type", "iteration") != "iteration":
                        continue
                    name = b["name"]
                    if name not in micro_names:
                        micro_names.append(name)
                    per_name.setdefault(name, []).append(1e9 / b["items_per_second"])
            for name, values in per_name.items():
                micro.setdefault(name, {})[a] = statistics.median(values)

    # Chart data: ratio of each allocator's median to the best median of the workload.
    def write_ratios(path, column):
        with open(path, "w") as f:
            f.write("workload " + " ".join(ALLOCATORS) + "\n")
            for w in timed:
                row = median[w]
                best = min(v[column] for v in row.values()) if row else 0
                f.write(w.replace("_", "\\\\_") + " " + " ".join(
                    ("%.4f" % (row[a][column] / best)) if a in row and best > 0 else "NaN" for a in ALLOCATORS) + "\n")

    dat = os.path.join(results, "ratios.dat")
    dat_rss = os.path.join(results, "rss.dat")
    write_ratios(dat, 0)
    write_ratios(dat_rss, 1)
    png = os.path.join(docs, "benchmarks.png")
    plot = """
set terminal pngcairo size 1200,900 font ",10"
set output '%s'
set multiplot layout 2,1
set style data histogram
set style histogram clustered gap 1
set style fill solid 0.85 border -1
set boxwidth 0.9
set logscale y 2
set grid ytics
set key top left horizontal
set xtics nomirror
set title "Median wall time relative to the fastest allocator of each workload (lower is better, log scale)"
set ylabel "time / best"
set yrange [0.9:*]
plot for [i=2:%d] '%s' using i:xtic(1) title columnheader(i)
set title "Median peak RSS relative to the smallest of each workload (lower is better, log scale)"
set ylabel "peak RSS / best"
plot for [i=2:%d] '%s' using i:xtic(1) title columnheader(i)
unset multiplot
""" % (png, len(ALLOCATORS) + 1, dat, len(ALLOCATORS) + 1, dat_rss)
    with open(os.path.join(results, "chart.gp"), "w") as f:
        f.write(plot)
    subprocess.run(["gnuplot", os.path.join(results, "chart.gp")], check=True)

    # The page.
    out = []
    out.append("# Benchmarks\n")
    out.append("Produced by `bash scripts/bench` (%s repetition(s), %s). Every number below is the median "
               "over the repetitions; ratios are to the best median of the row (1.00x = best). Runs were "
               "interleaved: for each repetition, for each workload, every allocator once, so a busy phase "
               "of the machine hits all allocators alike. Wall time and peak RSS (maximum resident set) "
               "and minor page faults come from GNU time; mmap and munmap calls from one more, untimed run "
               "under `strace -c`. glibc runs without preload; every other allocator is put in front of "
               "libc with `LD_PRELOAD`, the same workload binaries for all.\n" % (info["reps"], info["date"]))
    out.append("## Machine\n")
    out.append("- CPU: %s, %s cores (shared with other jobs: load average %s at the start; expect noise "
               "of several percent)" % (info["cpu"], info["cores"], info["load"]))
    out.append("- Kernel: %s" % info["kernel"])
    out.append("- libquorlamalloc: commit %s, `build/libquorlamalloc.so` (Release, -O2); quorlamalloc-hardened: "
               "`build/libquorlamalloc_hardened.so`, the same code with the hardened edges (README, "
               "\"Known behaviours\")" % info["commit"])
    for a in ["glibc", "jemalloc", "tcmalloc", "mimalloc"]:
        out.append("- %s: %s (`%s`)" % (a, info[a], info["library_" + a]))
    out.append("")
    out.append("![time and peak RSS ratios per workload](benchmarks.png)\n")
    if problems:
        out.append("## Problems seen during the runs\n")
        for p in problems:
            out.append("- " + p)
        out.append("")
    out.append("## Summary: time ratio / peak RSS ratio to the best\n")
    out.append("Where quorlamalloc loses, and the cause found for each loss: "
               "[benchmark-causes.md](benchmark-causes.md).\n")
    out.append("| workload | " + " | ".join(ALLOCATORS) + " |")
    out.append("|---|" + "---|" * len(ALLOCATORS))
    for w in timed:
        row = median[w]
        if not row:
            continue
        best_t = min(v[0] for v in row.values())
        best_m = min(v[1] for v in row.values())
        cells = []
        for a in ALLOCATORS:
            cells.append("%s / %s" % (fmt_ratio(row[a][0], best_t), fmt_ratio(row[a][1], best_m))
                         if a in row else "failed")
        out.append("| %s | %s |" % (w, " | ".join(cells)))
    out.append("")
    for w in timed:
        row = median[w]
        help_path = os.path.join(results, "help.%s.txt" % w)
        out.append("## %s\n" % w)
        if os.path.exists(help_path):
            with open(help_path) as f:
                lines = f.read().splitlines()
            if lines:
                text = lines[0].split(": ", 1)[-1]
                out.append(text[:1].upper() + text[1:] + ". Defaults:")
                out.append("")
                out.append("```")
                out.extend(l.strip() for l in lines[2:] if l.strip())
                out.append("```\n")
        if not row:
            out.append("No successful run.\n")
            continue
        best_t = min(v[0] for v in row.values())
        best_m = min(v[1] for v in row.values())
        out.append("| allocator | wall s (median) | time ratio | min-max s | peak RSS MB (median) | RSS ratio | "
                   "minor faults (median) | mmap / munmap calls | runs |")
        out.append("|---|---|---|---|---|---|---|---|---|")
        for a in ALLOCATORS:
            if a not in row:
                out.append("| %s | failed | | | | | | | 0 |" % a)
                continue
            t, m, n, bad, lo, hi = row[a]
            minor = faults.get(w, {}).get(a)
            calls = counts.get(w, {}).get(a)
            out.append("| %s | %.2f | %s | %.2f-%.2f | %.1f | %s | %s | %s | %d%s |" % (
                a, t, fmt_ratio(t, best_t), lo, hi, m / 1024.0, fmt_ratio(m, best_m),
                "%d" % minor if minor is not None else "", "%d / %d" % calls if calls else "", n,
                (" (+%d failed)" % bad) if bad else ""))
        out.append("")
    if micro:
        out.append("## micro_malloc (Google Benchmark, one thread)\n")
        out.append("Nanoseconds per allocation (median over the repetitions, each run with "
                   "`--benchmark_min_time=%s`), ratio to the best in brackets. `pair/N`: malloc(N) then "
                   "its free; `batch/N`: 64 mallocs of N bytes, then their 64 frees, counted per "
                   "allocation.\n" % info["micro_time"])
        out.append("| benchmark | " + " | ".join(ALLOCATORS) + " |")
        out.append("|---|" + "---|" * len(ALLOCATORS))
        for name in micro_names:
            row = micro.get(name, {})
            best = min(row.values())
            short = name.replace("malloc_free_", "")
            out.append("| %s | %s |" % (short, " | ".join(
                ("%.1f (%s)" % (row[a], fmt_ratio(row[a], best))) if a in row else "failed" for a in ALLOCATORS)))
        out.append("")
    with open(os.path.join(docs, "benchmarks.md"), "w") as f:
        f.write("\n".join(out))


if __name__ == "__main__":
    main()
