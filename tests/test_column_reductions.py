"""KMax, KMin, KSum and KAverage over the columns of a grid or a selection."""

import gc
import sys
import tracemalloc

import numpy as np
import pytest
from tessel import ReservoirSelectionTopology, ReservoirTopology

import kavra

DTYPES = [np.dtype(c) for c in "iIlLfd"]
SIGNED = [np.dtype(c) for c in "ilfd"]
FLOATS = [np.dtype(c) for c in "fd"]
REDUCTIONS = [kavra.KMax, kavra.KMin, kavra.KSum, kavra.KAverage]
KINDS = ["grid", "selection"]
NAME = lambda f: f.__name__  # noqa: E731
inf, nan = np.inf, np.nan


def reduce_one_column(kind, reduction, values):
    """The reduction of one column holding `values`; every cell must get it."""
    values = np.asarray(values)
    n = len(values)
    if kind == "grid":
        result = reduction(ReservoirTopology(1, 1, n), values)
    else:  # column i=1 of a wider grid, selected bottom-up
        selection = ReservoirSelectionTopology(ReservoirTopology(2, 1, n), [[1, 0, k] for k in reversed(range(n))])
        result = reduction(selection, values)
    assert result.dtype == values.dtype and result.shape == (n,)
    assert (result == result[0]).all() or np.isnan(result).all()
    return result[0]


@pytest.mark.parametrize("dtype", DTYPES, ids=str)
@pytest.mark.parametrize(
    "reduction, expected",
    [(kavra.KSum, [4, 6, 4, 6]), (kavra.KAverage, [2, 3, 2, 3]),
     (kavra.KMax, [3, 4, 3, 4]), (kavra.KMin, [1, 2, 1, 2])],
    ids=["sum", "average", "max", "min"],
)
@pytest.mark.parametrize("layout", ["1d", "3d", "selection"])
def test_two_by_one_by_two_grid(layout, reduction, expected, dtype):
    grid = ReservoirTopology(2, 1, 2)
    values = np.array([1, 2, 3, 4], dtype)
    topology = grid
    if layout == "selection":  # every cell, in cell order
        topology = ReservoirSelectionTopology(grid, [[0, 0, 0], [1, 0, 0], [0, 0, 1], [1, 0, 1]])
    given = values.reshape(2, 1, 2) if layout == "3d" else values
    result = reduction(topology, given)
    assert result.dtype == dtype and result.shape == given.shape
    assert not np.shares_memory(result, given)
    np.testing.assert_array_equal(result.ravel(), np.array(expected, dtype))
    np.testing.assert_array_equal(values, [1, 2, 3, 4])


@pytest.mark.parametrize("dtype", DTYPES, ids=str)
def test_columns_of_a_wider_grid(dtype):
    # Values are cell numbers: column b = i + 3 * j holds b, b + 12, ..., b + 48.
    grid, c = ReservoirTopology(3, 4, 5), np.arange(60)
    base = c % 12
    # The whole grid as a selection in reverse order, read through a negative stride.
    reverse = ReservoirSelectionTopology(grid, np.column_stack([c % 3, c // 3 % 4, c // 12])[::-1])
    expected = {kavra.KMin: base, kavra.KMax: base + 48, kavra.KSum: 5 * base + 120, kavra.KAverage: base + 24}
    for reduction, column_values in expected.items():
        values, column_values = c.astype(dtype), column_values.astype(dtype)
        np.testing.assert_array_equal(reduction(grid, values.reshape(5, 4, 3)).ravel(), column_values)
        np.testing.assert_array_equal(reduction(reverse, values[::-1]), column_values[::-1])


BIG = {"i": 2**31 - 1, "I": 2**32 - 1, "l": 2**63 - 1, "L": 2**64 - 1}
COLUMN_CASES = [
    # KMax starts at 0, KMin at the largest finite value; both pass NaN over.
    *[(kavra.KMax, d, [-3, -1], 0) for d in SIGNED],
    *[(kavra.KMax, d, [-inf, -inf], 0) for d in FLOATS],
    *[(kavra.KMin, d, [inf], np.finfo(d).max) for d in FLOATS],
    *[(kavra.KMax, d, [nan, nan], 0) for d in FLOATS],
    *[(kavra.KMin, d, [nan, nan], np.finfo(d).max) for d in FLOATS],
    *[(f, d, [nan, 2, nan], 2) for f in (kavra.KMax, kavra.KMin) for d in FLOATS],
    *[(f, d, [1, nan], nan) for f in (kavra.KSum, kavra.KAverage) for d in FLOATS],
    # Unsigned comparisons and the full range of each type.
    *[(kavra.KMin, np.dtype(c), [big], big) for c, big in BIG.items()],
    *[(kavra.KMax, np.dtype(c), [big, 0], big) for c, big in BIG.items() if c in "IL"],
    # Integer sums wrap at the width of T; averages truncate toward zero.
    *[(kavra.KSum, np.dtype(c), [big, 1], -big - 1 if c in "il" else 0) for c, big in BIG.items()],
    (kavra.KAverage, np.dtype("i"), [2**31 - 1, 1], -(2**30)),
    *[(kavra.KAverage, np.dtype(c), [-3, 0], -1) for c in "il"],
    *[(kavra.KAverage, d, [1, 2], 1) for d in DTYPES[:4]],
    *[(kavra.KAverage, d, [1, 2], 1.5) for d in FLOATS],
    # Float sums keep T's precision and add bottom-up (K ascending).
    (kavra.KSum, np.dtype("f"), [1, 1e8, -1e8], 0),
    (kavra.KSum, np.dtype("d"), [1, 1e17, -1e17], 0),
    (kavra.KAverage, np.dtype("f"), [1, 1e8, -1e8], 0),
    # One-cell columns.
    *[(f, d, [7], 7) for f in REDUCTIONS for d in DTYPES],
    *[(kavra.KMax, d, [-7], 0) for d in SIGNED],
]


@pytest.mark.parametrize("kind", KINDS)
@pytest.mark.parametrize(
    "reduction, dtype, values, expected",
    COLUMN_CASES,
    ids=[f"{f.__name__}-{d}-{v}" for f, d, v, _ in COLUMN_CASES],
)
def test_column_values(kind, reduction, dtype, values, expected):
    got = reduce_one_column(kind, reduction, np.array(values, dtype))
    np.testing.assert_array_equal(got, np.array(expected, dtype))


@pytest.mark.parametrize("reduction, expected", [(kavra.KSum, [6, 6, 5, 6]), (kavra.KAverage, [2, 2, 5, 2])])
def test_repeated_selection_entries_count_each_time(reduction, expected):
    selection = ReservoirSelectionTopology(ReservoirTopology(2, 1, 2), [[0, 0, 0], [0, 0, 0], [1, 0, 1], [0, 0, 1]])
    np.testing.assert_array_equal(reduction(selection, np.array([1.0, 1.0, 5.0, 4.0])), expected)


@pytest.mark.parametrize("reduction", REDUCTIONS, ids=NAME)
@pytest.mark.parametrize(
    "make",
    [lambda v: np.repeat(v, 3)[::3], lambda v: np.broadcast_to(v[:1], v.shape)],
    ids=["step", "broadcast"],
)
def test_selection_reads_any_stride(make, reduction):
    cells = [[2, 1, 1], [0, 0, 0], [2, 1, 0], [0, 0, 1], [1, 1, 1]]
    selection = ReservoirSelectionTopology(ReservoirTopology(3, 2, 2), cells)
    given = make(np.array([4.0, -2.0, 9.0, 3.0, 5.0]))
    np.testing.assert_array_equal(reduction(selection, given), reduction(selection, np.ascontiguousarray(given)))


GRID = ReservoirTopology(2, 3, 4)
SELECTION = ReservoirSelectionTopology(GRID, [[0, 0, 0], [1, 2, 3]])
SHAPE_CASES = [
    *[(t, a, "Wrong array type, expecting a numpy array!")
      for t in (GRID, SELECTION) for a in ([1.0, 2.0], (1.0,), 3.0, None)],
    (GRID, np.zeros((4, 3, 2), order="F"), "Wrong array layout, expecting a contiguous numpy array!"),
    (GRID, np.zeros(48)[::2], "Wrong array layout, expecting a contiguous numpy array!"),
    (GRID, np.zeros((6, 8))[:, ::2], "Wrong array layout, expecting a contiguous numpy array!"),
    (GRID, np.zeros((4, 6)), "Wrong array dimension! Expecting 1D or 3D"),
    (GRID, np.zeros(25), "Wrong 1D array size!"),
    (GRID, np.zeros((2, 3, 4)), "Wrong 3D array size!"),
    (GRID, np.zeros(25, "q"), "Wrong 1D array size!"),
    (ReservoirTopology(0, 3, 2), np.zeros((0, 3, 2)), "Wrong 3D array size!"),
    (SELECTION, np.zeros((1, 1, 2)), "Wrong array dimension!"),
    (SELECTION, np.zeros(24), "Wrong array size!"),
]


@pytest.mark.parametrize("reduction", REDUCTIONS, ids=NAME)
@pytest.mark.parametrize("topology, given, message", SHAPE_CASES)
def test_arrays_that_do_not_fit_are_refused(reduction, topology, given, message):
    with pytest.raises(ValueError) as info:
        reduction(topology, given)
    assert str(info.value) == message


@pytest.mark.parametrize("reduction", REDUCTIONS, ids=NAME)
@pytest.mark.parametrize("kind", KINDS)
@pytest.mark.parametrize("dtype", ["q", "Q", "b", "B", "h", "H", "e", "g", "?", "O", "D", "M8[s]", "U1"])
def test_unsupported_element_types_are_refused(dtype, kind, reduction):
    given = np.zeros(2, dtype)
    with pytest.raises(ValueError) as info:
        reduction(SELECTION if kind == "selection" else ReservoirTopology(1, 1, 2), given)
    assert str(info.value) == f"Unsupported array data type = {np.dtype(dtype).num}!\n"


@pytest.mark.parametrize("reduction", REDUCTIONS, ids=NAME)
@pytest.mark.parametrize(
    "topology, given",
    [
        (ReservoirTopology(0, 3, 2), np.zeros(0, "i")),
        (ReservoirTopology(0, 3, 2), np.zeros((2, 3, 0), "L")),
        (ReservoirTopology(4, 0, 0), np.zeros((0, 0, 4), "f")),
        (ReservoirSelectionTopology(GRID, np.zeros((0, 3), int)), np.zeros(0)),
    ],
)
def test_zero_size_inputs_give_empty_results(topology, given, reduction):
    result = reduction(topology, given)
    assert result.shape == given.shape and result.dtype == given.dtype


@pytest.mark.parametrize("reduction", REDUCTIONS, ids=NAME)
def test_topology_must_be_given(reduction):
    with pytest.raises(ValueError) as info:
        reduction(None, np.zeros(1))
    expected = "needs a ReservoirTopology or a ReservoirSelectionTopology, got None"
    assert str(info.value) == f"{reduction.__name__} {expected}"


@pytest.mark.parametrize("shape", [(2**31,), (2, 2**15, 2**15)])
def test_arrays_of_two_to_the_31_elements_are_refused(shape):
    # A read-only alias of one element: the refusal must come before any read.
    strides = np.cumprod((1,) + shape[:0:-1])[::-1] * 4
    huge = np.lib.stride_tricks.as_strided(np.zeros(1, "i"), shape, tuple(strides), writeable=False)
    with pytest.raises(ValueError) as info:
        kavra.KSum(ReservoirTopology(2**15, 2**15, 2), huge)
    assert str(info.value) == "KSum takes arrays of at most 2147483647 elements, got 2147483648"


@pytest.mark.parametrize("reduction", REDUCTIONS, ids=NAME)
@pytest.mark.parametrize("kind", KINDS)
def test_repeated_calls_hold_no_references_and_no_memory(kind, reduction):
    grid = ReservoirTopology(10, 10, 10)
    topology = grid if kind == "grid" else ReservoirSelectionTopology(grid, np.argwhere(np.ones((10, 10, 10))))
    given = np.arange(1000.0)
    before = sys.getrefcount(given)
    tracemalloc.start()
    try:
        for _ in range(10):
            reduction(topology, given)
        gc.collect()
        start = tracemalloc.get_traced_memory()[0]
        for _ in range(200):
            reduction(topology, given)
        gc.collect()
        grown = tracemalloc.get_traced_memory()[0] - start
    finally:
        tracemalloc.stop()
    assert sys.getrefcount(given) == before
    assert grown < 64 * 1024  # one leaked result alone would be 8 KiB a call
