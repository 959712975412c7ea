"""CalcPorosity and CalcPorosityFromPORV."""

import numpy as np
import pytest
from tessel import DoubleGridFunction, FloatGridFunction, IntGridFunction

import kavra
from conftest import cast_failure_text, precondition_text

SOURCE = "core/rock/Porosity.cpp"
nan = float("nan")


def rocks(*pairs):
    return kavra.TRockList([kavra.TRock(kavra.TScalar(p, "pressure", "bar"), kavra.TScalar(c, "", "1/bar"))
                            for p, c in pairs])


@pytest.mark.parametrize(
    "po, poro, expected",
    [
        (200.0, 0.2, 0.5),  # x = 1: factor 2.5
        (-100.0, 0.3, 0.3),  # x = -2: factor 1.0
        (100.0, 0.7, 0.7),  # at P_ref the reference porosity stands
        (300.0, 0.9, 1.0),  # capped at exactly 1.0
        (100.0, 1.5, 1.0),  # also where PORO itself is above 1
        (300.0, -0.1, -0.5),  # no lower limit
        (nan, 0.2, nan),
    ],
)
def test_porosity_under_pressure(po, poro, expected):
    result = DoubleGridFunction([7.0])
    kavra.CalcPorosity(rocks((100.0, 0.01)), IntGridFunction([1]), DoubleGridFunction([po]),
                       DoubleGridFunction([poro]), result)
    np.testing.assert_array_equal(result.values, [expected])


def test_second_order_factor_is_evaluated_in_its_documented_grouping():
    rng = np.random.default_rng(3)
    po, poro = rng.uniform(50.0, 400.0, 500), rng.uniform(0.0, 0.3, 500)
    regions = rng.integers(1, 3, 500).astype(np.int32)
    table = [(180.0, 3.1e-3), (260.0, 7.7e-4)]
    result = DoubleGridFunction(500)
    kavra.CalcPorosity(rocks(*table), IntGridFunction(regions), DoubleGridFunction(po), DoubleGridFunction(poro),
                       result)
    p_ref, cr = np.array(table).T[:, regions - 1]
    x = (po - p_ref) * cr
    assert np.array_equal(result.values, np.minimum(poro * (((x * 0.5) * x) + (x + 1.0)), 1.0))


def test_cells_outside_every_region_keep_their_value():
    # An empty list is fine as long as no cell asks for it.
    result = DoubleGridFunction([5.0, -3.0])
    kavra.CalcPorosity(rocks(), IntGridFunction([0, -4]), DoubleGridFunction(2), DoubleGridFunction(2), result)
    np.testing.assert_array_equal(result.values, [5.0, -3.0])


@pytest.mark.parametrize("n_rocks, bound", [(3, 2), (0, 18446744073709551615)])
def test_region_beyond_the_list_fails_after_earlier_cells(raises_text, n_rocks, bound):
    result = DoubleGridFunction([9.0, 9.0, 9.0])
    expected = precondition_text(SOURCE, "pvtID<rockList.size()",
                                 f"Invalid PVT region number: 3, valid interval is [0, {bound}].")
    raises_text(expected, kavra.CalcPorosity, rocks(*[(0.0, 0.0)] * n_rocks), IntGridFunction([0, 4, 1]),
                DoubleGridFunction(3), DoubleGridFunction([0.25] * 3), result)
    np.testing.assert_array_equal(result.values, [9.0, 9.0, 9.0])


@pytest.mark.parametrize("p_ref, cr", [(None, 1.0), (1.0, None)])
def test_rock_without_scalars_is_refused_after_earlier_cells(raises_text, p_ref, cr):
    scalar = lambda v: None if v is None else kavra.TScalar(v, "", "")
    table = kavra.TRockList([kavra.TRock(kavra.TScalar(0.0, "", ""), kavra.TScalar(0.0, "", "")),
                             kavra.TRock(scalar(p_ref), scalar(cr))])
    result = DoubleGridFunction([9.0, 9.0])
    expected = precondition_text("core/types/Scalar.h", "scalar.get()!=0",
                                 "A table field that the calculation reads holds no TScalar (None).")
    raises_text(expected, kavra.CalcPorosity, table, IntGridFunction([1, 2]), DoubleGridFunction(2),
                DoubleGridFunction([0.5, 0.5]), result)
    np.testing.assert_array_equal(result.values, [0.5, 9.0])


@pytest.mark.parametrize(
    "sizes, condition, message",
    [
        ((2, 3, 3, 3), "nElts == PVTNum->number_of_elements()",
         "Porosity and PVTNum should have the same number of elements. Porosity elements:3, PVTNUM elements:2"),
        ((3, 4, 2, 3), "nElts == Po->number_of_elements()", "Porosity and Po should have the same number of elements."),
        ((3, 3, 0, 3), "nElts == PORO->number_of_elements()",
         "Porosity and PORO should have the same number of elements."),
    ],
)
def test_porosity_size_checks(raises_text, sizes, condition, message):
    pvtnum, po, poro, result = sizes
    raises_text(precondition_text(SOURCE, condition, message), kavra.CalcPorosity, rocks((1.0, 1.0)),
                IntGridFunction(pvtnum), DoubleGridFunction(po), DoubleGridFunction(poro), DoubleGridFunction(result))


@pytest.mark.parametrize("position, name", [(0, "PVTNum"), (1, "Po"), (2, "PORO"), (3, "Porosity")])
def test_porosity_casts_come_before_sizes(raises_text, position, name):
    args = [IntGridFunction(1), DoubleGridFunction(2), DoubleGridFunction(3), DoubleGridFunction(4)]
    args[position] = FloatGridFunction(5) if position else DoubleGridFunction(5)
    raises_text(cast_failure_text(name), kavra.CalcPorosity, rocks(), *args)


def test_porosity_from_pore_volume():
    result = DoubleGridFunction([9.0] * 5)
    kavra.CalcPorosityFromPORV(DoubleGridFunction([4.0, 0.0, -1.0, nan, 2.0]),
                               DoubleGridFunction([1.0, 5.0, 5.0, 5.0, 3.0]), result)
    np.testing.assert_array_equal(result.values, [0.25, 0.0, 0.0, 0.0, 1.5])


@pytest.mark.parametrize(
    "args, expected",
    [
        ((DoubleGridFunction(2), DoubleGridFunction(3), DoubleGridFunction(3)),
         precondition_text(SOURCE, "nElts == BulkVolume->number_of_elements()",
                           "Porosity and BulkVolume should have the same number of elements.")),
        ((DoubleGridFunction(3), DoubleGridFunction(2), DoubleGridFunction(3)),
         precondition_text(SOURCE, "nElts == PORV->number_of_elements()",
                           "Porosity and PORV should have the same number of elements.")),
        ((DoubleGridFunction(3), None, DoubleGridFunction(1)), cast_failure_text("PORV")),
        ((DoubleGridFunction(3), DoubleGridFunction(3), IntGridFunction(3)), cast_failure_text("Porosity")),
    ],
)
def test_porosity_from_pore_volume_refusals(raises_text, args, expected):
    raises_text(expected, kavra.CalcPorosityFromPORV, *args)
