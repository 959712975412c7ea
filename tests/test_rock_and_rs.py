"""CalcBulkVolume (both overloads) and CalcRsFromComponents."""

import numpy as np
import pytest
from tessel import (
    DoubleGridFunction,
    FloatGridFunction,
    IntGridFunction,
    ReservoirSelectionTopology,
    ReservoirTopology,
    SelectionViewGridFunction,
)

import kavra
from conftest import cast_failure_text, precondition_text

nan, inf = float("nan"), float("inf")


def test_bulk_volume_from_pore_volume_and_porosity():
    porv = DoubleGridFunction([10.0, 10.0, 10.0, 10.0, 3.0, inf])
    poro = DoubleGridFunction([0.25, 0.0, -0.5, nan, 3.0, 0.5])
    bulk = DoubleGridFunction(np.full(6, 99.0))  # previous content plays no part
    kavra.CalcBulkVolume(porv, poro, bulk)
    np.testing.assert_array_equal(bulk.values, [40.0, 0.0, 0.0, 0.0, 1.0, inf])


def test_bulk_volume_scaled_by_ntg_applies_again_on_each_call():
    ntg = DoubleGridFunction([0.5, 0.0, 2.0, -1.0, nan])
    bulk = DoubleGridFunction([8.0, 8.0, 8.0, 8.0, 8.0])
    kavra.CalcBulkVolume(ntg, bulk)
    np.testing.assert_array_equal(bulk.values, [4.0, 0.0, 16.0, -8.0, nan])
    kavra.CalcBulkVolume(ntg, bulk)
    np.testing.assert_array_equal(bulk.values, [2.0, 0.0, 32.0, 8.0, nan])


def test_bulk_volume_accepts_selection_views():
    grid = ReservoirTopology(2, 1, 1)
    selection = ReservoirSelectionTopology(grid, [[1, 0, 0], [0, 0, 0]])
    bulk = SelectionViewGridFunction(selection, DoubleGridFunction([3.0, 5.0]))
    kavra.CalcBulkVolume(DoubleGridFunction([2.0, 0.5]), bulk)
    np.testing.assert_array_equal(bulk.values, [6.0, 2.5])


@pytest.mark.parametrize("call", [lambda *g: kavra.CalcBulkVolume(*g[:2]), kavra.CalcBulkVolume])
def test_zero_elements_is_a_no_op(call):
    call(DoubleGridFunction(0), DoubleGridFunction(0), DoubleGridFunction(0))


def test_rs_is_ratio_where_denominator_is_positive():
    denominator = DoubleGridFunction([2.0, 0.0, -1.0, nan, 4.0, 1e-300])
    numerator = DoubleGridFunction([1.0, 5.0, 5.0, 5.0, 0.0, 1e10])
    rs = DoubleGridFunction(np.full(6, 7.0))
    kavra.CalcRsFromComponents(denominator, numerator, rs)
    np.testing.assert_array_equal(rs.values, [0.5, 0.0, 0.0, 0.0, 0.0, inf])


def test_rs_works_on_any_grid_function_kind():
    # Float and int storage go through the elements' own conversions.
    rs = FloatGridFunction(3)
    kavra.CalcRsFromComponents(IntGridFunction([3, 0, 2]), FloatGridFunction([1.0, 1.0, 5.0]), rs)
    np.testing.assert_array_equal(rs.values, np.array([1 / 3, 0.0, 2.5], dtype=np.float32))
    counts = IntGridFunction(2)
    kavra.CalcRsFromComponents(DoubleGridFunction([2.0, 1.0]), DoubleGridFunction([7.0, nan]), counts)
    np.testing.assert_array_equal(counts.values, [3, 0])


def test_rs_with_no_elements_reads_nothing():
    kavra.CalcRsFromComponents(DoubleGridFunction(0), DoubleGridFunction(0), DoubleGridFunction(0))
    kavra.CalcRsFromComponents(DoubleGridFunction(5), DoubleGridFunction(2), DoubleGridFunction(0))


@pytest.mark.parametrize(
    "sizes, name",
    [((2, 3, 3), "Denominator"), ((3, 2, 3), "Numerator"), ((1, 1, 3), "Denominator")],
)
def test_rs_refuses_inputs_shorter_than_result(raises_text, sizes, name):
    den, num = DoubleGridFunction(np.ones(sizes[0])), DoubleGridFunction(np.ones(sizes[1]))
    rs = DoubleGridFunction(np.full(sizes[2], 9.0))
    counts = {"Denominator": sizes[0], "Numerator": sizes[1]}
    expected = precondition_text(
        "core/pvt/RsFromComponents.cpp",
        f"p_{name}->number_of_elements() >= nElts",
        f"{name} has fewer elements than Rs. Rs elements: 3, {name} elements: {counts[name]}",
    )
    raises_text(expected, kavra.CalcRsFromComponents, den, num, rs)
    assert np.all(rs.values == 9.0)


@pytest.mark.parametrize("position, name", [(0, "Denominator"), (1, "Numerator"), (2, "Rs")])
def test_rs_refuses_none(raises_text, position, name):
    args = [DoubleGridFunction(2) for _ in range(3)]
    args[position] = None
    expected = precondition_text(
        "core/utils/gridfunction_checking.h", "gridFunction.get()!=0", f"The grid function {name} is None!!"
    )
    raises_text(expected, kavra.CalcRsFromComponents, *args)


def test_none_refused_before_anything_is_written(raises_text):
    rs = DoubleGridFunction([4.0])
    with pytest.raises(RuntimeError):
        kavra.CalcRsFromComponents(DoubleGridFunction([1.0]), None, rs)
    assert rs.values[0] == 4.0
    with pytest.raises(RuntimeError, match="The type cast for PORO failed!!"):
        kavra.CalcBulkVolume(DoubleGridFunction([1.0]), None, rs)
    assert rs.values[0] == 4.0
    assert cast_failure_text("PORO").endswith("The type cast for PORO failed!!\n")
