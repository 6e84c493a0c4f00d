#!/usr/bin/env python3
"""Joins the results of tavrik-bench and compares them with the recorded ratios.

usage: bench/table.py RESULTS RATIOS OUTPUT

RESULTS is the file of --benchmark_out, RATIOS bench/ratios.json. Prints the table and writes it to
OUTPUT as JSON. A ratio is our median time divided by the peer's; for a piece that grows it is the
exponent of time over size. Exit status 1 when a ratio is worse than the recorded one by more than the
slack of RATIOS, or a recorded piece was measured without its peer.
"""
import json
import math
import statistics
import sys

OURS = "tavrik"


def medians(results):
    """{piece: {side: {size: time}}}; the memory of processes is a piece of its own."""
    samples = {}
    for run in results["benchmarks"]:
        if run["run_type"] != "iteration" or run.get("error_occurred"):
            continue
        piece, side, *rest = run["run_name"].split("/")
        size = int(rest[0]) if rest and rest[0].isdigit() else 0
        samples.setdefault((piece, side, size), []).append(run["real_time"])
        if "memory" in run and run["memory"]:
            samples.setdefault((f"{piece}, memory", side, size), []).append(run["memory"])
    table = {}
    for (piece, side, size), values in samples.items():
        table.setdefault(piece, {}).setdefault(side, {})[size] = statistics.median(values)
    return table


def exponent(times):
    """The slope of the line through log time over log size."""
    points = [(math.log(size), math.log(time)) for size, time in times.items()]
    if len(points) < 2:
        return None
    return statistics.linear_regression(*zip(*points)).slope


def ratio(piece, peer, sides):
    ours = sides.get(OURS, {})
    if piece.startswith("growth: "):
        return exponent(ours)
    theirs = sides.get(peer, {})
    return ours[0] / theirs[0] if 0 in ours and 0 in theirs else None


def shown(value):
    if value is None:
        return "-"
    return f"{value:.3f}" if 0.95 < value < 1.05 else f"{value:.2f}"


def main():
    if len(sys.argv) != 4:
        print(__doc__.strip(), file=sys.stderr)
        return 2
    with open(sys.argv[1]) as file:
        measured = medians(json.load(file))
    with open(sys.argv[2]) as file:
        recorded = json.load(file)
    rows, worse = [], []
    for row in recorded["pieces"]:
        piece, peer = row["piece"], row.get("peer", "-")
        if piece not in measured:
            continue
        sides = measured[piece]
        now = ratio(piece, peer, sides)
        limit = row["recorded"] * (1 + row.get("slack", recorded["slack"]))
        if now is None or now > limit:
            worse.append(f"{piece} against {peer}: {shown(now)}, recorded {shown(row['recorded'])}")
        ours = sides.get(OURS, {})
        rows.append({"piece": piece, "peer": peer, "ours_ns": ours.get(max(ours, default=0)),
                     "ratio": now, "recorded": row["recorded"], "reach": row.get("reach")})
    print(f"{'piece':<58} {'peer':<13} {'ours':>12} {'ratio':>7} {'reach':>7}")
    for row in rows:
        unit = "KB" if row["piece"].endswith("memory") else "ns"
        ours = f"{row['ours_ns']:,.0f} {unit}" if row["ours_ns"] else "-"
        print(f"{row['piece']:<58} {row['peer']:<13} {ours:>12} {shown(row['ratio']):>7} "
              f"{shown(row['reach']):>7}")
    with open(sys.argv[3], "w") as file:
        json.dump(rows, file, indent=1)
    for line in worse:
        print(f"worse: {line}", file=sys.stderr)
    return 1 if worse else 0


if __name__ == "__main__":
    sys.exit(main())
