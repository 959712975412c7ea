"""What the NumPy-first functions cost over the native calls they wrap.

    python bench/api_overhead.py                 # 10^6 cells
    python bench/api_overhead.py --sizes 1e5,1e6 --repeat 41

The native call is timed as a native user makes it: grid functions built once
(over the same arrays the layer reads, so that memory placement does not
differ), the result written into an existing one.  The layer is timed on
those plain NumPy arrays (float64 in the machine's byte order, int32 regions)
with ``out=``; then both again with a new result each call (a new
DoubleGridFunction for the native call, no ``out`` for the layer).  The
reductions return new arrays either way; for layout="ijk" the native user
transposes the input and the result as well.  Each figure is the mean of
the fastest quarter of --repeat rounds (the median in brackets); a round runs
every variant in turn.  "own us" is the difference per call on a grid of 1000
cells: the layer's own cost, which does not grow with the grid.  Both results
are checked to be equal bit for bit first.  `make bench` runs this after the
comparison with NumPy (bench/run.py).
"""

import argparse
import os
import pathlib
import statistics
import sys

os.environ.setdefault("OPENBLAS_NUM_THREADS", "1")

import numpy as np  # noqa: E402

import kavra  # noqa: E402
from kavra import tessel  # noqa: E402
from kavra.tables import PVTO  # noqa: E402

sys.path.insert(0, str(pathlib.Path(__file__).resolve().parent))
from common import block_regions, grid_for, rounds, table_values  # noqa: E402

RNG = np.random.default_rng(11)


def oil_table():
    records = []
    for region in range(4):
        rs = np.linspace(10.0, 200.0, 12)
        records.append([[r, 30.0 + 1.8 * r + 5 * region, 1.05 + 0.0021 * r, 1.0,
                         30.0 + 1.8 * r + 5 * region + 150.0, 1.04 + 0.0021 * r, 1.1] for r in rs])
    return PVTO(records)


TABLES = table_values()
WATER, ROCKS = TABLES["pvtw"], TABLES["rock"]
OIL = oil_table()


def cases(grid):
    """(label, native call, layer with out=, native call with a new result, layer with a new result,
    a function giving the results of the native call and of the layer)."""
    n = grid.number_of_cells()
    regions = block_regions(grid)
    gf = tessel.DoubleGridFunction
    p = RNG.uniform(60.0, 400.0, n)
    pbub = np.where(RNG.random(n) < 0.3, p, RNG.uniform(50.0, 420.0, n))
    poro = RNG.uniform(0.05, 0.35, n)
    porv = p * poro
    out = np.empty(n)

    # The native call reads and writes the very memory the layer does: grid
    # functions over the same arrays, so that only the cost of the layer differs.
    def calc(label, native_call, table, layer, arrays):
        native_list = table.to_native()
        gfs = [tessel.IntGridFunction.wrap(regions)] + [gf.wrap(a) for a in arrays]
        result = np.empty(n)
        into = gf.wrap(result)
        return (label, lambda: native_call(native_list, *gfs, into),
                lambda: layer(table, regions, *arrays, out=out),
                lambda: native_call(native_list, *gfs, gf(n)), lambda: layer(table, regions, *arrays),
                lambda: (result, out))

    yield calc("one_over_bw", kavra.CalcOneOverBw, WATER, kavra.one_over_bw, [p])
    yield calc("one_over_bo", kavra.CalcOneOverBo, OIL, kavra.one_over_bo, [p, pbub])
    yield calc("porosity", kavra.CalcPorosity, ROCKS, kavra.porosity, [p, poro])
    result = np.empty(n)
    bulk = [gf.wrap(porv), gf.wrap(poro), gf.wrap(result)]
    yield ("bulk_volume", lambda: kavra.CalcBulkVolume(*bulk), lambda: kavra.bulk_volume(porv, poro, out=out),
           lambda: kavra.CalcBulkVolume(*bulk[:2], gf(n)), lambda: kavra.bulk_volume(porv, poro),
           lambda: (result, out))

    # Reductions always make a new array.  With layout="ijk" the native user transposes too.
    given = RNG.normal(100.0, 30.0, n).reshape(grid.nK, grid.nJ, grid.nI)
    ijk = np.ascontiguousarray(given.transpose(2, 1, 0))
    native_ijk = lambda: np.ascontiguousarray(  # noqa: E731
        kavra.KAverage(grid, np.ascontiguousarray(ijk.transpose(2, 1, 0))).transpose(2, 1, 0))
    for label, native_call, layer_call in [
            ("ksum", lambda: kavra.KSum(grid, given), lambda: kavra.ksum(given, grid)),
            ("kmax", lambda: kavra.KMax(grid, given), lambda: kavra.kmax(given, grid)),
            ("kaverage, layout ijk", native_ijk, lambda: kavra.kaverage(ijk, grid, layout="ijk"))]:
        yield (label, native_call, layer_call, None, None,
               lambda native_call=native_call, layer_call=layer_call: (native_call(), layer_call()))


def timings(functions, repeat):
    """The median time of each function over `repeat` rounds, and the mean of its fastest quarter
    of rounds; every round runs them all in turn.  On a shared machine the fastest rounds are the
    steadier figure."""
    return [(statistics.median(t), statistics.fmean(sorted(t)[: max(1, len(t) // 4)]))
            for t in rounds(functions, repeat)]


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--sizes", default="1e6")
    parser.add_argument("--repeat", type=int, default=101)
    args = parser.parse_args(argv)
    print(f"\n{'NumPy-first layer vs native':<24}{'cells':>9}{'native ms':>11}{'layer ms':>10}{'overhead':>10}"
          f"{'(median)':>10}{'own us':>8}{'| new: native ms':>18}{'layer ms':>10}{'overhead':>10}")
    # The layer's own cost per call: the difference on a grid of 1000 cells.
    small = {label: timings([native_call, layer_call], 2001)
             for label, native_call, layer_call, *_ in cases(grid_for(1000))}
    for size in [int(float(s)) for s in args.sizes.split(",")]:
        grid = grid_for(size)
        for label, native_call, layer_call, native_new, layer_new, results in cases(grid):
            native_call(), layer_call()
            got, want = results()
            if not np.array_equal(np.ascontiguousarray(got).view(np.uint8), np.ascontiguousarray(want).view(np.uint8)):
                raise AssertionError(f"{label}: the layer and the native call differ")
            calls = [native_call, layer_call] + ([native_new, layer_new] if native_new else [])
            times = timings(calls, args.repeat)
            (median_native, fastest_native), (median_layer, fastest_layer) = times[:2]
            own = small[label][1][1] - small[label][0][1]
            line = (f"{label:<24}{grid.number_of_cells():>9}{1e3 * fastest_native:>11.3f}{1e3 * fastest_layer:>10.3f}"
                    f"{100 * (fastest_layer / fastest_native - 1):>+9.1f}%"
                    f"{100 * (median_layer / median_native - 1):>+9.1f}%{1e6 * own:>8.1f}")
            if native_new:
                new_native, new_layer = times[2][1], times[3][1]
                line += f"{1e3 * new_native:>18.3f}{1e3 * new_layer:>10.3f}{100 * (new_layer / new_native - 1):>+9.1f}%"
            print(line, flush=True)


if __name__ == "__main__":
    main()
