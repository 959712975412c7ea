"""TScalar, the records and the nine list classes: sharing, copies,
references, texts, equality, and what lists do with lying iterables and
impossible counts."""

import gc

import pytest

import kavra
from catalogue import LISTS, element
from conftest import precondition_text
from kavra import TPVT, TPVTG, TPVTO, TPVTW, TPVTGRecord, TPVTGRecordTable, TPVTTable, TRock, TScalar

nan = float("nan")
CLASSES = [getattr(kavra, name) for name in LISTS]


def s(value=1.0, category="c", unit="u"):
    return TScalar(value, category, unit)


@pytest.mark.parametrize(
    "a, b, equal",
    [
        (s(300.0, "pressure", "bar"), s(300.0, "pressure", "bar"), True),
        (s(300.0, "pressure", "bar"), s(300.0, "pressure", "psi"), False),  # units are never converted
        (s(300.0, "pressure", "bar"), s(300.0, "Pressure", "bar"), False),
        (s(0.1 + 0.2), s(0.3), False),  # no tolerance
        (s(0.0), s(-0.0), True),
        (s(1.0, "a\0b"), s(1.0, "a\0c"), False),  # labels compare as bytes
        (s(nan), s(nan), False),
    ],
)
def test_scalar_equality(a, b, equal):
    assert (a == b) is equal and (a != b) is (not equal)
    assert not (a == 1.0) and a != "TScalar" and a != None  # noqa: E711


@pytest.mark.parametrize(
    "value, category, unit, text",
    [
        (300.0, "pressure", "bar", "TScalar(300, pressure, bar)"),
        (1.0 / 3.0, "x", "y", "TScalar(0.333333, x, y)"),
        (1e6, "v", "m3", "TScalar(1e+06, v, m3)"),
        (0.1, "", "", "TScalar(0.1, , )"),
        (-nan, "n", "", "TScalar(-nan, n, )"),
    ],
)
def test_scalar_text(value, category, unit, text):
    scalar = TScalar(value, category, unit)
    assert str(scalar) == text
    assert scalar.value == value or value != value  # the property keeps the full double
    assert repr(scalar).startswith("<kavra._kavracore.TScalar object")
    scalar.value, scalar.category, scalar.unit = 2.5, "", "bar"
    assert str(scalar) == "TScalar(2.5, , bar)"


@pytest.mark.parametrize(
    "cls, fields",
    [(TPVT, ("P", "B", "Mi")), (TPVTW, ("P_ref", "Bw_ref", "Cw", "Miw_ref", "Cvw")),
     (TPVTGRecord, ("Rv", "B", "Mi")), (TRock, ("P_ref", "Cr"))],
    ids=lambda x: getattr(x, "__name__", ""),
)
def test_record_fields_hold_the_given_scalars(cls, fields):
    scalars = [s(float(n)) for n in range(len(fields))]
    rec = cls(*scalars)
    assert all(getattr(rec, f) is x for f, x in zip(fields, scalars))
    setattr(rec, fields[0], None)
    assert getattr(rec, fields[0]) is None
    assert all(getattr(cls(*[None] * len(fields)), f) is None for f in fields)
    for wrong in (lambda: cls(*[1.0] * len(fields)), lambda: setattr(rec, fields[0], 1.0)):
        with pytest.raises(TypeError):
            wrong()


@pytest.mark.parametrize("cls, first, row_fields", [(TPVTO, "Rs", ("P", "B", "Mi")), (TPVTG, "Pg", ("Rv", "B", "Mi"))])
def test_two_level_records_put_three_arguments_into_their_first_row(cls, first, row_fields):
    key, a, b, c = s(1.0), s(2.0), s(3.0), s(4.0)
    rec = cls(key, a, b, c)
    assert getattr(rec, first) is key and len(rec.under_sat) == 1
    assert all(getattr(rec.under_sat[0], f) is x for f, x in zip(row_fields, (a, b, c)))
    assert not hasattr(rec.under_sat[0], "Bg") and not hasattr(rec, "P")


def test_documentation_texts_and_positional_arguments():
    p = "kavra::TScalarPtr "
    assert {cls.__name__: cls.__doc__ for cls in (TPVT, TPVTO, TPVTW, TPVTGRecord, TPVTG, TRock, TScalar)} == {
        "TPVT": f"TPVT( {p}_P, {p}_B, {p}_Mi )",
        "TPVTO": f"TPVTO( {p}RS, {p}P, {p}Bo, {p}Mio )",
        "TPVTW": f"TPVTW( {p}_P_ref, {p}_Bw_ref, {p}_Cw, {p}_Miw_ref, {p}_Cvw )",
        "TPVTGRecord": f"TPVTGRecord( {p}_Rv, {p}_B, {p}_Mi )",
        "TPVTG": f"TPVTG( {p}Pg, {p}Rv, {p}Bg, {p}Mig )",
        "TRock": f"TRock( {p}_P_ref, {p}_Cr )",
        "TScalar": "TScalar( double value, string category, string unit)",
    }
    assert TPVTTable.__doc__ is None
    for call in (lambda: TPVT(_P=s(), _B=s(), _Mi=s()), lambda: TScalar(value=1.0, category="c", unit="u"),
                 lambda: TScalar(1.0, "c"), lambda: TScalar("1", "c", "u")):  # positional and typed
        with pytest.raises(TypeError):
            call()


# --- copies in and out ---------------------------------------------------------------

def test_records_compare_by_identity_and_lists_store_copies_that_share_scalars():
    rec = TPVT(s(1.0), s(2.0), s(3.0))
    assert rec == rec and rec != TPVT(rec.P, rec.B, rec.Mi)
    table = TPVTTable()
    table.append(rec)
    rec.P = s(99.0)  # repoints the original only
    assert table[0].P.value == 1.0
    rec.B.value = 20.0  # the scalar is shared
    assert table[0].B.value == 20.0
    table[0].P = s(5.0)  # changes a copy
    assert table[0].P.value == 1.0
    table[0].P.value = 5.0
    assert table[0].P.value == 5.0 and rec not in table


def test_under_sat_is_a_reference_into_its_record():
    rec = TPVTO(s(10.0), s(100.0), s(1.2), s(0.5))
    u = rec.under_sat
    u.append(TPVT(s(200.0), s(1.1), s(0.6)))
    assert len(rec.under_sat) == 2 and u == rec.under_sat
    rec.under_sat[0].P = s(1.0)  # a copy of the row: no lasting effect
    assert rec.under_sat[0].P.value == 100.0
    rec.under_sat[0].P.value = 101.0
    assert u[0].P.value == 101.0
    del rec
    gc.collect()
    assert len(u) == 2 and u[1].P.value == 200.0  # the reference keeps the record alive


def test_writing_under_sat_replaces_its_content_in_place():
    rec = TPVTG(s(100.0), s(0.01), s(0.02), s(0.1))
    earlier = rec.under_sat
    rows = TPVTGRecordTable([TPVTGRecord(s(0.5), s(0.6), s(0.7))] * 3)
    rec.under_sat = rows
    assert len(earlier) == 3 and rows != rec.under_sat  # copied, not shared
    rec.under_sat = rec.under_sat
    assert len(earlier) == 3
    rec.under_sat = TPVTGRecordTable()
    assert len(earlier) == 0
    for wrong in (None, [], TPVTTable()):
        with pytest.raises(TypeError):
            rec.under_sat = wrong


# --- the list classes --------------------------------------------------------------------

@pytest.mark.parametrize("cls", CLASSES, ids=lambda c: c.__name__)
def test_list_indexing_and_growing(cls):
    lst = cls([element(cls.__name__) for _ in range(3)])
    assert len(lst) == lst.size() == 3 and [type(x) for x in lst] == [type(element(cls.__name__))] * 3
    lst[-3] = lst[2] = element(cls.__name__)
    with pytest.raises(TypeError):
        lst.extend([element(cls.__name__), 1.0])
    assert len(lst) == 4  # items before a bad one stay appended
    assert len(cls(lst)) == 4 and len(cls((element(cls.__name__),))) == 1
    lst.extend(lst)  # a snapshot is taken first
    assert len(lst) == 8
    lst.resize(1)
    assert len(lst) == 1


class Lying:
    """An iterable whose length is not the number of items it yields, or whose length or iteration fails."""

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
        ("int", None, TypeError),
    ],
)
@pytest.mark.parametrize("cls", CLASSES, ids=lambda c: c.__name__)
def test_lying_iterables(cls, yielded, length, outcome):
    lst = cls([element(cls.__name__)])
    if yielded in ("generator", "int"):
        given = 5 if yielded == "int" else (element(cls.__name__) for _ in range(2))
    else:
        given = Lying(yielded if isinstance(yielded, Exception) else [element(cls.__name__)] * yielded, length)
    if isinstance(outcome, int):
        assert len(cls(given)) == outcome
        lst.extend(given)
        assert len(lst) == 1 + outcome
        return
    for call in (cls, lst.extend):
        with pytest.raises(outcome):
            call(given)
    assert len(lst) == 1


@pytest.mark.parametrize(
    "operation, error",
    [
        (lambda lst: lst.resize(2**63), RuntimeError),  # "vector too long"
        (lambda lst: lst.reserve(2**63), RuntimeError),
        (lambda lst: lst.resize(2**64), OverflowError),
        (lambda lst: lst.resize(-1), OverflowError),
        (lambda lst: lst.reserve(-1), OverflowError),
        (lambda lst: lst[2**63], OverflowError),
        *[(lambda lst, i=i: lst[i], IndexError) for i in (1, -2, 2**62, -(2**63))],
        *[(lambda lst, i=i: lst.__setitem__(i, lst[0]), IndexError) for i in (1, -2, 2**62)],
        (lambda lst: lst[1.0], TypeError),
        (lambda lst: lst[0:1], TypeError),
        (lambda lst: lst.__setitem__(0, 1.0), TypeError),
    ],
)
@pytest.mark.parametrize("cls", CLASSES, ids=lambda c: c.__name__)
def test_huge_counts_and_indices_leave_the_list_alone(cls, operation, error):
    lst = cls([element(cls.__name__)])
    before = repr(lst)
    with pytest.raises(error, match={RuntimeError: "^vector too long$", IndexError: "^index out of range$"}.get(error)):
        operation(lst)
    assert repr(lst) == before


@pytest.mark.parametrize(
    "lst, text",
    [
        (TPVTTable(), "vector([])"),
        (kavra.TPVTList([TPVTTable(), TPVTTable()]), "vector([TPVTTable, TPVTTable])"),
        (kavra.TPVTOList([kavra.TPVTOTable()] * 2), "vector([TPVOTTable, TPVOTTable])"),
        (kavra.TPVTGList([kavra.TPVTGTable()]), "vector([TPVGTTable])"),
        (kavra.TRockList([TRock(s(100.0, "pressure", "bar"), s(0.5, "compressibility", "1/bar"))]),
         "vector([(TScalar(100, pressure, bar), TScalar(0.5, compressibility, 1/bar))])"),
        (kavra.TPVTOTable([TPVTO(s(10.0, "rs", "m3/m3"), s(), s(), s()), TPVTO(s(20.0, "rs", "m3/m3"), s(), s(), s())]),
         "vector([(TScalar(10, rs, m3/m3)), (TScalar(20, rs, m3/m3))])"),
        (kavra.TPVTGTable([TPVTG(s(2.0, "p", "bar"), s(), s(), s())]), "vector([(TScalar(2, p, bar))])"),
        (kavra.TPVTWList([TPVTW(*[s(float(n)) for n in range(5)])]),
         "vector([(TScalar(0, c, u), TScalar(1, c, u), TScalar(2, c, u), TScalar(3, c, u), TScalar(4, c, u))])"),
        (TPVTGRecordTable([TPVTGRecord(s(1.0), s(2.0), s(3.0))]),
         "vector([(TScalar(1, c, u), TScalar(2, c, u), TScalar(3, c, u))])"),
    ],
)
def test_list_repr(lst, text):
    assert repr(lst) == text


def test_repr_of_a_record_with_an_unset_scalar_is_a_failed_check(raises_text):
    raises_text(precondition_text("bindings/_kavracore/RegisterList.h", "field.get()!=0",
                                  "A record field holds no TScalar (None) and has no text."),
                repr, TPVTTable([TPVT(s(), None, s())]))


def test_resize_makes_distinct_default_elements():
    table = TPVTTable()
    table.resize(3)
    assert repr(table) == "vector([" + ", ".join(["(" + ", ".join(["TScalar(0, , )"] * 3) + ")"] * 3) + "])"
    table[0].P.value = 1.0
    assert [getattr(row, f).value for row in table for f in ("P", "B", "Mi")] == [1.0] + [0.0] * 8
    table.resize(len(table))
    assert table[0].P.value == 1.0
    oil, regions = kavra.TPVTOTable(), kavra.TPVTList()
    oil.resize(1)
    regions.resize(2)
    assert len(oil[0].under_sat) == 1 and [len(t) for t in regions] == [0, 0]


@pytest.mark.parametrize("cls", CLASSES, ids=lambda c: c.__name__)
def test_list_equality(cls):
    a = cls([element(cls.__name__)])
    assert a == a and not (a != a)
    assert cls() == cls() and not (cls() != cls())
    assert a != cls(a)  # same content, other records: not equal
    assert not (a == 5) and a != 5
    other = next(c for c in CLASSES if c is not cls)
    assert not (a == other()) and a != other()
    empty = cls()
    empty.resize(2)  # lists of empty tables compare equal
    assert (empty == cls(empty)) is (cls.__name__ in ("TPVTList", "TPVTOList", "TPVTGList"))


def test_classes_are_unrelated():
    for wrong in (lambda: kavra.TPVTList().append(kavra.TPVTOTable()), lambda: kavra.TPVTGList([TPVTTable()]),
                  lambda: kavra.TPVTList([[TPVT(s(), s(), s())]])):  # nested Python lists are not tables
        with pytest.raises(TypeError):
            wrong()
