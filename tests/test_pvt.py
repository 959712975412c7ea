"""The PVT calculations: worked examples, failure texts, variants, and a
property test against the plain-Python reference of the same arithmetic."""

import math

import numpy as np
import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st

import kavra
import pvt_reference as ref
from conftest import precondition_text
from kavra import (
    TPVT, TPVTG, TPVTO, TPVTW, TPVTGList, TPVTGRecord, TPVTGTable, TPVTList, TPVTOList, TPVTOTable, TPVTTable,
    TPVTWList, TScalar,
)
from tessel import (
    DoubleGridFunction, FloatGridFunction, IntGridFunction, ReservoirSelectionTopology, ReservoirTopology,
    SelectionViewGridFunction,
)

nan = float("nan")


def S(value):
    return TScalar(value, "", "")


# --- plain data -> tables -----------------------------------------------------

def dead_table(rows):
    return TPVTTable([TPVT(S(p), S(b), S(0.3)) for p, b in rows])


def oil_table(rows):
    table = TPVTOTable()
    for rs, points in rows:
        row = TPVTO(S(rs), S(points[0][0]), S(points[0][1]), S(0.3))
        for p, b in points[1:]:
            row.under_sat.append(TPVT(S(p), S(b), S(0.3)))
        table.append(row)
    return table


def gas_table(rows):
    table = TPVTGTable()
    for pg, records in rows:
        row = TPVTG(S(pg), S(records[0][0]), S(records[0][1]), S(0.01))
        for rv, b in records[1:]:
            row.under_sat.append(TPVTGRecord(S(rv), S(b), S(0.01)))
        table.append(row)
    return table


def water_record(record):
    p_ref, bw_ref, cw = record
    return TPVTW(S(p_ref), S(bw_ref), S(cw), S(0.5), S(0.0))


CALCS = {
    "CalcBubblePointPressure": dict(
        call=kavra.CalcBubblePointPressure, make=lambda ts: TPVTOList([oil_table(t) for t in ts]), inputs=("RS",),
        result="Pbub", source="core/pvt/BubblePointPressure.cpp", cond="nElts == p_{}->number_of_elements()",
        region="pvtID<p_pvtoList.size()", empty=("!pvto_table.empty()", "Empty PVTO table!!"),
        reference=ref.interpolate_pbub,
    ),
    "CalcOneOverB": dict(
        call=kavra.CalcOneOverB, make=lambda ts: TPVTList([dead_table(t) for t in ts]), inputs=("P",),
        result="OneOverB", source="core/pvt/OneOverB.cpp", cond="nElts == p_{}->number_of_elements()",
        region="pvtID<pvtList.size()", empty=("!pvt_table.empty()", "Empty PVT table!!"),
        reference=lambda t, p: ref.div(1.0, ref.interpolate_b(t, p)),
    ),
    "CalcOneOverBo": dict(
        call=kavra.CalcOneOverBo, make=lambda ts: TPVTOList([oil_table(t) for t in ts]), inputs=("Po", "Pbub"),
        result="OneOverBo", source="core/pvt/OneOverBo.cpp", cond="nElts == {}->number_of_elements()",
        region="pvtID<pvtoList.size()", empty=("!pvt_table.empty()", "Empty PVT table!!"),
        reference=ref.one_over_bo,
    ),
    "CalcOneOverBw": dict(
        call=kavra.CalcOneOverBw, make=lambda rs: TPVTWList([water_record(r) for r in rs]), inputs=("Pw",),
        result="OneOverBw", source="core/pvt/OneOverBw.cpp", cond="nElts == p_{}->number_of_elements()",
        region="pvtID<pvtwList.size()", empty=None, reference=ref.one_over_bw,
    ),
    "CalcOneOverBg": dict(
        call=kavra.CalcOneOverBg, make=lambda ts: TPVTGList([gas_table(t) for t in ts]), inputs=("Pg", "Pdew", "Rv"),
        result="OneOverBo", source="core/pvt/OneOverBg.cpp", cond="number_of_elements == p_{}->number_of_elements()",
        region="pvtID < p_pvtg_list.size()", empty=("!pvt_table.empty()", "Empty PVT table!!"),
        reference=ref.one_over_bg,
    ),
}

# One small table per calculation, for the tests of texts and orders.
SAMPLE = {
    "CalcBubblePointPressure": [[(10.0, [(100.0, 1.2)]), (20.0, [(200.0, 1.3)])]],
    "CalcOneOverB": [[(100.0, 1.2), (200.0, 1.1)]],
    "CalcOneOverBo": [[(10.0, [(100.0, 1.2)]), (20.0, [(200.0, 1.3), (300.0, 1.25)])]],
    "CalcOneOverBw": [(100.0, 1.0, 1e-4)],
    "CalcOneOverBg": [[(100.0, [(0.01, 0.02), (0.03, 0.025)]), (200.0, [(0.02, 0.01), (0.04, 0.0125)])]],
}


def run(name, tables, regions, inputs, result, kind="double"):
    """Calls a calculation on grid functions of the given kind; returns the result values."""
    calc = CALCS[name]
    make = {"double": DoubleGridFunction, "float": FloatGridFunction}[kind]
    out = make(result)
    calc["call"](calc["make"](tables), IntGridFunction(regions), *(make(v) for v in inputs), out)
    return out.values


# --- worked examples ------------------------------------------------------------

def test_interpolate_b_examples():
    table = dead_table([(100.0, 1.2), (200.0, 1.1), (300.0, 1.0)])
    got = [kavra.InterpolateB(table, p) for p in (150.0, 250.0, 50.0, 100.0, 350.0, 200.0)]
    np.testing.assert_allclose(got, [1.15, 1.05, 1.25, 1.2, 0.95, 1.1], rtol=1e-15)
    assert math.isnan(kavra.InterpolateB(table, nan))
    one = dead_table([(100.0, 1.3)])
    assert [kavra.InterpolateB(one, p) for p in (0.0, 1e9, nan)] == [1.3, 1.3, 1.3]
    # The first two keys equal: the zero-width first bracket gives the IEEE result.
    assert math.isinf(kavra.InterpolateB(dead_table([(100.0, 1.2), (100.0, 1.1), (300.0, 1.0)]), 50.0))


def test_one_over_bo_examples():
    po = [150.0, 150.0, 300.0, 300.0, 300.0, 150.0, 150.0, nan]
    pbub = [150.0, 150.00005, 150.0, 100.0, 250.0, 180.0, 150.0 + 0.0001, 150.0]
    got = run("CalcOneOverBo", SAMPLE["CalcOneOverBo"], [1] * 8, [po, pbub], 8)
    np.testing.assert_allclose(1.0 / got[:7], [1.25, 1.25, 1.25, 1.25, 1.25, 1.325, 1.325], rtol=1e-14)
    assert math.isnan(got[7])


def test_one_over_bg_examples():
    pg = [150.0, 200.0, 100.0, 250.0, 150.0, nan]
    pdew = [300.0, 300.0, 300.0, 300.0, 150.0, 300.0]
    rv = [0.02, 0.02, 0.02, 0.015, 0.015, 0.02]
    got = run("CalcOneOverBg", SAMPLE["CalcOneOverBg"], [1] * 6, [pg, pdew, rv], 6)
    np.testing.assert_allclose(got, [72.5, 100.0, 100.0, 75.0, 75.0, 100.0], rtol=1e-13)


def test_one_over_bw_examples():
    got = run("CalcOneOverBw", [(100.0, 1.0, 1e-4), (100.0, 2.0, 0.0)], [1, 1, 2, 0, -3], [[1100.0, 100.0, 500.0, 1.0, 1.0]], 5)
    np.testing.assert_allclose(got, [1.105, 1.0, 0.5, 0.0, 0.0], rtol=1e-15)


def test_bubble_point_examples():
    got = run("CalcBubblePointPressure", SAMPLE["CalcBubblePointPressure"], [1, 1, 1, 0], [[15.0, 20.0, 30.0, 1.0]], 4)
    np.testing.assert_allclose(got, [150.0, 200.0, 300.0, 0.0], rtol=1e-15)


@pytest.mark.parametrize("name", CALCS)
def test_zero_cells_and_regions_below_one_need_no_table(name):
    n_inputs = len(CALCS[name]["inputs"])
    assert len(run(name, [], [], [[]] * n_inputs, 0)) == 0
    np.testing.assert_array_equal(run(name, [], [0, -1, -2**31], [[5.0] * 3] * n_inputs, 3), [0.0, 0.0, 0.0])


# --- failure texts and orders -------------------------------------------------------

@pytest.mark.parametrize("name", CALCS)
def test_count_checks_in_argument_order(name, raises_text):
    calc = CALCS[name]
    names = ["PVTNum", *calc["inputs"]]
    for wrong in range(len(names)):
        sizes = [3] * len(names)
        sizes[wrong] = 2
        sizes[-1] = 4 if wrong == 0 else sizes[-1]  # with several counts wrong the first one is named
        out = DoubleGridFunction([7.0] * 3)
        grid_functions = [IntGridFunction([9] * sizes[0])] + [DoubleGridFunction(n) for n in sizes[1:]]
        text = precondition_text(
            calc["source"],
            calc["cond"].format(names[wrong]) if name != "CalcOneOverBo" or wrong else "nElts == PVTNum->number_of_elements()",
            f"{calc['result']} and {names[wrong]} should have the same number of elements.",
        )
        raises_text(text, calc["call"], calc["make"]([]), *grid_functions, out)
        assert list(out.values) == [7.0] * 3


@pytest.mark.parametrize("name", CALCS)
@pytest.mark.parametrize("tables, region, shown", [("sample", 3, "2, valid interval [0, 0"), ("none", 1, "0, valid interval [0, 18446744073709551615")])
def test_region_out_of_range_fails_at_its_cell(name, raises_text, tables, region, shown):
    calc = CALCS[name]
    n_inputs = len(calc["inputs"])
    out = DoubleGridFunction([7.0] * 3)
    inputs = [DoubleGridFunction([150.0, 150.0, 150.0]) for _ in range(n_inputs)]
    chosen = SAMPLE[name] if tables == "sample" else []
    text = precondition_text(calc["source"], calc["region"], f"Wrong PVT region number: {shown}].")
    raises_text(text, calc["call"], calc["make"](chosen), IntGridFunction([0, region, 1]), *inputs, out)
    assert out.values[0] == 0.0 and list(out.values[1:]) == [7.0, 7.0]  # written before, not at or after


@pytest.mark.parametrize("name", [n for n in CALCS if CALCS[n]["empty"]])
def test_empty_table_fails_only_where_reached(name, raises_text):
    calc = CALCS[name]
    n_inputs = len(calc["inputs"])
    tables = SAMPLE[name] + [[]]
    out = DoubleGridFunction([7.0] * 3)
    inputs = [DoubleGridFunction([150.0] * 3) for _ in range(n_inputs)]
    condition, message = calc["empty"]
    raises_text(precondition_text(calc["source"], condition, message), calc["call"], calc["make"](tables),
                IntGridFunction([1, 2, 1]), *inputs, out)
    assert out.values[0] != 7.0 and list(out.values[1:]) == [7.0, 7.0]


@pytest.mark.parametrize("name", CALCS)
def test_none_grid_function_is_refused_before_writing(name, raises_text):
    calc = CALCS[name]
    names = ["PVTNum", *calc["inputs"]]
    for position in range(len(names) + 1):
        args = [IntGridFunction([1])] + [DoubleGridFunction([150.0]) for _ in names[1:]] + [DoubleGridFunction([7.0])]
        out = args[-1]
        args[position] = None
        shown = (names + [CALCS[name]["result"] if name != "CalcOneOverBg" else "OneOverBg"])[position]
        text = precondition_text("core/utils/gridfunction_checking.h", "gridFunction.get()!=0", f"The grid function {shown} is None!!")
        raises_text(text, calc["call"], calc["make"](SAMPLE[name]), *args)
        assert position == len(names) or out.values[0] == 7.0


def test_unset_scalars_and_emptied_rows_fail_in_an_orderly_way():
    field_text = "A table field that the calculation reads holds no TScalar (None)."
    oil = oil_table(SAMPLE["CalcOneOverBo"][0])
    row = oil[1]
    row.under_sat = TPVTTable()  # no saturated point left
    oil[1] = row
    with pytest.raises(RuntimeError, match="its saturated point is missing"):
        kavra.CalcOneOverBo(TPVTOList([oil]), IntGridFunction([1]), DoubleGridFunction([150.0]),
                            DoubleGridFunction([150.0]), DoubleGridFunction(1))
    with pytest.raises(RuntimeError, match="holds no TScalar"):
        kavra.InterpolateB(TPVTTable([TPVT(S(1.0), None, S(0.0)), TPVT(S(2.0), S(1.0), None)]), 1.5)
    water = TPVTWList([TPVTW(S(100.0), None, S(1e-4), None, None)])
    with pytest.raises(RuntimeError) as info:
        kavra.CalcOneOverBw(water, IntGridFunction([1]), DoubleGridFunction([1.0]), DoubleGridFunction(1))
    assert str(info.value).endswith(f"scalar.get()!=0 {field_text}\n")
    # Fields that are never read may be unset.
    assert kavra.InterpolateB(TPVTTable([TPVT(S(1.0), S(2.0), None)]), 5.0) == 2.0
    with pytest.raises(RuntimeError, match="Cannot interpolate in a table without rows"):
        kavra.InterpolateB(TPVTTable(), 1.0)
    with pytest.raises(TypeError):
        kavra.InterpolateB([TPVT(S(1.0), S(2.0), S(0.0))], 1.0)


# --- variants --------------------------------------------------------------------

def test_float_variant_rounds_the_double_result_once():
    tables = [[(10.0, [(100.0, 1.2)]), (30.0, [(250.0, 1.35)])]]
    rs = np.array([11.1, 17.3, 29.9], dtype=np.float32)
    exact = run("CalcBubblePointPressure", tables, [1, 1, 1], [rs.astype(np.float64)], 3)
    in_float = run("CalcBubblePointPressure", tables, [1, 1, 1], [rs], 3, kind="float")
    assert in_float.dtype == np.float32
    np.testing.assert_array_equal(in_float, exact.astype(np.float32))


def test_mixtures_and_views_give_the_same_numbers():
    tables = SAMPLE["CalcOneOverBg"]
    pg, pdew, rv = [150.0, 120.0, 190.0], [300.0, 300.0, 190.0], [0.021, 0.033, 0.025]
    expected = run("CalcOneOverBg", tables, [1, 1, 1], [pg, pdew, rv], 3)
    mixed = DoubleGridFunction(3)  # float inputs into a double result: generic variant
    f = [FloatGridFunction(np.array(v, dtype=np.float64)) for v in (pg, pdew, rv)]
    kavra.CalcOneOverBg(CALCS["CalcOneOverBg"]["make"](tables), IntGridFunction([1, 1, 1]), *f, mixed)
    reference = [ref.one_over_bg(tables[0], *(float(np.float32(v[c])) for v in (pg, pdew, rv))) for c in range(3)]
    np.testing.assert_array_equal(mixed.values, reference)
    selection = ReservoirSelectionTopology(ReservoirTopology(3, 1, 1), [[2, 0, 0], [0, 0, 0], [1, 0, 0]])
    view = SelectionViewGridFunction(selection, DoubleGridFunction(3))
    kavra.CalcOneOverBg(CALCS["CalcOneOverBg"]["make"](tables), DoubleGridFunction([1.0, 1.0, 1.0]),
                        *(DoubleGridFunction(v) for v in (pg, pdew, rv)), view)
    np.testing.assert_array_equal(view.values, expected)


# --- property test against the reference --------------------------------------------------

numbers = st.one_of(
    st.sampled_from([0.0, 50.0, 100.0, 150.0, 200.0, 250.0]),
    st.floats(-500.0, 500.0, allow_nan=False),
    st.just(nan),
)
factors = st.one_of(st.floats(0.01, 3.0), st.sampled_from([0.0, nan, 1.0]))
points = st.lists(st.tuples(numbers, factors), min_size=1, max_size=3)
TABLES = {
    "CalcOneOverB": st.lists(st.tuples(numbers, factors), max_size=4),
    "CalcBubblePointPressure": st.lists(st.tuples(numbers, points), max_size=4),
    "CalcOneOverBo": st.lists(st.tuples(numbers, points), max_size=4),
    "CalcOneOverBg": st.lists(st.tuples(numbers, points), max_size=4),
}
WATER = st.tuples(numbers, factors, st.floats(-1e-3, 1e-3))
VARIANTS = ["double", "float", "mixed", "view"]


def grid_functions(variant, regions, inputs, n):
    """Grid functions for a variant, and the input values the calculation will see."""
    if variant in ("double", "view"):
        seen = [list(map(float, v)) for v in inputs]
    else:
        seen = [[float(np.float32(x)) for x in v] for v in inputs]
    if variant == "view":
        grid = ReservoirTopology(max(n, 1), 1, 1)
        selection = ReservoirSelectionTopology(grid, [[c, 0, 0] for c in range(n)])
        make = lambda values: SelectionViewGridFunction(selection, DoubleGridFunction(values))
        gfs = [DoubleGridFunction(np.array(regions, dtype=float))] + [make(v) for v in seen] + [make([123.0] * n)]
    else:
        value_cls = DoubleGridFunction if variant == "double" else FloatGridFunction
        result_cls = FloatGridFunction if variant == "float" else DoubleGridFunction
        gfs = [IntGridFunction(regions)] + [value_cls(v) for v in seen] + [result_cls([123.0] * n)]
    return gfs, seen


@pytest.mark.parametrize("variant", VARIANTS)
@pytest.mark.parametrize("name", CALCS)
@settings(max_examples=60, deadline=None, suppress_health_check=[HealthCheck.too_slow])
@given(data=st.data())
def test_calculations_match_the_reference(name, variant, data):
    calc = CALCS[name]
    tables = data.draw(st.lists(WATER if name == "CalcOneOverBw" else TABLES[name], max_size=3), label="tables")
    n = data.draw(st.integers(0, 8), label="cells")
    regions = data.draw(st.lists(st.integers(-1, len(tables) + 1), min_size=n, max_size=n), label="regions")
    inputs = [data.draw(st.lists(numbers, min_size=n, max_size=n), label=i) for i in calc["inputs"]]
    gfs, seen = grid_functions(variant, regions, inputs, n)

    failure = None
    try:
        expected = ref.cells(regions, tables, calc["reference"], seen,
                             empty_text=(calc["empty"] or ("", ""))[1], check_empty=calc["empty"] is not None)
    except ref.CellFailure as stop:
        failure = stop
    result = gfs[-1]
    if failure is None:
        calc["call"](calc["make"](tables), *gfs)
    else:
        with pytest.raises(RuntimeError) as info:
            calc["call"](calc["make"](tables), *gfs)
        assert str(info.value).endswith(f" {failure}\n")
        expected = ref.cells(regions[: failure.cell], tables, calc["reference"], seen)
        expected += [123.0] * (n - failure.cell)
    with np.errstate(over="ignore"):  # a double beyond float range rounds to inf, as in the calculation
        expected = np.array(expected, dtype=np.float32 if variant == "float" else np.float64)
    np.testing.assert_array_equal(result.values, expected)
