"""10^5 calls of every calculation, reduction and table operation, on success and failure paths: resident
memory stays flat (16 bytes left behind per call would add 1.6 MB, above the 1 MiB allowed) and the inputs
keep their reference counts.  Under AddressSanitizer freed memory waits in a quarantine, so there only the
reference counts are compared."""

import os
import sys

import numpy as np
import pytest
from kavra import tessel
from kavra.tessel import DoubleGridFunction as D
from kavra.tessel import IntGridFunction

import kavra
from catalogue import CALLS, PVT, SAMPLE, S, dead_table, function, oil_table
from kavra import TScalar

CALLS_PER_CASE = 100_000
ALLOWED_GROWTH = 1 << 20
UNDER_ASAN = "libasan" in open("/proc/self/maps").read()


def resident_bytes():
    with open("/proc/self/statm") as statm:
        return int(statm.read().split()[1]) * os.sysconf("SC_PAGE_SIZE")


def connections(first, second):
    """CalcTransmissibilityK's arguments on a fully selected grid of 2 x 1 x 3 cells."""
    grid = tessel.ReservoirTopology(2, 1, 3)
    everything = tessel.ReservoirSelectionTopology(grid, [[c % 2, 0, c // 2] for c in range(6)])
    tran_k = tessel.SelectionViewGridFunction(everything, D(6))
    return tessel.IntVector(first), tessel.IntVector(second), everything, tran_k


def selection():
    return tessel.ReservoirSelectionTopology(tessel.ReservoirTopology(2, 1, 2), [[0, 0, 0], [0, 0, 1]])


# name -> (function, arguments).  Every argument is an input whose reference
# count must come back; the function may raise, and the error is the point of
# the failure cases.
CASES = {name: (function(name), CALLS[name]) for name in CALLS}
CASES.update({
    "generic variant": (kavra.CalcBubblePointPressure, lambda: (
        PVT["CalcBubblePointPressure"].make(SAMPLE["CalcBubblePointPressure"]), IntGridFunction([1, 1]),
        tessel.FloatGridFunction([15.0, 12.0]), D(2))),
    # Connections between columns stay in the lists, so every call walks them.
    "CalcTransmissibilityK between columns": (kavra.CalcTransmissibilityK, lambda: connections([0, 1], [1, 2])),
    # Failure paths: failed checks before and inside the cell loop, None, no matching overload.
    "failed size check": (kavra.CalcOneOverB, lambda: (PVT["CalcOneOverB"].make(SAMPLE["CalcOneOverB"]),
                                                       IntGridFunction([1]), D(2), D(2))),
    "failed region check": (kavra.CalcOneOverB, lambda: (PVT["CalcOneOverB"].make(SAMPLE["CalcOneOverB"]),
                                                         IntGridFunction([1, 7]), D(2), D(2))),
    "failed cast": (kavra.CalcBulkVolume, lambda: (tessel.FloatGridFunction(2), D(2))),
    "None grid function": (kavra.CalcRsFromComponents, lambda: (D([1.0]), None, D(1))),
    "no matching overload": (kavra.CalcBulkVolume, lambda: (D([1.0]), 2.0)),
    "failed pinch-out": (kavra.CalcTransmissibilityK, lambda: connections([0], [2])),
    "cell outside the grid": (kavra.CalcTransmissibilityK, lambda: connections([0], [99])),
    "unset scalar": (kavra.InterpolateB, lambda: (kavra.TPVTTable([kavra.TPVT(None, S(1.0), None)] * 2), 1.0)),
    "bad array": (kavra.KSum, lambda: (tessel.ReservoirTopology(2, 1, 2), np.zeros(3))),
    "unsupported element type": (kavra.KSum, lambda: (selection(), np.zeros(2, dtype=np.int16))),
    # Tables.
    "TScalar": (TScalar, lambda: (1.5, "pressure", "bar")),
    "TPVTO": (kavra.TPVTO, lambda: (S(1.0), S(2.0), S(3.0), None)),
    "list from a sequence": (kavra.TPVTTable, lambda: ([kavra.TPVT(S(1.0), S(2.0), S(3.0))] * 3,)),
    "list index": (kavra.TPVTTable.__getitem__, lambda: (dead_table([(1.0, 2.0)]), -1)),
    "list index out of range": (kavra.TPVTTable.__getitem__, lambda: (dead_table([(1.0, 2.0)]), 5)),
    "list repr": (kavra.TPVTOTable.__repr__, lambda: (oil_table(SAMPLE["CalcOneOverBo"][0]),)),
    "under_sat": (lambda row: row.under_sat, lambda: (oil_table(SAMPLE["CalcOneOverBo"][0])[1],)),
    "scalar property": (lambda row: row.P, lambda: (dead_table([(1.0, 2.0)])[0],)),
    "extend and resize": (lambda table, rows: (table.extend(rows), table.resize(0)),
                          lambda: (kavra.TPVTTable(), [kavra.TPVT(S(1.0), S(2.0), S(3.0))])),
})


def repeat(call, args, times):
    result = None
    for _ in range(times):
        try:
            result = call(*args)
        except (RuntimeError, ValueError, TypeError, IndexError):
            pass
    return result


def reference_counts(args):
    # None, numbers and strings are shared all over the interpreter: their counts move with everything else.
    return [sys.getrefcount(a) for a in args if not isinstance(a, (type(None), int, float, str))]


@pytest.mark.parametrize("name", CASES)
def test_calls_keep_memory_flat_and_references_unchanged(name):
    call, make_args = CASES[name]
    args = make_args()
    repeat(call, args, 2_000)
    references = reference_counts(args)
    before = resident_bytes()
    result = repeat(call, args, CALLS_PER_CASE)
    growth = resident_bytes() - before
    if result is not None and not isinstance(result, (float, tuple, TScalar)):
        assert sys.getrefcount(result) == 2  # held by `result` and by getrefcount's argument, nothing else
    del result  # a record or an under_sat reference holds on to its inputs
    assert reference_counts(args) == references
    if not UNDER_ASAN:
        assert growth < ALLOWED_GROWTH, f"{name}: resident memory grew by {growth} bytes"
