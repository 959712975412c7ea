"""kavra.satfunc over dask arrays: ``kavra.dask.satfunc``.

``relperm`` and ``capillary_pressure`` take the saturation functions (a
:class:`kavra.satfunc.SaturationFunctions`) and the saturations of
:meth:`~kavra.satfunc.SaturationFunctions.relperm`, and give, once computed,
bit for bit what those methods give on the whole arrays: each chunk is
evaluated by them (``map_blocks``), with the functions of that chunk's cells
(:meth:`~kavra.satfunc.SaturationFunctions.take`: functions read from a deck
hold one region and set of end points per cell, numbered in the order of the
saturations laid out flat).  The functions ride in the task graph as one key,
pickled once.

Examples
--------
>>> import dask.array as da
>>> import kavra.dask
>>> from kavra import satfunc
>>> sf = satfunc.from_tables(swof=[[0.2, 0, 1, 2.0], [1, 1, 0, 0]], sgof=[[0, 0, 1, 0], [0.8, 1, 0, 0.5]])
>>> pc = kavra.dask.satfunc.capillary_pressure(sf, da.from_array([0.2, 0.6, 1.0], chunks=2), 0.4)
>>> print(pc.oil_water.compute(), pc.gas_oil.compute())
[2. 1. 0.] [0.25 0.25 0.25]
"""

# mypy: disable-error-code="no-untyped-call"
# (dask leaves most of its functions without annotations)

from __future__ import annotations

import math
from typing import Any

import dask.array as da
import numpy as np
from dask.delayed import delayed
from numpy.typing import ArrayLike

from .satfunc import CapillaryPressure, RelPerm, SaturationFunctions

__all__ = ["relperm", "capillary_pressure"]


def _chunk(functions: SaturationFunctions, sw: Any, sg: Any, *, method: str, block_info: Any = None) -> Any:
    """The method on one chunk, with the functions of the chunk's cells; the results stacked."""
    if functions.satnum is not None:
        info = next(value for key, value in block_info.items() if key is not None)  # sw's (sg's alike)
        location, shape = info["array-location"], info["shape"]
        cells = np.ravel_multi_index(np.ix_(*(np.arange(start, stop) for start, stop in location)), shape) \
            if shape else np.zeros(1, dtype=np.intp)
        functions = functions.take(cells)
    parts = getattr(functions, method)(sw, sg, threads=1)
    return np.ma.stack(parts) if np.ma.isMaskedArray(parts[0]) else np.stack(parts)


def _lazy(method: str, functions: Any, sw: Any, sg: Any) -> list[Any]:
    if not isinstance(functions, SaturationFunctions):
        raise TypeError(f"kavra.dask.satfunc.{method}: functions must be a kavra.satfunc.SaturationFunctions, "
                        f"got {type(functions).__name__}")
    w, g = da.broadcast_arrays(da.asarray(sw), da.asarray(sg))
    w, g = da.core.unify_chunks(w, tuple(range(w.ndim)), g, tuple(range(g.ndim)))[1]
    cells = math.prod(w.shape)
    if functions.satnum is not None and cells != functions.satnum.size:
        raise ValueError(f"kavra.dask.satfunc.{method}: sw and sg hold {cells} cells; satnum has "
                         f"{functions.satnum.size}")
    # Wrong element types fail now, in the method's words.
    getattr(functions.take(np.zeros(0, dtype=np.intp)), method)(np.empty(0, dtype=w.dtype),
                                                                 np.empty(0, dtype=g.dtype))
    meta = np.empty((0,) * (w.ndim + 1))
    if any(isinstance(a._meta, np.ma.MaskedArray) for a in (w, g)):
        meta = np.ma.masked_array(meta)
    stacked = da.map_blocks(_chunk, delayed(functions, pure=True), w, g, method=method, new_axis=0,
                            chunks=((len(RelPerm._fields) if method == "relperm" else
                                     len(CapillaryPressure._fields),), *w.chunks),
                            dtype=np.float64, meta=meta, token=f"kavra-satfunc-{method}")
    return [stacked[i] for i in range(stacked.shape[0])]


def relperm(functions: SaturationFunctions, sw: ArrayLike, sg: ArrayLike) -> RelPerm:
    """:meth:`kavra.satfunc.SaturationFunctions.relperm` over dask arrays.

    Parameters
    ----------
    functions : kavra.satfunc.SaturationFunctions
        The saturation functions; with cells of their own (``satnum``), ``sw`` and ``sg``
        broadcast to one value per cell, in cell order when laid out flat.
    sw, sg : dask or NumPy array, or scalar
        Water and gas saturation per cell; they broadcast together, chunks that do not line
        up are split to their common refinement.

    Returns
    -------
    kavra.satfunc.RelPerm
        ``water``, ``oil``, ``gas``: dask arrays of float64 of the saturations' shape and
        chunks, the same bits as the NumPy method once computed.

    Raises
    ------
    TypeError
        `functions` is not a SaturationFunctions; saturations that do not hold numbers.
    ValueError
        Per-cell functions and saturations of another number of cells.

    Examples
    --------
    >>> import dask.array as da
    >>> import kavra.dask
    >>> from kavra import satfunc
    >>> sf = satfunc.from_tables(swof=[[0.2, 0, 1, 0], [1, 1, 0, 0]], sgof=[[0, 0, 1, 0], [0.8, 1, 0, 0]])
    >>> kr = kavra.dask.satfunc.relperm(sf, da.from_array([0.2, 0.6], chunks=1), 0.0)
    >>> print(kr.water.compute(), kr.oil.compute())
    [0.  0.5] [1.  0.5]
    """
    return RelPerm(*_lazy("relperm", functions, sw, sg))


def capillary_pressure(functions: SaturationFunctions, sw: ArrayLike, sg: ArrayLike) -> CapillaryPressure:
    """:meth:`kavra.satfunc.SaturationFunctions.capillary_pressure` over dask arrays.

    Parameters
    ----------
    functions : kavra.satfunc.SaturationFunctions
        As for :func:`relperm`.
    sw, sg : dask or NumPy array, or scalar
        As for :func:`relperm`.

    Returns
    -------
    kavra.satfunc.CapillaryPressure
        ``oil_water`` and ``gas_oil``: dask arrays of float64, in the tables' pressure unit.

    Raises
    ------
    TypeError, ValueError
        As :func:`relperm`.
    """
    return CapillaryPressure(*_lazy("capillary_pressure", functions, sw, sg))
