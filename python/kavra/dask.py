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
``bubble_point_pressure``, ``one_over_b``, ``one_over_bo``, ``one_over_bw``,
``one_over_bg``, ``rs_from_components``, ``porosity``, ``porosity_from_porv``
and ``bulk_volume`` work cell by cell, so each output chunk is the NumPy
function applied to the matching chunks of the inputs (``map_blocks``).

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
import inspect
import math
from collections.abc import Callable, Sequence
from typing import Any, Literal

try:
    import dask.array as da
    from dask.array.core import unify_chunks
    from dask.delayed import delayed
except ImportError as _error:  # the optional extra is not installed
    raise ImportError(
        f"kavra.dask runs the calculations over dask arrays, and dask is not installed ({_error}): "
        "pip install 'kavra[dask]'") from _error
import numpy as np
from numpy.typing import ArrayLike

from ._docs import filled
from . import calculations as _calculations
from . import maps as _maps
from . import reductions as _reductions
from .tables import PVDG, PVDO, PVTG, PVTO, PVTW, ROCK

__all__ = ["bubble_point_pressure", "one_over_b", "one_over_bo", "one_over_bw", "one_over_bg",
           "rs_from_components", "porosity", "porosity_from_porv", "bulk_volume",
           "kmax", "kmin", "ksum", "kaverage", "column_map"]

Layout = Literal["kji", "ijk"]


# --- cell calculations ---------------------------------------------------------------


def _check_table(function: str, name: str, table: Any, kinds: tuple[type, ...]) -> None:
    if not isinstance(table, kinds):
        names = " or ".join(f"kavra.tables.{kind.__name__}" for kind in kinds)
        hint = f" ({kinds[0].__name__}.from_native(lst) makes one of a native list, which cannot be pickled)"
        raise TypeError(f"kavra.dask.{function}: {name} must be a {names}{hint}, got {type(table).__name__}")


def _sample(value: Any) -> Any:
    """A zero-size stand-in of an input (dask array or scalar), of its element type."""
    if isinstance(value, da.Array):
        return np.empty((0,) * value.ndim, dtype=value.dtype)
    return value


def _chunk_block(function: Callable[..., Any], keywords: tuple[str, ...], table: Any, *blocks: Any,
                 block_info: Any = None) -> Any:
    """The NumPy function on one chunk of each input; failures say which chunk."""
    positional = blocks[:len(blocks) - len(keywords)]
    named = dict(zip(keywords, blocks[len(positional):]))
    try:
        if table is None:
            return function(*positional, **named)
        return function(table, *positional, **named)
    except ValueError as error:
        where = "of the result"
        if block_info is not None and None in block_info:
            location = block_info[None]["array-location"]
            where = "[" + ", ".join(f"{start}:{stop}" for start, stop in location) + "] of the result"
        raise ValueError(f"{error} (in the chunk {where}; positions are counted within that chunk)") from error


def _check_shapes(function: Callable[..., Any], names: Sequence[str], values: Sequence[Any]) -> None:
    """ValueError naming the inputs whose shapes do not broadcast together, as the NumPy
    functions say it (shapes with a size that dask does not know yet are left to the chunks)."""
    shapes = [np.shape(value) for value in values]
    if any(isinstance(n, float) and math.isnan(n) for shape in shapes for n in shape):
        return
    try:
        np.broadcast_shapes(*shapes)
    except ValueError:
        listed = ", ".join(f"{name} {shape}" for name, shape in zip(names, shapes))
        raise ValueError(f"kavra.dask.{function.__name__}: the shapes of the inputs do not broadcast together: "
                         f"{listed}") from None


def _cells(function: Callable[..., Any], table: Any, inputs: Sequence[Any],
           keywords: dict[str, Any] | None = None) -> da.Array:
    """`function` over chunks: the inputs aligned, the table one key of the graph."""
    keywords = {name: value for name, value in (keywords or {}).items() if value is not None}
    values = [*inputs, *keywords.values()]
    values = [value if np.ndim(value) == 0 and not isinstance(value, da.Array) else da.asarray(value)
              for value in values]
    # Errors of element types and tables come from the NumPy function itself, now rather than
    # on a worker; its answer for zero-size inputs is the result's meta.
    names = tuple(keywords)
    samples = [_sample(value) for value in values]
    npos = len(samples) - len(names)
    table_args = () if table is None else (table,)
    meta = function(*table_args, *samples[:npos], **dict(zip(names, samples[npos:])))
    if any(isinstance(v, da.Array) and isinstance(v._meta, np.ma.MaskedArray) for v in values):
        meta = np.ma.masked_array(meta)

    arrays = [value for value in values if isinstance(value, da.Array)]
    positional = list(inspect.signature(function).parameters)[table is not None:][:len(inputs)]
    _check_shapes(function, [*positional, *names], values)
    ndim = max((a.ndim for a in arrays), default=0)
    if arrays:
        pairs: list[Any] = []
        for a in arrays:
            pairs += [a, tuple(range(ndim - a.ndim, ndim))]
        _, aligned = unify_chunks(*pairs)
        replaced = iter(aligned)
        values = [next(replaced) if isinstance(value, da.Array) else value for value in values]
    else:
        values = [da.asarray(value) for value in values]
    shipped = None if table is None else delayed(table, pure=True)
    result: da.Array = da.map_blocks(_chunk_block, function, names, shipped, *values, dtype=np.float64, meta=meta,
                         token=f"kavra-{function.__name__}")
    return result


@filled
def bubble_point_pressure(pvto: PVTO, pvtnum: ArrayLike, rs: ArrayLike) -> da.Array:
    """Bubble point pressure per cell, along the saturated line of the live-oil table.

    Chunk by chunk :func:`kavra.bubble_point_pressure` (see the module notes).

    Parameters
    ----------
    %(pvto_value)s
    %(pvtnum)s
    %(rs)s

    Returns
    -------
    dask.array.Array of float64
        Pressure per cell in the table's pressure unit (barsa in METRIC).

    Examples
    --------
    >>> import dask.array as da
    >>> import kavra.dask
    >>> from kavra.tables import PVTO
    >>> oil = PVTO([[[50.0, 120.0, 1.25, 0.9], [80.0, 180.0, 1.35, 0.8]]])
    >>> rs = da.from_array([50.0, 65.0, 70.0], chunks=2)
    >>> print(kavra.dask.bubble_point_pressure(oil, [1, 1, 0], rs).compute())
    [120. 150.   0.]
    """
    _check_table("bubble_point_pressure", "pvto", pvto, (PVTO,))
    return _cells(_calculations.bubble_point_pressure, pvto, [pvtnum, rs])


@filled
def one_over_b(pvdx: PVDO | PVDG, pvtnum: ArrayLike, p: ArrayLike) -> da.Array:
    """1/B per cell of a dead oil or dry gas: B interpolated linearly in pressure, then inverted.

    Chunk by chunk :func:`kavra.one_over_b` (see the module notes).

    Parameters
    ----------
    pvdx : kavra.tables.PVDO or kavra.tables.PVDG
        Dead-oil or dry-gas table per PVT region.
    %(pvtnum)s
    %(p)s

    Returns
    -------
    dask.array.Array of float64
        1/B per cell, in the inverse of the table's B unit (sm3/rm3 in METRIC).

    Examples
    --------
    >>> import dask.array as da
    >>> import kavra.dask
    >>> from kavra.tables import PVDO
    >>> oil = PVDO([[[100.0, 1.25, 1.0], [300.0, 1.05, 1.2]]])
    >>> p = da.from_array([100.0, 200.0, 300.0], chunks=2)
    >>> print(kavra.dask.one_over_b(oil, 1, p).compute())
    [0.8        0.86956522 0.95238095]
    """
    _check_table("one_over_b", "pvdx", pvdx, (PVDO, PVDG))
    return _cells(_calculations.one_over_b, pvdx, [pvtnum, p])


@filled
def one_over_bo(pvto: PVTO, pvtnum: ArrayLike, po: ArrayLike, pbub: ArrayLike) -> da.Array:
    """1/Bo per cell of a live oil, saturated or undersaturated by the cell's bubble point.

    Chunk by chunk :func:`kavra.one_over_bo` (see the module notes).

    Parameters
    ----------
    %(pvto_value)s
    %(pvtnum)s
    po : array_like of float
        Oil pressure per cell, in the table's pressure unit (barsa in METRIC).
    pbub : array_like of float
        Bubble point pressure per cell, in the same unit.

    Returns
    -------
    dask.array.Array of float64
        1/Bo per cell, in the inverse of the table's Bo unit (sm3/rm3 in METRIC).

    Examples
    --------
    >>> import dask.array as da
    >>> import kavra.dask
    >>> from kavra.tables import PVTO
    >>> oil = PVTO([[[50.0, 120.0, 1.25, 0.9, 200.0, 1.23, 1.0],
    ...              [80.0, 180.0, 1.35, 0.8, 300.0, 1.3, 1.0]]])
    >>> po = da.from_array([120.0, 250.0], chunks=1)
    >>> print(kavra.dask.one_over_bo(oil, 1, po, [120.0, 150.0]).compute())
    [0.8        0.75709779]
    """
    _check_table("one_over_bo", "pvto", pvto, (PVTO,))
    return _cells(_calculations.one_over_bo, pvto, [pvtnum, po, pbub])


@filled
def one_over_bw(pvtw: PVTW, pvtnum: ArrayLike, pw: ArrayLike) -> da.Array:
    """1/Bw per cell of water, from the reference state and compressibility of its region.

    Chunk by chunk :func:`kavra.one_over_bw` (see the module notes).

    Parameters
    ----------
    pvtw : kavra.tables.PVTW
        Water properties per PVT region.
    %(pvtnum)s
    pw : array_like of float
        Water pressure per cell, in the table's pressure unit (barsa in METRIC).

    Returns
    -------
    dask.array.Array of float64
        1/Bw per cell, in the inverse of the table's Bw unit (sm3/rm3 in METRIC).

    Examples
    --------
    >>> import dask.array as da
    >>> import kavra.dask
    >>> from kavra.tables import PVTW
    >>> water = PVTW([[100.0, 1.0, 1e-4, 0.5, 0.0]])
    >>> pw = da.from_array([100.0, 1100.0], chunks=1)
    >>> print(kavra.dask.one_over_bw(water, 1, pw).compute())
    [1.    1.105]
    """
    _check_table("one_over_bw", "pvtw", pvtw, (PVTW,))
    return _cells(_calculations.one_over_bw, pvtw, [pvtnum, pw])


@filled
def one_over_bg(pvtg: PVTG, pvtnum: ArrayLike, pg: ArrayLike, pdew: ArrayLike, rv: ArrayLike) -> da.Array:
    """1/Bg per cell of a wet gas, interpolated in gas pressure and vaporised oil.

    Chunk by chunk :func:`kavra.one_over_bg` (see the module notes).

    Parameters
    ----------
    pvtg : kavra.tables.PVTG
        Wet-gas table per PVT region.
    %(pvtnum)s
    pg : array_like of float
        Gas pressure per cell, in the table's pressure unit (barsa in METRIC).
    pdew : array_like of float
        Dew point pressure per cell, in the same unit.
    rv : array_like of float
        Vaporised oil-gas ratio per cell, in the table's Rv unit (sm3/sm3 in METRIC).

    Returns
    -------
    dask.array.Array of float64
        1/Bg per cell, in the inverse of the table's Bg unit (sm3/rm3 in METRIC).

    Examples
    --------
    >>> import dask.array as da
    >>> import kavra.dask
    >>> from kavra.tables import PVTG
    >>> gas = PVTG([[[100.0, 0.01, 0.02, 0.02, 0.03, 0.025, 0.02],
    ...              [200.0, 0.02, 0.01, 0.02, 0.04, 0.0125, 0.02]]])
    >>> pg = da.from_array([150.0, 150.0], chunks=1)
    >>> print(kavra.dask.one_over_bg(gas, 1, pg, [300.0, 150.0], [0.02, 0.015]).compute())
    [72.5 75. ]
    """
    _check_table("one_over_bg", "pvtg", pvtg, (PVTG,))
    return _cells(_calculations.one_over_bg, pvtg, [pvtnum, pg, pdew, rv])


@filled
def rs_from_components(denominator: ArrayLike, numerator: ArrayLike) -> da.Array:
    """Rs per cell as ``numerator / denominator`` where the denominator is above 0, else 0.0.

    Chunk by chunk :func:`kavra.rs_from_components` (see the module notes).

    Parameters
    ----------
    %(denominator_numerator)s

    Returns
    -------
    dask.array.Array of float64
        The ratio per cell.

    Examples
    --------
    >>> import dask.array as da
    >>> import kavra.dask
    >>> oil = da.from_array([2.0, 0.0, -1.0], chunks=2)
    >>> print(kavra.dask.rs_from_components(oil, [100.0, 5.0, 5.0]).compute())
    [50.  0.  0.]
    """
    return _cells(_calculations.rs_from_components, None, [denominator, numerator])


@filled
def porosity(rock: ROCK, pvtnum: ArrayLike, po: ArrayLike, poro: ArrayLike) -> da.Array:
    """Porosity per cell at the cell's pressure, from the rock compressibility of its region.

    Chunk by chunk :func:`kavra.porosity` (see the module notes).

    Parameters
    ----------
    rock : kavra.tables.ROCK
        Reference pressure and compressibility per PVT region.
    pvtnum : array_like of int
        PVT region per cell, from 1.
    po : array_like of float
        Pressure per cell, in the table's pressure unit (barsa in METRIC).
    %(poro_at_reference)s

    Returns
    -------
    dask.array.Array of float64
        Porosity per cell (fraction).

    Examples
    --------
    >>> import dask.array as da
    >>> import kavra.dask
    >>> from kavra.tables import ROCK
    >>> po = da.from_array([300.0, 200.0, 300.0], chunks=2)
    >>> print(kavra.dask.porosity(ROCK([[200.0, 1e-3]]), [1, 1, 0], po, 0.2).compute())
    [0.221 0.2   0.   ]
    """
    _check_table("porosity", "rock", rock, (ROCK,))
    return _cells(_calculations.porosity, rock, [pvtnum, po, poro])


@filled
def porosity_from_porv(bulk_volume: ArrayLike, porv: ArrayLike) -> da.Array:
    """Porosity per cell as ``porv / bulk_volume`` where the bulk volume is above 0, else 0.0.

    Chunk by chunk :func:`kavra.porosity_from_porv` (see the module notes).

    Parameters
    ----------
    %(bulk_volume_porv)s

    Returns
    -------
    dask.array.Array of float64
        Porosity per cell (fraction; not capped).

    Examples
    --------
    >>> import dask.array as da
    >>> import kavra.dask
    >>> bulk = da.from_array([1000.0, 0.0, 500.0], chunks=2)
    >>> print(kavra.dask.porosity_from_porv(bulk, [250.0, 10.0, 100.0]).compute())
    [0.25 0.   0.2 ]
    """
    return _cells(_calculations.porosity_from_porv, None, [bulk_volume, porv])


@filled
def bulk_volume(porv: ArrayLike, poro: ArrayLike, *, ntg: ArrayLike | None = None) -> da.Array:
    """Bulk volume per cell as ``porv / poro`` where the porosity is above 0 (else 0.0), times ``ntg``.

    Chunk by chunk :func:`kavra.bulk_volume` (see the module notes).

    Parameters
    ----------
    %(porv)s
    %(poro)s
    %(ntg)s

    Returns
    -------
    dask.array.Array of float64
        Bulk volume per cell, in the unit of ``porv``.

    Examples
    --------
    >>> import dask.array as da
    >>> import kavra.dask
    >>> porv = da.from_array([250.0, 250.0], chunks=1)
    >>> print(kavra.dask.bulk_volume(porv, [0.25, 0.0], ntg=0.8).compute())
    [800.   0.]
    """
    return _cells(_calculations.bulk_volume, None, [porv, poro], {"ntg": ntg})


# --- K-column reductions ---------------------------------------------------------------


def _dimensions(function: str, grid: Any) -> tuple[int, int, int]:
    tessel = _reductions._tessel()
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
