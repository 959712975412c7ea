"""TScalar, the records and the nine list classes: sharing, copies,
references, texts and equality as scripts rely on them."""

import gc

import pytest

import kavra
from kavra import (
    TPVT, TPVTG, TPVTO, TPVTW, TPVTGList, TPVTGRecord, TPVTGRecordTable, TPVTGTable, TPVTList, TPVTOList,
    TPVTOTable, TPVTTable, TPVTWList, TRock, TRockList, TScalar,
)
from conftest import precondition_text

nan = float("nan")


def s(value=1.0, category="c", unit="u"):
    return TScalar(value, category, unit)


RECORDS = {
    TPVT: ("P", "B", "Mi"),
    TPVTW: ("P_ref", "Bw_ref", "Cw", "Miw_ref", "Cvw"),
    TPVTGRecord: ("Rv", "B", "Mi"),
    TRock: ("P_ref", "Cr"),
}

# list class -> a factory of one element
LISTS = {
    TPVTTable: lambda: TPVT(s(), s(), s()),
    TPVTList: lambda: TPVTTable([TPVT(s(), s(), s())]),
    TPVTOTable: lambda: TPVTO(s(), s(), s(), s()),
    TPVTOList: lambda: TPVTOTable([TPVTO(s(), s(), s(), s())]),
    TPVTWList: lambda: TPVTW(s(), s(), s(), s(), s()),
    TPVTGRecordTable: lambda: TPVTGRecord(s(), s(), s()),
    TPVTGTable: lambda: TPVTG(s(), s(), s(), s()),
    TPVTGList: lambda: TPVTGTable([TPVTG(s(), s(), s(), s())]),
    TRockList: lambda: TRock(s(), s()),
}


# --- TScalar ----------------------------------------------------------------

@pytest.mark.parametrize(
    "a, b, equal",
    [
        (s(300.0, "pressure", "bar"), s(300.0, "pressure", "bar"), True),
        (s(300.0, "pressure", "bar"), s(300.0, "pressure", "psi"), False),  # units are never converted
        (s(300.0, "pressure", "bar"), s(300.0, "Pressure", "bar"), False),
        (s(0.1 + 0.2), s(0.3), False),  # no tolerance
        (s(0.0), s(-0.0), True),
        (s(1.0, "a\0b"), s(1.0, "a\0c"), False),  # labels compare as bytes
    ],
)
def test_scalar_equality(a, b, equal):
    assert (a == b) is equal and (a != b) is (not equal)


def test_scalar_nan_and_other_types():
    n = s(nan)
    assert not (n == n) and n != n
    assert not (s() == 1.0) and s() != "TScalar" and s() != None  # noqa: E711


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


def test_scalar_fields_are_writable_and_init_is_positional():
    scalar = s()
    scalar.value, scalar.category, scalar.unit = 2.5, "", "bar"
    assert str(scalar) == "TScalar(2.5, , bar)"
    for call in (lambda: TScalar(1.0, "c"), lambda: TScalar(value=1.0, category="c", unit="u"), lambda: TScalar("1", "c", "u")):
        with pytest.raises(TypeError):
            call()


# --- records ----------------------------------------------------------------

@pytest.mark.parametrize("cls, fields", RECORDS.items(), ids=lambda x: getattr(x, "__name__", ""))
def test_record_fields_hold_the_given_scalars(cls, fields):
    scalars = [s(float(n)) for n in range(len(fields))]
    rec = cls(*scalars)
    assert all(getattr(rec, f) is x for f, x in zip(fields, scalars))
    other = s(9.0)
    setattr(rec, fields[0], other)
    assert getattr(rec, fields[0]) is other
    setattr(rec, fields[0], None)
    assert getattr(rec, fields[0]) is None
    assert all(getattr(cls(*[None] * len(fields)), f) is None for f in fields)
    with pytest.raises(TypeError):
        cls(*[1.0] * len(fields))
    with pytest.raises(TypeError):
        setattr(rec, fields[0], 1.0)


@pytest.mark.parametrize(
    "cls, first, row_fields",
    [(TPVTO, "Rs", ("P", "B", "Mi")), (TPVTG, "Pg", ("Rv", "B", "Mi"))],
)
def test_two_level_records_put_three_arguments_into_their_first_row(cls, first, row_fields):
    key, a, b, c = s(1.0), s(2.0), s(3.0), s(4.0)
    rec = cls(key, a, b, c)
    assert getattr(rec, first) is key and len(rec.under_sat) == 1
    row = rec.under_sat[0]
    assert [getattr(row, f) for f in row_fields] == [a, b, c]
    assert all(getattr(row, f) is x for f, x in zip(row_fields, (a, b, c)))
    assert not hasattr(row, "Bg") and not hasattr(rec, "P")


def test_documentation_texts():
    assert TPVT.__doc__ == "TPVT( kavra::TScalarPtr _P, kavra::TScalarPtr _B, kavra::TScalarPtr _Mi )"
    assert TPVTO.__doc__ == "TPVTO( kavra::TScalarPtr RS, kavra::TScalarPtr P, kavra::TScalarPtr Bo, kavra::TScalarPtr Mio )"
    assert TPVTW.__doc__ == (
        "TPVTW( kavra::TScalarPtr _P_ref, kavra::TScalarPtr _Bw_ref, kavra::TScalarPtr _Cw, "
        "kavra::TScalarPtr _Miw_ref, kavra::TScalarPtr _Cvw )"
    )
    assert TPVTGRecord.__doc__ == "TPVTGRecord( kavra::TScalarPtr _Rv, kavra::TScalarPtr _B, kavra::TScalarPtr _Mi )"
    assert TPVTG.__doc__ == "TPVTG( kavra::TScalarPtr Pg, kavra::TScalarPtr Rv, kavra::TScalarPtr Bg, kavra::TScalarPtr Mig )"
    assert TRock.__doc__ == "TRock( kavra::TScalarPtr _P_ref, kavra::TScalarPtr _Cr )"
    assert TScalar.__doc__ == "TScalar( double value, string category, string unit)"
    assert TPVTTable.__doc__ is None
    with pytest.raises(TypeError):
        TPVT(_P=s(), _B=s(), _Mi=s())


def test_records_compare_by_identity():
    p, b, m = s(), s(), s()
    first, second = TPVT(p, b, m), TPVT(p, b, m)
    assert first != second and first == first
    first.P.value = 7.0
    assert second.P.value == 7.0


# --- copies in and out -----------------------------------------------------

def test_lists_store_copies_that_share_scalars():
    rec = TPVT(s(1.0), s(2.0), s(3.0))
    table = TPVTTable()
    table.append(rec)
    rec.P = s(99.0)  # repoints the original only
    assert table[0].P.value == 1.0
    rec.B.value = 20.0  # the scalar is shared
    assert table[0].B.value == 20.0
    table[0].P = s(5.0)  # changes a copy
    assert table[0].P.value == 1.0
    table[0].P.value = 5.0
    assert table[0].P.value == 5.0
    assert rec not in table


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


# --- the list classes --------------------------------------------------------

@pytest.mark.parametrize("cls", LISTS, ids=lambda c: c.__name__)
def test_list_indexing(cls):
    make = LISTS[cls]
    elements = [make() for _ in range(3)]
    lst = cls(elements)
    assert len(lst) == lst.size() == 3
    assert [type(x) for x in lst] == [type(elements[0])] * 3
    lst[-3] = make()
    lst[2] = make()
    for bad in (3, -4, 2**62):
        with pytest.raises(IndexError, match="^index out of range$"):
            lst[bad]
        with pytest.raises(IndexError, match="^index out of range$"):
            lst[bad] = make()
    with pytest.raises(TypeError):
        lst[0:1]
    with pytest.raises(TypeError):
        lst[0] = 1.0
    with pytest.raises(IndexError):
        cls()[0]
    assert len(lst) == 3


@pytest.mark.parametrize("cls", LISTS, ids=lambda c: c.__name__)
def test_list_construction_and_extend(cls):
    make = LISTS[cls]
    assert len(cls([make(), make()])) == 2 and len(cls((make(),))) == 1
    lst = cls([make()])
    assert len(cls(lst)) == 1
    lst.extend(lst)  # a snapshot is taken first
    assert len(lst) == 2
    with pytest.raises(TypeError, match="^an iterable is required as first argument$"):
        cls(5)
    with pytest.raises(TypeError, match="has no len"):
        cls(x for x in [make()])
    with pytest.raises(TypeError):
        lst.extend([make(), 1.0])
    assert len(lst) == 3  # items before the bad one stay appended
    with pytest.raises(OverflowError):
        lst.reserve(-1)
    with pytest.raises(OverflowError):
        lst.resize(-1)
    for grow in (lst.reserve, lst.resize):
        with pytest.raises(RuntimeError, match="^vector too long$"):
            grow(2**63)
    assert len(lst) == 3
    lst.resize(1)
    assert len(lst) == 1


def test_extend_never_reads_past_what_an_iterable_yields():
    class Liar:
        def __len__(self):
            return 5

        def __iter__(self):
            return iter([TPVT(s(), s(), s())])

    table = TPVTTable(Liar())
    assert len(table) == 1


@pytest.mark.parametrize(
    "lst, text",
    [
        (TPVTTable(), "vector([])"),
        (TPVTList([TPVTTable(), TPVTTable()]), "vector([TPVTTable, TPVTTable])"),
        (TPVTOList([TPVTOTable(), TPVTOTable()]), "vector([TPVOTTable, TPVOTTable])"),
        (TPVTGList([TPVTGTable()]), "vector([TPVGTTable])"),
        (
            TRockList([TRock(s(100.0, "pressure", "bar"), s(0.5, "compressibility", "1/bar"))]),
            "vector([(TScalar(100, pressure, bar), TScalar(0.5, compressibility, 1/bar))])",
        ),
        (
            TPVTOTable([TPVTO(s(10.0, "rs", "m3/m3"), s(), s(), s()), TPVTO(s(20.0, "rs", "m3/m3"), s(), s(), s())]),
            "vector([(TScalar(10, rs, m3/m3)), (TScalar(20, rs, m3/m3))])",
        ),
        (TPVTGTable([TPVTG(s(2.0, "p", "bar"), s(), s(), s())]), "vector([(TScalar(2, p, bar))])"),
        (TPVTWList([TPVTW(*[s(float(n)) for n in range(5)])]),
         "vector([(TScalar(0, c, u), TScalar(1, c, u), TScalar(2, c, u), TScalar(3, c, u), TScalar(4, c, u))])"),
        (TPVTGRecordTable([TPVTGRecord(s(1.0), s(2.0), s(3.0))]), "vector([(TScalar(1, c, u), TScalar(2, c, u), TScalar(3, c, u))])"),
    ],
)
def test_list_repr(lst, text):
    assert repr(lst) == text


def test_repr_of_a_record_with_an_unset_scalar_is_a_failed_check():
    table = TPVTTable([TPVT(s(), None, s())])
    expected = precondition_text(
        "bindings/_kavracore/RegisterList.h", "field.get()!=0", "A record field holds no TScalar (None) and has no text."
    )
    with pytest.raises(RuntimeError) as info:
        repr(table)
    assert str(info.value) == expected


def test_resize_makes_distinct_default_elements():
    table = TPVTTable()
    table.resize(3)
    scalars = [getattr(row, f) for row in table for f in ("P", "B", "Mi")]
    assert repr(table) == "vector([" + ", ".join(["(" + ", ".join(["TScalar(0, , )"] * 3) + ")"] * 3) + "])"
    scalars[0].value = 1.0
    assert [x.value for x in (getattr(row, f) for row in table for f in ("P", "B", "Mi"))] == [1.0] + [0.0] * 8
    oil = TPVTOTable()
    oil.resize(1)
    assert len(oil[0].under_sat) == 1
    regions = TPVTList()
    regions.resize(2)
    assert [len(t) for t in regions] == [0, 0]
    table.resize(len(table))
    assert table[0].P.value == 1.0


@pytest.mark.parametrize("cls", LISTS, ids=lambda c: c.__name__)
def test_list_equality(cls):
    make = LISTS[cls]
    a = cls([make()])
    assert a == a and not (a != a)
    assert cls() == cls() and not (cls() != cls())
    assert a != cls(a)  # same content, other records: not equal
    assert not (a == 5) and a != 5
    other = next(c for c in LISTS if c is not cls)
    assert not (a == other()) and a != other()


def test_lists_of_empty_tables_compare_equal():
    a, b = TPVTOList(), TPVTOList()
    a.resize(2)
    b.resize(2)
    assert a == b
    b[0] = TPVTOTable([TPVTO(s(), s(), s(), s())])
    assert a != b


def test_classes_are_unrelated():
    with pytest.raises(TypeError):
        kavra.TPVTList().append(TPVTOTable())
    with pytest.raises(TypeError):
        TPVTGList([TPVTTable()])
    with pytest.raises(TypeError):
        TPVTList([[TPVT(s(), s(), s())]])  # nested Python lists are not tables
