"""kavra.volumetrics on a generated deck, against one pass over the arrays it reads.

    python bench/volumetrics.py                     # 10^7 cells (about 6 GB of memory at the peak)
    python bench/volumetrics.py --cells 1000000 --repeat 5
    git show main:python/kavra/_volumetrics.py > /tmp/before.py
    python bench/volumetrics.py --against /tmp/before.py    # another version in the same rounds

The deck is SPE1's tables (PROPS of python/kavra/decks/SPE1CASE1.DATA) on a
block-centred grid of about --cells cells (100 layers), ten FIPNUM regions in
blocks of columns, three zones; the state is made up (a gas cap over an oil
zone over water, random pressures).  Timed, after one call that lets the deck
work out its geometry and pore volume (which it keeps):

* ``volumetrics``: the table, zones x regions x fluids;
* ``in_place``: kavra.blackoil.in_place of the same state alone, the part of
  the table that evaluates the tables per cell;
* ``one pass``: NumPy's sum of each array the table reads (pressure, sw, sg,
  rs, rv, pore volume, cell volume, NTG, FIPNUM), the floor of any
  calculation over them;
* ``against``: with --against, the ``volumetrics`` of another version of
  python/kavra/_volumetrics.py (run in this kavra package), its table checked equal.

Each figure is the median of --repeat rounds that run every call in turn (bench/common.py), printed
(and written to --out as JSON).  On the shared 2-core machine, at 10,240,000 cells (two threads,
load average about 2), 5 rounds: volumetrics 0.91 s (89 ns a cell), in_place 0.38 s, one pass
0.046 s (20x); the version before the engine worked out each cell's quantities (main at 10c4596)
1.76 s in the same rounds, the same table; a table's peak of memory 1.16 GB for 0.7 GB of input
arrays.
"""

import argparse
import json
import pathlib
import re
import statistics
import sys
import time
import tracemalloc

import numpy as np

import kavra
import kavra.deck
from kavra import blackoil
from kavra import volumetrics

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
from common import other_version, rounds  # noqa: E402


def deck_text(ni, nj, nk):
    spe1 = kavra.deck.example_path("SPE1CASE1").read_text()
    props = re.search(r"^PROPS\b.*?(?=^SOLUTION\b)", spe1, re.S | re.M).group(0)
    n = ni * nj * nk
    regions = " ".join(f"{ni * nj // 10}*{1 + (c // (ni * nj // 10)) % 10}" for c in range(0, ni * nj, ni * nj // 10))
    return f"""RUNSPEC
DIMENS
 {ni} {nj} {nk} /
OIL
WATER
GAS
DISGAS
FIELD
TABDIMS
 1 1 /
REGDIMS
 10 /
GRID
DX
 {n}*100 /
DY
 {n}*100 /
DZ
 {n}*2 /
TOPS
 {ni * nj}*8300 /
PORO
 {n}*0.25 /
NTG
 {n}*0.8 /
{props}
REGIONS
FIPNUM
 {" ".join([regions] * nk)} /
"""


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__.split("\n")[0])
    parser.add_argument("--cells", type=int, default=10_000_000)
    parser.add_argument("--repeat", type=int, default=3)
    parser.add_argument("--out", type=pathlib.Path, default=None, help="write the figures to this JSON file too")
    parser.add_argument("--against", type=pathlib.Path, help="a _volumetrics.py to time in the same rounds")
    args = parser.parse_args(argv)
    side = int(round((args.cells / 100) ** 0.5 / 10)) * 10
    ni, nj, nk = side, side, 100
    n = ni * nj * nk
    started = time.perf_counter()
    deck = kavra.deck.read(deck_text(ni, nj, nk))
    rng = np.random.default_rng(31)
    depth = deck.cell_depths()
    state = {"pressure": rng.uniform(4500.0, 5000.0, n), "sw": np.where(depth > 8450.0, 1.0, 0.12),
             "sg": np.where(depth < 8330.0, 0.88, 0.0), "rs": np.full(n, 1.27), "rv": np.zeros(n)}
    zones = {"Upper": (1, 30), "Middle": (31, 70), "Lower": (71, 100)}
    table = volumetrics(deck, state=state, zones=zones)  # the deck works out its geometry once
    prepared = time.perf_counter() - started
    arrays = [state[name] for name in ("pressure", "sw", "sg", "rs", "rv")]
    arrays += [deck.pore_volume(), deck.cell_volumes(), deck.cell_property("NTG"), deck.cell_property("FIPNUM")]
    pvtnum = deck.cell_property("PVTNUM")
    porv = arrays[5]

    calls = {
        "volumetrics": lambda: volumetrics(deck, state=state, zones=zones),
        "in_place": lambda: blackoil.in_place(deck, pvtnum, porv, state["pressure"], state["sw"], state["sg"],
                                              state["rs"], state["rv"]),
        "one pass": lambda: [float(np.add.reduce(a, axis=None)) for a in arrays],
    }
    if args.against:
        other = other_version(args.against, "_volumetrics_against")
        if not other.volumetrics(deck, state=state, zones=zones).equals(table):
            print(f"  the table of {args.against} differs from this version's")
        calls["against"] = lambda: other.volumetrics(deck, state=state, zones=zones)
    times = dict(zip(calls, rounds(list(calls.values()), args.repeat)))
    tracemalloc.start()
    volumetrics(deck, state=state, zones=zones)
    peak = tracemalloc.get_traced_memory()[1]
    tracemalloc.stop()
    median = {name: statistics.median(t) for name, t in times.items()}
    result = {"cells": n, "grid": [ni, nj, nk], "rows": len(table), "threads": kavra.get_num_threads(),
              "seconds": median, "ns_per_cell": {k: v / n * 1e9 for k, v in median.items()},
              "volumetrics_over_one_pass": median["volumetrics"] / median["one pass"],
              "volumetrics_over_in_place": median["volumetrics"] / median["in_place"],
              "peak_memory_of_a_table_gb": peak / 1e9, "input_arrays_gb": sum(a.nbytes for a in arrays) / 1e9,
              "deck_read_and_first_table_s": prepared}
    print(f"{n} cells ({ni} x {nj} x {nk}), {len(table)} rows, {kavra.get_num_threads()} threads "
          f"(deck read and first table: {prepared:.1f} s)")
    for name in calls:
        print(f"  {name:<12} {median[name]:8.3f} s  {median[name] / n * 1e9:7.1f} ns/cell")
    if "against" in median:
        result["against_over_one_pass"] = median["against"] / median["one pass"]
    print(f"  volumetrics / one pass: {result['volumetrics_over_one_pass']:.1f}; "
          f"volumetrics / in_place: {result['volumetrics_over_in_place']:.2f}; "
          f"peak memory of a table {result['peak_memory_of_a_table_gb']:.2f} GB "
          f"(its input arrays {result['input_arrays_gb']:.2f} GB)")
    if "against" in median:
        print(f"  against / one pass: {result['against_over_one_pass']:.1f}")
    if args.out is not None:
        args.out.write_text(json.dumps(result, indent=1) + "\n")
    return 0


if __name__ == "__main__":
    sys.exit(main())
