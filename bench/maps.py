"""Column maps and region totals on one thread and on all, against a parallel copy of the input.

    python bench/maps.py                   # 10^8 cells (about 3 GB of memory, two minutes)
    python bench/maps.py --cells 10000000 --repeat 11

A map reads every cell once and writes one value per column; the floor it is
set against is a parallel copy of its input into a new array (numba, all
threads: bench/numba_kernels.py), which reads as much and writes it all back.
Target: the map on all threads within 1.3x of that copy.  Each row checks
first that one thread and all give the same bits.  Rounds interleave the
calls as in bench/threads.py (the median and the fastest of --repeat rounds);
"used" is CPU time over wall time on all threads.  `make bench` runs it.
"""

import argparse
import json
import os
import pathlib
import statistics
import sys
import time

os.environ.setdefault("OMP_WAIT_POLICY", "PASSIVE")

import numpy as np  # noqa: E402

import kavra  # noqa: E402

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE))
import numba_kernels as nk  # noqa: E402
from threads import ALL, COPY_TARGET, rounds, same_bits  # noqa: E402


def grid_of(cells):
    """A grid of about `cells` cells: 100 layers of square maps."""
    side = int(round((cells / 100) ** 0.5))
    return side, side, 100


def cases(cells):
    rng = np.random.default_rng(24)
    ni, nj, nk_ = grid = grid_of(cells)
    values = rng.normal(100.0, 30.0, (nk_, nj, ni))
    weights = rng.uniform(0.0, 5.0, (nk_, nj, ni))
    active = rng.random((nk_, nj, ni)) > 0.1
    ijk = np.ascontiguousarray(values.transpose(2, 1, 0))
    regions = (1 + np.arange(values.size) % 10).astype(np.int32).reshape(values.shape)
    calls = {
        "column_map sum": (values, lambda t: kavra.column_map(values, grid, "sum", threads=t)),
        "column_map mean": (values, lambda t: kavra.column_map(values, grid, "mean", threads=t)),
        "column_map max": (values, lambda t: kavra.column_map(values, grid, "max", threads=t)),
        "column_map min": (values, lambda t: kavra.column_map(values, grid, "min", threads=t)),
        "column_map sum ijk": (ijk, lambda t: kavra.column_map(ijk, grid, "sum", layout="ijk", threads=t)),
        "column_map mean weighted": (values, lambda t: kavra.column_map(values, grid, "mean", weights=weights,
                                                                        threads=t)),
        "column_map mean active": (values, lambda t: kavra.column_map(values, grid, "mean", active=active,
                                                                      threads=t)),
        "region_totals 10 regions": (values, lambda t: kavra.region_totals(values, regions, threads=t)),
    }
    return grid, calls


def measure(label, values, call, repeat):
    one, everyone = call(1), call(ALL)
    if not same_bits(np.ma.getdata(one), np.ma.getdata(everyone)):
        raise AssertionError(f"{label}: threads=1 and threads={ALL} differ")
    flat = values.reshape(-1)
    functions = [lambda: call(1), lambda: call(ALL), lambda: nk.copy_into(flat, np.empty_like(flat))]
    walls, cpus = rounds(functions, repeat)
    row = {"case": label, "cells": values.size, "cores_all": sum(cpus[1]) / sum(walls[1])}
    for stat, reduce in (("median", statistics.median), ("best", min)):
        one_ns, all_ns, copy_ns = (1e9 * reduce(w) / values.size for w in walls)
        row[stat] = {"one": one_ns, "all": all_ns, "copy": copy_ns, "x_copy": all_ns / copy_ns}
    return row


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--cells", type=int, default=10**8)
    parser.add_argument("--repeat", type=int, default=5)
    parser.add_argument("--json", type=pathlib.Path, help="write the rows here")
    args = parser.parse_args()
    grid, calls = cases(args.cells)
    print(f"grid {grid[0]} x {grid[1]} x {grid[2]} = {np.prod(grid)} cells, float64; {ALL} threads; "
          f"ns per cell (median / fastest of {args.repeat} rounds); target x copy <= {COPY_TARGET}", flush=True)
    print(f"{'case':<28}{'1 thread':>16}{f'{ALL} threads':>16}{'used':>6}{'copy':>16}{'x copy':>16}", flush=True)
    rows = []
    for label, (values, call) in calls.items():
        start = time.perf_counter()
        row = measure(label, values, call, args.repeat)
        rows.append(row)
        m, b = row["median"], row["best"]
        pair = lambda key, form: f"{format(m[key], form)} / {format(b[key], form)}"  # noqa: E731
        print(f"{label:<28}{pair('one', '.3f'):>16}{pair('all', '.3f'):>16}{row['cores_all']:>6.2f}"
              f"{pair('copy', '.3f'):>16}{pair('x_copy', '.2f'):>16}   ({time.perf_counter() - start:.0f} s)",
              flush=True)
    if args.json:
        args.json.write_text(json.dumps(rows, indent=1))


if __name__ == "__main__":
    main()
