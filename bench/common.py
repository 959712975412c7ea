"""What the benchmarks share: grids of a given size, their regions, the tables of one per region,
and the rounds that time functions in turn.  The benchmarks import it; it imports none of them.
"""

import importlib.util
import time

import numpy as np

from kavra import tessel
from kavra.tables import PVDO, PVTG, PVTO, PVTW, ROCK

N_REGIONS = 4


def grid_for(n):
    """A grid of about n cells with a shape like a real model (nI, nJ > nK)."""
    nk = max(1, round((n / 6.25) ** (1 / 3)))
    ni = max(1, round((n / nk) ** 0.5 * 1.25))
    nj = max(1, n // (ni * nk))
    return tessel.ReservoirTopology(ni, nj, nk)


def block_regions(grid):
    """Regions 1..4 in quarters of the map, the same in every layer."""
    n = grid.number_of_cells()
    c = np.arange(n)
    i, j = c % grid.nI, (c // grid.nI) % grid.nJ
    return (1 + (2 * i) // max(grid.nI, 1) + 2 * ((2 * j) // max(grid.nJ, 1))).astype(np.int32)


# --- tables, one per region, as plain data (see numpy_versions.py) --------------------

def dead_tables():
    tables = []
    for r in range(N_REGIONS):
        p = np.linspace(20.0, 420.0, 15)
        tables.append(list(zip(p, 1.30 - 2e-4 * (r + 1) * (p - 20.0) ** 0.9)))
    return tables


def oil_tables():
    tables = []
    for r in range(N_REGIONS):
        rs = np.linspace(10.0, 200.0, 12)
        psat, bsat = 30.0 + 1.8 * rs + 5.0 * r, 1.05 + 0.0021 * rs
        tables.append([(rs[k], list(zip(psat[k] + np.array([0.0, 60.0, 150.0, 300.0]),
                                        bsat[k] - np.array([0.0, 0.004, 0.009, 0.016])))) for k in range(len(rs))])
    return tables


def gas_tables():
    tables = []
    for r in range(N_REGIONS):
        pg = np.linspace(40.0, 400.0, 10) + 3.0 * r
        rows = []
        for k in range(len(pg)):
            rv = 1e-5 * pg[k] * np.array([1.0, 1.25, 1.5, 2.0, 3.0])  # saturated record first, Rv ascending
            rows.append((pg[k], list(zip(rv, 1.2 / pg[k] * (1.0 + 0.05 * rv / rv[0])))))
        tables.append(rows)
    return tables


def water_records():
    return [(200.0 + 10 * r, 1.02 + 0.005 * r, 4.5e-5) for r in range(N_REGIONS)]


def rock_records():
    """(reference pressure, compressibility) of each region's ROCK record."""
    return [(250.0 + 5 * r, 5e-5 * (r + 1)) for r in range(N_REGIONS)]


def table_values():
    """The tables of this bench (and the rock's records) as kavra.tables values, for the
    NumPy-first functions; viscosities are made up (no calculation reads them)."""
    def records(key, rows, mu):
        return [key, *(v for a, b in rows for v in (a, b, mu))]
    return dict(
        pvdo=PVDO([[[p, b, 0.5] for p, b in table] for table in dead_tables()]),
        pvto=PVTO([[records(rs, rows, 1.0) for rs, rows in table] for table in oil_tables()]),
        pvtg=PVTG([[records(pg, rows, 0.02) for pg, rows in table] for table in gas_tables()]),
        pvtw=PVTW([[p, b, c, 0.5, 0.0] for p, b, c in water_records()]),
        rock=ROCK([list(record) for record in rock_records()]))


# --- timing ---------------------------------------------------------------------

def rounds(functions, repeat):
    """The times of each function in `repeat` rounds; every round runs them all in turn,
    so that a disturbance of the machine hits them alike."""
    for fn in functions:  # one untimed round: first-touch and warm-up costs stay out
        fn()
    times = [[] for _ in functions]
    for _ in range(repeat):
        for spent, fn in zip(times, functions):
            start = time.perf_counter()
            fn()
            spent.append(time.perf_counter() - start)
    return times


def other_version(path, name):
    """Another version of a module of the kavra package from its file (``git show main:python/kavra/X.py >
    /tmp/X.py``), loaded as ``kavra.<name>`` so that its relative imports take this package's modules:
    to time it in the same rounds as this version."""
    found = importlib.util.spec_from_file_location(f"kavra.{name}", path)
    module = importlib.util.module_from_spec(found)
    found.loader.exec_module(module)
    return module
