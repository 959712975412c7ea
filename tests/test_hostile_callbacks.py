"""Python that runs in the middle of a native operation (a scalar's __del__ or weakref callback when a list
drops it, an __index__ during a conversion) and turns on the container being worked on: each operation leaves
its container whole before such code runs, or reads what it converts from a copy."""

import weakref

import pytest
from tessel import DoubleGridFunction, IntVector, ReservoirSelectionTopology, ReservoirTopology, SelectionViewGridFunction

import kavra
from catalogue import LISTS, S
from kavra import TPVT, TPVTG, TPVTO, TPVTGRecord, TScalar


class DyingScalar(TScalar):
    def __init__(self, value, callback):
        super().__init__(value, "", "")
        self.callback = callback

    def __del__(self):
        self.callback()


_weakrefs = []


def doomed_scalar(kind, callback):
    """A scalar that runs `callback` when its last reference goes."""
    if kind == "del":
        return DyingScalar(1.0, callback)
    scalar = S(1.0)
    _weakrefs.append(weakref.ref(scalar, lambda _: callback()))
    return scalar


def check_readable(lst):
    """Every method that reads the list works on what it holds."""
    assert len(list(lst)) == len(lst)
    repr(lst)


# What the callback does to the list, and the length that leaves behind when
# the operation left n elements.
ATTACKS = {
    "append": (lambda lst, make: [lst.append(make(S(0.0))) for _ in range(100)], lambda n: n + 100),
    "resize": (lambda lst, make: lst.resize(0), lambda n: 0),
    "read": (lambda lst, make: check_readable(lst), lambda n: n),
}


@pytest.mark.parametrize("callback_kind", ["del", "weakref"])
@pytest.mark.parametrize("attack", ATTACKS)
@pytest.mark.parametrize("operation", ["resize", "setitem"])
@pytest.mark.parametrize("name", LISTS)
def test_elements_die_after_the_list_is_whole(name, operation, attack, callback_kind):
    make, first_scalar = LISTS[name]
    act, expected_length = ATTACKS[attack]
    ran = []

    def callback():
        ran.append(len(lst))
        act(lst, make)

    lst = getattr(kavra, name)([make(doomed_scalar(callback_kind, callback))] + [make(S(4.0))] * 3)
    if operation == "resize":
        lst.resize(0)
        lst_after_op = 0
    else:
        lst[0] = make(S(42.0))
        lst_after_op = 4
    assert ran == [lst_after_op], "the callback ran once, on the list as the operation left it"
    assert len(lst) == expected_length(lst_after_op)
    check_readable(lst)
    if attack != "resize" and lst_after_op:
        assert first_scalar(lst[0]).value == 42.0


@pytest.mark.parametrize("callback_kind", ["del", "weakref"])
@pytest.mark.parametrize("attack", ATTACKS)
@pytest.mark.parametrize("record", [TPVTO, TPVTG])
def test_under_sat_rows_die_after_the_record_is_whole(record, attack, callback_kind):
    row = TPVT if record is TPVTO else TPVTGRecord
    act, expected_length = ATTACKS[attack]
    ran = []

    def callback():
        ran.append(len(rec.under_sat))
        act(rec.under_sat, lambda s: row(s, S(2), S(3)))

    rec = record(S(10.0), doomed_scalar(callback_kind, callback), S(2), S(3))
    new_rows = type(rec.under_sat)([row(S(42.0), S(1), S(1)), row(S(43.0), S(1), S(1))])
    rec.under_sat = new_rows
    assert ran == [2]
    assert len(rec.under_sat) == expected_length(2)
    check_readable(rec.under_sat)


class Index:
    """An integer whose conversion first runs `action`."""

    def __init__(self, value, action):
        self.value, self.action = value, action

    def __index__(self):
        self.action()
        return self.value


@pytest.mark.parametrize("build", ["init", "extend"])
def test_int_vector_reads_items_from_a_copy(build):
    items = [1, 2]
    items += [Index(7, items.clear), 4, 5]
    if build == "init":
        vector = IntVector(items)
    else:
        vector = IntVector([0])
        vector.extend(items)
    assert list(vector)[-5:] == [1, 2, 7, 4, 5]
    assert items == []


GRID = ReservoirTopology(1, 1, 6)
NOTHING_SELECTED_TWICE = ReservoirSelectionTopology(GRID, [[0, 0, 5]])


def shorten(n1, n2):
    """A calculation that takes every connection out of n1 and n2."""
    tran_k = SelectionViewGridFunction(NOTHING_SELECTED_TWICE, DoubleGridFunction(1))
    return lambda: kavra.CalcTransmissibilityK(n1, n2, NOTHING_SELECTED_TWICE, tran_k)


@pytest.mark.parametrize("through", ["value", "index"])
def test_int_vector_setitem_checks_the_position_after_converting(through):
    n1, n2 = IntVector([0, 1, 2, 3]), IntVector([2, 3, 4, 5])
    value, index = (Index(9, shorten(n1, n2)), 3) if through == "value" else (9, Index(3, shorten(n1, n2)))
    with pytest.raises(IndexError):
        n1[index] = value
    assert list(n1) == list(n2) == []
