"""column_map, region_totals and the engine's group_totals and volume_totals (kavra.volumetrics' rows) against
NumPy, on one thread and on two, and over dask."""

import math

import numpy as np
import pytest

import kavra
from kavra import _engine

GRID = (40, 30, 60)  # 72 000 cells: enough for the engine to split the columns over threads
NI, NJ, NK = GRID
RNG = np.random.default_rng(24)
VALUES = RNG.normal(100.0, 30.0, (NK, NJ, NI))
VALUES[3, 2, 1] = np.nan
WEIGHTS = RNG.uniform(0.0, 5.0, (NK, NJ, NI))
ACTIVE = RNG.random((NK, NJ, NI)) > 0.4
ACTIVE[:, 0, :5] = False  # columns without an active cell


def reference(reduce, values, weights, valid):
    """The map in NumPy, each column added in ascending K (as np.add.reduce over the first axis)."""
    valid = np.ones(values.shape, bool) if valid is None else valid
    if reduce in ("max", "min"):
        fill = -np.inf if reduce == "max" else np.inf
        result = getattr(np, reduce)(np.where(valid, values, fill), axis=0)
    else:
        w = np.ones(values.shape) if weights is None else weights
        total = np.zeros(values.shape[1:])
        weight = np.zeros(values.shape[1:])
        for k in range(values.shape[0]):
            total = total + np.where(valid[k], (w[k] * values[k] if weights is not None else values[k]), 0.0)
            weight = weight + np.where(valid[k], w[k], 0.0)
        with np.errstate(invalid="ignore", divide="ignore"):
            result = total / weight if reduce == "mean" else total
    empty = ~valid.any(axis=0)
    return np.ma.MaskedArray(np.where(empty, 0.0, result), mask=empty)


def in_layout(array, layout):
    return array if array is None or layout == "kji" else np.ascontiguousarray(array.transpose(2, 1, 0))


MAP_CASES = [(reduce, weighted, cells) for reduce in ("sum", "mean", "max", "min")
             for weighted, cells in [(False, "all"), (True, "all"), (False, "active"), (True, "masked"),
                                     (False, "masked"), (False, "float32")]
             if not (weighted and reduce in ("max", "min"))]


@pytest.mark.parametrize("layout", ["kji", "ijk"])
@pytest.mark.parametrize("reduce, weighted, cells", MAP_CASES)
def test_column_map_against_numpy(layout, reduce, weighted, cells):
    values = VALUES.astype(np.float32) if cells == "float32" else VALUES
    weights = WEIGHTS if weighted else None
    valid = None if cells in ("all", "float32") else ACTIVE
    expected = reference(reduce, values.astype(np.float64), weights, valid)
    given = in_layout(values, layout)
    arguments = {"weights": in_layout(weights, layout), "layout": layout}
    if cells == "active":
        arguments["active"] = in_layout(ACTIVE, layout).astype(np.int32)  # ACTNUM-like
    elif cells == "masked":
        given = np.ma.MaskedArray(given, mask=~in_layout(ACTIVE, layout))
    maps = [kavra.column_map(given, GRID, reduce, threads=t, **arguments) for t in (1, 2)]
    flat = kavra.column_map(np.ma.ravel(given), GRID, reduce, **arguments | {
        "weights": None if weights is None else in_layout(weights, layout).ravel(),
        "active": arguments.get("active", None) if cells != "active" else arguments["active"].ravel()})
    for result in [*maps, flat]:
        assert isinstance(result, np.ma.MaskedArray) and result.shape == (NJ, NI) and result.dtype == np.float64
        np.testing.assert_array_equal(result.mask, expected.mask)
        np.testing.assert_array_equal(result.data, expected.data)  # bit for bit, NaN where NumPy has it


def test_column_map_weights_broadcast_and_edge_columns():
    dz = np.array([1.0, 3.0, 0.0]).reshape(3, 1, 1)
    values = np.arange(6.0).reshape(3, 1, 2)
    got = kavra.column_map(values, (2, 1, 3), "mean", weights=dz)
    np.testing.assert_array_equal(got, [[(0 + 3 * 2) / 4, (1 + 3 * 3) / 4]])
    # weights that add up to 0 give NaN; masked weights leave their cells out
    zero = kavra.column_map(values, (2, 1, 3), "mean", weights=np.ma.masked_greater(dz, 0.5))
    assert np.isnan(zero).all() and not zero.mask.any()
    assert kavra.column_map(np.zeros((0, 2, 3)), (3, 2, 0)).mask.all()  # no layers: no cells
    assert kavra.column_map(np.array([7], np.int64), (1, 1, 1)).tolist() == [[7.0]]
    assert kavra.column_map(np.ones((2, 1, 3), bool), (3, 1, 2)).tolist() == [[2.0, 2.0, 2.0]]  # a count
    assert kavra.column_map(np.zeros((2, 0, 3)), (3, 0, 2), "max").shape == (0, 3)


@pytest.mark.parametrize("weights", [[1.0, -1.0], [-2.5, 2.5], [0.0, 0.0]])
def test_a_weighted_mean_whose_weights_add_up_to_zero_is_nan(weights):
    values = np.array([[[1.0, 2.0]], [[3.0, 4.0]]])
    got = kavra.column_map(values, (2, 1, 2), "mean", weights=np.reshape(weights, (2, 1, 1)))
    assert np.isnan(got.data).all() and not got.mask.any()


ERRORS = [
    ({"reduce": "median"}, ValueError, "reduce must be one of"),
    ({"reduce": "max", "weights": 1.0}, ValueError, "weights apply to 'sum' and 'mean'"),
    ({"weights": np.ones(5)}, ValueError, "do not broadcast"),
    ({"layout": "jik"}, ValueError, "layout must be"),
    ({"values": np.zeros((2, 3, 4))}, ValueError, "do not fit the grid"),
    ({"values": np.zeros((4, 3, 2), complex)}, TypeError, "must hold real numbers"),
    ({"active": np.ones((4, 3, 2), float)}, TypeError, "active must be a boolean"),
    ({"grid": [2, 3, 4]}, TypeError, "grid must be"),
    ({"threads": 0}, ValueError, "at least 1"),
]


@pytest.mark.parametrize("change, error, words", ERRORS, ids=[e[2] for e in ERRORS])
def test_column_map_refuses(change, error, words):
    arguments = {"values": np.zeros((4, 3, 2)), "grid": (2, 3, 4)} | change
    with pytest.raises(error, match=words):
        kavra.column_map(**arguments)


def test_region_totals_against_fsum():
    values = RNG.normal(0.0, 1e6, 200_000) * 10.0 ** RNG.integers(-8, 8, 200_000)
    regions = RNG.integers(-1, 6, 200_000)
    totals = [kavra.region_totals(values, regions, count=7, threads=t) for t in (1, 2)]
    expected = [math.fsum(values[regions == r]) for r in range(1, 8)]
    np.testing.assert_array_equal(totals[0], totals[1])
    np.testing.assert_allclose(totals[0], expected, rtol=1e-15, atol=0.0)
    assert totals[0][-1] == 0.0  # region 7 has no cell


@pytest.mark.parametrize("values, regions, expected", [
    ([1e16, 1.0, -1e16], 1, [1.0]),  # a plain sum gives 0.0
    (np.float32([0.1, 0.2]), [2, 2], [0.0, float(np.float32(0.1)) + float(np.float32(0.2))]),
    ([np.inf, 1.0, np.nan, 2.0], [1, 1, 2, 3], [np.inf, np.nan, 2.0]),
    (np.ma.masked_equal([1.0, 5.0, 2.0], 5.0), [1, 1, 1], [3.0]),
    ([1.0, 2.0, 4.0], np.ma.MaskedArray([1, 2, 1], mask=[0, 0, 1]), [1.0, 2.0]),
    (np.ones((2, 3)), [1, 2, 2], [2.0, 4.0]),  # regions broadcast along the layers
    (np.int64([2**53, 1, 1]), 1, [2.0**53 + 2]),
    ([], np.int32([]), []),
    ([], [], []),  # an empty list holds no region numbers, of whatever type
    ([1.0, 2.0], np.ma.MaskedArray(np.int64([1, 2**40]), mask=[0, 1]), [1.0]),  # masked: not looked at
    ([1.0, 2.0], np.ma.MaskedArray(np.int64([1, 2**31 - 1]), mask=[0, 1]), [1.0]),
])
def test_region_totals_cases(values, regions, expected):
    np.testing.assert_array_equal(kavra.region_totals(values, regions), expected)


@pytest.mark.parametrize("arguments, error, words", [
    (([1.0], [3], 2), ValueError, "region 3 is above count=2"),
    (([1.0], [1.5], None), TypeError, "regions must be integers"),
    (([1.0, 2.0], [1, 1, 1], None), ValueError, "do not broadcast"),
    (([1.0], [2**40], None), ValueError, "region numbers from"),
    ((["a"], [1], None), TypeError, "real numbers"),
    (([1.0], [1], 2.0), TypeError, "count must be an integer .*got float"),
    (([1.0], [1], True), TypeError, "count must be an integer .*got a bool"),
    (([1.0], [1], -1), ValueError, "count must be at least 0"),
    (([1.0], [2**31 - 1], None), ValueError, "region 2147483647 asks for 2147483647 totals, more than the 1 cells"),
    (([1.0], [1], 2**31 - 1), ValueError, "count=2147483647 asks for 2147483647 totals"),
    ((np.ones(4), [3, 2**24 + 1, 1, 1], None), ValueError, r"region 16777217 asks for .* \(2\*\*24\)"),
])
def test_region_totals_refuses(arguments, error, words):
    values, regions, count = arguments
    with pytest.raises(error, match=words):
        kavra.region_totals(values, regions, count=count)


@pytest.mark.parametrize("runs", [False, True])  # each cell's group drawn, or runs of cells of one group
@pytest.mark.parametrize("count", [1, 7, 40_000])  # blocks of 2^16 cells, and of 4 x count
def test_group_totals_give_region_totals_bits_of_every_column(count, runs):
    """The engine's totals of many columns in one pass (kavra.volumetrics' rows) against region_totals."""
    n = 300_001
    key = RNG.integers(-1, count + 2, n).astype(np.int32)  # 0, -1 and above count: no part
    if runs:
        key = np.repeat(key, 50)[:n]
    columns = (RNG.normal(0.0, 1e6, n) * 10.0 ** RNG.integers(-8, 8, n), RNG.random(n).astype(np.float32),
               np.where(RNG.random(n) < 1e-4, np.inf, 1.0))
    for threads in (1, 2):
        out = np.full((len(columns), count), np.nan)
        _engine.group_totals(key, columns, out, threads)
        for row, column in zip(out, columns):
            np.testing.assert_array_equal(row, kavra.region_totals(column, np.where(key > count, 0, key),
                                                                   count=count, threads=threads))


@pytest.mark.parametrize("key, columns, out", [
    (np.int32([1, 2]), (np.ones(3),), np.zeros((1, 2))),           # a column of another length
    (np.int32([1, 2]), [np.ones(2)], np.zeros((1, 2))),            # not a tuple
    (np.int64([1, 2]), (np.ones(2),), np.zeros((1, 2))),           # keys not int32
    (np.int32([1, 2]), (np.ones(2), np.ones(2)), np.zeros(3)),     # out not columns x count
    (np.int32([1, 2]), (np.int32([1, 2]),), np.zeros((1, 2))),     # a column not of floats
    (np.int32([1, 2]), (np.ones(4)[::2],), np.zeros((1, 2))),      # not contiguous
])
def test_group_totals_refuses(key, columns, out):
    with pytest.raises(ValueError, match="group_totals takes int32 keys"):
        _engine.group_totals(key, columns, out, 1)

def volume_inputs(n, kind):
    """Cells of every kind for volume_totals: saturations outside [0, 1], NaN, float32 pairs whose So is
    their rounding, cells of one phase, no oil or gas; float32, float64, or one value for several inputs."""
    sw = RNG.uniform(-0.1, 1.1, n)
    sg = np.where(RNG.random(n) < 0.3, 0.0, RNG.uniform(-0.05, 0.6, n))
    pairs = RNG.random(n) < 0.2
    sw[pairs] = np.float32(RNG.random(pairs.sum()))
    sg[pairs] = np.float32(1.0 - sw[pairs])
    sw[::997], sg[::1009] = np.nan, np.nan
    oil, gas = RNG.uniform(0.0, 1e3, n), RNG.uniform(0.0, 1e5, n)
    oil[RNG.random(n) < 0.1], gas[RNG.random(n) < 0.1] = 0.0, 0.0
    oil[::1013] = np.nan
    rs, rv = RNG.uniform(0.0, 200.0, n), RNG.uniform(0.0, 1e-3, n)
    rest = RNG.uniform(0.0, 1.0, (4, n))  # water, porv, bulk, ntg
    single = {"float32": range(10), "float64": (), "one value": (0, 2, 5, 7)}[kind]
    values = [v.astype(np.float32) if j in single else v for j, v in enumerate((sw, sg, oil, gas, *rest[:1], rs, rv,
                                                                                *rest[1:]))]
    if kind == "one value":  # sg, porv and ntg one for all cells
        values[1], values[7], values[9] = values[1][:1], values[7][:1], values[9][:1]
    return values


def numpy_columns(sw, sg, oil, gas, water, rs, rv, porv, bulk, ntg, rounded):
    """Each cell's nine columns and fluid zone (1 oil, 2 gas, 3 water) by the NumPy steps that
    kavra.volumetrics took before the engine took them."""
    n = max(map(np.size, (sw, oil)))
    so = np.subtract(1.0, sw, dtype=np.float64) - sg
    if rounded:
        so[np.abs(so) < 2.0**-23] = 0.0
    hydrocarbon = np.clip(np.clip(so, 0.0, 1.0) + np.clip(sg, 0.0, 1.0), 0.0, 1.0)
    oil, gas = np.broadcast_to(oil, n).astype(np.float64), np.broadcast_to(gas, n).astype(np.float64)
    liquid, free = oil, gas
    det = 1.0 if rs is None or rv is None else 1.0 - np.multiply(rs, rv, dtype=np.float64)
    if rv is not None:
        liquid = np.clip((oil - gas * rv) / det, 0.0, oil)
    if rs is not None:
        free = np.clip((gas - oil * rs) / det, 0.0, gas)
    liquid, free = np.where(so > 0.0, liquid, 0.0), np.where(np.broadcast_to(sg, n) > 0.0, free, 0.0)
    liquid, free = np.where(free == 0.0, oil, liquid), np.where(liquid == 0.0, gas, free)
    fluid = np.where(free > 0.0, 2, np.where(liquid > 0.0, 1, 3))
    columns = [bulk, np.multiply(bulk, ntg, dtype=np.float64), porv, porv * hydrocarbon, liquid, free, gas - free,
               oil - liquid, water]
    return [np.broadcast_to(c, n).astype(np.float64) for c in columns], fluid


def volume_rows(values, rounded, active, zones, regions, region_count, count, threads):
    out, cells = np.full((9, count), np.nan), np.full(count, -1, dtype=np.int64)
    bad = _engine.volume_totals(tuple(values), rounded, active, zones, regions, region_count, out, cells, threads)
    return out, cells, bad


@pytest.mark.parametrize("ratios", ["both", "rs", "rv", "none"])
@pytest.mark.parametrize("kind", ["float32", "float64", "one value"])
def test_volume_totals_rows_are_region_totals_of_each_cells_numpy_steps(kind, ratios):
    """Each cell's quantities against NumPy's steps (each cell its own zone: rows of one cell), and rows of
    many cells against region_totals of those, the same bits on one thread and on two."""
    n = 200_003
    values = volume_inputs(n, kind)
    values[5] = values[5] if ratios in ("both", "rs") else None
    values[6] = values[6] if ratios in ("both", "rv") else None
    rounded = kind == "float32"
    columns, fluid = numpy_columns(*values, rounded=rounded)
    active = RNG.random(n) < 0.9
    few = 6007  # cells of their own rows, one zone (layer) each
    one_each = (None, None, np.arange(few, dtype=np.int32), 1)
    out, cells, bad = volume_rows([v[:few] if v is not None and v.size == n else v for v in values], rounded,
                                  np.ones(few, bool), one_each, (np.ones(few, np.int32), None, np.int32([-1, 0]), 0), 1,
                                  3 * few, 1)
    assert bad == -1
    assert (cells.reshape(few, 3) == (np.arange(1, 4) == fluid[:few, None])).all()
    for got, expected in zip(out, columns):
        np.testing.assert_array_equal(got.reshape(few, 3)[np.arange(few), fluid[:few] - 1], expected[:few])

    numbers = RNG.integers(-1, 7, n).astype(np.int32)  # numbers 1..4 in regions 0..3; 5 in none, -1, 0 and 6 none
    masked = RNG.random(n) < 0.05
    table = np.int32([-1, 0, 1, 2, 3, -1])
    layers = (np.arange(n // 1000 + 1) % 2).astype(np.int32)  # two zones, alternate layers of 1000 cells
    key = np.where(active & ~masked & (numbers >= 1) & (numbers <= 4),
                   (layers[np.arange(n) // 1000] * 4 + table[np.clip(numbers, 0, 5)]) * 3 + fluid, 0).astype(np.int32)
    for threads in (1, 2):
        out, cells, bad = volume_rows(values, rounded, active, (None, None, layers, 1000), (numbers, masked, table, 0),
                                      4, 24, threads)
        assert bad == -1
        np.testing.assert_array_equal(cells, np.bincount(key, minlength=25)[1:])
        for got, column in zip(out, columns):
            np.testing.assert_array_equal(got, kavra.region_totals(column, key, count=24, threads=threads))


def test_volume_totals_give_the_first_cell_whose_rs_rv_is_1_or_more():
    n = 100_000
    values = volume_inputs(n, "float64")
    values[5][[70_001, 90_000]] = 2.0 / values[6][[70_001, 90_000]]  # Rs x Rv = 2 in two cells of two blocks
    for threads in (1, 2):
        *_, bad = volume_rows(values, False, np.ones(n, bool), (None, None, np.int32([0]), n),
                              (np.ones(n, np.int32), None, np.int32([-1, 0]), 0), 1, 3, threads)
        assert bad == 70_001


GOOD = {"values": tuple(np.ones(4) for _ in range(10)), "active": np.ones(4, bool),
        "zones": (None, None, np.int32([0, 1]), 2), "regions": (np.int32([1, 1, 2, 2]), None, np.int32([-1, 0, 1]), 0),
        "region_count": 2, "out": np.zeros((9, 12)), "row_cells": np.zeros(12, np.int64)}


@pytest.mark.parametrize("change", [
    {"regions": (np.int32([1, 1, 2, 2]), None, np.int32([-1, 0, 2]), 0)},  # a group past the regions
    {"zones": (None, None, np.int32([0, 2]), 2)},                            # a group past the zones
    {"zones": (None, None, np.int32([0]), 2)},                               # layers past the table
    {"zones": (None, None, np.int32([0, 1]), 0)},                            # no cells per layer
    {"regions": (np.int32([1, 1, 2]), None, np.int32([-1, 0, 1]), 0)},      # numbers of another length
    {"regions": (np.int64([1, 1, 2, 2]), None, np.int32([-1, 0, 1]), 0)},   # numbers not int32
    {"regions": (np.int32([1, 1, 2, 2]), np.ones(3, bool), np.int32([-1, 0, 1]), 0)},  # a mask of another length
    {"values": tuple(np.ones(4) for _ in range(9))},                          # nine values
    {"values": (np.ones(3),) + tuple(np.ones(4) for _ in range(9))},          # sw of another length
    {"values": (None,) + tuple(np.ones(4) for _ in range(9))},                # sw left out
    {"values": (np.int32([1, 1, 1, 1]),) + tuple(np.ones(4) for _ in range(9))},  # not floats
    {"out": np.zeros((9, 10))},                                              # rows not zones x 2 regions x 3
    {"row_cells": np.zeros(11, np.int64)},                                   # counts of another length
    {"out": np.zeros((9, 12), np.float32)},                                  # out not float64
])
def test_volume_totals_refuses(change):
    arguments = {**GOOD, **change}
    with pytest.raises(ValueError, match="volume_totals takes"):
        _engine.volume_totals(arguments["values"], False, arguments["active"], arguments["zones"],
                              arguments["regions"], arguments["region_count"], arguments["out"],
                              arguments["row_cells"], 1)


@pytest.mark.parametrize("threads", [1, 2])
def test_number_counts(threads):
    numbers = RNG.integers(-3, 40, 300_001).astype(np.int32)
    masked = RNG.random(numbers.size) < 0.1
    for mask in (None, masked):
        out = np.full(30, -1, dtype=np.int64)  # numbers 30..39 past out, below 0: no part
        _engine.number_counts(numbers, mask, out, threads)
        kept = numbers[(numbers >= 0) & (numbers < 30) & (True if mask is None else ~mask)]
        np.testing.assert_array_equal(out, np.bincount(kept, minlength=30))


@pytest.mark.parametrize("layout", ["kji", "ijk"])
@pytest.mark.parametrize("reduce", ["sum", "mean", "max", "min"])
def test_dask_column_map_same_bits(layout, reduce):
    da = pytest.importorskip("dask.array")
    import kavra.dask

    values, active = in_layout(VALUES, layout), in_layout(ACTIVE, layout)
    weights = None if reduce in ("max", "min") else in_layout(WEIGHTS[:, :1, :1], layout)
    lazy = kavra.dask.column_map(da.from_array(values, chunks=(17, 11, 13)), GRID, reduce, weights=weights,
                                 active=da.from_array(active, chunks=20), layout=layout)
    got = lazy.compute()
    expected = kavra.column_map(values, GRID, reduce, weights=weights, active=active, layout=layout)
    assert lazy.shape == (NJ, NI)
    np.testing.assert_array_equal(got.mask, expected.mask)
    np.testing.assert_array_equal(got.data, expected.data)


def unusual(values, kind):
    """`values` at an odd byte (as a Dask worker's unpickled chunk may be), or big-endian."""
    if kind == "big-endian":
        return values.astype(values.dtype.newbyteorder(">"))
    raw = np.zeros(values.nbytes + 1, dtype=np.uint8)
    odd = raw[1:].view(values.dtype).reshape(values.shape)
    odd[...] = values
    assert not odd.flags.aligned
    return odd


@pytest.mark.parametrize("kind", ["misaligned", "big-endian"])
@pytest.mark.parametrize("call, given", [
    (lambda v: kavra.column_map(v, GRID, "mean", weights=WEIGHTS), np.nan_to_num(VALUES)),
    (lambda v: kavra.column_map(VALUES, GRID, "mean", weights=v), WEIGHTS),
    (lambda v: kavra.region_totals(v, (np.arange(v.size) % 7 + 1).reshape(v.shape)), np.nan_to_num(VALUES)),
    (lambda v: kavra.kaverage(v, GRID), np.nan_to_num(VALUES)),
], ids=["column_map", "column_map weights", "region_totals", "kaverage"])
def test_arrays_at_any_byte_or_byte_order_give_the_same_bits(call, given, kind):
    expected = np.ma.getdata(call(given))
    np.testing.assert_array_equal(np.ma.getdata(call(unusual(given, kind))), expected)
