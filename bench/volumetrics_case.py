"""kavra.volumetrics of a results case whose restart holds the simulator's FIPOIL, FIPGAS and FIPWAT,
against one pass over the arrays it reads.

    python bench/volumetrics_case.py                     # 10^7 cells
    python bench/volumetrics_case.py --cells 1000000 --repeat 5
    git show main:python/kavra/_volumetrics.py > /tmp/before.py
    python bench/volumetrics_case.py --against /tmp/before.py    # another version in the same rounds

The case is bench/volumetrics_steps.py's (one report step, FIP arrays written): the table takes the
fluids from those arrays (``df.attrs["fluids"]``) instead of evaluating the PVT tables per cell.
Timed, the median of --repeat rounds (bench/common.py), after a first table that reads the deck:

* ``volumetrics``: ``kavra.volumetrics(case, step=0, zones=...)``, its arrays read from the files;
* ``read``: the arrays the table reads (FIPOIL, FIPGAS, FIPWAT, SWAT, SGAS, RS, RV of the step,
  PORV, NTG, FIPNUM of the INIT) read through ``case.cell_property``;
* ``one pass``: those arrays read, and NumPy's sum of each: the floor of any table of them;
* ``against``: with --against, the ``volumetrics`` of another version of python/kavra/_volumetrics.py
  (run in this kavra package), in the same rounds, its table checked equal to the bit.

Peak memory: tracemalloc's peak of one table (the arrays the table allocates, those read included).
On the shared 2-core machine (load average about 2), 10,240,000 cells, two threads, 7 rounds:
volumetrics 0.19 s, read 0.10 s, one pass 0.12 s (1.6x); a table's peak 0.51 GB for 0.41 GB of
arrays read.  --against the version before each cell's quantities were worked out in the engine's
pass (main at 10c4596), in the same rounds: 0.48-0.81 s (4.0-6.7x, by the load), the same table.
"""

import argparse
import pathlib
import statistics
import sys
import tempfile
import time
import tracemalloc

import numpy as np

import kavra
import kavra.results

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
from common import other_version, rounds  # noqa: E402
from volumetrics_steps import write_case  # noqa: E402

ARRAYS = ("FIPOIL", "FIPGAS", "FIPWAT", "SWAT", "SGAS", "RS", "RV")
STATIC = ("PORV", "NTG", "FIPNUM")


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--cells", type=int, default=10_000_000)
    parser.add_argument("--repeat", type=int, default=3)
    parser.add_argument("--against", type=pathlib.Path, help="a _volumetrics.py to time in the same rounds")
    args = parser.parse_args(argv)
    side = int(round((args.cells / 100) ** 0.5 / 10)) * 10
    n = side * side * 100
    zones = {"Upper": (1, 30), "Middle": (31, 70), "Lower": (71, 100)}
    with tempfile.TemporaryDirectory() as scratch:
        base = pathlib.Path(scratch) / "BIG"
        write_case(base, side, side, 100, 1, fip=True)
        case = kavra.results.read(base)
        started = time.perf_counter()
        table = kavra.volumetrics(case, step=0, zones=zones)  # reads the deck once
        first = time.perf_counter() - started

        def read():
            return [case.cell_property(a, 0) for a in ARRAYS] + [case.cell_property(a) for a in STATIC]

        calls = {"volumetrics": lambda: kavra.volumetrics(case, step=0, zones=zones), "read": read,
                 "one pass": lambda: [float(np.add.reduce(a, axis=None)) for a in read()]}
        if args.against:
            other = other_version(args.against, "_volumetrics_against")
            theirs = other.volumetrics(case, step=0, zones=zones)
            if not theirs.equals(table):
                print(f"  the table of {args.against} differs from this version's")
            calls["against"] = lambda: other.volumetrics(case, step=0, zones=zones)
        times = dict(zip(calls, rounds(list(calls.values()), args.repeat)))
        tracemalloc.start()
        kavra.volumetrics(case, step=0, zones=zones)
        peak = tracemalloc.get_traced_memory()[1]
        tracemalloc.stop()
        size = sum(a.nbytes for a in read())
    median = {name: statistics.median(t) for name, t in times.items()}
    print(f"{n} cells, {len(table)} rows, {kavra.get_num_threads()} threads, fluids: {table.attrs['fluids']} "
          f"(deck read and first table {first:.1f} s)")
    for name in calls:
        print(f"  {name:<12} {median[name]:8.3f} s  {median[name] / n * 1e9:7.1f} ns/cell")
    print(f"  volumetrics / one pass: {median['volumetrics'] / median['one pass']:.2f}; "
          f"peak memory of a table {peak / 1e9:.2f} GB (the arrays it reads: {size / 1e9:.2f} GB)")
    if "against" in median:
        print(f"  against / one pass: {median['against'] / median['one pass']:.2f}")
    return 0


if __name__ == "__main__":
    sys.exit(main())
