"""Threads: the NumPy-first functions on one thread and on all, against numba.

    python bench/threads.py                 # 10^7 cells, then the crossover (about two minutes)
    python bench/threads.py --large         # also 10^8 cells (about 6 GB of memory)
    python bench/threads.py --only one_over_bo --repeat 11
    python bench/threads.py --only crossover

For every cell calculation and the four K reductions: ns per cell with
``threads=1``, with all threads (the cores this process may run on), the
speed-up, and a numba kernel of the same per-cell steps compiled with
``parallel=True`` and no fastmath, run on all threads (bench/numba_kernels.py).
Before timing, the results of both thread counts and of the numba kernel are
checked to be the same bits; a numba kernel that differs is reported and not
timed.  The calculations write into an existing ``out``, and so do the numba
kernels; the reductions return new arrays, and are set against a parallel
copy into a new NumPy array ("x copy": numba, all threads) and against
``ndarray.copy`` ("x np.copy": one thread).  The reductions are timed with
``threads=`` when they take it, else on one thread (said in the table).

A round runs kavra on one thread, on all, the numba kernel (and the copies)
in turn, so that a disturbance of the machine hits them alike; two tables
follow, of the median of --repeat rounds and of the fastest round.  "used"
is the cores a call kept busy (CPU time over wall time): on a machine that
others load, a call on two threads may get one core or less, and then no
speed-up can show.  The load during the run is printed too: the cores that
other processes kept busy, from /proc/stat.

Crossover: bulk_volume (the cheapest calculation) and one_over_bo timed on
2^10 to 2^20 cells with 1 and 2 threads (31 rounds of blocks of calls);
printed is the size from which 2 threads are faster (by 5 % or more) at that
size and every larger one, of the median ratio within a round and of the
fastest rounds, and the break-even of one split that the sizes which split
imply.  The engine splits a call only from two chunks on (kavra._engine.CHUNK cells
each, read for the printout).
`make bench` runs this after bench/run.py.
"""

import argparse
import inspect
import json
import os
import pathlib
import resource
import statistics
import sys
import time

os.environ.setdefault("OPENBLAS_NUM_THREADS", "1")
# numba's idle OpenMP threads sleep instead of spinning, so that they take no core
# from the kavra call timed next.
os.environ.setdefault("OMP_WAIT_POLICY", "PASSIVE")

import numba  # noqa: E402
import numpy as np  # noqa: E402

import kavra  # noqa: E402

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE))
import numba_kernels as nk  # noqa: E402
from common import block_regions, grid_for, table_values  # noqa: E402

RNG = np.random.default_rng(16)
ALL = len(os.sched_getaffinity(0))
N_REGIONS = 4
PVT, ROCK_GROUP, REDUCTION = "PVT", "rock", "K reduction"
# Targets on two cores: all threads against one, kavra against numba, a reduction against a copy
SPEEDUP_TARGET, NUMBA_TARGET, COPY_TARGET = 1.8, 1.5, 1.3
SPLIT_GAIN = 0.95  # "faster" in the crossover: at most this share of the one-thread time


# --- tables, as a script would build them ------------------------------------------

TABLES = table_values()
WATER, ROCKS = TABLES["pvtw"], TABLES["rock"]


# --- cells ------------------------------------------------------------------------

def regions_for(grid):
    """Regions 1..4 in quarters of the map; one run of 4096 cells in 50 has no region (0)."""
    regions = block_regions(grid)
    regions[(np.arange(len(regions)) // 4096) % 50 == 7] = 0
    return regions


def uniform(n, low, high):
    return RNG.uniform(low, high, n)


def near(n, values, low, high, share=0.3):
    """Values in [low, high), a share of them equal to `values` (saturated cells)."""
    out = uniform(n, low, high)
    same = RNG.random(n) < share
    out[same] = values[same]
    return out


def ratio_inputs(n):
    """A quantity and a divisor of which some are at or below 0."""
    return uniform(n, 10.0, 500.0), uniform(n, -0.05, 0.35)


# --- cases ------------------------------------------------------------------------
# A case builds its data for a grid and gives: kavra(threads) -> result, numba() -> result.

class Calculation:
    def __init__(self, label, group, inputs, kavra_call, numba_call, initial=0.0):
        self.label, self.group = label, group
        self.inputs, self.kavra_call, self.numba_call, self.initial = inputs, kavra_call, numba_call, initial

    def build(self, grid):
        n = grid.number_of_cells()
        arrays = self.inputs(grid, n)
        outs = {key: np.full(n, self.initial) for key in ("one", "all", "numba")}

        def run_kavra(threads):
            out = outs["one" if threads == 1 else "all"]
            self.kavra_call(*arrays, out=out, threads=threads)
            return out

        def run_numba():
            bad = self.numba_call(*arrays, outs["numba"])
            if bad:
                raise ValueError(f"{self.label}: {bad} cells with a region past the table")
            return outs["numba"]

        return run_kavra, run_numba, n


def pvt_cases():
    dead, oil, gas = TABLES["pvdo"], TABLES["pvto"], TABLES["pvtg"]
    flat_dead, flat_oil, flat_gas = nk.flat_dead(dead), nk.flat_pvto(oil), nk.flat_pvtg(gas)
    water = nk.flat_columns(WATER, (0, 1, 2))
    rock = nk.flat_columns(ROCKS, (0, 1))

    def with_regions(values):
        return lambda grid, n: (regions_for(grid), *values(n))

    def oil_pressures(n):
        po = uniform(n, 60.0, 600.0)
        return po, near(n, po, 50.0, 420.0)

    def gas_pressures(n):
        pg = uniform(n, 30.0, 420.0)
        return pg, near(n, pg, 30.0, 420.0), uniform(n, 0.0, 0.008)

    def bulk_ntg(grid, n):
        porv, poro = ratio_inputs(n)
        return porv, poro, uniform(n, 0.5, 1.0)

    return [
        Calculation("bubble_point_pressure", PVT, with_regions(lambda n: [uniform(n, 5.0, 210.0)]),
                    lambda g, rs, out, threads: kavra.bubble_point_pressure(oil, g, rs, out=out, threads=threads),
                    lambda g, rs, out: nk.bubble_point_pressure(g, rs, out, *flat_oil)),
        Calculation("one_over_b", PVT, with_regions(lambda n: [uniform(n, 40.0, 400.0)]),
                    lambda g, p, out, threads: kavra.one_over_b(dead, g, p, out=out, threads=threads),
                    lambda g, p, out: nk.one_over_b(g, p, out, *flat_dead)),
        Calculation("one_over_bo", PVT, with_regions(oil_pressures),
                    lambda g, po, pb, out, threads: kavra.one_over_bo(oil, g, po, pb, out=out, threads=threads),
                    lambda g, po, pb, out: nk.one_over_bo(g, po, pb, out, *flat_oil)),
        Calculation("one_over_bw", PVT, with_regions(lambda n: [uniform(n, 40.0, 400.0)]),
                    lambda g, pw, out, threads: kavra.one_over_bw(WATER, g, pw, out=out, threads=threads),
                    lambda g, pw, out: nk.one_over_bw(g, pw, out, *water)),
        Calculation("one_over_bg", PVT, with_regions(gas_pressures),
                    lambda g, pg, pd, rv, out, threads: kavra.one_over_bg(gas, g, pg, pd, rv, out=out,
                                                                          threads=threads),
                    lambda g, pg, pd, rv, out: nk.one_over_bg(g, pg, pd, rv, out, *flat_gas)),
        Calculation("rs_from_components", PVT, lambda grid, n: ratio_inputs(n)[::-1],
                    lambda den, num, out, threads: kavra.rs_from_components(den, num, out=out, threads=threads),
                    nk.rs_from_components),
        # cells without a region keep what the result held: it starts at -1 everywhere
        Calculation("porosity", ROCK_GROUP, with_regions(lambda n: [uniform(n, 100.0, 400.0),
                                                                    uniform(n, 0.05, 0.35)]),
                    lambda g, po, poro, out, threads: kavra.porosity(ROCKS, g, po, poro, out=out, threads=threads),
                    lambda g, po, poro, out: nk.porosity(g, po, poro, out, *rock), initial=-1.0),
        Calculation("porosity_from_porv", ROCK_GROUP, lambda grid, n: ratio_inputs(n)[::-1],
                    lambda bulk, porv, out, threads: kavra.porosity_from_porv(bulk, porv, out=out, threads=threads),
                    nk.porosity_from_porv),
        Calculation("bulk_volume", ROCK_GROUP, lambda grid, n: ratio_inputs(n),
                    lambda porv, poro, out, threads: kavra.bulk_volume(porv, poro, out=out, threads=threads),
                    nk.bulk_volume),
        Calculation("bulk_volume ntg", ROCK_GROUP, bulk_ntg,
                    lambda porv, poro, ntg, out, threads: kavra.bulk_volume(porv, poro, ntg=ntg, out=out,
                                                                            threads=threads),
                    nk.bulk_volume_ntg),
    ]


def takes_threads(function):
    return "threads" in inspect.signature(function).parameters


class Reduction:
    group = REDUCTION

    def __init__(self, name):
        self.label, self.function, self.kernel = name, getattr(kavra, name), getattr(nk, name)
        self.threaded = takes_threads(self.function)

    def build(self, grid):
        n = grid.number_of_cells()
        values = RNG.normal(100.0, 30.0, n).reshape(grid.nK, grid.nJ, grid.nI)
        flat = values.reshape(-1)

        def run_kavra(threads):
            if self.threaded:
                return self.function(values, grid, threads=threads)
            return self.function(values, grid)

        def run_numba():
            return self.kernel(flat, grid.nI, grid.nJ, grid.nK).reshape(values.shape)

        # the floors: a new array (from NumPy, as kavra's results are) filled by a parallel
        # copy, and NumPy's own copy on one thread
        floors = [lambda: nk.copy_into(flat, np.empty_like(flat)), flat.copy]
        return run_kavra, run_numba, n, floors


def all_cases():
    return pvt_cases() + [Reduction(name) for name in ("kmax", "kmin", "ksum", "kaverage")]


# --- checks and timing ----------------------------------------------------------------

def same_bits(a, b):
    a, b = np.ascontiguousarray(a), np.ascontiguousarray(b)
    return a.dtype == b.dtype and a.shape == b.shape and np.array_equal(a.view(np.uint64), b.view(np.uint64))


def first_difference(a, b):
    diff = np.flatnonzero(a.reshape(-1).view(np.uint64) != b.reshape(-1).view(np.uint64))
    return f"{len(diff)} cells differ, the first at {diff[0]}: {a.reshape(-1)[diff[0]]!r} against " \
           f"{b.reshape(-1)[diff[0]]!r}" if len(diff) else "shapes or types differ"


def rounds(functions, repeat):
    """Wall and CPU seconds of each function in each of `repeat` rounds; every round runs them
    all in turn, so that a disturbance of the machine hits them alike."""
    for fn in functions:  # one untimed round: first-touch and warm-up costs stay out
        fn()
    walls, cpus = [[] for _ in functions], [[] for _ in functions]
    for _ in range(repeat):
        for wall, cpu, fn in zip(walls, cpus, functions):
            start, start_cpu = time.perf_counter(), time.process_time()
            fn()
            wall.append(time.perf_counter() - start)
            cpu.append(time.process_time() - start_cpu)
    return walls, cpus


STATISTICS = {"median": statistics.median, "best": min}


def measure(case, grid, repeat):
    """One row of the table: the checks, then `repeat` rounds."""
    built = case.build(grid)
    run_kavra, run_numba, n = built[:3]
    one = run_kavra(1).copy()
    everyone = run_kavra(ALL)
    if not same_bits(one, everyone):
        raise AssertionError(f"{case.label}: threads=1 and threads={ALL} differ: {first_difference(one, everyone)}")
    numba_result = run_numba()
    numba_same = same_bits(one, numba_result)
    if not numba_same:
        print(f"  {case.label}: the numba kernel does not give kavra's bits ({first_difference(one, numba_result)});"
              " not timed", flush=True)
    threaded = getattr(case, "threaded", True)
    functions = {"one": lambda: run_kavra(1)}
    if threaded:
        functions["all"] = lambda: run_kavra(ALL)
    if numba_same:
        functions["numba"] = run_numba
    if case.group == REDUCTION:
        functions["copy"], functions["np_copy"] = built[3]
    walls, cpus = rounds(list(functions.values()), repeat)
    row = dict(case=case.label, group=case.group, cells=n, grid=[grid.nI, grid.nJ, grid.nK], threads=ALL,
               threaded=threaded, numba_same_bits=numba_same,
               seconds={key: wall for key, wall in zip(functions, walls)},
               cores={key: sum(cpu) / sum(wall) for key, wall, cpu in zip(functions, walls, cpus)})
    for stat, reduce in STATISTICS.items():
        ns = {key: 1e9 * reduce(wall) / n for key, wall in zip(functions, walls)}
        best = ns["all"] if threaded else ns["one"]
        row[stat] = dict(ns, speedup=ns["one"] / ns["all"] if threaded else None,
                         vs_numba=ns["numba"] / best if numba_same else None,
                         x_copy=best / ns["copy"] if "copy" in ns else None,
                         x_np_copy=best / ns["np_copy"] if "np_copy" in ns else None)
    return row


def targets(row, stat):
    """What the row misses of its targets: '' when it meets them all, None when it has none."""
    if row["group"] == ROCK_GROUP:
        return None
    figures, missed = row[stat], []
    if row["group"] == PVT:
        if figures["speedup"] is not None and figures["speedup"] < SPEEDUP_TARGET:
            missed.append(f"speed-up < {SPEEDUP_TARGET}")
        if figures["vs_numba"] is None:
            missed.append("no numba figure")
        elif figures["vs_numba"] < NUMBA_TARGET:
            missed.append(f"vs numba < {NUMBA_TARGET}")
    if row["group"] == REDUCTION:
        if not row["threaded"]:
            missed.append("one thread only")
        if figures["x_copy"] > COPY_TARGET:
            missed.append(f"x copy > {COPY_TARGET}")
    return ", ".join(missed)


def fmt(value, form, missing="-"):
    return missing if value is None else format(value, form)


HEADER = ["case", "1 thread", f"{ALL} threads", "used", "speed-up", "numba par.", "used", "vs numba", "x copy",
          "x np.copy", "targets"]


def cells_of(row, stat):
    figures, cores = row[stat], row["cores"]
    return [row["case"], fmt(figures["one"], ".2f"),
            fmt(figures.get("all"), ".2f", "(1 thread)"), fmt(cores.get("all"), ".2f"),
            fmt(figures["speedup"], ".2f"),
            fmt(figures.get("numba"), ".2f", "not same bits" if not row["numba_same_bits"] else "-"),
            fmt(cores.get("numba"), ".2f"), fmt(figures["vs_numba"], ".2f"), fmt(figures["x_copy"], ".2f"),
            fmt(figures["x_np_copy"], ".2f"), fmt(targets(row, stat), "", "-") or "met"]


WIDTHS = [22, 10, 11, 6, 10, 12, 6, 10, 8, 11, 0]


def print_row(cells):
    print("".join(f"{c:<{w}}" if i == 0 else f"{c:>{w}}" if w else f"  {c}"
                  for i, (c, w) in enumerate(zip(cells, WIDTHS))), flush=True)


def print_table(rows, stat, repeat):
    what = {"median": f"the median of {repeat} rounds", "best": f"the fastest of {repeat} rounds"}[stat]
    sizes = sorted({row["cells"] for row in rows})
    for size in sizes:
        print(f"\n{size} cells: ns per cell, {what}")
        print_row(HEADER)
        for row in rows:
            if row["cells"] == size:
                print_row(cells_of(row, stat))
    for group, what in ((PVT, "the PVT calculations"), (REDUCTION, "the reductions")):
        group_rows = [r for r in rows if r["group"] == group]
        if group_rows:
            met = sum(targets(r, stat) == "" for r in group_rows)
            print(f"{stat}: targets met by {met} of {len(group_rows)} rows of {what}")


def markdown(rows, stat):
    lines = ["| " + " | ".join(["cells"] + HEADER) + " |", "|" + "---|" * (len(HEADER) + 1)]
    lines += ["| " + " | ".join([str(row["cells"])] + cells_of(row, stat)) + " |" for row in rows]
    return "\n".join(lines)


# --- the crossover ----------------------------------------------------------------------

def parts_from_source():
    """The engine's least cells per chunk, of calculations with tables ("Table") and without
    ("Plain"): one size for both (kavra._engine.CHUNK)."""
    from kavra import _engine
    return {"Table": _engine.CHUNK, "Plain": _engine.CHUNK}


def per_call(functions, blocks=31, block_seconds=0.004):
    """Seconds per call of each function in each of `blocks` rounds; a round runs every function
    in turn, for a block of calls long enough to time."""
    for fn in functions:
        fn()
    start = time.perf_counter()
    functions[0]()
    loops = max(1, int(block_seconds / max(time.perf_counter() - start, 1e-9)))
    times = [[] for _ in functions]
    for _ in range(blocks):
        for spent, fn in zip(times, functions):
            start = time.perf_counter()
            for _ in range(loops):
                fn()
            spent.append((time.perf_counter() - start) / loops)
    return times


def bulk_volume_call(n):
    porv, poro = ratio_inputs(n)
    out = np.empty(n)
    return lambda threads: kavra.bulk_volume(porv, poro, out=out, threads=threads)


def one_over_bo_call(n, oil=TABLES["pvto"]):
    regions = (1 + np.arange(n) * N_REGIONS // n).astype(np.int32)
    po = uniform(n, 60.0, 600.0)
    pbub = near(n, po, 50.0, 420.0)
    out = np.empty(n)
    return lambda threads: kavra.one_over_bo(oil, regions, po, pbub, out=out, threads=threads)


def crossover(parts):
    calculations = {"bulk_volume": (bulk_volume_call, parts["Plain"]),
                    "one_over_bo": (one_over_bo_call, parts["Table"])}
    sizes = [2**e for e in range(10, 21)]
    print(f"\ncrossover: 2 threads against 1, per call (medians of 31 rounds); 'faster' is at most "
          f"{SPLIT_GAIN:.0%} of the time of 1")
    result = {}
    for name, (make, cells_per_part) in calculations.items():
        if cells_per_part:
            print(f"(the module splits {name} from 2 x {cells_per_part} cells on: below that, threads=2 runs "
                  "the very one-thread code)")
        print(f"{name:<14}{'cells':>9}{'1 thread us':>13}{'2 threads us':>14}{'2 / 1':>8}{'best':>7}"
              f"{'break-even':>12}")
        rows = []
        for n in sizes:
            call = make(n)
            one, two = per_call([lambda: call(1), lambda: call(2)])
            # 'median': of the ratios within a round, so that a change of load between rounds stays
            # out; 'best': of the fastest rounds
            ratios = dict(median=statistics.median(b / a for a, b in zip(one, two)), best=min(two) / min(one))
            # the cost of a split, from where a split happens: t2 = t1 / 2 + cost pays from
            # n * t1 / 2 > cost, i.e. from n * (2 * t2 / t1 - 1) cells (of the fastest rounds)
            split = cells_per_part is None or n >= 2 * cells_per_part
            even = n * (2 * ratios["best"] - 1) if split else None
            rows.append(dict(cells=n, one_us=1e6 * statistics.median(one), two_us=1e6 * statistics.median(two),
                             ratio=ratios["median"], best_ratio=ratios["best"], break_even=even))
            print(f"{'':<14}{n:>9}{rows[-1]['one_us']:>13.1f}{rows[-1]['two_us']:>14.1f}{ratios['median']:>8.2f}"
                  f"{ratios['best']:>7.2f}{fmt(even, '.0f'):>12}", flush=True)
        estimates = [r["break_even"] for r in rows if r["break_even"] is not None]
        result[name] = dict(rows=rows, break_even_estimate=statistics.median(estimates) if estimates else None)
        for stat, key in (("median", "ratio"), ("best", "best_ratio")):
            faster = [r[key] <= SPLIT_GAIN for r in rows]
            from_size = next((rows[i]["cells"] for i in range(len(rows)) if all(faster[i:])), None)
            result[name][f"faster_from_{stat}"] = from_size
            said = (f"2 threads are faster from {from_size} cells on, not below" if from_size else
                    "2 threads are not faster at any size measured")
            print(f"  {name}, {stat}: {said}")
        print(f"  {name}: break-even of one split, from the sizes that split: "
              f"{fmt(result[name]['break_even_estimate'], '.0f', 'n/a')} cells (median)")
    return result


# --- the machine's load -------------------------------------------------------------------

class Load:
    """The cores that other processes kept busy while this ran, from /proc/stat."""

    def __init__(self):
        self.start = self._sample()
        self.loadavg = os.getloadavg()

    @staticmethod
    def _sample():
        with open("/proc/stat") as stat:
            fields = [int(v) for v in stat.readline().split()[1:]]
        idle = fields[3] + fields[4]  # idle, iowait
        usage = resource.getrusage(resource.RUSAGE_SELF)
        return time.monotonic(), (sum(fields[:8]) - idle) / os.sysconf("SC_CLK_TCK"), usage.ru_utime + usage.ru_stime

    def others(self):
        wall0, busy0, ours0 = self.start
        wall1, busy1, ours1 = self._sample()
        return max(0.0, ((busy1 - busy0) - (ours1 - ours0)) / (wall1 - wall0))


def main(argv=None):
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--sizes", default="1e7", help="comma-separated cell counts")
    parser.add_argument("--large", action="store_true", help="add 10^8 cells")
    parser.add_argument("--repeat", type=int, default=9)
    parser.add_argument("--only", default="", help="the cases whose name contains this text ('crossover': "
                                                   "the crossover alone)")
    parser.add_argument("--json", default="", help="also write the results to this file")
    parser.add_argument("--markdown", action="store_true", help="also print the table in Markdown")
    args = parser.parse_args(argv)

    sizes = [int(float(s)) for s in args.sizes.split(",")] + ([10**8] if args.large else [])
    wanted = args.only.lower().replace("_", "").replace(" ", "")
    numba.set_num_threads(ALL)
    load = Load()
    cpu = next((line.split(":", 1)[1].strip() for line in open("/proc/cpuinfo") if line.startswith("model name")),
               "")
    print(f"{cpu}; this process may run on {ALL} of {os.cpu_count()} cores; kavra {kavra.__version__}, "
          f"NumPy {np.__version__}, numba {numba.__version__}")
    print(f"load average at the start: {' '.join(f'{v:.2f}' for v in load.loadavg)}")

    rows = []
    cases = [c for c in all_cases() if wanted in c.label.lower().replace("_", "").replace(" ", "")]
    if cases and wanted != "crossover":
        print(f"numba: parallel=True on {ALL} threads; 'used': the cores a call kept busy (CPU time over wall "
              "time, means of the rounds)")
        for size in sizes:
            grid = grid_for(size)
            for case in cases:
                rows.append(measure(case, grid, args.repeat))
                row = rows[-1]
                print(f"  {row['case']:<22} {row['cells']} cells  " + "  ".join(
                    f"{key} {1e9 * statistics.median(t) / row['cells']:.2f}" for key, t in row["seconds"].items()),
                    flush=True)
        print(f"numba threading layer: {numba.threading_layer()}")
        for stat in STATISTICS:
            print_table(rows, stat, args.repeat)
        if not all(getattr(c, "threaded", True) for c in cases):
            print("the reductions marked '(1 thread)' take no threads= yet: timed on one thread")
        if args.markdown:
            for stat in STATISTICS:
                print(f"\n{stat}:\n" + markdown(rows, stat))

    cells_per_part = parts_from_source()
    cross = None
    if (not args.only or wanted == "crossover") and ALL >= 2:
        cross = crossover(cells_per_part)
    others = load.others()
    print(f"\nload during the run: other processes kept {others:.2f} of {os.cpu_count()} cores busy "
          f"(load average at the end: {' '.join(f'{v:.2f}' for v in os.getloadavg())})")
    if args.json:
        pathlib.Path(args.json).write_text(json.dumps(
            dict(threads=ALL, cpu=cpu, others_busy_cores=others, results=rows, cells_per_part=cells_per_part,
                 crossover=cross), indent=2) + "\n")


if __name__ == "__main__":
    main()
