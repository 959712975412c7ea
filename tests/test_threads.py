"""Calculations on threads: the same bits for every number of threads, the
native call's failure, the interpreter lock released while the cells run."""

import os
import subprocess
import sys
import threading
import time

import numpy as np
import pytest

import kavra
from kavra.tables import PVDO, PVTG, PVTO, PVTW, ROCK

N = 460_013  # enough cells for 7 parts of every calculation
RNG = np.random.default_rng(7)
REGIONS = RNG.integers(0, 3, N).astype(np.int32)  # region 0: no region
P, Q, R = RNG.uniform(50.0, 400.0, N), RNG.uniform(50.0, 400.0, N), RNG.uniform(0.0, 0.05, N)

OIL_RECORDS = [[[50.0, 120.0, 1.25, 0.9, 250.0, 1.22, 1.0], [80.0, 180.0, 1.35, 0.8, 300.0, 1.31, 0.9]],
               [[40.0, 100.0, 1.2, 0.9], [90.0, 200.0, 1.4, 0.8, 300.0, 1.33, 0.9]]]
OIL = PVTO(OIL_RECORDS)
GAS = PVTG([[[100.0, 0.01, 0.02, 0.1, 0.03, 0.025, 0.1], [200.0, 0.02, 0.01, 0.1, 0.04, 0.0125, 0.1]]] * 2)
CALLS = {
    "bubble_point_pressure": lambda t: kavra.bubble_point_pressure(OIL, REGIONS, R * 2000.0, threads=t),
    "one_over_b": lambda t: kavra.one_over_b(PVDO([[[100.0, 1.2, 1], [300.0, 1.0, 1]]] * 2), REGIONS, P, threads=t),
    "one_over_bo": lambda t: kavra.one_over_bo(OIL, REGIONS, P, np.minimum(P, Q), threads=t),
    "one_over_bw": lambda t: kavra.one_over_bw(PVTW([[100.0, 1.0, 1e-4, 0.5, 0.0]] * 2), REGIONS, P, threads=t),
    "one_over_bg": lambda t: kavra.one_over_bg(GAS, REGIONS, P, np.where(R > 0.04, P, Q), R, threads=t),
    "porosity": lambda t: kavra.porosity(ROCK([[200.0, 1e-3], [100.0, 5e-4]]), REGIONS, P, R * 5, threads=t),
    "porosity_from_porv": lambda t: kavra.porosity_from_porv(P - 60.0, Q, threads=t),
    "bulk_volume": lambda t: kavra.bulk_volume(P, R, ntg=Q, threads=t),
    "rs_from_components": lambda t: kavra.rs_from_components(P, Q, threads=t),
}
GRID = (61, 47, 81)  # 232 227 cells: 7 parts


def reductions(dtype):
    values = (RNG.standard_normal(GRID[::-1]) * 1e3).astype(dtype)
    if dtype[0] == "f":
        values.flat[::97] = np.nan
    return {f"{name}-{dtype}": lambda t, r=getattr(kavra, name): r(values, GRID, threads=t)
            for name in ("kmax", "kmin", "ksum", "kaverage")}


CALLS.update({key: call for dtype in ("i4", "u4", "i8", "u8", "f4", "f8") for key, call in reductions(dtype).items()})


@pytest.mark.parametrize("name", CALLS)
def test_every_thread_count_gives_the_same_bits(name):
    one = CALLS[name](1)  # one thread is the native call itself
    for threads in (2, 3, 7):
        result = CALLS[name](threads)
        assert (result.shape, result.dtype, result.tobytes()) == (one.shape, one.dtype, one.tobytes())


def emptied_second_table():
    tables = OIL.to_native()
    tables[1] = kavra.TPVTOTable([])
    return tables


# A region beyond the table; an empty table, needed from the middle cell on and again in the last part
# (a call split over threads would write that part's cells before it).
FAILURES = {
    "region": (lambda: OIL, 3, "region 3 at pvtnum\\[{}\\]", "Wrong PVT region number: 2, valid interval [0, 1]."),
    "empty table": (emptied_second_table, 2, "region 2 of the PVTO table has no rows \\(needed at pvtnum\\[{}\\]",
                    "Empty PVT table!!"),
}


@pytest.mark.parametrize("threads", [1, 4])
@pytest.mark.parametrize("failure", FAILURES)
def test_a_failing_cell_fails_as_the_native_call(failure, threads):
    tables, region, message, cause = FAILURES[failure]
    regions = np.where(REGIONS == 2, 1, REGIONS)
    regions[N // 2] = regions[-5] = region
    out = np.full(N, -1.0)
    with pytest.raises(ValueError, match=message.format(N // 2)) as info:
        kavra.one_over_bo(tables(), regions, P, np.minimum(P, Q), out=out, threads=threads)
    assert cause in str(info.value.__cause__)
    expected = kavra.one_over_bo(OIL, regions[: N // 2], P[: N // 2], np.minimum(P, Q)[: N // 2])
    np.testing.assert_array_equal(out[: N // 2], expected)  # written up to the failing cell, as natively
    assert (out[N // 2:] == -1.0).all()


def test_the_interpreter_runs_other_threads_during_a_call():
    n = 4_000_000
    p = np.resize(P, n)
    stamps, stop = [], threading.Event()

    def tick():
        while not stop.is_set():
            stamps.append(time.perf_counter())
            time.sleep(0.0005)

    ticker = threading.Thread(target=tick)
    ticker.start()
    time.sleep(0.01)
    regions, out = np.resize(REGIONS, n), np.empty(n)  # ready buffers: between start and end, the native call alone
    start = time.perf_counter()
    kavra.one_over_bo(OIL, regions, p, p, out=out, threads=2)
    end = time.perf_counter()
    stop.set()
    ticker.join()
    assert end - start > 0.02 and len([s for s in stamps if start + 0.005 < s < end - 0.005]) >= 3


def test_calls_from_several_threads_at_once():  # each with a table of its own
    tables = [PVTO([[[v * (1 + k / 8) for v in record] for record in region] for region in OIL_RECORDS])
              for k in range(4)]

    def call(k, threads=2):
        return kavra.one_over_bo(tables[k], REGIONS, P, np.minimum(P, Q), threads=threads)

    results = [None] * 4
    workers = [threading.Thread(target=lambda k=k: results.__setitem__(k, call(k))) for k in range(4)]
    for w in workers:
        w.start()
    for w in workers:
        w.join()
    assert [r.tobytes() for r in results] == [call(k, threads=1).tobytes() for k in range(4)]


def test_thread_settings():
    before = kavra.get_num_threads()
    assert before == len(os.sched_getaffinity(0)) or "KAVRA_NUM_THREADS" in os.environ
    kavra.set_num_threads(3)
    assert kavra.get_num_threads() == 3
    kavra.set_num_threads(before)
    for bad, error in ((0, ValueError), (1.5, TypeError), (True, TypeError)):
        with pytest.raises(error):
            kavra.set_num_threads(bad)
        with pytest.raises(error):
            kavra.one_over_bw(PVTW([[100.0, 1.0, 1e-4, 0.5, 0.0]]), 1, 150.0, threads=bad)
    code = "import kavra; print(kavra.get_num_threads())"
    env = dict(os.environ, KAVRA_NUM_THREADS="5")
    assert subprocess.run([sys.executable, "-c", code], env=env, capture_output=True, text=True).stdout == "5\n"
