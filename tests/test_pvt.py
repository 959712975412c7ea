"""The PVT calculations: worked examples, what their failures read and where
they stop, and a property test against the reference."""

import math

import numpy as np
import pytest
from hypothesis import HealthCheck, given, settings
from hypothesis import strategies as st
from kavra.tessel import DoubleGridFunction, FloatGridFunction, IntGridFunction

import kavra
from catalogue import PVT, SAMPLE, S, dead_table, expected, ref
from conftest import precondition_text

nan = float("nan")


def run(name, tables, regions, inputs, result):
    """Calls a PVT calculation on double grid functions; returns the result values."""
    out = DoubleGridFunction(result)
    PVT[name].call(PVT[name].make(tables), IntGridFunction(regions), *map(DoubleGridFunction, inputs), out)
    return out.values


def test_interpolate_b():
    table = dead_table([(100.0, 1.2), (200.0, 1.1), (300.0, 1.0)])
    got = [kavra.InterpolateB(table, p) for p in (150.0, 250.0, 50.0, 100.0, 350.0, 200.0)]
    np.testing.assert_allclose(got, [1.15, 1.05, 1.25, 1.2, 0.95, 1.1], rtol=1e-15)
    assert math.isnan(kavra.InterpolateB(table, nan))
    assert [kavra.InterpolateB(dead_table([(100.0, 1.3)]), p) for p in (0.0, nan)] == [1.3, 1.3]
    # The first two keys equal: the zero-width first bracket gives the IEEE result.
    assert math.isinf(kavra.InterpolateB(dead_table([(100.0, 1.2), (100.0, 1.1), (300.0, 1.0)]), 50.0))
    # It reads the table itself, never a flattened copy: unsorted keys and NaN included.
    rng = np.random.default_rng(5)
    for n in (2, 3, 7, 40):
        rows = [(float(p), float(b)) for p, b in zip(rng.choice([0.0, 50.0, 100.0, nan, 150.0], n), rng.random(n))]
        p = np.append(rng.choice([0.0, 50.0, 100.0, 150.0], 20), rng.uniform(-50.0, 200.0, 20))
        keys, b = ref.columns(rows)
        with np.errstate(all="ignore"):
            want = ref.line(keys, keys, b, p, p)
        np.testing.assert_array_equal([kavra.InterpolateB(dead_table(rows), x) for x in p], want)
    with pytest.raises(RuntimeError, match="Cannot interpolate in a table without rows"):
        kavra.InterpolateB(kavra.TPVTTable(), 1.0)
    with pytest.raises(TypeError):
        kavra.InterpolateB([kavra.TPVT(S(1.0), S(2.0), S(0.0))], 1.0)


@pytest.mark.parametrize(
    "name, tables, regions, inputs, want",
    [
        # Saturated closer than 0.0001 to Pbub; else the undersaturated points of the
        # bracket's upper row around Pbub (also below the first row), unblended.
        ("CalcOneOverBo", SAMPLE["CalcOneOverBo"], [1] * 9,
         [[150.0, 150.0, 300.0, 300.0, 300.0, 150.0, 150.0, nan, 0.0001],
          [150.0, 150.00005, 150.0, 100.0, 250.0, 180.0, 150.0 + 0.0001, 150.0, 0.0]],
         1.0 / np.array([1.25, 1.25, 1.25, 1.25, 1.25, 1.325, 1.325, nan, 1.39999995])),
        # The saturated line closer than 0.0001 to Pdew and at or beyond the table's ends, else a blend in Pg.
        ("CalcOneOverBg", SAMPLE["CalcOneOverBg"], [1] * 6,
         [[150.0, 200.0, 100.0, 250.0, 150.0, nan], [300.0, 300.0, 300.0, 300.0, 150.0, 300.0],
          [0.02, 0.02, 0.02, 0.015, 0.015, 0.02]], [72.5, 100.0, 100.0, 75.0, 75.0, 100.0]),
        ("CalcOneOverBg", [[(0.0, [(0.01, 0.02), (0.03, 0.025)]), (0.001, [(0.02, 0.01), (0.04, 0.0125)])]], [1, 1],
         [[0.0001, 0.0001], [0.0, 0.0001], [0.02, 0.02]], [50.5, 100.0]),
        ("CalcOneOverBw", [(100.0, 1.0, 1e-4), (100.0, 2.0, 0.0)], [1, 1, 2, 0, -3],
         [[1100.0, 100.0, 500.0, 1.0, 1.0]], [1.105, 1.0, 0.5, 0.0, 0.0]),
        ("CalcBubblePointPressure", SAMPLE["CalcBubblePointPressure"], [1, 1, 1, 0], [[15.0, 20.0, 30.0, 1.0]],
         [150.0, 200.0, 300.0, 0.0]),
    ],
    ids=lambda v: v if isinstance(v, str) else "",
)
def test_worked_examples(name, tables, regions, inputs, want):
    np.testing.assert_allclose(run(name, tables, regions, inputs, len(regions)), want, rtol=1e-13)


@pytest.mark.parametrize("name", PVT)
def test_zero_cells_and_regions_below_one_need_no_table(name):
    n_inputs = len(PVT[name].inputs)
    assert len(run(name, [], [], [[]] * n_inputs, 0)) == 0
    np.testing.assert_array_equal(run(name, [], [0, -1, -2**31], [[5.0] * 3] * n_inputs, [7.0] * 3), [0.0] * 3)


# --- failure texts and orders ------------------------------------------------------------

@pytest.mark.parametrize("name", PVT)
def test_count_checks_in_argument_order(name, raises_text):
    calc = PVT[name]
    names = ["PVTNum", *calc.inputs]
    for wrong in range(len(names)):
        sizes = [3] * len(names)
        sizes[wrong] = 2
        sizes[-1] = 4 if wrong == 0 else sizes[-1]  # with several counts wrong the first one is named
        out = DoubleGridFunction([7.0] * 3)
        text = precondition_text(calc.source, calc.count.format(names[wrong]),
                                 f"{calc.counted_as or calc.result} and {names[wrong]} should have the same number "
                                 "of elements.")
        raises_text(text, calc.call, calc.make([]), IntGridFunction([9] * sizes[0]),
                    *(DoubleGridFunction(n) for n in sizes[1:]), out)
        assert list(out.values) == [7.0] * 3


@pytest.mark.parametrize("name", PVT)
def test_none_grid_function_is_refused_before_writing(name, raises_text):
    calc = PVT[name]
    names = ["PVTNum", *calc.inputs, calc.result]
    for position in range(len(names)):
        args = [IntGridFunction([1])] + [DoubleGridFunction([150.0]) for _ in calc.inputs] + [DoubleGridFunction([7.0])]
        out, args[position] = args[-1], None
        text = precondition_text("core/utils/gridfunction_checking.h", "gridFunction.get()!=0",
                                 f"The grid function {names[position]} is None!!")
        raises_text(text, calc.call, calc.make(SAMPLE[name]), *args)
        assert out.values[0] == 7.0


@pytest.mark.parametrize("name, failing", [(name, failing) for name in PVT for failing in ("region", "no tables", "empty")
                                           if failing != "empty" or PVT[name].empty])
def test_a_failing_cell_keeps_the_cells_before_it(name, raises_text, failing):
    calc = PVT[name]
    tables, region, condition, text = {
        "region": (SAMPLE[name], 3, calc.region, "Wrong PVT region number: 2, valid interval [0, 0]."),
        "no tables": ([], 1, calc.region, "Wrong PVT region number: 0, valid interval [0, 18446744073709551615]."),
        "empty": (SAMPLE[name] + [[]], 2, *(calc.empty or (None, None))),
    }[failing]
    out = DoubleGridFunction([7.0] * 3)
    inputs = [DoubleGridFunction([150.0] * 3) for _ in calc.inputs]
    raises_text(precondition_text(calc.source, condition, text), calc.call, calc.make(tables),
                IntGridFunction([0, region, 1]), *inputs, out)
    assert list(out.values) == [0.0, 7.0, 7.0]  # written before, not at or after


def failure_text(name, stop, n_tables):
    """The message of the check that a reference failure stands for."""
    if stop.kind == "empty":
        return PVT[name].empty[1]
    return f"Wrong PVT region number: {stop.region - 1}, valid interval [0, {(n_tables - 1) % 2**64}]."


# --- property test against the reference ----------------------------------------------------

numbers = st.one_of(st.sampled_from([0.0, 50.0, 100.0, 150.0, 200.0]), st.floats(-500.0, 500.0), st.just(nan))
factors = st.one_of(st.floats(0.01, 3.0), st.sampled_from([0.0, nan, 1.0]))
points = st.lists(st.tuples(numbers, factors), min_size=1, max_size=3)
TABLES = {
    "CalcOneOverB": st.lists(st.tuples(numbers, factors), max_size=4),
    "CalcOneOverBw": st.tuples(numbers, factors, st.floats(-1e-3, 1e-3)),
    **{name: st.lists(st.tuples(numbers, points), max_size=4)
       for name in ("CalcBubblePointPressure", "CalcOneOverBo", "CalcOneOverBg")},
}


@pytest.mark.parametrize("name", PVT)
@settings(max_examples=30, deadline=None, suppress_health_check=[HealthCheck.too_slow])
@given(data=st.data())
def test_calculations_match_the_reference(name, data):
    tables = data.draw(st.lists(TABLES[name], max_size=3), label="tables")
    n = data.draw(st.integers(0, 8), label="cells")
    regions = data.draw(st.lists(st.integers(-1, len(tables) + 1), min_size=n, max_size=n), label="regions")
    # arrays of double or of float; regions held as doubles take the generic path
    kind, region = data.draw(st.sampled_from([(DoubleGridFunction, IntGridFunction), (FloatGridFunction, IntGridFunction),
                                              (DoubleGridFunction, DoubleGridFunction)]), label="kind")
    inputs = [data.draw(st.lists(numbers, min_size=n, max_size=n), label=i) for i in PVT[name].inputs]
    dtype = np.float32 if kind is FloatGridFunction else np.float64
    inputs = [np.array(v, dtype=dtype).astype(float) for v in inputs]  # the values the calculation sees
    want, failure = expected(name, tables, regions, inputs)
    result = kind([123.0] * n)
    call = lambda: PVT[name].call(PVT[name].make(tables), region(regions), *map(kind, inputs), result)  # noqa: E731
    if failure is None:
        call()
    else:
        with pytest.raises(RuntimeError) as info:
            call()
        assert str(info.value).endswith(f" {failure_text(name, failure, len(tables))}\n")
    with np.errstate(over="ignore"):  # a double beyond float range rounds to inf, as in the calculation
        np.testing.assert_array_equal(result.values, np.array(want, dtype=dtype))
