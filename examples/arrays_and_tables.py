"""The NumPy-first API on a small grid: tables as a deck writes them, arrays in and out
====================================================================================

Run with `python examples/arrays_and_tables.py` once the package is installed.
Grid properties come as a grid library hands them out: shaped (nI, nJ, nK),
K fastest, inactive cells masked.  Nothing here builds a grid function or a
TScalar by hand.
"""

import numpy as np
from numpy.typing import NDArray

import kavra
from kavra.tables import PVTO, PVTW, ROCK

NI, NJ, NK = 20, 15, 6

# Two PVT regions; each live-oil record is [Rs, Pbub, Bo, mu, then undersaturated p, Bo, mu ...].
OIL = PVTO([
    [[20.0, 60.0, 1.10, 1.6, 160.0, 1.08, 1.8], [60.0, 140.0, 1.22, 1.2, 240.0, 1.20, 1.4],
     [100.0, 220.0, 1.34, 0.9, 320.0, 1.32, 1.0], [140.0, 300.0, 1.46, 0.7, 400.0, 1.43, 0.8]],
    [[30.0, 90.0, 1.15, 1.4, 190.0, 1.12, 1.6], [80.0, 190.0, 1.30, 1.0, 290.0, 1.27, 1.2],
     [130.0, 290.0, 1.45, 0.8, 390.0, 1.42, 0.9]],
], units="METRIC")
WATER = PVTW([[200.0, 1.02, 4.5e-5, 0.5, 0.0], [250.0, 1.03, 4.0e-5, 0.45, 0.0]])
ROCKS = ROCK([[200.0, 5e-5], [250.0, 7e-5]])


def properties(rng: np.random.Generator) -> tuple[NDArray[np.int32], NDArray[np.float32], NDArray[np.float64],
                                                  NDArray[np.float64]]:
    """PVTNUM, pressure, Rs and porosity in the (nI, nJ, nK) layout: regions west and east,
    pressure rising with depth (K)."""
    i = np.arange(NI)[:, None, None]
    k = np.arange(NK)[None, None, :]
    pvtnum = np.broadcast_to(np.where(i < NI // 2, 1, 2), (NI, NJ, NK)).astype(np.int32)
    po = (180.0 + 12.0 * k + rng.normal(0.0, 5.0, (NI, NJ, NK))).astype(np.float32)
    return pvtnum, po, rng.uniform(40.0, 120.0, (NI, NJ, NK)), rng.uniform(0.12, 0.30, (NI, NJ, NK))


def main() -> None:
    grid = (NI, NJ, NK)
    pvtnum, pressure, rs, poro = properties(np.random.default_rng(3))
    active = np.ones(grid, dtype=bool)
    active[:3, :3, :] = False  # a corner outside the model
    po = np.ma.MaskedArray(pressure, mask=~active)  # float32: converted once, to float64

    pbub = kavra.bubble_point_pressure(OIL, pvtnum, rs)
    pbub = np.minimum(pbub, pressure)  # no cell above its bubble point: where they meet it is saturated
    one_over_bo = kavra.one_over_bo(OIL, pvtnum, po, pbub)  # masked where po is
    one_over_bw = kavra.one_over_bw(WATER, pvtnum, po)
    porosity = kavra.porosity(ROCKS, pvtnum, po, poro)
    porosity_map = kavra.kaverage(porosity, grid, active=active, layout="ijk")[:, :, 0]

    print(f"{'':<22}{'min':>10}{'mean':>10}{'max':>10}")
    for name, values in [("Pbub (barsa)", pbub), ("1/Bo (sm3/rm3)", one_over_bo), ("1/Bw (sm3/rm3)", one_over_bw),
                         ("porosity", porosity), ("K-average porosity", porosity_map)]:
        print(f"{name:<22}{values.min():>10.4f}{values.mean():>10.4f}{values.max():>10.4f}")
    print(f"inactive cells (masked in every result): {int((~active).sum())} of {active.size}")


if __name__ == "__main__":
    main()
