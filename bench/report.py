#!/usr/bin/env python3
"""Turns the JSON output of vesk_bench (--benchmark_format=json) into the
tables of docs/PERFORMANCE.md: times, the ratio of each factory and setup
to the baseline walk over the same list, and the growth from N to 10*N.

Usage: report.py results.json
"""
import json
import re
import sys


def load(path):
    with open(path) as f:
        data = json.load(f)
    times = {}
    for run in data["benchmarks"]:
        # With repetitions only the median counts; a single run has no aggregate.
        if run.get("run_type") == "aggregate" and run.get("aggregate_name") != "median":
            continue
        if run.get("error_occurred"):
            times[run["run_name"]] = None
            continue
        scale = {"ns": 1.0, "us": 1e3, "ms": 1e6, "s": 1e9}[run.get("time_unit", "ns")]
        times[run.get("run_name", run["name"])] = run["real_time"] * scale
    return data.get("context", {}), times


def fmt(ns):
    if ns is None:
        return "error"
    if ns >= 1e6:
        return f"{ns / 1e6:.2f} ms"
    if ns >= 1e3:
        return f"{ns / 1e3:.1f} µs"
    return f"{ns:.0f} ns"


def ratio(a, b):
    return "-" if a is None or b in (None, 0) else f"{a / b:.1f}"


def main():
    context, times = load(sys.argv[1])
    print(f"CPU: {context.get('num_cpus', '?')} x {context.get('mhz_per_cpu', '?')} MHz")
    print()

    print("### Factories (create + delete)\n")
    print("| class | empty list | every property set |")
    print("|---|---|---|")
    for cls in ("UDPv4", "UDPv4_WAN", "UDPv6", "SHMEM"):
        print(f"| {cls} | {fmt(times.get(f'Factory/{cls}/empty'))} "
              f"| {fmt(times.get(f'Factory/{cls}/every'))} |")
    print()

    print("### N unrelated properties\n")
    print("ratio: time / Baseline (one walk over the same list comparing every name); "
          "growth: time(N) / time(N/10).\n")
    print("| benchmark | N | time | baseline | ratio | growth | growth of the baseline |")
    print("|---|---|---|---|---|---|---|")
    shapes = {}
    for name in times:
        m = re.fullmatch(r"(Factory|Setup)/([^/]+)/(prefixed|unprefixed)/(\d+)", name)
        if m:
            shapes.setdefault((m.group(1), m.group(2), m.group(3)), []).append(int(m.group(4)))
    superlinear = []
    order = {"UDPv4": 0, "UDPv4_WAN": 1, "UDPv6": 2, "SHMEM": 3}
    for (kind, cls, mode), counts in sorted(
            shapes.items(), key=lambda s: (order.get(s[0][1], 9), s[0][2], s[0][0])):
        previous = None
        previous_base = None
        for n in sorted(counts):
            t = times.get(f"{kind}/{cls}/{mode}/{n}")
            base = times.get(f"Baseline/{mode}/{n}")
            growth = ratio(t, previous) if previous is not None else "-"
            base_growth = ratio(base, previous_base) if previous_base is not None else "-"
            if previous is not None and t is not None and n >= 1000 and t / previous > 12.5:
                superlinear.append(f"{kind}/{cls}/{mode}: x{t / previous:.1f} from {n // 10} to {n}")
            print(f"| {kind}/{cls}/{mode} | {n} | {fmt(t)} | {fmt(base)} | {ratio(t, base)} "
                  f"| {growth} | {base_growth} |")
            previous, previous_base = t, base
    print()

    print("### WAN port map (JSON)\n")
    print("| mappings | time | per mapping | growth |")
    print("|---|---|---|---|")
    previous = None
    for m in (1, 10, 100, 1000):
        t = times.get(f"CommPortsJson/{m}")
        growth = ratio(t, previous) if previous is not None else "-"
        per = fmt(t / m) if t is not None else "-"
        print(f"| {m} | {fmt(t)} | {per} | {growth} |")
        previous = t
    print()

    print("### Statistics\n")
    print("| operation | time |")
    print("|---|---|")
    for name, t in times.items():
        if name.startswith("Statistics/"):
            print(f"| {name.split('/', 1)[1]} | {fmt(t)} |")
    print()
    if superlinear:
        print("Faster than linear (growth above 12.5 for a tenfold N):")
        for line in superlinear:
            print(f"- {line}")
    else:
        print("Every factory and setup grows linearly with N (no growth above 12.5 for a tenfold N).")


if __name__ == "__main__":
    main()
