"""kavra.equil against OPM Flow's equilibrated state (step 0 of its restart) on the SPE decks and
the decks of tests/data: pressures, saturations, Rs and Rv in every active cell, and the fluids
in place per FIPNUM region."""

import doctest

import numpy as np
import pytest

import kavra.blackoil
import kavra.deck
import kavra.equil
import kavra.results
from flow_cases import DATA, flow, flow_case, flow_run, write_deck  # noqa: F401 (fixtures)

# Flow's arrays are float32: the tolerances are the task's, well above their rounding.
RELATIVE = {"PRESSURE": "pressure", "RS": "rs", "RV": "rv", "PPCW": "ppcw"}
ABSOLUTE = {"SWAT": "sw", "SGAS": "sg"}
TOLERANCE = 1e-6
# Three-phase decks run with Flow's black-oil simulator (tests/flow_cases.py); GASWATER with
# its gas-water simulator, which the shared runner does not start.
THREE_PHASE = ["SPE1CASE1", "SPE3CASE1", "DOME", "DOME2", "DOME_ESP", "TRANSITION", "TRANSITION_ESP",
               "TRANSITION_SWATINIT", "TRANSITION_SWATINIT_ENDSCALE", "SWATINIT_SLICES", "EDITED", "FAULTED",
               "TWOREGIONS", "MIXEDPVT", "SPE9", "DEEPCONTACT", "DEEPCONTACT_FIELD",
               "LEVELPC", "LEVELPC_ENDSCALE"]
GAS_WATER = ["GASWATER", "GASWATER_SWATINIT", "GASWATER_LEVEL"]


@pytest.fixture(scope="session")
def gas_water_run(tmp_path_factory):
    """run(name): the base path of gas-water case `name`, run with Flow once in the session."""
    pytest.importorskip("opm.simulators", reason="OPM Flow is not installed (pip install opm-simulators)")
    runs = {}

    def run(name):
        if name not in runs:
            runs[name] = flow(write_deck(name, tmp_path_factory.mktemp(name)), "GasWaterSimulator")
        return runs[name]

    return run


@pytest.fixture
def case(request, flow_run, gas_water_run):
    """(deck, Flow's results, kavra's state) of the case named by the parameter."""
    base = gas_water_run(request.param) if request.param in GAS_WATER else flow_run(request.param)
    deck = kavra.deck.read(base.with_suffix(".DATA"))
    return deck, kavra.results.read(base), kavra.equil.initial_state(deck)


@pytest.mark.parametrize("case", THREE_PHASE + GAS_WATER, indirect=True)
def test_matches_flow_at_step_0(case):
    deck, results, state = case
    active = deck.active
    names = results.property_names(0)
    checked = 0
    for flow_name, ours in {**RELATIVE, **ABSOLUTE}.items():
        if flow_name not in names or (flow_name == "PPCW" and "OIL" not in deck.keywords):
            continue  # Flow leaves SWATINIT unused without oil and writes a PPCW of 0; ppcw is the curve's
        theirs = np.asarray(results.cell_property(flow_name, 0), dtype=np.float64)[active]
        mine = np.ma.filled(getattr(state, ours), np.nan)[active]
        error = np.abs(mine - theirs)
        if flow_name in RELATIVE:
            error = error / np.maximum(np.abs(theirs), np.finfo(np.float32).tiny)
        worst = int(np.flatnonzero(active)[np.argmax(error)])
        assert error.max() <= TOLERANCE, f"{flow_name}: {error.max():.2e} at cell {worst}"
        checked += 1
    assert checked >= 3
    for name in ("pressure", "sw", "sg"):
        assert np.array_equal(np.ma.getmaskarray(getattr(state, name)), ~active)


@pytest.mark.parametrize("case", THREE_PHASE + GAS_WATER, indirect=True)
def test_fluids_in_place_per_fipnum_region(case):
    deck, results, state = case
    fluids = state.in_place()
    fipnum = deck.cell_property("FIPNUM") if "FIPNUM" in deck.keywords else np.ones(deck.active.size, int)
    active = deck.active
    for flow_name, ours in (("FIPOIL", fluids.oil), ("FIPGAS", fluids.gas), ("FIPWAT", fluids.water)):
        if flow_name not in results.property_names(0):
            continue
        theirs = np.asarray(results.cell_property(flow_name, 0), dtype=np.float64)
        for region in np.unique(fipnum[active]):
            cells = active & (fipnum == region)
            total, expected = np.ma.filled(ours, 0.0)[cells].sum(), theirs[cells].sum()
            assert total == pytest.approx(expected, rel=TOLERANCE, abs=1e-9), (flow_name, region)


@pytest.mark.parametrize("case", ["DOME"], indirect=True)
def test_same_numbers_for_any_thread_count(case):
    deck, _, state = case
    other = kavra.equil.initial_state(deck, threads=2)
    for name in ("pressure", "pw", "pg", "sw", "sg", "rs", "rv"):
        assert np.array_equal(np.ma.filled(getattr(state, name), -1.0), np.ma.filled(getattr(other, name), -1.0))


@pytest.mark.parametrize("case", ["DOME"], indirect=True)
def test_the_phases_and_zones_of_the_dome(case):
    deck, _, state = case
    eqlnum = deck.cell_property("EQLNUM")
    active = deck.active
    gas_cap = active & (state.sg > 0).filled(False)
    assert gas_cap.any() and (eqlnum[gas_cap] == 1).all()  # region 2's contact is above its top
    water_zone = active & (state.sw == 1.0).filled(False)
    assert (deck.cell_depths()[water_zone & (eqlnum == 2)] > deck.equil[1].owc_depth).all()
    # the pressures of the phases are the oil's less and plus the capillary pressures
    assert ((state.pressure - state.pw)[active] >= 0).all() and ((state.pg - state.pressure)[active] >= 0).all()


def _edited(text, old, new):
    assert old in text
    return text.replace(old, new)


EDITED_EQUIL = {  # deck: (its EQUIL line, that line with item 9 as {})
    "TRANSITION": ("1400.0 0.0 /", "1400.0 0.0 1* 1* {} /"),
    "TRANSITION_SWATINIT": ("1400.0 0.0 1* 1* 0 /", "1400.0 0.0 1* 1* {} /"),
    "DOME": ("2020.0 0.05 1 0 0 /\n 2050.0 196.0 2062.0 0.0  1900.0 0.0  1 0 0 /",
             "2020.0 0.05 1 0 {} /\n 2050.0 196.0 2062.0 0.0  1900.0 0.0  1 0 -2 /"),
    "SPE9": ("8800.0 0.0 1 0 0 /", "8800.0 0.0 1 0 {} /"),
}


@pytest.mark.parametrize("deck_name, item", [("TRANSITION", 1), ("TRANSITION", 3), ("TRANSITION_SWATINIT", 2),
                                             ("TRANSITION_SWATINIT", -5), ("DOME", 3), ("SPE9", 20)])
def test_equil_item_9_as_flows(tmp_path, deck_name, item):
    # Flow's 1 is its -1; above 1 it weights the 2N level slices of a cell (1/4 + |x| - x^2 at a
    # slice's centre x), unlike the mean of the same slices (N below 0) or the centre's state (0)
    pytest.importorskip("opm.simulators", reason="OPM Flow is not installed (pip install opm-simulators)")
    old, new = EDITED_EQUIL[deck_name]
    text = _edited((DATA / f"{deck_name}.DATA").read_text(), old, new.format(item))
    deck_path = tmp_path / f"ITEM9_{deck_name}.DATA"
    deck_path.write_text(text)
    run = kavra.results.read(flow(deck_path))
    state = kavra.equil.initial_state(kavra.deck.read(deck_path))
    other = kavra.equil.initial_state(kavra.deck.read(text.replace(new.format(item), new.format(
        0 if item in (1, -5) else -item))))
    sw = np.asarray(run.cell_property("SWAT", 0), dtype=np.float64)
    assert np.abs(state.sw - sw).max() <= TOLERANCE < np.abs(other.sw - sw).max()
    for flow_name, ours in (("PRESSURE", state.pressure), ("PPCW", state.ppcw)):
        if flow_name in run.property_names(0):
            theirs = np.asarray(run.cell_property(flow_name, 0), dtype=np.float64)
            assert (np.abs(ours - theirs) / theirs).max() <= TOLERANCE, flow_name


@pytest.mark.parametrize("datum", [1500.0, 1502.0, 1503.05, 1504.0, 1506.05, 1508.0, 1517.0, 1580.0])
def test_contacts_at_the_end_of_the_table_as_flows(tmp_path, datum):
    # DEEPCONTACT's contacts end the region's pressure table: at some datums Flow starts the water
    # (the gas) at the oil pressure a step of the table short of the contact (0.0025 bar over
    # 70 m of oil, 2e-4 in Sw), at others at the contact, with no pattern to the eye.  Of these,
    # 1502, 1504 and 1506.05 start the water at the contact, 1503.05 and 1517 the gas; at 1580
    # the datum is in the water and the gas starts from the oil, which starts at the oil-water
    # contact
    pytest.importorskip("opm.simulators", reason="OPM Flow is not installed (pip install opm-simulators)")
    deck_path = tmp_path / "DEEPCONTACT.DATA"
    deck_path.write_text(_edited((DATA / "DEEPCONTACT.DATA").read_text(), " 1505.0 150.0", f" {datum} 150.0"))
    run = kavra.results.read(flow(deck_path))
    state = kavra.equil.initial_state(kavra.deck.read(deck_path))
    for flow_name, ours in (("SWAT", state.sw), ("SGAS", state.sg)):
        theirs = np.asarray(run.cell_property(flow_name, 0), dtype=np.float64)
        assert theirs.min() > 0.01 and np.abs(ours - theirs).max() <= TOLERANCE, flow_name
    theirs = np.asarray(run.cell_property("PRESSURE", 0), dtype=np.float64)
    assert (np.abs(state.pressure - theirs) / theirs).max() <= TOLERANCE


@pytest.mark.parametrize("datum", [1005.0, 1010.0])
def test_gas_water_contact_below_the_cells_as_flows(tmp_path, datum):
    # GASWATER in layers of 0.25 m and Pcgw up to 12 bar, the gas-water contact 1100 m deep, some
    # 80 m below the cells: the water starts a step of the gas's table short of it at these datums
    pytest.importorskip("opm.simulators", reason="OPM Flow is not installed (pip install opm-simulators)")
    text = _edited((DATA / "GASWATER.DATA").read_text(), " 480*2 /", " 480*0.25 /")
    text = _edited(text, " 0.20 0.0  0.80\n 0.30 0.04 0.45\n 0.50 0.15 0.20\n 0.70 0.40 0.08",
                   " 0.20 0.0  12.0\n 0.30 0.04 6.75\n 0.50 0.15 3.0\n 0.70 0.40 1.2")
    deck_path = tmp_path / "GASWATER_DEEP.DATA"
    deck_path.write_text(_edited(text, " 1020.0 110.0 1050.0 0.1 /", f" {datum} 110.0 1100.0 0.1 /"))
    run = kavra.results.read(flow(deck_path, "GasWaterSimulator"))
    state = kavra.equil.initial_state(kavra.deck.read(deck_path))
    sw = np.asarray(run.cell_property("SWAT", 0), dtype=np.float64)
    assert sw.max() < 0.3 and np.abs(state.sw - sw).max() <= TOLERANCE


def test_item_9_negative_averages_level_slices():
    text = kavra.deck.example_path("SPE1CASE1").read_text()
    centre = kavra.equil.initial_state(kavra.deck.read(text))
    sliced = kavra.equil.initial_state(kavra.deck.read(_edited(text, "8300 0 1 0 0", "8300 0 1 0 -5")))
    # SPE1's contacts lie on no cell, and its pressures nearly linear within a cell: the mean of
    # ten slices is close to the centre's value, but not the same
    assert np.allclose(sliced.pressure, centre.pressure, rtol=1e-7)
    assert not np.array_equal(sliced.pressure, centre.pressure)
    # a gas-oil contact at 8340 ft, in the top layer (8325 to 8345 ft): at its centre the cell
    # is gas down to the connate water (Sg 0.88, SGOF's end); of its ten slices of 2 ft, the
    # eight whose centres lie above the contact or on it (SGOF's Pcog is 0 throughout: the gas
    # lies down to the contact, as Flow places it: its SGAS is 0.704 there)
    for item, sg in ((0, 0.88), (-5, 0.8 * 0.88)):
        moved = kavra.equil.initial_state(kavra.deck.read(_edited(text, "8400 4800 8450 0 8300 0 1 0 0",
                                                                 f"8400 4800 8450 0 8340 0 1 0 {item}")))
        assert np.allclose(moved.sg[:100], sg, rtol=1e-12) and (moved.sg[100:] == 0).all()


@pytest.mark.parametrize("points", [0, -3, 2.5, True])
def test_points_must_be_a_positive_integer(points):
    deck = kavra.deck.read(kavra.deck.example_path("SPE1CASE1"))
    with pytest.raises(ValueError, match="points"):
        kavra.equil.initial_state(deck, points=points)


def test_item_7_of_0_takes_rs_saturated_at_the_contact():
    text = kavra.deck.example_path("SPE1CASE1").read_text()
    # Rs is the saturated Rs of the datum pressure wherever the oil is above it
    deck = kavra.deck.read(_edited(text, "8400 4800 8450 0 8300 0 1 0 0", "8400 4800 8450 0 8400 0 0 0 0"))
    state = kavra.equil.initial_state(deck)
    below = np.asarray(state.pressure) >= 4800.0
    assert np.allclose(state.rs[below], kavra.blackoil.rs_sat(deck.pvto, 1, [4800.0])[0], rtol=1e-14)


def test_docstring_examples_run():
    result = doctest.testmod(kavra.equil, optionflags=doctest.NORMALIZE_WHITESPACE)
    assert result.attempted > 0 and result.failed == 0


@pytest.mark.parametrize("case", ["TRANSITION_SWATINIT"], indirect=True)
def test_swatinit_gives_the_oil_zone_its_water(case):
    deck, _, state = case
    swatinit = deck.cell_property("SWATINIT")
    above_free_water = (state.pressure - state.pw > 0).filled(False) & (swatinit > 0.15)
    assert above_free_water.sum() > 100
    assert np.array_equal(state.sw[above_free_water], swatinit[above_free_water])
    # below the free water level SWATINIT counts for nothing, and the curve keeps SWOF's 1.6 bar
    water = (state.sw == 1.0).filled(False)
    assert water.any() and (state.ppcw[water] == 1.6).all() and (swatinit[water] < 1.0).any()


SPE1_EQUIL = "8400 4800 8450 0 8300 0 1 0 0"


@pytest.mark.parametrize("deck_name, old, new, error, words", [
    ("SPE1CASE1", SPE1_EQUIL, "8400 4800 8450 0 8300 0 0 0 0", ValueError, "datum must lie at its gas-oil contact"),
    ("SPE1CASE1", "SOLUTION", "REGIONS\nPVTNUM\n300*2 /\nSOLUTION", ValueError, "PVT region 2"),
    ("SPE1CASE1", f"EQUIL\n\t{SPE1_EQUIL} /", "", ValueError, "no EQUIL"),
    ("SPE1CASE1", SPE1_EQUIL, "8400 4800 8450 0 8300 0 1 0 21", ValueError, "item 9 of region 1 is 21; .* -20 to 20"),
    ("SPE1CASE1", SPE1_EQUIL, "8400 4800 8450 0 8300 0 1 0 -21", ValueError, "is -21"),
    ("FAULTED", "2020 250 2040 0 1990 0 /", "2020 250 2040 0 1990 0 1* 1* 2 /", NotImplementedError,
     r"item 9 above 0 \(region 1\) on a corner-point grid"),
])
def test_decks_refused_in_words(deck_name, old, new, error, words):
    path = kavra.deck.example_path(deck_name) if deck_name in kavra.deck.EXAMPLES else DATA / f"{deck_name}.DATA"
    text = _edited(path.read_text(), old, new)
    with pytest.raises(error, match=words):
        kavra.equil.initial_state(kavra.deck.read(text))



def test_contact_scenarios_are_the_decks_with_those_contacts():
    text = kavra.deck.example_path("SPE1CASE1").read_text()
    deck = kavra.deck.read(text)
    pairs = [(8450.0, np.nan), (8380.0, 8340.0), (np.nan, 8360.0)]
    states = list(kavra.equil.initial_state(deck, contacts=pairs, threads=2))
    for (owc, goc), state in zip(pairs, states):
        edited = f"8400 4800 {8450 if np.isnan(owc) else owc:g} 0 {8300 if np.isnan(goc) else goc:g} 0 1 0 0"
        alone = kavra.equil.initial_state(kavra.deck.read(_edited(text, SPE1_EQUIL, edited)))
        for name in ("pressure", "sw", "sg", "rs"):
            assert np.array_equal(getattr(state, name), getattr(alone, name))
    assert states[1].sg[:100].max() > 0 and (states[0].sg == 0).all()


@pytest.mark.parametrize("contacts", [[8400.0], [(1.0, 2.0, 3.0)], "deep", [("a", "b")]])
def test_contacts_must_be_pairs_of_depths(contacts):
    deck = kavra.deck.read(kavra.deck.example_path("SPE1CASE1"))
    with pytest.raises(ValueError, match="contacts"):
        kavra.equil.initial_state(deck, contacts=contacts)


def test_engine_cells_refuse_bad_regions_and_survive_nan():
    from kavra import _engine

    n = 4
    depth, thickness = np.array([1.0, np.nan, np.inf, 5.0]), np.ones(n)
    regions, active = np.ones(n, np.int32), np.ones(n, np.uint8)
    line = [np.array([0.0, 10.0]), np.array([100.0, 101.0])]
    curves = [[*line, line[0], np.array([99.0, 100.5]), np.zeros(0), np.zeros(0)]]
    water = [[np.array([0.2, 0.5, np.nan, 1.0]), np.array([1.0, np.nan, 0.2, 0.0]), np.zeros(0), np.zeros(0)]]
    out = [np.empty(n) for _ in range(6)]
    _engine.equil_cells(depth, thickness, regions, regions, active, curves, [10], water, [None] * 7,
                        [True, True, False], 2, out)  # NaN in the depths and the table: numbers or NaN, no crash
    regions[0] = 5
    with pytest.raises(IndexError, match="cell 0 has equilibration region 5"):
        _engine.equil_cells(depth, thickness, regions, np.ones(n, np.int32), active, curves, [1], water, [None] * 7,
                            [True, True, False], 2, out)
    with pytest.raises(ValueError, match="accuracy .* from -20 to 20, not 21"):
        _engine.equil_cells(depth, thickness, np.ones(n, np.int32), np.ones(n, np.int32), active, curves, [21],
                            water, [None] * 7, [True, True, False], 2, out)
    level = [[np.array([0.2, 1.0]), np.zeros(2), np.zeros(0), np.zeros(0)]]
    _engine.equil_cells(depth, thickness, np.ones(n, np.int32), np.ones(n, np.int32), active, curves, [1], level,
                        [None] * 7, [True, True, False], 2, out, [(np.nan, np.inf)])  # a level curve, no contact
    assert np.isnan(out[3][1]) and out[3][0] == 0.2 and out[3][3] == 0.2
    with pytest.raises(ValueError, match="contacts"):
        _engine.equil_cells(depth, thickness, np.ones(n, np.int32), np.ones(n, np.int32), active, curves, [1],
                            level, [None] * 7, [True, True, False], 2, out, [(5.0, 0.0)] * 2)
    with pytest.raises(ValueError, match="one value per cell"):
        _engine.equil_cells(depth, thickness, np.ones(n, np.int32), np.ones(n, np.int32), active, curves, [1],
                            water, [None] * 7, [True, True, False], 2, out[:5] + [np.empty(3)])


def test_oil_water_deck_as_its_three_phase_twin():
    # Flow's Python simulator is three-phase; TRANSITION's gas lies above the grid, so without
    # its gas keywords the deck is the same oil-water system (its curves span less: the gas-oil
    # contact no longer extends them, and the steps are shorter)
    text = (DATA / "TRANSITION.DATA").read_text()
    two = _edited(text, "OIL\nWATER\nGAS\n", "OIL\nWATER\n")
    two = _edited(two, "SGOF\n 0.00 0.0  1.0 0.0\n 0.85 1.0  0.0 0.0 /\n", "")
    two = two[:two.index("PVDG")] + two[two.index("PVDO"):]
    three_phase = kavra.equil.initial_state(kavra.deck.read(text))
    oil_water = kavra.equil.initial_state(kavra.deck.read(two))
    for name in ("pressure", "pw", "sw"):
        assert np.allclose(getattr(oil_water, name), getattr(three_phase, name), rtol=1e-9, atol=1e-9)
    assert (oil_water.sg == 0).all() and np.isnan(oil_water.pg).all()


def test_engine_region_refuses_a_bad_length_and_survives_nan_contacts():
    from kavra import _engine

    deck = kavra.deck.read(DATA / "DEEPCONTACT.DATA")
    tables = (deck.pvdo._engine_tables(), deck.pvdg._engine_tables(), deck.pvtw._engine_tables())

    def region(contacts, length=1.0):
        return _engine.equil_region(*tables, 1, [780.0, 1040.0, 1.0], 1.0, (None, -1.0), (None, -1.0), contacts,
                                    [True, True, True], 1500.0, 1508.0, 50, 9.80665e-5, length)

    for owc in (np.nan, np.inf, 1573.8):  # numbers or NaN, no crash nor read past a curve
        curves = region([1505.0, 150.0, owc, 0.0, 1400.0, 6.5])
        assert len(curves) == 6 and all(len(d) == len(p) for d, p in zip(curves[::2], curves[1::2]))
    for length in (0.0, -1.0, np.nan, np.inf):
        with pytest.raises(ValueError, match="length must be a finite number above 0"):
            region([1505.0, 150.0, 1573.8, 0.0, 1400.0, 6.5], length)
