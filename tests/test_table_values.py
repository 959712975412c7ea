"""kavra.tables: the deck's records in, values out (==, pickle, repr), and the
native lists and DataFrames both ways."""

import copy
import pickle

import numpy as np
import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

import kavra.tables
from conftest import needs_boost_python
from kavra import _kavracore as native
from kavra.tables import PVDG, PVDO, PVTG, PVTO, PVTW, ROCK, UNIT_LABELS, UNIT_SYSTEMS

EXAMPLES = [
    PVTO([[[50.0, 120.0, 1.25, 0.9, 200.0, 1.23, 1.0, 300.0, 1.21, 1.1], [80.0, 180.0, 1.35, 0.8]],
          [[20.0, 60.0, 1.1, 1.2]]], units="FIELD"),
    PVTG([[[100.0, 0.03, 0.025, 0.02, 0.01, 0.02, 0.02], [200.0, 0.04, 0.0125, 0.03]]], units="LAB"),
    PVDG([[[50.0, 0.025, 0.012], [150.0, 0.009, 0.015]], [[60.0, 0.02, 0.01]]]),
    PVDO([[[100.0, 1.2, 1.0], [300.0, 1.1, 1.2]]], units="PVT-M"),
    PVTW([[250.0, 1.02, 4.5e-5, 0.5, 0.0], [260.0, 1.03, 4.5e-5, 0.5, -0.0]]),
    ROCK([[200.0, 1e-3]], units="FIELD"),
]
IDS = [type(t).__name__ for t in EXAMPLES]
NATIVE = {PVTO: native.TPVTOList, PVTG: native.TPVTGList, PVDG: native.TPVTList, PVDO: native.TPVTList,
          PVTW: native.TPVTWList, ROCK: native.TRockList}


def _scalars(item):
    """Every TScalar of a native list or record, whatever its depth."""
    if isinstance(item, native.TScalar):
        return [item]
    parts = item if hasattr(item, "__len__") else [getattr(item, a) for a in dir(item) if not a.startswith("_")]
    return [s for part in parts for s in _scalars(part)]


@needs_boost_python
@pytest.mark.parametrize("table", EXAMPLES, ids=IDS)
def test_a_table_is_a_value_and_gives_its_native_list(table):
    cls, lst = type(table), table.to_native()
    assert pickle.loads(pickle.dumps(table)) == table
    assert copy.deepcopy(table) == table and copy.deepcopy(table) is not table
    assert eval(repr(table), {cls.__name__: cls}) == table
    assert cls.from_native(lst) == table  # the unit system read back from the labels
    assert cls.from_native(lst, units="METRIC" if table.units != "METRIC" else "LAB") != table
    arrays = [a for region in table.regions for a in (region if isinstance(region, tuple) else (region,))]
    for array in arrays:
        while isinstance(array, np.ndarray):  # numbers are read-only, and so is the memory under them
            with pytest.raises(ValueError):
                array.flags.writeable = True
            array = array.base
    with pytest.raises(TypeError):
        hash(table)
    assert type(lst) is NATIVE[cls] and len(lst) == len(table) and table.to_native() is not lst  # a new list each time
    scalars = _scalars(lst)
    assert len(scalars) == sum(a.size for a in arrays)
    assert all(s.unit == UNIT_LABELS[table.units][s.category] for s in scalars)


@pytest.mark.parametrize("state", [(None, {"_regions": ([[2.0, 1.0, 1.0], [1.0, 1.0, 1.0]],), "_units": "METRIC"}),
                                   (([[[2.0, 1.0, 1.0], [1.0, 1.0, 1.0]]]), "METRIC"), ([[[1.0, 1.0, 1.0]]], "SI"), 7])
def test_a_state_set_directly_is_checked_as_the_constructor_checks(state):
    table = object.__new__(PVDG)
    with pytest.raises((ValueError, TypeError), match="PVDG"):
        table.__setstate__(state)
    table.__setstate__(((([[1.0, 1.0, 1.0]],), "FIELD")))
    assert table == PVDG([[[1.0, 1.0, 1.0]]], units="FIELD")


@needs_boost_python
@pytest.mark.parametrize("labels, words", [
    ([("pressure", "psia"), ("gas_fvf", "rm3/sm3")], "gas_fvf in rm3/sm3 is not of the unit system of the scalars "
                                                     "before it \\(FIELD\\); a table has one unit system"),
    ([("pressure", "bar"), ("gas_fvf", "rm3/sm3")], "the labels 'pressure', 'bar' are not of any unit system"),
])
def test_labels_of_mixed_or_unknown_unit_systems_are_refused(labels, words):
    (p, pu), (b, bu) = labels
    lst = native.TPVTList([native.TPVTTable([native.TPVT(native.TScalar(1.0, p, pu), native.TScalar(1.0, b, bu),
                                                         native.TScalar(1.0, "viscosity", "cP"))])])
    with pytest.raises(ValueError, match=r"TPVTList region 1, row 1: \w+: " + words):
        PVDG.from_native(lst)
    assert PVDG.from_native(lst, units="LAB").units == "LAB"  # a given system is taken as it is


def test_the_module_documents_every_unit_label():
    rows = {line.split()[0]: line.split()[1:] for line in kavra.tables.__doc__.splitlines() if line.split()}
    assert all(rows.get(quantity) == [UNIT_LABELS[s][quantity] for s in UNIT_SYSTEMS]
               for quantity in UNIT_LABELS["METRIC"])


@needs_boost_python
def test_the_deck_form_per_class():
    oil = EXAMPLES[0]
    assert len(oil) == 2 and [len(region) for region in oil.regions] == [2, 1]
    np.testing.assert_array_equal(oil.regions[0][1], [80.0, 180.0, 1.35, 0.8])
    first = oil.to_native()[0][0]
    assert (first.Rs.value, len(first.under_sat), first.under_sat[2].B.value) == (50.0, 3, 1.21)
    assert str(first.under_sat[0].P) == "TScalar(120, pressure, psia)"
    assert EXAMPLES[2].regions[0].shape == (2, 3) and EXAMPLES[4].regions[1].shape == (5,)


@pytest.mark.parametrize("build, error, words", [
    (lambda: PVTO([[[50.0, 1, 2, 3], [1, 2, 3, 4, 5]]]), ValueError,
     r"^PVTO region 1, record 2: expected 1 \+ 3\*n numbers, got 5$"),
    (lambda: PVTG([[[1, 2, 3, 4]], [[1, 2, 3]]]), ValueError,
     r"^PVTG region 2, record 1: expected 1 \+ 3\*n numbers, got 3$"),
    (lambda: PVDG([[[1, 2, 3], [4, 5]]]), ValueError, r"^PVDG region 1, row 2: expected 3 numbers, got 2$"),
    (lambda: PVDO([[]]), ValueError, "^PVDO region 1: no rows$"),
    # the checks a deck's tables get, for tables written by hand
    (lambda: PVDG([[[2, 1, 1], [1, 1, 1]]]), ValueError, "^PVDG region 1, row 2: p 1 does not rise above 2 before it$"),
    (lambda: PVDG([[[1, 1, 1], [2, 0, 1]]]), ValueError, "^PVDG region 1, row 2: bg 0 is not above 0$"),
    (lambda: PVDO([[[1, float("nan"), 1]]]), ValueError, "^PVDO region 1, row 1: value 2 is nan; a table needs finite"),
    (lambda: PVTO([[[1, 1, 1, 1], [1, 2, 1, 1]]]), ValueError, "^PVTO region 1, record 2: rs 1 does not rise above 1"),
    (lambda: PVTO([[[1, 2, 1, 1], [2, 1, 1, 1]]]), ValueError, "record 2: saturated p 1 does not rise above 2"),
    (lambda: PVTO([[[1, 2, 1, 1, 2, 1, 1]]]), ValueError, "^PVTO region 1, record 1: p 2 does not rise above 2"),
    (lambda: PVTG([[[1, 2, 1, 1, 1, -1, 1]]]), ValueError, "^PVTG region 1, record 1: bg -1 is not above 0$"),
    (lambda: PVTW([[1, 0, 0, 1, 0]]), ValueError, "^PVTW region 1: bw 0 is not above 0$"),
    (lambda: ROCK([[float("inf"), 0]]), ValueError, "^ROCK region 1: value 1 is inf; a table needs finite numbers$"),
    (lambda: PVDG.from_frame({"p": [1.0]}), TypeError, "PVDG.from_frame needs a pandas DataFrame, got dict"),
    (lambda: PVTW([[1, 2, 3, 4]]), ValueError,
     r"^PVTW region 1: expected 5 numbers \[p_ref, bw, cw, mu, cvw\], got 4$"),
    (lambda: ROCK([]), ValueError, "ROCK needs at least one region"),
    (lambda: ROCK([[1, 2]], units="SI"), ValueError, "units must be one of METRIC, FIELD, LAB, PVT-M"),
    (lambda: PVTO([[[1, 2, 3, "x"]]]), TypeError, "PVTO region 1, record 1: expected real numbers"),
    (lambda: PVTO([[[[1, 2], [3, 4]]]]), ValueError, "PVTO region 1, record 1: expected a flat sequence"),
    pytest.param(lambda: PVDG.from_native(native.TPVTOList()), TypeError, "needs a TPVTList, got TPVTOList",
                 marks=needs_boost_python),
    pytest.param(lambda: PVTW.from_native(native.TPVTWList([native.TPVTW(None, None, None, None, None)])),
                 ValueError, "TPVTWList region 1: P_ref holds no TScalar", marks=needs_boost_python),
])
def test_malformed_input_names_the_region_and_record(build, error, words):
    with pytest.raises(error, match=words):
        build()


def test_frames_one_row_per_point_and_regions_from_one():
    pd = pytest.importorskip("pandas")
    frame = pd.DataFrame({"region": [2, 1, 1, 1], "rs": [20.0, 50.0, 50.0, 80.0], "p": [60.0, 120.0, 200.0, 180.0],
                          "bo": [1.1, 1.25, 1.23, 1.35], "mu": [1.2, 0.9, 1.0, 0.8]})
    oil = PVTO.from_frame(frame)
    assert oil == PVTO([[[50.0, 120.0, 1.25, 0.9, 200.0, 1.23, 1.0], [80.0, 180.0, 1.35, 0.8]],
                        [[20.0, 60.0, 1.1, 1.2]]])
    assert ROCK.from_frame(pd.DataFrame({"p_ref": [200.0], "cr": [1e-3]})) == ROCK([[200.0, 1e-3]])
    assert all(type(t).from_frame(t.to_frame(), units=t.units) == t for t in EXAMPLES)
    with pytest.raises(ValueError, match="region 2 has no rows"):
        PVDG.from_frame(pd.DataFrame({"region": [1, 3], "p": [1.0, 2.0], "bg": [1.0, 1.0], "mu": [1.0, 1.0]}))
    with pytest.raises(ValueError, match="no column 'cw'"):
        PVTW.from_frame(pd.DataFrame({"p_ref": [1.0], "bw": [1.0]}))


def test_repr_of_a_long_table_is_abbreviated():
    text = repr(PVDG([[[p, 1.0 / p, 0.01] for p in range(1, 101)]]))
    assert text.count("\n") < 12 and "..." in text and "[100.0, 0.01, 0.01]" in text


numbers = st.floats(allow_nan=False, allow_infinity=False, width=64)
rising = st.lists(numbers, min_size=1, max_size=4, unique=True).map(sorted)


@st.composite
def live_oil_regions(draw):
    """Regions of any finite numbers that a table takes: Rs and the saturated pressures rising from
    record to record, the pressures of each record rising, Bo above 0."""
    regions = []
    for _ in range(draw(st.integers(1, 3))):
        keys, saturated = draw(rising), draw(rising)
        count = min(len(keys), len(saturated))
        records = []
        for rs, p in zip(keys[:count], saturated[:count]):
            pressures = [p] + [q for q in draw(rising) if q > p]
            records.append([rs] + [x for q in pressures for x in (q, draw(numbers.filter(lambda b: b > 0)),
                                                                     draw(numbers))])
        regions.append(records)
    return regions


@needs_boost_python
@settings(max_examples=40, deadline=None)
@given(regions=live_oil_regions(), units=st.sampled_from(UNIT_SYSTEMS))
def test_any_live_oil_table_survives_every_round_trip(regions, units):
    oil = PVTO(regions, units=units)
    assert pickle.loads(pickle.dumps(oil)) == oil
    assert PVTO.from_native(oil.to_native()) == oil
    back = [[list(record) for record in region] for region in oil.regions]
    assert all(np.array_equal(a, b) for r, s in zip(back, regions) for a, b in zip(r, s))
