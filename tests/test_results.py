"""kavra.results on Flow's output for SPE1 and SPE3 (inactive cells), against what opm.io.ecl reads."""

import runpy
import shutil
import struct

import numpy as np
import pytest

import kavra.deck
from conftest import ROOT
from flow_cases import CASES, flow_case, flow_run  # noqa: F401  (fixtures)

ecl = pytest.importorskip("opm.io.ecl")
results = pytest.importorskip("kavra.results", reason="resfo is not installed (pip install '.[results]')")

EVERY_CASE = pytest.mark.parametrize("flow_case", [name for name in CASES if name.startswith("SPE")], indirect=True)
NUMERIC = {ecl.eclArrType.INTE, ecl.eclArrType.REAL, ecl.eclArrType.DOUB, ecl.eclArrType.LOGI}


@EVERY_CASE
def test_every_cell_array_is_the_one_opm_reads(flow_case):
    r = results.read(flow_case)
    init, restart = ecl.EclFile(f"{flow_case}.INIT"), ecl.ERst(f"{flow_case}.UNRST")
    active = ecl.EclFile(f"{flow_case}.EGRID")["ACTNUM"] != 0
    assert r.grid.number_of_cells() == active.size and r.steps == tuple(restart.report_steps)
    assert np.array_equal(r.active, active) and r.units == kavra.deck.read(f"{flow_case}.DATA").units
    sizes = (active.size, active.sum())
    for step, arrays in [(None, init.arrays), *((step, restart.arrays(step)) for step in restart.report_steps)]:
        names = [name for name, kind, size in arrays if kind in NUMERIC and size in sizes]
        assert sorted(r.property_names(step)) == sorted(names)
        for name in names:
            ours = r.cell_property(name, step)
            theirs = init[name] if step is None else restart[name, step]
            assert ours.dtype == theirs.dtype and ours.dtype.isnative and ours.shape == active.shape
            assert np.array_equal(np.ma.getmaskarray(ours), ~active)
            assert np.array_equal(ours.compressed(), theirs[active] if theirs.size == active.size else theirs)


@EVERY_CASE
def test_summary_vectors_and_dates_are_the_ones_opm_reads(flow_case):
    r, smry = results.read(flow_case), ecl.ESmry(f"{flow_case}.SMSPEC")
    assert sorted(r.summary_keys) == sorted(smry.keys())
    dates = np.array(smry.dates(), dtype="datetime64[s]")
    for key in smry.keys():
        got = r.summary(key)
        assert np.array_equal(got.dates, dates) and r.summary_units[key] == smry.units(key)
        assert got.values.dtype == np.float32 and np.array_equal(got.values, smry[key])
    # the report steps fall on dates of the summary; step 0 is the start
    assert r.dates[0] == np.datetime64(smry.start_date) and np.isin(r.dates[1:], dates).all()
    assert (np.diff(r.dates) > np.timedelta64(0)).all()


def test_flow_took_cells_through_both_states(flow_run):
    """SPE1: undersaturated oil at the start; gas and cells at their bubble point later."""
    r = results.read(flow_run("SPE1CASE1"))
    first, last = r.steps[0], r.steps[-1]
    assert r.cell_property("SGAS", first).max() == 0
    assert (r.cell_property("PRESSURE", first) > r.cell_property("PBUB", first)).all()
    saturated = r.cell_property("SGAS", last) > 0
    assert 0 < saturated.sum() < saturated.size


def test_a_file_per_report_step_reads_as_the_unified_files(flow_run):
    unified, split = results.read(flow_run("SPE1CASE1")), results.read(flow_run("SPE1CASE1", unified=False))
    assert split.files["RESTART"].name == "SPE1CASE1.X0000" and split.files["SUMMARY"].name == "SPE1CASE1.S0001"
    assert split.steps == unified.steps and np.array_equal(split.dates, unified.dates)
    for step in split.steps:
        assert split.property_names(step) == unified.property_names(step)
        for name in split.property_names(step):
            assert np.array_equal(split.cell_property(name, step), unified.cell_property(name, step))
    for key in unified.summary_keys:
        assert all(map(np.array_equal, split.summary(key), unified.summary(key)))


@pytest.mark.parametrize("name", ["SPE1CASE1", "SPE1CASE1.UNRST", "SPE1CASE1.EGRID", "SPE1CASE1.DATA"])
def test_a_case_is_named_by_its_base_name_or_any_of_its_files(flow_run, name):
    case = flow_run("SPE1CASE1")
    assert results.read(case.parent / name).case == case


def test_reading_opens_headers_and_a_call_reads_its_array_once(flow_run, monkeypatch):
    reads = []
    real = results._read_into
    monkeypatch.setattr(results, "_read_into", lambda array, out: (reads.append(array.length), real(array, out)))
    r = results.read(flow_run("SPE3CASE1"))
    assert reads == []
    r.cell_property("SWAT", r.steps[-1])
    assert reads == [324, 316]  # ACTNUM (read once), then SWAT's active cells
    r.cell_property("PORV")
    assert reads == [324, 316, 324]


@pytest.mark.parametrize("call, error, words", [
    (lambda r: r.cell_property("PRESURE", 2), KeyError, "PRESURE is not an array with a value per cell in "
                                                         "SPE1CASE1.UNRST at report step 2; those with one: "
                                                         "1OVERBG, 1OVERBO"),
    (lambda r: r.cell_property("TAB"), KeyError, "TAB is not an array with a value per cell in SPE1CASE1.INIT"),
    (lambda r: r.cell_property("SWAT", 7), KeyError, "report step 7 is not in the restart file SPE1CASE1.UNRST: "
                                                     "its report steps are 0, 1, 2, 3, 4, 5, 6"),
    (lambda r: r.cell_property("SWAT", 2.0), TypeError, "step must be an integer report step or None, not float"),
    (lambda r: r.summary("FOPX"), KeyError, "FOPX is not a summary vector of SPE1CASE1.SMSPEC; those it has: "
                                            "TIME, YEARS, BPR:1,1,1"),
])
def test_unknown_names_and_steps_list_what_there_is(flow_run, call, error, words):
    with pytest.raises(error, match="^'?" + words.replace(".", r"\.")):
        call(results.read(flow_run("SPE1CASE1")))


@pytest.mark.parametrize("keep, damage, error, words", [
    ((), None, FileNotFoundError, r"no results of a case SPE1CASE1 in .*: no SPE1CASE1.EGRID, .INIT, .UNRST or "
                                  r".SMSPEC there.  The cases there: OTHER \(EGRID\)"),
    (("EGRID", "UNRST"), None, FileNotFoundError, r"SPE1CASE1.INIT does not exist \(the case has: "
                                                  r"SPE1CASE1.EGRID, SPE1CASE1.UNRST\)"),
    (("EGRID", "INIT", "UNRST"), "UNRST", ValueError, r"SPE1CASE1.UNRST is not an unformatted result file, or it "
                                                      r"is cut short"),
    (("EGRID", "INIT", "UNRST"), "INIT", ValueError, r"SPE1CASE1.INIT has changed since kavra.results.read "
                                                     r"opened it \(its size or modification time differ\)"),
])
def test_missing_and_damaged_files(flow_run, tmp_path, keep, damage, error, words):
    case = flow_run("SPE1CASE1")
    shutil.copy(f"{case}.EGRID", tmp_path / "OTHER.EGRID")
    for extension in keep:
        shutil.copy(f"{case}.{extension}", tmp_path / f"SPE1CASE1.{extension}")
    if damage == "UNRST":  # cut inside an array header
        (tmp_path / "SPE1CASE1.UNRST").write_bytes((tmp_path / "SPE1CASE1.UNRST").read_bytes()[:-10_000 - 5])
    with pytest.raises(error, match=words):
        r = results.read(tmp_path / "SPE1CASE1")
        if damage == "INIT":  # cut inside the values of the last cell array after read(): found when read
            data = (tmp_path / "SPE1CASE1.INIT").read_bytes()
            last = r._init["PVTNUM"]
            (tmp_path / "SPE1CASE1.INIT").write_bytes(data[:last.offset + 100])
            r.cell_property("PVTNUM")
        r.cell_property("PORV")


def test_the_flow_example_draws_its_maps(flow_run, tmp_path, capsys):
    flow_run("SPE1CASE1")  # skips where Flow is missing
    png = tmp_path / "flow_case.png"
    runpy.run_path(str(ROOT / "examples/flow_case.py"))["main"](["--png", str(png)])
    data = png.read_bytes()
    assert data[:8] == b"\x89PNG\r\n\x1a\n" and struct.unpack(">II", data[16:24])[0] > 1000
    assert f"Figure written to {png}" in capsys.readouterr().out
