"""KMax, KMin, KSum and KAverage over the columns of a grid or a selection."""

import numpy as np
import pytest
from kavra.tessel import ReservoirSelectionTopology, ReservoirTopology

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


# What the random comparisons below are unlikely to meet.  (Wrapping integer sums, unsigned comparisons,
# truncating averages and float sums in K order are met there too.)
COLUMN_CASES = [
    # KMax starts at 0, KMin at the largest finite value; both pass NaN over.
    *[(kavra.KMax, d, [-3, -1], 0) for d in SIGNED],
    *[(kavra.KMax, d, [-inf, -inf], 0) for d in FLOATS],
    *[(kavra.KMin, d, [inf], np.finfo(d).max) for d in FLOATS],
    *[(kavra.KMax, d, [nan, nan], 0) for d in FLOATS],
    *[(kavra.KMin, d, [nan, nan], np.finfo(d).max) for d in FLOATS],
    *[(f, d, [nan, 2, nan], 2) for f in (kavra.KMax, kavra.KMin) for d in FLOATS],
    *[(f, d, [1, nan], nan) for f in (kavra.KSum, kavra.KAverage) for d in FLOATS],
    *[(kavra.KMin, np.dtype(c), [big], big) for c, big in {"I": 2**32 - 1, "L": 2**64 - 1}.items()],
    (kavra.KSum, np.dtype("i"), [2**31 - 1, 1], -(2**31)),
    (kavra.KAverage, np.dtype("i"), [2**31 - 1, 1], -(2**30)),
    *[(kavra.KAverage, np.dtype(c), [-3, 0], -1) for c in "il"],
    (kavra.KSum, np.dtype("f"), [1, 1e8, -1e8], 0),
    (kavra.KAverage, np.dtype("f"), [1, 1e8, -1e8], 0),
    *[(f, d, [7], 7) for f in REDUCTIONS for d in DTYPES],
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
@pytest.mark.parametrize("topology, given", [
    (ReservoirTopology(0, 3, 2), np.zeros(0, "i")), (ReservoirTopology(0, 3, 2), np.zeros((2, 3, 0), "L")),
    (ReservoirTopology(4, 0, 0), np.zeros((0, 0, 4), "f")),
    (ReservoirSelectionTopology(GRID, np.zeros((0, 3), int)), np.zeros(0))])
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


# --- random grids and selections against the documented accumulation ---------------------

def column_values(reduction, dtype, groups):
    """Each column's value: its values taken in the order given, from the operation's start."""
    start = {kavra.KMin: np.finfo(dtype).max if dtype.kind == "f" else np.iinfo(dtype).max}.get(reduction, 0)
    accumulator = np.full(len(groups), start, dtype=dtype)
    counts = np.array([len(g) for g in groups])
    with np.errstate(over="ignore", invalid="ignore"):
        for layer in range(max(counts, default=0)):  # the values of all columns at one position at a time
            has = counts > layer
            v = np.array([g[layer] if len(g) > layer else 0 for g in groups], dtype=dtype)
            if reduction is kavra.KMax:
                accumulator = np.where(has & (accumulator < v), v, accumulator)
            elif reduction is kavra.KMin:
                accumulator = np.where(has & (v < accumulator), v, accumulator)
            else:
                accumulator = np.where(has, accumulator + v, accumulator)
        if reduction is kavra.KAverage and dtype.kind == "f":
            accumulator = accumulator / np.maximum(counts, 1).astype(dtype)
        elif reduction is kavra.KAverage:  # truncation toward zero, in Python integers
            accumulator = np.array([int(s) // int(c) if s >= 0 else -(-int(s) // int(c))
                                    for s, c in zip(accumulator, np.maximum(counts, 1))], dtype=dtype)
    return accumulator.astype(dtype)


def random_values(rng, dtype, n):
    if dtype.kind == "f":
        values = rng.normal(0.0, 1e3, n).astype(dtype)
        special = rng.random(n) < 0.01
        values[special] = rng.choice([nan, inf, -inf, 0.0, -0.0], n)[special]
        return values
    return rng.integers(np.iinfo(dtype).min, np.iinfo(dtype).max, n, dtype=dtype, endpoint=True)


def assert_same_bits(got, want):
    assert got.dtype == want.dtype and got.shape == want.shape
    kind = {4: np.uint32, 8: np.uint64}[got.dtype.itemsize]
    np.testing.assert_array_equal(got.view(kind), want.view(kind))


@pytest.mark.parametrize("dtype", DTYPES, ids=str)
@pytest.mark.parametrize("shape", [(3, 4, 5), (130, 70, 3), (130, 70, 30)], ids=["small", "wide", "streamed"])
@pytest.mark.parametrize("reduction", REDUCTIONS, ids=NAME)
def test_grid_reductions_equal_the_documented_steps(reduction, shape, dtype):
    rng = np.random.default_rng(list(shape))
    ni, nj, nk = shape
    grid, values = ReservoirTopology(ni, nj, nk), random_values(rng, dtype, ni * nj * nk)
    kept = values.copy()
    layers = values.reshape(nk, nj * ni)
    want = np.tile(column_values(reduction, dtype, [layers[:, c] for c in range(ni * nj)]), nk)
    result = reduction(grid, values.reshape(nk, nj, ni))
    assert not np.shares_memory(result, values) and result.shape == (nk, nj, ni)
    assert_same_bits(result.ravel(), want)
    # a C-contiguous 1D array that starts one byte into its buffer
    unaligned = np.frombuffer(bytearray(values.nbytes + 1), dtype=values.dtype, offset=1, count=values.size)
    unaligned[...] = values
    assert_same_bits(reduction(grid, np.asarray(unaligned)), want)
    assert_same_bits(values, kept)


@pytest.mark.parametrize("grid, n", [((2, 32769, 65535), 65534), ((2, 32896, 65282), 66048)],
                         ids=["inside one layer", "one layer and a part"])
@pytest.mark.parametrize("reduction", REDUCTIONS, ids=NAME)
def test_grid_input_that_ends_inside_a_layer(reduction, grid, n):
    # nI * nJ * nK exceeds 2^32 by n, so a 1D array of n elements passes the 32-bit size check
    assert (grid[0] * grid[1] * grid[2]) % 2**32 == n
    values, columns = random_values(np.random.default_rng(n), np.dtype("d"), n), grid[0] * grid[1]
    want = column_values(reduction, values.dtype, [values[c::columns] for c in range(min(columns, n))])
    assert_same_bits(reduction(ReservoirTopology(*grid), values), want[np.arange(n) % columns])


@pytest.mark.parametrize("dtype", DTYPES, ids=str)
@pytest.mark.parametrize("reduction", REDUCTIONS, ids=NAME)
def test_selection_reductions_equal_the_documented_steps(reduction, dtype):
    rng = np.random.default_rng(7)
    ni, nj, nk = 40, 30, 12
    cells = np.column_stack([rng.integers(0, ni, 9000), rng.integers(0, nj, 9000), rng.integers(0, nk, 9000)])
    cells[4000:4500] = cells[:500]  # entries that stand twice
    values = random_values(rng, dtype, 2 * len(cells))[::-2]  # read through a negative stride
    column = cells[:, 0] + ni * cells[:, 1]
    want = column_values(reduction, dtype, [values[column == c] for c in range(ni * nj)])[column]
    selection = ReservoirSelectionTopology(ReservoirTopology(ni, nj, nk), cells)
    assert_same_bits(reduction(selection, values), want)
    same = np.broadcast_to(values[:1], values.shape)  # a stride of 0
    assert_same_bits(reduction(selection, same), reduction(selection, np.ascontiguousarray(same)))
