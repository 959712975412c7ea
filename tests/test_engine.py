"""The engine's own paths against the plain float64 one: a single region number or value read by every
cell, float32 inputs read as they are, chunks shared over threads; its list of calculations and record
fields; failures that carry their facts."""

import tracemalloc

import numpy as np
import pytest

import kavra
from kavra import _engine
from kavra.tables import PVDO, PVTG, PVTO, PVTW

N = 3 * _engine.CHUNK + 12_345  # chunks of every length, on more threads than one
RNG = np.random.default_rng(5)
P, Q = RNG.uniform(50.0, 400.0, N), RNG.uniform(50.0, 400.0, N)
OIL = PVTO([[[50.0, 120.0, 1.25, 0.9, 250.0, 1.22, 1.0], [80.0, 180.0, 1.35, 0.8, 300.0, 1.31, 0.9]]] * 2)
GAS = PVTG([[[100.0, 0.01, 0.02, 0.1, 0.03, 0.025, 0.1], [200.0, 0.02, 0.01, 0.1, 0.04, 0.0125, 0.1]]] * 2)
PVT = {  # the calculations that read float32 inputs as they are
    "bubble_point_pressure": (OIL, [Q / 4]),
    "one_over_b": (PVDO([[[100.0, 1.2, 1], [300.0, 1.0, 1]]] * 2), [P]),
    "one_over_bo": (OIL, [P, np.where(P > Q, Q, P)]),
    "one_over_bw": (PVTW([[100.0, 1.0, 1e-4, 0.5, 0.0]] * 2), [P]),
    "one_over_bg": (GAS, [P, np.where(Q > 300.0, P, Q), Q / 1e4]),
}


def bits(array):
    return np.asarray(array).tobytes()


@pytest.mark.parametrize("threads", [1, 2])
@pytest.mark.parametrize("name", PVT)
def test_single_regions_and_float32_inputs_give_the_float64_bits(name, threads):
    table, inputs = PVT[name]
    function = getattr(kavra, name)
    single = [v.astype(np.float32) for v in inputs]
    widened = [v.astype(np.float64) for v in single]
    expected = function(table, np.full(N, 2, np.int32), *widened, threads=1)
    out = np.empty(N)
    tracemalloc.start()
    function(table, 2, *single, out=out, threads=threads)
    peak = tracemalloc.get_traced_memory()[1]
    tracemalloc.stop()
    assert bits(out) == bits(expected) and peak < N  # read as float32, not widened first; pvtnum not spread
    out32 = np.empty(N, np.float32)
    function(table, 2, *single, out=out32, threads=threads)
    assert bits(out32) == bits(expected.astype(np.float32))
    regions = np.full(N, 2)  # and one value of each input for every cell, never spread over them
    assert bits(function(table, regions, *[v[:1] for v in widened], threads=threads)) == bits(
        function(table, regions, *[np.full(N, v[0]) for v in widened], threads=1))


def test_the_lists_that_the_python_layer_reads():
    assert set(_engine.CALCULATIONS) >= {"one_over_bo", "porosity", "bulk_volume_times_ntg", "rs_from_components"}
    assert _engine.CALCULATIONS["one_over_bg"][:2] == ("TPVTGList", 3)
    assert _engine.CALCULATIONS["porosity_from_porv"] == (None, 2, False)
    assert _engine.RECORD_FIELDS["TPVTOList"] == ("Rs", "P", "B", "Mi")
    assert _engine.RECORD_FIELDS["TPVTWList"] == ("P_ref", "Bw_ref", "Cw", "Miw_ref", "Cvw")


@pytest.mark.parametrize("threads", [1, 2])
def test_a_single_region_past_the_table_fails_at_the_first_cell(threads):
    out = np.full((2, N // 2), -1.0)
    with pytest.raises(ValueError, match=r"region 3 at pvtnum\[0, 0\] \(cell 1, counting from 1\) is not in the "
                                         r"PVTO table, which has regions 1 to 2") as info:
        kavra.one_over_bo(OIL, 3, P[: N // 2 * 2].reshape(2, -1), 200.0, out=out, threads=threads)
    assert str(info.value.__cause__).startswith("KAVRA-lib 2.0 Exception\ncore/pvt/OneOverBo.cpp:")
    assert (out == -1.0).all()


def test_pinch_outs_of_a_grid_shape_and_cells_as_of_a_selection():
    tessel = pytest.importorskip("kavra.tessel")
    cells = [[c % 3, (c // 3) % 2, c // 6] for c in range(30) if c % 7]
    selection = tessel.ReservoirSelectionTopology(tessel.ReservoirTopology(3, 2, 5), cells)
    nnc1, nnc2 = [0, 1, 2, 3, 13, 8, 4, 4], [12, 25, 5, 10, 25, 20, 22, 28]
    for got, expected in zip(kavra.transmissibility_k(nnc1, nnc2, ((3, 2, 5), cells)),
                             kavra.transmissibility_k(nnc1, nnc2, selection)):
        assert bits(got) == bits(expected)
    with pytest.raises(ValueError, match="inside the grid"):
        kavra.transmissibility_k(nnc1, nnc2, ((3, 2, 5), [[3, 0, 0]]))
