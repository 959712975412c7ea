"""kavra.deck as the simulator sees a deck: the grid properties after their edits, the cell
volumes, depths and pore volumes, against what Flow writes (tests/flow_cases.py runs it on the
decks EDITED and FAULTED of tests/data) and against opm's own geometry; DENSITY and EQUIL."""

import copy
import pickle

import numpy as np
import pytest

from flow_cases import CASES, DATA, flow_case, flow_run  # noqa: F401  (fixtures)
from kavra.tables import DENSITY

deck_module = pytest.importorskip("kavra.deck", reason="opm is not installed (pip install '.[deck]')")
results = pytest.importorskip("kavra.results", reason="resfo is not installed (pip install '.[results]')")
EclipseState = pytest.importorskip("opm.io.ecl_state").EclipseState
EXAMPLES = deck_module.EXAMPLES
Parser = pytest.importorskip("opm.io.parser").Parser

FLOAT32 = 2e-7  # the INIT holds float32
LENGTH_TO_SI = {"FIELD": 0.3048, "METRIC": 1.0}


# Per case: the cells Flow leaves out, the PVT regions of the others.
CASE_CELLS = {"EDITED": (4, {1, 2}), "FAULTED": (1, {1}), "CROSSED": (1, {1}), "ENDPOINTS": (1, {1}),
              "SPE1CASE1": (0, {1}), "SPE3CASE1": (8, {1})}
# The end points that Flow writes to the INIT of a deck with ENDSCALE.
END_POINTS = ("SWL", "SWCR", "SWU", "SGL", "SGCR", "SGU", "SOWCR", "SOGCR", "KRW", "KRO", "KRG")


@pytest.mark.parametrize("flow_case", list(CASE_CELLS), indirect=True)
def test_the_deck_gives_the_numbers_flow_writes(flow_case):
    case, deck = results.read(flow_case), deck_module.read(flow_case.with_suffix(".DATA"))
    inactive = np.ma.getmaskarray(case.cell_property("PORV"))
    left_out, regions = CASE_CELLS[flow_case.name]
    assert np.array_equal(deck.active, ~inactive) and inactive.sum() == left_out
    ours = {"PORV": deck.pore_volume(), "DEPTH": deck.cell_depths(),
            **{name: deck.cell_property(name) for name in ("DX", "DY", "DZ", "PORO", "NTG", "PVTNUM", "PERMX")}}
    for name, values in ours.items():
        written = case.cell_property(name)
        np.testing.assert_allclose(values[~inactive], written.compressed(), rtol=FLOAT32, atol=0, err_msg=name)
    assert np.all(ours["PORV"][inactive] == 0.0) and np.all(case.cell_property("PORV").data[inactive] == 0.0)
    assert set(ours["PVTNUM"][~inactive]) == regions


@pytest.mark.parametrize("flow_case", list(CASE_CELLS), indirect=True)
def test_region_numbers_and_end_points_are_those_flow_writes(flow_case):
    """Every region array and end point of the INIT, whether the deck gives it, edits it or leaves
    it to its default (ENDPOINTS gives every end point, edits some, and leaves the regions out)."""
    case, deck = results.read(flow_case), deck_module.read(flow_case.with_suffix(".DATA"))
    inactive = np.ma.getmaskarray(case.cell_property("PORV"))
    written_names = case.property_names()
    names = [name for name in (*deck_module.REGION_PROPERTIES, *END_POINTS) if name in written_names]
    assert {"FIPNUM", "SATNUM", "EQLNUM"} <= set(names)
    assert flow_case.name != "ENDPOINTS" or set(END_POINTS) <= set(names)
    for name in names:
        ours, written = deck.cell_property(name), case.cell_property(name)
        assert ours.dtype == (np.int32 if name.endswith("NUM") else np.float64), name
        np.testing.assert_allclose(ours[~inactive], written.compressed(), rtol=FLOAT32, atol=0, err_msg=name)
        outside = deck.cell_property("ACTNUM") == 0
        assert np.all(ours[outside] == 0) if ours.dtype == np.int32 else np.isnan(ours[outside]).all()


def _random_corner_points(directory, origin=(0.0, 0.0), seed=3):
    """A 4 x 3 x 3 METRIC deck whose pillars lean every way and whose every cell is cut loose
    from its neighbours (each corner depth of its own): non-planar faces everywhere."""
    rng = np.random.default_rng(seed)
    nI, nJ, nK = 4, 3, 3
    i, j = np.meshgrid(np.arange(nI + 1), np.arange(nJ + 1))
    top = np.stack([origin[0] + 90.0 * i, origin[1] + 70.0 * j, np.full(i.shape, 1500.0)], -1)
    coord = np.concatenate([top, top + np.r_[0.0, 0.0, 400.0] + rng.normal(0, 25, top.shape) * [1, 1, 0]], -1)
    layers = 1800.0 + 15.0 * np.arange(2 * nK).reshape(nK, 2)[:, :, None, None, None, None] // 2 * 2
    zcorn = layers + 7.5 * np.array([0, 1])[None, :, None, None, None, None] + rng.uniform(-3, 3, (nK, 2, nJ, 2, nI, 2))
    text = (f"RUNSPEC\nDIMENS\n {nI} {nJ} {nK} /\nMETRIC\nGRID\nCOORD\n{' '.join(map(repr, coord.ravel().tolist()))} /\n"
            f"ZCORN\n{' '.join(map(repr, zcorn.ravel().tolist()))} /\nPORO\n {nI * nJ * nK}*0.2 /\n")
    path = directory / "RANDOM.DATA"
    path.write_text(text)
    return path


@pytest.mark.parametrize("name", ["EDITED", "FAULTED", "CROSSED", "SPE1CASE1", "SPE3CASE1", "random"])
def test_cell_volumes_and_depths_are_opm_s(name, tmp_path):
    path = (_random_corner_points(tmp_path) if name == "random" else DATA / f"{name}.DATA"
            if name in CASES and name not in EXAMPLES else deck_module.example_path(name))
    deck = deck_module.read(path)
    grid = EclipseState(Parser().parse(str(path))).grid()
    length = LENGTH_TO_SI[deck.units]
    volumes, depths = np.asarray(grid.getCellVolume()) / length**3, np.asarray(grid.getCellDepth()) / length
    ours = deck.cell_volumes()
    # opm builds a block-centred grid in SI, so a cell without thickness keeps a sliver of volume there.
    np.testing.assert_allclose(ours, volumes, rtol=1e-12, atol=1e-12 * volumes.max())
    np.testing.assert_allclose(deck.cell_depths(), depths, rtol=1e-12)
    assert ours.dtype == np.float64 and ours.flags.writeable and ours is not deck.cell_volumes()


def test_cells_far_from_the_origin_have_their_exact_volume(tmp_path):
    """At map coordinates (460 km, 6700 km) a cell's volume is the exact integral over its
    corners (Simpson's rule in rationals: exact for the trilinear map's Jacobian, of degree
    two in each direction); opm's sum of 384 products is off by up to some 1e-11 there."""
    from fractions import Fraction
    deck = deck_module.read(_random_corner_points(tmp_path, origin=(4.6e5, 6.7e6)))
    coord, zcorn = deck.cell_property("COORD"), deck.cell_property("ZCORN")
    nI, nJ = deck.grid.nI, deck.grid.nJ
    for cell in (0, 17, 35):
        i, j, k = cell % nI, cell // nI % nJ, cell // (nI * nJ)
        corners = []
        for n in range(8):
            z = zcorn[(2 * k + (n >> 2)) * 4 * nI * nJ + (2 * j + (n >> 1 & 1)) * 2 * nI + 2 * i + (n & 1)]
            x0, y0, z0, x1, y1, z1 = coord[6 * ((j + (n >> 1 & 1)) * (nI + 1) + i + (n & 1)):][:6]
            corners.append([Fraction(v) for v in (x0 + (x1 - x0) / (z0 - z1) * (z0 - z), y0 + (y1 - y0) / (z0 - z1)
                                                  * (z0 - z), z)])
        simpson = {Fraction(0): Fraction(1, 6), Fraction(1, 2): Fraction(4, 6), Fraction(1): Fraction(1, 6)}
        exact = Fraction(0)
        for (u, wu), (v, wv), (w, ww) in ((a, b, c) for a in simpson.items() for b in simpson.items()
                                          for c in simpson.items()):
            point = (u, v, w)
            jacobian = [[sum(((1 if n >> axis & 1 else -1) * np.prod([point[o] if n >> o & 1 else 1 - point[o]
                                                                      for o in range(3) if o != axis]))
                             * corners[n][d] for n in range(8)) for axis in range(3)] for d in range(3)]
            a, b, c = jacobian
            exact += wu * wv * ww * (a[0] * (b[1] * c[2] - b[2] * c[1]) - a[1] * (b[0] * c[2] - b[2] * c[0])
                                     + a[2] * (b[0] * c[1] - b[1] * c[0]))
        assert abs(deck.cell_volumes()[cell] - float(abs(exact))) <= 1e-15 * float(abs(exact))


def test_edits_in_boxes_and_their_order():
    deck = deck_module.read("RUNSPEC\nDIMENS\n 3 2 1 /\nMETRIC\nGRID\nDX\n 6*10 /\nDY\n 6*10 /\nDZ\n 6*2 /\n"
                            "TOPS\n 6*1000 /\nPORO\n 6*0.2 /\nPERMX\n 6*100 /\nBOX\n 2 3 1 1 1 1 /\nMULTIPLY\n"
                            " PORO 1.5 /\n/\nENDBOX\nCOPY\n PORO NTG /\n/\nADD\n NTG 0.1 1 1 2 2 1 1 /\n/\n"
                            "MAXVALUE\n NTG 0.25 /\n/\nMULTIPLY\n PERMX 3 3 3 2 2 1 1 /\n/\n")
    poro = [0.2, 0.2 * 1.5, 0.2 * 1.5, 0.2, 0.2, 0.2]  # the numbers the simulator holds
    assert deck.cell_property("PORO").tolist() == poro
    assert deck.cell_property("NTG").tolist() == [0.2, 0.25, 0.25, 0.25, 0.2, 0.2]  # copied, 0.1 added, capped
    assert deck.cell_property("PERMX").tolist() == [100, 100, 100, 100, 100, 300]  # mD, back from SI
    np.testing.assert_allclose(deck.pore_volume(), 200.0 * np.array(poro) * [0.2, 0.25, 0.25, 0.25, 0.2, 0.2],
                               rtol=1e-15)


def test_the_cells_opm_keeps_are_found_past_each_thousand():
    n = 41 * 41 * 2  # 3362 cells: the cells' numbers handed to opm run past three thousands
    inactive = [0, 998, 999, 1000, 1001, 1999, 2000, 3361]
    actnum = np.ones(n, dtype=int)
    actnum[inactive] = 0
    poro = 0.01 + np.arange(n) / 1e5
    deck = deck_module.read(f"RUNSPEC\nDIMENS\n 41 41 2 /\nMETRIC\nGRID\nDX\n {n}*10 /\nDY\n {n}*10 /\n"
                            f"DZ\n {n}*2 /\nTOPS\n 1681*1000 /\nACTNUM\n {' '.join(map(str, actnum))} /\n"
                            f"PORO\n {' '.join(f'{v:.5f}' for v in poro)} /\n")
    assert np.flatnonzero(~deck.active).tolist() == inactive
    np.testing.assert_allclose(deck.cell_property("PORO")[actnum == 1], poro[actnum == 1], rtol=1e-15)


@pytest.mark.parametrize("grid, error, words", [
    ("", deck_module.DeckError, "the deck has no grid geometry"),
    ("COORD\n 24*0 /\nZCORN\n 8*0 /\n", deck_module.DeckError, "COORD holds 24 numbers; the grid of DIMENS needs 36"),
    ("DX\n 2*1 /\nDY\n 2*1 /\nDZ\n 2*1 /\nTOPS\n 2*1 /\nEQUALS\n DZ 2 /\n/\n", deck_module.DeckError,
     "opm cannot build the grid and its properties"),
])
def test_decks_whose_grid_cannot_be_had(grid, error, words):
    deck = deck_module.read(f"RUNSPEC\nDIMENS\n 2 1 1 /\nGRID\n{grid}")
    with pytest.raises(error, match=words):
        deck.cell_volumes()
        deck.cell_property("PORO")


def test_density_and_equil_of_a_deck():
    deck = deck_module.read(deck_module.example_path("SPE3CASE1"))
    edited = deck_module.read(DATA / "EDITED.DATA")
    assert edited.density == DENSITY([[50, 64, 0.06], [48, 63.5, 0.06]], units="FIELD")
    assert edited.equil[0]._replace(rsvd_table=0, rvvd_table=0, accuracy=0) == (8040, 4000, 8100, 0, 7900, 0, 0, 0, 0)
    assert np.isnan(edited.equil[0].accuracy) and deck.equil[0].datum_depth == 7500 and len(deck.equil) == 1
    assert "density" in repr(edited)


def test_density_is_a_table_value():
    table = DENSITY([[850.0, 1020.0, 0.9], [840.0, 1010.0, 0.8]])
    assert pickle.loads(pickle.dumps(table)) == table == copy.deepcopy(table)
    assert eval(repr(table), {"DENSITY": DENSITY}) == table and DENSITY.from_frame(table.to_frame()) == table
    assert table != DENSITY(table.regions, units="LAB")
    with pytest.raises(ValueError):
        table.regions[0].flags.writeable = True
    with pytest.raises(TypeError, match="DENSITY has no native list"):
        table.to_native()


@pytest.mark.parametrize("regions, words", [
    ([[850.0, 0.0, 0.9]], "DENSITY region 1: water 0 is not above 0"),
    ([[850.0, 1000.0]], r"DENSITY region 1: expected 3 numbers \[oil, water, gas\], got 2"),
    ([[850.0, np.inf, 1.0]], "DENSITY region 1: value 2 is inf"),
    ([], "DENSITY needs at least one region"),
])
def test_density_refuses_what_is_not_a_density(regions, words):
    with pytest.raises(ValueError, match=words):
        DENSITY(regions)


@pytest.mark.parametrize("change, words", [
    ({"coord": np.zeros(23)}, "coord must be a contiguous float64 array of 24 numbers"),
    ({"zcorn": np.zeros(8, dtype=np.float32)}, "zcorn must be a contiguous float64 array of 8 numbers"),
    ({"zcorn": np.zeros(16)[::2]}, "zcorn must be a contiguous float64 array"),
    ({"out": (np.zeros(1), None, None, None, np.zeros(1)[:0])}, "dz must be a contiguous writable float64 array of 1"),
    ({"out": (np.zeros(1, dtype=">f8"),) + (None,) * 4}, "volumes must be a contiguous writable float64 array"),
    ({"out": (np.frombuffer(bytes(8)),) + (None,) * 4}, "volumes must be a contiguous writable float64 array"),
    ({"out": (None,) * 4}, r"out is \(volumes, depths, dx, dy, dz\)"),
    ({"nI": 2**62, "nJ": 2**62}, "a grid too large to address"),
])
def test_the_engine_refuses_arrays_that_do_not_fit_the_grid(change, words):
    from kavra import _engine
    call = {"nI": 1, "nJ": 1, "nK": 1, "coord": np.zeros(24), "zcorn": np.zeros(8), "out": (np.zeros(1),) + (None,) * 4}
    call.update(change)
    with pytest.raises(ValueError, match=words):
        _engine.cell_geometry(call["nI"], call["nJ"], call["nK"], call["coord"], call["zcorn"], call["out"], 2)
