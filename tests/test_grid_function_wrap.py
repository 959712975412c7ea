"""tessel grid functions over a NumPy array's own memory: shared both ways, kept
alive, refused when not exactly right, and safe when letting go runs Python."""

import gc
import weakref

import numpy as np
import pytest

import kavra
from kavra import tessel

CLASSES = [(tessel.IntGridFunction, np.int32), (tessel.FloatGridFunction, np.float32),
           (tessel.DoubleGridFunction, np.float64)]


@pytest.mark.parametrize("cls, dtype", CLASSES)
def test_wrap_shares_the_memory_and_keeps_the_array(cls, dtype):
    array = np.arange(6, dtype=dtype)
    gf = cls.wrap(array)
    assert np.shares_memory(np.asarray(gf), array) and np.shares_memory(gf.values, array)
    gf[1] = 7
    gf.set_double(2, 8.0)
    array[3] = 9
    assert (len(gf), gf.get_double(3), gf[1], array[2]) == (6, 9.0, 7, 8)
    assert gf[1:3].tolist() == [7, 8] and gf[[0, 5]].tolist() == [0, 5]
    assert np.array(gf, dtype=np.float64, copy=True).dtype == np.float64
    assert not np.shares_memory(np.array(gf, copy=True), array)

    owner = weakref.ref(array)
    with pytest.raises(ValueError):  # the memory must not move while the grid function reads it
        array.resize(12, refcheck=False)
    del array
    gc.collect()
    assert owner() is not None and gf.get_double(3) == 9.0
    del gf
    gc.collect()
    assert owner() is None


def test_a_view_of_a_view_keeps_the_owner_from_moving():
    owner = np.zeros(8)
    gf = tessel.DoubleGridFunction.wrap(owner.reshape(2, 4)[1])
    with pytest.raises(ValueError):
        owner.resize(20, refcheck=False)
    del gf
    owner.resize(20, refcheck=False)  # free again once nothing reads it


@pytest.mark.parametrize("source, error, words", [
    ([1.0, 2.0], TypeError, "needs a NumPy array, got list"),
    (np.zeros(3, np.float32), TypeError, "needs float64 elements, got float32"),
    (np.ma.MaskedArray(np.zeros(3), mask=[0, 1, 0]), TypeError, "masked array, whose mask it would drop"),
    (np.zeros(3, ">f8"), ValueError, "machine's byte order, got >f8"),
    (np.zeros((2, 3)), ValueError, "one-dimensional array, got 2 dimensions"),
    (np.zeros(6)[::2], ValueError, "contiguous"),
    (np.frombuffer(bytearray(25), dtype=np.float64, offset=1), ValueError, "aligned"),
    (np.frombuffer(bytes(24), dtype=np.float64), ValueError, "writeable"),
])
def test_anything_but_an_exact_buffer_is_refused(source, error, words):
    with pytest.raises(error, match=words):
        tessel.DoubleGridFunction.wrap(source)


def test_letting_go_may_run_python_that_uses_the_module():  # the base runs a calculation and wraps arrays as it dies
    seen = []

    class Finaliser(np.ndarray):
        def __del__(self):
            more = tessel.DoubleGridFunction.wrap(np.ones(3))
            kavra.CalcBulkVolume(more, tessel.DoubleGridFunction.wrap(np.ones(3)))
            seen.append(kavra.bulk_volume(np.ones(3), np.full(3, 0.5)).tolist())

    base = np.zeros(4).view(Finaliser)
    selection = tessel.ReservoirSelectionTopology(tessel.ReservoirTopology(4, 1, 1), [[i, 0, 0] for i in range(4)])
    view = tessel.SelectionViewGridFunction(selection, tessel.DoubleGridFunction.wrap(np.asarray(base)))
    del base
    assert np.asarray(view).tolist() == [0.0] * 4 and view[1] == 0.0 and len(view) == 4
    del view
    gc.collect()
    assert seen == [[2.0, 2.0, 2.0]]


def test_versions_come_from_the_package_metadata():
    from importlib.metadata import version

    assert kavra.__version__ == tessel.__version__ == version("kavra")
