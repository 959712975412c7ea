"""kavra.results on the output of the ECLIPSE family (E100, E300, IX; tests/data/eclipse) and on files
written here with resfo where those lack a layout: every array against resfo's reading of the same file."""

import os
import shutil
import threading

import numpy as np
import pytest

import kavra
from conftest import ROOT

resfo = pytest.importorskip("resfo")
results = pytest.importorskip("kavra.results", reason="resfo is not installed (pip install '.[results]')")
from kavra import blackoil  # noqa: E402

DATA = ROOT / "tests" / "data" / "eclipse"
NUMERIC = {"int32", "float32", "float64", "bool"}


def arrays_of(path):
    """resfo's reading of a file: (name, values) in file order, names stripped."""
    return [(name.strip(), values) for name, values in resfo.read(path)]


def active_cells(egrid, dual):
    actnum = dict(arrays_of(egrid))["ACTNUM"]
    return np.concatenate([(actnum & 1) != 0, (actnum & 2) != 0]) if dual else actnum != 0


def per_step(path):
    """resfo's reading of a unified restart: {report step: {name: values}} (first of each name)."""
    steps, step = {}, None
    for name, values in arrays_of(path):
        if name == "SEQNUM":
            step = steps.setdefault(int(values[0]), {})
        step.setdefault(name, values)
    return steps


def assert_placed(ours, theirs, active, cellid):
    """ours (kavra) holds resfo's values in their cells, masked at the others, in the file's type."""
    assert ours.dtype == theirs.dtype.newbyteorder("=") and ours.dtype.isnative and ours.shape == active.shape
    if theirs.size == active.size:
        held = active
        assert np.array_equal(ours.data[held], theirs[held])
    elif cellid is not None and theirs.size == cellid.size:
        held = np.zeros(active.size, dtype=bool)
        held[cellid - 1] = True
        assert np.array_equal(ours.data[cellid - 1], theirs)
    else:
        held = active
        assert np.array_equal(ours.compressed(), theirs)
    assert np.array_equal(np.ma.getmaskarray(ours), ~held)


CASES = [("E100_BO", False), ("E300_BO", False), ("IX_BO", False), ("TEST_DP", True), ("E100_BO.FINIT", False)]


@pytest.mark.parametrize("name, dual", CASES)
def test_every_cell_array_is_the_one_resfo_reads(name, dual):
    r = results.read(DATA / name)
    base = name.split(".")[0]
    init_file = DATA / name if "." in name else DATA / f"{base}.INIT"
    assert r.files["INIT"] == init_file and r.dual_porosity is dual
    active = active_cells(r.files["EGRID"], dual)
    assert np.array_equal(r.active, active) and r.units == "METRIC"
    init = arrays_of(init_file)
    cellid = dict(init).get("CELLID")
    sizes = {active.size, int(active.sum())} | ({cellid.size} if cellid is not None else set())
    restart = per_step(DATA / f"{base}.UNRST")
    assert r.steps == tuple(restart)
    for step, arrays in [(None, init), *((step, list(a.items())) for step, a in restart.items())]:
        names = list(dict.fromkeys(n for n, v in arrays if getattr(v, "dtype", None) is not None
                                   and v.dtype.newbyteorder("=").name in NUMERIC and v.size in sizes))
        assert len(names) > 3 and list(r.property_names(step)) == names
        first = dict(reversed(arrays))
        for array in names:
            assert_placed(r.cell_property(array, step), first[array], active, cellid)


def test_dual_porosity_grid_halves_maps_and_repr():
    r = results.read(DATA / "TEST_DP")
    ni, nj, nk = r.grid
    assert (ni, nj, nk) == (5, 3, 2) and r.grid.number_of_cells() == 30
    assert repr(r).startswith("<kavra.results.Results TEST_DP 5x3x2 METRIC (dual porosity: 1 matrix layers, "
                              "then 1 fracture layers), 24 active cells")
    porv = r.cell_property("PORV")
    matrix, fracture = porv[:porv.size // 2], porv[porv.size // 2:]
    actnum = dict(arrays_of(DATA / "TEST_DP.EGRID"))["ACTNUM"]
    assert np.array_equal(matrix.mask, actnum & 1 == 0) and np.array_equal(fracture.mask, actnum & 2 == 0)
    half = (ni, nj, nk // 2)
    np.testing.assert_array_equal(kavra.column_map(fracture, half).filled(np.nan),
                                  fracture.reshape(nj, ni).astype(float).filled(np.nan))
    both = kavra.column_map(porv, r.grid)  # matrix and fracture of a column together
    np.testing.assert_allclose(both.filled(0), matrix.filled(0).reshape(nj, ni) + fracture.filled(0).reshape(nj, ni),
                               rtol=1e-7)


def write_dual_porosity_case(tmp_path, rng):
    """A dual-porosity case of 4 x 3 x 5 cells, each ACTNUM bit at random, values per active cell."""
    ni, nj, nz = 4, 3, 5
    n = ni * nj * nz
    actnum = rng.integers(0, 4, n).astype(np.int32)
    active = np.concatenate([(actnum & 1) != 0, (actnum & 2) != 0])
    filehead = np.zeros(100, np.int32)
    filehead[[0, 1, 5]] = [3, 2024, 1]
    gridhead = np.zeros(100, np.int32)
    gridhead[:4] = [1, ni, nj, nz]
    resfo.write(tmp_path / "DP.EGRID", [("FILEHEAD", filehead), ("GRIDHEAD", gridhead), ("ACTNUM  ", actnum),
                                        ("ENDGRID ", np.zeros(0, np.int32))])
    header = np.zeros(411, np.int32)
    header[[2, 8, 9, 10, 11, 64, 65, 66]] = [1, ni, nj, 2 * nz, active.sum(), 1, 1, 2024]
    logihead = np.zeros(121, bool)
    logihead[14] = True
    per_cell = {name: rng.uniform(0.1, 1.0, active.sum()).astype(np.float32) for name in ("PORO", "DX")}
    porv = np.where(active, rng.uniform(10.0, 20.0, 2 * n), 0.0).astype(np.float32)
    resfo.write(tmp_path / "DP.INIT", [("INTEHEAD", header), ("LOGIHEAD", logihead), ("PORV    ", porv),
                                       *((f"{k:8}", v) for k, v in per_cell.items()),
                                       ("PVTNUM  ", np.ones(active.sum(), np.int32))])
    solution = {name: rng.uniform(lo, hi, active.sum()).astype(np.float32) for name, lo, hi in [
        ("PRESSURE", 200, 300), ("SWAT", 0.1, 0.4), ("SGAS", 0.0, 0.3), ("RS", 50, 100), ("RV", 0, 1e-4),
        ("1OVERBO", 0.7, 0.9), ("1OVERBG", 100, 200), ("1OVERBW", 0.95, 1.0), ("RPORV", 10, 20)]}
    resfo.write(tmp_path / "DP.UNRST", [("SEQNUM  ", np.int32([0])), ("INTEHEAD", header),
                                        *((f"{k:8}", v) for k, v in solution.items())])
    return tmp_path / "DP", active, solution


def test_a_larger_dual_porosity_case_masks_each_cell_by_its_own_bit_and_its_halves_hold_in_place(tmp_path):
    case, active, solution = write_dual_porosity_case(tmp_path, np.random.default_rng(27))
    r = results.read(case)
    assert r.dual_porosity and tuple(r.grid) == (4, 3, 10) and np.array_equal(r.active, active)
    for name, values in solution.items():
        assert_placed(r.cell_property(name, 0), values, active, None)
    fluids = r.in_place(0)  # no deck: the restart's own 1/B and RPORV
    n = active.size // 2
    for half in (slice(0, n), slice(n, None)):
        own = {name: r.cell_property(name, 0)[half] for name in solution}
        expected = blackoil.in_place_from_arrays(own["RPORV"], own["SWAT"], own["SGAS"], own["1OVERBO"],
                                                 own["1OVERBG"], own["1OVERBW"], own["RS"], own["RV"])
        for got, want in zip(fluids, expected):
            assert np.array_equal(np.ma.getmaskarray(got[half]), ~active[half])
            np.testing.assert_array_equal(got[half].compressed(), want.compressed())
        map_of_half = kavra.column_map(fluids.oil[half], (4, 3, 5))
        np.testing.assert_allclose(map_of_half.filled(np.nan),
                                   fluids.oil[half].reshape(5, 3, 4).sum(axis=0).filled(np.nan), rtol=1e-12)


def test_ix_counts_that_disagree_without_cellid_say_which(tmp_path):
    for extension in ("EGRID", "UNRST"):
        shutil.copy(DATA / f"IX_BO.{extension}", tmp_path)
    resfo.write(tmp_path / "IX_BO.INIT", [(f"{n:8}", v) for n, v in arrays_of(DATA / "IX_BO.INIT") if n != "CELLID"])
    r = results.read(tmp_path / "IX_BO")
    for step in (None, 1):
        with pytest.raises(ValueError, match=r"holds values for 22 active cells \(its INTEHEAD\), where the ACTNUM "
                                             r"of IX_BO.EGRID marks 23 of 24 cells active, and it names no cells"):
            r.property_names(step)


@pytest.mark.parametrize("cellid, words", [
    (np.r_[0, np.arange(2, 23)].astype(np.int32), r"CELLID holds numbers that are not distinct cells of 1..24"),
    (np.r_[np.arange(1, 22), 25].astype(np.int32), r"CELLID holds numbers that are not distinct cells of 1..24"),
    (np.r_[np.arange(1, 22), 21].astype(np.int32), r"CELLID holds numbers that are not distinct cells of 1..24"),
    (np.arange(1, 23, dtype=np.float32), r"CELLID holds 22 values of type REAL, not integer cell numbers"),
])
def test_a_cellid_that_names_no_cells_says_so(tmp_path, cellid, words):
    shutil.copy(DATA / "IX_BO.EGRID", tmp_path)
    resfo.write(tmp_path / "IX_BO.INIT", [(n, cellid if n.strip() == "CELLID" else v)
                                          for n, v in resfo.read(DATA / "IX_BO.INIT")])
    with pytest.raises(ValueError, match=words):
        results.read(tmp_path / "IX_BO").cell_property("PORO")


def test_formatted_files_are_read_bit_for_bit_and_a_path_names_the_file_it_opens(tmp_path):
    formatted, binary = results.read(DATA / "E100_BO.FINIT"), results.read(DATA / "E100_BO.INIT")
    assert formatted.files["INIT"].name == "E100_BO.FINIT" and formatted.files["EGRID"].name == "E100_BO.FEGRID"
    assert formatted.files["RESTART"].name == "E100_BO.UNRST"  # no formatted restart: the unformatted one
    assert binary.files["INIT"].name == "E100_BO.INIT" and binary.files["EGRID"].name == "E100_BO.EGRID"
    assert results.read(DATA / "E100_BO").files == binary.files
    assert formatted.property_names() == binary.property_names()
    for name in binary.property_names():  # the FINIT writes 8 digits, where float32 may need 9 (PERMX)
        ours, theirs = formatted.cell_property(name), binary.cell_property(name)
        assert ours.dtype == theirs.dtype and np.array_equal(ours.mask, theirs.mask)
        np.testing.assert_allclose(ours, theirs, rtol=1.2e-7)
    with pytest.raises(FileNotFoundError, match="E300_BO.FINIT does not exist"):
        results.read(DATA / "E300_BO.FINIT")
    # a formatted restart and summary: read the same as the unformatted ones
    for extension in ("EGRID", "INIT"):
        shutil.copy(DATA / f"IX_BO.{extension}", tmp_path)
    resfo.write(tmp_path / "IX_BO.FUNRST", resfo.read(DATA / "IX_BO.UNRST"), resfo.Format.FORMATTED)
    case = write_summary(tmp_path, "IX_BO", names="NAMES", form=resfo.Format.FORMATTED)
    text, unformatted = results.read(case.with_suffix(".FUNRST")), results.read(DATA / "IX_BO")
    assert text.files["RESTART"].name == "IX_BO.FUNRST" and text.files["SMSPEC"].name == "IX_BO.FSMSPEC"
    assert text.steps == unformatted.steps and np.array_equal(text.dates, unformatted.dates)
    for name in unformatted.property_names(1):
        ours, theirs = text.cell_property(name, 1), unformatted.cell_property(name, 1)
        assert ours.dtype == theirs.dtype and np.array_equal(ours, theirs) and np.array_equal(ours.mask, theirs.mask)
    assert np.array_equal(text.summary("WOPR:OP_1").values, np.float32([10.0, 20.0, 30.0]))


def test_formatted_files_of_each_report_step_read_as_the_unified_ones(tmp_path):
    """CASE.F0000, CASE.F0001 (a restart file per report step, no SEQNUM) and CASE.A0001, CASE.A0002."""
    shutil.copy(DATA / "IX_BO.EGRID", tmp_path)
    shutil.copy(DATA / "IX_BO.INIT", tmp_path)
    steps = []
    for name, values in resfo.read(DATA / "IX_BO.UNRST"):
        if name.strip() == "SEQNUM":
            steps.append([])
        else:
            steps[-1].append((name, values))
    for number, arrays in enumerate(steps):
        resfo.write(tmp_path / f"IX_BO.F{number:04}", arrays, resfo.Format.FORMATTED)
    case = write_summary(tmp_path, "IX_BO", form=resfo.Format.FORMATTED)
    records = resfo.read(case.with_suffix(".FUNSMRY"), resfo.Format.FORMATTED)
    case.with_suffix(".FUNSMRY").unlink()
    for number in (1, 2, 3):  # a file per report step: its MINISTEP and PARAMS
        resfo.write(tmp_path / f"IX_BO.A{number:04}", records[2 * number - 1:2 * number + 1], resfo.Format.FORMATTED)
    split, unified = results.read(tmp_path / "IX_BO.F0001"), results.read(DATA / "IX_BO")
    assert split.files["RESTART"].name == "IX_BO.F0000" and split.files["SUMMARY"].name == "IX_BO.A0001"
    assert split.steps == unified.steps == (0, 1) and np.array_equal(split.dates, unified.dates)
    for step in split.steps:
        assert split.property_names(step) == unified.property_names(step)
        for name in split.property_names(step):
            assert np.array_equal(split.cell_property(name, step), unified.cell_property(name, step))
    assert np.array_equal(split.summary("FOPR").values, np.float32([100.0, 200.0, 300.0]))


def test_an_egrid_alone_has_its_units_active_cells_and_a_grid_that_unpacks(tmp_path):
    shutil.copy(DATA / "E100_BO.EGRID", tmp_path)
    r = results.read(tmp_path / "E100_BO")
    ni, nj, nk = r.grid
    assert (ni, nj, nk) == (4, 2, 3) and r.units == "METRIC" and int(r.active.sum()) == 22
    assert repr(r) == "<kavra.results.Results E100_BO 4x2x3 METRIC, 22 active cells>"


# -- summaries -------------------------------------------------------------------------------

def write_summary(directory, case, names="WGNAMES", form=resfo.Format.UNFORMATTED, keywords=None,
                  startdat=(1, 1, 2022), steps=3):
    """A summary of TIME, FOPR and WOPR:OP_1 over `steps` time steps: SMSPEC and UNSMRY (or formatted)."""
    keywords = ["TIME", "FOPR", "WOPR"] if keywords is None else keywords
    header = [("DIMENS  ", np.int32([len(keywords), 4, 2, 3, 0, -1])),
            ("KEYWORDS", np.array([f"{k:8}" for k in keywords], dtype="S8")),
            (f"{names:8}", np.array([f"{w:8}" for w in (":+:+:+:+", ":+:+:+:+", "OP_1")], dtype="S8")),
            ("NUMS    ", np.int32([0, 0, 0])), ("UNITS   ", np.array([b"DAYS    ", b"SM3/DAY ", b"SM3/DAY "])),
            ("STARTDAT", np.int32(startdat))]
    values = [("SEQHDR  ", np.int32([0]))]
    for step in range(steps):
        values += [("MINISTEP", np.int32([step])),
                   ("PARAMS  ", np.float32([step + 1.0, 100.0 * (step + 1), 10.0 * (step + 1)]))]
    formatted = form == resfo.Format.FORMATTED
    resfo.write(directory / f"{case}.{'FSMSPEC' if formatted else 'SMSPEC'}", header, form)
    resfo.write(directory / f"{case}.{'FUNSMRY' if formatted else 'UNSMRY'}", values, form)
    return directory / case


@pytest.mark.parametrize("names", ["WGNAMES", "NAMES"])
def test_a_summary_names_its_wells_in_wgnames_or_names(tmp_path, names):
    shutil.copy(DATA / "E100_BO.INIT", tmp_path)
    r = results.read(write_summary(tmp_path, "E100_BO", names))
    assert r.summary_keys == ("TIME", "FOPR", "WOPR:OP_1") and r.summary_units["WOPR:OP_1"] == "SM3/DAY"
    dates, values = r.summary("WOPR:OP_1")
    assert np.array_equal(values, np.float32([10.0, 20.0, 30.0]))
    assert np.array_equal(dates, np.array(["2022-01-02", "2022-01-03", "2022-01-04"], dtype="datetime64[s]"))


@pytest.mark.parametrize("damage, words", [
    ("no names", r"E100_BO.SMSPEC lacks WGNAMES \(or NAMES\)"),
    ("no keywords", r"E100_BO.SMSPEC lacks KEYWORDS"),
    ("cut short", r"E100_BO.UNSMRY is not an unformatted result file, or it is cut short"),
    ("bad start", r"E100_BO.SMSPEC: the date of its STARTDAT is not a date: day 1, month 13, year 2022"),
])
def test_a_damaged_summary_hides_nothing_else_and_says_what_is_wrong(tmp_path, damage, words):
    for extension in ("EGRID", "INIT", "UNRST"):
        shutil.copy(DATA / f"E100_BO.{extension}", tmp_path)
    case = write_summary(tmp_path, "E100_BO", "XNAMES" if damage == "no names" else "WGNAMES",
                         keywords=["TIME", "FOPR"] if damage == "no keywords" else None,
                         startdat=(1, 13, 2022) if damage == "bad start" else (1, 1, 2022))
    if damage == "no keywords":  # an SMSPEC without KEYWORDS at all
        resfo.write(case.with_suffix(".SMSPEC"), [(n, v) for n, v in resfo.read(case.with_suffix(".SMSPEC"))
                                                  if n != "KEYWORDS"])
    if damage == "cut short":  # inside the values of the last record
        data = case.with_suffix(".UNSMRY").read_bytes()
        case.with_suffix(".UNSMRY").write_bytes(data[:-6])
    r = results.read(case)
    assert r.cell_property("PRESSURE", 1).count() == 22 and r.grid.number_of_cells() == 24
    with pytest.raises(ValueError, match=words):
        r.summary("FOPR")


def test_a_report_step_without_a_date_says_which(tmp_path):
    shutil.copy(DATA / "IX_BO.EGRID", tmp_path)
    arrays = resfo.read(DATA / "IX_BO.UNRST")
    header = next(v for n, v in arrays[::-1] if n.strip() == "INTEHEAD")  # the last step's
    header[65] = 13
    resfo.write(tmp_path / "IX_BO.UNRST", arrays)
    with pytest.raises(ValueError, match=r"report step 1 of IX_BO.UNRST: the date of its INTEHEAD is not a date: "
                                         r"day \d+, month 13, year \d+"):
        results.read(tmp_path / "IX_BO").dates


# -- files rewritten, and threads ------------------------------------------------------------

@pytest.mark.parametrize("form", [resfo.Format.UNFORMATTED, resfo.Format.FORMATTED])
@pytest.mark.parametrize("rewrite", ["reordered, same size and time", "grown", "touched"])
def test_a_file_rewritten_after_read_is_an_error_that_names_it(tmp_path, rewrite, form):
    shutil.copy(DATA / "IX_BO.EGRID", tmp_path)
    init = tmp_path / ("IX_BO.FINIT" if form == resfo.Format.FORMATTED else "IX_BO.INIT")
    resfo.write(init, resfo.read(DATA / "IX_BO.INIT"), form)
    r = results.read(init)
    before = init.stat()
    arrays = resfo.read(init, form)
    if rewrite.startswith("reordered"):  # PERMX and PORO change places: same types and sizes
        names = [n.strip() for n, _ in arrays]
        i, j = names.index("PERMX"), names.index("PORO")
        arrays[i], arrays[j] = arrays[j], arrays[i]
    elif rewrite == "grown":
        arrays.append(("EXTRA   ", np.zeros(5, np.int32)))
    resfo.write(init, arrays, form)
    if rewrite != "grown":
        os.utime(init, ns=(before.st_atime_ns, before.st_mtime_ns + (10**9 if rewrite == "touched" else 0)))
    with pytest.raises(ValueError, match=f"{init} has changed since kavra.results.read opened it"):
        r.cell_property("PERMX")


def test_a_summary_cut_short_after_it_was_read_names_its_file(tmp_path):
    shutil.copy(DATA / "E100_BO.INIT", tmp_path)
    case = write_summary(tmp_path, "E100_BO")
    r = results.read(case)
    assert r.summary("FOPR").values.size == 3  # the records are found now, and kept
    unsmry = case.with_suffix(".UNSMRY")
    unsmry.write_bytes(unsmry.read_bytes()[:-30])
    with pytest.raises(ValueError, match=f"{unsmry} has changed since kavra.results.read opened it"):
        r.summary("FOPR")


def test_threads_reading_the_first_array_wait_for_the_whole_mask(monkeypatch):
    """One thread is held inside the making of the inactive cells' bits while another reads an array."""
    r = results.read(DATA / "E100_BO")
    real, first = np.packbits, threading.Event()
    second_done = threading.Event()

    def held(*args, **kwargs):
        if not first.is_set():
            first.set()
            second_done.wait(timeout=2.0)  # the other reader runs now (or waits for the case's lock)
        return real(*args, **kwargs)

    monkeypatch.setattr(np, "packbits", held)
    got = {}
    one = threading.Thread(target=lambda: got.__setitem__(1, r.cell_property("PORO")))
    one.start()
    assert first.wait(timeout=10.0)
    two = threading.Thread(target=lambda: (got.__setitem__(2, r.cell_property("PORO")), second_done.set()))
    two.start()
    one.join(timeout=20.0)
    two.join(timeout=20.0)
    expected = dict(arrays_of(DATA / "E100_BO.INIT"))["PORO"]
    for result in got.values():
        assert np.array_equal(result.compressed(), expected) and result.mask.sum() == 2
    assert sorted(got) == [1, 2]


# -- in place without a deck -----------------------------------------------------------------

def test_in_place_without_a_deck_uses_the_restarts_own_arrays_or_says_what_it_lacks():
    r = results.read(DATA / "E100_BO")  # 1OVERBO, 1OVERBG, 1OVERBW, RS, RV; no RPORV: the INIT's PORV
    fluids = r.in_place(1)
    own = {n: r.cell_property(n, 1) for n in ("SWAT", "SGAS", "1OVERBO", "1OVERBG", "1OVERBW", "RS", "RV")}
    porv = r.cell_property("PORV")
    so = 1.0 - own["SWAT"].astype(float) - own["SGAS"]
    np.testing.assert_allclose(fluids.oil, porv * so * own["1OVERBO"] + porv * own["SGAS"] * own["1OVERBG"] * own["RV"],
                               rtol=1e-12)
    assert np.array_equal(fluids.water.mask, ~r.active) and fluids.gas.count() == 22
    with pytest.raises(FileNotFoundError, match=r"in_place needs the deck of E300_BO \(there is no E300_BO.DATA "
                                                r"beside the case; pass deck=\), or the simulator's own 1/B in the "
                                                r"restart, which lacks 1OVERBO, 1OVERBW, 1OVERBG at report step 1"):
        results.read(DATA / "E300_BO").in_place(1)
