"""Maps of columns and totals of regions: column_map, region_totals.

Both run in kavra's engine (``kavra._engine``), in chunks on threads with the
interpreter lock released, and give the same bits for any number of threads.
Their arithmetic is in float64 whatever the element type of the values
(float32 is widened exactly; other real types are converted to float64 first).
"""

from __future__ import annotations

import operator
from typing import Any, Literal

import numpy as np
from numpy.typing import ArrayLike, NDArray

from . import _engine
from ._arrays import engine_buffer, split_mask
from ._docs import filled
from ._threads import resolve as _resolve_threads
from .reductions import Grid, Layout, check_grid_shape, check_layout
from .reductions import grid_topology as _topology, taking_part as _valid

__all__ = ["column_map", "region_totals"]

Reduce = Literal["sum", "mean", "max", "min"]
_REDUCES = ("sum", "mean", "max", "min")
_INT32 = np.iinfo(np.int32)
_MOST_REGIONS = 2**24  # totals beyond the number of cells


def _floats(function: str, name: str, data: np.ndarray) -> np.ndarray:
    """`data` as float32 or float64 in the machine's byte order (other real types, booleans as 0 and 1,
    as float64)."""
    if data.dtype.kind not in "biuf" or data.dtype.itemsize > 8:
        raise TypeError(f"{function}: {name} must hold real numbers (booleans, integers or floats up to "
                        f"64 bits), got {data.dtype}")
    if data.dtype.char in "fd":
        return data if data.dtype.isnative else data.astype(data.dtype.newbyteorder("="))
    return data.astype(np.float64)


@filled
def column_map(values: ArrayLike, grid: Grid, reduce: Reduce = "sum", *, weights: ArrayLike | None = None,
               active: ArrayLike | None = None, layout: Layout = "kji",
               threads: int | None = None) -> np.ma.MaskedArray[Any, np.dtype[np.float64]]:
    """One value per column of a grid (all cells with one I and one J), as a map.

    Each column takes its cells in ascending K, in float64: the same bits in either layout
    and for any number of threads.  ``kaverage`` and ``ksum`` give column values in every
    cell of the column; this is the form to plot.

    Parameters
    ----------
    values : array_like of real numbers
        One value per cell (see ``layout``), in any unit; masked cells take no part.
    grid : kavra.tessel.ReservoirTopology or (nI, nJ, nK) tuple
        The grid (a whole grid: leave cells out with ``active``).
    reduce : {"sum", "mean", "max", "min"}
        ``"sum"``: the sum, with ``weights`` the sum of weight x value (net pay from DZ and
        a net flag, hydrocarbon pore thickness from DZ x PORO x NTG and 1 - SW);
        ``"mean"``: the mean, with ``weights`` sum(weight x value) / sum(weight) (DZ- or
        pore-volume-weighted averages); ``"max"``, ``"min"``: the largest and smallest
        value (NaN when any value of the column is NaN, as :func:`numpy.max`).
    weights : array_like of real numbers, optional
        One weight per cell, broadcast to the shape of ``values`` (a thickness per layer of
        the shape (nK, 1, 1) in the ``"kji"`` layout, say); masked weights leave their
        cells out.  For ``"sum"`` and ``"mean"`` only.
    %(active_layout)s
    %(threads)s

    Returns
    -------
    numpy.ma.MaskedArray of float64, shape (nJ, nI)
        ``map[j, i]`` is the value of the column (i, j), counting from 0 (the deck's I and
        J minus 1), in the unit of ``values`` (times the weights' unit for a weighted
        ``"sum"``); masked where the column has no cell that takes part.  A weighted mean
        whose weights add up to 0 is NaN.

    Raises
    ------
    TypeError
        Values or weights that do not hold real numbers; a ``grid`` of another kind;
        ``active`` that is not boolean or integer; ``threads`` that is not an integer.
    ValueError
        A ``reduce`` or ``layout`` not listed; values or ``active`` whose shape does not fit
        the grid; weights that do not broadcast to the values, or given to ``"max"`` or
        ``"min"``; a selection as ``grid``; ``threads`` below 1.

    Examples
    --------
    >>> import numpy as np
    >>> from kavra import column_map
    >>> values = np.array([[[1.0, 2.0]], [[3.0, 4.0]]])  # (nK, nJ, nI) = (2, 1, 2)
    >>> print(column_map(values, (2, 1, 2)))
    [[4.0 6.0]]
    >>> dz = np.array([1.0, 3.0]).reshape(2, 1, 1)  # thickness per layer
    >>> print(column_map(values, (2, 1, 2), "mean", weights=dz))
    [[2.5 3.5]]
    >>> print(column_map(values, (2, 1, 2), "max", active=[[[0, 1]], [[0, 1]]]))
    [[-- 4.0]]
    """
    function = "column_map"
    cells = _topology(function, grid)
    if cells.ijk is not None:
        raise ValueError(f"{function}: a map takes a whole grid, not a selection: pass the grid and "
                         "active= for the cells that take part")
    check_layout(function, layout)
    if reduce not in _REDUCES:
        raise ValueError(f"{function}: reduce must be one of {', '.join(map(repr, _REDUCES))}, not {reduce!r}")
    ni, nj, nk = cells.ni, cells.nj, cells.nk
    data, mask = split_mask(values)
    check_grid_shape(function, data.shape, (ni, nj, nk), layout)
    data = _floats(function, "values", data)
    weighed = None
    if weights is not None:
        if reduce in ("max", "min"):
            raise ValueError(f"{function}: weights apply to 'sum' and 'mean', not to {reduce!r}")
        weighed, weights_mask = split_mask(weights)
        weighed = _floats(function, "weights", weighed)
        try:
            weighed = np.broadcast_to(weighed, data.shape)
        except ValueError:
            raise ValueError(f"{function}: weights of the shape {weighed.shape} do not broadcast to the values' "
                             f"shape {data.shape}") from None
        if weights_mask is not None:
            weights_mask = np.broadcast_to(weights_mask, data.shape)
            mask = weights_mask if mask is None else mask | weights_mask
        if weighed.dtype != data.dtype:  # one element type for both: float64 (float32 widens exactly)
            data, weighed = data.astype(np.float64), weighed.astype(np.float64)
        weighed = engine_buffer(weighed).reshape(-1)
    valid = _valid(function, data.shape, mask, active)
    flags = None if valid is None or valid.all() else engine_buffer(valid).reshape(-1)
    result = np.empty((nj, ni), dtype=np.float64)
    empty = np.empty((nj, ni), dtype=bool)
    _engine.column_map(reduce, engine_buffer(data).reshape(-1), weighed, flags, ni, nj, nk,
                       layout == "ijk", result, empty, _resolve_threads(threads))
    return np.ma.MaskedArray(result, mask=empty)


def _region_numbers(function: str, regions: np.ndarray, masked: np.ndarray | None = None) -> np.ndarray:
    """Region numbers as int32 (0 where `masked`, which takes no part); ValueError for numbers
    int32 does not hold among the others.  An empty array of any real type (``[]``) holds none."""
    if regions.size == 0 and regions.dtype.kind in "biuf":
        return regions.astype(np.int32)
    if regions.dtype.kind not in "iu":
        raise TypeError(f"{function}: regions must be integers (FIPNUM), got {regions.dtype}")
    if masked is not None:
        regions = np.where(masked, regions.dtype.type(0), regions)
    if regions.dtype.itemsize > 4 or regions.dtype == np.uint32:
        if regions.size and (regions.min() < _INT32.min or regions.max() > _INT32.max):
            raise ValueError(f"{function}: region numbers from {_INT32.min} to {_INT32.max} are taken, got "
                             f"{regions.min()} to {regions.max()}")
    return regions.astype(np.int32, copy=False)


@filled
def region_totals(values: ArrayLike, regions: ArrayLike, *, count: int | None = None,
                  threads: int | None = None) -> NDArray[np.float64]:
    """The total of the values of each region's cells (oil in place per FIPNUM region, say).

    Summed with compensation (Neumaier's variant of Kahan's summation) in blocks of cells
    whose bounds depend only on the number of cells and of regions, the blocks combined in
    order with compensation again: the error stays near one rounding of the total, and the
    bits are the same for any number of threads.

    Parameters
    ----------
    values : array_like of real numbers
        One value per cell, in any unit; masked cells take no part.
    regions : array_like of int
        Region number per cell, from 1 (FIPNUM); broadcast against ``values`` (one number
        for all cells gives the field total).  Cells numbered 0 or below, or masked, take no part.
    count : int, optional
        Number of regions: the result's length (default: the largest region number).  At most
        the number of cells or 2**24, whichever is larger: a longer result would be mostly
        regions without cells.
    %(threads)s

    Returns
    -------
    ndarray of float64, shape (count,)
        ``totals[r - 1]`` is the total of region ``r``, in the unit of ``values``; 0.0 for a
        region without cells.  An infinity or NaN among a region's values makes its total
        what a plain sum gives.

    Raises
    ------
    TypeError
        Values that do not hold real numbers; regions that are not integers (an empty list is
        taken as no regions); ``count`` or ``threads`` that is not an integer (a bool is not).
    ValueError
        Shapes that do not broadcast together; a region number above ``count``, or outside
        int32 (masked cells are not looked at); ``count`` or ``threads`` below 0 and 1; a
        ``count``, or a largest region number, above both the number of cells and 2**24.

    Examples
    --------
    >>> import numpy as np
    >>> from kavra import region_totals
    >>> fipnum = np.array([1, 2, 2, 0, 1])
    >>> print(region_totals([1.0, 2.0, 3.0, 4.0, 5.0], fipnum))
    [6. 5.]
    >>> print(region_totals(np.ma.masked_greater([1.0, 2.0, 3.0], 2.5), 1, count=2))
    [3. 0.]
    """
    function = "region_totals"
    threads = _resolve_threads(threads)
    if count is not None:
        if isinstance(count, (bool, np.bool_)):
            raise TypeError(f"{function}: count must be an integer (the number of regions), got a bool")
        try:
            count = operator.index(count)
        except TypeError:
            raise TypeError(f"{function}: count must be an integer (the number of regions), got "
                            f"{type(count).__name__}") from None
        if count < 0:
            raise ValueError(f"{function}: count must be at least 0, got {count}")
    data, data_mask = split_mask(values)
    numbers, numbers_mask = split_mask(regions)
    data = _floats(function, "values", data)
    try:
        shape = np.broadcast_shapes(data.shape, numbers.shape)
    except ValueError:
        raise ValueError(f"{function}: the shapes of values {data.shape} and regions {numbers.shape} do not "
                         "broadcast together") from None
    if data.shape != shape:
        data = np.broadcast_to(data, shape)
    masks = [np.broadcast_to(m, shape) for m in (data_mask, numbers_mask) if m is not None]
    if numbers.size == 1 and not masks:
        numbers = _region_numbers(function, numbers).reshape(1)  # one region for every cell: read as one number
    else:
        numbers = _region_numbers(function, np.broadcast_to(numbers, shape),
                                  np.logical_or.reduce(masks) if masks else None)
    largest = int(numbers.max()) if numbers.size else 0
    if count is None:
        count = max(largest, 0)
    elif largest > count:
        raise ValueError(f"{function}: region {largest} is above count={count}")
    cells = int(np.prod(shape))
    if count > max(cells, _MOST_REGIONS):
        what = f"count={count}" if count != largest else f"region {largest}"
        raise ValueError(f"{function}: {what} asks for {count} totals, more than the {cells} cells and than "
                         f"{_MOST_REGIONS} (2**24): most would be regions without cells")
    totals = np.zeros(count, dtype=np.float64)
    if count and data.size:
        _engine.region_totals(engine_buffer(data).reshape(-1), engine_buffer(numbers).reshape(-1),
                              totals, threads)
    return totals
