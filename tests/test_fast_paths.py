"""The fast paths against the reference (the documented steps) on random data: short and long tables,
unsorted ones, repeated keys, NaN and infinities, regions in runs, every grid function variant; and the rock
calculations through buffers and through accessors.  Results must agree bit for bit (NaN as NaN)."""

import numpy as np
import pytest
from kavra.tessel import (
    DoubleGridFunction, FloatGridFunction, IntGridFunction, ReservoirSelectionTopology, ReservoirTopology,
    SelectionViewGridFunction,
)

import kavra
from catalogue import PVT, expected, rock_list

nan, inf = float("nan"), float("inf")
SPECIAL = [nan, inf, -inf, 0.0, -0.0]
ORDERS = ["ascending", "repeated", "unsorted", "with NaN"]


def assert_same_bits(got, want):
    got, want = np.asarray(got), np.asarray(want, dtype=np.asarray(got).dtype)
    assert got.shape == want.shape
    np.testing.assert_array_equal(np.isnan(got), np.isnan(want))
    kind = {4: np.uint32, 8: np.uint64}[got.dtype.itemsize]
    mismatch = (got.view(kind) != want.view(kind)) & ~np.isnan(got)
    assert not mismatch.any(), f"first differences at {np.flatnonzero(mismatch)[:5]}"


def keys(rng, n, order):
    values = np.sort(rng.uniform(0.0, 400.0, n))
    if order == "repeated":
        values = np.sort(rng.choice(values[: max(1, n // 3)], n))
    elif order == "unsorted":
        rng.shuffle(values)
    elif order == "with NaN":
        values[rng.integers(n)] = nan
    return [float(v) for v in values]


def ordinates(rng, n):
    values = rng.uniform(0.5, 1.5, n)
    values[rng.random(n) < 0.05] = 0.0
    values[rng.random(n) < 0.03] = nan
    return [float(v) for v in values]


def table(rng, name, order):
    """One region's table: one row, brackets only at the ends, lines searched by counting (up to 32 rows)
    and longer ones searched by halving; under_sat lists short and long."""
    n = int(rng.choice([1, 2, 3, 5, 16, 31, 32, 33, 47]))
    if name == "CalcOneOverBw":
        return (float(rng.uniform(0.0, 400.0)), float(rng.choice([1.02, 0.0, nan])), float(rng.uniform(-1e-3, 1e-3)))
    if name == "CalcOneOverB":
        return list(zip(keys(rng, n, order), ordinates(rng, n)))
    saturated = list(zip(keys(rng, n, order), ordinates(rng, n)))  # (P, B) of oil, (Rv, B) of gas
    rows = []
    for key, first in zip(keys(rng, n, order), saturated):
        m = int(rng.choice([1, 2, 4, 7, 40]))
        xs = keys(rng, m, order)
        rows.append((key, [first] + list(zip(xs[1:], ordinates(rng, m - 1)))))
    return rows


def cell_inputs(rng, name, tables, n):
    """Values inside and beyond the tables, exact keys of them, and special values."""
    known = [0.0]
    for t in tables:
        if name == "CalcOneOverBw":
            known.append(t[0])
        else:
            known += [row[0] for row in t] + [p[0] for row in t if name != "CalcOneOverB" for p in row[1]]
    columns = []
    for _ in PVT[name].inputs:
        values, pick = rng.uniform(-50.0, 450.0, n), rng.random(n)
        values[pick < 0.3] = rng.choice(known, n)[pick < 0.3]
        values[pick > 0.97] = rng.choice(SPECIAL, n)[pick > 0.97]
        columns.append(values)
    if name in ("CalcOneOverBo", "CalcOneOverBg"):  # saturated cells, and cells at the tolerance
        near = rng.random(n)
        columns[1][near < 0.2] = columns[0][near < 0.2]
        at = (near >= 0.2) & (near < 0.3)
        columns[1][at] = columns[0][at] + rng.choice([0.00005, -0.00005, 0.0001, -0.0001], n)[at]
    return columns


def region_runs(rng, n, numbers):
    """Region numbers in runs of random length, as regions of a grid lie in blocks."""
    regions = []
    while len(regions) < n:
        regions += [int(rng.choice(numbers))] * int(rng.integers(1, 120))
    return regions[:n]


# value grid functions, result, regions: arrays of double or of float take their own
# paths; float inputs into a double result, or regions held as doubles, the generic one
VARIANTS = {
    "double": (DoubleGridFunction, DoubleGridFunction, IntGridFunction),
    "float": (FloatGridFunction, FloatGridFunction, IntGridFunction),
    "mixed": (FloatGridFunction, DoubleGridFunction, IntGridFunction),
    "generic": (DoubleGridFunction, DoubleGridFunction, lambda r: DoubleGridFunction(np.array(r, float))),
}


@pytest.mark.parametrize("variant", VARIANTS)
@pytest.mark.parametrize("order", ORDERS)
@pytest.mark.parametrize("name", PVT)
def test_calculations_equal_the_documented_steps(name, order, variant):
    rng = np.random.default_rng([ORDERS.index(order), list(PVT).index(name)])
    for _ in range(3):
        tables = [table(rng, name, order) for _ in range(3)]
        regions = region_runs(rng, 1500, [-1, 0, 1, 2, 3])
        values, result, region = VARIANTS[variant]
        seen = [np.asarray(v, dtype=np.float32 if values is FloatGridFunction else float).astype(float)
                for v in cell_inputs(rng, name, tables, len(regions))]
        out = result(len(regions))
        PVT[name].call(PVT[name].make(tables), region(regions), *map(values, seen), out)
        with np.errstate(over="ignore"):
            assert_same_bits(out.values, np.array(expected(name, tables, regions, seen)[0], dtype=out.values.dtype))


@pytest.mark.parametrize("name", PVT)
def test_result_that_is_also_an_input(name):
    rng = np.random.default_rng(11)
    tables = [table(rng, name, "ascending") for _ in range(2)]
    regions = region_runs(rng, 600, [0, 1, 2])
    inputs = cell_inputs(rng, name, tables, len(regions))
    shared = DoubleGridFunction(inputs[0])
    PVT[name].call(PVT[name].make(tables), IntGridFunction(regions), shared, *map(DoubleGridFunction, inputs[1:]),
                   shared)
    assert_same_bits(shared.values, expected(name, tables, regions, inputs)[0])


# The rock calculations and Rs read array grid functions' buffers directly and
# any other grid function through its accessors: both must give the same bits,
# also when one grid function stands in two places.
ROCK = {
    "CalcPorosity": ("int", "po", "poro", "out"),
    "CalcPorosityFromPORV": ("bulk", "porv", "out"),
    "CalcBulkVolume": ("porv", "poro", "out"),
    "CalcBulkVolume NTG": ("ntg", "out"),
    "CalcRsFromComponents": ("bulk", "porv", "out"),
}


@pytest.mark.parametrize("name", ROCK)
def test_rock_buffers_and_accessors_agree(name):
    rng, n = np.random.default_rng(11), 400
    special = np.array([0.0, -0.0, -1.0, nan, inf, 1e-300])
    sometimes = lambda values: np.where(rng.random(n) < 0.1, rng.choice(special, n), values)  # noqa: E731
    columns = {"int": rng.integers(-1, 4, n).astype(np.int32), "po": rng.uniform(100.0, 400.0, n),
               "poro": sometimes(rng.uniform(0.0, 0.6, n)), "bulk": sometimes(rng.uniform(500.0, 1500.0, n)),
               "porv": rng.uniform(0.0, 900.0, n), "ntg": sometimes(rng.uniform(0.0, 1.2, n)),
               "out": rng.uniform(-1.0, 1.0, n)}
    rock = rock_list([(250.0, 4e-3), (180.0, -2e-3), (300.0, 0.0)])
    function = getattr(kavra, name.split()[0])
    call = (lambda gf: function(rock, *gf)) if name == "CalcPorosity" else (lambda gf: function(*gf))
    every_cell = ReservoirSelectionTopology(ReservoirTopology(n, 1, 1), [[i, 0, 0] for i in range(n)])
    results = []
    for shared in (False, True):  # the second time the result is also the last input
        for view in (False, True):
            gf = [IntGridFunction(columns[k]) if k == "int" else
                  SelectionViewGridFunction(every_cell, DoubleGridFunction(columns[k])) if view else
                  DoubleGridFunction(columns[k]) for k in ROCK[name]]
            if shared:
                gf[-2] = gf[-1]
            call(gf)
            results.append(np.array(gf[-1].values).tobytes())
    assert results[0] == results[1] and results[2] == results[3]
