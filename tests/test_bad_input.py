"""Bad input, swept over the whole surface: every argument None or of a wrong
type, unset scalars and emptied under_sat lists in every field a calculation
reads, lying iterables and huge counts for every list class.  Each gives a
Python exception, and the data are left as documented: a refused call
changes nothing, a cell that fails leaves the cells before it written and
the rest untouched.
"""

import numpy as np
import pytest
import tessel
from tessel import DoubleGridFunction, IntGridFunction

import kavra
from kavra import TPVT, TPVTG, TPVTO, TPVTW, TPVTGRecord, TScalar

UNSET = "holds no TScalar (None)"
NO_SATURATED_POINT = "its saturated point is missing"
NO_ROWS = "Cannot interpolate in a table without rows"
SENTINEL = 7.0


def S(value):
    return TScalar(value, "", "")


def oil_table():
    """Two rows; each with one undersaturated point after its saturated one."""
    rows = []
    for rs, points in ((10.0, [(100.0, 1.2), (200.0, 1.1)]), (20.0, [(150.0, 1.3), (250.0, 1.25)])):
        row = TPVTO(S(rs), S(points[0][0]), S(points[0][1]), S(1.0))
        row.under_sat.append(TPVT(S(points[1][0]), S(points[1][1]), S(1.0)))
        rows.append(row)
    return rows


def gas_table():
    rows = []
    for pg, records in ((100.0, [(0.01, 0.02), (0.03, 0.025)]), (200.0, [(0.02, 0.01), (0.04, 0.0125)])):
        row = TPVTG(S(pg), S(records[0][0]), S(records[0][1]), S(0.01))
        row.under_sat.append(TPVTGRecord(S(records[1][0]), S(records[1][1]), S(0.01)))
        rows.append(row)
    return rows


def dead_table():
    return [TPVT(S(100.0), S(1.2), S(1.0)), TPVT(S(200.0), S(1.1), S(1.0))]


def water_records():
    return [TPVTW(S(100.0), S(1.0), S(1e-4), S(0.5), S(0.0))]


def rock_records():
    return [kavra.TRock(S(200.0), S(1e-3))]


def D(values):
    return DoubleGridFunction(list(values))


# How each calculation is called on two cells, from a table given as rows.
# The cells are chosen so that between them every lookup path is taken:
# CalcOneOverBo's cell 0 is saturated and cell 1 undersaturated, and
# CalcOneOverBg's cell 0 lies on the saturated line and cell 1 between rows.
CALCS = {
    "CalcBubblePointPressure": (
        oil_table,
        lambda rows, out: kavra.CalcBubblePointPressure(
            kavra.TPVTOList([kavra.TPVTOTable(rows)]), IntGridFunction([1, 1]), D([15.0, 12.0]), out),
    ),
    "CalcOneOverB": (
        dead_table,
        lambda rows, out: kavra.CalcOneOverB(
            kavra.TPVTList([kavra.TPVTTable(rows)]), IntGridFunction([1, 1]), D([150.0, 120.0]), out),
    ),
    "InterpolateB": (
        dead_table,
        lambda rows, out: out.set_double(0, kavra.InterpolateB(kavra.TPVTTable(rows), 150.0)),
    ),
    "CalcOneOverBo": (
        oil_table,
        lambda rows, out: kavra.CalcOneOverBo(
            kavra.TPVTOList([kavra.TPVTOTable(rows)]), IntGridFunction([1, 1]), D([120.0, 300.0]),
            D([120.0, 120.0]), out),
    ),
    "CalcOneOverBw": (
        water_records,
        lambda rows, out: kavra.CalcOneOverBw(kavra.TPVTWList(rows), IntGridFunction([1, 1]), D([150.0, 50.0]), out),
    ),
    "CalcOneOverBg": (
        gas_table,
        lambda rows, out: kavra.CalcOneOverBg(
            kavra.TPVTGList([kavra.TPVTGTable(rows)]), IntGridFunction([1, 1]), D([150.0, 150.0]),
            D([150.0, 300.0]), D([0.015, 0.02]), out),
    ),
    "CalcPorosity": (
        rock_records,
        lambda rows, out: kavra.CalcPorosity(kavra.TRockList(rows), IntGridFunction([1, 1]), D([300.0, 200.0]),
                                             D([0.2, 0.2]), out),
    ),
}

# (calculation, where the None goes, the first cell that reads it or None
# when no lookup reads that field).
UNSET_FIELDS = [
    ("CalcBubblePointPressure", "row0.Rs", 0),
    ("CalcBubblePointPressure", "row1.Rs", 0),
    ("CalcBubblePointPressure", "row0.under_sat0.P", 0),
    ("CalcBubblePointPressure", "row1.under_sat0.P", 0),
    ("CalcBubblePointPressure", "row0.under_sat0.B", None),
    ("CalcBubblePointPressure", "row1.under_sat1.P", None),
    ("CalcOneOverB", "row0.P", 0),
    ("CalcOneOverB", "row1.B", 0),
    ("CalcOneOverB", "row0.Mi", None),
    ("InterpolateB", "row1.P", 0),
    ("InterpolateB", "row0.B", 0),
    ("CalcOneOverBo", "row0.under_sat0.P", 0),
    ("CalcOneOverBo", "row1.under_sat0.B", 0),
    ("CalcOneOverBo", "row1.under_sat1.P", 1),  # the undersaturated cell's row
    ("CalcOneOverBo", "row1.under_sat1.B", 1),
    ("CalcOneOverBo", "row0.under_sat1.B", None),  # the bracket's upper row is row 1
    ("CalcOneOverBo", "row0.Rs", None),
    ("CalcOneOverBo", "row1.under_sat0.Mi", None),
    ("CalcOneOverBw", "row0.P_ref", 0),
    ("CalcOneOverBw", "row0.Bw_ref", 0),
    ("CalcOneOverBw", "row0.Cw", 0),
    ("CalcOneOverBw", "row0.Miw_ref", None),
    ("CalcOneOverBw", "row0.Cvw", None),
    ("CalcOneOverBg", "row0.Pg", 0),
    ("CalcOneOverBg", "row1.under_sat0.Rv", 0),
    ("CalcOneOverBg", "row0.under_sat0.B", 0),
    ("CalcOneOverBg", "row0.under_sat1.Rv", 1),  # records are read only between rows
    ("CalcOneOverBg", "row1.under_sat1.B", 1),
    ("CalcOneOverBg", "row1.under_sat1.Mi", None),
    ("CalcPorosity", "row0.P_ref", 0),
    ("CalcPorosity", "row0.Cr", 0),
]


def unset(rows, path):
    """Set the field at `path` (row<r>[.under_sat<u>].<field>) to None, in place."""
    parts = path.split(".")
    row = rows[int(parts[0][3:])]
    if len(parts) == 2:
        setattr(row, parts[1], None)
        return
    points = row.under_sat
    point = points[int(parts[1][9:])]
    setattr(point, parts[2], None)
    points[int(parts[1][9:])] = point  # items are copies: put the changed one back


def written_cells(name, rows):
    out = D([SENTINEL, SENTINEL])
    CALCS[name][1](rows, out)
    return [v != SENTINEL for v in out.values]


@pytest.mark.parametrize("name, path, failing_cell", UNSET_FIELDS)
def test_unset_scalar_fails_at_the_first_cell_that_reads_it(name, path, failing_cell):
    rows = CALCS[name][0]()
    unset(rows, path)
    if failing_cell is None:
        assert written_cells(name, rows) == [True, name != "InterpolateB"]
        return
    out = D([SENTINEL, SENTINEL])
    with pytest.raises(RuntimeError, match=r"scalar.get\(\)!=0 A table field that the calculation reads holds no "
                                           r"TScalar \(None\)\.\n$"):
        CALCS[name][1](rows, out)
    assert [v != SENTINEL for v in out.values] == [c < failing_cell for c in range(2)]


@pytest.mark.parametrize("row", [0, 1])
@pytest.mark.parametrize("name", ["CalcBubblePointPressure", "CalcOneOverBo", "CalcOneOverBg"])
def test_emptied_under_sat_fails_at_the_first_cell(name, row):
    rows = CALCS[name][0]()
    rows[row].under_sat = type(rows[row].under_sat)()
    out = D([SENTINEL, SENTINEL])
    with pytest.raises(RuntimeError, match=NO_SATURATED_POINT):
        CALCS[name][1](rows, out)
    assert list(out.values) == [SENTINEL, SENTINEL]


def test_emptied_records_between_two_rows_fail_there():
    # Cell 0 lies on the saturated line between rows 1 and 2; cell 1 between
    # rows 0 and 1, where only the records of these rows are read.
    rows = gas_table() + [TPVTG(S(300.0), S(0.03), S(0.008), S(0.01))]
    rows[0].under_sat = kavra.TPVTGRecordTable()
    out = D([SENTINEL, SENTINEL])
    with pytest.raises(RuntimeError, match=NO_ROWS):
        kavra.CalcOneOverBg(kavra.TPVTGList([kavra.TPVTGTable(rows)]), IntGridFunction([1, 1]), D([250.0, 150.0]),
                            D([250.0, 300.0]), D([0.02, 0.02]), out)
    assert out.values[0] != SENTINEL and out.values[1] == SENTINEL


# --- every argument of every function: None, and an object of a wrong type ----------


def _grid():
    return tessel.ReservoirTopology(2, 1, 1)


def _selection():
    return tessel.ReservoirSelectionTopology(_grid(), [[0, 0, 0], [1, 0, 0]])


def _pinch_out():
    """A column of three cells, all selected, with one pinch-out from k 0 to k 2."""
    column = tessel.ReservoirTopology(1, 1, 3)
    everything = tessel.ReservoirSelectionTopology(column, [[0, 0, 0], [0, 0, 1], [0, 0, 2]])
    tran_k = tessel.SelectionViewGridFunction(everything, D([SENTINEL] * 3))
    return tessel.IntVector([0]), tessel.IntVector([2]), everything, tran_k


# Valid calls on two cells; the last grid function argument is the result.
VALID = {
    "CalcBubblePointPressure": lambda: (kavra.TPVTOList([kavra.TPVTOTable(oil_table())]), IntGridFunction([1, 1]),
                                        D([15.0, 12.0]), D([SENTINEL] * 2)),
    "CalcOneOverB": lambda: (kavra.TPVTList([kavra.TPVTTable(dead_table())]), IntGridFunction([1, 1]),
                             D([150.0, 120.0]), D([SENTINEL] * 2)),
    "InterpolateB": lambda: (kavra.TPVTTable(dead_table()), 150.0),
    "CalcOneOverBo": lambda: (kavra.TPVTOList([kavra.TPVTOTable(oil_table())]), IntGridFunction([1, 1]),
                              D([120.0, 300.0]), D([120.0, 120.0]), D([SENTINEL] * 2)),
    "CalcOneOverBw": lambda: (kavra.TPVTWList(water_records()), IntGridFunction([1, 1]), D([150.0, 50.0]),
                              D([SENTINEL] * 2)),
    "CalcOneOverBg": lambda: (kavra.TPVTGList([kavra.TPVTGTable(gas_table())]), IntGridFunction([1, 1]),
                              D([150.0, 150.0]), D([150.0, 300.0]), D([0.015, 0.02]), D([SENTINEL] * 2)),
    "CalcBulkVolume": lambda: (D([0.5, 0.5]), D([SENTINEL] * 2)),
    "CalcBulkVolume three": lambda: (D([1.0, 2.0]), D([0.2, 0.1]), D([SENTINEL] * 2)),
    "CalcRsFromComponents": lambda: (D([2.0, 4.0]), D([1.0, 1.0]), D([SENTINEL] * 2)),
    "CalcPorosity": lambda: (kavra.TRockList(rock_records()), IntGridFunction([1, 1]), D([300.0, 200.0]),
                             D([0.2, 0.2]), D([SENTINEL] * 2)),
    "CalcPorosityFromPORV": lambda: (D([10.0, 0.0]), D([2.0, 1.0]), D([SENTINEL] * 2)),
    "CalcTransmissibilityK": lambda: _pinch_out(),
    "KMax": lambda: (_grid(), np.array([1.0, 2.0])),
    "KMin selection": lambda: (_selection(), np.array([1, 2], dtype=np.int32)),
    "KSum": lambda: (_grid(), np.array([1.0, 2.0]).reshape(1, 1, 2)),
    "KAverage selection": lambda: (_selection(), np.array([1.0, 2.0], dtype=np.float32)),
}

WRONG = {
    "None": lambda: None,
    "float": lambda: 1.0,
    "list": lambda: [1.0, 2.0],
    "other class": lambda: kavra.TRockList(),
}


def _function(name):
    return getattr(kavra, name.split()[0])


def _expected_errors(name):
    """Boost.Python's argument error (a TypeError) where no overload takes the
    value; else a failed check (RuntimeError) for a grid function, or a
    ValueError for a reduction's array or topology."""
    return (ValueError, TypeError) if name.startswith("K") else (RuntimeError, TypeError)


@pytest.mark.parametrize("wrong", WRONG)
@pytest.mark.parametrize("name", VALID)
def test_every_argument_of_every_function_refuses_wrong_values(name, wrong):
    function = _function(name)
    for position in range(len(VALID[name]())):
        args = list(VALID[name]())
        if type(args[position]) is type(WRONG[wrong]()):
            continue  # a float where a float belongs
        originals, inputs = list(args), [_contents(a) for a in args]
        args[position] = WRONG[wrong]()
        with pytest.raises(_expected_errors(name)):
            function(*args)
        # Refused before any cell is written: inputs and result alike.
        for given, before in zip(originals, inputs):
            assert before is None or np.array_equal(_contents(given), before)


def _contents(argument):
    """What a call could change in an argument: grid function values, array or list contents."""
    if hasattr(argument, "values"):
        return np.array(argument.values)
    if isinstance(argument, (np.ndarray, tessel.IntVector)):
        return np.array(list(argument))
    return None


# Names under which the functions that demand one class per grid function
# report an argument of another class.
CAST_NAMES = {
    "CalcPorosity": [None, "PVTNum", "Po", "PORO", "Porosity"],
    "CalcPorosityFromPORV": ["BulkVolume", "PORV", "Porosity"],
    "CalcBulkVolume": ["NTG", "BulkVolume"],
    "CalcBulkVolume three": ["PORV", "PORO", "BulkVolume"],
    "CalcTransmissibilityK": [None, None, None, "TranK"],
}


@pytest.mark.parametrize("name", [n for n in VALID if not n.startswith(("K", "InterpolateB"))])
def test_grid_functions_of_another_element_type(name):
    """A float grid function in place of any grid function: the PVT
    calculations and CalcRsFromComponents take it through the element
    accessors; the others refuse it by name before writing anything."""
    for position, given in enumerate(VALID[name]()):
        if not isinstance(given, tessel.IGridFunction):
            continue
        args = list(VALID[name]())
        args[position] = tessel.FloatGridFunction(np.array(given.values, dtype=np.float32))
        result = args[-1]
        before = np.array(result.values)
        if name not in CAST_NAMES:
            _function(name)(*args)
            assert not np.array_equal(np.array(result.values), before)
            continue
        with pytest.raises(RuntimeError, match=f"The type cast for {CAST_NAMES[name][position]} failed!!"):
            _function(name)(*args)
        assert np.array_equal(np.array(result.values), before)


@pytest.mark.parametrize("cell", [-1, 3, 2**31 - 1, -(2**31)])
@pytest.mark.parametrize("position", range(4))
def test_connections_with_cells_outside_the_grid_change_nothing(cell, position):
    nnc1, nnc2, topo, tran_k = _pinch_out()
    for p in range(2):
        nnc1.append(1 if p else 0)
        nnc2.append(0 if p else 2)
    (nnc1 if position < 2 else nnc2)[position % 2] = cell
    before = [list(nnc1), list(nnc2)]
    with pytest.raises(RuntimeError, match=f"Cell number {cell} at nnc[12].* lies outside the grid of 3 cells"):
        kavra.CalcTransmissibilityK(nnc1, nnc2, topo, tran_k)
    assert [list(nnc1), list(nnc2)] == before
    assert list(tran_k.values) == [SENTINEL] * 3


# --- lists: lying iterables and huge counts, for every list class --------------------

LISTS = {
    "TPVTTable": lambda: TPVT(S(1.0), S(2.0), S(3.0)),
    "TPVTList": kavra.TPVTTable,
    "TPVTOTable": lambda: TPVTO(S(1.0), S(2.0), S(3.0), S(4.0)),
    "TPVTOList": kavra.TPVTOTable,
    "TPVTWList": lambda: TPVTW(S(1.0), S(2.0), S(3.0), S(4.0), S(5.0)),
    "TPVTGRecordTable": lambda: TPVTGRecord(S(1.0), S(2.0), S(3.0)),
    "TPVTGTable": lambda: TPVTG(S(1.0), S(2.0), S(3.0), S(4.0)),
    "TPVTGList": kavra.TPVTGTable,
    "TRockList": lambda: kavra.TRock(S(1.0), S(2.0)),
}


class Lying:
    """An iterable whose length is not the number of items it yields, or whose
    length or iteration fails."""

    def __init__(self, items, length):
        self.items, self.length = items, length

    def __len__(self):
        if isinstance(self.length, Exception):
            raise self.length
        return self.length

    def __iter__(self):
        if isinstance(self.items, Exception):
            raise self.items
        return iter(self.items)


@pytest.mark.parametrize(
    "yielded, length, outcome",
    [
        (2, 5, 2),  # says more than it yields: only what it yields
        (3, 1, 1),  # says less: no more than it says
        (1, ValueError("no length"), ValueError),
        (1, -1, ValueError),  # Python refuses a negative length itself
        (LookupError("no items"), 1, LookupError),
        ("generator", None, TypeError),  # no length at all
    ],
)
@pytest.mark.parametrize("cls", LISTS)
def test_lying_iterables(cls, yielded, length, outcome):
    make = LISTS[cls]
    lst = getattr(kavra, cls)([make()])
    if yielded == "generator":
        given = (make() for _ in range(2))
    else:
        given = Lying(yielded if isinstance(yielded, Exception) else [make() for _ in range(yielded)], length)
    if isinstance(outcome, int):
        assert len(getattr(kavra, cls)(given)) == outcome
        lst.extend(given)
        assert len(lst) == 1 + outcome
        return
    with pytest.raises(outcome):
        getattr(kavra, cls)(given)
    with pytest.raises(outcome):
        lst.extend(given)
    assert len(lst) == 1


@pytest.mark.parametrize(
    "operation, error",
    [
        (lambda lst: lst.resize(2**63), RuntimeError),  # "vector too long"
        (lambda lst: lst.reserve(2**63), RuntimeError),
        (lambda lst: lst.resize(2**64), OverflowError),
        (lambda lst: lst.resize(-1), OverflowError),
        (lambda lst: lst[2**63], OverflowError),
        (lambda lst: lst[-(2**63)], IndexError),
        (lambda lst: lst.__setitem__(2**62, lst[0]), IndexError),
        (lambda lst: lst[1.0], TypeError),
    ],
)
@pytest.mark.parametrize("cls", LISTS)
def test_huge_counts_and_indices_leave_the_list_alone(cls, operation, error):
    lst = getattr(kavra, cls)([LISTS[cls]()])
    before = repr(lst)
    with pytest.raises(error):
        operation(lst)
    assert repr(lst) == before


@pytest.mark.parametrize("cls", [tessel.IntGridFunction, tessel.FloatGridFunction, tessel.DoubleGridFunction])
def test_grid_function_of_an_impossible_size(cls):
    with pytest.raises(MemoryError):
        cls(2**62)
