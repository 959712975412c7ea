"""The tessel stand-in: topologies, grid functions and their NumPy views,
selection views and IntVector."""

import gc
import sys

import numpy as np
import pytest

import tessel
from tessel import (
    DoubleGridFunction,
    FloatGridFunction,
    IntGridFunction,
    IntVector,
    ReservoirSelectionTopology,
    ReservoirTopology,
    SelectionViewGridFunction,
)

GRID_FUNCTIONS = [(IntGridFunction, np.int32), (FloatGridFunction, np.float32), (DoubleGridFunction, np.float64)]


@pytest.mark.parametrize("dims", [(0, 0, 0), (1, 2, 3), (65535, 65535, 65535)])
def test_topology_dimensions(dims):
    t = ReservoirTopology(*dims)
    assert (t.nI, t.nJ, t.nK) == dims
    assert t.number_of_cells() == dims[0] * dims[1] * dims[2]
    assert isinstance(t, tessel.ITopology)
    with pytest.raises(AttributeError):
        t.nI = 3


@pytest.mark.parametrize(
    "dims, error",
    [((-1, 1, 1), ValueError), ((1, 65536, 1), ValueError), ((1, 1, 10**30), ValueError), ((1.5, 1, 1), TypeError),
     (("3", 1, 1), TypeError), ((None, 1, 1), TypeError)],
)
def test_topology_refuses_bad_dimensions(dims, error):
    with pytest.raises(error):
        ReservoirTopology(*dims)


def test_selection_maps_cells_both_ways():
    grid = ReservoirTopology(2, 3, 2)
    cells = [[1, 2, 1], [0, 0, 0], [1, 2, 1]]  # repeats allowed
    s = ReservoirSelectionTopology(grid, np.array(cells, dtype=np.uint16))
    assert s.parent_topology is grid
    assert (s.nI, s.nJ, s.nK) == (2, 3, 2)
    assert s.number_of_selected_cells == 3 and s.number_of_cells() == 3
    np.testing.assert_array_equal(s.selected_cells, cells)
    expected = np.full(12, -1)
    expected[1 + 2 * (2 + 3 * 1)] = 0  # first selection index of a repeated cell
    expected[0] = 1
    np.testing.assert_array_equal(s.cell_to_selection, expected)
    assert isinstance(s, tessel.ITopology)
    assert ReservoirSelectionTopology(grid, []).number_of_selected_cells == 0


@pytest.mark.parametrize(
    "cells, error, text",
    [([[2, 0, 0]], ValueError, r"selected cell 0 = \(2, 0, 0\) lies outside the grid of 2 x 3 x 2 cells"),
     ([[0, 0, 0], [0, -1, 0]], ValueError, "selected cell 1"),
     ([[0, 0, 2]], ValueError, "outside"),
     ([[0, 0]], ValueError, r"\(n, 3\)"),
     ([[0.0, 0.0, 0.0]], TypeError, "integer")],
)
def test_selection_refuses_cells_outside_the_grid(cells, error, text):
    with pytest.raises(error, match=text):
        ReservoirSelectionTopology(ReservoirTopology(2, 3, 2), cells)


def test_selection_needs_a_parent():
    with pytest.raises(ValueError):
        ReservoirSelectionTopology(None, [[0, 0, 0]])


@pytest.mark.parametrize("cls, dtype", GRID_FUNCTIONS)
def test_grid_function_values_share_its_memory(cls, dtype):
    gf = cls(4)
    values = gf.values
    assert values.dtype == dtype and values.shape == (4,) and not values.any()
    values[2] = 7
    assert gf.get_double(2) == 7.0 and gf.get_int(-2) == 7
    gf.set_double(0, 3.0)
    assert values[0] == 3
    assert np.shares_memory(values, gf.values)
    assert len(gf) == gf.number_of_elements() == 4
    assert isinstance(gf, tessel.IGridFunction)


@pytest.mark.parametrize("cls, dtype", GRID_FUNCTIONS)
def test_values_keep_their_grid_function_alive(cls, dtype):
    gf = cls([1, 2, 3])
    values = gf.values
    before = sys.getrefcount(gf)
    del gf
    gc.collect()
    np.testing.assert_array_equal(values, np.array([1, 2, 3], dtype=dtype))
    assert values.base is not None and before >= 3


@pytest.mark.parametrize(
    "source, expected",
    [([1, 2, 3], [1, 2, 3]), (np.arange(3, dtype=np.uint8), [0, 1, 2]), ((True, False), [1, 0]), ([], [])],
)
@pytest.mark.parametrize("cls, dtype", GRID_FUNCTIONS)
def test_grid_function_from_values_copies_and_converts(cls, dtype, source, expected):
    gf = cls(source)
    np.testing.assert_array_equal(gf.values, np.array(expected, dtype=dtype))
    if isinstance(source, np.ndarray):
        assert not np.shares_memory(gf.values, source)


def test_float_grid_functions_take_real_values():
    np.testing.assert_array_equal(DoubleGridFunction([0.5, np.nan, -np.inf]).values, [0.5, np.nan, -np.inf])
    assert FloatGridFunction([0.1]).values[0] == np.float32(0.1)


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


def test_int_grid_function_range_edges_and_saturating_reads():
    gf = IntGridFunction([-(2**31), 2**31 - 1])
    assert gf.get_double(0) == -(2**31)
    d = DoubleGridFunction([np.nan, 1e20, -1e20, -2.9])
    assert [d.get_int(h) for h in range(4)] == [0, 2**31 - 1, -(2**31), -2]
    gf.set_double(0, np.nan)
    assert gf.values[0] == 0


@pytest.mark.parametrize("handle", [3, -4, 2**70])
def test_grid_function_handles_are_checked(handle):
    with pytest.raises((IndexError, ValueError)):
        DoubleGridFunction(3).get_double(handle)


def test_class_chains():
    assert isinstance(IntGridFunction(1), tessel.IWritableIntTypeGridFunction)
    assert isinstance(IntGridFunction(1), tessel.IIntTypeGridFunction)
    assert isinstance(FloatGridFunction(1), tessel.IFloatTypeGridFunction)
    assert not isinstance(FloatGridFunction(1), tessel.IDoubleTypeGridFunction)
    grid = ReservoirTopology(1, 1, 1)
    view = SelectionViewGridFunction(ReservoirSelectionTopology(grid, [[0, 0, 0]]), DoubleGridFunction(1))
    assert isinstance(view, tessel.IWritableDoubleTypeGridFunction)


def test_selection_view_has_one_element_per_selected_cell():
    grid = ReservoirTopology(3, 1, 2)
    selection = ReservoirSelectionTopology(grid, [[2, 0, 1], [0, 0, 0]])
    backing = DoubleGridFunction([5.0, 6.0])
    view = SelectionViewGridFunction(selection, backing)
    assert view.backing is backing and len(view) == 2
    assert np.shares_memory(view.values, backing.values)
    view.set_value(1, 9.0)
    assert backing.values[1] == 9.0 and view.get_double(0) == 5.0
    del backing
    assert view.values[1] == 9.0  # the view keeps its backing alive


@pytest.mark.parametrize("backing", [DoubleGridFunction(3), None])
def test_selection_view_refuses_a_backing_of_another_size(backing):
    selection = ReservoirSelectionTopology(ReservoirTopology(2, 1, 1), [[0, 0, 0]])
    with pytest.raises(ValueError):
        SelectionViewGridFunction(selection, backing)
    with pytest.raises(TypeError):
        SelectionViewGridFunction(selection, FloatGridFunction(1))


@pytest.mark.parametrize(
    "source", [[3, -1, 7], (3, -1, 7), (x for x in (3, -1, 7)), np.array([3, -1, 7]), IntVector([3, -1, 7])]
)
def test_int_vector_from_iterables(source):
    v = IntVector(source)
    assert list(v) == [3, -1, 7] and len(v) == 3 and v[-1] == 7
    assert repr(v) == "IntVector([3, -1, 7])"
    np.testing.assert_array_equal(v.to_numpy(), [3, -1, 7])
    assert v.to_numpy().dtype == np.int32


def test_int_vector_editing_and_equality():
    v = IntVector()
    assert len(v) == 0 and list(v) == []
    v.append(4)
    v.extend([5, 6])
    v[0] = -4
    assert v == IntVector([-4, 5, 6]) and v != IntVector([4]) and v != [-4, 5, 6]
    with pytest.raises(IndexError):
        v[3]
    with pytest.raises(IndexError):
        v[-4] = 1


@pytest.mark.parametrize(
    "source, error", [([1.5], TypeError), ([2**31], ValueError), (5, TypeError), (np.array([0.5]), TypeError)]
)
def test_int_vector_refuses_bad_values(source, error):
    with pytest.raises(error):
        IntVector(source)


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
    with pytest.raises(TypeError, match="does not take masked arrays.*filled"):
        build(np.ma.masked_array(values, mask=np.zeros(np.shape(values), bool)))
