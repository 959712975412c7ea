"""CalcBulkVolume (both overloads), CalcRsFromComponents, CalcPorosity and
CalcPorosityFromPORV: values, and the texts and order of their refusals."""

import numpy as np
import pytest
from kavra.tessel import DoubleGridFunction as D
from kavra.tessel import FloatGridFunction, IntGridFunction

import kavra
from catalogue import ref, rock_list
from conftest import cast_failure_text, precondition_text

nan, inf = float("nan"), float("inf")


@pytest.mark.parametrize(
    "call, inputs, want",
    [
        # Quotients where the denominator is above 0, else 0.0; previous content plays no part.
        (kavra.CalcBulkVolume, [[10.0, 10.0, 10.0, 10.0, 3.0, inf], [0.25, 0.0, -0.5, nan, 3.0, 0.5]],
         [40.0, 0.0, 0.0, 0.0, 1.0, inf]),
        (lambda bulk, porv, out: kavra.CalcPorosityFromPORV(bulk, porv, out),
         [[4.0, 0.0, -1.0, nan, 2.0], [1.0, 5.0, 5.0, 5.0, 3.0]], [0.25, 0.0, 0.0, 0.0, 1.5]),
        (lambda den, num, out: kavra.CalcRsFromComponents(den, num, out),
         [[2.0, 0.0, -1.0, nan, 4.0, 1e-300], [1.0, 5.0, 5.0, 5.0, 0.0, 1e10]], [0.5, 0.0, 0.0, 0.0, 0.0, inf]),
    ],
    ids=["bulk-volume", "porosity-from-porv", "rs"],
)
def test_guarded_quotients(call, inputs, want):
    out = D(np.full(len(want), 99.0))
    call(*map(D, inputs), out)
    np.testing.assert_array_equal(out.values, want)


def test_bulk_volume_scaled_by_ntg_applies_again_on_each_call():
    ntg, bulk = D([0.5, 0.0, 2.0, -1.0, nan]), D([8.0] * 5)
    kavra.CalcBulkVolume(ntg, bulk)
    kavra.CalcBulkVolume(ntg, bulk)
    np.testing.assert_array_equal(bulk.values, [2.0, 0.0, 32.0, 8.0, nan])


def test_rs_works_on_any_grid_function_kind():
    rs = FloatGridFunction(3)  # float and int storage go through the elements' own conversions
    kavra.CalcRsFromComponents(IntGridFunction([3, 0, 2]), FloatGridFunction([1.0, 1.0, 5.0]), rs)
    np.testing.assert_array_equal(rs.values, np.array([1 / 3, 0.0, 2.5], dtype=np.float32))
    counts = IntGridFunction(2)
    kavra.CalcRsFromComponents(D([2.0, 1.0, 5.0]), D([7.0, nan, 1.0]), counts)  # longer inputs: read as far as Rs
    np.testing.assert_array_equal(counts.values, [3, 0])


@pytest.mark.parametrize(
    "po, poro, want",
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
def test_porosity_under_pressure(po, poro, want):
    result = D([7.0])
    kavra.CalcPorosity(rock_list([(100.0, 0.01)]), IntGridFunction([1]), D([po]), D([poro]), result)
    np.testing.assert_array_equal(result.values, [want])


def test_porosity_equals_the_reference_and_skips_cells_outside_every_region():
    rng = np.random.default_rng(3)
    po, poro = rng.uniform(50.0, 400.0, 500), rng.uniform(0.0, 0.3, 500)
    regions = rng.integers(-1, 3, 500).astype(np.int32)
    table = [(180.0, 3.1e-3), (260.0, 7.7e-4)]
    result, want = D(np.full(500, 5.0)), np.full(500, 5.0)
    kavra.CalcPorosity(rock_list(table), IntGridFunction(regions), D(po), D(poro), result)
    np.testing.assert_array_equal(result.values, ref.porosity(table, regions, po, poro, want))
    result = D([5.0, -3.0])
    kavra.CalcPorosity(rock_list([]), IntGridFunction([0, -4]), D(2), D(2), result)
    np.testing.assert_array_equal(result.values, [5.0, -3.0])  # an empty list serves cells of no region


POROSITY = "core/rock/Porosity.cpp"
BULK = "core/rock/BulkVolume.cpp"
RS = "core/pvt/RsFromComponents.cpp"


def size_text(source, result, name, suffix=""):
    return precondition_text(source, f"nElts == {name}->number_of_elements()",
                             f"{result} and {name} should have the same number of elements.{suffix}")


def rs_text(name, count):
    return precondition_text(RS, f"p_{name}->number_of_elements() >= nElts",
                             f"{name} has fewer elements than Rs. Rs elements: 3, {name} elements: {count}")


def none_text(name):
    return precondition_text("core/utils/gridfunction_checking.h", "gridFunction.get()!=0",
                             f"The grid function {name} is None!!")


def porosity(*args):
    return kavra.CalcPorosity(rock_list([(1.0, 1.0)] * 3), *args)


# Casts come first and name the first bad argument, sizes next in argument order;
# a refused call writes nothing (every result starts at 2.0).
F, I = FloatGridFunction, IntGridFunction
REFUSALS = [
    (kavra.CalcBulkVolume, (F(3), D(2), D(5)), cast_failure_text("PORV")),
    (kavra.CalcBulkVolume, (D(3), I(2), F(5)), cast_failure_text("PORO")),
    (kavra.CalcBulkVolume, (D(3), D(2), I(5)), cast_failure_text("BulkVolume")),
    (kavra.CalcBulkVolume, (I(3), D(4)), cast_failure_text("NTG")),
    (kavra.CalcBulkVolume, (None, None), cast_failure_text("NTG")),
    (kavra.CalcBulkVolume, (D(4), D(5), D(3)), size_text(BULK, "BulkVolume", "PORV")),
    (kavra.CalcBulkVolume, (D(3), D(5), D(3)), size_text(BULK, "BulkVolume", "PORO")),
    (kavra.CalcBulkVolume, (D(2), D(3)), size_text(BULK, "BulkVolume", "NTG")),
    (kavra.CalcPorosityFromPORV, (D(2), D(3), D(3)), size_text(POROSITY, "Porosity", "BulkVolume")),
    (kavra.CalcPorosityFromPORV, (D(3), D(2), D(3)), size_text(POROSITY, "Porosity", "PORV")),
    (porosity, (D(1), D(2), D(3), D(4)), cast_failure_text("PVTNum")),
    (porosity, (I(1), F(2), D(3), D(4)), cast_failure_text("Po")),
    (porosity, (I(1), D(2), F(3), D(4)), cast_failure_text("PORO")),
    (porosity, (I(1), D(2), D(3), F(4)), cast_failure_text("Porosity")),
    (porosity, (I(2), D(3), D(3), D(3)), size_text(POROSITY, "Porosity", "PVTNum",
                                                    " Porosity elements:3, PVTNUM elements:2")),
    (porosity, (I(3), D(4), D(2), D(3)), size_text(POROSITY, "Porosity", "Po")),
    (porosity, (I(3), D(3), D(0), D(3)), size_text(POROSITY, "Porosity", "PORO")),
    (porosity, (I([0, 4, 1]), D(3), D(3), D(3)), precondition_text(
        POROSITY, "pvtID<rockList.size()", "Invalid PVT region number: 3, valid interval is [0, 2].")),
    (lambda *a: kavra.CalcPorosity(rock_list([]), *a), (I([1]), D(1), D(1), D(1)), precondition_text(
        POROSITY, "pvtID<rockList.size()", "Invalid PVT region number: 0, valid interval is [0, 18446744073709551615].")),
    (kavra.CalcRsFromComponents, (D(2), D(3), D(3)), rs_text("Denominator", 2)),
    (kavra.CalcRsFromComponents, (D(3), D(2), D(3)), rs_text("Numerator", 2)),
    (kavra.CalcRsFromComponents, (D(1), D(1), D(3)), rs_text("Denominator", 1)),
    (kavra.CalcRsFromComponents, (None, D(1), D(1)), none_text("Denominator")),
    (kavra.CalcRsFromComponents, (D(1), None, D(1)), none_text("Numerator")),
    (kavra.CalcRsFromComponents, (D(1), D(1), None), none_text("Rs")),
]


@pytest.mark.parametrize("call, args, text", REFUSALS)
def test_refusals(raises_text, call, args, text):
    results = [a for a in args if isinstance(a, D)]
    for a in results:
        a.values[...] = 2.0
    raises_text(text, call, *args)
    assert all((a.values == 2.0).all() for a in results)


def test_what_text_is_rebuilt_for_each_exception():
    texts = []
    for args in [(None, D(1)), (None, None, None)]:
        with pytest.raises(RuntimeError) as info:
            kavra.CalcBulkVolume(*args)
        texts.append(str(info.value))
    assert texts == [cast_failure_text("NTG"), cast_failure_text("PORV")]
