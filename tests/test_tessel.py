"""The tessel grid library: topologies, grid functions and their NumPy views,
selection views and IntVector."""

import gc
import sys

import numpy as np
import pytest

from kavra import tessel
from kavra.tessel import (
    DoubleGridFunction, FloatGridFunction, IntGridFunction, IntVector, ReservoirSelectionTopology, ReservoirTopology,
    SelectionViewGridFunction,
)

GRID_FUNCTIONS = [(IntGridFunction, np.int32), (FloatGridFunction, np.float32), (DoubleGridFunction, np.float64)]


@pytest.mark.parametrize("dims", [(0, 0, 0), (1, 2, 3), (65535, 65535, 65535)])
def test_topology_dimensions(dims):
    t = ReservoirTopology(*dims)
    assert (t.nI, t.nJ, t.nK, t.number_of_cells()) == (*dims, dims[0] * dims[1] * dims[2])
    assert isinstance(t, tessel.ITopology)
    with pytest.raises(AttributeError):
        t.nI = 3


def test_selection_maps_cells_both_ways():
    grid = ReservoirTopology(2, 3, 2)
    cells = [[1, 2, 1], [0, 0, 0], [1, 2, 1]]  # repeats allowed
    s = ReservoirSelectionTopology(grid, np.array(cells, dtype=np.uint16))
    assert s.parent_topology is grid and isinstance(s, tessel.ITopology)
    assert (s.nI, s.nJ, s.nK, s.number_of_selected_cells, s.number_of_cells()) == (2, 3, 2, 3, 3)
    np.testing.assert_array_equal(s.selected_cells, cells)
    expected = np.full(12, -1)
    expected[[1 + 2 * (2 + 3 * 1), 0]] = [0, 1]  # the first selection index of a repeated cell
    np.testing.assert_array_equal(s.cell_to_selection, expected)
    assert ReservoirSelectionTopology(grid, []).number_of_selected_cells == 0


@pytest.mark.parametrize(
    "make, error, text",
    [(lambda: ReservoirTopology(-1, 1, 1), ValueError, ""), (lambda: ReservoirTopology(1, 65536, 1), ValueError, ""),
     (lambda: ReservoirTopology(1, 1, 10**30), ValueError, ""), (lambda: ReservoirTopology(1.5, 1, 1), TypeError, ""),
     (lambda: ReservoirTopology("3", 1, 1), TypeError, ""), (lambda: ReservoirTopology(None, 1, 1), TypeError, ""),
     *[(lambda cells=cells: ReservoirSelectionTopology(ReservoirTopology(2, 3, 2), cells), error, text)
       for cells, error, text in [
           ([[2, 0, 0]], ValueError, r"selected cell 0 = \(2, 0, 0\) lies outside the grid of 2 x 3 x 2 cells"),
           ([[0, 0, 0], [0, -1, 0]], ValueError, "selected cell 1"), ([[0, 0, 2]], ValueError, "outside"),
           ([[0, 0]], ValueError, r"\(n, 3\)"), ([[0.0, 0.0, 0.0]], TypeError, "integer")]],
     (lambda: ReservoirSelectionTopology(None, [[0, 0, 0]]), ValueError, "")],
)
def test_topologies_refuse_bad_arguments(make, error, text):
    with pytest.raises(error, match=text or None):
        make()


@pytest.mark.parametrize("cls, dtype", GRID_FUNCTIONS)
def test_grid_function_values_share_its_memory_and_keep_it_alive(cls, dtype):
    gf = cls(4)
    values = gf.values
    assert values.dtype == dtype and values.shape == (4,) and not values.any()
    values[2] = 7
    assert gf.get_double(2) == 7.0 and gf.get_int(-2) == 7
    gf.set_double(0, 3.0)
    assert values[0] == 3 and np.shares_memory(values, gf.values)
    assert len(gf) == gf.number_of_elements() == 4 and isinstance(gf, tessel.IGridFunction)
    assert values.base is gf and sys.getrefcount(gf) >= 3  # the view holds a reference of its own
    del gf
    gc.collect()
    np.testing.assert_array_equal(values, np.array([3, 0, 7, 0], dtype=dtype))
    for handle in (4, -5, 2**70):
        with pytest.raises((IndexError, ValueError)):
            cls(4).get_double(handle)


@pytest.mark.parametrize(
    "source, expected",
    [([1, 2, 3], [1, 2, 3]), (np.arange(3, dtype=np.uint8), [0, 1, 2]), ((True, False), [1, 0]), ([], [])],
)
@pytest.mark.parametrize("cls, dtype", GRID_FUNCTIONS)
def test_grid_function_from_values_copies_and_converts(cls, dtype, source, expected):
    gf = cls(source)
    np.testing.assert_array_equal(gf.values, np.array(expected, dtype=dtype))
    assert not np.shares_memory(gf.values, source)


@pytest.mark.parametrize(
    "cls, source, error",
    [(IntGridFunction, [1.5], TypeError), (IntGridFunction, [2**31], ValueError),
     (IntGridFunction, np.array([2**40], dtype=np.uint64), ValueError), (DoubleGridFunction, [1j], TypeError),
     (DoubleGridFunction, ["a"], TypeError), (DoubleGridFunction, [[1.0, 2.0]], ValueError),
     (DoubleGridFunction, -1, ValueError), (FloatGridFunction, None, TypeError),
     *[(cls, 2**62, MemoryError) for cls, _ in GRID_FUNCTIONS]],
)
def test_grid_function_refuses_bad_values(cls, source, error):
    with pytest.raises(error):
        cls(source)


def test_element_conversions():
    np.testing.assert_array_equal(DoubleGridFunction([0.5, np.nan, -np.inf]).values, [0.5, np.nan, -np.inf])
    assert FloatGridFunction([0.1]).values[0] == np.float32(0.1)
    gf = IntGridFunction([-(2**31), 2**31 - 1])
    assert gf.get_double(0) == -(2**31)
    d = DoubleGridFunction([np.nan, 1e20, -1e20, -2.9])  # integer reads saturate, NaN reads 0
    assert [d.get_int(h) for h in range(4)] == [0, 2**31 - 1, -(2**31), -2]
    gf.set_double(0, np.nan)
    assert gf.values[0] == 0


def test_class_chains():
    assert isinstance(IntGridFunction(1), tessel.IWritableIntTypeGridFunction)
    assert isinstance(IntGridFunction(1), tessel.IIntTypeGridFunction)
    assert isinstance(FloatGridFunction(1), tessel.IFloatTypeGridFunction)
    assert not isinstance(FloatGridFunction(1), tessel.IDoubleTypeGridFunction)
    view = SelectionViewGridFunction(ReservoirSelectionTopology(ReservoirTopology(1, 1, 1), [[0, 0, 0]]),
                                     DoubleGridFunction(1))
    assert isinstance(view, tessel.IWritableDoubleTypeGridFunction)


def test_selection_view_has_one_element_per_selected_cell():
    selection = ReservoirSelectionTopology(ReservoirTopology(3, 1, 2), [[2, 0, 1], [0, 0, 0]])
    backing = DoubleGridFunction([5.0, 6.0])
    view = SelectionViewGridFunction(selection, backing)
    assert view.backing is backing and len(view) == 2 and np.shares_memory(view.values, backing.values)
    view.set_value(1, 9.0)
    assert backing.values[1] == 9.0 and view.get_double(0) == 5.0
    del backing
    assert view.values[1] == 9.0  # the view keeps its backing alive
    for backing, error in [(DoubleGridFunction(3), ValueError), (None, ValueError), (FloatGridFunction(2), TypeError)]:
        with pytest.raises(error):
            SelectionViewGridFunction(selection, backing)


@pytest.mark.parametrize(
    "source", [[3, -1, 7], (3, -1, 7), (x for x in (3, -1, 7)), np.array([3, -1, 7]), IntVector([3, -1, 7])]
)
def test_int_vector_from_iterables(source):
    v = IntVector(source)
    assert list(v) == [3, -1, 7] and len(v) == 3 and v[-1] == 7 and repr(v) == "IntVector([3, -1, 7])"
    assert v.to_numpy().dtype == np.int32 and list(v.to_numpy()) == [3, -1, 7]


def test_int_vector_editing_and_equality():
    v = IntVector()
    assert len(v) == 0 and list(v) == []
    v.append(4)
    v.extend([5, 6])
    v[0] = -4
    assert v == IntVector([-4, 5, 6]) and v != IntVector([4]) and v != [-4, 5, 6]
    for wrong, error in [(lambda: v[3], IndexError), (lambda: v.__setitem__(-4, 1), IndexError),
                         *[(lambda s=s: IntVector(s), e) for s, e in
                           [([1.5], TypeError), ([2**31], ValueError), (5, TypeError), (np.array([0.5]), TypeError)]]]:
        with pytest.raises(error):
            wrong()


CELLS = [[1, 2, 1], [0, 0, 0]]
ARRAY_CONSTRUCTORS = {
    "DoubleGridFunction": (lambda a: DoubleGridFunction(a).values, [1.5, -2.0, 3.0], ">f8"),
    "FloatGridFunction": (lambda a: FloatGridFunction(a).values, [1.5, -2.0, 3.0], ">f4"),
    "IntGridFunction": (lambda a: IntGridFunction(a).values, [7, -2, 2**31 - 1], ">i8"),
    "IntVector": (lambda a: list(IntVector(a)), [7, -2, 3], ">i4"),
    "ReservoirSelectionTopology": (
        lambda a: ReservoirSelectionTopology(ReservoirTopology(2, 3, 2), a).selected_cells, CELLS, ">u2"),
}


@pytest.mark.parametrize("name", ARRAY_CONSTRUCTORS)
def test_array_constructors_read_byte_swapped_values_and_refuse_masks(name):
    build, values, swapped = ARRAY_CONSTRUCTORS[name]
    np.testing.assert_array_equal(build(np.array(values, dtype=swapped)), values)
    with pytest.raises(TypeError, match="does not take a masked array.*filled"):
        build(np.ma.masked_array(values, mask=np.zeros(np.shape(values), bool)))
