"""kavra.blackoil at 10^7 cells: one thread and all, against kavra's own calculation of the same
quantity and against a numba kernel of the same steps.

    python bench/blackoil.py                   # 10^7 cells, 5 rounds (about two minutes)
    python bench/blackoil.py --cells 1000000 --repeat 9 --only one_over_bo

The tables are those of the two-region test deck (tests/data/TWOREGIONS.DATA: PVTO and PVTG
with records that take their undersaturated rows from the next record, PVTW, ROCK, DENSITY),
PVDO from bench/run.py; pressures 30-650 barsa, Rs 10-250, Rv 0-0.0014 (past the tables on
both sides), region numbers 1 and 2 in blocks with one block in 50 of region 0.  Every
result goes into an existing ``out``.

A round runs kavra.blackoil on one thread, on all threads, kavra's calculation of the same
quantity (where there is one: its 1/Bo and 1/Bg interpolate B and take Pbub/Pdew, its
porosity is the multiplier times the porosity) on all threads, and the numba kernel
(bench/blackoil_kernels.py, ``parallel=True``, no fastmath) in turn; the table gives the
median of the rounds, in ns per cell.  Before timing, one thread and all are checked to be the
same bits, and the numba kernel's result is compared (same bits, or the largest relative
difference).
"""

import argparse
import os
import pathlib
import statistics
import sys
import time

os.environ.setdefault("OMP_WAIT_POLICY", "PASSIVE")

import numpy as np  # noqa: E402

import kavra  # noqa: E402
import kavra.deck  # noqa: E402
from kavra import blackoil  # noqa: E402

HERE = pathlib.Path(__file__).resolve().parent
sys.path.insert(0, str(HERE))
import blackoil_kernels as nk  # noqa: E402
from common import table_values  # noqa: E402

ALL = len(os.sched_getaffinity(0))
DECK = kavra.deck.read(HERE.parent / "tests" / "data" / "TWOREGIONS.DATA")
DENSITY = np.array([[850.0, 1030.0, 0.85], [820.0, 1010.0, 0.95]])  # as the deck's DENSITY
PVDO = table_values()["pvdo"]


def inputs(n, rng):
    pvtnum = (1 + (np.arange(n) // 4096) % 2).astype(np.int32)
    pvtnum[(np.arange(n) // 4096) % 50 == 7] = 0
    return dict(pvtnum=pvtnum, p=rng.uniform(30.0, 650.0, n), rs=rng.uniform(10.0, 250.0, n),
                rv=rng.uniform(0.0, 0.0014, n), poro=rng.uniform(0.05, 0.35, n))


def cases(a):
    """label -> (kavra.blackoil(out, threads), kavra's own calculation(out) or None, numba(out))."""
    pvto, pvtg, pvtw, rock = DECK.pvto, DECK.pvtg, DECK.pvtw, DECK.rock
    g, p, rs, rv = a["pvtnum"], a["p"], a["rs"], a["rv"]
    oil, gas, dead = nk.flat_pvto(pvto), nk.flat_pvtg(pvtg), nk.flat_dead(PVDO)
    water, rocks = nk.flat_records(pvtw), nk.flat_records(rock)
    pbub = np.minimum(p, blackoil.bubble_point(pvto, g, rs))
    pdew = blackoil.dew_point(pvtg, g, rv)
    b_oil = blackoil.one_over_bo(pvto, g, p, rs)
    own, other = np.full(p.shape, 850.0), np.full(p.shape, 0.85)
    return {
        "one_over_bo (PVTO)": (lambda out, t: blackoil.one_over_bo(pvto, g, p, rs, out=out, threads=t),
                               lambda out: kavra.one_over_bo(pvto, g, p, pbub, out=out),
                               lambda out: nk.live_oil(g, p, rs, out, *oil, False)),
        "one_over_bo (PVDO)": (lambda out, t: blackoil.one_over_bo(PVDO, g, p, out=out, threads=t),
                               lambda out: kavra.one_over_b(PVDO, g, p, out=out),
                               lambda out: nk.dead_fluid(g, p, out, *dead, False)),
        "oil_viscosity (PVTO)": (lambda out, t: blackoil.oil_viscosity(pvto, g, p, rs, out=out, threads=t), None,
                                 lambda out: nk.live_oil(g, p, rs, out, *oil, True)),
        "one_over_bg (PVTG)": (lambda out, t: blackoil.one_over_bg(pvtg, g, p, rv, out=out, threads=t),
                               lambda out: kavra.one_over_bg(pvtg, g, p, pdew, rv, out=out),
                               lambda out: nk.wet_gas(g, p, rv, out, *gas, False)),
        "gas_viscosity (PVTG)": (lambda out, t: blackoil.gas_viscosity(pvtg, g, p, rv, out=out, threads=t), None,
                                 lambda out: nk.wet_gas(g, p, rv, out, *gas, True)),
        "rs_sat": (lambda out, t: blackoil.rs_sat(pvto, g, p, out=out, threads=t), None,
                   lambda out: nk.saturated_line(g, p, out, oil[0], oil[1], oil[2], False)),
        "bubble_point": (lambda out, t: blackoil.bubble_point(pvto, g, rs, out=out, threads=t),
                         lambda out: kavra.bubble_point_pressure(pvto, g, rs, out=out),
                         lambda out: nk.saturated_line(g, rs, out, oil[0], oil[1], oil[2], True)),
        "rv_sat": (lambda out, t: blackoil.rv_sat(pvtg, g, p, out=out, threads=t), None,
                   lambda out: nk.saturated_line(g, p, out, gas[0], gas[1], gas[2], True)),
        "dew_point": (lambda out, t: blackoil.dew_point(pvtg, g, rv, out=out, threads=t), None,
                      lambda out: nk.dew_point(g, rv, out, gas[0], gas[1], gas[2])),
        "one_over_bw": (lambda out, t: blackoil.one_over_bw(pvtw, g, p, out=out, threads=t),
                        lambda out: kavra.one_over_bw(pvtw, g, p, out=out),
                        lambda out: nk.water(g, p, out, water, False)),
        "water_viscosity": (lambda out, t: blackoil.water_viscosity(pvtw, g, p, out=out, threads=t), None,
                            lambda out: nk.water(g, p, out, water, True)),
        "pore_volume_multiplier": (lambda out, t: blackoil.pore_volume_multiplier(rock, g, p, out=out, threads=t),
                                   lambda out: kavra.porosity(rock, g, p, a["poro"], out=out),
                                   lambda out: nk.pore_volume_multiplier(g, p, out, rocks)),
        # one region's densities here (the numba kernel takes them per cell): 1/Bo, then the mix
        "oil_density (PVTO)": (lambda out, t: blackoil.oil_density(pvto, DENSITY[:1], g, p, rs, out=out, threads=t),
                               None, lambda out: (nk.live_oil(g, p, rs, out, *oil, False),
                                                  nk.density_from_b(out, rs, own, other, out))),
    }


def same_or_difference(a, b):
    if np.array_equal(a, b, equal_nan=True):
        return "same bits"
    d = np.abs(a - b) / np.maximum(np.abs(b), 1e-300)
    return f"rel. {np.nanmax(d):.1e}"


def main():
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--cells", type=int, default=10_000_000)
    parser.add_argument("--repeat", type=int, default=5)
    parser.add_argument("--only", default=None)
    args = parser.parse_args()
    a = inputs(args.cells, np.random.default_rng(23))
    n = args.cells
    print(f"kavra.blackoil, {n} cells, {ALL} threads for 'all', median of {args.repeat} rounds, ns per cell\n")
    print("| function | kavra 1 thread | kavra all | speed-up | kavra's own calculation (all) | numba (all) "
          "| numba / kavra all | numba result |")
    print("|---|---|---|---|---|---|---|---|")
    for label, (ours, own, numba) in cases(a).items():
        if args.only and args.only not in label:
            continue
        outs = [np.zeros(n) for _ in range(4)]
        calls = [lambda: ours(outs[0], 1), lambda: ours(outs[1], ALL), lambda: numba(outs[3])]
        if own is not None:
            calls.insert(2, lambda: own(outs[2]))
        for call in calls:  # warm-up, numba's compilation
            call()
        assert np.array_equal(outs[0], outs[1], equal_nan=True), f"{label}: threads changed the bits"
        check = same_or_difference(outs[3], outs[0])
        times = [[] for _ in calls]
        for _ in range(args.repeat):
            for spent, call in zip(times, calls):
                start = time.perf_counter()
                call()
                spent.append(time.perf_counter() - start)
        ns = [statistics.median(t) / n * 1e9 for t in times]
        one, everyone, numba_ns = ns[0], ns[1], ns[-1]
        own_ns = f"{ns[2]:.2f}" if own is not None else "-"
        print(f"| {label} | {one:.2f} | {everyone:.2f} | {one / everyone:.2f} | {own_ns} | {numba_ns:.2f} "
              f"| {numba_ns / everyone:.2f} | {check} |", flush=True)


if __name__ == "__main__":
    main()
