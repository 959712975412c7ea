"""Cell volumes of a corner-point grid: kavra's engine against opm.io's EGrid.cellvolumes().

    python bench/cell_volumes.py [--shape NI NJ NK] [--rounds R] [--origin X Y] [--dir DIR]

Generates a grid of 120 x 100 x 90 cells (1.08 * 10^6) whose pillars lean
every way (never crossing) and whose every cell has corner depths of its own (a fault on every
face, non-planar faces everywhere), writes it as an EGRID with resfo (COORD
and ZCORN in float32, as an EGRID holds them), and computes every cell's
volume from the same numbers: opm.io.ecl.EGrid(path).cellvolumes() (the file
opened once, before the rounds), and kavra._engine.cell_geometry (what
Deck.cell_volumes runs) on one thread and on all.  The variants take turns in
each round; printed are the median and the fastest time of each, the ratios
of the medians (of the fastest), and the largest relative difference between opm's volumes and
kavra's.  --origin puts the grid at map coordinates (metres): far from the
origin opm's sum of products loses digits that kavra's differences keep.
"""

import argparse
import os
import pathlib
import statistics
import tempfile
import time

import numpy as np
import resfo
from opm.io.ecl import EGrid

from kavra import _engine

ALL = len(os.sched_getaffinity(0))


def generate(nI, nJ, nK, origin, seed=11):
    """COORD and ZCORN of the grid, as float32 numbers (then float64, the same numbers)."""
    rng = np.random.default_rng(seed)
    i, j = np.meshgrid(np.arange(nI + 1), np.arange(nJ + 1))
    top = np.stack([origin[0] + 50.0 * i, origin[1] + 50.0 * j, np.full(i.shape, 1500.0)], -1)
    bottom = top + [0.0, 0.0, 1000.0] + rng.normal(0.0, 5.0, top.shape) * [1.0, 1.0, 0.0]
    coord = np.concatenate([top, bottom], -1).astype(np.float32)
    layer = 2000.0 + 4.0 * (np.arange(2 * nK).reshape(nK, 2) + 1) // 2
    zcorn = layer[:, :, None, None, None, None] + rng.uniform(-0.8, 0.8, (nK, 2, nJ, 2, nI, 2))
    return coord.ravel(), zcorn.astype(np.float32).ravel()


def write_egrid(path, nI, nJ, nK, coord, zcorn):
    resfo.write(path, [
        ("FILEHEAD", np.array([3, 2007, 0, 0, 0, 0, 1] + [0] * 93, dtype=np.int32)),
        ("GRIDUNIT", np.array([b"METRES  ", b"        "], dtype="|S8")),
        ("GRIDHEAD", np.array([1, nI, nJ, nK] + [0] * 96, dtype=np.int32)),
        ("COORD   ", coord), ("ZCORN   ", zcorn),
        ("ACTNUM  ", np.ones(nI * nJ * nK, dtype=np.int32)),
        ("ENDGRID ", np.array([], dtype=np.int32)),
    ])


def main():
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--shape", type=int, nargs=3, default=[120, 100, 90])
    parser.add_argument("--rounds", type=int, default=5)
    parser.add_argument("--origin", type=float, nargs=2, default=[0.0, 0.0])
    parser.add_argument("--dir", type=pathlib.Path, default=None)
    args = parser.parse_args()
    nI, nJ, nK = args.shape
    coord32, zcorn32 = generate(nI, nJ, nK, args.origin)
    coord, zcorn = coord32.astype(np.float64), zcorn32.astype(np.float64)
    with tempfile.TemporaryDirectory(dir=args.dir) as directory:
        path = str(pathlib.Path(directory) / "BENCH.EGRID")
        write_egrid(path, nI, nJ, nK, coord32, zcorn32)
        n = nI * nJ * nK
        grid = EGrid(path)

        def engine(threads):
            volumes = np.empty(n)
            _engine.cell_geometry(nI, nJ, nK, coord, zcorn, (volumes, None, None, None, None), threads)
            return volumes

        variants = {"opm.io EGrid.cellvolumes": lambda: np.asarray(grid.cellvolumes()),
                    "kavra, 1 thread": lambda: engine(1), f"kavra, {ALL} threads": lambda: engine(ALL)}
        times = {name: [] for name in variants}
        results = {}
        for _ in range(args.rounds):
            for name, run in variants.items():
                start = time.perf_counter()
                results[name] = run()
                times[name].append(time.perf_counter() - start)
    theirs = results["opm.io EGrid.cellvolumes"]
    print(f"{n} cells ({nI} x {nJ} x {nK}) at ({args.origin[0]:g}, {args.origin[1]:g}), {args.rounds} rounds; "
          f"seconds: median (fastest)")
    base, fastest = statistics.median(times["opm.io EGrid.cellvolumes"]), min(times["opm.io EGrid.cellvolumes"])
    for name, spent in times.items():
        median = statistics.median(spent)
        print(f"  {name:28s} {median:8.4f} ({min(spent):.4f})   opm / this: {base / median:6.1f}x "
              f"({fastest / min(spent):.1f}x)")
    for name in variants:
        if name.startswith("kavra"):
            difference = np.max(np.abs(results[name] - theirs) / theirs)
            print(f"  {name}: largest relative difference from opm {difference:.2e}; "
                  f"same bits as 1 thread: {np.array_equal(results[name], results['kavra, 1 thread'])}")


if __name__ == "__main__":
    main()
