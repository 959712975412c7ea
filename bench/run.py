"""Benchmarks: each native calculation against the same result in NumPy.

    python bench/run.py                  # 10^6 and 10^7 cells
    python bench/run.py --large          # also 10^8 cells (up to 12 GB of memory; most of an hour)
    python bench/run.py --only OneOverBo --sizes 1e6

Before timing, every case checks that the native result equals the NumPy
result bit for bit.  Each timing is the median of --repeat rounds, and each
round runs the native call, its NumPy version and the floors in turn.
Reported: ns per cell (per element for selections), the speed-up over NumPy,
and the ratio to two floors: np.copyto of as many bytes as the result holds
into an array that exists ("x copy"), and the same copy into a new array
("x new"), which is what any call that returns a new array pays at least.
At the end, the growth of the native cost per cell from the smallest to the
largest size, and what the NumPy-first functions cost over the native calls
(bench/api_overhead.py, 10^6 cells).
"""

import argparse
import json
import os
import pathlib
import platform
import statistics
import sys

# The benchmarks use no BLAS; its idle threads must not compete for the cores.
os.environ.setdefault("OPENBLAS_NUM_THREADS", "1")

import numpy as np  # noqa: E402

import kavra  # noqa: E402
from kavra import tessel  # noqa: E402

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent.parent / "tests"))
import numpy_versions as npv  # noqa: E402
from catalogue import PVT, rock_list  # noqa: E402  (how the tests call each calculation)
from common import (block_regions, dead_tables, gas_tables, grid_for, oil_tables, rock_records,  # noqa: E402
                    rounds, water_records)

HERE = pathlib.Path(__file__).resolve().parent
RNG = np.random.default_rng(2024)


# --- cases --------------------------------------------------------------------

VARIANT_STORAGE = {
    "double": (tessel.IntGridFunction, tessel.DoubleGridFunction, np.float64),
    "float": (tessel.IntGridFunction, tessel.FloatGridFunction, np.float32),
    # regions held as doubles send any calculation down the per-element path
    "generic": (tessel.DoubleGridFunction, tessel.DoubleGridFunction, np.float64),
}


def pvt_case(name, tables, inputs, variants):
    """inputs: function(n) -> list of double arrays."""
    calc = PVT["Calc" + name]
    native = calc.make(tables)

    def build(grid, variant):
        n = grid.number_of_cells()
        region_cls, value_cls, dtype = VARIANT_STORAGE[variant]
        regions = block_regions(grid)
        values = [v.astype(dtype).astype(np.float64) for v in inputs(n)]
        gfs = [region_cls(regions)] + [value_cls(v) for v in values] + [value_cls(n)]
        run_native = lambda: calc.call(native, *gfs)  # noqa: E731
        expected = np.empty(n)
        run_numpy = lambda: npv.over_regions(calc.reference, tables, regions, *values, out=expected)  # noqa: E731

        def check():
            run_native()
            run_numpy()
            want = expected.astype(dtype)
            if not np.array_equal(gfs[-1].values, want, equal_nan=True):
                bad = np.flatnonzero(gfs[-1].values != want)[:5]
                raise AssertionError(f"{name}/{variant}: native and NumPy differ at cells {bad}")

        return run_native, run_numpy, check, gfs[-1].values.nbytes, n

    return [(f"{name} ({v})", lambda grid, v=v: build(grid, v)) for v in variants]


def pressures(n, low=40.0, high=400.0):
    return RNG.uniform(low, high, n)


def bo_inputs(n):
    po = pressures(n, 60.0, 600.0)
    pbub = RNG.uniform(50.0, 420.0, n)
    saturated = RNG.random(n) < 0.3
    pbub[saturated] = po[saturated]
    return [po, pbub]


def bg_inputs(n):
    pg = pressures(n, 30.0, 420.0)
    pdew = RNG.uniform(30.0, 420.0, n)
    saturated = RNG.random(n) < 0.3
    pdew[saturated] = pg[saturated]
    return [pg, pdew, RNG.uniform(0.0, 0.008, n)]


# --- K reductions ---------------------------------------------------------------

REDUCTIONS = {"KMax": "max", "KMin": "min", "KSum": "sum", "KAverage": "average"}
_selections = {}


def selection_for(grid):
    """About 80 % of the cells, in cell order, missing in blocks; and each entry's column number."""
    key = (grid.nI, grid.nJ, grid.nK)
    if key not in _selections:
        c = np.arange(grid.number_of_cells())
        i, j, k = c % grid.nI, (c // grid.nI) % grid.nJ, c // (grid.nI * grid.nJ)
        keep = (i // 16 + j // 16 + k // 4) % 5 != 0
        i, j, k = i[keep], j[keep], k[keep]
        _selections[key] = (tessel.ReservoirSelectionTopology(grid, np.column_stack([i, j, k])), i + grid.nI * j)
    return _selections[key]


def reduction_values(n, dtype):
    if dtype == np.int32:
        return RNG.integers(-2**20, 2**20, n, dtype=np.int32)
    return RNG.normal(100.0, 30.0, n)


def reduction_case(name, dtype, kind):
    def build(grid):
        call, operation = getattr(kavra, name), REDUCTIONS[name]
        values = reduction_values(grid.number_of_cells(), dtype)
        if kind == "grid":
            given = values.reshape(grid.nK, grid.nJ, grid.nI)
            run_native = lambda: call(grid, given)  # noqa: E731
            run_numpy = lambda: npv.k_grid(operation, given, grid.nK)  # noqa: E731
        else:
            selection, column = selection_for(grid)
            given = values[: len(column)]
            run_native = lambda: call(selection, given)  # noqa: E731
            run_numpy = lambda: npv.k_selection(operation, given, column, grid.nI * grid.nJ)  # noqa: E731

        def check():
            got, want = run_native(), run_numpy()
            if got.dtype != want.dtype or got.shape != want.shape or not np.array_equal(got, want, equal_nan=True):
                bad = np.flatnonzero(got.ravel() != want.ravel())[:5]
                raise AssertionError(f"{name}/{kind}/{np.dtype(dtype)}: native and NumPy differ at cells {bad}")

        return run_native, run_numpy, check, given.nbytes, given.size

    return f"{name} {np.dtype(dtype)} ({kind})", build


# --- rock -------------------------------------------------------------------------

def rock_case(label, run_native, run_numpy, inputs, in_place=False):
    """inputs: function(grid) -> (native grid functions, NumPy arrays); the last of each is the result."""

    def build(grid):
        gfs, arrays = inputs(grid)
        expected = arrays[-1]

        def check():
            if in_place:  # the result is also an input: start both from the same values
                gfs[-1].values[...] = expected
            run_native(*gfs)
            run_numpy(*arrays)
            if not np.array_equal(gfs[-1].values, expected, equal_nan=True):
                raise AssertionError(f"{label}: native and NumPy differ at cells "
                                     f"{np.flatnonzero(gfs[-1].values != expected)[:5]}")

        return (lambda: run_native(*gfs)), (lambda: run_numpy(*arrays)), check, expected.nbytes, expected.size

    return label, build


def rock_cases():
    records = rock_records()
    rock = rock_list(records)

    def porosity_inputs(grid):
        n = grid.number_of_cells()
        regions, po, poro = block_regions(grid), pressures(n, 100.0, 400.0), RNG.uniform(0.05, 0.35, n)
        return ([tessel.IntGridFunction(regions), tessel.DoubleGridFunction(po), tessel.DoubleGridFunction(poro),
                 tessel.DoubleGridFunction(n)], [regions, po, poro, np.zeros(n)])

    def ratio_inputs(grid):
        n = grid.number_of_cells()
        denominator = RNG.uniform(-0.05, 0.35, n)  # some cells at or below 0
        numerator = RNG.uniform(10.0, 500.0, n)
        return ([tessel.DoubleGridFunction(numerator), tessel.DoubleGridFunction(denominator),
                 tessel.DoubleGridFunction(n)], [numerator, denominator, np.zeros(n)])

    def ntg_inputs(grid):
        n = grid.number_of_cells()
        ntg, bulk = RNG.uniform(0.999, 1.001, n), RNG.uniform(100.0, 200.0, n)  # stays in range over repeats
        return [tessel.DoubleGridFunction(ntg), tessel.DoubleGridFunction(bulk)], [ntg, bulk.copy()]

    return [
        rock_case("Porosity (double)", lambda *g: kavra.CalcPorosity(rock, *g),
                  lambda *a: npv.porosity(records, *a), porosity_inputs),
        # BulkVolume, PORV -> Porosity and PORV, PORO -> BulkVolume: the same guarded division
        rock_case("PorosityFromPORV (double)", lambda num, den, out: kavra.CalcPorosityFromPORV(den, num, out),
                  npv.ratio_where_positive, ratio_inputs),
        rock_case("BulkVolume PORV/PORO (double)", kavra.CalcBulkVolume, npv.ratio_where_positive, ratio_inputs),
        rock_case("BulkVolume NTG (double)", kavra.CalcBulkVolume, lambda ntg, bulk: np.multiply(bulk, ntg, out=bulk),
                  ntg_inputs, in_place=True),
    ]


def all_cases():
    dead, oil, gas, water = dead_tables(), oil_tables(), gas_tables(), water_records()
    reductions = [reduction_case(name, dtype, kind) for name in REDUCTIONS for dtype in (np.float64, np.int32)
                  for kind in ("grid", "selection")]
    return reductions + (
        pvt_case("BubblePointPressure", oil, lambda n: [RNG.uniform(5.0, 210.0, n)], ["double", "float", "generic"])
        + pvt_case("OneOverB", dead, lambda n: [pressures(n)], ["double", "generic"])
        + pvt_case("OneOverBo", oil, bo_inputs, ["double", "float", "generic"])
        + pvt_case("OneOverBw", water, lambda n: [pressures(n)], ["double", "generic"])
        + pvt_case("OneOverBg", gas, bg_inputs, ["double", "float", "generic"])
        + rock_cases()
    )


def side_by_side(functions, repeat):
    """Median time of each function over `repeat` rounds (see rounds)."""
    return [statistics.median(spent) for spent in rounds(functions, repeat)]


def copy_floors(nbytes):
    """np.copyto of nbytes into an array that exists, and into a new one."""
    src = np.ones(nbytes, dtype=np.uint8)
    dst = np.zeros_like(src)
    return [lambda: np.copyto(dst, src), lambda: np.copyto(np.empty_like(src), src)]


def machine():
    cpu = platform.processor()
    try:
        with open("/proc/cpuinfo") as info:
            cpu = next(line.split(":", 1)[1].strip() for line in info if line.startswith("model name"))
    except (OSError, StopIteration):
        pass
    return dict(cpu=cpu, cores=os.cpu_count(), python=platform.python_version(), numpy=np.__version__)


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--sizes", default="1e6,1e7", help="comma-separated cell counts")
    parser.add_argument("--large", action="store_true", help="add 10^8 cells")
    parser.add_argument("--repeat", type=int, default=5)
    parser.add_argument("--only", default="", help="run the cases whose name contains this text")
    parser.add_argument("--json", default=str(HERE / "results.json"))
    args = parser.parse_args(argv)

    sizes = [int(float(s)) for s in args.sizes.split(",")] + ([10**8] if args.large else [])
    about = machine()
    print(f"{about['cpu']}, {about['cores']} cores; Python {about['python']}, NumPy {about['numpy']}")
    rows = []
    print(f"{'case':<34}{'cells':>11}{'native ns/cell':>16}{'NumPy ns/cell':>15}{'speed-up':>10}"
          f"{'x copy':>9}{'x new':>8}")
    # The sizes of one case run one after the other, so that the growth from
    # size to size is measured under the same load of the machine.
    grids = {size: grid_for(size) for size in sizes}
    for label, build in all_cases():
        if args.only and args.only not in label:
            continue
        for size, grid in grids.items():
            run_native, run_numpy, check, nbytes, n = build(grid)
            check()
            t_native, t_numpy, t_copy, t_new = side_by_side([run_native, run_numpy, *copy_floors(nbytes)],
                                                            args.repeat)
            row = dict(case=label, size=size, cells=n, grid=[grid.nI, grid.nJ, grid.nK],
                       native_ns_per_cell=1e9 * t_native / n, numpy_ns_per_cell=1e9 * t_numpy / n,
                       speedup=t_numpy / t_native, copy_ratio=t_native / t_copy, new_copy_ratio=t_native / t_new,
                       copy_ns_per_cell=1e9 * t_copy / n, new_copy_ns_per_cell=1e9 * t_new / n)
            rows.append(row)
            print(f"{label:<34}{n:>11}{row['native_ns_per_cell']:>16.2f}{row['numpy_ns_per_cell']:>15.2f}"
                  f"{row['speedup']:>9.1f}x{row['copy_ratio']:>8.1f}x{row['new_copy_ratio']:>7.1f}x", flush=True)

    # Growth of the cost per cell from the smallest to the largest size, next
    # to that of the two floors: memory-bound work grows with them.
    growth = {}
    if len(sizes) > 1:
        print(f"\ngrowth of ns/cell from {sizes[0]:.0e} to {sizes[-1]:.0e} cells"
              f"{'native':>13}{'copy':>8}{'new':>8}")
        for row in rows:
            if row["size"] == sizes[-1]:
                first = next(r for r in rows if r["case"] == row["case"] and r["size"] == sizes[0])
                grew = {key: row[key] / first[key] - 1.0
                        for key in ("native_ns_per_cell", "copy_ns_per_cell", "new_copy_ns_per_cell")}
                growth[row["case"]] = grew
                print(f"{row['case']:<48}" + "".join(f"{100 * g:>+7.0f}%" for g in grew.values()))
    report = dict(machine=about, repeat=args.repeat, results=rows, growth=growth)
    pathlib.Path(args.json).write_text(json.dumps(report, indent=2) + "\n")
    print(f"results written to {args.json}")
    if not args.only:  # what the NumPy-first functions add to the native calls, at 10^6 cells
        import api_overhead

        api_overhead.main(["--sizes", "1e6"])


if __name__ == "__main__":
    main()
