"""An ensemble on a local Dask cluster: 1/Bo and its K average for 20 realizations of a grid
=========================================================================================

Run with `make ensemble` (or `python examples/ensemble_dask.py [--realizations N]
[--grid NI NJ NK] [--workers N]` once the package is installed with the `dask`
extra).  Each realization draws its own pressure and Rs fields on the workers
(10^6 cells by default), then the bubble point, 1/Bo and the K average of 1/Bo
are computed there with kavra.dask; only a few numbers per realization come
back.  The progress of all tasks is shown in the terminal while they run, and
realization 1 is checked bit for bit against the single-process kavra calls.
"""
# mypy: disable-error-code="no-untyped-call"
# (dask and distributed leave these functions without annotations)

import argparse
import os
import time

import dask.array as da
import numpy as np
from dask.distributed import Client, LocalCluster, progress

import kavra
import kavra.dask
from kavra.tables import PVTO

# The live-oil table of the deck SPE1CASE1 (kavra.deck.example_path("SPE1CASE1")),
# copied by hand (this example needs no opm): FIELD units, Rs in Mscf/stb, pressure in psia, Bo in rb/stb, viscosity
# in cP.  Each record is [rs, p, bo, mu] plus undersaturated [p, bo, mu] rows.
SPE1_PVTO = PVTO([[
    [0.0010, 14.7, 1.0620, 1.0400],
    [0.0905, 264.7, 1.1500, 0.9750],
    [0.1800, 514.7, 1.2070, 0.9100],
    [0.3710, 1014.7, 1.2950, 0.8300],
    [0.6360, 2014.7, 1.4350, 0.6950],
    [0.7750, 2514.7, 1.5000, 0.6410],
    [0.9300, 3014.7, 1.5650, 0.5940],
    [1.2700, 4014.7, 1.6950, 0.5100, 9014.7, 1.5790, 0.7400],
    [1.6180, 5014.7, 1.8270, 0.4490, 9014.7, 1.7370, 0.6310],
]], units="FIELD")

def realization(seed: int, shape: tuple[int, int, int], chunks: tuple[int, int, int]) -> tuple[da.Array, da.Array]:
    """Pressure and Rs fields of one realization (psia, Mscf/stb), drawn chunk by chunk on the workers.

    The pressure rises with depth (K) around a level of its own per realization; Rs scatters
    around 1.1 Mscf/stb, so that some cells lie above their bubble point and some below it.
    """
    rng = da.random.default_rng(seed)
    level = 3600.0 + 80.0 * (seed % 11)
    depth = da.arange(shape[0], chunks=chunks[0])[:, None, None] * 4.0
    po = level + depth + rng.normal(0.0, 250.0, size=shape, chunks=chunks)
    rs = rng.uniform(0.85, 1.35, size=shape, chunks=chunks)
    return po, rs


def one_over_bo_and_k_average(po: da.Array, rs: da.Array, grid: tuple[int, int, int]) -> tuple[da.Array, da.Array]:
    pbub = kavra.dask.bubble_point_pressure(SPE1_PVTO, 1, rs)
    inv_bo = kavra.dask.one_over_bo(SPE1_PVTO, 1, po, pbub)
    return inv_bo, kavra.dask.kaverage(inv_bo, grid)


def main() -> None:
    parser = argparse.ArgumentParser(description=__doc__.splitlines()[0])
    parser.add_argument("--realizations", type=int, default=20)
    parser.add_argument("--grid", type=int, nargs=3, default=(100, 100, 100), metavar=("NI", "NJ", "NK"))
    parser.add_argument("--workers", type=int, default=len(os.sched_getaffinity(0)),
                        help="worker processes, one thread each (default: the cores this process may use)")
    args = parser.parse_args()
    ni, nj, nk = args.grid
    grid = (ni, nj, nk)
    shape = (nk, nj, ni)
    chunks = (nk, max(1, nj // 4), ni)  # whole K columns: the K average moves no chunk

    start = time.perf_counter()
    with LocalCluster(n_workers=args.workers, threads_per_worker=1, processes=True,
                      dashboard_address=None) as cluster, Client(cluster) as client:
        ready = time.perf_counter()
        print(f"{args.realizations} realizations of {ni} x {nj} x {nk} = {ni * nj * nk:,} cells "
              f"on {args.workers} worker processes (cluster up in {ready - start:.1f} s)")

        summaries, first = [], []
        for seed in range(args.realizations):
            po, rs = realization(seed, shape, chunks)
            inv_bo, k_average = one_over_bo_and_k_average(po, rs, grid)
            top = k_average[0]  # every layer holds the column values
            # mean Po, mean Rs, mean 1/Bo, and the range of the K-averaged 1/Bo
            summaries.append(da.stack([po.mean(), rs.mean(), inv_bo.mean(), top.min(), top.max()]))
            if seed == 0:  # fetched whole as well, for the check below
                first = [po, rs, inv_bo, k_average]
        futures = client.compute(summaries + first)
        progress(futures)  # a text progress bar of all their tasks, until they are done
        results = client.gather(futures[:len(summaries)])
        po_np, rs_np, inv_bo_np, k_average_np = client.gather(futures[len(summaries):])
        done = time.perf_counter()

    # Realization 1 by the single-process calls, on the same fields.
    expected = kavra.one_over_bo(SPE1_PVTO, 1, po_np, kavra.bubble_point_pressure(SPE1_PVTO, 1, rs_np))
    identical = (np.array_equal(inv_bo_np.view(np.uint64), expected.view(np.uint64)) and np.array_equal(
        k_average_np.view(np.uint64), kavra.kaverage(expected, grid).view(np.uint64)))

    print()
    print(" realization   mean Po [psia]   mean Rs [Mscf/stb]   mean 1/Bo [stb/rb]   K-average 1/Bo min .. max")
    for number, (mean_po, mean_rs, mean_inv_bo, low, high) in enumerate(results, start=1):
        print(f" {number:11d}   {mean_po:14.1f}   {mean_rs:18.4f}   {mean_inv_bo:18.6f}   {low:.6f} .. {high:.6f}")
    print()
    print(f"Ensemble computed in {done - ready:.1f} s ({(done - ready) / args.realizations:.2f} s per realization); "
          f"wall time {time.perf_counter() - start:.1f} s with the cluster's start and stop.")
    print(f"Realization 1 bit for bit the single-process kavra result: {'yes' if identical else 'NO'}")
    if not identical:
        raise SystemExit(1)


if __name__ == "__main__":
    main()
