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
from conftest import needs_boost_python
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
@pytest.mark.parametrize("failure", [pytest.param(name, marks=needs_boost_python) if name == "empty table" else name
                                     for name in FAILURES])  # an empty table is made of native lists
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
    n = 10_000_000  # a call of some 50 ms on the engine, two threads
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
    kavra.set_num_threads(1)
    assert kavra.get_num_threads() == 1
    kavra.set_num_threads(before)
    for bad, error in ((0, ValueError), (1.5, TypeError), (True, TypeError)):
        with pytest.raises(error):
            kavra.set_num_threads(bad)
        with pytest.raises(error):
            kavra.one_over_bw(PVTW([[100.0, 1.0, 1e-4, 0.5, 0.0]]), 1, 150.0, threads=bad)
    code = "import kavra; print(kavra.get_num_threads())"
    env = dict(os.environ, KAVRA_NUM_THREADS="5")
    cores = len(os.sched_getaffinity(0))
    assert subprocess.run([sys.executable, "-c", code], env=env, capture_output=True, text=True).stdout == f"{min(5, cores)}\n"


# A daemon thread inside a call that lets go of the interpreter lock while the interpreter ends.
EXIT_SCRIPT = """
import threading, time, numpy as np, kavra
from kavra.tables import PVTW
water, p = PVTW([[100.0, 1.0, 1e-4, 0.5, 0.0]]), np.linspace(50.0, 400.0, 2_000_000)
started = threading.Event()
def work():
    while True:
        started.set()
        kavra.one_over_bw(water, 1, p, threads=2)
        kavra.ksum(p, (1000, 100, 20), threads=2)
threading.Thread(target=work, daemon=True).start()
started.wait()
time.sleep(0.02)
"""


def test_a_script_that_ends_during_a_call_exits_cleanly():
    for _ in range(6):
        run = subprocess.run([sys.executable, "-c", EXIT_SCRIPT], capture_output=True, text=True, timeout=120)
        assert (run.returncode, run.stderr) == (0, "")


@pytest.mark.parametrize("target", ["input", "out"])
def test_an_array_given_new_state_during_a_call(target):
    """__setstate__ frees the memory an array owns, views or not: a call never works on it unlocked."""
    water, n = PVTW([[100.0, 1.0, 1e-4, 0.5, 0.0]]), 1 << 20
    arrays = {"input": np.linspace(50.0, 400.0, n), "out": np.empty(n)}
    # Byte-swapped state: each __setstate__ frees the array's memory and allocates new (a native one
    # would only point the array at the state's bytes, after the first time).
    state, stop = np.full(n, 7.0, ">f8").__reduce__()[2], threading.Event()

    def replace():
        while not stop.is_set():
            arrays[target].__setstate__(state)

    attacker = threading.Thread(target=replace)
    attacker.start()
    try:
        for _ in range(20):
            kavra.one_over_bw(water, 1, arrays["input"], out=arrays["out"], threads=2)
            kavra.ksum(arrays["input"], (1024, 64, 16), threads=2)
    finally:
        stop.set()
        attacker.join()


@needs_boost_python  # a native list that another thread grows
def test_a_table_list_grown_during_a_call():
    """The regions of a call split over threads are checked against the tables it runs on."""
    tables, regions = kavra.TPVTWList(), np.resize(np.array([1, 2], np.int32), 1 << 21)
    tables.append(PVTW([[100.0, 1.0, 1e-4, 0.5, 0.0]]).to_native()[0])
    stop, p = threading.Event(), np.linspace(50.0, 400.0, regions.size)

    def grow():
        while not stop.is_set():
            tables.append(tables[0])
            tables.resize(1)

    attacker = threading.Thread(target=grow)
    attacker.start()
    try:
        for _ in range(100):
            try:
                kavra.one_over_bw(tables, regions, p, threads=2)
            except ValueError as error:
                assert "region 2 at pvtnum[1]" in str(error)
    finally:
        stop.set()
        attacker.join()


@pytest.mark.parametrize("threads", [1, 2])
@pytest.mark.parametrize("shift", [1, -1])
def test_out_overlapping_an_input_reads_the_inputs_first(shift, threads):
    p = np.linspace(50.0, 400.0, 1 << 18)
    expected = kavra.rs_from_components(np.ones(p.size - 1), p[1:] if shift < 0 else p[:-1])
    a = p.copy()
    source, out = (a[:-1], a[1:]) if shift > 0 else (a[1:], a[:-1])
    kavra.rs_from_components(np.ones(p.size - 1), source, out=out, threads=threads)
    np.testing.assert_array_equal(out, expected)
    b = p.copy()
    kavra.one_over_bw(PVTW([[100.0, 1.0, 1e-4, 0.5, 0.0]]), 1, b[:-1], out=b[1:], threads=threads)
    np.testing.assert_array_equal(b[1:], kavra.one_over_bw(PVTW([[100.0, 1.0, 1e-4, 0.5, 0.0]]), 1, p[:-1]))


@pytest.mark.parametrize("threads", [1, 2])
def test_a_refused_call_writes_no_cell_twice(threads):
    water = PVTW([[100.0, 1.0, 1e-4, 0.5, 0.0]])
    p = np.array([150.0, 250.0, 350.0])
    out = p.copy()
    with pytest.raises(ValueError, match="region 2 at pvtnum\\[2\\]"):
        kavra.one_over_bw(water, np.array([1, 1, 2], np.int32), out, out=out, threads=threads)
    np.testing.assert_array_equal(out[:2], kavra.one_over_bw(water, 1, p[:2]))
    assert out[2] == p[2]


def test_thread_counts_are_capped_and_checked():
    big = np.linspace(50.0, 400.0, 1 << 22)
    water = PVTW([[100.0, 1.0, 1e-4, 0.5, 0.0]])
    code = ("import os, numpy as np, kavra; from kavra.tables import PVTW\n"
            "kavra.one_over_bw(PVTW([[100.0, 1.0, 1e-4, 0.5, 0.0]]), 1, np.ones(1 << 22), threads=10**6)\n"
            "print(len(os.listdir('/proc/self/task')) <= len(os.sched_getaffinity(0)) + 2, kavra.get_num_threads())")
    cores = len(os.sched_getaffinity(0))
    for setting, shown in (("", cores), ("99999999999", cores), ("1", 1)):
        run = subprocess.run([sys.executable, "-c", code], env=dict(os.environ, KAVRA_NUM_THREADS=setting),
                             capture_output=True, text=True)
        assert run.stdout == f"True {shown}\n", run.stderr
    for setting in ("abc", "0"):
        run = subprocess.run([sys.executable, "-W", "error", "-c", "import kavra; kavra.get_num_threads()"],
                             env=dict(os.environ, KAVRA_NUM_THREADS=setting), capture_output=True, text=True)
        assert "KAVRA_NUM_THREADS" in run.stderr and "RuntimeWarning" in run.stderr
    before = kavra.get_num_threads()
    kavra.set_num_threads(np.int64(2**40))
    assert kavra.get_num_threads() == cores
    kavra.set_num_threads(before)
    expected = kavra.one_over_bw(water, 1, big)
    for threads in (np.int64(2), 2**31, 10**6):
        np.testing.assert_array_equal(kavra.one_over_bw(water, 1, big, threads=threads), expected)
    for bad, error in ((np.float64(2.0), "threads must be an integer"), (np.bool_(True), "threads must be an integer")):
        with pytest.raises(TypeError, match=error):
            kavra.set_num_threads(bad)
