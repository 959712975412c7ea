"""kavra.tables: the deck's records in, values out (==, pickle, repr), and the
native lists and DataFrames both ways."""

import copy
import pickle

import numpy as np
import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

from kavra import _kavracore as native
from kavra.tables import PVDG, PVDO, PVTG, PVTO, PVTW, ROCK, UNIT_LABELS, UNIT_SYSTEMS

EXAMPLES = [
    PVTO([[[50.0, 120.0, 1.25, 0.9, 200.0, 1.23, 1.0, 300.0, 1.21, 1.1], [80.0, 180.0, 1.35, 0.8]],
          [[20.0, 60.0, 1.1, 1.2]]], units="FIELD"),
    PVTG([[[100.0, 0.03, 0.025, 0.02, 0.01, 0.02, 0.02], [200.0, 0.04, 0.0125, 0.03]]], units="LAB"),
    PVDG([[[50.0, 0.025, 0.012], [150.0, 0.009, 0.015]], [[60.0, 0.02, 0.01]]]),
    PVDO([[[100.0, 1.2, 1.0], [300.0, 1.1, 1.2]]], units="PVT-M"),
    PVTW([[250.0, 1.02, 4.5e-5, 0.5, 0.0], [260.0, 1.03, 4.5e-5, 0.5, float("nan")]]),
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


@pytest.mark.parametrize("table", EXAMPLES, ids=IDS)
def test_a_table_is_a_value_and_gives_its_native_list(table):
    cls, lst = type(table), table.to_native()
    assert pickle.loads(pickle.dumps(table)) == table
    assert copy.deepcopy(table) == table and copy.deepcopy(table) is not table
    assert eval(repr(table), {cls.__name__: cls, "nan": float("nan")}) == table
    assert cls.from_native(lst, units=table.units) == table == cls.from_frame(table.to_frame(), units=table.units)
    assert cls.from_native(lst, units="METRIC" if table.units != "METRIC" else "LAB") != table
    arrays = [a for region in table.regions for a in (region if isinstance(region, tuple) else (region,))]
    for array in arrays:
        with pytest.raises(ValueError):  # numbers are read-only, and stay so
            array.flags.writeable = True
    with pytest.raises(TypeError):
        hash(table)
    assert type(lst) is NATIVE[cls] and len(lst) == len(table) and table.to_native() is not lst  # a new list each time
    scalars = _scalars(lst)
    assert len(scalars) == sum(a.size for a in arrays)
    assert all(s.unit == UNIT_LABELS[table.units][s.category] for s in scalars)


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
    (lambda: PVDG([[[1, 2, 3], [4, 5]]]), ValueError, r"^PVDG region 1, record 2: expected 3 numbers, got 2$"),
    (lambda: PVDO([[]]), ValueError, "^PVDO region 1: no records$"),
    (lambda: PVTW([[1, 2, 3, 4]]), ValueError,
     r"^PVTW region 1: expected 5 numbers \[p_ref, bw, cw, mu, cvw\], got 4$"),
    (lambda: ROCK([]), ValueError, "ROCK needs at least one region"),
    (lambda: ROCK([[1, 2]], units="SI"), ValueError, "units must be one of METRIC, FIELD, LAB, PVT-M"),
    (lambda: PVTO([[[1, 2, 3, "x"]]]), TypeError, "PVTO region 1, record 1: expected real numbers"),
    (lambda: PVTO([[[[1, 2], [3, 4]]]]), ValueError, "PVTO region 1, record 1: expected a flat sequence"),
    (lambda: PVDG.from_native(native.TPVTOList()), TypeError, "needs a TPVTList, got TPVTOList"),
    (lambda: PVTW.from_native(native.TPVTWList([native.TPVTW(None, None, None, None, None)])), ValueError,
     "TPVTWList region 1: P_ref holds no TScalar"),
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
    with pytest.raises(ValueError, match="region 2 has no rows"):
        PVDG.from_frame(pd.DataFrame({"region": [1, 3], "p": [1.0, 2.0], "bg": [1.0, 1.0], "mu": [1.0, 1.0]}))
    with pytest.raises(ValueError, match="no column 'cw'"):
        PVTW.from_frame(pd.DataFrame({"p_ref": [1.0], "bw": [1.0]}))


def test_repr_of_a_long_table_is_abbreviated():
    text = repr(PVDG([[[p, 1.0 / p, 0.01] for p in range(1, 101)]]))
    assert text.count("\n") < 12 and "..." in text and "[100.0, 0.01, 0.01]" in text


numbers = st.floats(allow_nan=True, allow_infinity=True, width=64)
records = st.integers(1, 4).flatmap(lambda n: st.lists(numbers, min_size=1 + 3 * n, max_size=1 + 3 * n))


@settings(max_examples=40, deadline=None)
@given(regions=st.lists(st.lists(records, min_size=1, max_size=4), min_size=1, max_size=3),
       units=st.sampled_from(UNIT_SYSTEMS))
def test_any_live_oil_table_survives_every_round_trip(regions, units):
    oil = PVTO(regions, units=units)
    assert pickle.loads(pickle.dumps(oil)) == oil
    assert PVTO.from_native(oil.to_native(), units=units) == oil
    back = [[list(record) for record in region] for region in oil.regions]
    assert all(np.array_equal(a, b, equal_nan=True) for r, s in zip(back, regions) for a, b in zip(r, s))
