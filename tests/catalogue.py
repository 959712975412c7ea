"""How to call each calculation, shared by the tests and bench/run.py: native
tables from plain data (the forms that bench/numpy_versions.py, the reference,
describes), the PVT calculations with the names and checks their failures
show, and one element of each list class."""

import pathlib
import sys
from typing import NamedTuple

import numpy as np
from kavra import tessel
from kavra.tessel import DoubleGridFunction, IntGridFunction

import kavra
from kavra import TPVT, TPVTG, TPVTO, TPVTW, TPVTGRecord, TRock, TScalar

ROOT = pathlib.Path(__file__).resolve().parent.parent
sys.path.insert(0, str(ROOT / "bench"))
import numpy_versions as ref  # noqa: E402


def S(value):
    return TScalar(value, "", "")


def two_level(row_class, point_class, rows):
    """Rows of (key, [(x, y), ...]): the first point is given to the row, the others appended to under_sat."""
    table = []
    for key, points in rows:
        row = row_class(S(key), S(points[0][0]), S(points[0][1]), S(0.3))
        for x, y in points[1:]:
            row.under_sat.append(point_class(S(x), S(y), S(0.3)))
        table.append(row)
    return table


def dead_table(rows):
    return kavra.TPVTTable([TPVT(S(p), S(b), S(0.3)) for p, b in rows])


def oil_table(rows):
    return kavra.TPVTOTable(two_level(TPVTO, TPVT, rows))


def gas_table(rows):
    return kavra.TPVTGTable(two_level(TPVTG, TPVTGRecord, rows))


def water_list(records):
    return kavra.TPVTWList([TPVTW(S(p), S(b), S(c), S(0.5), S(0.0)) for p, b, c in records])


def rock_list(pairs):
    return kavra.TRockList([TRock(S(p), S(c)) for p, c in pairs])


class Calc(NamedTuple):
    call: object
    make: object  # plain tables, one per region -> the native list
    inputs: tuple  # names of the grid functions between PVTNum and the result
    result: str  # name of the result argument
    source: str
    count: str  # the count check's condition, {} standing for the argument
    region: str  # the region check's condition
    empty: tuple  # (condition, message) of the empty-table check, or None
    reference: object  # the numpy_versions function of one table
    counted_as: str = ""  # the result's name in count texts, where it differs


PVT = {
    "CalcBubblePointPressure": Calc(
        kavra.CalcBubblePointPressure, lambda ts: kavra.TPVTOList([oil_table(t) for t in ts]), ("RS",), "Pbub",
        "core/pvt/BubblePointPressure.cpp", "nElts == p_{}->number_of_elements()", "pvtID<p_pvtoList.size()",
        ("!pvto_table.empty()", "Empty PVTO table!!"), ref.bubble_point),
    "CalcOneOverB": Calc(
        kavra.CalcOneOverB, lambda ts: kavra.TPVTList([dead_table(t) for t in ts]), ("P",), "OneOverB",
        "core/pvt/OneOverB.cpp", "nElts == p_{}->number_of_elements()", "pvtID<pvtList.size()",
        ("!pvt_table.empty()", "Empty PVT table!!"), ref.one_over_b),
    "CalcOneOverBo": Calc(
        kavra.CalcOneOverBo, lambda ts: kavra.TPVTOList([oil_table(t) for t in ts]), ("Po", "Pbub"), "OneOverBo",
        "core/pvt/OneOverBo.cpp", "nElts == {}->number_of_elements()", "pvtID<pvtoList.size()",
        ("!pvt_table.empty()", "Empty PVT table!!"), ref.one_over_bo),
    "CalcOneOverBw": Calc(
        kavra.CalcOneOverBw, water_list, ("Pw",), "OneOverBw", "core/pvt/OneOverBw.cpp",
        "nElts == p_{}->number_of_elements()", "pvtID<pvtwList.size()", None, ref.one_over_bw),
    "CalcOneOverBg": Calc(
        kavra.CalcOneOverBg, lambda ts: kavra.TPVTGList([gas_table(t) for t in ts]), ("Pg", "Pdew", "Rv"),
        "OneOverBg", "core/pvt/OneOverBg.cpp", "number_of_elements == p_{}->number_of_elements()",
        "pvtID < p_pvtg_list.size()", ("!pvt_table.empty()", "Empty PVT table!!"), ref.one_over_bg, "OneOverBo"),
}

# One small table per calculation (a list of one region's table).
SAMPLE = {
    "CalcBubblePointPressure": [[(10.0, [(100.0, 1.2)]), (20.0, [(200.0, 1.3)])]],
    "CalcOneOverB": [[(100.0, 1.2), (200.0, 1.1)]],
    "CalcOneOverBo": [[(10.0, [(100.0, 1.2)]), (20.0, [(200.0, 1.3), (300.0, 1.25)])]],
    "CalcOneOverBw": [(100.0, 1.0, 1e-4)],
    "CalcOneOverBg": [[(100.0, [(0.01, 0.02), (0.03, 0.025)]), (200.0, [(0.02, 0.01), (0.04, 0.0125)])]],
}


def expected(name, tables, regions, inputs, unwritten=123.0):
    """The reference result of a PVT calculation, and the failure that stops it (or None):
    cells from the failing one on keep `unwritten`."""
    calc = PVT[name]
    try:
        return ref.over_regions(calc.reference, tables, regions, *inputs, check_empty=bool(calc.empty)), None
    except ref.CellFailure as stop:
        rest = [unwritten] * (len(regions) - stop.cell)
        return list(stop.values) + rest, stop


# One element of each list class made from its first scalar, and that scalar read back.
LISTS = {
    "TPVTTable": (lambda s: TPVT(s, S(2.0), S(3.0)), lambda e: e.P),
    "TPVTList": (lambda s: kavra.TPVTTable([TPVT(s, S(2.0), S(3.0))]), lambda e: e[0].P),
    "TPVTOTable": (lambda s: TPVTO(s, S(2.0), S(3.0), S(4.0)), lambda e: e.Rs),
    "TPVTOList": (lambda s: kavra.TPVTOTable([TPVTO(s, S(2.0), S(3.0), S(4.0))]), lambda e: e[0].Rs),
    "TPVTWList": (lambda s: TPVTW(s, S(2.0), S(3.0), S(4.0), S(5.0)), lambda e: e.P_ref),
    "TPVTGRecordTable": (lambda s: TPVTGRecord(s, S(2.0), S(3.0)), lambda e: e.Rv),
    "TPVTGTable": (lambda s: TPVTG(s, S(2.0), S(3.0), S(4.0)), lambda e: e.Pg),
    "TPVTGList": (lambda s: kavra.TPVTGTable([TPVTG(s, S(2.0), S(3.0), S(4.0))]), lambda e: e[0].Pg),
    "TRockList": (lambda s: TRock(s, S(2.0)), lambda e: e.P_ref),
}


def element(cls, scalar=None):
    """One element of the list class named `cls`."""
    return LISTS[cls][0](scalar if scalar is not None else S(1.0))


def pinch_out():
    """A column of three cells, all selected, with one pinch-out from k 0 to k 2: CalcTransmissibilityK's arguments."""
    everything = tessel.ReservoirSelectionTopology(tessel.ReservoirTopology(1, 1, 3), [[0, 0, 0], [0, 0, 1], [0, 0, 2]])
    return (tessel.IntVector([0]), tessel.IntVector([2]), everything,
            tessel.SelectionViewGridFunction(everything, DoubleGridFunction([7.0] * 3)))


def selection(n_i, cells):
    return tessel.ReservoirSelectionTopology(tessel.ReservoirTopology(n_i, 1, 1), cells)


def two_cells(*values):
    return DoubleGridFunction(list(values))


# A valid call of every function, on two cells where it has cells; the last
# grid function is the result, and it starts at 7.0.
CALLS = {
    **{name: (lambda name=name: (PVT[name].make(SAMPLE[name]), IntGridFunction([1, 1]),
                                 *(two_cells(150.0, 120.0) for _ in PVT[name].inputs), two_cells(7.0, 7.0)))
       for name in PVT},
    "InterpolateB": lambda: (dead_table(SAMPLE["CalcOneOverB"][0]), 150.0),
    "CalcBulkVolume": lambda: (two_cells(0.5, 0.5), two_cells(7.0, 7.0)),
    "CalcBulkVolume three": lambda: (two_cells(1.0, 2.0), two_cells(0.2, 0.1), two_cells(7.0, 7.0)),
    "CalcRsFromComponents": lambda: (two_cells(2.0, 4.0), two_cells(1.0, 1.0), two_cells(7.0, 7.0)),
    "CalcPorosity": lambda: (rock_list([(200.0, 1e-3)]), IntGridFunction([1, 1]), two_cells(300.0, 200.0),
                             two_cells(0.2, 0.2), two_cells(7.0, 7.0)),
    "CalcPorosityFromPORV": lambda: (two_cells(10.0, 0.0), two_cells(2.0, 1.0), two_cells(7.0, 7.0)),
    "CalcTransmissibilityK": pinch_out,
    "KMax": lambda: (tessel.ReservoirTopology(2, 1, 1), np.array([1.0, 2.0])),
    "KMin selection": lambda: (selection(2, [[0, 0, 0], [1, 0, 0]]), np.array([1, 2], dtype=np.int32)),
    "KSum": lambda: (tessel.ReservoirTopology(2, 1, 1), np.array([1.0, 2.0]).reshape(1, 1, 2)),
    "KAverage selection": lambda: (selection(1, [[0, 0, 0]]), np.array([1.0], dtype=np.float32)),
}


def function(name):
    """The function of a CALLS entry."""
    return getattr(kavra, name.split()[0])
