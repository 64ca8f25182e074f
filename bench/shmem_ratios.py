#!/usr/bin/env python3
"""Prints bench_shmem's medians and the shared-memory ratios from its Google
Benchmark JSON output: throughput as shared-memory messages per second over
the UDPv4 plugins' and over raw UDP (above 1: shared memory is faster);
round trip as shared-memory time over the others' (below 1: faster). The
CPU columns are the sending thread's CPU time per message (Google
Benchmark's cpu_time), which a loaded machine disturbs less than real time:
plugins' over shared memory's (above 1: shared memory costs less)."""
import json
import sys

rows = {}
for row in json.load(open(sys.argv[1]))["benchmarks"]:
    if row.get("aggregate_name", "median") == "median":
        rows[row.get("run_name", row["name"]).replace("/real_time", "")] = row

print("| Benchmark | shared memory | UDPv4 plugins | raw UDP | vs plugins | vs raw "
      "| sender CPU vs plugins | vs raw |")
print("|---|---|---|---|---|---|---|---|")
for name, shm in rows.items():
    if "/Shmem" not in name:
        continue
    plugin = rows.get(name.replace("/Shmem", "/UdpPlugin"))
    raw = rows.get(name.replace("/Shmem", "/Udp"))
    if plugin is None or raw is None:
        continue
    if "items_per_second" in shm:
        s, p, r = (x["items_per_second"] for x in (shm, plugin, raw))
        cs, cp, cr = (x["cpu_time"] for x in (shm, plugin, raw))
        print(f"| {name.replace('/Shmem', '')} | {s / 1e3:.0f} k/s | {p / 1e3:.0f} k/s "
              f"| {r / 1e3:.0f} k/s | {s / p:.2f}x | {s / r:.2f}x | {cp / cs:.2f}x | {cr / cs:.2f}x |")
    else:
        s, p, r = (x["real_time"] for x in (shm, plugin, raw))
        print(f"| {name.replace('/Shmem', '')} round trip | {s / 1e3:.1f} us | {p / 1e3:.1f} us "
              f"| {r / 1e3:.1f} us | {s / p:.2f}x | {s / r:.2f}x | | |")
