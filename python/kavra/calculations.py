"""Cell calculations on NumPy arrays: PVT, rock, Rs, and the pinch-out sifting.

Each function gives, bit for bit, what its native ``Calc…`` function gives on
the same numbers; it takes array-likes and returns a new float64 array (or
fills ``out``).  All of them run on kavra's engine (``kavra._engine``): the
core's calculation over the caller's buffers, in chunks on threads.

Conventions shared by all of them:

* Inputs broadcast against each other (NumPy's rules).  Real inputs of any
  dtype and byte order are converted to float64 once; a C-contiguous,
  writeable float64 array in the machine's byte order of the result's shape
  is read in place, with no copy, and so are float32 inputs of the PVT
  calculations (all inputs float32: read as they are, computed in double).
  An input of one value (``pdew=150.0``) is read as that value by every
  cell.  Region numbers (``pvtnum``, counted from 1; a cell below 1 belongs
  to no region) are any integer array, read in place when they are such an
  int32 array; one region number for all cells (``pvtnum=1``) is read as it
  is, never spread over the cells.
* ``out``: an array of the result's shape and a real floating dtype,
  filled and returned.  A contiguous native float64 ``out`` (float32 too,
  where the inputs are float32) is written in place; any other floating
  dtype gets the float64 result cast into it.  An input that shares memory
  with ``out`` (other than ``out`` itself) is read from a copy, as NumPy's
  ufuncs do: the result is as if every input were read before a cell was
  written.  When a failure stops a calculation, ``out`` may hold the cells
  before the one that failed, each written once.  A masked ``out`` takes
  the result's mask; a hard-masked one is refused.
* Threads: a call of more than a few thousand cells lets go of the
  interpreter lock while its cells run; the arrays it reads and writes are
  held in place meanwhile (their memory stays, even where another thread
  replaces it with ``__setstate__``).  The result is the same bits for any
  number of threads.
* Masked arrays: a cell masked in any input is masked in the result, which
  is then a ``numpy.ma.MaskedArray``; its region is not looked up (a masked
  cell never fails) and the data under the mask is not defined.
* Tables: the ``kavra.tables`` values or the native region lists
  (``TPVTOList`` …).  A region number above the table's count raises
  ``ValueError`` that names the cell and the region; the native failure is
  its ``__cause__``.
"""

from __future__ import annotations

from typing import TYPE_CHECKING, Any

import numpy as np
from numpy.typing import ArrayLike, NDArray

from . import _engine
from ._arrays import split_mask
from ._calls import calculate, run_plain
from ._docs import filled
from .tables import PVDG, PVDO, PVTG, PVTO, PVTW, ROCK

if TYPE_CHECKING:
    from kavra import tessel

    from . import _kavracore as _native

__all__ = ["bubble_point_pressure", "one_over_b", "one_over_bo", "one_over_bw", "one_over_bg",
           "rs_from_components", "porosity", "porosity_from_porv", "bulk_volume", "transmissibility_k"]

@filled
def bubble_point_pressure(pvto: PVTO | _native.TPVTOList, pvtnum: ArrayLike, rs: ArrayLike, *,
                          out: NDArray[Any] | None = None, threads: int | None = None) -> NDArray[np.float64]:
    """Bubble point pressure per cell, along the saturated line of the live-oil table.

    Between two records the pressure is linear in Rs; below the first record and above the last
    it is extrapolated linearly, not clipped: an Rs outside the table gives a pressure outside
    the table's range.

    Parameters
    ----------
    %(pvto)s
    %(pvtnum)s
    %(rs)s
    %(out)s
    %(threads)s

    Returns
    -------
    ndarray of float64
        Pressure per cell in the table's pressure unit (barsa in METRIC), linear in Rs between
        the table's records and extended linearly beyond them.

    %(raises_table)s

    Examples
    --------
    >>> from kavra import bubble_point_pressure
    >>> from kavra.tables import PVTO
    >>> oil = PVTO([[[50.0, 120.0, 1.25, 0.9], [80.0, 180.0, 1.35, 0.8]]])
    >>> print(bubble_point_pressure(oil, [1, 1, 0], [50.0, 65.0, 70.0]))
    [120. 150.   0.]
    """
    return calculate("bubble_point_pressure", "bubble_point_pressure", ("pvto", pvto), pvtnum, [("rs", rs)], out,
                     threads)


@filled
def one_over_b(pvdx: PVDG | PVDO | _native.TPVTList, pvtnum: ArrayLike, p: ArrayLike, *,
               out: NDArray[Any] | None = None, threads: int | None = None) -> NDArray[np.float64]:
    """1/B per cell of a dead oil or dry gas: B interpolated linearly in pressure, then inverted.

    Parameters
    ----------
    pvdx : PVDG, PVDO or TPVTList
        Dry-gas or dead-oil table per PVT region.
    %(pvtnum)s
    %(p)s
    %(out)s
    %(threads)s

    Returns
    -------
    ndarray of float64
        1/B per cell (sm3/rm3 in METRIC); outside the table B is extended linearly.

    %(raises_table)s

    Examples
    --------
    >>> import numpy as np
    >>> from kavra import one_over_b
    >>> from kavra.tables import PVDG
    >>> gas = PVDG([[[50.0, 0.025, 0.012], [150.0, 0.009, 0.015], [300.0, 0.0045, 0.02]]])
    >>> print(one_over_b(gas, 1, np.array([[100.0, 150.0], [200.0, 300.0]])))
    [[ 58.82352941 111.11111111]
     [133.33333333 222.22222222]]
    """
    return calculate("one_over_b", "one_over_b", ("pvdx", pvdx), pvtnum, [("p", p)], out,
                     threads)


@filled
def one_over_bo(pvto: PVTO | _native.TPVTOList, pvtnum: ArrayLike, po: ArrayLike, pbub: ArrayLike, *,
                out: NDArray[Any] | None = None, threads: int | None = None) -> NDArray[np.float64]:
    """1/Bo per cell of a live oil.

    Where ``|po - pbub| < 0.0001`` the oil is saturated and Bo is read along the saturated line
    at ``po``; elsewhere Bo comes from the undersaturated rows of the first record whose
    saturated pressure is not below ``pbub`` (the last record above them all, the second one
    at or below the first), at ``po``.  A ``pbub`` above ``po`` is not clipped: Bo is read on
    the undersaturated rows of the record at ``pbub``, at a pressure below it; for oil that is
    saturated in such cells pass ``np.minimum(pbub, po)``.

    Parameters
    ----------
    %(pvto)s
    %(pvtnum)s
    po, pbub : array_like of float
        Oil pressure and bubble point pressure per cell, in the table's pressure unit.
    %(out)s
    %(threads)s

    Returns
    -------
    ndarray of float64
        1/Bo per cell (sm3/rm3 in METRIC).

    %(raises_table)s

    Examples
    --------
    >>> from kavra import one_over_bo
    >>> from kavra.tables import PVTO
    >>> oil = PVTO([[[50.0, 120.0, 1.25, 0.9, 200.0, 1.23, 1.0], [80.0, 180.0, 1.35, 0.8, 300.0, 1.3, 1.0]]])
    >>> print(one_over_bo(oil, 1, po=[120.0, 250.0], pbub=[120.0, 150.0]))
    [0.8        0.75709779]
    """
    return calculate("one_over_bo", "one_over_bo", ("pvto", pvto), pvtnum, [("po", po), ("pbub", pbub)], out,
                     threads)


@filled
def one_over_bw(pvtw: PVTW | _native.TPVTWList, pvtnum: ArrayLike, pw: ArrayLike, *,
                out: NDArray[Any] | None = None, threads: int | None = None) -> NDArray[np.float64]:
    """1/Bw per cell: ``(1 + x + x**2/2) / bw`` with ``x = (pw - p_ref) * cw`` of the region.

    Parameters
    ----------
    pvtw : PVTW or TPVTWList
        Water record per PVT region.
    %(pvtnum)s
    pw : array_like of float
        Water pressure per cell, in the table's pressure unit.
    %(out)s
    %(threads)s

    Returns
    -------
    ndarray of float64
        1/Bw per cell (sm3/rm3 in METRIC).

    %(raises_table)s

    Examples
    --------
    >>> from kavra import one_over_bw
    >>> from kavra.tables import PVTW
    >>> water = PVTW([[100.0, 1.0, 1e-4, 0.5, 0.0]])
    >>> print(one_over_bw(water, 1, [100.0, 1100.0]))
    [1.    1.105]
    """
    return calculate("one_over_bw", "one_over_bw", ("pvtw", pvtw), pvtnum, [("pw", pw)], out,
                     threads)


@filled
def one_over_bg(pvtg: PVTG | _native.TPVTGList, pvtnum: ArrayLike, pg: ArrayLike, pdew: ArrayLike,
                rv: ArrayLike, *, out: NDArray[Any] | None = None, threads: int | None = None) -> NDArray[np.float64]:
    """1/Bg per cell of a wet gas.

    Where ``|pg - pdew| < 0.0001``, or ``pg`` is at or outside the table's first or last gas
    pressure, 1/Bg is read along the saturated line (linear in Rv between the saturated points
    of the two records around ``pg``); elsewhere it is interpolated in Rv within each of the two
    records around ``pg``, then linearly in ``pg`` between them.

    Parameters
    ----------
    pvtg : PVTG or TPVTGList
        Wet-gas table per PVT region.
    %(pvtnum)s
    pg, pdew : array_like of float
        Gas pressure and dew point pressure per cell, in the table's pressure unit.
    rv : array_like of float
        Vaporised oil-gas ratio per cell, in the table's Rv unit.
    %(out)s
    %(threads)s

    Returns
    -------
    ndarray of float64
        1/Bg per cell (sm3/rm3 in METRIC).

    %(raises_table)s

    Examples
    --------
    >>> from kavra import one_over_bg
    >>> from kavra.tables import PVTG
    >>> gas = PVTG([[[100.0, 0.01, 0.02, 0.02, 0.03, 0.025, 0.02], [200.0, 0.02, 0.01, 0.02, 0.04, 0.0125, 0.02]]])
    >>> print(one_over_bg(gas, 1, pg=[150.0, 150.0], pdew=[300.0, 150.0], rv=[0.02, 0.015]))
    [72.5 75. ]
    """
    return calculate("one_over_bg", "one_over_bg", ("pvtg", pvtg), pvtnum, [("pg", pg), ("pdew", pdew), ("rv", rv)],
                     out, threads)


@filled
def porosity(rock: ROCK | _native.TRockList, pvtnum: ArrayLike, po: ArrayLike, poro: ArrayLike, *,
             out: NDArray[Any] | None = None, threads: int | None = None) -> NDArray[np.float64]:
    """Porosity under pressure: ``poro * (1 + x + x**2/2)``, ``x = (po - p_ref) * cr``, at most 1.

    Parameters
    ----------
    rock : ROCK or TRockList
        Reference pressure and rock compressibility per PVT region.
    pvtnum : array_like of int
        PVT region per cell, from 1.  A cell below 1 keeps the value that ``out`` holds (0.0
        without ``out``).
    po : array_like of float
        Pressure per cell, in the table's pressure unit.
    %(poro_at_reference)s
    %(out)s
    %(threads)s

    Returns
    -------
    ndarray of float64
        Porosity per cell (fraction), capped at 1.0 (no lower cap).

    %(raises_table)s

    Examples
    --------
    >>> from kavra import porosity
    >>> from kavra.tables import ROCK
    >>> print(porosity(ROCK([[200.0, 1e-3]]), [1, 1, 0], [300.0, 200.0, 300.0], 0.2))
    [0.221 0.2   0.   ]
    """
    return calculate("porosity", "porosity", ("rock", rock), pvtnum, [("po", po), ("poro", poro)], out,
                     threads, keep_out=True)


@filled
def porosity_from_porv(bulk_volume: ArrayLike, porv: ArrayLike, *,
                       out: NDArray[Any] | None = None, threads: int | None = None) -> NDArray[np.float64]:
    """Porosity per cell as ``porv / bulk_volume`` where the bulk volume is above 0, else 0.0.

    Parameters
    ----------
    %(bulk_volume_porv)s
    %(out)s
    %(threads)s

    Returns
    -------
    ndarray of float64
        Porosity per cell (fraction; not capped).

    %(raises_plain)s

    Examples
    --------
    >>> from kavra import porosity_from_porv
    >>> print(porosity_from_porv([1000.0, 0.0, 500.0], [250.0, 10.0, 100.0]))
    [0.25 0.   0.2 ]
    """
    return run_plain("porosity_from_porv", [("porosity_from_porv", [0, 1])],
                      [("bulk_volume", bulk_volume), ("porv", porv)], out, threads)


@filled
def bulk_volume(porv: ArrayLike, poro: ArrayLike, *, ntg: ArrayLike | None = None,
                out: NDArray[Any] | None = None, threads: int | None = None) -> NDArray[np.float64]:
    """Bulk volume per cell as ``porv / poro`` where the porosity is above 0 (else 0.0), times ``ntg``.

    Parameters
    ----------
    %(porv)s
    %(poro)s
    %(ntg)s
    %(out)s
    %(threads)s

    Returns
    -------
    ndarray of float64
        Bulk volume per cell, in the unit of ``porv``.

    %(raises_plain)s

    Examples
    --------
    >>> from kavra import bulk_volume
    >>> print(bulk_volume([250.0, 250.0], [0.25, 0.0], ntg=0.8))
    [800.   0.]
    """
    inputs = [("porv", porv), ("poro", poro)] + ([("ntg", ntg)] if ntg is not None else [])
    steps = [("bulk_volume", [0, 1])] + ([("bulk_volume_times_ntg", [2])] if ntg is not None else [])
    return run_plain("bulk_volume", steps, inputs, out, threads)


@filled
def rs_from_components(denominator: ArrayLike, numerator: ArrayLike, *,
                       out: NDArray[Any] | None = None, threads: int | None = None) -> NDArray[np.float64]:
    """Rs per cell as ``numerator / denominator`` where the denominator is above 0, else 0.0.

    Parameters
    ----------
    %(denominator_numerator)s
    %(out)s
    %(threads)s

    Returns
    -------
    ndarray of float64
        The ratio per cell.

    %(raises_plain)s

    Examples
    --------
    >>> from kavra import rs_from_components
    >>> print(rs_from_components([2.0, 0.0, -1.0], [100.0, 5.0, 5.0]))
    [50.  0.  0.]
    """
    return run_plain("rs_from_components", [("rs_from_components", [0, 1])],
                      [("denominator", denominator), ("numerator", numerator)], out, threads)


def transmissibility_k(nnc1: ArrayLike, nnc2: ArrayLike,
                       selection: tessel.ReservoirSelectionTopology | tuple[tuple[int, int, int], ArrayLike]
                       ) -> tuple[NDArray[np.int32], NDArray[np.int32], NDArray[np.float64]]:
    """Pinch-outs taken out of a list of non-neighbour connections, and their cells marked.

    A connection joins the cells ``nnc1[p]`` and ``nnc2[p]`` (cell numbers of the selection's
    grid, ``i + nI * (j + nJ * k)``).  Connections with a cell outside the selection go.
    Connections within one column are pinch-outs: they go, and their first cell is marked in
    ``trank``; a repeat from the cell marked last is dropped unexamined.  Connections between
    columns stay, in order.

    Parameters
    ----------
    nnc1, nnc2 : array_like of int
        The two cells of each connection, one-dimensional, of one length.  A connection masked
        in either is left out.
    selection : kavra.tessel.ReservoirSelectionTopology or ((nI, nJ, nK), cells)
        The cells that take part: a selection, or the grid's shape and an (m, 3) array-like of the
        selected cells' (i, j, k) in selection order.

    Returns
    -------
    nnc1, nnc2 : ndarray of int32
        The connections between columns, both cells selected.
    trank : ndarray of float64
        One value per selected cell: 1.0 where a pinch-out starts, else 0.0.

    Raises
    ------
    ValueError
        A cell number outside the grid, or a connection within one column that does not run
        down across at least two layers (a pinch-out must join k to k + 2 or further).

    Examples
    --------
    >>> from kavra import tessel
    >>> from kavra import transmissibility_k
    >>> grid = tessel.ReservoirTopology(2, 1, 4)       # cells 0, 2, 4, 6 form column (0, 0)
    >>> everything = tessel.ReservoirSelectionTopology(grid, [[c % 2, 0, c // 2] for c in range(8)])
    >>> nnc1, nnc2, trank = transmissibility_k([0, 0, 1], [4, 2, 2], everything)
    >>> print(nnc1, nnc2, trank)
    [1] [2] [1. 0. 0. 0. 0. 0. 0. 0.]
    """
    function = "transmissibility_k"
    (ni, nj, nk), selected = _selection(function, selection)
    (first, mask1), (second, mask2) = split_mask(nnc1), split_mask(nnc2)
    for name, array in (("nnc1", first), ("nnc2", second)):
        if array.dtype.kind not in "iu" and array.size:  # [] is an empty list of any dtype
            raise TypeError(f"{function}: {name} must hold integer cell numbers, got {array.dtype}")
        if array.ndim != 1:
            raise ValueError(f"{function}: {name} must be one-dimensional, got the shape {array.shape}")
    if first.shape != second.shape:
        raise ValueError(f"{function}: nnc1 and nnc2 differ in length: {len(first)} and {len(second)}")
    if mask1 is not None or mask2 is not None:
        keep = ~((mask1 if mask1 is not None else False) | (mask2 if mask2 is not None else False))
        first, second = first[keep], second[keep]
    cells = ni * nj * nk
    for name, array in (("nnc1", first), ("nnc2", second)):
        outside = (array < 0) | (array >= cells)
        if outside.any():
            p = int(np.flatnonzero(outside)[0])
            raise ValueError(f"{function}: {name}[{p}] = {array[p]} is not a cell of the grid of "
                             f"{ni} x {nj} x {nk} cells")
    kept: tuple[NDArray[np.int32], NDArray[np.int32], NDArray[np.float64]] = _engine.transmissibility_k(
        first.astype(np.int32), second.astype(np.int32), (ni, nj, nk), np.ascontiguousarray(selected))
    return kept


def _selection(function: str, selection: Any) -> tuple[tuple[int, int, int], NDArray[np.uint16]]:
    """The grid's shape and the selected cells (an (m, 3) uint16 array) of a selection argument."""
    try:
        from kavra import tessel
    except ImportError:
        tessel = None
    if tessel is not None and isinstance(selection, tessel.ReservoirSelectionTopology):
        return (selection.nI, selection.nJ, selection.nK), np.asarray(selection.selected_cells, dtype=np.uint16)
    if isinstance(selection, tuple) and len(selection) == 2 and isinstance(selection[0], tuple):
        grid, cells = selection
        dims = np.asarray(grid)
        ijk = np.asarray(cells)
        if (dims.shape == (3,) and dims.dtype.kind in "iu" and ((dims >= 0) & (dims < 2**16)).all()
                and ijk.ndim == 2 and ijk.shape[1] == 3 and (ijk.dtype.kind in "iu" or not ijk.size)):
            ijk = ijk.astype(np.int64)
            if ((ijk >= 0) & (ijk < dims)).all():
                return (int(dims[0]), int(dims[1]), int(dims[2])), ijk.astype(np.uint16)
        raise ValueError(f"{function}: a selection ((nI, nJ, nK), cells) takes whole numbers from 0 to 65535 and "
                         "an (m, 3) array of (i, j, k) inside the grid")
    raise TypeError(f"{function}: selection must be a kavra.tessel.ReservoirSelectionTopology or ((nI, nJ, nK), cells), "
                    f"got {type(selection).__name__}")
