"""The NumPy-first functions against the native calls they stand on: same bits on
random data, inputs of any dtype, byte order, mask and layout, no copies of
ready buffers, and failures in Python's words with the native one as cause."""

import doctest
import tracemalloc

import numpy as np
import pytest
from hypothesis import given, settings
from hypothesis import strategies as st

import kavra
import tessel
from kavra import _kavracore as native
from kavra.tables import PVDG, PVTG, PVTO, PVTW, ROCK

RNG = np.random.default_rng(7)


def _oil(rng, regions=2):
    records = []
    for _ in range(regions):
        rs = np.sort(rng.uniform(10, 200, 5))
        records.append([[r, 40 + 1.5 * r, 1.1 + 0.002 * r, 1.0, 40 + 1.5 * r + 100, 1.09 + 0.002 * r, 1.1]
                        for r in rs])
    return PVTO(records)


def _gas(rng, regions=2):
    out = []
    for _ in range(regions):
        pg = np.sort(rng.uniform(40, 400, 4))
        out.append([[p, 1e-5 * p, 1.2 / p, 0.02, 2e-5 * p, 1.3 / p, 0.02] for p in pg])
    return PVTG(out)


TABLES = dict(
    pvto=_oil(RNG), pvtg=_gas(RNG),
    pvdg=PVDG([[[50.0, 0.025, 0.01], [150.0, 0.009, 0.01], [300.0, 0.0045, 0.02]]] * 2),
    pvtw=PVTW([[200.0, 1.02, 4.5e-5, 0.5, 0.0], [210.0, 1.03, 5e-5, 0.5, 0.0]]),
    rock=ROCK([[250.0, 5e-5], [260.0, 1e-4]]),
)

# name: (table, number of real inputs, native function, NumPy-first function)
CELL = {
    "bubble_point_pressure": ("pvto", 1, native.CalcBubblePointPressure),
    "one_over_b": ("pvdg", 1, native.CalcOneOverB),
    "one_over_bo": ("pvto", 2, native.CalcOneOverBo),
    "one_over_bw": ("pvtw", 1, native.CalcOneOverBw),
    "one_over_bg": ("pvtg", 3, native.CalcOneOverBg),
    "porosity": ("rock", 2, native.CalcPorosity),
    "porosity_from_porv": (None, 2, native.CalcPorosityFromPORV),
    "bulk_volume": (None, 2, native.CalcBulkVolume),
    "rs_from_components": (None, 2, native.CalcRsFromComponents),
}


def inputs(rng, name, n):
    regions = rng.integers(-1, 3, n).astype(np.int32)  # 0 and -1: no region
    count = CELL[name][1]
    values = [rng.uniform(-50.0, 450.0, n) for _ in range(count)]
    if name in ("one_over_bo", "one_over_bg"):
        saturated = rng.random(n) < 0.4  # Po == Pbub (Pg == Pdew) in some cells
        values[1][saturated] = values[0][saturated]
    if name == "one_over_bg":
        values[2] = rng.uniform(0.0, 0.01, n)
    return regions, values


def native_result(name, regions, values, start=None):
    table, _, call = CELL[name]
    result = tessel.DoubleGridFunction(np.zeros(len(values[0])) if start is None else start)
    grid_functions = [tessel.DoubleGridFunction(v) for v in values] + [result]
    if table is None:
        call(*grid_functions)
    else:
        call(TABLES[table].to_native(), tessel.IntGridFunction(regions), *grid_functions)
    return result.values


def api(name, regions, values, **keywords):
    table = CELL[name][0]
    function = getattr(kavra, name)
    return function(*values, **keywords) if table is None else function(TABLES[table], regions, *values, **keywords)


def same_bits(got, expected):
    got, expected = np.asarray(got), np.asarray(expected)
    assert got.shape == expected.shape and got.dtype == expected.dtype
    np.testing.assert_array_equal(got.view(np.uint8), expected.view(np.uint8))


@settings(max_examples=60, deadline=None)
@given(name=st.sampled_from(sorted(CELL)), n=st.integers(0, 300), seed=st.integers(0, 2**32 - 1),
       dtype=st.sampled_from(["<f8", ">f8", "<f4", ">f4", "<i8"]), region_dtype=st.sampled_from(["<i4", ">i8", "u2"]))
def test_cell_functions_give_the_native_bits(name, n, seed, dtype, region_dtype):
    rng = np.random.default_rng(seed)
    regions, values = inputs(rng, name, n)
    values = [v.astype(dtype) for v in values]  # what the caller has; the native call reads it as float64
    regions = regions.astype(region_dtype) if region_dtype != "u2" else np.abs(regions).astype(region_dtype)
    expected = native_result(name, regions.astype(np.int32), [v.astype(np.float64) for v in values])
    same_bits(api(name, regions, values), expected)


def test_bulk_volume_with_ntg_is_both_native_overloads():
    porv, poro, ntg = RNG.uniform(0, 500, 50), RNG.uniform(-0.1, 0.4, 50), RNG.uniform(0.5, 1.0, 50)
    bulk = tessel.DoubleGridFunction(50)
    native.CalcBulkVolume(tessel.DoubleGridFunction(porv), tessel.DoubleGridFunction(poro), bulk)
    native.CalcBulkVolume(tessel.DoubleGridFunction(ntg), bulk)
    same_bits(kavra.bulk_volume(porv, poro, ntg=ntg), bulk.values)


def test_broadcasting_shapes_and_out():
    p = RNG.uniform(40, 400, (3, 4, 5))
    expected = native_result("one_over_b", np.ones(60, np.int32), [p.reshape(-1)]).reshape(3, 4, 5)
    same_bits(kavra.one_over_b(TABLES["pvdg"], 1, p), expected)  # one region for every cell
    out = np.zeros((3, 4, 5))
    assert kavra.one_over_b(TABLES["pvdg"], np.ones((4, 1), np.int8), p, out=out) is out
    same_bits(out, expected)
    single = np.zeros((3, 4, 5), dtype=np.float32)  # the float variant's rounding, once
    kavra.one_over_b(TABLES["pvdg"], 1, p, out=single)
    same_bits(single, expected.astype(np.float32))


def test_float32_out_equals_the_native_float_variant():
    regions, (po, pbub) = inputs(RNG, "one_over_bo", 200)
    po, pbub = po.astype(np.float32), pbub.astype(np.float32)
    result = tessel.FloatGridFunction(200)
    native.CalcOneOverBo(TABLES["pvto"].to_native(), tessel.IntGridFunction(regions), tessel.FloatGridFunction(po),
                         tessel.FloatGridFunction(pbub), result)
    same_bits(kavra.one_over_bo(TABLES["pvto"], regions, po, pbub, out=np.empty(200, np.float32)), result.values)


def test_porosity_keeps_out_where_a_cell_has_no_region():
    regions, values = inputs(RNG, "porosity", 100)
    start = RNG.uniform(0, 1, 100)
    expected = native_result("porosity", regions, values, start=start)
    out = start.copy()
    kavra.porosity(TABLES["rock"], regions, *values, out=out)
    same_bits(out, expected)
    assert np.all(kavra.porosity(TABLES["rock"], regions, *values)[regions < 1] == 0.0)


@pytest.mark.parametrize("name", sorted(CELL))
def test_masked_cells_stay_masked_and_are_never_looked_up(name):
    regions, values = inputs(RNG, name, 40)
    mask = RNG.random(40) < 0.3
    regions[mask] = 99  # no such region: a masked cell must not fail
    masked = np.ma.MaskedArray(values[0], mask=mask)
    result = api(name, np.ma.MaskedArray(regions, mask=mask), [masked, *values[1:]])
    assert isinstance(result, np.ma.MaskedArray)
    np.testing.assert_array_equal(np.ma.getmaskarray(result), mask)
    regions[mask] = 0
    same_bits(result.data[~mask], native_result(name, regions, values)[~mask])


def test_ready_buffers_are_read_in_place_and_others_converted_once():
    n = 10**6
    regions, (po, pbub) = inputs(RNG, "one_over_bo", n)
    out = np.empty(n)
    kavra.one_over_bo(TABLES["pvto"], regions, po, pbub, out=out)  # warm: the table's native list is built once

    def peak(*arrays):
        tracemalloc.start()
        kavra.one_over_bo(TABLES["pvto"], *arrays, out=out)
        used = tracemalloc.get_traced_memory()[1]
        tracemalloc.stop()
        return used

    assert peak(regions, po, pbub) < 100_000
    assert 8 * n <= peak(regions, po.astype(">f8"), pbub) < 9 * n  # one converted copy, no more
    assert 4 * n <= peak(regions.astype(np.int64), po, pbub) < 5 * n


@pytest.mark.parametrize("name", ["bubble_point_pressure", "one_over_bo", "one_over_bw", "porosity"])
def test_a_region_past_the_table_names_the_cell_and_region(name):
    regions, values = inputs(RNG, name, 24)
    regions[:] = 1
    regions[17] = 5
    shaped = [v.reshape(2, 3, 4) for v in values]
    with pytest.raises(ValueError, match=r"region 5 at pvtnum\[1, 1, 1\] \(cell 18, counting from 1\) is not in "
                                         r"the \w+ table, which has regions 1 to 2") as info:
        api(name, regions.reshape(2, 3, 4), shaped)
    assert isinstance(info.value.__cause__, RuntimeError)


@pytest.mark.parametrize("call, error, words", [
    (lambda: kavra.one_over_bo(TABLES["pvdg"], 1, 1.0, 1.0), TypeError, "pvto must be a PVTO table or a TPVTOList"),
    (lambda: kavra.one_over_b(TABLES["pvdg"], 1.0, 1.0), TypeError, "pvtnum must hold integer region numbers"),
    (lambda: kavra.one_over_b(TABLES["pvdg"], 1, ["a"]), TypeError, "p must hold real numbers"),
    (lambda: kavra.one_over_bo(TABLES["pvto"], [1, 1], [1.0, 2.0, 3.0], 1.0), ValueError, "do not broadcast"),
    (lambda: kavra.one_over_b(TABLES["pvdg"], 1, [1.0], out=np.empty(2)), ValueError, "out has the shape"),
    (lambda: kavra.one_over_b(TABLES["pvdg"], 1, [1.0], out=np.empty(1, int)), TypeError, "out must hold real"),
    (lambda: kavra.one_over_b(TABLES["pvdg"], [2**40], [1.0]), ValueError, r"region 1099511627776 at pvtnum\[0\]"),
    (lambda: kavra.one_over_b(native.TPVTList([native.TPVTTable()]), [1], [1.0]), ValueError,
     r"region 1 of the TPVTList table has no rows \(needed at pvtnum\[0\]"),
])
def test_failures_in_python_words(call, error, words):
    with pytest.raises(error, match=words):
        call()


def test_transmissibility_k_is_the_native_sifting():
    grid = tessel.ReservoirTopology(3, 2, 5)
    selection = tessel.ReservoirSelectionTopology(grid, [[c % 3, (c // 3) % 2, c // 6] for c in range(30) if c % 7])
    nnc1 = np.array([0, 1, 2, 3, 13, 8, 4, 4], dtype=np.int64)
    nnc2 = np.array([12, 25, 5, 10, 25, 20, 22, 28], dtype=np.uint16)
    v1, v2 = tessel.IntVector(nnc1), tessel.IntVector(nnc2)
    trank = tessel.DoubleGridFunction(selection.number_of_selected_cells)
    native.CalcTransmissibilityK(v1, v2, selection, tessel.SelectionViewGridFunction(selection, trank))
    got = kavra.transmissibility_k(nnc1, nnc2, selection)
    for g, e in zip(got, (v1.to_numpy(), v2.to_numpy(), trank.values)):
        same_bits(g, e)
    masked = kavra.transmissibility_k(np.ma.masked_equal(nnc1, 3), nnc2, selection)  # (3, 10) left out
    same_bits(masked[0], np.array([n for n in v1.to_numpy() if n != 3], dtype=np.int32))
    with pytest.raises(ValueError, match="does not run down across at least two layers") as info:
        kavra.transmissibility_k([2], [8], selection)
    assert isinstance(info.value.__cause__, RuntimeError)
    with pytest.raises(ValueError, match=r"nnc2\[0\] = 30 is not a cell of the grid of 3 x 2 x 5 cells"):
        kavra.transmissibility_k([0], [30], selection)


# --- K reductions ------------------------------------------------------------------

REDUCTIONS = {"kmax": native.KMax, "kmin": native.KMin, "ksum": native.KSum, "kaverage": native.KAverage}
KERNEL_TYPES = ["i4", "u4", "i8", "u8", "f4", "f8"]


def values_of(rng, dtype, n):
    if np.dtype(dtype).kind == "f":
        return rng.normal(0.0, 100.0, n).astype(dtype)
    return rng.integers(-1000 if np.dtype(dtype).kind == "i" else 0, 1000, n).astype(dtype)


@pytest.mark.parametrize("dtype", KERNEL_TYPES)
@pytest.mark.parametrize("name", sorted(REDUCTIONS))
def test_byte_swapped_values_reduce_to_the_right_numbers(name, dtype):
    grid = tessel.ReservoirTopology(3, 2, 4)
    selection = tessel.ReservoirSelectionTopology(grid, [[1, 0, 2], [2, 1, 0], [1, 0, 0], [1, 0, 3]])
    for topology, n in ((grid, 24), (selection, 4)):
        values = values_of(RNG, "<" + dtype, n)
        swapped = values.astype(">" + dtype)
        got = getattr(kavra, name)(swapped, topology)
        same_bits(got, REDUCTIONS[name](topology, values))


@settings(max_examples=60, deadline=None)
@given(name=st.sampled_from(sorted(REDUCTIONS)), dims=st.tuples(*[st.integers(0, 5)] * 3),
       dtype=st.sampled_from(KERNEL_TYPES + ["<q", ">q"]), order=st.sampled_from("<>"),
       layout=st.sampled_from(["kji", "ijk"]), flat=st.booleans(), masking=st.sampled_from([None, "mask", "active"]),
       seed=st.integers(0, 2**32 - 1))
def test_reductions_equal_the_native_kernels(name, dims, dtype, order, layout, flat, masking, seed):
    rng = np.random.default_rng(seed)
    ni, nj, nk = dims
    n = ni * nj * nk
    cell_order = values_of(rng, order + dtype.lstrip("<>"), n)  # cell order: I fastest
    valid = rng.random(n) < 0.7 if masking else np.ones(n, bool)
    as_given = cell_order.reshape(nk, nj, ni)
    mask_given = valid.reshape(nk, nj, ni)
    if layout == "ijk":
        as_given, mask_given = as_given.transpose(2, 1, 0).copy(), mask_given.transpose(2, 1, 0).copy()
    if flat:
        as_given, mask_given = as_given.reshape(-1), mask_given.reshape(-1)
    keywords = dict(layout=layout)
    if masking == "mask":
        as_given = np.ma.MaskedArray(as_given, mask=~mask_given)
    elif masking == "active":
        keywords["active"] = mask_given
    got = getattr(kavra, name)(as_given, (ni, nj, nk), **keywords)

    # The native kernel over the cells that take part, in cell order.
    native_values = cell_order.astype(cell_order.dtype.newbyteorder("="))
    if np.dtype(dtype).char == "q":
        native_values = native_values.view(np.int64)
    cells = np.flatnonzero(valid)
    part = tessel.ReservoirSelectionTopology(tessel.ReservoirTopology(ni, nj, nk),
                                             np.column_stack([cells % max(ni, 1), (cells // max(ni, 1)) % max(nj, 1),
                                                              cells // max(ni * nj, 1)]))
    expected = np.zeros(n, native_values.dtype)
    expected[cells] = REDUCTIONS[name](part, native_values[cells])
    if not masking:
        same_bits(expected, REDUCTIONS[name](tessel.ReservoirTopology(ni, nj, nk), native_values))
    expected = expected.reshape(nk, nj, ni)
    if layout == "ijk":
        expected = expected.transpose(2, 1, 0)
    assert np.asarray(got).shape == np.asarray(as_given).shape
    same_bits(np.ma.getdata(got).reshape(-1), expected.reshape(-1).astype(np.ma.getdata(got).dtype))
    assert isinstance(got, np.ma.MaskedArray) == bool(masking)
    if masking:
        np.testing.assert_array_equal(np.ma.getmaskarray(got), ~mask_given)


def test_a_masked_selection_reduces_its_unmasked_cells():
    grid = tessel.ReservoirTopology(2, 1, 3)
    selection = tessel.ReservoirSelectionTopology(grid, [[0, 0, 0], [0, 0, 2], [1, 0, 1], [0, 0, 1]])
    values = np.ma.MaskedArray([1.0, 5.0, 2.0, 9.0], mask=[False, False, False, True])
    got = kavra.ksum(values, selection)
    assert got.tolist() == [6.0, 6.0, 2.0, None]


@pytest.mark.parametrize("call, error, words", [
    (lambda: kavra.kmax(np.zeros(6, np.int16), (1, 2, 3)), TypeError, "takes int32, uint32"),
    (lambda: kavra.kmax(np.zeros((1, 2, 3)), (1, 2, 3)), ValueError,
     r"do not fit the grid of 1 x 2 x 3 cells: layout 'kji' takes the shape \(3, 2, 1\) or \(6,\)"),
    (lambda: kavra.kmax(np.zeros((3, 2, 1)), (1, 2, 3), layout="ijk"), ValueError, r"takes the shape \(1, 2, 3\)"),
    (lambda: kavra.kmax(np.zeros(6), (1, 2, 3), layout="kij"), ValueError, "layout must be 'kji' or 'ijk'"),
    (lambda: kavra.kmax(np.zeros(6), [1, 2, 3]), TypeError, "grid must be a tessel.ReservoirTopology"),
    (lambda: kavra.kmax(np.zeros(6), (1, 2, 3), active=np.zeros(6, float)), TypeError, "active must be a boolean"),
])
def test_reduction_failures_in_python_words(call, error, words):
    with pytest.raises(error, match=words):
        call()


@pytest.mark.parametrize("module", [kavra.calculations, kavra.reductions, kavra.tables])
def test_docstring_examples_run_as_written(module):
    result = doctest.testmod(module, optionflags=doctest.NORMALIZE_WHITESPACE)
    assert result.attempted > 0 and result.failed == 0


def test_every_function_has_a_numpy_docstring():
    for name in ["bubble_point_pressure", "one_over_b", "one_over_bo", "one_over_bw", "one_over_bg",
                 "rs_from_components", "porosity", "porosity_from_porv", "bulk_volume", "transmissibility_k",
                 "kmax", "kmin", "ksum", "kaverage"]:
        doc = getattr(kavra, name).__doc__
        assert "Parameters\n    ----------" in doc and "Examples\n    --------" in doc, name
