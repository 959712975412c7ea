"""The NumPy-first functions against the native calls they stand on: same bits on random data, inputs of
any dtype, byte order, mask and layout, no copies of ready buffers, failures in Python's words."""

import doctest
import inspect
import tracemalloc

import numpy as np
import pytest
from hypothesis import given, settings, strategies as st

import kavra
from conftest import needs_boost_python
from kavra import _kavracore as native
from kavra.tables import PVDG, PVTG, PVTO, PVTW, ROCK

RNG = np.random.default_rng(7)
TABLES = dict(
    pvto=PVTO([[[r, 40 + 1.5 * r, 1.1 + 0.002 * r, 1.0, 140 + 1.5 * r, 1.09 + 0.002 * r, 1.1]
                for r in np.sort(RNG.uniform(10, 200, 5))] for _ in range(2)]),
    pvtg=PVTG([[[p, 1e-5 * p, 1.2 / p, 0.02, 2e-5 * p, 1.3 / p, 0.02] for p in np.sort(RNG.uniform(40, 400, 4))]
               for _ in range(2)]),
    pvdg=PVDG([[[50.0, 0.025, 0.01], [150.0, 0.009, 0.01], [300.0, 0.0045, 0.02]]] * 2),
    pvtw=PVTW([[200.0, 1.02, 4.5e-5, 0.5, 0.0], [210.0, 1.03, 5e-5, 0.5, 0.0]]),
    rock=ROCK([[250.0, 5e-5], [260.0, 1e-4]]),
)
CELL = {  # name: (table, number of real inputs, native function)
    "bubble_point_pressure": ("pvto", 1, native.CalcBubblePointPressure), "porosity": ("rock", 2, native.CalcPorosity),
    "one_over_bo": ("pvto", 2, native.CalcOneOverBo), "one_over_bw": ("pvtw", 1, native.CalcOneOverBw),
    "one_over_bg": ("pvtg", 3, native.CalcOneOverBg), "one_over_b": ("pvdg", 1, native.CalcOneOverB),
    "porosity_from_porv": (None, 2, native.CalcPorosityFromPORV), "bulk_volume": (None, 2, native.CalcBulkVolume),
    "rs_from_components": (None, 2, native.CalcRsFromComponents),
}


def inputs(rng, name, n):
    regions = rng.integers(-1, 3, n).astype(np.int32)  # 0 and -1: no region
    values = [rng.uniform(-50.0, 450.0, n) for _ in range(CELL[name][1])]
    if name in ("one_over_bo", "one_over_bg"):  # Po == Pbub (Pg == Pdew) in some cells
        saturated = rng.random(n) < 0.4
        values[1][saturated] = values[0][saturated]
    if name == "one_over_bg":
        values[2] = rng.uniform(0.0, 0.01, n)
    return regions, values


def native_result(name, regions, values, start=None):
    from kavra import tessel

    table, _, call = CELL[name]
    result = tessel.DoubleGridFunction(np.zeros(len(values[0])) if start is None else start)
    head = () if table is None else (TABLES[table].to_native(), tessel.IntGridFunction(regions))
    call(*head, *map(tessel.DoubleGridFunction, values), result)
    return result.values


def api(name, regions, values, **keywords):
    table = CELL[name][0]
    return getattr(kavra, name)(*(() if table is None else (TABLES[table], regions)), *values, **keywords)


def same_bits(got, expected):
    got, expected = np.asarray(got), np.asarray(expected)
    assert got.shape == expected.shape and got.dtype == expected.dtype
    np.testing.assert_array_equal(got.view(np.uint8), expected.view(np.uint8))


@needs_boost_python
@settings(max_examples=60, deadline=None)
@given(name=st.sampled_from(sorted(CELL)), n=st.integers(0, 300), seed=st.integers(0, 2**32 - 1),
       dtype=st.sampled_from(["<f8", ">f8", "<f4", ">f4", "<i8"]), region_dtype=st.sampled_from(["<i4", ">i8", "u2"]))
def test_cell_functions_give_the_native_bits(name, n, seed, dtype, region_dtype):
    regions, values = inputs(np.random.default_rng(seed), name, n)
    values = [v.astype(dtype) for v in values]
    regions = regions.astype(region_dtype) if region_dtype != "u2" else np.abs(regions).astype(region_dtype)
    expected = native_result(name, regions.astype(np.int32), [v.astype(np.float64) for v in values])
    same_bits(api(name, regions, values), expected)


@needs_boost_python
def test_bulk_volume_with_ntg_is_both_native_overloads():
    from kavra import tessel

    porv, poro, ntg = RNG.uniform(0, 500, 50), RNG.uniform(-0.1, 0.4, 50), RNG.uniform(0.5, 1.0, 50)
    bulk = tessel.DoubleGridFunction(50)
    native.CalcBulkVolume(tessel.DoubleGridFunction(porv), tessel.DoubleGridFunction(poro), bulk)
    native.CalcBulkVolume(tessel.DoubleGridFunction(ntg), bulk)
    same_bits(kavra.bulk_volume(porv, poro, ntg=ntg), bulk.values)


@needs_boost_python
def test_broadcasting_shapes_and_out():
    p = RNG.uniform(40, 400, (3, 4, 5))
    expected = native_result("one_over_b", np.ones(60, np.int32), [p.reshape(-1)]).reshape(3, 4, 5)
    same_bits(kavra.one_over_b(TABLES["pvdg"], 1, p), expected)
    out = np.zeros((3, 4, 5))
    assert kavra.one_over_b(TABLES["pvdg"], np.ones((4, 1), np.int8), p, out=out) is out
    same_bits(out, expected)
    single = np.zeros((3, 4, 5), dtype=np.float32)  # the float variant's rounding, once
    kavra.one_over_b(TABLES["pvdg"], 1, p, out=single)
    same_bits(single, expected.astype(np.float32))


@needs_boost_python
def test_float32_out_equals_the_native_float_variant():
    from kavra import tessel

    regions, values = inputs(RNG, "one_over_bo", 200)
    values, result = [v.astype(np.float32) for v in values], tessel.FloatGridFunction(200)
    native.CalcOneOverBo(TABLES["pvto"].to_native(), tessel.IntGridFunction(regions),
                         *map(tessel.FloatGridFunction, values), result)
    same_bits(kavra.one_over_bo(TABLES["pvto"], regions, *values, out=np.empty(200, np.float32)), result.values)


@needs_boost_python
def test_porosity_keeps_out_where_a_cell_has_no_region():
    regions, values = inputs(RNG, "porosity", 100)
    out = RNG.uniform(0, 1, 100)
    expected = native_result("porosity", regions, values, start=out.copy())
    kavra.porosity(TABLES["rock"], regions, *values, out=out)
    same_bits(out, expected)


@needs_boost_python
@pytest.mark.parametrize("name", sorted(CELL))
def test_masked_cells_stay_masked_and_are_never_looked_up(name):
    regions, values = inputs(RNG, name, 40)
    mask = RNG.random(40) < 0.3
    regions[mask] = 99  # no such region: a masked cell must not fail
    result = api(name, np.ma.MaskedArray(regions, mask=mask), [np.ma.MaskedArray(values[0], mask=mask), *values[1:]])
    np.testing.assert_array_equal(np.ma.getmaskarray(result), mask)
    regions[mask] = 0
    same_bits(result.data[~mask], native_result(name, regions, values)[~mask])


def test_ready_buffers_are_read_in_place_and_others_converted_once():
    n = 10**6
    regions, (po, pbub) = inputs(RNG, "one_over_bo", n)
    out, peaks = np.empty(n), []
    # The first call builds the table's native list, once; then ready, byte-swapped and int64 inputs.
    # (On one thread: a call on more works on private copies, see test_threads.)
    for arrays in [(regions, po, pbub), (regions, po, pbub), (regions, po.astype(">f8"), pbub),
                   (regions.astype(np.int64), po, pbub)]:
        tracemalloc.start()
        kavra.one_over_bo(TABLES["pvto"], *arrays, out=out, threads=1)
        peaks.append(tracemalloc.get_traced_memory()[1])
        tracemalloc.stop()
    assert peaks[1] < 100_000 and 8 * n <= peaks[2] < 9 * n and 4 * n <= peaks[3] < 5 * n  # one copy, no more


@pytest.mark.parametrize("name", ["bubble_point_pressure", "one_over_bo", "one_over_bw", "porosity"])
def test_a_region_past_the_table_names_the_cell_and_region(name):
    regions, values = inputs(RNG, name, 24)
    regions[:] = 1
    regions[17] = 5
    with pytest.raises(ValueError, match=r"region 5 at pvtnum\[1, 1, 1\] \(cell 18, counting from 1\) is not in "
                                         r"the \w+ table, which has regions 1 to 2") as info:
        api(name, regions.reshape(2, 3, 4), [v.reshape(2, 3, 4) for v in values])
    assert isinstance(info.value.__cause__, RuntimeError)


@pytest.mark.parametrize("call, error, words", [
    (lambda: kavra.one_over_bo(TABLES["pvdg"], 1, 1.0, 1.0), TypeError, "pvto must be a PVTO table or a TPVTOList"),
    (lambda: kavra.one_over_b(TABLES["pvdg"], 1.0, 1.0), TypeError, "pvtnum must hold integer region numbers"),
    (lambda: kavra.one_over_b(TABLES["pvdg"], 1, ["a"]), TypeError, "p must hold real numbers"),
    (lambda: kavra.one_over_bo(TABLES["pvto"], [1, 1], [1.0, 2.0, 3.0], 1.0), ValueError, "do not broadcast"),
    (lambda: kavra.one_over_b(TABLES["pvdg"], 1, [1.0], out=np.empty(2)), ValueError, "out has the shape"),
    *[(lambda d=d, f=f: f(np.empty(1, d)), TypeError, "out must be an array of a real floating dtype")
      for d in (int, "U5", complex, object) for f in (
          lambda o: kavra.one_over_b(TABLES["pvdg"], 1, [1.0], out=o),
          lambda o: kavra.porosity(TABLES["rock"], 1, [1.0], 0.2, out=o),
          lambda o: kavra.rs_from_components([1.0], [1.0], out=o))],
    (lambda: kavra.rs_from_components([1.0], [1.0], out=np.ma.masked_all(1).harden_mask()), ValueError,
     "out has a hard mask"),
    (lambda: kavra.one_over_b(TABLES["pvdg"], [2**40], [1.0]), ValueError, r"region 1099511627776 at pvtnum\[0\]"),
    pytest.param(lambda: kavra.one_over_b(native.TPVTList([native.TPVTTable()]), [1], [1.0]), ValueError,
                 r"region 1 of the TPVTList table has no rows \(needed at pvtnum\[0\]", marks=needs_boost_python),
    (lambda: kavra.kmax(np.zeros(6, np.int16), (1, 2, 3)), TypeError, "takes int32, uint32"),
    (lambda: kavra.kmax(np.zeros((1, 2, 3)), (1, 2, 3)), ValueError,
     r"do not fit the grid of 1 x 2 x 3 cells: layout 'kji' takes the shape \(3, 2, 1\) or \(6,\)"),
    (lambda: kavra.kmax(np.zeros((3, 2, 1)), (1, 2, 3), layout="ijk"), ValueError, r"takes the shape \(1, 2, 3\)"),
    (lambda: kavra.kmax(np.zeros(6), (1, 2, 3), layout="kij"), ValueError, "layout must be 'kji' or 'ijk'"),
    (lambda: kavra.kmax(np.zeros(6), [1, 2, 3]), TypeError, "grid must be a kavra.tessel.ReservoirTopology"),
    (lambda: kavra.kmax(np.zeros(6), (1, 2, 3), active=np.zeros(6, float)), TypeError, "active must be a boolean"),
])
def test_failures_in_python_words(call, error, words):
    with pytest.raises(error, match=words):
        call()


@needs_boost_python
def test_transmissibility_k_is_the_native_sifting():
    from kavra import tessel

    grid = tessel.ReservoirTopology(3, 2, 5)
    selection = tessel.ReservoirSelectionTopology(grid, [[c % 3, (c // 3) % 2, c // 6] for c in range(30) if c % 7])
    nnc1, nnc2 = np.array([0, 1, 2, 3, 13, 8, 4, 4], np.int64), np.array([12, 25, 5, 10, 25, 20, 22, 28], np.uint16)
    v1, v2 = tessel.IntVector(nnc1), tessel.IntVector(nnc2)
    trank = tessel.DoubleGridFunction(selection.number_of_selected_cells)
    native.CalcTransmissibilityK(v1, v2, selection, tessel.SelectionViewGridFunction(selection, trank))
    for g, e in zip(kavra.transmissibility_k(nnc1, nnc2, selection), (v1.to_numpy(), v2.to_numpy(), trank.values)):
        same_bits(g, e)
    masked = kavra.transmissibility_k(np.ma.masked_equal(nnc1, 3), nnc2, selection)  # (3, 10) left out
    same_bits(masked[0], np.array([n for n in v1.to_numpy() if n != 3], dtype=np.int32))
    assert [a.size for a in kavra.transmissibility_k([], [], selection)[:2]] == [0, 0]  # [] holds no float
    with pytest.raises(ValueError, match="does not run down across at least two layers") as info:
        kavra.transmissibility_k([2], [8], selection)
    assert isinstance(info.value.__cause__, RuntimeError)
    with pytest.raises(ValueError, match=r"nnc2\[0\] = 30 is not a cell of the grid of 3 x 2 x 5 cells"):
        kavra.transmissibility_k([0], [30], selection)


REDUCTIONS = {"kmax": native.KMax, "kmin": native.KMin, "ksum": native.KSum, "kaverage": native.KAverage}
KERNEL_TYPES = ["i4", "u4", "i8", "u8", "f4", "f8"]


def values_of(rng, dtype, n):
    if np.dtype(dtype).kind == "f":
        return rng.normal(0.0, 100.0, n).astype(dtype)
    return rng.integers(-1000 if np.dtype(dtype).kind == "i" else 0, 1000, n).astype(dtype)


@needs_boost_python
@pytest.mark.parametrize("dtype", KERNEL_TYPES)
@pytest.mark.parametrize("name", sorted(REDUCTIONS))
def test_selections_of_byte_swapped_and_masked_values(name, dtype):
    from kavra import tessel

    cells = [[1, 0, 2], [2, 1, 0], [1, 0, 0], [1, 0, 3]]  # the last one masked, in the column of the first
    whole, part = (tessel.ReservoirSelectionTopology(tessel.ReservoirTopology(3, 2, 4), c) for c in (cells, cells[:3]))
    values, swapped = values_of(RNG, "<" + dtype, 4), values_of(RNG, "<" + dtype, 4).astype(">" + dtype)
    same_bits(getattr(kavra, name)(swapped, whole), REDUCTIONS[name](whole, swapped.astype("<" + dtype)))
    masked = getattr(kavra, name)(np.ma.MaskedArray(values, mask=[0, 0, 0, 1]), whole)
    same_bits(masked.data[:3], REDUCTIONS[name](part, values[:3]))
    assert masked.mask.tolist() == [False, False, False, True]


@needs_boost_python
@settings(max_examples=60, deadline=None)
@given(name=st.sampled_from(sorted(REDUCTIONS)), dims=st.tuples(*[st.integers(0, 5)] * 3),
       dtype=st.sampled_from(KERNEL_TYPES + ["<q", ">q"]), order=st.sampled_from("<>"),
       layout=st.sampled_from(["kji", "ijk"]), flat=st.booleans(), masking=st.sampled_from([None, "mask", "active"]),
       seed=st.integers(0, 2**32 - 1))
def test_reductions_equal_the_native_kernels(name, dims, dtype, order, layout, flat, masking, seed):
    from kavra import tessel

    rng = np.random.default_rng(seed)
    ni, nj, nk = dims
    n = ni * nj * nk
    cell_order = values_of(rng, order + dtype.lstrip("<>"), n)  # I fastest
    valid = rng.random(n) < 0.7 if masking else np.ones(n, bool)

    def as_given(cells):
        cells = cells.reshape(nk, nj, ni) if layout == "kji" else cells.reshape(nk, nj, ni).transpose(2, 1, 0).copy()
        return cells.reshape(-1) if flat else cells

    values, active = as_given(cell_order), as_given(valid)
    if masking == "mask":
        values = np.ma.MaskedArray(values, mask=~active)
    keywords = {"active": active} if masking == "active" else {}
    got = getattr(kavra, name)(values, (ni, nj, nk), layout=layout, **keywords)

    native_values = cell_order.astype(dtype.lstrip("<>").replace("q", "i8"))  # native order
    cells = np.flatnonzero(valid)
    part = tessel.ReservoirSelectionTopology(tessel.ReservoirTopology(ni, nj, nk),
                                             np.column_stack(np.unravel_index(cells, (nk, nj, ni))[::-1]))
    expected = np.zeros(n, native_values.dtype)
    expected[cells] = REDUCTIONS[name](part, native_values[cells])
    assert np.shape(got) == np.shape(values) and isinstance(got, np.ma.MaskedArray) == bool(masking)
    same_bits(np.ma.getdata(got).reshape(-1), as_given(expected).reshape(-1).astype(np.ma.getdata(got).dtype))
    if masking:
        np.testing.assert_array_equal(np.ma.getmaskarray(got), ~active)


@pytest.mark.parametrize("module", [  # the examples of these two use kavra.tessel and to_native
    *[pytest.param(m, marks=needs_boost_python) for m in (kavra.calculations, kavra.tables)],
    kavra.reductions, kavra.maps, kavra.blackoil])
def test_numpy_docstrings_with_examples_that_run(module):
    result = doctest.testmod(module, optionflags=doctest.NORMALIZE_WHITESPACE)
    assert result.attempted > 0 and result.failed == 0
    # (cleandoc: from Python 3.13 on, the compiler strips the docstring's indentation itself)
    for doc in (inspect.cleandoc(getattr(module, name).__doc__) for name in module.__all__
                if callable(getattr(module, name))):
        assert "\nParameters\n----------\n" in doc and "\nExamples\n--------\n" in doc
