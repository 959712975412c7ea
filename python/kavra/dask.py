"""The kavra calculations over dask arrays, for grids and ensembles beyond one process.

``import kavra.dask`` (it needs the optional extra ``dask``:
``pip install kavra[dask]``).  Every function here takes the arguments of the
NumPy function of the same name in ``kavra`` (without ``out``: dask arrays are
not written in place), builds a lazy dask array, and gives, once computed on
any scheduler, bit for bit what the NumPy function gives on the whole
arrays: each chunk is computed by that very function, on the same numbers,
in the same order.

Cell calculations
-----------------
The cell calculations of ``kavra`` (all of them but ``transmissibility_k``,
which sifts connections) work cell by cell, so each output chunk is the
NumPy function applied to the matching chunks of the inputs
(``map_blocks``); each has its form here, built from the NumPy function,
whose documentation it takes.

* Inputs are dask arrays, NumPy arrays (turned into dask arrays) or
  scalars.  They broadcast against each other by NumPy's rules, and chunks
  that do not line up are first split to their common refinement, so any
  chunking of any input is accepted; the result has that common chunking.
* Tables are the values of ``kavra.tables`` (``PVTO`` …).  A table is one key
  of the task graph, pickled once and sent once to each worker that needs
  it, where its native list is built once.  The native lists (``TPVTOList``
  …) cannot be pickled and are refused: ``kavra.tables.PVTO.from_native(lst)``
  turns one into a table value.
* Wrong element types and wrong table kinds raise ``TypeError`` at once,
  when the dask array is built.  Failures that depend on the numbers (a
  region number past the table) raise ``ValueError`` when the array is
  computed; the message names the chunk, and the cell position within it.
* A masked chunk gives a masked result chunk, as the NumPy functions do.

K-column reductions
-------------------
``kmax``, ``kmin``, ``ksum`` and ``kaverage`` reduce each column (all the
cells with one I and one J) to one value.  ``grid`` is an ``(nI, nJ, nK)``
tuple or a ``kavra.tessel.ReservoirTopology``; ``values`` has the shape
``(nK, nJ, nI)`` (``layout="kji"``), ``(nI, nJ, nK)`` (``layout="ijk"``) or is
one-dimensional in the cell order of that layout.  The result has the shape
and element type of ``values``.  Selections (``ReservoirSelectionTopology``)
are not supported over dask arrays: ``active`` (ACTNUM) covers that need.

Two ways to reach the columns, chosen per call:

* **Whole columns** (``ksum`` over floats, ``kaverage``, and every reduction
  with ``active`` or over masked chunks): when the K axis is split across
  chunks, ``values`` (and ``active``) are rechunked so that every chunk holds
  whole columns (K in one chunk; the I and J chunk sizes chosen by dask
  within its chunk-size limit), and the NumPy reduction runs on each chunk.
  A float sum is thus added in ascending K within each column, exactly as
  the native kernel adds it; a tree of partial sums would round
  differently.  The new chunks hold about as many bytes as the largest
  chunk of ``values``, and the result keeps them.  When K already lies in
  one chunk nothing is moved.
* **Tree reduction** (``kmax`` and ``kmin`` of every element type, ``ksum``
  of integers, without ``active`` and masks): each chunk is reduced to one
  layer of partial values, the partial layers are reduced in ascending K by
  the same native reduction, and the column values are broadcast back to
  the chunks of ``values``.  No chunk moves as a whole.  This gives the same
  bits because these reductions do not depend on how the column is split:
  integer sums wrap around the same way in any grouping, ``kmax`` starts
  from 0 and ``kmin`` from the largest finite value in every part alike, and
  both keep the first of equal values (``-0.0`` against ``0.0``) and pass
  over NaN, in every part and when the parts are combined in K order.

A one-dimensional ``values`` is viewed as the three-dimensional grid first
(its chunks become whole layers); a reduction's result is laid out flat
again from chunks of whole layers, while a map stays two-dimensional.

Column maps
-----------
``column_map`` gives one value per column as a two-dimensional (nJ, nI) masked
array.  Like the whole-column reductions, it rechunks ``values`` (and
``weights``, ``active``) so that K lies in one chunk, and runs
:func:`kavra.column_map` on each chunk: the map's chunks are those of J and I.

Black-oil properties and saturation functions
---------------------------------------------
``kavra.dask.blackoil`` holds the forms of :mod:`kavra.blackoil` (its
``in_place`` given a deck takes the capillary pressures as the NumPy function
does), and ``kavra.dask.satfunc`` those of the methods ``relperm`` and
``capillary_pressure`` of :class:`kavra.satfunc.SaturationFunctions`: each
chunk is evaluated with the regions and end points of its own cells.

Examples
--------
>>> import numpy as np
>>> import dask.array as da
>>> import kavra
>>> import kavra.dask
>>> values = da.from_array(np.arange(24.0).reshape(4, 3, 2), chunks=(2, 3, 2))
>>> total = kavra.dask.ksum(values, (2, 3, 4))
>>> np.array_equal(total.compute(), kavra.ksum(values.compute(), (2, 3, 4)))
True
"""

# mypy: disable-error-code="no-untyped-call"
# (dask leaves most of its functions without annotations)

from __future__ import annotations

import functools
from collections.abc import Callable
from typing import TYPE_CHECKING, Any, Literal

try:
    import dask.array as da
except ImportError as _error:  # the optional extra is not installed
    raise ImportError(
        f"kavra.dask runs the calculations over dask arrays, and dask is not installed ({_error}): "
        "pip install 'kavra[dask]'") from _error
import numpy as np
from numpy.typing import ArrayLike

from ._calls import CALLS
from ._dask_cells import forms
from ._docs import filled
from . import maps as _maps
from . import reductions as _reductions

# The functions of kavra that run on dask arrays (the table of calls says which): the cell
# calculations are built from their NumPy functions, the others are written below.
__all__ = [name for name, call in CALLS.items() if "." not in name and call.dask]

Layout = Literal["kji", "ijk"]

globals().update(forms("calculations", __name__))

if TYPE_CHECKING:  # the forms built from the table, for type checkers
    def __getattr__(name: str) -> Callable[..., da.Array]: ...


# --- K-column reductions ---------------------------------------------------------------


def _dimensions(function: str, grid: Any) -> tuple[int, int, int]:
    tessel = _reductions.tessel_package()
    if tessel is not None and isinstance(grid, tessel.ReservoirTopology):
        return grid.nI, grid.nJ, grid.nK
    if tessel is not None and isinstance(grid, tessel.ReservoirSelectionTopology):
        raise TypeError(f"kavra.dask.{function}: selections are not supported over dask arrays; pass the "
                        "whole grid and active= for the cells that take part")
    if isinstance(grid, tuple) and len(grid) == 3:
        return int(grid[0]), int(grid[1]), int(grid[2])
    raise TypeError(f"kavra.dask.{function}: grid must be a kavra.tessel.ReservoirTopology or an (nI, nJ, nK) "
                    f"tuple, got {type(grid).__name__}")


def _block_grid(shape: tuple[int, ...], layout: str) -> tuple[int, int, int]:
    """The (nI, nJ, nK) of a three-dimensional chunk."""
    a, b, c = shape
    return (c, b, a) if layout == "kji" else (a, b, c)


def _on_columns(block: np.ndarray, active: np.ndarray | None = None, *, function: Callable[..., Any],
                layout: str) -> Any:
    """The NumPy reduction of a chunk that holds whole columns."""
    return function(block, _block_grid(block.shape, layout), active=active, layout=layout)


def _first_layer(block: np.ndarray, axis: Any = None, keepdims: bool = True, *,
                 function: Callable[..., Any], layout: str) -> np.ndarray:
    """The reduction of a chunk (or of partial layers stacked in K order), as one layer."""
    result = function(block, _block_grid(block.shape, layout), layout=layout)
    return np.ascontiguousarray(result[0:1] if layout == "kji" else result[:, :, 0:1])


def _reduce(name: str, function: Callable[..., Any], tree: Callable[[np.dtype[Any]], bool], values: Any,
            grid: Any, active: Any, layout: str) -> da.Array:
    ni, nj, nk = _dimensions(name, grid)
    _reductions.check_layout(f"kavra.dask.{name}", layout)
    values = da.asarray(values)
    shape = _reductions.check_grid_shape(f"kavra.dask.{name}", values.shape, (ni, nj, nk), layout)
    cells = ni * nj * nk
    if active is not None:
        active = da.asarray(active)
        if active.shape != values.shape:
            raise ValueError(f"kavra.dask.{name}: active has the shape {active.shape}, values {values.shape}")
    # Element types (and the kind of active) are checked by the NumPy function itself, now.
    one = np.zeros((1, 1, 1), dtype=values.dtype)
    sample = function(one, (1, 1, 1), active=None if active is None else np.ones((1, 1, 1), dtype=active.dtype))
    meta = sample[:0]
    masked = active is not None or isinstance(values._meta, np.ma.MaskedArray)
    if masked and not isinstance(meta, np.ma.MaskedArray):
        meta = np.ma.masked_array(meta)

    flat = values.ndim == 1
    # Chunks made here hold about as many bytes as the largest chunk given, so the work stays
    # spread over as many tasks as the caller chose.
    limit = max(int(np.prod([max(c, default=0) for c in values.chunks])) * values.dtype.itemsize, 1 << 20)
    result: da.Array
    if flat:
        values = values.reshape(shape)
        active = None if active is None else active.reshape(shape)
    k_axis = 0 if layout == "kji" else 2
    bound = functools.partial(_first_layer, function=function, layout=layout)
    if not masked and tree(values.dtype) and len(values.chunks[k_axis]) > 1:
        layer = da.reduction(values, chunk=bound, combine=bound, aggregate=bound, axis=k_axis, keepdims=True,
                             dtype=values.dtype, concatenate=True, meta=meta, name=f"kavra-{name}")
        result = da.broadcast_to(layer, values.shape, chunks=values.chunks)
    else:
        if len(values.chunks[k_axis]) > 1:
            values = values.rechunk({axis: (-1 if axis == k_axis else "auto") for axis in range(3)},
                                    block_size_limit=limit)
        arrays = [values] if active is None else [values, active.rechunk(values.chunks)]
        result = da.map_blocks(functools.partial(_on_columns, function=function, layout=layout), *arrays,
                               dtype=values.dtype, meta=meta, token=f"kavra-{name}")
    if flat:
        if len(result.chunks[1]) > 1 or len(result.chunks[2]) > 1:
            result = result.rechunk({0: "auto", 1: -1, 2: -1}, block_size_limit=limit)
        result = result.reshape((cells,))
    return result


def _any_type(dtype: np.dtype[Any]) -> bool:
    return True


def _integers(dtype: np.dtype[Any]) -> bool:
    return dtype.kind in "iu"


def _never(dtype: np.dtype[Any]) -> bool:
    return False


@filled
def kmax(values: ArrayLike, grid: Any, *, active: ArrayLike | None = None, layout: Layout = "kji") -> da.Array:
    """The largest value of each K column, in every cell of that column (0 if all are below 0).

    Chunk by chunk :func:`kavra.kmax`; a tree reduction when K is split over chunks (and
    neither ``active`` nor a mask is given), whole columns otherwise (see the module notes).

    %(dask_k_arguments)s

    Examples
    --------
    >>> import numpy as np
    >>> import dask.array as da
    >>> import kavra.dask
    >>> values = da.from_array(np.array([[[1.0, -2.0]], [[3.0, -4.0]]]), chunks=1)
    >>> print(kavra.dask.kmax(values, (2, 1, 2)).compute())
    [[[3. 0.]]
    <BLANKLINE>
     [[3. 0.]]]
    """
    return _reduce("kmax", _reductions.kmax, _any_type, values, grid, active, layout)


@filled
def kmin(values: ArrayLike, grid: Any, *, active: ArrayLike | None = None, layout: Layout = "kji") -> da.Array:
    """The smallest value of each K column, in every cell of that column.

    Chunk by chunk :func:`kavra.kmin`; a tree reduction when K is split over chunks (and
    neither ``active`` nor a mask is given), whole columns otherwise (see the module notes).

    %(dask_k_arguments)s

    Examples
    --------
    >>> import numpy as np
    >>> import dask.array as da
    >>> import kavra.dask
    >>> values = da.from_array(np.array([1.0, 2.0, 3.0, 4.0]), chunks=2)
    >>> print(kavra.dask.kmin(values, (2, 1, 2), active=[False, True, True, True]).compute())
    [-- 2.0 3.0 2.0]
    """
    return _reduce("kmin", _reductions.kmin, _any_type, values, grid, active, layout)


@filled
def ksum(values: ArrayLike, grid: Any, *, active: ArrayLike | None = None, layout: Layout = "kji") -> da.Array:
    """The sum of each K column, added in ascending K, in every cell of that column.

    Chunk by chunk :func:`kavra.ksum`: over whole columns for floats (rechunked when K is
    split over chunks, so the sum is added in the native order), a tree reduction for
    integers, whose sums wrap around alike in any grouping (see the module notes).

    %(dask_k_arguments)s

    Examples
    --------
    >>> import numpy as np
    >>> import dask.array as da
    >>> import kavra.dask
    >>> values = da.from_array(np.array([[[0.1, 0.2, 0.3]]]), chunks=1)
    >>> print(kavra.dask.ksum(values, (1, 1, 3), layout="ijk").compute())
    [[[0.6 0.6 0.6]]]
    """
    return _reduce("ksum", _reductions.ksum, _integers, values, grid, active, layout)


@filled
def kaverage(values: ArrayLike, grid: Any, *, active: ArrayLike | None = None,
             layout: Layout = "kji") -> da.Array:
    """The mean of each K column, in every cell of that column (integers truncate toward zero).

    Chunk by chunk :func:`kavra.kaverage`, always over whole columns (rechunked when K is
    split over chunks; see the module notes).

    %(dask_k_arguments)s

    Examples
    --------
    >>> import numpy as np
    >>> import dask.array as da
    >>> import kavra.dask
    >>> values = da.from_array(np.array([-3, 0, 1, 2], dtype=np.int32), chunks=1)
    >>> print(kavra.dask.kaverage(values, (2, 1, 2)).compute())
    [-1  1 -1  1]
    """
    return _reduce("kaverage", _reductions.kaverage, _never, values, grid, active, layout)


def _map_block(block: np.ndarray, *extra: np.ndarray, reduce: str, layout: str, weighted: bool) -> Any:
    """The map of a chunk that holds whole columns, its axes in the order of the chunk's (J and I,
    or I and J)."""
    weights = extra[0] if weighted else None
    active = extra[-1] if len(extra) > int(weighted) else None
    result = _maps.column_map(block, _block_grid(block.shape, layout), reduce, weights=weights, active=active,
                              layout=layout)
    return result if layout == "kji" else result.T


@filled
def column_map(values: ArrayLike, grid: Any, reduce: _maps.Reduce = "sum", *, weights: ArrayLike | None = None,
               active: ArrayLike | None = None, layout: Layout = "kji") -> da.Array:
    """One value per column of a grid, as a lazy (nJ, nI) masked map.

    Chunk by chunk :func:`kavra.column_map`, over chunks that hold whole columns (rechunked
    when K is split over chunks; see the module notes): the same bits as the NumPy function.

    Parameters
    ----------
    %(dask_values_grid)s
    reduce : {"sum", "mean", "max", "min"}
        As :func:`kavra.column_map`.
    weights : dask or NumPy array, optional
        One weight per cell, broadcast to the shape of ``values`` (``"sum"`` and ``"mean"``).
    %(active_layout)s

    Returns
    -------
    dask.array.Array of float64, shape (nJ, nI)
        Masked where a column has no cell that takes part.

    Examples
    --------
    >>> import numpy as np
    >>> import dask.array as da
    >>> import kavra.dask
    >>> values = da.from_array(np.arange(8.0).reshape(2, 2, 2), chunks=1)
    >>> print(kavra.dask.column_map(values, (2, 2, 2), "mean").compute())
    [[2.0 3.0]
     [4.0 5.0]]
    """
    name = "column_map"
    ni, nj, nk = _dimensions(name, grid)
    _reductions.check_layout(f"kavra.dask.{name}", layout)
    values = da.asarray(values)
    shape = _reductions.check_grid_shape(f"kavra.dask.{name}", values.shape, (ni, nj, nk), layout)
    arrays = [values]
    if weights is not None:  # broadcast to the values as given, as the NumPy function does
        weights = da.asarray(weights)
        try:
            arrays.append(da.broadcast_to(weights, values.shape))
        except ValueError:
            raise ValueError(f"kavra.dask.{name}: weights of the shape {weights.shape} do not broadcast to the "
                             f"values' shape {values.shape}") from None
    if active is not None:
        active = da.asarray(active)
        if active.shape != values.shape:
            raise ValueError(f"kavra.dask.{name}: active has the shape {active.shape}, values {values.shape}")
        arrays.append(active)
    arrays = [a.reshape(shape) for a in arrays]
    values = arrays[0]
    # Argument errors come from the NumPy function itself, now rather than on a worker.
    _maps.column_map(np.ones((1, 1, 1), dtype=values.dtype), (1, 1, 1), reduce,
                     weights=None if weights is None else np.ones((1, 1, 1), dtype=arrays[1].dtype),
                     active=None if active is None else np.ones((1, 1, 1), dtype=arrays[-1].dtype), layout=layout)
    k_axis = 0 if layout == "kji" else 2
    limit = max(int(np.prod([max(c, default=0) for c in values.chunks])) * values.dtype.itemsize, 1 << 20)
    if len(values.chunks[k_axis]) > 1:
        values = values.rechunk({axis: (-1 if axis == k_axis else "auto") for axis in range(3)},
                                block_size_limit=limit)
    arrays = [values] + [a.rechunk(values.chunks) for a in arrays[1:]]
    meta = np.ma.masked_array(np.empty((0, 0), dtype=np.float64))
    result: da.Array = da.map_blocks(
        functools.partial(_map_block, reduce=reduce, layout=layout, weighted=weights is not None), *arrays,
        drop_axis=k_axis, dtype=np.float64, meta=meta, token=f"kavra-{name}")
    return result if layout == "kji" else result.T


# kavra.blackoil over dask arrays (the properties as the simulator evaluates them)
from . import _dask_blackoil as blackoil  # noqa: E402

# kavra.satfunc over dask arrays (relative permeability and capillary pressure per cell)
from . import _dask_satfunc as satfunc  # noqa: E402
