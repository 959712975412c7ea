"""kavra.blackoil.in_place and Results.in_place against OPM Flow's FIPOIL, FIPGAS and FIPWAT,
every report step and cell, and kavra.region_totals of them per FIPNUM region against Flow's region vectors (ROIP, RGIP, RWIP)."""

import shutil

import numpy as np
import pytest

import kavra
import kavra.deck
import kavra.equil
from kavra import blackoil
from flow_cases import flow_run  # noqa: F401  (a fixture)

results = pytest.importorskip("kavra.results", reason="resfo is not installed")

CASES = ["SPE1CASE1", "SPE3CASE1", "TWOREGIONS"]
PARTS = {"oil": "FIPOIL", "gas": "FIPGAS", "water": "FIPWAT"}


@pytest.mark.parametrize("case", CASES)
def test_in_place_is_flows_per_cell_and_per_region(flow_run, case):
    r = results.read(flow_run(case))
    fipnum = r.cell_property("FIPNUM")
    worst = {part: 0.0 for part in PARTS}
    for step in r.steps:
        fluids = r.in_place(step)
        for part, name in PARTS.items():
            ours, flow = getattr(fluids, part), r.cell_property(name, step).astype(float)
            assert np.array_equal(np.ma.getmaskarray(ours), np.ma.getmaskarray(flow))  # inactive cells masked
            held = abs(flow) >= 1e-4 * float(np.ma.max(abs(flow)))  # cells that hold a share of the largest
            if held.any():
                worst[part] = max(worst[part], float(np.ma.max(abs(ours - flow)[held] / abs(flow)[held])))
            # Flow's own totals per FIPNUM region: the summary's ROIP, RGIP, RWIP at the report date
            # (the summary starts after the first time step: step 0 has none)
            totals = kavra.region_totals(ours, fipnum)
            if step > 0:
                expected = [region_vector(r, f"R{part[0].upper()}IP:{region}", r.dates[step])
                            for region in range(1, len(totals) + 1)]
                np.testing.assert_allclose(totals, expected, rtol=1e-6)
    assert max(worst.values()) <= 1e-6, worst


@pytest.mark.parametrize("case", CASES)
def test_in_place_without_a_deck_is_flows_from_its_own_arrays(flow_run, tmp_path, case):
    """No deck beside the case: the restart's own 1OVERBO, 1OVERBG, 1OVERBW, RS, RV and RPORV."""
    run = flow_run(case)
    for extension in ("EGRID", "INIT", "UNRST"):
        shutil.copy(f"{run}.{extension}", tmp_path)
    r = results.read(tmp_path / case)
    worst = 0.0
    for step in r.steps:
        fluids = r.in_place(step)
        for part, name in PARTS.items():
            ours, flow = getattr(fluids, part), r.cell_property(name, step).astype(float)
            assert np.array_equal(np.ma.getmaskarray(ours), np.ma.getmaskarray(flow))
            held = abs(flow) >= 1e-4 * float(np.ma.max(abs(flow)))
            if held.any():
                worst = max(worst, float(np.ma.max(abs(ours - flow)[held] / abs(flow)[held])))
            np.testing.assert_allclose(ours.sum(), flow.sum(), rtol=1e-6)
    assert worst <= 1e-6


SATFUNC_CASES = ["SATFUNC_SWOF", "SATFUNC_FAMILY", "SATFUNC_SLGOF", "SATFUNC_ENDSCALE", "SATFUNC_VERTICAL",
                 "SATFUNC_SCALECRS", "SATFUNC_STONE1", "SATFUNC_STONE2"]


@pytest.mark.parametrize("case", SATFUNC_CASES)
def test_in_place_of_a_deck_puts_water_and_gas_at_their_own_pressures(flow_run, case):
    """blackoil.in_place given the deck and no pw, pg, and Results.in_place (which takes the deck beside the
    case): Pcow and Pcog of kavra.satfunc, end points scaled per cell, every report step; the tables alone
    (water and gas at the oil pressure) are measurably off."""
    path = flow_run(case)
    r = results.read(path)
    deck = kavra.deck.read(path.with_suffix(".DATA"))
    tables = {name: getattr(deck, name) for name in ("pvdo", "pvdg", "pvtw", "rock")}
    fipnum, porv, pvtnum = r.cell_property("FIPNUM"), r.cell_property("PORV"), r.cell_property("PVTNUM")
    worst, without = dict.fromkeys(PARTS, 0.0), dict.fromkeys(PARTS, 0.0)
    for step in r.steps:
        state = [r.cell_property(name, step) for name in ("PRESSURE", "SWAT", "SGAS")]
        ours, plain = blackoil.in_place(deck, pvtnum, porv, *state), blackoil.in_place(tables, pvtnum, porv, *state)
        read = r.in_place(step)
        # Oil: So = 1 - SWAT - SGAS of float32 saturations, which Flow rounded from its float64 ones; in a cell
        # of residual oil (So ~ 0.01 beside Sw ~ 0.99) half a float32 step of Sw is 4e-6 of So.  That term is
        # allowed beside 1e-6 of the value: pv / Bo (ours.oil / So) times half the spacing of Sw and Sg.
        sw, sg = (s.astype(float) for s in state[1:])
        rounding = {"oil": ours.oil / (1.0 - sw - sg) * (np.spacing(state[1]) + np.spacing(state[2])) / 2,
                    "gas": 0.0, "water": 0.0}
        for part, name in PARTS.items():
            flow = r.cell_property(name, step).astype(float)
            held = abs(flow) >= 1e-4 * float(np.ma.max(abs(flow)))

            def off(fluids):
                return float(np.ma.max(((abs(getattr(fluids, part) - flow) - rounding[part]) / abs(flow))[held]))

            worst[part] = max(worst[part], off(ours), off(read))
            without[part] = max(without[part], off(plain))
            np.testing.assert_allclose(kavra.region_totals(getattr(ours, part), fipnum),
                                       kavra.region_totals(flow, fipnum), rtol=1e-6)
    assert max(worst.values()) <= 1e-6, worst
    assert max(without["water"], without["gas"]) > 1e-4, without  # the capillary pressures count


@pytest.mark.parametrize("case, scaled", [("SATFUNC_SWOF", False), ("SATFUNC_FAMILY", False),
                                          ("SATFUNC_ENDSCALE", True), ("TRANSITION_SWATINIT", False)])
def test_results_in_place_takes_the_inits_satnum_and_builds_opms_state_only_for_end_points(flow_run, case, scaled):
    """Results.in_place takes each cell's SATNUM from the INIT: the same bits as blackoil.in_place of the deck
    (which reads the deck's SATNUM), and without opm's state of the deck's grid (for 10^7 cells, 2 GB and
    20 s) unless ENDSCALE's end points are read from it."""
    path = flow_run(case)
    r = results.read(path)
    fresh, deck = kavra.deck.read(path.with_suffix(".DATA")), kavra.deck.read(path.with_suffix(".DATA"))
    step = r.steps[-1]
    read = r.in_place(step, fresh)
    assert (fresh._state is not None) == scaled  # opm's EclipseState, built on first need
    names = r.property_names(step)
    state = [r.cell_property(name, step) if name in names else None for name in ("PRESSURE", "SWAT", "SGAS", "RS",
                                                                                 "RV", "PPCW")]
    expected = blackoil.in_place(deck, r.cell_property("PVTNUM"), r.cell_property("PORV"), *state[:5],
                                 ppcw=state[5])
    for ours, theirs in zip(read, expected):
        assert np.array_equal(np.ma.getmaskarray(ours), np.ma.getmaskarray(theirs))
        assert np.array_equal(ours.compressed(), theirs.compressed())
    with pytest.raises(ValueError, match=r"the inputs hold \d+ cells and the deck's grid 300 \(10 x 10 x 3\)"):
        r.in_place(step, kavra.deck.read(kavra.deck.example_path("SPE1CASE1")))  # the deck of another case


@pytest.mark.parametrize("case", ["TRANSITION_SWATINIT", "TRANSITION_SWATINIT_ENDSCALE"])
def test_in_place_with_swatinit_takes_each_cells_pcow_maximum(flow_run, case):
    """SWATINIT: Results.in_place takes the step's PPCW, blackoil.in_place its ppcw= (step 0's, or
    kavra.equil's on the first deck); both are Flow's FIPOIL, FIPGAS, FIPWAT per cell (the oil with the
    rounding term of the SATFUNC decks) and per FIPNUM region; the table's Pcow would be off."""
    path = flow_run(case)
    r = results.read(path)
    deck = kavra.deck.read(path.with_suffix(".DATA"))
    fipnum, porv, pvtnum = (r.cell_property(name) for name in ("FIPNUM", "PORV", "PVTNUM"))
    ppcw = r.cell_property("PPCW", 0)  # Flow writes it with the restart arrays
    given = [ppcw] + ([kavra.equil.initial_state(deck).ppcw] if case == "TRANSITION_SWATINIT" else [])
    worst, water_without = dict.fromkeys(PARTS, 0.0), 0.0
    for step in r.steps:
        state = [r.cell_property(name, step) for name in ("PRESSURE", "SWAT", "SGAS")]
        fluids = [r.in_place(step)] + [blackoil.in_place(deck, pvtnum, porv, *state, ppcw=p) for p in given]
        # the oil's term of the rounding of SWAT and SGAS, as on the SATFUNC decks (So ~ 0.001 beside SWATINIT 0.999)
        so = 1.0 - state[1].astype(float) - state[2].astype(float)
        spacing = (np.spacing(state[1]) + np.spacing(state[2])) / 2
        rounding = {"oil": np.ma.where(so > 0, fluids[0].oil / so, 0.0) * spacing, "gas": 0.0, "water": 0.0}
        for part, name in PARTS.items():
            flow = r.cell_property(name, step).astype(float)
            held = abs(flow) >= 1e-4 * float(np.ma.max(abs(flow)))
            for ours in fluids:
                if flow.any():  # (these decks hold no gas)
                    off = (abs(getattr(ours, part) - flow) - rounding[part]) / abs(flow)
                    worst[part] = max(worst[part], float(np.ma.max(off[held])))
                np.testing.assert_allclose(kavra.region_totals(getattr(ours, part), fipnum),
                                           kavra.region_totals(flow, fipnum), rtol=1e-6)
        plain = blackoil.in_place(deck, pvtnum, porv, *state, pw=state[0], pg=state[0])  # water at the oil pressure
        flow = r.cell_property("FIPWAT", step).astype(float)
        water_without = max(water_without, float(np.ma.max(abs(plain.water - flow) / abs(flow))))
    assert max(worst.values()) <= 1e-6, worst
    assert water_without > 1e-5  # the capillary pressure counts


def test_in_place_of_a_swatinit_deck_needs_its_pcow_maxima(flow_run, monkeypatch):
    from flow_cases import DATA

    r = results.read(flow_run("TRANSITION_SWATINIT"))
    names = r.property_names
    monkeypatch.setattr(r, "property_names", lambda step=None: tuple(n for n in names(step) if n != "PPCW"))
    with pytest.raises(ValueError, match="SWATINIT, and neither report step 1 of the restart nor the INIT holds PPCW"):
        r.in_place(1)

    deck = kavra.deck.read(DATA / "TRANSITION_SWATINIT.DATA")
    n = deck.grid.number_of_cells()
    state = (1, np.full(n, 10.0), np.full(n, 150.0), np.full(n, 0.5), np.zeros(n))
    with pytest.raises(ValueError, match=r"SWATINIT.*pass ppcw=.*array PPCW.*initial_state\(deck\)\.ppcw"):
        blackoil.in_place(deck, *state)
    # Pcow at Sw 0.5 is 0.20 of the table's largest 1.60; a maximum of 3.2 doubles it
    at = blackoil.in_place(deck, *state, pw=150.0 - 0.4, pg=150.0)
    np.testing.assert_allclose(blackoil.in_place(deck, *state, ppcw=np.full(n, 3.2)).water, at.water, rtol=1e-14)


def test_in_place_of_a_deck_refuses_cells_that_are_not_the_decks():
    deck = kavra.deck.read(kavra.deck.example_path("SPE1CASE1"))
    with pytest.raises(ValueError, match=r"the inputs hold 4 cells and the deck's grid 300 \(10 x 10 x 3\).*pw and pg"):
        blackoil.in_place(deck, 1, 100.0, 4000.0, [0.2, 0.2, 0.3, 0.3], 0.1, rs=1.0)
    given = blackoil.in_place(deck, 1, 100.0, 4000.0, [0.2, 0.3], 0.1, rs=1.0, pw=3990.0, pg=4010.0)
    assert given.water.shape == (2,)  # pw and pg given: the deck's tables alone, any cells


def region_vector(case, key, date):
    dates, values = case.summary(key)
    return float(values[list(dates).index(date)])


def test_in_place_of_tables_without_a_phase_and_masks():
    deck = kavra.deck.read(kavra.deck.example_path("SPE1CASE1"))
    tables = {"pvdo": None, "pvto": deck.pvto, "pvtw": deck.pvtw}  # no gas table, no rock: nothing of gas
    sw = np.ma.MaskedArray(np.float32([0.2, 0.3]), mask=[False, True])
    fluids = blackoil.in_place(tables, 1, [100.0, 100.0], [4000.0, 4000.0], sw, np.float32([0.8, 0.0]), rs=1.0)
    assert fluids.oil[0] == 0.0 and fluids.gas[0] == 0.0  # So = 1 - 0.2 - 0.8 in float32: no oil
    assert fluids.water[0] > 0 and fluids.water.mask.tolist() == [False, True]


# the second with Pc and scaled end points, the third with SWATINIT's Pcow maxima as well
@pytest.mark.parametrize("case", ["SPE1CASE1", "SATFUNC_VERTICAL", "TRANSITION_SWATINIT_ENDSCALE"])
def test_dask_in_place_gives_the_same_bits(tmp_path, case):
    da = pytest.importorskip("dask.array")
    import kavra.dask
    from flow_cases import write_deck

    deck = kavra.deck.read(write_deck(case, tmp_path))
    rng = np.random.default_rng(5)
    n = deck.grid.number_of_cells()  # the deck's cells: their capillary pressures come from it
    cells = [rng.uniform(100.0, 200.0, n), rng.uniform(3000.0, 6000.0, n), rng.uniform(0.1, 0.3, n).astype(np.float32),
             rng.uniform(0.0, 0.5, n).astype(np.float32), rng.uniform(0.5, 1.8, n)]
    porv, p, sw, sg, rs = cells
    ppcw = rng.uniform(0.5, 50.0, n) if "SWATINIT" in deck.keywords else None
    expected = blackoil.in_place(deck, 1, porv, p, sw, sg, rs, ppcw=ppcw)
    lazy = kavra.dask.blackoil.in_place(deck, 1, *(da.from_array(a, chunks=300) for a in cells), ppcw=ppcw)
    for got, want in zip(lazy, expected):
        np.testing.assert_array_equal(got.compute(), want)
