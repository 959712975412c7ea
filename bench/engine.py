"""The engine against the module it replaced, and its thread gain against numba's.

    bash bench/old_parallel.sh          # once: builds the old kavra._parallel into build/old-parallel
    python bench/engine.py              # 10^6 and 10^7 cells, 15 rounds (about two minutes)
    python bench/engine.py --repeat 31 --sizes 10000000

All in one process, in interleaved rounds (every variant once per round, in
turn, so that a disturbance of the machine hits them alike); printed are the
median over the rounds and the mean of the fastest quarter of them, and the
ratios of those (a machine that others load makes the medians move most):

1. one_over_bo (4 regions in blocks) through the engine (kavra._engine) and
   through the old kavra._parallel, each on 1 thread and on all, at each
   size: the native calls alone, over ready buffers.
2. The gain of all threads over one, for the engine and for numba's kernel
   of the same steps (bench/numba_kernels.py) in the same rounds, and the
   engine's gain as a share of numba's (the goal: at least 90 %).
3. float32 inputs (read as they are) against float64 inputs and against
   float32 inputs widened to float64 copies first (what the layer did before
   the engine), and a single region number (pvtnum=1) against an array of
   ones, through kavra.one_over_bo.
4. The overhead of a call in microseconds on 10 cells: kavra.one_over_bo, the
   engine's own entry with the bench's tables and without tables, and the
   old module's.
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

import kavra  # noqa: E402
from kavra import _engine  # noqa: E402

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE))
import numba_kernels as nk  # noqa: E402
from common import block_regions, grid_for, table_values  # noqa: E402

ALL = len(os.sched_getaffinity(0))
OIL = table_values()["pvto"]
OLD_DIR = HERE.parent / "build" / "old-parallel"


def old_module():
    """The old kavra._parallel, as bench/old_parallel.sh built it (None when it is not built)."""
    if not any(OLD_DIR.glob("_parallel*.so")):
        return None
    sys.path.insert(0, str(OLD_DIR))
    import _parallel  # noqa: E402
    return _parallel


def cells(n, rng):
    regions = block_regions(grid_for(n))
    po = rng.uniform(50.0, 400.0, regions.size)
    pbub = np.where(rng.random(regions.size) < 0.3, po, rng.uniform(50.0, 400.0, regions.size))
    return regions, po, pbub


def variants(n, old, rng):
    """name -> call(), all writing one_over_bo's result of the same cells."""
    regions, po, pbub = cells(n, rng)
    n = regions.size
    out = np.empty(n)
    tables = OIL._engine_tables()
    words = ("one_over_bo", "PVTO", (n,))
    flat = nk.flat_pvto(OIL)

    def engine(threads):
        return lambda: _engine.calculate("one_over_bo", tables, regions, (po, pbub), out, words, threads)

    def numba_kernel(threads):
        def call():
            numba.set_num_threads(threads)
            nk.one_over_bo(regions, po, pbub, out, *flat)
        return call

    calls = {"engine 1": engine(1), f"engine {ALL}": engine(ALL),
             "numba 1": numba_kernel(1), f"numba {ALL}": numba_kernel(ALL)}
    if old is not None:
        from kavra import tessel
        native = OIL.to_native()
        grid_functions = [tessel.IntGridFunction.wrap(regions), tessel.DoubleGridFunction.wrap(po),
                          tessel.DoubleGridFunction.wrap(pbub), tessel.DoubleGridFunction.wrap(out)]
        for threads in (1, ALL):
            calls[f"_parallel {threads}"] = (
                lambda t=threads: old.CalcOneOverBo(native, *grid_functions, t))
    f32 = po.astype(np.float32), pbub.astype(np.float32)
    ones = np.ones(n, np.int32)
    calls.update({
        "kavra f64": lambda: kavra.one_over_bo(OIL, ones, po, pbub, out=out, threads=ALL),
        "kavra f32": lambda: kavra.one_over_bo(OIL, ones, *f32, out=out, threads=ALL),
        "kavra f32 widened": lambda: kavra.one_over_bo(OIL, ones, *(v.astype(np.float64) for v in f32), out=out,
                                                       threads=ALL),
        "kavra pvtnum=1": lambda: kavra.one_over_bo(OIL, 1, po, pbub, out=out, threads=ALL),
    })
    return calls, out


def timed(call):
    start = time.perf_counter()
    call()
    return time.perf_counter() - start


def overhead(repeat, old):
    """Microseconds per call on 10 cells: the public function, the engine's entry (with the tables
    of the bench, which every call flattens, and without tables), and the old module's."""
    regions, po, out = np.ones(10, np.int32), np.linspace(100.0, 300.0, 10), np.empty(10)
    tables, words = _engine.Tables("TPVTOList", OIL.regions), ("one_over_bo", "PVTO", (10,))
    calls = {"kavra.one_over_bo": lambda: kavra.one_over_bo(OIL, regions, po, po, out=out, threads=1),
             "_engine one_over_bo": lambda: _engine.calculate("one_over_bo", tables, regions, (po, po), out, words, 1),
             "_engine bulk_volume": lambda: _engine.calculate("bulk_volume", None, None, (po, po), out, words, 1)}
    if old is not None:
        from kavra import tessel
        native = OIL.to_native()
        grid_functions = [tessel.IntGridFunction.wrap(regions), tessel.DoubleGridFunction.wrap(po),
                          tessel.DoubleGridFunction.wrap(po), tessel.DoubleGridFunction.wrap(out)]
        calls["_parallel one_over_bo"] = lambda: old.CalcOneOverBo(native, *grid_functions, 1)
    result = {}
    for name, call in calls.items():
        call()
        rounds = []
        for _ in range(repeat):
            start = time.perf_counter()
            for _ in range(2000):
                call()
            rounds.append((time.perf_counter() - start) / 2000 * 1e6)
        result[name] = statistics.median(rounds)
    return result


def main():
    parser = argparse.ArgumentParser(description=__doc__, formatter_class=argparse.RawDescriptionHelpFormatter)
    parser.add_argument("--repeat", type=int, default=15)
    parser.add_argument("--sizes", type=int, nargs="*", default=[10**6, 10**7])
    args = parser.parse_args()
    old = old_module()
    print(f"{ALL} threads; old kavra._parallel: {'built' if old else 'not built (bash bench/old_parallel.sh)'}")
    rng = np.random.default_rng(21)
    for n in args.sizes:
        calls, out = variants(n, old, rng)
        reference = None
        for name, call in calls.items():  # warm up, and the same bits everywhere
            out[:] = np.nan
            call()
            if name.startswith(("engine", "_parallel", "numba")):
                reference = out.copy() if reference is None else reference
                assert np.array_equal(out.view(np.uint64), reference.view(np.uint64)), name
        times = {name: [] for name in calls}
        for _ in range(args.repeat):
            for name, call in calls.items():
                times[name].append(timed(call))
        median = {name: statistics.median(t) for name, t in times.items()}
        fastest = {name: statistics.fmean(sorted(t)[: max(1, len(t) // 4)]) for name, t in times.items()}
        print(f"\n{n:.0e} cells, {args.repeat} rounds: median, and mean of the fastest quarter (ms; ns per cell)")
        for name in times:
            print(f"  {name:16s} {median[name] * 1e3:8.2f} {median[name] / n * 1e9:6.2f}   "
                  f"{fastest[name] * 1e3:8.2f} {fastest[name] / n * 1e9:6.2f}")
        for label, of in (("medians", median), ("fastest quarters", fastest)):
            print(f"  of the {label}:")
            report(of, times if of is median else None, old is not None)
    print("\nper call on 10 cells (µs):", ", ".join(f"{k} {v:.2f}" for k, v in overhead(7, old).items()))


def report(of, times, old):
    """The ratios of one statistic `of` (`times`: the rounds, for the gain per round)."""
    gain = {who: of[f"{who} 1"] / of[f"{who} {ALL}"] for who in ("engine", "numba")}
    line = (f"    gain 1 -> {ALL} threads: engine {gain['engine']:.2f}x, numba {gain['numba']:.2f}x, "
            f"engine/numba {gain['engine'] / gain['numba']:.0%}")
    if times is not None:
        gains = [times["engine 1"][r] / times[f"engine {ALL}"][r] / (times["numba 1"][r] / times[f"numba {ALL}"][r])
                 for r in range(len(times["engine 1"]))]
        line += f" (per round: median {statistics.median(gains):.0%}, lowest {min(gains):.0%})"
    print(line)
    if old:
        print("    engine / _parallel: " + ", ".join(
            f"{t} thread{'s' if t > 1 else ''} {of[f'engine {t}'] / of[f'_parallel {t}']:.2f}" for t in (1, ALL)))
    print(f"    float32 / float64 inputs: {of['kavra f32'] / of['kavra f64']:.2f}, float32 read as it is / "
          f"widened to a float64 copy first: {of['kavra f32'] / of['kavra f32 widened']:.2f}; "
          f"pvtnum=1 / ones: {of['kavra pvtnum=1'] / of['kavra f64']:.2f}")


if __name__ == "__main__":
    main()
