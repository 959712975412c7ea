"""column_map, region_totals and the engine's group_totals against NumPy, on one thread and on two, and over dask."""

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
