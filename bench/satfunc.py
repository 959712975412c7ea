"""kavra.satfunc at 10^7 cells: one thread and two, against a numba kernel of the same steps.

    python bench/satfunc.py                    # 10^7 cells, 5 rounds
    python bench/satfunc.py --cells 1000000 --repeat 9

The tables are those of tests/data/SATFUNC_SWOF.INC (SWOF and SGOF, two SATNUM regions, eight
and six rows), region numbers 1 and 2 in blocks with one block in 50 of region 0; Sw uniform
in 0.1-1, Sg in 0-0.9 (past the tables on both sides).  "scaled": ENDSCALE two-point with each
cell's SWL, SWCR, SWU, SGL, SGCR, SGU, SOWCR, SOGCR drawn around its table's.

A round runs kavra on one thread, kavra on two, and the numba kernel (bench/satfunc_kernels.py,
``parallel=True``, no fastmath) on one thread and on two, in turn; each call makes its result
arrays, as kavra's do.  The table gives the median of the rounds in ns per cell.  Before
timing, kavra on one thread and on two, and the numba kernel, are checked to give the same bits.
"""

import argparse
import os
import pathlib
import statistics
import sys
import time

os.environ.setdefault("OMP_WAIT_POLICY", "PASSIVE")

import numba  # noqa: E402
import numpy as np  # noqa: E402

from kavra import satfunc  # noqa: E402

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE))
import satfunc_kernels as nk  # noqa: E402


def tables():
    """SWOF and SGOF of each region, from the test deck's include file."""
    found, name, rows = {"SWOF": [], "SGOF": []}, None, []
    for line in (HERE.parent / "tests" / "data" / "SATFUNC_SWOF.INC").read_text().splitlines():
        words = line.split("--")[0].split()
        if words and words[0] in found:
            name = words[0]
            continue
        if name and words:
            rows.append([float(w) for w in words if w != "/"])
            if words[-1] == "/":
                found[name].append(np.array(rows))
                rows = []
    return found


def inputs(n, rng, sf):
    satnum = (1 + (np.arange(n) // 4096) % 2).astype(np.int32)
    satnum[(np.arange(n) // 4096) % 50 == 7] = 0
    ends = sf.table_end_points
    cell = np.empty((8, n))
    for i, name in enumerate(satfunc.END_POINTS[:8]):
        table = ends[name][np.maximum(satnum, 1) - 1]
        cell[i] = table + rng.uniform(-0.02, 0.02, n) * (table > 0.02)
    return satnum, rng.uniform(0.1, 1.0, n), rng.uniform(0.0, 0.9, n), cell


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--cells", type=float, default=1e7)
    parser.add_argument("--repeat", type=int, default=5)
    args = parser.parse_args()
    n = int(args.cells)
    rng = np.random.default_rng(7)
    t = tables()
    plain = satfunc.from_tables(swof=t["SWOF"], sgof=t["SGOF"])
    satnum, sw, sg, cell = inputs(n, rng, plain)
    plain = satfunc.from_tables(swof=t["SWOF"], sgof=t["SGOF"], satnum=satnum)
    scaled = satfunc.from_tables(swof=t["SWOF"], sgof=t["SGOF"], satnum=satnum,
                                 end_points=dict(zip(satfunc.END_POINTS[:8], cell)))
    x, y, offsets, ends = nk.flat(plain)

    def numba_relperm(kernel, *extra):
        def run():
            out = [np.empty(n) for _ in range(3)]
            kernel(satnum, sw, sg, x, y, offsets, ends, *extra, out[0], out[1], out[2])
            return out
        return run

    def numba_pc(kernel, *extra):
        def run():
            out = [np.empty(n) for _ in range(2)]
            kernel(satnum, sw, sg, x, y, offsets, *extra, out[0], out[1])
            return out
        return run

    cases = {
        "relperm": (lambda th: plain.relperm(sw, sg, threads=th), numba_relperm(nk.relperm, cell, False)),
        "relperm, scaled": (lambda th: scaled.relperm(sw, sg, threads=th), numba_relperm(nk.relperm, cell, True)),
        "capillary_pressure": (lambda th: plain.capillary_pressure(sw, sg, threads=th), numba_pc(nk.capillary_pressure)),
        "capillary_pressure, scaled": (lambda th: scaled.capillary_pressure(sw, sg, threads=th),
                                       numba_pc(nk.capillary_pressure_scaled, ends, cell)),
    }
    print(f"{n:.0e} cells, {args.repeat} rounds, ns per cell (median); numba {numba.__version__}")
    print(f"{'':28} {'kavra 1':>9} {'kavra 2':>9} {'numba 1':>9} {'numba 2':>9}  same bits")
    for label, (ours, theirs) in cases.items():
        one, two = ours(1), ours(2)
        numba.set_num_threads(2)
        reference = theirs()
        same = all(np.array_equal(a, b, equal_nan=True) and np.array_equal(a, c, equal_nan=True)
                   for a, b, c in zip(one, two, reference))
        times = {k: [] for k in ("k1", "k2", "n1", "n2")}
        for _ in range(args.repeat):
            for key, run in (("k1", lambda: ours(1)), ("k2", lambda: ours(2))):
                start = time.perf_counter()
                run()
                times[key].append(time.perf_counter() - start)
            for key, threads in (("n1", 1), ("n2", 2)):
                numba.set_num_threads(threads)
                start = time.perf_counter()
                theirs()
                times[key].append(time.perf_counter() - start)
        ns = {k: statistics.median(v) / n * 1e9 for k, v in times.items()}
        print(f"{label:28} {ns['k1']:9.2f} {ns['k2']:9.2f} {ns['n1']:9.2f} {ns['n2']:9.2f}  {'yes' if same else 'NO'}")


if __name__ == "__main__":
    main()
