"""kavra.blackoil against OPM Flow's own restart arrays, every report step and cell of each case."""

import numpy as np
import pytest

import kavra.deck
from kavra import blackoil
from kavra.tables import PVDG, PVTO, PVTW
from flow_cases import flow_case, flow_run  # noqa: F401  (fixtures)

results = pytest.importorskip("kavra.results", reason="resfo is not installed")
opm_io = pytest.importorskip("opm.io")

# Flow writes float32: its rounding, and that of the float32 pressures and ratios fed back in.
TOLERANCE = 2e-7


def surface_densities(path):
    """DENSITY (oil, water, gas) per region, as opm reads the deck."""
    keyword = opm_io.Parser().parse(str(path))["DENSITY"]
    return np.array([[keyword[r][i].get_raw_data_list()[0] for i in range(3)] for r in range(len(keyword))])


def capillary(deck, keyword, saturation):
    """The capillary pressure of SWOF or SGOF (fourth column) at each cell's saturation."""
    table = np.asarray(deck.records(keyword)[0]).reshape(-1, 4)
    return np.interp(np.ma.getdata(saturation).astype(float), table[:, 0], table[:, 3])


def ours(name, deck, density, pvtnum, state, porv):
    """kavra.blackoil's value of Flow's array `name`, fed with the restart's pressures and ratios."""
    p, rs, rv = state["PRESSURE"], state["RS"], state.get("RV")
    pw = p - capillary(deck, "SWOF", state["SWAT"])  # each phase at its own pressure
    pg = p + capillary(deck, "SGOF", state["SGAS"])
    oil, gas = deck.pvto or deck.pvdo, deck.pvtg or deck.pvdg
    rs, rv = (rs if deck.pvto else None), (rv if deck.pvtg else None)
    return {
        "1OVERBO": lambda: blackoil.one_over_bo(oil, pvtnum, p, rs),
        "OIL_VISC": lambda: blackoil.oil_viscosity(oil, pvtnum, p, rs),
        "OIL_DEN": lambda: blackoil.oil_density(oil, density, pvtnum, p, rs),
        "1OVERBG": lambda: blackoil.one_over_bg(gas, pvtnum, pg, rv),
        "GAS_VISC": lambda: blackoil.gas_viscosity(gas, pvtnum, pg, rv),
        "GAS_DEN": lambda: blackoil.gas_density(gas, density, pvtnum, pg, rv),
        "1OVERBW": lambda: blackoil.one_over_bw(deck.pvtw, pvtnum, pw),
        "WAT_VISC": lambda: blackoil.water_viscosity(deck.pvtw, pvtnum, pw),
        "WAT_DEN": lambda: blackoil.water_density(deck.pvtw, density, pvtnum, pw),
        "RSSAT": lambda: blackoil.rs_sat(deck.pvto, pvtnum, p),
        "PBUB": lambda: blackoil.bubble_point(deck.pvto, pvtnum, state["RS"]),
        "PDEW": lambda: blackoil.dew_point(deck.pvtg, pvtnum, state["RV"]),
        "RPORV": lambda: blackoil.pore_volume_multiplier(deck.rock, pvtnum, p) * porv,
    }[name]()


QUANTITIES = ["1OVERBO", "OIL_VISC", "OIL_DEN", "1OVERBG", "GAS_VISC", "GAS_DEN", "1OVERBW", "WAT_VISC",
              "WAT_DEN", "RSSAT", "PBUB", "PDEW", "RPORV"]
# SPE1 has dry gas (no PDEW).  SPE3's saturated Rv falls, rises and then stays flat: Flow's dew
# point there is not a root of the saturated line (README, kavra.blackoil).
# The cases whose restart holds the black-oil arrays (the grid decks write only the state).
PAIRS = [(case, q) for case in ("SPE1CASE1", "SPE3CASE1", "TWOREGIONS") for q in QUANTITIES
         if not (q == "PDEW" and case in ("SPE1CASE1", "SPE3CASE1"))]


def largest_difference(case_path, name):
    r, deck = results.read(case_path), kavra.deck.read(f"{case_path}.DATA")
    density, pvtnum = surface_densities(f"{case_path}.DATA"), r.cell_property("PVTNUM")
    porv = r.cell_property("PORV").astype(float)
    worst = 0.0
    for step in r.steps:
        state = {k: r.cell_property(k, step) for k in ("PRESSURE", "RS", "RV", "SWAT", "SGAS")
                 if k in r.property_names(step)}
        flow = r.cell_property(name, step).astype(float)
        value = ours(name, deck, density, pvtnum, state, porv)
        assert np.array_equal(np.ma.getmaskarray(value), np.ma.getmaskarray(flow))  # inactive cells stay masked
        worst = max(worst, float(np.ma.max(abs(value - flow) / abs(flow))))
    return worst


@pytest.mark.parametrize("case, name", PAIRS, ids=[f"{c}-{q}" for c, q in PAIRS])
def test_every_step_and_cell_is_flows_value(flow_run, case, name):
    assert largest_difference(flow_run(case), name) <= TOLERANCE


def test_two_region_deck_reaches_both_states_and_leaves_the_tables(flow_run):
    """The deck's schedule: undersaturated and saturated oil, pressures and Rs past the tables."""
    r = results.read(flow_run("TWOREGIONS"))
    pvto = kavra.deck.read(flow_run("TWOREGIONS").with_suffix(".DATA")).pvto
    states = [(r.cell_property("RS", s), r.cell_property("RSSAT", s), r.cell_property("PRESSURE", s)) for s in r.steps]
    assert any((rs < 0.999 * sat).any() for rs, sat, _ in states) and any((rs >= sat).any() for rs, sat, _ in states)
    records = [np.asarray(record) for region in pvto.regions for record in region]  # [Rs, P, B, mu, P, ...]
    assert max(float(p.max()) for _, _, p in states) > max(record[1::3].max() for record in records)
    assert max(float(rs.max()) for rs, _, _ in states) > max(record[0] for record in records)
    assert set(np.unique(r.cell_property("PVTNUM"))) == {1, 2}


OIL = PVTO([[[20.0, 50.0, 1.1, 1.2], [60.0, 150.0, 1.22, 0.85, 250.0, 1.2, 0.95, 350.0, 1.185, 1.05]],
            [[15.0, 40.0, 1.08, 1.4], [45.0, 110.0, 1.17, 1.0, 300.0, 1.145, 1.15]]])


@pytest.mark.parametrize("threads", [1, 2, 3])
def test_same_bits_for_any_thread_count_and_float32_inputs_read_as_they_are(threads):
    rng = np.random.default_rng(5)
    n = 300_000
    pvtnum = rng.integers(1, 3, n).astype(np.int32)
    p, rs = rng.uniform(0, 600, n).astype(np.float32), rng.uniform(0, 200, n).astype(np.float32)
    reference = blackoil.one_over_bo(OIL, pvtnum, p.astype(float), rs.astype(float), threads=1)
    assert np.array_equal(blackoil.one_over_bo(OIL, pvtnum, p, rs, threads=threads), reference)
    assert np.array_equal(blackoil.oil_viscosity(OIL, pvtnum, p, rs, threads=threads),
                          blackoil.oil_viscosity(OIL, pvtnum, p.astype(float), rs.astype(float), threads=1))


@pytest.mark.parametrize("call, error, words", [
    (lambda: blackoil.one_over_bo(OIL, 1, [100.0]), TypeError, "needs rs"),
    (lambda: blackoil.one_over_bg(OIL, 1, [100.0]), TypeError, "PVTG or a PVDG"),
    (lambda: blackoil.one_over_bg(PVDG([[[1.0, 1.0, 1.0], [2.0, 0.5, 1.0]]]), 1, [1.0], [0.0]), TypeError, "no rv"),
    (lambda: blackoil.bubble_point(OIL, [1, 3], [10.0, 10.0]), ValueError, "region 3 at pvtnum[1]"),
    (lambda: blackoil.oil_density(OIL, [[1.0, 2.0]], 1, [1.0], [1.0]), ValueError, "(oil, water, gas)"),
])
def test_refusals_in_kavras_words(call, error, words):
    with pytest.raises(error, match=words.replace("(", r"\(").replace(")", r"\)").replace("[", r"\[")):
        call()


DENSITY_CALLS = {  # two cells
    "oil_density": lambda out: blackoil.oil_density(OIL, [[800.0, 1000.0, 1.0]], 1, [100.0, 120.0], [30.0, 30.0],
                                                    out=out),
    "gas_density": lambda out: blackoil.gas_density(PVDG([[[1.0, 1.0, 1.0], [200.0, 0.5, 1.0]]]),
                                                    [[800.0, 1000.0, 1.0]], 1, [100.0, 120.0], out=out),
    "water_density": lambda out: blackoil.water_density(PVTW([[100.0, 1.02, 4e-5, 0.4, 1e-4]]), [[800.0, 1000.0, 1.0]],
                                                        1, [100.0, 120.0], out=out),
}


@pytest.mark.parametrize("name", DENSITY_CALLS)
@pytest.mark.parametrize("out, error, words", [
    (np.zeros(3), ValueError, r"out has the shape \(3,\), the result \(2,\)"),
    (np.zeros(1), ValueError, r"out has the shape \(1,\), the result \(2,\)"),  # was broadcast into
    (np.zeros((1, 2)), ValueError, r"out has the shape \(1, 2\)"),
    ([0.0, 0.0], TypeError, "out must be a NumPy array, got list"),
    (np.zeros(2, np.int64), TypeError, "out must be an array of a real floating dtype, got int64"),
    (np.broadcast_to(np.zeros(1), 2), ValueError, "out is read-only"),
])
def test_densities_refuse_an_out_in_kavras_words(name, out, error, words):
    with pytest.raises(error, match=f"^{name}: {words}"):
        DENSITY_CALLS[name](out)


@pytest.mark.parametrize("name", DENSITY_CALLS)
def test_densities_fill_an_out(name):
    expected = DENSITY_CALLS[name](None)
    out, masked = np.zeros(2, np.float32), np.ma.MaskedArray(np.zeros(2), mask=[True, False])
    assert DENSITY_CALLS[name](out) is out and np.array_equal(out, expected.astype(np.float32))
    assert DENSITY_CALLS[name](masked) is masked and not masked.mask.any() and np.array_equal(masked, expected)


def test_regions_below_one_and_masks():
    value = blackoil.one_over_bo(OIL, [0, 1, 2], np.ma.masked_array([100.0, 100.0, 100.0], [0, 0, 1]),
                                 [30.0, 30.0, 30.0])
    assert value[0] == 0.0 and value.mask.tolist() == [False, False, True]
    density = blackoil.oil_density(OIL, [[800.0, 1000.0, 1.0], [700.0, 1000.0, 2.0]], [1, 2], [100.0, 100.0],
                                   [30.0, 30.0])
    b = blackoil.one_over_bo(OIL, [1, 2], [100.0, 100.0], [30.0, 30.0])
    assert np.allclose(density, b * (np.array([800.0, 700.0]) + 30.0 * np.array([1.0, 2.0])), rtol=1e-15)


WATER_ROCK = {"pvtw": [[100.0, 1.02, 4e-5, 0.4, 1e-4]], "rock": [[100.0, 5e-5]]}


def test_dask_versions_give_the_same_bits():
    da = pytest.importorskip("dask.array")
    import kavra.dask
    from kavra.tables import PVTW, ROCK
    rng = np.random.default_rng(2)
    pvtnum, p, rs = rng.integers(0, 3, 2000), rng.uniform(0, 500, 2000), rng.uniform(0, 150, 2000)
    lazy = [da.from_array(a, chunks=c) for a, c in ((pvtnum, 700), (p, 300), (rs, 1100))]
    density = [[800.0, 1000.0, 1.0], [700.0, 1010.0, 1.2]]
    water, rock = PVTW(WATER_ROCK["pvtw"] * 2), ROCK(WATER_ROCK["rock"] * 2)
    for name, args in [("one_over_bo", (OIL,)), ("oil_viscosity", (OIL,)), ("oil_density", (OIL, density)),
                       ("bubble_point", (OIL,)), ("one_over_bw", (water,)), ("water_density", (water, density)),
                       ("pore_volume_multiplier", (rock,))]:
        cells = [lazy[0], lazy[1], lazy[2]] if name in ("one_over_bo", "oil_viscosity", "oil_density") else lazy[:2]
        expected = getattr(blackoil, name)(*args, *(np.asarray(c) for c in cells))
        assert np.array_equal(getattr(kavra.dask.blackoil, name)(*args, *cells).compute(), expected), name


def test_the_example_draws_both_ways_against_flow(flow_run, tmp_path, capsys):
    import runpy
    from conftest import ROOT
    pytest.importorskip("matplotlib")
    flow_run("SPE1CASE1")  # skips where Flow is missing
    png = tmp_path / "blackoil_flow.png"
    runpy.run_path(str(ROOT / "examples/blackoil_flow.py"))["main"](["--png", str(png)])
    assert png.read_bytes()[:8] == b"\x89PNG\r\n\x1a\n"
    out = capsys.readouterr().out
    assert "kavra.one_over_bo 1.0e-01   kavra.blackoil.one_over_bo 7.2e-08" in out
    assert "kavra.one_over_b  5.0e-02   kavra.blackoil.one_over_bg 8.8e-08" in out
