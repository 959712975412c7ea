"""kavra.volumetrics and the command line kavra, on cases run with OPM Flow (tests/flow_cases.py)."""

import doctest
import importlib
import inspect
import os
import pathlib
import re
import subprocess
import sys

import numpy as np
import pytest

pd = pytest.importorskip("pandas")
pytest.importorskip("resfo", reason="kavra.results needs resfo")
pytest.importorskip("opm", reason="kavra.deck needs opm")

import kavra  # noqa: E402
import kavra.deck  # noqa: E402
import kavra.equil  # noqa: E402
import kavra.results  # noqa: E402

from flow_cases import flow_run  # noqa: E402,F401

VALUE_COLUMNS = ["BULK", "NET", "PORV", "HCPV", "STOIIP", "GIIP", "ASSOCIATEDGAS", "ASSOCIATEDOIL", "WIIP"]


volumetrics = kavra.volumetrics
read_zones = kavra.read_zones

CASES = ["SPE1CASE1", "TWOREGIONS"]
FLUID_SUMS = {"FIPOIL": ("STOIIP", "ASSOCIATEDOIL"), "FIPGAS": ("GIIP", "ASSOCIATEDGAS"), "FIPWAT": ("WIIP",)}


def rows(table):
    """The rows of zones and regions, without the Totals rows."""
    return table[table.ZONE != "Totals"]


def per_region(table):
    return rows(table).groupby("REGION")[list(VALUE_COLUMNS)].sum()


@pytest.fixture(scope="module")
def case(flow_run):
    return {name: kavra.results.read(flow_run(name)) for name in CASES}


@pytest.mark.parametrize("name", CASES)
def test_regions_equal_the_region_totals_of_flows_arrays(case, name):
    r = case[name]
    fipnum = r.cell_property("FIPNUM")
    for step in r.steps:
        table = per_region(volumetrics(r, step=step))
        numbers = [int(n) for n in table.index]
        for array, columns in FLUID_SUMS.items():
            flow = kavra.region_totals(r.cell_property(array, step), fipnum)[np.array(numbers) - 1]
            ours = table[list(columns)].sum(axis=1).to_numpy()
            np.testing.assert_allclose(ours, flow, rtol=1e-6, err_msg=f"{name} {array} step {step}")


def prt_regions(path):
    """Flow's first fluid-in-place report of each FIPNUM region in a PRT file: PORV and the
    CURRENTLY IN PLACE line (oil liquid, vapour, total; water; gas free, dissolved, total)."""
    text = pathlib.Path(path).read_text(errors="replace")
    found = {}
    for block in re.finditer(r"FIPNUM REPORT REGION\s+(\d+).*?PORV\s*=\s*([\d.]+).*?:CURRENTLY IN PLACE\s*:(.*?)\n",
                             text, re.S):
        region = int(block.group(1))
        numbers = [float(x) for x in re.findall(r"-?[\d.]+(?:[eE][-+]?\d+)?", block.group(3))]
        found.setdefault(region, (float(block.group(2)), numbers))
    return found


@pytest.mark.parametrize("name", CASES)
def test_regions_equal_flows_own_region_report(case, name):
    r = case[name]
    report = prt_regions(r.case.with_suffix(".PRT"))
    assert report, "the PRT file holds no region report (RPTSOL 'FIP=2')"
    table = per_region(volumetrics(r, step=0))
    for region, (porv, numbers) in report.items():
        row = table.loc[str(region)]
        # oil liquid, vapour, total; water; gas free, dissolved, total
        assert len(numbers) == 7, numbers
        ours = [row.STOIIP, row.ASSOCIATEDOIL, row.STOIIP + row.ASSOCIATEDOIL, row.WIIP, row.GIIP,
                row.ASSOCIATEDGAS, row.GIIP + row.ASSOCIATEDGAS]
        # Flow prints whole numbers of its double-precision state; ours come from the float32 state
        # of the restart and INIT (about 1e-7)
        np.testing.assert_allclose(ours + [row.PORV], numbers + [porv], rtol=2e-7, atol=0.5,
                                   err_msg=f"{name} region {region}")


@pytest.mark.parametrize("name", CASES)
def test_bulk_net_and_pore_volume_are_the_inits(case, name):
    r = case[name]
    table = volumetrics(r, step=r.steps[-1])
    init = {a: np.ma.filled(r.cell_property(a).astype(np.float64), 0.0) for a in ("DX", "DY", "DZ", "NTG", "PORV")}
    bulk = init["DX"] * init["DY"] * init["DZ"]
    totals = table[table.ZONE == "Totals"][list(VALUE_COLUMNS)].sum()
    assert totals.BULK == pytest.approx(bulk[r.active].sum(), rel=1e-6)
    assert totals.NET == pytest.approx((bulk * init["NTG"])[r.active].sum(), rel=1e-6)
    assert totals.PORV == pytest.approx(init["PORV"].sum(), rel=1e-12)
    np.testing.assert_allclose(rows(table)[list(VALUE_COLUMNS)].sum(), totals, rtol=1e-12)
    sw = np.ma.filled(r.cell_property("SWAT", r.steps[-1]).astype(np.float64), 0.0)
    assert totals.HCPV == pytest.approx((init["PORV"] * (1 - sw)).sum(), rel=1e-6)
    assert (table.PORV - table.HCPV >= 0).all() and (table[list(VALUE_COLUMNS)] >= 0).all().all()
    # each cell in the fluid zone of what it holds: no free gas in an oil row, no oil in a water row
    assert (table[table.FLUID == "oil"].GIIP == 0).all()
    assert (table[table.FLUID == "water"][["STOIIP", "GIIP", "HCPV"]] == 0).all().all()
    assert table.attrs["units"] == r.units and table.attrs["step"] == r.steps[-1]
    assert table.attrs["fluids"].startswith("FIPOIL, FIPGAS, FIPWAT")  # the restart's own (RPTRST FIP)


@pytest.mark.parametrize("form", ["dict", "file", "array", "property pair"])
def test_zones_add_up_to_the_region_rows(case, tmp_path, form):
    r = case["TWOREGIONS"]  # 3 layers, FIPNUM by layer: take EQLNUM (two columns of regions) instead
    spans = {"Top": (1, 1), "Lower part": (2, 3)}
    layer = np.repeat(np.arange(1, r.grid.nK + 1), r.grid.nI * r.grid.nJ)
    if form == "dict":
        zones = spans
    elif form == "file":
        zones = tmp_path / "zones.lyr"
        zones.write_text("-- zones\n'Top' 1-1\n'Lower part' 2 - 3\n")
    elif form == "array":
        zones = np.where(layer == 1, 7, 9)  # numbers, named as text
    else:
        zones = (np.where(layer == 1, 7, 9), {7: "Top", 9: "Lower part"})
    whole = volumetrics(r, step=4, regions="EQLNUM")
    zoned = volumetrics(r, step=4, regions="EQLNUM", zones=zones)
    assert set(rows(zoned).ZONE) == ({"7", "9"} if form == "array" else set(spans))
    by_region = rows(zoned).groupby(["REGION", "FLUID"])[list(VALUE_COLUMNS)].sum()
    expected = rows(whole).set_index(["REGION", "FLUID"])[list(VALUE_COLUMNS)].sort_index()
    pd.testing.assert_frame_equal(by_region.sort_index(), expected, rtol=1e-12)
    pd.testing.assert_frame_equal(zoned[zoned.ZONE == "Totals"].reset_index(drop=True),
                                  whole[whole.ZONE == "Totals"].reset_index(drop=True), rtol=1e-12)


def test_region_names_and_layers_without_zone(case):
    r = case["TWOREGIONS"]
    table = volumetrics(r, step=0, regions=("FIPNUM", {1: "Top", 2: "Middle", 3: "Bottom"}), zones={"Z2": (2, 2)})
    assert set(rows(table).REGION) == {"Top", "Middle", "Bottom"}
    assert set(rows(table).ZONE) == {"Z2", "(no zone)"}
    assert list(table.columns[:3]) == ["FLUID", "ZONE", "REGION"]


def test_regions_and_zones_in_any_form_give_the_same_table(case):
    r = case["TWOREGIONS"]
    fipnum = r.cell_property("FIPNUM")  # int32, masked at the inactive cells
    names = {1: "Top", 2: "Middle", 3: "Bottom"}
    expected = volumetrics(r, step=1, regions=("FIPNUM", names), zones="FIPNUM")
    numbers = np.ma.filled(fipnum, 0).astype(np.int64)
    for regions in (numbers, numbers.astype(float), np.ma.MaskedArray(numbers + 7, mask=np.ma.getmaskarray(fipnum)),
                    np.ma.filled(fipnum.astype(float), np.nan), np.where(numbers > 0, numbers * 10**9 + 5, -3)):
        # a masked or NaN number, or one of 0 or below, takes no part; numbers far past the grid are sorted
        order = np.unique(np.ma.compressed(regions)[np.ma.compressed(regions) > 0])
        table = volumetrics(r, step=1, regions=(regions, dict(zip(order, names.values()))), zones=(regions, {}))
        zones = dict(zip(map(str, order), map(str, range(1, 4))))
        pd.testing.assert_frame_equal(table.assign(ZONE=table.ZONE.replace(zones)), expected)


def test_a_state_whose_rs_rv_is_1_or_more_is_refused(case):
    r = case["TWOREGIONS"]  # oil with dissolved gas and gas with vaporised oil
    state = state_of(r, 0)
    state["rv"] = np.ma.filled(state["rv"], 0.0).astype(np.float64)
    state["rv"][17] = 2.0 / state["rs"][17]
    with pytest.raises(ValueError, match="Rs x Rv is 1 or more at cell 17"):
        volumetrics(kavra.deck.read(r.case.with_suffix(".DATA")), state=state)


def state_of(r, step):
    """The state of a restart step, as a state= of volumetrics."""
    return {name: r.cell_property(array, step) for name, array in
            (("pressure", "PRESSURE"), ("sw", "SWAT"), ("sg", "SGAS"), ("rs", "RS"), ("rv", "RV"))
            if array in r.property_names(step)}


def test_a_deck_with_a_state_and_many_scenarios(case):
    r = case["SPE1CASE1"]  # no capillary pressure: the deck's state alone gives Flow's fluids
    deck = kavra.deck.read(r.case.with_suffix(".DATA"))
    from_case = volumetrics(r, step=3, zones={"A": (1, 2), "B": (3, 3)})
    from_deck = volumetrics(deck, state=state_of(r, 3), zones={"A": (1, 2), "B": (3, 3)})
    # the deck's PVT at the restart's state against the restart's FIP arrays (deck float64, INIT float32)
    pd.testing.assert_frame_equal(from_deck, from_case, rtol=1e-6, check_exact=False)
    by_path = volumetrics(r.case.with_suffix(".DATA"), state=state_of(r, 3), zones={"A": (1, 2), "B": (3, 3)})
    pd.testing.assert_frame_equal(by_path, from_deck)  # a state makes the run's .DATA a deck
    long = volumetrics(deck, state={"start": state_of(r, 0), "step 3": state_of(r, 3)})  # a dict of scenarios
    assert list(long.columns[:4]) == ["SCENARIO", "FLUID", "ZONE", "REGION"]
    assert long.SCENARIO.unique().tolist() == ["start", "step 3"]
    at3 = long[long.SCENARIO == "step 3"].drop(columns="SCENARIO").reset_index(drop=True)
    pd.testing.assert_frame_equal(at3, volumetrics(r, step=3), rtol=1e-6, check_exact=False)
    assert volumetrics(deck, state={"only": state_of(r, 0)}).attrs["scenarios"] == ["only"]


# Decks whose initial state kavra.equil computes, and the Flow runs of them with a region report
DECKS = {"DOME": "DOME_FIP", "DOME2": "DOME2_FIP", "TWOREGIONS": "TWOREGIONS", "SPE1CASE1": "SPE1CASE1",
         "SPE9": "SPE9_FIP"}


@pytest.fixture(scope="module")
def deck_case(flow_run):
    return {name: kavra.results.read(flow_run(run)) for name, run in DECKS.items()}


@pytest.mark.parametrize("name", DECKS)
def test_a_decks_initial_state_is_flows_step_0(deck_case, name):
    r = deck_case[name]
    deck = kavra.deck.read(r.case.with_suffix(".DATA"))
    table = volumetrics(deck)  # the initial state of kavra.equil
    assert table.attrs["source"] == "deck"
    by_region = per_region(table)
    fipnum = r.cell_property("FIPNUM")
    numbers = np.array([int(n) for n in by_region.index])
    for array, columns in FLUID_SUMS.items():
        flow = kavra.region_totals(r.cell_property(array, 0), fipnum)[numbers - 1]
        np.testing.assert_allclose(by_region[list(columns)].sum(axis=1), flow, rtol=1e-6, err_msg=f"{name} {array}")
    report = prt_regions(r.case.with_suffix(".PRT"))
    assert set(report) == set(numbers.tolist()), "a region report per FIPNUM region (RPTSOL 'FIP=2')"
    for region, (porv, printed) in report.items():
        row = by_region.loc[str(region)]
        ours = [row.STOIIP, row.ASSOCIATEDOIL, row.STOIIP + row.ASSOCIATEDOIL, row.WIIP, row.GIIP,
                row.ASSOCIATEDGAS, row.GIIP + row.ASSOCIATEDGAS, row.PORV]
        # Flow prints whole numbers (0.5 is the rounding) of its double-precision state, as kavra.equil's
        np.testing.assert_allclose(ours, printed + [porv], rtol=1e-7, atol=0.5, err_msg=f"{name} region {region}")
    if name == "DOME":  # the dome's gas cap: free gas in the gas rows, and oil rows without it
        assert rows(table)[rows(table).FLUID == "gas"].GIIP.sum() > 0
        assert (table[table.FLUID == "oil"].GIIP == 0).all()


def test_contact_scenarios_are_one_long_table(deck_case):
    deck = kavra.deck.read(deck_case["DOME"].case.with_suffix(".DATA"))
    owc = [np.nan, 2040.0]  # the deck's own contacts, then the oil-water contact raised to 2040 m everywhere
    names = ["deck", "OWC 2040 m"]
    states = kavra.equil.initial_state(deck, contacts=[(w, np.nan) for w in owc])
    long = volumetrics(deck, state=zip(names, states), zones={"Top": (1, 2), "Rest": (3, deck.grid.nK)})
    assert list(long.columns[:4]) == ["SCENARIO", "FLUID", "ZONE", "REGION"]
    assert long.SCENARIO.unique().tolist() == names and long.attrs["scenarios"] == names
    first = long[long.SCENARIO == "deck"].drop(columns="SCENARIO").reset_index(drop=True)
    pd.testing.assert_frame_equal(first, volumetrics(deck, zones={"Top": (1, 2), "Rest": (3, deck.grid.nK)}),
                                  rtol=1e-12)
    stoiip = long[long.ZONE == "Totals"].groupby("SCENARIO", sort=False).STOIIP.sum()
    assert stoiip["OWC 2040 m"] < stoiip["deck"]
    totals = long[long.ZONE == "Totals"].groupby("SCENARIO").PORV.sum()
    assert totals["deck"] == pytest.approx(totals["OWC 2040 m"], rel=1e-12)  # the same rock
    with pytest.raises(TypeError, match="scenario 0"):
        volumetrics(deck, state=[1.0])
    with pytest.raises(ValueError, match="no scenarios"):
        volumetrics(deck, state=iter(()))


@pytest.mark.parametrize("kwargs, error, match", [
    ({"zones": {"a": (1, 2), "b": (2, 3)}}, ValueError, "both hold layer 2"),
    ({"zones": {"a": (0, 2)}}, ValueError, "layers 1-3"),
    ({"zones": {"a": 2}}, TypeError, "pair"),
    ({"regions": np.ones(5, dtype=int)}, ValueError, "5 numbers for a grid of 300"),
    ({"regions": np.full(300, 1.5)}, ValueError, "integers"),
    ({"regions": "NOSUCH"}, KeyError, "NOSUCH"),
    ({"step": None}, TypeError, "step="),
    ({"step": 99}, KeyError, "report step 99"),
    ({"step": 0, "state": {}}, TypeError, "state= is for a deck"),
])
def test_bad_arguments(case, kwargs, error, match):
    kwargs = {"step": 0, **kwargs}
    with pytest.raises(error, match=match):
        volumetrics(case["SPE1CASE1"], **kwargs)


def test_the_docstring_examples():
    module = importlib.import_module("kavra._volumetrics")
    failures, tried = doctest.testmod(module, optionflags=doctest.NORMALIZE_WHITESPACE)
    assert tried > 5 and failures == 0
    assert module.VALUE_COLUMNS == tuple(VALUE_COLUMNS)
    for name in module.__all__:
        if callable(getattr(module, name)):
            doc = inspect.cleandoc(getattr(module, name).__doc__)
            assert "\nParameters\n----------\n" in doc and "\nExamples\n--------\n" in doc, name


def test_a_table_of_too_many_rows_is_refused(case, monkeypatch):
    monkeypatch.setattr(importlib.import_module("kavra._volumetrics"), "_MOST_ROWS", 1000)  # the real bound: 2**26
    numbers = np.arange(300) * 10**6 + 1  # large numbers, each cell its own
    with pytest.raises(ValueError, match="300 zones x 300 regions"):
        volumetrics(case["SPE1CASE1"], step=0, regions=numbers, zones=numbers)


@pytest.mark.parametrize("text, match", [("'a' 1-2\nb 3\n", "line 2"), ("'a' 1-2\n'a' 3-3\n", "twice"),
                                         ("-- nothing\n", "no zone")])
def test_bad_zone_files(tmp_path, text, match):
    path = tmp_path / "zones.lyr"
    path.write_text(text)
    with pytest.raises(ValueError, match=match):
        read_zones(path)


# --- the command line ------------------------------------------------------------------------

def kavra_cli(*arguments, cwd=None):
    return subprocess.run([sys.executable, "-m", "kavra", *map(str, arguments)], capture_output=True, text=True,
                          cwd=cwd, timeout=300, env={**os.environ, "MPLBACKEND": "Agg"})


def test_the_console_script_is_installed():
    script = pathlib.Path(sys.executable).with_name("kavra")
    done = subprocess.run([str(script), "--help"], capture_output=True, text=True, timeout=60)
    assert done.returncode == 0 and "volumetrics" in done.stdout


@pytest.mark.parametrize("command", ["info", "volumetrics", "map"])
def test_help_shows_an_example(command):
    done = kavra_cli(command, "--help")
    assert done.returncode == 0 and f"kavra {command} run/SPE1CASE1" in done.stdout
    assert f"kavra {command} " in kavra_cli("--help").stdout


def test_info(case):
    done = kavra_cli("info", case["TWOREGIONS"].case)
    assert done.returncode == 0, done.stderr
    assert "8 x 6 x 3 = 144 cells, 144 active" in done.stdout and "METRIC" in done.stdout
    assert "0 (2020-01-01)" in done.stdout and "PRESSURE" in done.stdout and "PVTO (2 regions)" in done.stdout


def test_a_deck_on_the_command_line(tmp_path):
    deck = kavra.deck.example_path("SPE1CASE1")
    info = kavra_cli("info", deck)
    assert info.returncode == 0 and "10 x 10 x 3 = 300 cells, 300 active" in info.stdout and "FIELD" in info.stdout
    done = kavra_cli("map", deck, "PORO", "--reduce", "mean", "-o", tmp_path / "poro.npy")
    assert done.returncode == 0, done.stderr
    np.testing.assert_array_equal(np.load(tmp_path / "poro.npy"),
                                  kavra.column_map(kavra.deck.read(deck).cell_property("PORO"), (10, 10, 3), "mean"))
    done = kavra_cli("volumetrics", deck, "-o", tmp_path / "initial.csv")  # the initial state of kavra.equil
    assert done.returncode == 0, done.stderr
    back = pd.read_csv(tmp_path / "initial.csv", dtype={"REGION": str, "ZONE": str}, engine="python")
    pd.testing.assert_frame_equal(back, volumetrics(deck), rtol=1e-15)
    no_equil = tmp_path / "NOEQUIL.DATA"  # a deck without the initial state: one line, status 2
    no_equil.write_text(deck.read_text().replace("EQUIL\n\t8400 4800 8450 0 8300 0 1 0 0 /\n", ""))
    done = kavra_cli("volumetrics", no_equil)
    assert done.returncode == 2 and "no initial state: initial_state: the deck has no EQUIL" in done.stderr
    assert len(done.stderr.splitlines()) == 1


def test_volumetrics_to_csv_and_back(case, tmp_path):
    r = case["TWOREGIONS"]
    (tmp_path / "zones.lyr").write_text("'Top' 1-1\n'Rest' 2-3\n")
    done = kavra_cli("volumetrics", r.case, "--step", 4, "--zones", tmp_path / "zones.lyr", "--regions", "eqlnum",
                     "-o", tmp_path / "v.csv")
    assert done.returncode == 0, done.stderr
    # The python engine reads each number with float(): exact on every pandas (the C one is not before 2.2)
    back = pd.read_csv(tmp_path / "v.csv", dtype={"REGION": str, "ZONE": str}, engine="python")
    expected = volumetrics(r, step=4, regions="EQLNUM", zones=tmp_path / "zones.lyr")
    pd.testing.assert_frame_equal(back, expected, rtol=1e-15)
    printed = kavra_cli("volumetrics", r.case)
    assert printed.returncode == 0 and "report step 0" in printed.stdout and "STOIIP sm3" in printed.stdout


def test_volumetrics_of_all_steps(case, tmp_path):
    r = case["SPE1CASE1"]
    done = kavra_cli("volumetrics", r.case, "--all-steps", "-o", tmp_path / "all.csv")
    assert done.returncode == 0, done.stderr
    assert done.stderr == ""  # no progress bar: standard error is no terminal
    back = pd.read_csv(tmp_path / "all.csv", dtype={"REGION": str, "ZONE": str}, engine="python")
    assert back.STEP.unique().tolist() == list(r.steps)
    last = back[back.STEP == r.steps[-1]].drop(columns=["STEP", "DATE"]).reset_index(drop=True)
    pd.testing.assert_frame_equal(last, volumetrics(r, step=r.steps[-1]), rtol=1e-15)


@pytest.mark.parametrize("suffix", [".npy", ".csv", ".png"])
def test_map(case, tmp_path, suffix):
    r = case["TWOREGIONS"]
    out = tmp_path / f"map{suffix}"
    done = kavra_cli("map", r.case, "PRESSURE", "--step", 2, "--reduce", "mean", "--weights", "PORV", "-o", out)
    assert done.returncode == 0, done.stderr
    expected = kavra.column_map(r.cell_property("PRESSURE", 2), r.grid, "mean", weights=r.cell_property("PORV"))
    if suffix == ".npy":
        np.testing.assert_array_equal(np.load(out), expected.filled(np.nan))
    elif suffix == ".csv":
        back = pd.read_csv(out, comment="#", dtype={"VALUE": str})  # each value read by float(): exactly
        assert len(back) == r.grid.nI * r.grid.nJ and back.I.min() == 1 and back.J.max() == r.grid.nJ
        np.testing.assert_array_equal(back.VALUE.map(float), expected.data[back.J - 1, back.I - 1])
        assert "barsa" in out.read_text().splitlines()[0]
    else:
        assert out.read_bytes()[:8] == b"\x89PNG\r\n\x1a\n"
    printed = kavra_cli("map", r.case, "PORV")
    assert printed.returncode == 0 and "PORV, sum over K [rm3]" in printed.stdout


@pytest.mark.parametrize("arguments, match", [
    (["volumetrics", "{case}", "--step", "x"], "invalid int value"),
    (["volumetrics", "{case}", "--nonsense"], "unrecognized arguments"),
    (["volumetrics", "{case}", "-o", "out.xlsx"], "FILE.csv or FILE.parquet"),
    (["volumetrics", "{case}", "--step", "99"], "report step 99"),
    (["volumetrics", "{case}", "--zones", "nofile.lyr"], "no such zone file"),
    (["map", "{case}", "NOSUCH"], "NOSUCH is not an array"),
    (["map", "{case}", "SWAT", "--reduce", "max", "--weights", "PORV"], "not max"),
    (["map", "{case}"], "required: PROPERTY"),
    (["frobnicate"], "invalid choice"),
    (["info", "nowhere/NOCASE"], "no results of a case NOCASE"),
    (["volumetrics", "nowhere/NOCASE.DATA"], "no such file"),
    (["map", "nowhere/NOCASE", "PORV"], "no results of a case"),
])
def test_bad_use_is_one_line_and_status_2(case, tmp_path, arguments, match):
    done = kavra_cli(*[a.format(case=case["SPE1CASE1"].case) for a in arguments], cwd=tmp_path)
    assert done.returncode == 2, (done.stdout, done.stderr)
    assert len(done.stderr.splitlines()) == 1 and match in done.stderr and done.stderr.startswith("kavra")
    assert not any(tmp_path.iterdir())  # nothing written


def test_all_steps_show_a_progress_bar_on_a_terminal(case, tmp_path):
    import tqdm  # noqa: F401  (a test requirement: kavra[test], requirements-dev.txt)
    import fcntl
    import pty
    import struct
    import termios

    master, terminal = pty.openpty()
    fcntl.ioctl(terminal, termios.TIOCSWINSZ, struct.pack("HHHH", 24, 100, 0, 0))
    try:
        done = subprocess.run([sys.executable, "-m", "kavra", "volumetrics", str(case["SPE1CASE1"].case), "--all-steps",
                               "-o", str(tmp_path / "all.csv")], stderr=terminal, stdout=subprocess.PIPE, timeout=300)
    finally:
        os.close(terminal)
    shown = b""
    while True:
        try:
            chunk = os.read(master, 65536)
        except OSError:  # the terminal's other end is closed: all is read
            break
        if not chunk:
            break
        shown += chunk
    os.close(master)
    assert done.returncode == 0 and b"report steps: 100%" in shown and b"7/7" in shown


def test_parquet_or_a_clear_error_without_pyarrow(case, tmp_path):
    r = case["SPE1CASE1"]
    done = kavra_cli("volumetrics", r.case, "--step", 2, "-o", tmp_path / "v.parquet")
    try:
        import pyarrow  # noqa: F401
    except ImportError:
        assert done.returncode == 2 and "needs pyarrow" in done.stderr and len(done.stderr.splitlines()) == 1
        assert not any(tmp_path.iterdir())
    else:
        assert done.returncode == 0, done.stderr
        pd.testing.assert_frame_equal(pd.read_parquet(tmp_path / "v.parquet"), volumetrics(r, step=2))


def test_the_example_runs(tmp_path):
    import runpy

    example = runpy.run_path(str(pathlib.Path(__file__).resolve().parent.parent / "examples/volumetrics.py"))
    example["main"](["--png", str(tmp_path / "v.png"), "--keep", str(tmp_path / "run")])
    assert {p.name for p in tmp_path.glob("*.png")} == {"v.png", "volumetrics_map.png"}
