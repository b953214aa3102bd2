#!/usr/bin/env python3
"""Prints one row a figure: the library's median time over its peer's, then memory.

A pair is two benchmarks whose names differ in one word: `BM_<Work>_Kab...` and `BM_<Work>_Peer...`, the rest alike.
The peer's counter `target` is the ratio to reach. Ratios are of elapsed time; `cpu` is the same ratio of processor
time, which other programs on the machine disturb less, and a figure reached only there is marked so. Counters
`bytes_per_entry` (with `bytes_target`) and `peak_MiB` make the second table. Several reports may be given; later ones
replace rows of earlier ones.
"""
import json
import sys


def medians(paths):
    rows = {}
    for path in paths:
        with open(path, encoding="utf-8") as file:
            runs = json.load(file)["benchmarks"]
        for run in runs:
            alone = run["run_type"] == "iteration" and run.get("repetitions", 1) <= 1
            if alone or run.get("aggregate_name") == "median":
                rows[run["run_name"]] = run
    return rows


def verdict(ratio, cpu, target):
    if target is None:
        return ""
    if ratio <= target:
        return "pass"
    return "MISS (cpu: pass)" if cpu <= target else "MISS"


def print_ratios(rows):
    print(f"{'figure':<56} {'kab':>12} {'peer':>12} {'ratio':>7} {'cpu':>7} {'reach':>6}")
    for name, kab in sorted(rows.items()):
        peer = rows.get(name.replace("_Kab", "_Peer"))
        if "_Kab" not in name or peer is None:
            continue
        ratio = kab["real_time"] / peer["real_time"]
        cpu = kab["cpu_time"] / peer["cpu_time"] if peer["cpu_time"] else ratio
        target = peer.get("target", kab.get("target"))
        unit = kab["time_unit"]
        reach = "" if target is None else f"{target:.2f}"
        print(f"{name.replace('_Kab', ''):<56} {kab['real_time']:>9.1f} {unit} {peer['real_time']:>9.1f} {unit} "
              f"{ratio:>7.3f} {cpu:>7.3f} {reach:>6} {verdict(ratio, cpu, target)}")


def print_memory(rows):
    print(f"\n{'memory':<56} {'value':>12} {'unit':<16} {'reach':>6}")
    for name, run in sorted(rows.items()):
        if "bytes_per_entry" in run:
            target = run.get("bytes_target")
            reach = "" if target is None else f"{target:.0f}"
            word = "" if target is None else ("pass" if run["bytes_per_entry"] <= target else "MISS")
            print(f"{name:<56} {run['bytes_per_entry']:>12.1f} {'bytes an entry':<16} {reach:>6} {word}")
        if "peak_MiB" in run:
            print(f"{name:<56} {run['peak_MiB']:>12.1f} {'MiB at most':<16} {'':>6} "
                  f"({run['real_time']:.0f} {run['time_unit']}, processor {run['cpu_time']:.0f})")


def main():
    rows = medians(sys.argv[1:])
    print_ratios(rows)
    print_memory(rows)


if __name__ == "__main__":
    main()
