"""kavra.dask on a local cluster of worker processes: the same bits as the NumPy functions."""

import doctest

import numpy as np
import pytest

dask = pytest.importorskip("dask")
import dask.array as da  # noqa: E402
from dask.distributed import Client, LocalCluster  # noqa: E402

import kavra
import kavra.dask
from conftest import needs_boost_python
from kavra.tables import PVDG, PVDO, PVTG, PVTO, PVTW, ROCK

NK, NJ, NI = 100, 100, 100  # 10^6 cells
SHAPE = (NK, NJ, NI)


@pytest.fixture(scope="module")
def client():
    with LocalCluster(processes=True, n_workers=2, threads_per_worker=1, dashboard_address=None) as cluster:
        with Client(cluster) as client, dask.config.set({"distributed.admin.large-graph-warning-threshold": "64MB"}):
            yield client


def on_cluster(array, chunks):  # held by the workers: each test sends a small graph
    return da.from_array(array, chunks=chunks).persist()


def same_bits(got, expected):
    assert type(got) is type(expected) and got.dtype == expected.dtype and got.shape == expected.shape
    if isinstance(expected, np.ma.MaskedArray):
        np.testing.assert_array_equal(np.ma.getmaskarray(got), np.ma.getmaskarray(expected))
        got, expected = got.filled(0), expected.filled(0)
    unsigned = np.dtype(f"u{expected.dtype.itemsize}")
    np.testing.assert_array_equal(got.view(unsigned), expected.view(unsigned))


TABLES = {
    "pvto": PVTO([[[20.0, 80.0, 1.15, 1.1, 300.0, 1.12, 1.3], [60.0, 150.0, 1.28, 0.9, 350.0, 1.22, 1.1],
                   [110.0, 240.0, 1.45, 0.7, 400.0, 1.40, 0.9]],
                  [[30.0, 100.0, 1.2, 1.0, 300.0, 1.17, 1.2], [90.0, 210.0, 1.38, 0.8, 380.0, 1.33, 1.0]]]),
    "pvdo": PVDO([[[50.0, 1.3, 1.0], [200.0, 1.2, 1.1], [400.0, 1.1, 1.3]], [[60.0, 1.25, 1.0], [350.0, 1.15, 1.2]]]),
    "pvdg": PVDG([[[50.0, 0.025, 0.012], [150.0, 0.009, 0.015], [300.0, 0.0045, 0.02]],
                  [[40.0, 0.03, 0.012], [320.0, 0.004, 0.02]]]),
    "pvtw": PVTW([[200.0, 1.02, 4.5e-5, 0.5, 1e-4], [250.0, 1.01, 4e-5, 0.4, 0.0]]),
    "pvtg": PVTG([[[100.0, 0.01, 0.02, 0.02, 0.0, 0.021, 0.018], [200.0, 0.02, 0.01, 0.02, 0.0, 0.0105, 0.019],
                   [300.0, 0.03, 0.006, 0.03, 0.0, 0.0063, 0.028]],
                  [[120.0, 0.015, 0.018, 0.02, 0.0, 0.019, 0.019], [280.0, 0.025, 0.007, 0.03, 0.0, 0.0074, 0.02]]]),
    "rock": ROCK([[200.0, 5e-5], [250.0, 8e-5]]),
}
# Three chunkings; every calculation below mixes inputs of at least two, so its chunks do not line up.
A, B, C = (50, 100, 100), (100, 40, 100), (30, 100, 100)
FIELD_CHUNKS = dict(pvtnum=A, p=B, pbub=C, rs=B, pdew=C, rv=A, poro=C, porv=A, ntg=B, denominator=C)


@pytest.fixture(scope="module")
def fields(client):
    """Per input name: the NumPy array and the same numbers in chunks on the cluster."""
    rng = np.random.default_rng(16)
    arrays = {"pvtnum": rng.choice(np.array([0, 1, 2], dtype=np.int32), SHAPE, p=[0.02, 0.49, 0.49])}
    for name, low, high in [("p", 30.0, 450.0), ("pbub", 60.0, 260.0), ("rs", 0.0, 130.0), ("pdew", 90.0, 320.0),
                            ("rv", 0.0, 0.03), ("poro", 0.05, 0.35), ("porv", 0.0, 500.0), ("ntg", 0.5, 1.0)]:
        arrays[name] = rng.uniform(low, high, SHAPE)
    arrays["denominator"] = np.where(rng.random(SHAPE) < 0.1, rng.choice([0.0, -1.0], SHAPE),
                                     rng.uniform(0.5, 5.0, SHAPE))
    return {name: (array, on_cluster(array, FIELD_CHUNKS[name])) for name, array in arrays.items()}


# function[-case]: the table (- for none) and the inputs; bulk_volume's last one is ntg=
CELL_CALLS = {"bubble_point_pressure": "pvto pvtnum rs", "one_over_b-pvdo": "pvdo pvtnum p",
              "one_over_b-pvdg": "pvdg pvtnum p", "one_over_bo": "pvto pvtnum p pbub", "one_over_bw": "pvtw pvtnum p",
              "one_over_bg": "pvtg pvtnum p pdew rv", "rs_from_components": "- denominator rs",
              "porosity": "rock pvtnum p poro", "porosity_from_porv": "- denominator porv",
              "bulk_volume": "- porv denominator ntg"}


@pytest.mark.parametrize("call", CELL_CALLS, ids=str)
def test_cell_calculations_match_numpy_over_misaligned_chunks(fields, call):
    table, *names = CELL_CALLS[call].split()

    def run(module, which):
        args = [fields[n][which] for n in names]
        keywords = {"ntg": args.pop()} if call == "bulk_volume" else {}
        return getattr(module, call.split("-")[0])(*([TABLES[table]] if table != "-" else []), *args, **keywords)

    result = run(kavra.dask, 1)
    assert result.npartitions > 2
    same_bits(result.compute(), run(kavra, 0))


def test_cell_calculation_broadcasts_and_keeps_masks(fields):
    regions = fields["pvtnum"][0][0, 0]  # one row of regions for every layer and row
    expected = kavra.one_over_bo(TABLES["pvto"], regions, np.ma.masked_greater(fields["p"][0], 400.0), 180.0)
    result = kavra.dask.one_over_bo(TABLES["pvto"], da.from_array(regions, chunks=30),
                                    da.ma.masked_greater(fields["p"][1], 400.0), 180.0)
    same_bits(result.compute(), expected)


REDUCTION_CASES = {  # layout, chunks of the values
    "kji float64, K split": ("kji", (10, 50, 100)),  # kmax, kmin: a tree of two levels; ksum, kaverage: rechunked
    "flat int32": ("kji", 123_457),  # chunks across layer boundaries; integer sums by the tree
    "ijk float32, active": ("ijk", (50, 50, 30)),  # K split on the last axis; whole columns
}


@pytest.fixture(scope="module")
def reduction_inputs(client):
    """Per case: values and active cells (or None), each as NumPy and on the cluster. Columns hold NaN,
    infinities, both zeros (first in K wins at J=0), ties, only negatives (J=1); integer sums overflow."""
    rng = np.random.default_rng(14)
    values = rng.normal(0.0, 10.0, SHAPE)
    values[:, 0, :] = np.abs(values[:, 0, :])
    values[rng.random(SHAPE) < 0.05] = 0.0
    values[(rng.random(SHAPE) < 0.5) & (values == 0.0)] = -0.0
    values[:, 1, :] = -np.abs(values[:, 1, :])
    values[rng.random(SHAPE) < 0.01] = np.nan
    values[rng.random(SHAPE) < 0.002] = np.inf
    values[rng.random(SHAPE) < 0.002] = -np.inf
    values[:, 2, :] = np.round(values[:, 2, :])
    active = rng.random(SHAPE) < 0.9
    active[:, :2, :] = False  # columns without any active cell
    integers = rng.integers(-2**31, 2**31 - 1, NK * NJ * NI, dtype=np.int32, endpoint=True)
    arrays = {"kji float64, K split": (values, None), "flat int32": (integers, None),
              "ijk float32, active": (values.astype(np.float32).transpose(2, 1, 0).copy(), active)}
    return {case: ((v, on_cluster(v, REDUCTION_CASES[case][1])), a if a is None else (a, on_cluster(a, (100, 20, 100))))
            for case, (v, a) in arrays.items()}


@pytest.mark.parametrize("reduction", ["kmax", "kmin", "ksum", "kaverage"])
@pytest.mark.parametrize("case", REDUCTION_CASES, ids=str)
def test_reductions_match_numpy(reduction_inputs, case, reduction):
    layout = REDUCTION_CASES[case][0]
    (values, chunked), active = reduction_inputs[case]
    expected = getattr(kavra, reduction)(values, (NI, NJ, NK), active=active and active[0], layout=layout)
    result = getattr(kavra.dask, reduction)(chunked, (NI, NJ, NK), active=active and active[1], layout=layout)
    assert result.shape == values.shape and result.dtype == values.dtype
    same_bits(result.compute(), expected)


@needs_boost_python
def test_native_lists_and_selections_are_refused_and_topologies_taken(fields):
    from kavra import tessel

    pressure = fields["p"][1]
    with pytest.raises(TypeError, match="must be a kavra.tables.PVTO .*from_native"):
        kavra.dask.one_over_bo(TABLES["pvto"].to_native(), 1, pressure, pressure)
    grid = tessel.ReservoirTopology(NI, NJ, NK)
    with pytest.raises(TypeError, match="selections are not supported"):
        kavra.dask.kmax(pressure[0, 0], tessel.ReservoirSelectionTopology(grid, [[i, 0, 0] for i in range(NI)]))
    with pytest.raises(ValueError, match=r"do not fit the grid of 100 x 100 x 100 cells"):
        kavra.dask.ksum(pressure[1:], grid)


def test_refusals_and_failures(fields):
    pressure = fields["p"][1]
    with pytest.raises(TypeError, match="pvtnum must hold integer region numbers"):
        kavra.dask.one_over_bo(TABLES["pvto"], pressure, pressure, pressure)
    grid = (NI, NJ, NK)
    with pytest.raises(TypeError, match="float16"):
        kavra.dask.kmin(pressure.astype(np.float16), grid)
    with pytest.raises(ValueError, match=r"^kavra.dask.one_over_bo: the shapes of the inputs do not broadcast "
                                         r"together: pvtnum \(\), po \(100, 100, 100\), pbub \(99,\)$"):
        kavra.dask.one_over_bo(TABLES["pvto"], 1, pressure, np.ones(99))

    regions = da.where(da.arange(NK)[:, None, None] == 70, 3, fields["pvtnum"][1])  # region 3 in layer 70
    lazy = kavra.dask.one_over_bo(TABLES["pvto"], regions, pressure, 150.0)
    with pytest.raises(ValueError, match=r"region 3 at pvtnum\[20, 0, 0\] .*\(in the chunk \[50:100, \d+:\d+, "
                                         r"0:100\] of the result"):
        lazy.compute()


def test_docstring_examples(client):
    failures, tried = doctest.testmod(kavra.dask, optionflags=doctest.NORMALIZE_WHITESPACE)
    assert tried > 20 and failures == 0


def satfunc_of_cells(cells):
    """Two SATNUM regions (region 0: no cell, NaN), end points of the cells' own, Pc in both tables."""
    from kavra import satfunc

    rng = np.random.default_rng(29)
    swof = [[[0.2, 0.0, 1.0, 3.0], [0.5, 0.2, 0.3, 1.0], [1.0, 1.0, 0.0, 0.0]],
            [[0.1, 0.0, 0.9, 2.0], [0.6, 0.4, 0.1, 0.5], [1.0, 0.8, 0.0, 0.0]]]
    sgof = [[[0.0, 0.0, 1.0, 0.0], [0.4, 0.3, 0.2, 0.4], [0.8, 1.0, 0.0, 1.0]],
            [[0.0, 0.0, 0.9, 0.0], [0.9, 0.7, 0.0, 0.6]]]
    satnum = rng.choice(np.array([0, 1, 2], dtype=np.int32), cells, p=[0.02, 0.49, 0.49])
    ends = {"SWL": rng.uniform(0.1, 0.25, cells), "SGCR": rng.uniform(0.0, 0.1, cells),
            "KRW": rng.uniform(0.5, 1.0, cells), "PCW": rng.uniform(1.0, 4.0, cells)}
    return satfunc.from_tables(swof=swof, sgof=sgof, satnum=satnum, end_points=ends)


@pytest.mark.parametrize("method", ["relperm", "capillary_pressure"])
def test_satfunc_matches_numpy_over_misaligned_chunks(client, method):
    from kavra import satfunc

    rng = np.random.default_rng(30)
    sw = rng.uniform(0.0, 1.0, SHAPE).astype(np.float32)  # float32 read as it is, as a restart holds it
    sg = np.ma.masked_greater(rng.uniform(0.0, 1.0, SHAPE) * (1.0 - sw), 0.7)
    per_cell = satfunc_of_cells(sw.size)
    chunked = on_cluster(sw, A), da.ma.masked_greater(on_cluster(sg.filled(0.9), B), 0.7)
    for functions, args in [(per_cell, chunked), (satfunc.from_tables(**TABLES_SATFUNC), (chunked[0], 0.1))]:
        lazy = getattr(kavra.dask.satfunc, method)(functions, *args)
        expected = getattr(functions, method)(*(a.compute() if isinstance(a, da.Array) else a for a in args))
        assert type(lazy) is type(expected) and lazy[0].npartitions >= 2
        for got, want in zip(lazy, expected):
            same_bits(got.compute(), want)
    with pytest.raises(ValueError, match="sw and sg hold 999999 cells; satnum has 1000000"):
        getattr(kavra.dask.satfunc, method)(per_cell, chunked[0].ravel()[1:], 0.0)
    with pytest.raises(TypeError, match="must be a kavra.satfunc.SaturationFunctions"):
        getattr(kavra.dask.satfunc, method)(TABLES["pvto"], chunked[0], 0.0)


TABLES_SATFUNC = {"swof": [[0.2, 0.0, 1.0, 2.0], [1.0, 1.0, 0.0, 0.0]], "sgof": [[0.0, 0.0, 1.0, 0.0], [0.8, 1.0, 0.0, 0.5]]}
