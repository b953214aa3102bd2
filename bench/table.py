#!/usr/bin/env python3
"""Prints one row a figure: the library's median time over its peer's.

A pair is two benchmarks whose names differ in one word: `BM_<Work>_Kab...` and `BM_<Work>_Peer...`, the rest alike.
The peer's counter `target` is the ratio to reach.
"""
import json
import sys


def medians(report):
    rows = {}
    for run in report["benchmarks"]:
        if run.get("aggregate_name") == "median":
            rows[run["run_name"]] = run
    return rows


def main():
    with open(sys.argv[1], encoding="utf-8") as file:
        report = json.load(file)
    rows = medians(report)
    print(f"{'figure':<56} {'kab':>12} {'peer':>12} {'ratio':>7} {'reach':>6}")
    for name, kab in sorted(rows.items()):
        if "_Kab" not in name:
            continue
        peer = rows.get(name.replace("_Kab", "_Peer"))
        if peer is None:
            continue
        ratio = kab["real_time"] / peer["real_time"]
        target = peer.get("target", kab.get("target"))
        verdict = "" if target is None else ("pass" if ratio <= target else "MISS")
        unit = kab["time_unit"]
        reach = "" if target is None else f"{target:.2f}"
        print(f"{name.replace('_Kab', ''):<56} {kab['real_time']:>9.1f} {unit} {peer['real_time']:>9.1f} {unit} "
              f"{ratio:>7.3f} {reach:>6} {verdict}")


if __name__ == "__main__":
    main()
