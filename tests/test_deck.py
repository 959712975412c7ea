"""kavra.deck on the two public SPE decks that ship with it, against numbers taken
from the deck text by hand, and on small decks that are wrong in one place."""

import doctest
import importlib.util
import pickle
import re
import subprocess
import sys

import numpy as np
import pytest

import kavra
from conftest import needs_boost_python

deck_module = importlib.import_module("kavra.deck") if importlib.util.find_spec("opm") else None
needs_opm = pytest.mark.skipif(deck_module is None, reason="opm is not installed (pip install '.[deck]')")


@pytest.fixture(scope="module")
def spe1():
    return deck_module.read(deck_module.example_path("SPE1CASE1"))


@pytest.fixture(scope="module")
def spe3():
    return deck_module.read(str(deck_module.example_path("SPE3CASE1")))


def slope(x, x0, x1, y0, y1):  # the interpolation between two table rows
    return (x - x0) * ((y1 - y0) / (x1 - x0)) + y0


@needs_opm
def test_tables_hold_the_deck_numbers(spe1, spe3):
    assert (spe1.units, spe3.units) == ("FIELD", "FIELD")
    assert (spe1.pvtg, spe1.pvdo, spe3.pvdg) == (None, None, None)
    assert [len(t) for t in (spe1.pvto, spe1.pvdg, spe1.pvtw, spe1.rock, spe3.pvtg)] == [1] * 5
    oil = spe1.pvto.regions[0]
    assert len(oil) == 9 and list(oil[0]) == [0.0010, 14.7, 1.0620, 1.0400]
    assert list(oil[8]) == [1.6180, 5014.7, 1.8270, 0.4490, 9014.7, 1.7370, 0.6310]
    assert spe1.pvdg.regions[0][[0, -1]].tolist() == [[14.700, 166.666, 0.008000], [9014.7, 0.38600, 0.047000]]
    assert list(spe1.pvtw.regions[0]) == [4017.55, 1.038, 3.22E-6, 0.318, 0.0]
    assert list(spe3.pvtw.regions[0]) == [3427.6, 1.02629, 0.30698E-05, 0.31107, 0.59410E-05]
    assert list(spe1.rock.regions[0]) == [14.7, 3E-6] and list(spe3.rock.regions[0]) == [3550, 4e-6]
    assert [len(r) for r in spe3.pvto.regions[0]] == [34, 31, 28, 25, 22, 19, 16, 13, 10]
    gas = spe3.pvtg.regions[0]
    assert list(gas[0]) == [500.0, 0.0382886993, 6.419987, 0.012999]
    assert gas[8][0] == 4000.0 and list(gas[8][1::3]) == [  # Rv runs down, as written
        0.1670518252, 0.1043958616, 0.0679314005, 0.0473304978, 0.0357629796, 0.0314227763, 0.0]


@needs_opm
@needs_boost_python
def test_deck_tables_give_native_lists_labelled_in_the_deck_units(spe1):
    native = spe1.pvto.to_native()
    assert (native[0][0].Rs.unit, native[0][0].under_sat[0].P.unit) == ("Mscf/stb", "psia")


@needs_opm
def test_oil_calculations_at_between_and_outside_the_nodes(spe1, spe3):
    rs = [0.0010, 0.0905, 0.1800, 0.3710, 0.6360, 0.7750, 0.9300, 1.2700, 1.6180]
    p = [14.7, 264.7, 514.7, 1014.7, 2014.7, 2514.7, 3014.7, 4014.7, 5014.7]
    # At a tabulated Rs the tabulated pressure, to the bit but at 0.0905 (one unit in the last place above).
    np.testing.assert_array_max_ulp(kavra.bubble_point_pressure(spe1.pvto, np.ones(9, int), rs), p, maxulp=1)
    assert kavra.bubble_point_pressure(spe1.pvto, [1, 1, 1], [1.0, 2.0, 0.0]).tolist() == [
        slope(1.0, 0.93, 1.27, 3014.7, 4014.7), slope(2.0, 1.27, 1.618, 4014.7, 5014.7),
        slope(0.0, 0.001, 0.0905, 14.7, 264.7)]
    assert kavra.bubble_point_pressure(spe3.pvto, [1, 1], [0.826985, 3.605023]).tolist() == [1500.0, 4000.0]

    # 1/Bo: an undersaturated record of the deck, between records, above the last one, on the saturated line.
    po, pbub = [9014.7, 6000.0, 10000.0, 2014.7, 3427.6, 3200.0], [4014.7, 5014.7, 5014.7, 2014.7, 1500.0, 1500.0]
    one_over_bo = kavra.one_over_bo(spe1.pvto, np.ones(4, int), po[:4], pbub[:4])
    assert one_over_bo.tolist() == [1.0 / slope(9014.7, 4014.7, 9014.7, 1.695, 1.579),
                                    1.0 / slope(6000.0, 5014.7, 9014.7, 1.827, 1.737),
                                    1.0 / slope(10000.0, 5014.7, 9014.7, 1.827, 1.737),
                                    1.0 / slope(2014.7, 1014.7, 2014.7, 1.295, 1.435)]
    assert one_over_bo[0] == 1.0 / 1.579
    assert kavra.one_over_bo(spe3.pvto, [1, 1], po[4:], pbub[4:]).tolist() == [
        1.0 / slope(3427.6, 3000.0, 3427.6, 1.53584, 1.51777), 1.0 / slope(3200.0, 3000.0, 3427.6, 1.53584, 1.51777)]


@needs_opm
def test_gas_and_rock_calculations(spe1, spe3):
    assert kavra.one_over_b(spe1.pvdg, [1, 1], [1014.7, 1500.0]).tolist() == [
        1.0 / slope(1014.7, 514.7, 1014.7, 6.274, 3.197), 1.0 / slope(1500.0, 1014.7, 2014.7, 3.197, 1.614)]
    # Wet gas: off the dew point linear in Pg between the rows' 1/Bg (one record each); at it, in Rv.
    pg, pdew, rv = [3000.0, 2250.0, 2750.0], [3427.6, 3427.6, 2750.0], [0.1, 0.1, 0.08]
    f1, f0 = 1.0 / 1.123337, 1.0 / 1.408289
    assert kavra.one_over_bg(spe3.pvtg, [1, 1, 1], pg, pdew, rv).tolist() == [
        1.0 / 0.959755, f1 - (f1 - f0) * ((2500.0 - 2250.0) / (2500.0 - 2000.0)),
        slope(0.08, 0.0679314005, 0.1043958616, 1.0 / 1.123337, 1.0 / 0.959755)]
    # Rock: PORO (1 + x + x^2/2), x = (Po - P_ref) Cr.
    x = (4800.0 - 14.7) * 3e-6
    result = kavra.porosity(spe1.rock, spe1.cell_property("PVTNUM"), np.full(300, 4800.0), spe1.cell_property("PORO"))
    assert np.all(result == 0.3 * ((x * 0.5) * x + (x + 1.0)))


@needs_opm
@pytest.mark.parametrize("name, dtype, layers", [
    ("PORO", np.float64, [0.3, 0.3, 0.3]), ("PERMX", np.float64, [500, 50, 200]), ("DZ", np.float64, [20, 30, 50]),
    ("TOPS", np.float64, [8325, 8345, 8375]),  # given for layer 1, continued down with DZ
    ("NTG", np.float64, [1, 1, 1]),  # not in the deck: the simulator's defaults
    ("pvtnum", np.int32, [1, 1, 1]), ("ACTNUM", np.int32, [1, 1, 1]),
])
def test_cell_properties_of_spe1(spe1, name, dtype, layers):
    values = spe1.cell_property(name)
    assert values.dtype == dtype and values.tolist() == np.repeat(layers, 100).tolist()


@needs_opm
def test_cell_order_active_mask_and_missing_keywords(spe3):
    deck = deck_module.read("RUNSPEC\nDIMENS\n 3 2 1 /\nGRID\nACTNUM\n 1 0 1 1 1 0 /\nPERMX\n 1 2 3 4 5 6 /\n")
    assert (deck.grid.nI, deck.grid.nJ, deck.grid.nK) == (3, 2, 1)
    assert deck.active.tolist() == [True, False, True, True, True, False]
    assert deck.cell_property("PERMX").tolist() == [1, 2, 3, 4, 5, 6]  # I fastest
    assert (spe3.grid.nI, spe3.grid.nJ, spe3.grid.nK) == (9, 9, 4) and spe3.active.all()
    with pytest.raises(KeyError, match="the deck has no SWATINIT keyword"):
        spe3.cell_property("SWATINIT")
    assert spe3.records("EQUIL")[0][:2].tolist() == [7500, 3550]


@needs_opm
@pytest.mark.parametrize("units", ["METRIC", "FIELD", "LAB", "PVT-M"])
def test_unit_systems_and_the_defaults_that_are_zero_in_every_one(units):
    deck = deck_module.read(f"RUNSPEC\nDIMENS\n 1 1 1 /\n{units}\nTABDIMS\n/\nPROPS\n"
                           "PVTW\n 100 1.02 1e-5 0.5 /\nROCK\n 100 /\n")
    assert deck.units == deck.pvtw.units == deck.rock.units == units
    assert list(deck.pvtw.regions[0]) == [100, 1.02, 1e-5, 0.5, 0.0] and list(deck.rock.regions[0]) == [100, 0.0]


HEAD = "RUNSPEC\nDIMENS\n 2 1 1 /\nOIL\nGAS\nDISGAS\nFIELD\nTABDIMS\n 1 {regions} /\nGRID\n{grid}\nPROPS\n{props}\n"
OIL = " 0.1 100 1.1 1.0 /\n"


@needs_opm
@pytest.mark.parametrize("regions, grid, props, words", [
    (1, "", f"PVTO\n{OIL} 0.2 200 abc 0.9 /\n/\n", "(?s)PVTO.*record 2 out of 2 of the keyword PVTO"),
    (1, "", f"PVTO\n{OIL} 0.2 200 1* 0.9 /\n/\n", "PVTO region 1, record 2: value 3 is left to its default"),
    (1, "", f"PVTO\n{OIL} 0.2 200 1.2 0.9 300 /\n/\n", r"PVTO region 1, record 2: expected 1 \+ 3\*n numbers, got 5"),
    (1, "", f"PVTO\n{OIL} 0.05 200 1.2 0.9 /\n/\n", "PVTO region 1, record 2: rs 0.05 does not rise above 0.1"),
    (2, "", f"PVTO\n{OIL}/\n/\n", "PVTO region 2: no records"),
    (1, "", "PVTW\n 1* 1.0 1e-5 0.5 /\n", "PVTW region 1: value 1 is left to its default"),
    (1, "", "PVDG\n 100 1.0 0.01 50 0.5 0.02 /\n", "PVDG region 1, row 2: p 50 does not rise above 100"),
    (1, "", "PVDG\n 100 0.0 0.01 /\n", "PVDG region 1, row 1: bg 0 is not above 0"),  # the tables' own checks
    (1, "", "", "the deck has no DIMENS keyword"),
    (1, "INCLUDE\n 'no_such_file.inc' /", "", "(?s)no_such_file.inc.*does not exist"),  # opm would end the process
])
def test_bad_decks_name_the_keyword_and_record(regions, grid, props, words):
    text = HEAD.format(regions=regions, grid=grid, props=props)
    with pytest.raises(deck_module.DeckError, match=words) as info:
        deck_module.read(text.replace("DIMENS\n 2 1 1 /\n", "") if "DIMENS" in words else text)
    assert isinstance(info.value, ValueError)


@needs_opm
@pytest.mark.parametrize("grid, words", [
    ("PORO\n 0.1 /", "PORO holds 1 value; the grid of DIMENS has 2 cells"),
    ("PORO\n 1* 0.1 /", r"PORO: value 1 is left to its default \(1\*\)"),
    ("PORO\n 2*0.1 /\nEQUALS\n PORO 0.2 /\n/", "PORO is changed by EQUALS record 1"),
])
def test_grid_properties_kavra_cannot_take_as_written(grid, words):
    deck = deck_module.read(HEAD.format(regions=1, grid=grid, props=""))
    with pytest.raises(deck_module.DeckError, match=words):
        deck.cell_property("PORO")


@needs_opm
@pytest.mark.parametrize("name", ["DX", "DY", "DZ", "TOPS"])
@pytest.mark.parametrize("values", ["1* 10", "10 1*", "0 1*"])
def test_grid_numbers_left_to_their_default_are_refused(name, values):
    grid = "".join(f"{k}\n {values if k == name else '2*10'} /\n" for k in ("DX", "DY", "DZ", "TOPS"))
    deck = deck_module.read(HEAD.format(regions=1, grid=grid + "PORO\n 2*0.2 /", props=""))
    with pytest.raises(deck_module.DeckError, match=rf"{name}: value \d is left to its default"):
        deck.cell_depths()


INCLUDES = {  # file name: text; the deck is main.DATA
    "cycle": {"main.DATA": "GRID\nINCLUDE\n 'a.inc' /\n", "a.inc": "INCLUDE\n 'b.inc' /\n",
              "b.inc": "-- b\nINCLUDE\n  'a.inc'  /\n"},
    "itself": {"main.DATA": "GRID\nINCLUDE\n 'main.DATA' /\n"},
    "aliased": {"main.DATA": "PATHS\n 'HERE' '.' /\n/\nINCLUDE\n '$HERE/main.DATA' /\n"},
    "deep": {"main.DATA": "INCLUDE\n '0.inc' /\n", **{f"{n}.inc": f"INCLUDE\n '{n + 1}.inc' /\n" for n in range(40)}},
    "directory": {"main.DATA": "GRID\nINCLUDE\n 'sub' /\n", "sub/x": ""},
    "fan-out": {"main.DATA": "INCLUDE\n '0.inc' /\n",
                **{f"{n}.inc": f"INCLUDE\n '{n + 1}.inc' /\n" * 2 * (n < 19) for n in range(20)}},
    "garbage": {"main.DATA": "GRID\nINCLUDE\n 'a.inc' /\n", "a.inc": "\x00\x9f{}\x07 -- \x01"},
}


@needs_opm
@pytest.mark.parametrize("case, words", [
    ("cycle", "include each other in a cycle: .*a.inc includes .*b.inc includes .*a.inc"),
    ("itself", "include each other in a cycle: .*main.DATA includes .*main.DATA"),
    ("aliased", "include each other in a cycle"),
    ("deep", r"/32.inc \(INCLUDE in \S+/31.inc, line 2\): INCLUDE files nest deeper than 32 levels"),
    ("directory", r"/sub \(INCLUDE in \S+/main.DATA, line 6\) is a directory"),
    ("fan-out", r"/\d+.inc, line \d+: more than 10000 INCLUDE keywords in one deck"),
    ("garbage", r"/a.inc, line 1: '\\x00' is not deck text"),
])
def test_includes_end_in_a_deck_error_naming_the_file(tmp_path, case, words):
    for name, text in INCLUDES[case].items():
        (tmp_path / name).parent.mkdir(exist_ok=True)
        (tmp_path / name).write_text("RUNSPEC\nDIMENS\n 1 1 1 /\n" * (name == "main.DATA") + text)
    # In a process of its own: opm follows an INCLUDE cycle for ever, holding the interpreter lock.
    script = ("import sys, kavra.deck\ntry:\n    kavra.deck.read(sys.argv[1])\n"
              "except kavra.deck.DeckError as error:\n    print(error)\n")
    run = subprocess.run([sys.executable, "-c", script, str(tmp_path / "main.DATA")], capture_output=True,
                         text=True, timeout=30, cwd=tmp_path)
    assert run.returncode == 0 and re.search(words, run.stdout), run.stdout + run.stderr


@needs_opm
@pytest.mark.parametrize("source, error, words", [
    ("RUNSPEC\nDIMENS\n 3* /\n", "DeckError", "DIMENS record 1: value 1 is left to its default"),
    ("RUNSPEC\nDIMENS\n 2 1* 1 /\n", "DeckError", "DIMENS record 1: value 2 is left to its default"),
    ("RUNSPEC\n}{\n", "DeckError", "unmatched '}' in format string \\(the deck has braces outside quotes"),
    ("RUNSPEC\nDIMENS\n 1 1 1 /\nGRID\nPORO\n {1} /\n", "DeckError", r"Malformed floating point number '\{1\}'"),
    ("RUNSPEC\nDIMENS\n 1 1 1 /\nF{:>2000000000}\n", "DeckError",  # opm would write 2 GB into its message
     r"line 4: opm's messages would take '\{:>2000000000\}' for a field of their own; put it in quotes"),
    ("x" * 5000, "FileNotFoundError", r"^no deck at 'x{59}\.\.\.x{14}': no file can have that name"),
    ("RUNSPEC", "FileNotFoundError", "^no deck at 'RUNSPEC'; deck text is read as such only with a line break"),
])
def test_unreadable_input_says_what_is_wrong(source, error, words):
    with pytest.raises(deck_module.DeckError if error == "DeckError" else FileNotFoundError, match=words):
        deck_module.read(source)


@needs_opm
def test_braces_are_deck_text():
    deck = deck_module.read("RUNSPEC\nTITLE\n model {v2}\nDIMENS\n 1 1 1 /\nGRID\nPORO\n 0.2 /\n"
                            "SCHEDULE\nWELSPECS\n P{1} G 1 1 1* OIL /\n/\n")
    assert deck.keywords == ("RUNSPEC", "TITLE", "DIMENS", "GRID", "PORO", "SCHEDULE", "WELSPECS")


# A deck with a grid, end-point scaling and no region numbers (cell 2 outside ACTNUM).
END_POINTS = ("RUNSPEC\nDIMENS\n 3 1 1 /\nFIELD\nOIL\nWATER\nGAS\nENDSCALE\n/\nTABDIMS\n/\n"
              "GRID\nDX\n 3*100 /\nDY\n 3*100 /\n"
              "DZ\n 3*10 /\nTOPS\n 3*5000 /\nPORO\n 3*0.2 /\nACTNUM\n 1 0 1 /\nPROPS\n"
              "SWOF\n 0.2 0 1 0\n 1 1 0 0 /\nSGOF\n 0 0 1 0\n 0.8 1 0 0 /\n{props}\n")


@needs_opm
@pytest.mark.parametrize("name, props, values", [
    ("SGU", "SGU\n 0.8 0.7 0.6 /", [0.8, np.nan, 0.6]),  # of a phase: opm's raw message before
    ("SGL", "SGL\n 3*0.05 /\nMULTIPLY\n SGL 2 3 3 /\n/", [0.05, np.nan, 0.1]),
    ("KRG", "KRG\n 3*0.9 /", [0.9, np.nan, 0.9]),
    ("SOGCR", "SOGCR\n 3*0.15 /", [0.15, np.nan, 0.15]),
    ("PCG", "PCG\n 3*12.5 /", [12.5, np.nan, 12.5]),  # psi, back from SI
    ("SWLX", "SWLX\n 0.1 0.2 0.3 /", [0.1, np.nan, 0.3]),
    ("FIPNUM", "", [1, 0, 1]), ("SATNUM", "", [1, 0, 1]), ("EQLNUM", "", [1, 0, 1]), ("IMBNUM", "", [1, 0, 1]),
    ("ROCKNUM", "", [1, 0, 1]), ("MULTNUM", "", [1, 0, 1]),
    ("OPERNUM", "", [1, 0, 1]), ("FLUXNUM", "", [1, 0, 1]),  # the names opm's cell numbers take
    ("FIPNUM", "REGIONS\nFIPNUM\n 2 3 4 /", [2, 0, 4]),
])
def test_end_points_and_region_numbers_are_the_simulator_s(name, props, values):
    deck = deck_module.read(END_POINTS.format(props=props))
    ours = deck.cell_property(name)
    assert ours.dtype == (np.int32 if name.endswith("NUM") else np.float64)
    np.testing.assert_array_equal(ours, values)


@needs_opm
def test_the_deck_keeps_its_numbers_once_opm_has_its_properties():
    """opm's state converts the numbers of the deck it is built from to SI in place: it is built
    from a copy, and the numbers read afterwards are still the deck's."""
    deck = deck_module.read(deck_module.example_path("SPE3CASE1"))
    names = ("PVTW", "PERMZ", "EQUIL", "ZCORN" if "ZCORN" in deck.keywords else "TOPS")
    before = [deck.records(name) for name in names]
    deck.cell_property("PERMZ")
    for name, old in zip(names, before):
        assert all(np.array_equal(a, b, equal_nan=True) for a, b in zip(old, deck.records(name))), name
    assert deck.records("PVTW")[0][0] == 3427.6


@needs_opm
@pytest.mark.parametrize("call, error, words", [
    (lambda deck: deck.cell_property(5), TypeError, "cell_property needs a keyword name"),
    (lambda deck: deck.records(None), TypeError, "records needs a keyword name"),
    (lambda deck: deck_module.example_path("SPE9"), ValueError, "there are SPE1CASE1, SPE3CASE1"),
])
def test_wrong_arguments_are_named(spe1, call, error, words):
    with pytest.raises(error, match=words):
        call(spe1)


@needs_opm
def test_docstring_examples_run_as_written():
    result = doctest.testmod(deck_module, optionflags=doctest.NORMALIZE_WHITESPACE)
    assert result.attempted > 0 and result.failed == 0


@needs_opm
def test_public_names_are_kavra_decks_own():
    moved = [name for name in deck_module.__all__
             if getattr(getattr(deck_module, name), "__module__", "kavra.deck") != "kavra.deck"]
    assert moved == []
    error = pickle.loads(pickle.dumps(deck_module.DeckError("PVTO region 1: bad")))
    assert type(error) is deck_module.DeckError and str(error) == "PVTO region 1: bad"
