"""Python run in the middle of a native operation (a scalar's __del__ or weakref callback as a list
drops it, an __index__ during a conversion) sees, and may change, a whole container."""

import weakref

import pytest
from kavra.tessel import DoubleGridFunction, IntVector, ReservoirSelectionTopology, ReservoirTopology, SelectionViewGridFunction

import kavra
from catalogue import LISTS as ELEMENTS, S
from kavra import TPVT, TPVTG, TPVTO, TPVTGRecord, TScalar

WEAKREFS = []


def doomed_scalar(kind, callback):
    """A scalar that runs `callback` when its last reference goes."""
    if kind == "del":
        return type("Dying", (TScalar,), {"__del__": lambda self: callback()})(1.0, "", "")
    WEAKREFS.append(weakref.ref(scalar := S(1.0), lambda _: callback()))
    return scalar


def check_readable(lst):
    assert len(list(lst)) == len(lst) and repr(lst)


# What the callback does to the list, and the length that leaves if the operation left n elements.
ATTACKS = {
    "append": (lambda lst, make: [lst.append(make(S(0.0))) for _ in range(100)], lambda n: n + 100),
    "resize": (lambda lst, make: lst.resize(0), lambda n: 0),
    "read": (lambda lst, make: check_readable(lst), lambda n: n),
}


# The list classes, resized or set an item; the records, given new under_sat rows.
CONTAINERS = [(name, operation) for name in ELEMENTS for operation in ("resize", "setitem")] + [
    ("TPVTO", "under_sat"), ("TPVTG", "under_sat")]


@pytest.mark.parametrize("callback_kind", ["del", "weakref"])
@pytest.mark.parametrize("attack", ATTACKS)
@pytest.mark.parametrize("name, operation", CONTAINERS)
def test_elements_die_after_the_container_is_whole(name, operation, attack, callback_kind):
    make, first_scalar = ELEMENTS[{"TPVTO": "TPVTTable", "TPVTG": "TPVTGRecordTable"}.get(name, name)]
    act, expected_length = ATTACKS[attack]
    ran = []

    def callback():
        ran.append(len(container()))
        act(container(), make)

    if operation == "under_sat":
        record = getattr(kavra, name)(S(10.0), doomed_scalar(callback_kind, callback), S(2), S(3))
        container, left = (lambda: record.under_sat), 2
        record.under_sat = type(record.under_sat)([make(S(42.0)), make(S(43.0))])
    else:
        lst = getattr(kavra, name)([make(doomed_scalar(callback_kind, callback))] + [make(S(4.0))] * 3)
        container, left = (lambda: lst), (0 if operation == "resize" else 4)
        if left:
            lst[0] = make(S(42.0))
        else:
            lst.resize(0)
    assert ran == [left], "the callback ran once, on the container as the operation left it"
    assert len(container()) == expected_length(left)
    check_readable(container())
    if attack != "resize" and left:
        assert first_scalar(container()[0]).value == 42.0


def test_a_calculation_in_a_callback_sees_the_shortened_table():
    seen = []
    dying = doomed_scalar("weakref", lambda: seen.append(kavra.InterpolateB(table, 150.0)))
    table = kavra.TPVTTable([TPVT(S(100.0), S(1.25), S(1)), TPVT(dying, S(1.0), S(1))])
    del dying
    table.resize(1)
    assert seen == [kavra.InterpolateB(table, 150.0)] == [1.25]


def converting(value, action):
    """An integer whose conversion first runs `action`."""
    return type("Index", (), {"__index__": lambda self: (action(), value)[1]})()


@pytest.mark.parametrize("build", ["init", "extend"])
def test_int_vector_reads_items_from_a_copy(build):
    items = [1, 2]
    items += [converting(7, items.clear), 4, 5]
    vector = IntVector(items if build == "init" else [0])
    if build == "extend":
        vector.extend(items)
    assert list(vector)[-5:] == [1, 2, 7, 4, 5] and items == []


ONE_CELL = ReservoirSelectionTopology(ReservoirTopology(1, 1, 6), [[0, 0, 5]])


@pytest.mark.parametrize("through", ["value", "index"])
def test_int_vector_setitem_checks_the_position_after_converting(through):
    n1, n2 = IntVector([0, 1, 2, 3]), IntVector([2, 3, 4, 5])
    tran_k = SelectionViewGridFunction(ONE_CELL, DoubleGridFunction(1))
    shorten = converting(9 if through == "value" else 3, lambda: kavra.CalcTransmissibilityK(n1, n2, ONE_CELL, tran_k))
    value, index = (shorten, 3) if through == "value" else (9, shorten)
    with pytest.raises(IndexError):
        n1[index] = value
    assert list(n1) == list(n2) == []
