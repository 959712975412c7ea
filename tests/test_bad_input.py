"""Bad input over the whole surface: every argument None or of a wrong type, grid functions of another
class, unset scalars and emptied under_sat lists in every field a calculation reads.  A refused call
changes nothing; a cell that fails leaves the cells before it written (with the values of the complete
table) and the rest untouched."""

import numpy as np
import pytest
from kavra import tessel
from kavra.tessel import DoubleGridFunction, IntGridFunction

import kavra
from catalogue import CALLS, S, function, two_level
from kavra import TPVT, TPVTG, TPVTO, TPVTW, TPVTGRecord, TRock

OIL = [(10.0, [(100.0, 1.2), (200.0, 1.1)]), (20.0, [(150.0, 1.3), (250.0, 1.25)])]
GAS = [(100.0, [(0.01, 0.02), (0.03, 0.025)]), (200.0, [(0.02, 0.01), (0.04, 0.0125)])]

# Per calculation: its table as a list of records, the list it is passed in, and two cells chosen so
# that between them every lookup path is taken: CalcOneOverBo's cell 0 is saturated and cell 1
# undersaturated, CalcOneOverBg's cell 0 lies on the saturated line and cell 1 between rows.
TABLES = {
    "CalcBubblePointPressure": (lambda: two_level(TPVTO, TPVT, OIL), lambda t: kavra.TPVTOList([kavra.TPVTOTable(t)]),
                                [[15.0, 12.0]]),
    "CalcOneOverB": (lambda: [TPVT(S(100.0), S(1.2), S(1.0)), TPVT(S(200.0), S(1.1), S(1.0))],
                     lambda t: kavra.TPVTList([kavra.TPVTTable(t)]), [[150.0, 120.0]]),
    "CalcOneOverBo": (lambda: two_level(TPVTO, TPVT, OIL), lambda t: kavra.TPVTOList([kavra.TPVTOTable(t)]),
                      [[120.0, 300.0], [120.0, 120.0]]),
    "CalcOneOverBw": (lambda: [TPVTW(S(100.0), S(1.0), S(1e-4), S(0.5), S(0.0))], kavra.TPVTWList, [[150.0, 50.0]]),
    "CalcOneOverBg": (lambda: two_level(TPVTG, TPVTGRecord, GAS), lambda t: kavra.TPVTGList([kavra.TPVTGTable(t)]),
                      [[150.0, 150.0], [150.0, 300.0], [0.015, 0.02]]),
    "CalcPorosity": (lambda: [TRock(S(200.0), S(1e-3))], kavra.TRockList, [[300.0, 200.0], [0.2, 0.2]]),
}


def calculate(name, rows):
    """The two cells' results (7.0 where unwritten) and the error text, or None."""
    out, error = DoubleGridFunction([7.0, 7.0]), None
    try:
        if name == "InterpolateB":
            out.set_double(0, kavra.InterpolateB(kavra.TPVTTable(rows), 150.0))
        else:
            function(name)(TABLES[name][1](rows), IntGridFunction([1, 1]), *map(DoubleGridFunction, TABLES[name][2]), out)
    except RuntimeError as failure:
        error = str(failure)
    return list(out.values), error


# (calculation, where the None goes, the first cell that reads it; None when no lookup reads it).
UNSET_FIELDS = [
    ("CalcBubblePointPressure", "row0.Rs", 0), ("CalcBubblePointPressure", "row1.Rs", 0),
    ("CalcBubblePointPressure", "row0.under_sat0.P", 0), ("CalcBubblePointPressure", "row1.under_sat0.P", 0),
    ("CalcBubblePointPressure", "row0.under_sat0.B", None), ("CalcBubblePointPressure", "row1.under_sat1.P", None),
    ("CalcOneOverB", "row0.P", 0), ("CalcOneOverB", "row1.B", 0), ("CalcOneOverB", "row0.Mi", None),
    ("InterpolateB", "row1.P", 0), ("InterpolateB", "row0.B", 0),
    ("CalcOneOverBo", "row0.under_sat0.P", 0), ("CalcOneOverBo", "row1.under_sat0.B", 0),
    ("CalcOneOverBo", "row1.under_sat1.P", 1), ("CalcOneOverBo", "row1.under_sat1.B", 1),  # the undersaturated row
    ("CalcOneOverBo", "row0.under_sat1.B", None),  # the bracket's upper row is row 1
    ("CalcOneOverBo", "row0.Rs", None), ("CalcOneOverBo", "row1.under_sat0.Mi", None),
    ("CalcOneOverBw", "row0.P_ref", 0), ("CalcOneOverBw", "row0.Bw_ref", 0), ("CalcOneOverBw", "row0.Cw", 0),
    ("CalcOneOverBw", "row0.Miw_ref", None), ("CalcOneOverBw", "row0.Cvw", None),
    ("CalcOneOverBg", "row0.Pg", 0), ("CalcOneOverBg", "row1.under_sat0.Rv", 0),
    ("CalcOneOverBg", "row0.under_sat0.B", 0),
    ("CalcOneOverBg", "row0.under_sat1.Rv", 1), ("CalcOneOverBg", "row1.under_sat1.B", 1),  # read between rows only
    ("CalcOneOverBg", "row1.under_sat1.Mi", None),
    ("CalcPorosity", "row0.P_ref", 0), ("CalcPorosity", "row0.Cr", 0),
]


def unset(rows, path):
    """Sets the field at `path` (row<r>[.under_sat<u>].<field>) to None, in place."""
    parts = path.split(".")
    row = rows[int(parts[0][3:])]
    if len(parts) == 2:
        return setattr(row, parts[1], None)
    points, u = row.under_sat, int(parts[1][9:])
    point = points[u]
    setattr(point, parts[2], None)
    points[u] = point  # items are copies: put the changed one back


@pytest.mark.parametrize("name, path, failing_cell", UNSET_FIELDS)
def test_unset_scalar_fails_at_the_first_cell_that_reads_it(name, path, failing_cell):
    table = TABLES.get(name, TABLES["CalcOneOverB"])[0]
    complete, _ = calculate(name, table())
    rows = table()
    unset(rows, path)
    got, error = calculate(name, rows)
    if failing_cell is None:
        assert (got, error) == (complete, None)
        return
    assert error.endswith("scalar.get()!=0 A table field that the calculation reads holds no TScalar (None).\n")
    assert got == complete[:failing_cell] + [7.0] * (2 - failing_cell)


@pytest.mark.parametrize("row", [0, 1])
@pytest.mark.parametrize("name", ["CalcBubblePointPressure", "CalcOneOverBo", "CalcOneOverBg"])
def test_emptied_under_sat_fails_at_the_first_cell(name, row):
    rows = TABLES[name][0]()
    rows[row].under_sat = type(rows[row].under_sat)()
    got, error = calculate(name, rows)
    assert "its saturated point is missing" in error and got == [7.0, 7.0]


def test_emptied_records_between_two_rows_fail_there():
    # Cell 0 lies on the saturated line between rows 1 and 2; cell 1 between
    # rows 0 and 1, where only the records of these rows are read.
    rows = two_level(TPVTG, TPVTGRecord, GAS + [(300.0, [(0.03, 0.008)])])
    rows[0].under_sat = kavra.TPVTGRecordTable()
    out = DoubleGridFunction([7.0, 7.0])
    with pytest.raises(RuntimeError, match="Cannot interpolate in a table without rows"):
        kavra.CalcOneOverBg(kavra.TPVTGList([kavra.TPVTGTable(rows)]), IntGridFunction([1, 1]),
                            DoubleGridFunction([250.0, 150.0]), DoubleGridFunction([250.0, 300.0]),
                            DoubleGridFunction([0.02, 0.02]), out)
    assert out.values[0] != 7.0 and out.values[1] == 7.0


# --- every argument of every function: None, and objects of wrong types -------------------

def contents(argument):
    """What a call could change in an argument."""
    if hasattr(argument, "values"):
        return np.array(argument.values)
    return np.array(list(argument)) if isinstance(argument, (np.ndarray, tessel.IntVector)) else None


@pytest.mark.parametrize("wrong", [None, 1.0, [1.0, 2.0], kavra.TRockList()], ids=["None", "float", "list", "class"])
@pytest.mark.parametrize("name", CALLS)
def test_every_argument_of_every_function_refuses_wrong_values(name, wrong):
    """Boost.Python's argument error (a TypeError) where no overload takes the value; else a failed
    check (RuntimeError) for a grid function, or a ValueError for a reduction's array or topology."""
    for position in range(len(CALLS[name]())):
        args = list(CALLS[name]())
        if type(args[position]) is type(wrong):
            continue  # a float where a float belongs
        before = [contents(a) for a in args]
        originals, args[position] = list(args), wrong
        with pytest.raises((ValueError, TypeError) if name.startswith("K") else (RuntimeError, TypeError)):
            function(name)(*args)
        for given, was in zip(originals, before):  # refused before any cell is written
            assert was is None or np.array_equal(contents(given), was)


# Names under which the functions that demand one class per grid function report another class.
CAST_NAMES = {
    "CalcPorosity": [None, "PVTNum", "Po", "PORO", "Porosity"],
    "CalcPorosityFromPORV": ["BulkVolume", "PORV", "Porosity"],
    "CalcBulkVolume": ["NTG", "BulkVolume"],
    "CalcBulkVolume three": ["PORV", "PORO", "BulkVolume"],
    "CalcTransmissibilityK": [None, None, None, "TranK"],
}


@pytest.mark.parametrize("name", [n for n in CALLS if not n.startswith(("K", "InterpolateB"))])
def test_grid_functions_of_another_element_type(name):
    """A float grid function in place of any grid function: the PVT calculations and
    CalcRsFromComponents take it through the element accessors; the others refuse it by name."""
    for position, given in enumerate(CALLS[name]()):
        if not isinstance(given, tessel.IGridFunction):
            continue
        args = list(CALLS[name]())
        args[position] = tessel.FloatGridFunction(np.array(given.values, dtype=np.float32))
        if name not in CAST_NAMES:
            function(name)(*args)
            assert list(args[-1].values) != [7.0, 7.0]
            continue
        with pytest.raises(RuntimeError, match=f"The type cast for {CAST_NAMES[name][position]} failed!!"):
            function(name)(*args)
        assert set(args[-1].values) == {7.0}
