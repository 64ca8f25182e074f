#!/usr/bin/env python3
"""Prints the plugin / raw ratios of bench_udp's Google Benchmark JSON output.

Throughput ratio: plugin items per second over raw items per second (above
1: the plugin is faster). Latency ratio: plugin round-trip time over raw."""
import json
import sys


def medians(path):
    rows = {}
    for row in json.load(open(path))["benchmarks"]:
        if row.get("aggregate_name", "median") != "median":
            continue
        name = row.get("run_name", row["name"])
        rows[name] = row
    return rows


rows = medians(sys.argv[1])
print("| Benchmark | plugin | raw | ratio |")
print("|---|---|---|---|")
for name, plugin in rows.items():
    if "/plugin" not in name:
        continue
    raw = rows.get(name.replace("/plugin", "/raw"))
    if raw is None:
        continue
    if "items_per_second" in plugin:
        p, r = plugin["items_per_second"], raw["items_per_second"]
        print(f"| {name.replace('/plugin', '')} | {p / 1e3:.0f} k/s | {r / 1e3:.0f} k/s | {p / r:.2f}x |")
    else:
        p, r = plugin["real_time"], raw["real_time"]
        print(f"| {name.replace('/plugin', '')} | {p / 1e3:.1f} us | {r / 1e3:.1f} us | {p / r:.2f}x |")
