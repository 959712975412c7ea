"""CalcTransmissibilityK: sifting connections and marking pinch-outs."""

import numpy as np
import pytest
from kavra.tessel import DoubleGridFunction, IntVector, ReservoirSelectionTopology, ReservoirTopology, SelectionViewGridFunction

import kavra
from conftest import cast_failure_text, precondition_text

SOURCE = "core/vadra/TransmissibilityK.cpp"
PINCH_OUT = precondition_text(SOURCE, "diff>1", "Vadra pre-process error: Strange pinch-out connection!!")

# A 2 x 2 x 5 grid: column (0, 0) holds the cells 0, 4, 8, 12, 16 from top to
# bottom, column (1, 0) the cells 1, 5, 9, 13, 17.  Cell 14 is not selected.
GRID = ReservoirTopology(2, 2, 5)
CELLS = [c for c in range(20) if c != 14]
SELECTION = ReservoirSelectionTopology(GRID, [[c % 2, c // 2 % 2, c // 4] for c in CELLS])


def run(nnc1, nnc2):
    """The lists afterwards and the marked cell numbers; TranK starts dirty."""
    nnc1, nnc2 = IntVector(nnc1), IntVector(nnc2)
    tran_k = SelectionViewGridFunction(SELECTION, DoubleGridFunction(np.full(len(CELLS), 7.0)))
    kavra.CalcTransmissibilityK(nnc1, nnc2, SELECTION, tran_k)
    assert set(tran_k.values) <= {0.0, 1.0}
    return list(nnc1), list(nnc2), [c for c, v in zip(CELLS, tran_k.values) if v == 1.0]


@pytest.mark.parametrize(
    "nnc1, nnc2, expected",
    [
        ([], [], ([], [], [])),
        ([0], [8], ([], [], [0])),
        ([0, 0], [8, 4], ([], [], [0])),  # the repeat is not examined: 0 -> 4 would fail
        ([0, 0, 0, 0], [8, 1, 3, 4], ([0, 0], [1, 3], [0])),  # connections between columns keep it a repeat
        ([0, 4, 0], [8, 16, 12], ([], [], [0, 4])),  # another mark between: examined again
        ([0, 8], [8, 16], ([], [], [0, 8])),  # two pinch-outs in one column
        ([1, 5, 0, 3, 2], [0, 16, 8, 2, 19], ([1, 5, 3, 2], [0, 16, 2, 19], [0])),  # order kept
        ([10, 14, 6, 14], [14, 10, 14, 15], ([], [], [])),  # a cell outside the selection, even with diff <= 1
    ],
)
def test_sifting(nnc1, nnc2, expected):
    assert run(nnc1, nnc2) == expected


def text(condition, message):
    return precondition_text(SOURCE, condition, message)


def view(selection=SELECTION):
    return SelectionViewGridFunction(selection, DoubleGridFunction(np.full(selection.number_of_selected_cells, 7.0)))


def marked(*cells):
    """TranK on SELECTION with marks at `cells`."""
    return [float(c in cells) for c in CELLS]


ALL = ReservoirSelectionTopology(GRID, [[c % 2, c // 2 % 2, c // 4] for c in range(20)])
ONLY_0 = ReservoirSelectionTopology(GRID, [[0, 0, 0]])
OUTSIDE = "cell >= 0 && std::uint64_t(cell) < nCells"
NOT_HELD = text("held", "TranK has no element for cell 4 at nnc1[1], which topo selects.")


@pytest.mark.parametrize(
    "nnc1, nnc2, topo, tran_k, expected, after",
    [
        # A pinch-out must run downwards and skip a layer: the marks made before it stay.
        *[(n1, n2, SELECTION, view, PINCH_OUT, marked(*m)) for n1, n2, m in [
            ([0], [4], ()), ([8], [0], ()), ([0], [0], ()), ([0, 0, 4, 0], [8, 8, 12, 4], (0, 4)),
            ([1, 2, 0, 5], [9, 3, 4, 9], (1,))]],
        # A cell that TranK does not hold fails where it would be marked, after the pinch-out check.
        ([0, 4], [8, 8], ALL, lambda: view(ONLY_0), PINCH_OUT, [1.0]),
        ([0, 4], [8, 12], ALL, lambda: view(ONLY_0), NOT_HELD, [1.0]),
        # Refused before anything changes.
        ([0, 1], [8], SELECTION, None,
         text("nnc1->size()==nnc2->size()", "NNC arrays have different sizes, nnc1=2, nnc2=1"), None),
        (None, [8], SELECTION, None, text("nnc1.get()!=0", "The NNC list nnc1 is None!!"), None),
        ([0], None, SELECTION, None, text("nnc2.get()!=0", "The NNC list nnc2 is None!!"), None),
        ([0], [8], None, view, text("topo", "Invalid topology passed."), None),
        ([0], [8], GRID, view, text("topo", "Invalid topology passed."), None),
        ([0], [8], SELECTION, lambda: DoubleGridFunction(19), cast_failure_text("TranK"), None),
        ([0], [8], SELECTION, None, cast_failure_text("TranK"), None),
        ([0, 8], [8, -1], SELECTION, view, text(OUTSIDE, "Cell number -1 at nnc2[1] lies outside the grid of 20 cells."),
         None),
        ([20], [0], SELECTION, view, text(OUTSIDE, "Cell number 20 at nnc1[0] lies outside the grid of 20 cells."), None),
    ],
)
def test_failures_leave_the_lists_and_earlier_marks(raises_text, nnc1, nnc2, topo, tran_k, expected, after):
    lists = [None if v is None else IntVector(v) for v in (nnc1, nnc2)]
    tran_k = tran_k and tran_k()
    before = None if tran_k is None else list(tran_k.values)
    raises_text(expected, kavra.CalcTransmissibilityK, *lists, topo, tran_k)
    assert [None if v is None else list(v) for v in lists] == [nnc1, nnc2]
    assert tran_k is None or list(tran_k.values) == (before if after is None else after)


def test_tran_k_on_a_larger_grid_is_marked_at_the_same_cells():
    nnc1, nnc2 = IntVector([0, 5, 1]), IntVector([8, 13, 2])
    larger = ReservoirTopology(3, 3, 6)
    tran_k = view(ReservoirSelectionTopology(larger, [[c % 3, c // 3 % 3, c // 9] for c in range(54)]))
    kavra.CalcTransmissibilityK(nnc1, nnc2, SELECTION, tran_k)
    # (0, 0, 0) and (1, 0, 1) are the cells 0 and 1 + 3 * 3 * 1 of the 3 x 3 x 6 grid
    np.testing.assert_array_equal(np.flatnonzero(tran_k.values), [0, 10])
    assert (list(nnc1), list(nnc2)) == ([1], [2])
