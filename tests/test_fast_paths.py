"""The fast paths against a plain rendering of the documented steps, on random
data: short and long tables, unsorted tables, repeated keys, NaN and infinities,
regions in runs, failures inside the cell walk, and reductions of wide and
large grids, partial layers, unaligned and strided arrays.  Results must be
bit for bit the same (NaN compared as NaN)."""

import numpy as np
import pytest
from tessel import (
    DoubleGridFunction, FloatGridFunction, IntGridFunction, ReservoirSelectionTopology, ReservoirTopology,
    SelectionViewGridFunction,
)

import kavra
import pvt_reference as ref
from test_pvt import CALCS

nan, inf = float("nan"), float("inf")
SPECIAL = [nan, inf, -inf, 0.0, -0.0]
# One row, brackets only at the ends, lines searched by counting, and longer ones searched by halving.
ROWS = [1, 2, 3, 5, 16, 31, 32, 33, 47]
ORDERS = ["ascending", "repeated", "unsorted", "with NaN"]


def assert_same_bits(got, expected):
    got, expected = np.asarray(got), np.asarray(expected, dtype=got.dtype)
    assert got.shape == expected.shape
    np.testing.assert_array_equal(np.isnan(got), np.isnan(expected))
    kind = {4: np.uint32, 8: np.uint64}[got.dtype.itemsize]
    mismatch = (got.view(kind) != expected.view(kind)) & ~np.isnan(got)
    assert not mismatch.any(), f"first differences at {np.flatnonzero(mismatch)[:5]}"


# --- PVT tables as plain data ------------------------------------------------------

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


def points(rng, first, order):
    """An under_sat list that starts with `first`: short, ascending or in the table's order."""
    m = int(rng.choice([1, 2, 4, 7, 40]))
    xs = keys(rng, m, order)
    xs[0] = first[0]
    return [first] + list(zip(xs[1:], ordinates(rng, m - 1)))


def table(rng, name, order):
    n = int(rng.choice(ROWS))
    if name == "CalcOneOverBw":
        return (float(rng.uniform(0.0, 400.0)), float(rng.choice([1.02, 0.0, nan])), float(rng.uniform(-1e-3, 1e-3)))
    if name == "CalcOneOverB":
        return list(zip(keys(rng, n, order), ordinates(rng, n)))
    outer = keys(rng, n, order)  # Rs of live oil, Pg of wet gas
    saturated = list(zip(keys(rng, n, order), ordinates(rng, n)))  # (P, B) of oil, (Rv, B) of gas
    return [(outer[r], points(rng, saturated[r], order)) for r in range(n)]


def cell_inputs(rng, name, tables, n):
    """Values inside and beyond the tables, exact keys of them, and special values."""
    known = [0.0]
    for t in tables:
        if name == "CalcOneOverBw":
            known.append(t[0])
        elif name == "CalcOneOverB":
            known += [row[0] for row in t]
        else:
            known += [row[0] for row in t] + [p[0] for row in t for p in row[1]]
    columns = []
    for _ in CALCS[name]["inputs"]:
        values = rng.uniform(-50.0, 450.0, n)
        pick = rng.random(n)
        values[pick < 0.3] = rng.choice(known, n)[pick < 0.3]
        values[pick > 0.97] = rng.choice(SPECIAL, n)[pick > 0.97]
        columns.append(values)
    if name in ("CalcOneOverBo", "CalcOneOverBg"):  # saturated cells, and cells at the tolerance
        first, second = columns[0], columns[1]
        near = rng.random(n)
        second[near < 0.2] = first[near < 0.2]
        second[(near >= 0.2) & (near < 0.3)] = first[(near >= 0.2) & (near < 0.3)] + rng.choice(
            [0.00005, -0.00005, 0.0001, -0.0001], n)[(near >= 0.2) & (near < 0.3)]
    return columns


def region_runs(rng, n, numbers):
    """Region numbers in runs of random length, as regions of a grid lie in blocks."""
    regions = []
    while len(regions) < n:
        regions += [int(rng.choice(numbers))] * int(rng.integers(1, 120))
    return regions[:n]


def calculate(name, tables, regions, inputs, variant):
    """Runs the calculation on grid functions of a variant; returns the values it saw and the result."""
    n = len(regions)
    if variant == "float":
        seen = [np.asarray(v, dtype=np.float32).astype(np.float64) for v in inputs]
        make, region_gf, result = FloatGridFunction, IntGridFunction(regions), FloatGridFunction([123.0] * n)
    else:
        seen = [np.asarray(v, dtype=np.float64) for v in inputs]
        make, result = DoubleGridFunction, DoubleGridFunction([123.0] * n)
        # regions held as doubles take the generic path
        region_gf = DoubleGridFunction(np.array(regions, float)) if variant == "generic" else IntGridFunction(regions)
    error = None
    try:
        CALCS[name]["call"](CALCS[name]["make"](tables), region_gf, *(make(v) for v in seen), result)
    except RuntimeError as failure:
        error = str(failure)
    return [list(map(float, v)) for v in seen], result.values, error


def expected_result(name, tables, regions, seen, dtype):
    calc = CALCS[name]
    empty_text = (calc["empty"] or ("", ""))[1]
    check_empty = calc["empty"] is not None
    try:
        values, failure = ref.cells(regions, tables, calc["reference"], seen, empty_text, check_empty), None
    except ref.CellFailure as stop:
        failure = stop
        values = ref.cells(regions[: stop.cell], tables, calc["reference"], seen) + [123.0] * (len(regions) - stop.cell)
    with np.errstate(over="ignore"):
        return np.array(values, dtype=dtype), failure


@pytest.mark.parametrize("variant", ["double", "float", "generic"])
@pytest.mark.parametrize("order", ORDERS)
@pytest.mark.parametrize("name", CALCS)
def test_calculations_equal_the_documented_steps(name, order, variant):
    rng = np.random.default_rng([ORDERS.index(order), list(CALCS).index(name)])
    for _ in range(3):
        tables = [table(rng, name, order) for _ in range(3)]
        regions = region_runs(rng, 1500, [-1, 0, 1, 2, 3])
        seen, got, error = calculate(name, tables, regions, cell_inputs(rng, name, tables, len(regions)), variant)
        expected, failure = expected_result(name, tables, regions, seen, got.dtype)
        assert error is None and failure is None
        assert_same_bits(got, expected)


@pytest.mark.parametrize("variant", ["double", "generic"])
@pytest.mark.parametrize(
    "name, bad",
    [(name, bad) for name in CALCS for bad in ("region beyond the list", "empty table")
     if bad != "empty table" or CALCS[name]["empty"]],
)
def test_a_failure_inside_the_walk_keeps_the_cells_before_it(name, bad, variant):
    rng = np.random.default_rng(list(CALCS).index(name))
    tables = [table(rng, name, "ascending") for _ in range(2)]
    if bad == "empty table":
        tables.append([])
    regions = region_runs(rng, 800, [0, 1, 2])
    stop = int(rng.integers(300, 700))
    regions[stop : stop + 40] = [3 if bad == "empty table" else 4] * 40
    seen, got, error = calculate(name, tables, regions, cell_inputs(rng, name, tables, len(regions)), variant)
    expected, failure = expected_result(name, tables, regions, seen, got.dtype)
    assert failure is not None and failure.cell == min(c for c, r in enumerate(regions) if r in (3, 4))
    assert error is not None and error.endswith(f" {failure}\n")
    assert_same_bits(got, expected)


@pytest.mark.parametrize("name", CALCS)
def test_result_that_is_also_an_input(name):
    rng = np.random.default_rng(11)
    tables = [table(rng, name, "ascending") for _ in range(2)]
    regions = region_runs(rng, 600, [0, 1, 2])
    inputs = [np.asarray(v) for v in cell_inputs(rng, name, tables, len(regions))]
    shared = DoubleGridFunction(inputs[0])
    others = [DoubleGridFunction(v) for v in inputs[1:]]
    CALCS[name]["call"](CALCS[name]["make"](tables), IntGridFunction(regions), shared, *others, shared)
    expected = ref.cells(regions, tables, CALCS[name]["reference"], [list(map(float, v)) for v in inputs])
    assert_same_bits(shared.values, np.array(expected))


# --- K reductions -------------------------------------------------------------------

REDUCTIONS = [kavra.KMax, kavra.KMin, kavra.KSum, kavra.KAverage]


def column_values(reduction, dtype, groups):
    """The documented accumulation of each column's values, in the order given."""
    dtype = np.dtype(dtype)
    start = {"KMax": 0, "KMin": np.finfo(dtype).max if dtype.kind == "f" else np.iinfo(dtype).max}
    accumulator = np.full(len(groups), start.get(reduction.__name__, 0), dtype=dtype)
    counts = np.zeros(len(groups), dtype=np.int64)
    depth = max((len(g) for g in groups), default=0)
    with np.errstate(over="ignore", invalid="ignore"):
        for layer in range(depth):  # the values of all columns at one position at a time
            has = np.array([len(g) > layer for g in groups])
            v = np.array([g[layer] if len(g) > layer else 0 for g in groups], dtype=dtype)
            a = accumulator
            if reduction is kavra.KMax:
                accumulator = np.where(has & (a < v), v, a)
            elif reduction is kavra.KMin:
                accumulator = np.where(has & (v < a), v, a)
            else:
                accumulator = np.where(has, a + v, a)
            counts += has
        if reduction is kavra.KAverage:
            if dtype.kind == "f":
                accumulator = accumulator / np.maximum(counts, 1).astype(dtype)
            else:  # truncation toward zero, in Python integers
                accumulator = np.array([int(s) // int(c) if s >= 0 else -(-int(s) // int(c)) for s, c in
                                        zip(accumulator, np.maximum(counts, 1))], dtype=dtype)
    return accumulator.astype(dtype)


def random_values(rng, dtype, n):
    dtype = np.dtype(dtype)
    if dtype.kind == "f":
        values = rng.normal(0.0, 1e3, n).astype(dtype)
        special = rng.random(n) < 0.01
        values[special] = rng.choice(SPECIAL, n)[special]
        return values
    info = np.iinfo(dtype)
    return rng.integers(info.min, info.max, n, dtype=dtype, endpoint=True)


@pytest.mark.parametrize("dtype", list("iIlLfd"))
@pytest.mark.parametrize("shape", [(3, 4, 5), (130, 70, 3), (130, 70, 30)], ids=["small", "wide", "streamed"])
@pytest.mark.parametrize("reduction", REDUCTIONS, ids=lambda f: f.__name__)
def test_grid_reductions_equal_the_documented_steps(reduction, shape, dtype):
    rng = np.random.default_rng(list(shape))
    ni, nj, nk = shape
    grid = ReservoirTopology(ni, nj, nk)
    values = random_values(rng, dtype, ni * nj * nk)
    layers = values.reshape(nk, nj * ni)
    expected = np.tile(column_values(reduction, dtype, [layers[:, c] for c in range(ni * nj)]), nk)
    assert_same_bits(reduction(grid, values.reshape(nk, nj, ni)).ravel(), expected)
    # a C-contiguous 1D array that starts one byte into its buffer
    unaligned = np.frombuffer(bytearray(values.nbytes + 1), dtype=values.dtype, offset=1, count=values.size)
    unaligned[...] = values
    assert_same_bits(reduction(grid, np.asarray(unaligned)), expected)


@pytest.mark.parametrize("grid, n", [((2, 32769, 65535), 65534), ((2, 32896, 65282), 66048)],
                         ids=["inside one layer", "one layer and a part"])
@pytest.mark.parametrize("reduction", REDUCTIONS, ids=lambda f: f.__name__)
def test_grid_input_that_ends_inside_a_layer(reduction, grid, n):
    # nI * nJ * nK exceeds 2^32 by n, so a 1D array of n elements passes the 32-bit size check
    ni, nj, nk = grid
    assert (ni * nj * nk) % 2**32 == n
    values = random_values(np.random.default_rng(n), "d", n)
    columns = ni * nj
    groups = [values[c::columns] for c in range(min(columns, n))]
    expected = column_values(reduction, "d", groups)[np.arange(n) % columns]
    assert_same_bits(reduction(ReservoirTopology(*grid), values), expected)


@pytest.mark.parametrize("dtype", list("iIlLfd"))
@pytest.mark.parametrize("reduction", REDUCTIONS, ids=lambda f: f.__name__)
def test_selection_reductions_equal_the_documented_steps(reduction, dtype):
    rng = np.random.default_rng(7)
    ni, nj, nk = 40, 30, 12
    cells = np.column_stack([rng.integers(0, ni, 9000), rng.integers(0, nj, 9000), rng.integers(0, nk, 9000)])
    cells[4000:4500] = cells[:500]  # entries that stand twice
    selection = ReservoirSelectionTopology(ReservoirTopology(ni, nj, nk), cells)
    values = random_values(rng, dtype, 2 * len(cells))[::-2]  # read through a negative stride
    column = cells[:, 0] + ni * cells[:, 1]
    groups = [values[column == c] for c in range(ni * nj)]
    expected = column_values(reduction, dtype, groups)[column]
    assert_same_bits(reduction(selection, values), expected)


# The rock calculations read array grid functions' buffers directly and any
# other grid function through its accessors: both must give the same bits,
# also when one grid function stands in two places.
ROCK_CALLS = {
    "CalcPorosity": (lambda gf, rock: kavra.CalcPorosity(rock, *gf), ("int", "po", "poro", "out")),
    "CalcPorosityFromPORV": (lambda gf, rock: kavra.CalcPorosityFromPORV(*gf), ("bulk", "porv", "out")),
    "CalcBulkVolume3": (lambda gf, rock: kavra.CalcBulkVolume(*gf), ("porv", "poro", "out")),
    "CalcBulkVolume2": (lambda gf, rock: kavra.CalcBulkVolume(*gf), ("ntg", "out")),
}


@pytest.mark.parametrize("name", sorted(ROCK_CALLS))
def test_rock_buffers_and_accessors_agree(name):
    call, kinds = ROCK_CALLS[name]
    rng = np.random.default_rng(11)
    n = 400
    special = np.array([0.0, -0.0, -1.0, np.nan, np.inf, 1e-300])
    columns = {
        "int": rng.integers(-1, 4, n).astype(np.int32),
        "po": rng.uniform(100.0, 400.0, n),
        "poro": np.where(rng.random(n) < 0.1, rng.choice(special, n), rng.uniform(0.0, 0.6, n)),
        "bulk": np.where(rng.random(n) < 0.1, rng.choice(special, n), rng.uniform(500.0, 1500.0, n)),
        "porv": rng.uniform(0.0, 900.0, n),
        "ntg": np.where(rng.random(n) < 0.1, rng.choice(special, n), rng.uniform(0.0, 1.2, n)),
        "out": rng.uniform(-1.0, 1.0, n),
    }
    rock = kavra.TRockList([kavra.TRock(kavra.TScalar(p, "", ""), kavra.TScalar(c, "", ""))
                            for p, c in ((250.0, 4e-3), (180.0, -2e-3), (300.0, 0.0))])
    every_cell = ReservoirSelectionTopology(ReservoirTopology(n, 1, 1), [[i, 0, 0] for i in range(n)])

    def direct():
        return [IntGridFunction(columns[k]) if k == "int" else DoubleGridFunction(columns[k]) for k in kinds]

    def through_views():
        return [IntGridFunction(columns[k]) if k == "int"
                else SelectionViewGridFunction(every_cell, DoubleGridFunction(columns[k])) for k in kinds]

    results = []
    for make in (direct, through_views):
        gf = make()
        call(gf, rock)
        results.append(np.array(gf[-1].values).tobytes())
    assert results[0] == results[1]

    # One grid function as input and result: each cell is read before it is written.
    for make in (direct, through_views):
        gf = make()
        gf[-2] = gf[-1]
        before = np.array(gf[-1].values)
        call(gf, rock)
        if name == "CalcBulkVolume2":
            np.testing.assert_array_equal(gf[-1].values, before * before)
        results.append(np.array(gf[-1].values).tobytes())
    assert results[2] == results[3]
