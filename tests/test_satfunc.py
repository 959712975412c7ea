"""kavra.satfunc: against OPM Flow's WATKR, OILKR, GASKR, PCOW and PCOG every report step and cell
of the SATFUNC_* cases (tests/flow_cases.py), and its own rules on tables without a deck."""

import doctest

import numpy as np
import pytest

import kavra.deck
import kavra.equil
from kavra import satfunc
from flow_cases import flow_run  # noqa: F401  (fixture)

results = pytest.importorskip("kavra.results", reason="resfo is not installed")

# Flow writes float32: a value is compared to 1e-6 of itself where it is at least 1e-3 of the
# array's largest, and to 1e-7 of the largest below that (where float32 rounding of values near
# 0, a kr rising from its critical saturation or a Pc near 0, is no longer relative to the value).
# Flow evaluated at its own float64 saturations and wrote SWAT and SGAS rounded to float32: kavra
# evaluates at the rounded ones, so the bound also holds the change of the value over half a
# float32 step of each saturation (the curve's slope there times that step).  Without that term
# small values just above the floor (a kr of 1e-3 on a slope of 1) would miss by the rounding of
# the saturation alone, not by a rule.
RELATIVE, FLOOR, TINY = 1e-6, 1e-3, 1e-7

ARRAYS = ("WATKR", "OILKR", "GASKR", "PCOW", "PCOG")
# The families, ENDSCALE two-point with end points in boxes, vertical scaling, three-point scaling
# (SCALECRS), and the oil models, all on two SATNUM regions.
CASES = ("SATFUNC_SWOF", "SATFUNC_FAMILY", "SATFUNC_SLGOF", "SATFUNC_ENDSCALE", "SATFUNC_VERTICAL",
         "SATFUNC_SCALECRS", "SATFUNC_STONE1", "SATFUNC_STONE2")


def values(sf, sw, sg):
    kr, pc = sf.relperm(sw, sg), sf.capillary_pressure(sw, sg)
    return dict(zip(ARRAYS, (kr.water, kr.oil, kr.gas, pc.oil_water, pc.gas_oil)))


def flows_and_ours(case_path):
    """For each report step: Flow's arrays, kavra's at the step's SWAT and SGAS (float32, as written),
    and how much kavra's move over half a float32 step of either saturation."""
    r = results.read(case_path)
    sf = satfunc.from_deck(kavra.deck.read(f"{case_path}.DATA"))
    for step in r.steps:
        sw, sg = (np.ma.getdata(r.cell_property(k, step)) for k in ("SWAT", "SGAS"))
        ours = values(sf, sw, sg)
        w, g = sw.astype(float), sg.astype(float)
        dw, dg = np.spacing(np.abs(sw)).astype(float) / 2, np.spacing(np.abs(sg)).astype(float) / 2
        moved = [values(sf, w + a, g + b) for a, b in ((dw, 0), (-dw, 0), (0, dg), (0, -dg))]
        spread = {name: np.maximum(abs(moved[0][name] - moved[1][name]), 0) / 2
                  + abs(moved[2][name] - moved[3][name]) / 2 for name in ARRAYS}
        yield step, {name: (np.ma.getdata(r.cell_property(name, step)).astype(float), ours[name], spread[name])
                     for name in ARRAYS}


def worst(case_path):
    """The largest difference of each array over the steps and cells, as a fraction of its bound."""
    found = dict.fromkeys(ARRAYS, 0.0)
    for _, arrays in flows_and_ours(case_path):
        for name, (flow, ours, spread) in arrays.items():
            largest = float(np.abs(flow).max())
            bound = np.where(np.abs(flow) >= FLOOR * largest, RELATIVE * np.abs(flow), TINY * largest) + spread
            found[name] = max(found[name], float((np.abs(ours - flow) / np.where(bound > 0, bound, 1.0)).max()))
    return found


@pytest.mark.parametrize("case", CASES)
def test_every_step_and_cell_is_flows_value(flow_run, case):
    assert worst(flow_run(case)) == pytest.approx(dict.fromkeys(ARRAYS, 0.0), abs=1.0)


@pytest.mark.parametrize("case", ["SATFUNC_SWOF"])
def test_the_schedule_takes_cells_to_the_ends_of_their_tables(flow_run, case):
    r = results.read(flow_run(case))
    sf = satfunc.from_deck(kavra.deck.read(flow_run(case).with_suffix(".DATA")))
    ends = sf.end_points
    sw = np.array([np.ma.getdata(r.cell_property("SWAT", s)) for s in r.steps])
    sg = np.array([np.ma.getdata(r.cell_property("SGAS", s)) for s in r.steps])
    assert (sw <= ends["SWL"] + 1e-3).any() and (sw >= ends["SWU"] - 1e-6).any()  # connate water, all water
    assert (1 - sw - sg <= ends["SOWCR"] + 0.05).any()  # oil near its residual to water
    assert (sg >= ends["SGCR"] + 0.3).any() and (sg <= 0).any()
    assert set(np.unique(sf.satnum)) == {1, 2}


@pytest.mark.parametrize("case", ["SATFUNC_VERTICAL", "SATFUNC_SWOF"])
def test_cell_end_points_are_those_flow_writes_to_its_init(flow_run, case):
    path = flow_run(case)
    r = results.read(path)
    ends = satfunc.from_deck(kavra.deck.read(path.with_suffix(".DATA"))).end_points
    written = [name for name in satfunc.END_POINTS if name in r.property_names()]
    assert len(written) == (17 if case == "SATFUNC_VERTICAL" else 0)
    for name in written:  # Flow writes -1e20 where a cell keeps its table's end point
        flow = np.ma.getdata(r.cell_property(name)).astype(float)
        given = flow > -1e19
        assert given.any() and not given.all()
        np.testing.assert_allclose(ends[name][given], flow[given], rtol=1e-7, err_msg=name)


SWOF = [[0.2, 0.0, 1.0, 4.0], [0.3, 0.0, 0.6, 2.0], [0.6, 0.3, 0.1, 1.0], [0.8, 0.6, 0.0, 0.5], [1.0, 1.0, 0.0, 0.0]]
SGOF = [[0.0, 0.0, 1.0, 0.0], [0.1, 0.0, 0.7, 0.1], [0.5, 0.4, 0.1, 0.5], [0.8, 0.9, 0.0, 1.0]]


@pytest.mark.parametrize("end_points", [None, {"PCW": [9.0, 9.0, 9.0]}, {"SWL": [0.3, 0.2, 0.2]}])
def test_ppcw_scales_each_cells_pcow_and_replaces_its_pcw(end_points):
    """SWATINIT's Pcow maximum of a cell: Pcow times it over the table's (4.0), whatever PCW said; a
    masked cell's value is NaN; ENDSCALE's SWL still moves the saturation."""
    ppcw = np.ma.masked_array([2.0, 8.0, 1.0], mask=[False, False, True])
    sf = satfunc.from_tables(swof=SWOF, sgof=SGOF, satnum=[1, 1, 1], end_points=end_points, ppcw=ppcw)
    pc = sf.capillary_pressure([0.45, 0.2, 0.45], 0.0).oil_water
    first = 1.5 if end_points is None or "SWL" not in end_points else np.interp(0.2 + 0.15 * 0.8 / 0.7,
                                                                                [0.3, 0.6], [2.0, 1.0])
    assert pc[0] == pytest.approx(first * 2.0 / 4.0) and pc[1] == pytest.approx(8.0) and np.isnan(pc[2])
    assert sf.end_points["PCW"][:2].tolist() == [2.0, 8.0]


@pytest.mark.parametrize("case", ["TRANSITION_SWATINIT", "TRANSITION_SWATINIT_ENDSCALE"])
def test_pcow_after_swatinit_is_flows_every_step_and_cell(flow_run, case):
    """Flow scales each cell's Pcow to hold its SWATINIT water and keeps that curve (PPCW, which it
    writes with its restart arrays):
    from_deck(deck, ppcw=PPCW) gives Flow's PCOW every report step (the second deck with ENDSCALE's
    SWL, SWU and PCW in boxes and a flood that moves the cells' water), within the bound of the
    SATFUNC decks; kavra.equil's ppcw gives the same functions."""
    path = flow_run(case)
    r = results.read(path)
    deck = kavra.deck.read(path.with_suffix(".DATA"))
    ppcw = r.cell_property("PPCW", 0)  # Flow writes it with the restart arrays
    assert (abs(ppcw - deck.records("SWOF")[0][3]) > 0.1).sum() > 100  # SWATINIT moved most cells' maximum
    equilibrated = kavra.equil.initial_state(deck).ppcw
    np.testing.assert_allclose(equilibrated, ppcw, rtol=1e-6)
    moved = 0.0
    for sf in (satfunc.from_deck(deck, ppcw=ppcw), satfunc.from_deck(deck, ppcw=equilibrated)):
        for step in r.steps:
            sw = np.ma.getdata(r.cell_property("SWAT", step))
            flow = np.ma.getdata(r.cell_property("PCOW", step)).astype(float)
            w, half = sw.astype(float), np.spacing(np.abs(sw)).astype(float) / 2
            ours, up, down = (sf.capillary_pressure(w + d, 0.0).oil_water for d in (0.0, half, -half))
            largest = float(np.abs(flow).max())
            bound = np.where(np.abs(flow) >= FLOOR * largest, RELATIVE * np.abs(flow), TINY * largest)
            assert (np.abs(ours - flow) <= bound + abs(up - down) / 2).all(), (case, step)
            moved = max(moved, float(np.abs(sw - r.cell_property("SWAT", 0)).max()))
    if case.endswith("ENDSCALE"):
        assert moved > 0.05  # the flood moved the water of some cells


def test_tables_end_points_and_values_by_hand():
    sf = satfunc.from_tables(swof=SWOF, sgof=SGOF)
    ends = {k: float(v[0]) for k, v in sf.table_end_points.items()}
    assert (ends["SWL"], ends["SWCR"], ends["SWU"], ends["SOWCR"]) == (0.2, 0.3, 1.0, pytest.approx(0.2))
    assert (ends["SGL"], ends["SGCR"], ends["SGU"], ends["SOGCR"]) == (0.0, 0.1, 0.8, pytest.approx(0.0))
    assert (ends["KRO"], ends["KRORW"], ends["KRWR"], ends["PCW"]) == (1.0, 0.6, 0.6, 4.0)
    kr = sf.relperm([0.45, 0.2, 0.5, 0.1], [0.0, 0.3, 0.2, 0.3])
    assert kr.water.tolist() == pytest.approx([0.15, 0.0, 0.2, 0.0])
    assert kr.gas.tolist() == pytest.approx([0.0, 0.2, 0.1, 0.2])
    # oil: water alone (krow at Sw), gas and connate water (krog at Sg), both (weighted), Sw below connate
    krow, krog = 0.35, 0.4
    both = (0.2 * np.interp(0.5, [0.1, 0.5], [0.7, 0.1]) + 0.3 * np.interp(0.7, [0.6, 0.8], [0.1, 0.0])) / 0.5
    assert kr.oil.tolist() == pytest.approx([krow, krog, both, krog])
    pc = sf.capillary_pressure([0.1, 0.45, 1.2], [0.05, 0.3, 0.9])
    assert pc.oil_water.tolist() == pytest.approx([4.0, 1.5, 0.0]) and pc.gas_oil.tolist() == pytest.approx(
        [0.05, 0.3, 1.0])


def test_the_families_give_the_same_functions():
    swof, sgof = np.array(SWOF), np.array(SGOF)
    swfn, sgfn = swof[:, [0, 1, 3]], sgof[:, [0, 1, 3]]
    so = np.unique(np.round(np.concatenate([1 - swof[:, 0], 1 - sgof[:, 0] - 0.2]), 12))
    sof3 = np.column_stack([so, np.interp(1 - so, swof[:, 0], swof[:, 2]), np.interp(1 - so - 0.2, sgof[:, 0],
                                                                                     sgof[:, 2])])
    slgof = np.column_stack([1 - sgof[::-1, 0], sgof[::-1, 1], sgof[::-1, 2], sgof[::-1, 3]])
    rng = np.random.default_rng(3)
    sw, sg = rng.uniform(0, 1, 500), rng.uniform(0, 0.8, 500)
    sg = np.minimum(sg, 1 - sw)
    reference = satfunc.from_tables(swof=SWOF, sgof=SGOF)
    for other in (satfunc.from_tables(swfn=swfn, sgfn=sgfn, sof3=sof3), satfunc.from_tables(swof=SWOF, slgof=slgof)):
        for a, b in zip(other.relperm(sw, sg) + other.capillary_pressure(sw, sg),
                        reference.relperm(sw, sg) + reference.capillary_pressure(sw, sg)):
            np.testing.assert_allclose(a, b, rtol=1e-12, atol=1e-14)


@pytest.mark.parametrize("threads", [1, 2, 3])
def test_same_bits_for_any_thread_count_and_float32_read_as_it_is(threads):
    rng = np.random.default_rng(11)
    n = 200_000
    satnum = rng.integers(0, 3, n).astype(np.int32)
    sf = satfunc.from_tables(swof=[SWOF, np.array(SWOF) * [1, 0.5, 1, 2]], sgof=[SGOF, SGOF], satnum=satnum,
                             end_points={"SWL": rng.uniform(0.1, 0.25, n), "SWCR": rng.uniform(0.25, 0.35, n)})
    sw, sg = rng.uniform(0, 1, n).astype(np.float32), rng.uniform(0, 0.5, n).astype(np.float32)
    one = sf.relperm(sw.astype(float), sg.astype(float), threads=1) + sf.capillary_pressure(
        sw.astype(float), sg.astype(float), threads=1)
    many = sf.relperm(sw, sg, threads=threads) + sf.capillary_pressure(sw, sg, threads=threads)
    for a, b in zip(one, many):
        assert np.array_equal(a, b, equal_nan=True)
    assert np.isnan(many[0][satnum == 0]).all() and not np.isnan(many[0][satnum > 0]).any()


@pytest.mark.parametrize("call, error, words", [
    (lambda: satfunc.from_tables(sgof=SGOF), ValueError, "give SWOF"),
    (lambda: satfunc.from_tables(swof=SWOF), ValueError, "give SGOF"),
    (lambda: satfunc.from_tables(swof=[[0.5, 0, 1, 0], [0.2, 1, 0, 0]], sgof=SGOF), ValueError, "increase"),
    (lambda: satfunc.from_tables(swof=[[0.5, 0, 1]], sgof=SGOF), ValueError, "rows of 4"),
    (lambda: satfunc.from_tables(swof=[SWOF, SWOF], sgof=SGOF), ValueError, "different numbers of regions"),
    (lambda: satfunc.from_tables(swof=SWOF, sgof=SGOF, satnum=[1, 2]), ValueError, "cell 1 has region 2"),
    (lambda: satfunc.from_tables(swof=SWOF, sgof=SGOF, satnum=[1.0]), TypeError, "integers"),
    (lambda: satfunc.from_tables(swof=SWOF, sgof=SGOF, model="STONE3"), ValueError, "model"),
    (lambda: satfunc.from_tables(swof=SWOF, sgof=SGOF, satnum=[1], end_points={"SWX": [0.1]}), ValueError,
     "not an end point"),
    (lambda: satfunc.from_tables(swof=SWOF, sgof=SGOF, satnum=[1, 1]).relperm([0.5], [0.1]), ValueError,
     "satnum has 2"),
    (lambda: satfunc.from_tables(swof=SWOF, sgof=SGOF).relperm(["a"], [0.1]), TypeError, "sw must hold numbers"),
    (lambda: satfunc.from_tables(swof=SWOF, sgof=SGOF, satnum=[1], ppcw=["a"]), TypeError, "ppcw must hold numbers"),
    (lambda: satfunc.from_tables(swof=SWOF, sgof=SGOF, satnum=[1], ppcw=[1.0, 2.0]), ValueError, "holds 2 values"),
])
def test_refusals_in_kavras_words(call, error, words):
    with pytest.raises(error, match=words):
        call()


def test_shapes_broadcast_and_nan_passes_through():
    sf = satfunc.from_tables(swof=SWOF, sgof=SGOF)
    kr = sf.relperm(np.full((2, 3), 0.5), 0.1)
    assert kr.water.shape == (2, 3) and kr.oil.dtype == np.float64
    assert np.isnan(sf.relperm([np.nan], [0.1]).water[0]) and np.isnan(sf.capillary_pressure([0.3], [np.nan]).gas_oil[0])


LINEAR_SWOF = [[0.1, 0.0, 1.0, 2.0], [0.2, 0.0, 0.8, 1.0], [0.8, 0.6, 0.0, 0.5], [1.0, 1.0, 0.0, 0.0]]
LINEAR_SGOF = [[0.0, 0.0, 1.0, 0.0], [0.9, 1.0, 0.0, 1.0]]


@pytest.mark.parametrize("three_point, sw, krw", [
    (False, 0.3, 0.0),            # the cell's SWCR: the table's
    (False, 0.65, 0.4),           # half way between the cell's SWCR and SWU: table Sw 0.6
    (False, 1.0, 1.0),            # the cell's SWU: the table's
    (True, 0.6, 0.6),             # the cell's residual 1 - SOWCR - SGL = 0.6: the table's 0.8
    (True, 0.45, 0.3),            # half way to it: table Sw 0.5
])
def test_two_and_three_point_scaling_of_krw(three_point, sw, krw):
    end_points = {"SWCR": [0.3], "SWU": [1.0], "SOWCR": [0.4]}
    sf = satfunc.from_tables(swof=LINEAR_SWOF, sgof=LINEAR_SGOF, satnum=[1], end_points=end_points,
                             three_point=three_point)
    assert sf.relperm([sw], [0.0]).water[0] == pytest.approx(krw)


def test_vertical_scaling_with_and_without_the_residual_value():
    sf = satfunc.from_tables(swof=LINEAR_SWOF, sgof=LINEAR_SGOF, satnum=[1, 1], end_points={"KRW": [0.5, 0.5]})
    assert sf.relperm([0.5, 1.0], [0.0, 0.0]).water.tolist() == pytest.approx([0.15, 0.5])
    sf = satfunc.from_tables(swof=LINEAR_SWOF, sgof=LINEAR_SGOF, satnum=[1, 1, 1],
                             end_points={"KRW": [0.5] * 3, "KRWR": [0.3] * 3})
    # up to the residual saturation 0.8: x 0.3/0.6; above, 0.3 + (k - 0.6) (0.5 - 0.3) / (1 - 0.6)
    assert sf.relperm([0.5, 0.8, 0.9], [0.0] * 3).water.tolist() == pytest.approx([0.15, 0.3, 0.4])
    sf = satfunc.from_tables(swof=LINEAR_SWOF, sgof=LINEAR_SGOF, satnum=[1], end_points={"PCW": [4.0]})
    assert sf.capillary_pressure([0.1], [0.0]).oil_water[0] == pytest.approx(4.0)


@pytest.mark.parametrize("model, kro", [
    ("STONE2", 1.0 * ((0.4 + 0.3) * (0.8 + 0.2) - 0.5)),
    ("STONE1", 0.4 * 0.8 * (0.32 / 0.9) / ((1 - 0.4 / 0.9) * (1 - 0.18 / 0.9))),
])
def test_stone_models_by_hand(model, kro):
    sf = satfunc.from_tables(swof=LINEAR_SWOF, sgof=LINEAR_SGOF, model=model)
    # Sw 0.5: krw 0.3, krow 0.4; Sg 0.18: krg 0.2, krog 0.8; krocw 1
    assert sf.relperm([0.5], [0.18]).oil[0] == pytest.approx(kro)


def test_masked_saturations_give_masked_results():
    sf = satfunc.from_tables(swof=SWOF, sgof=SGOF)
    kr = sf.relperm(np.ma.masked_array([0.5, 0.6], [False, True]), [0.1, 0.1])
    pc = sf.capillary_pressure([0.5, 0.6], np.ma.masked_array([0.1, 0.1], [True, False]))
    assert kr.oil.mask.tolist() == [False, True] and pc.oil_water.mask.tolist() == [True, False]
    assert kr.water[0] == sf.relperm([0.5], [0.1]).water[0]


DECK = """RUNSPEC
DIMENS
 3 1 1 /
OIL
WATER
GAS
METRIC
TABDIMS
 2 /
PROPS
SWOF
 0.2 0.0 1.0 2.0
 1.0 1.0 0.0 0.0 /
 0.1 0.0 0.8 1.0
 1.0 0.5 0.0 0.0 /
SGOF
 0.0 0.0 1.0 0.0
 0.8 1.0 0.0 0.5 /
 0.0 0.0 0.8 0.0
 0.9 0.9 0.0 0.4 /
"""


def test_from_deck_reads_each_region_and_refuses_what_it_does_not_evaluate():
    sf = satfunc.from_deck(kavra.deck.read(DECK + "REGIONS\nSATNUM\n 1 2 2 /\n"))
    assert sf.satnum.tolist() == [1, 2, 2] and sf.model == "default" and not sf.scaled
    assert sf.relperm([0.6] * 3, [0.0] * 3).water.tolist() == pytest.approx([0.5, 0.5 * 0.5 / 0.9, 0.5 * 0.5 / 0.9])
    assert sf.end_points["SWL"].tolist() == [0.2, 0.1, 0.1]
    assert satfunc.from_deck(kavra.deck.read(DECK + "STONE2\n")).model == "STONE2"
    swatinit = kavra.deck.read(DECK + "SWATINIT\n 3*0.3 /\n")
    with pytest.raises(ValueError, match=r"SWATINIT.*pass ppcw=.*PPCW.*initial_state\(deck\)\.ppcw"):
        satfunc.from_deck(swatinit)
    with pytest.raises(ValueError, match="ppcw holds 2 values; the deck's grid has 3 cells"):
        satfunc.from_deck(swatinit, ppcw=[1.0, 2.0])
    scaled = satfunc.from_deck(swatinit, ppcw=[1.0, 2.0, 8.0])  # Pcow 1.0 of the table's 2.0 at Sw 0.6
    assert scaled.capillary_pressure([0.6] * 3, 0.0).oil_water.tolist() == pytest.approx([0.5, 1.0, 4.0])
    with pytest.raises(ValueError, match="no saturation tables"):
        satfunc.from_deck(kavra.deck.read("RUNSPEC\nDIMENS\n 1 1 1 /\n"))


def test_from_deck_takes_a_runs_satnum_in_place_of_the_decks_without_building_opms_state():
    """satnum= (a results case's INIT SATNUM, masked where the run holds no cell): the deck's own SATNUM
    is not read, so opm's state of the grid (gigabytes for 10^7 cells) is not built."""
    deck = kavra.deck.read(DECK + "REGIONS\nSATNUM\n 1 2 2 /\n")
    given = satfunc.from_deck(deck, satnum=np.ma.masked_array(np.int32([1, 2, 1]), mask=[False, False, True]))
    assert given.satnum.tolist() == [1, 2, 0] and deck._state is None  # opm's state: never built
    water = given.relperm([0.6] * 3, [0.0] * 3).water
    decks = satfunc.from_deck(deck).relperm([0.6] * 3, [0.0] * 3).water
    assert water[:2].tolist() == decks[:2].tolist() and np.isnan(water[2])  # region 0: a cell the run does not hold
    for wrong, error, words in (([1.0, 2.0, 2.0], TypeError, "satnum must hold integers, got float64"),
                                ([1, 2], ValueError, "satnum holds 2 values; the deck's grid has 3 cells"),
                                ([1, 2, 3], ValueError, "cell 2 has region 3; the tables have 2 regions")):
        with pytest.raises(error, match=words):
            satfunc.from_deck(deck, satnum=wrong)


def test_docstring_examples():
    failures, tried = doctest.testmod(satfunc, optionflags=doctest.NORMALIZE_WHITESPACE)
    assert tried >= 3 and failures == 0


def test_defaulted_values_are_filled_along_the_table_and_flat_numbers_are_rows():
    with_default = np.array(SWOF)
    with_default[2, 1] = np.nan  # 1* in the deck: krw between its neighbours, at Sw 0.6
    sf = satfunc.from_tables(swof=with_default.ravel(), sgof=SGOF)
    assert sf.relperm([0.6], [0.0]).water[0] == pytest.approx(np.interp(0.6, [0.3, 0.8], [0.0, 0.6]))
    with pytest.raises(ValueError, match="saturation is left to its default"):
        satfunc.from_tables(swof=[[np.nan, 0, 1, 0], [1, 1, 0, 0]], sgof=SGOF)


@pytest.mark.parametrize("end_points, sw, sg, value", [
    # krow with KRO and KRORW: up to So = 1 - SWCR - SGL = 0.8 (Sw 0.2) x 0.4/0.8, above linear to KRO
    ({"KRO": [0.5], "KRORW": [0.4]}, 0.5, 0.0, 0.4 * 0.4 / 0.8),  # krow 0.4 at Sw 0.5
    ({"KRO": [0.5], "KRORW": [0.4]}, 0.15, 0.0, 0.4 + (0.9 - 0.8) * (0.5 - 0.4) / (1.0 - 0.8)),
    # krg with KRG and KRGR: up to Sg = 1 - SOGCR - SWL = 0.9 x 0.5/1.0
    ({"KRG": [0.6], "KRGR": [0.5]}, 0.1, 0.45, 0.5 * 0.5),
    ({"PCG": [2.0]}, 0.1, 0.45, 0.5 * 2.0),
])
def test_vertical_scaling_of_oil_and_gas_by_hand(end_points, sw, sg, value):
    sf = satfunc.from_tables(swof=LINEAR_SWOF, sgof=LINEAR_SGOF, satnum=[1], end_points=end_points)
    kr, pc = sf.relperm([sw], [sg]), sf.capillary_pressure([sw], [sg])
    got = {"KRO": kr.oil, "KRG": kr.gas, "PCG": pc.gas_oil}[next(iter(end_points))][0]
    assert got == pytest.approx(value)


def test_end_points_of_the_cells_their_own_or_their_regions():
    sf = satfunc.from_tables(swof=[LINEAR_SWOF, SWOF], sgof=[LINEAR_SGOF, SGOF], satnum=[1, 2, 0],
                             end_points={"SWCR": [0.25, np.nan, np.nan]})
    ends = sf.end_points
    assert ends["SWCR"][0] == 0.25 and np.isnan(ends["SWCR"][1:]).all()  # a cell's own, even NaN
    assert ends["SWL"][:2].tolist() == [0.1, 0.2] and np.isnan(ends["SWL"][2])
    assert sf.table_end_points["SWU"].tolist() == [1.0, 1.0]


def test_calls_from_several_threads_at_once_give_the_same_bits():
    from concurrent.futures import ThreadPoolExecutor
    rng = np.random.default_rng(4)
    n = 100_000
    sf = satfunc.from_tables(swof=SWOF, sgof=SGOF, model="STONE2")
    sw, sg = rng.uniform(0, 1, n), rng.uniform(0, 0.6, n)
    reference = sf.relperm(sw, sg, threads=1)
    with ThreadPoolExecutor(4) as pool:
        for kr in pool.map(lambda t: sf.relperm(sw, sg, threads=t), [1, 2, 1, 2, 2, 1]):
            for a, b in zip(kr, reference):
                assert np.array_equal(a, b)


X = np.array([0.0, 1.0])


@pytest.mark.parametrize("call, error, words", [
    (lambda e: e.SatfuncTables([[([0, 1], [0, 1])] * 6], 0), TypeError, "krw of region 1: expected a contiguous"),
    (lambda e: e.SatfuncTables([[(X, X)] * 5], 0), ValueError, "six curves"),
    (lambda e: e.SatfuncTables([[(X, X[:1])] * 6], 0), ValueError, "as many"),
    (lambda e: e.SatfuncTables([[(X[::-1].copy(), X)] * 6], 0), ValueError, "should increase"),
    (lambda e: e.satfunc_end_points(e.SatfuncTables([[(X, X)] * 6], 0), np.ones(2, np.int32), [None] * 17,
                                    [np.empty(2)] * 16 + [None]), TypeError, "output 16"),
    (lambda e: e.satfunc_relperm(e.SatfuncTables([[(X, X)] * 6], 0), np.full(2, 3, np.int32), X, X, [None] * 17,
                                 False, False, np.empty(2), np.empty(2), np.empty(2), 1), ValueError,
     "cell 0 has SATNUM 3"),
])
def test_the_engine_refuses_bad_input_in_words(call, error, words):
    from kavra import _engine
    with pytest.raises(error, match=words):
        call(_engine)


def test_take_and_pickle_keep_each_cells_functions():
    import pickle
    rng = np.random.default_rng(8)
    n = 1000
    sf = satfunc.from_tables(swof=[SWOF, SWOF], sgof=[SGOF, SGOF], satnum=rng.integers(0, 3, n),
                             end_points={"SWL": rng.uniform(0.1, 0.3, n), "KRW": rng.uniform(0.5, 1.0, n)})
    sw, sg = rng.uniform(0, 1, n), rng.uniform(0, 0.5, n)
    whole, cells = sf.relperm(sw, sg), rng.permutation(n)[:300]
    for got, want in zip(sf.take(cells).relperm(sw[cells], sg[cells]), whole):
        np.testing.assert_array_equal(got, want[cells])
    for got, want in zip(pickle.loads(pickle.dumps(sf)).relperm(sw, sg), whole):
        np.testing.assert_array_equal(got, want)
    with pytest.raises(IndexError, match="cell 1000 is past the 1000 cells"):
        sf.take([0, 1000])
    with pytest.raises(TypeError, match="cells must hold integer cell numbers"):
        sf.take([0.5])


def test_scalecrs_and_edits_are_read_from_the_decks_words(tmp_path):
    from flow_cases import write_deck
    deck = kavra.deck.read(write_deck("SATFUNC_SCALECRS", tmp_path))
    sf = satfunc.from_deck(deck)
    assert sf.three_point and sf.scaled and deck.words("SCALECRS")[-1][0].startswith("Y")
    assert ("SWL",) in [texts[:1] for texts in deck.words("EQUALS")] and not satfunc.from_deck(
        kavra.deck.read(write_deck("SATFUNC_SWOF", tmp_path))).scaled


@pytest.mark.parametrize("kind", ["misaligned", "big-endian"])
def test_saturations_at_any_byte_or_byte_order_give_the_same_bits(kind):
    from test_maps import unusual

    sf = satfunc.from_tables(swof=SWOF, sgof=SGOF)
    rng = np.random.default_rng(5)
    sw, sg = rng.uniform(0.2, 0.8, 1000), rng.uniform(0.0, 0.2, 1000)
    expected, odd = sf.relperm(sw, sg), sf.relperm(unusual(sw, kind), unusual(sg, kind))
    for got, want in zip(odd, expected):
        np.testing.assert_array_equal(got, want)

