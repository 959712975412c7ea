"""K-column reductions on NumPy arrays: kmax, kmin, ksum, kaverage.

Each returns a new array of the input's shape and element type in which
every cell holds the value of its column (all cells with one I and one J),
bit for bit what the native ``KMax`` … give, run by kavra's engine
(``kavra._engine``; a whole grid's columns in chunks on threads).

* ``grid``: a ``kavra.tessel.ReservoirTopology``, an ``(nI, nJ, nK)`` tuple, or a
  ``kavra.tessel.ReservoirSelectionTopology`` (then ``values`` has one element per
  selected cell, in selection order, and only selected cells take part).
* ``layout``: ``"kji"`` (the default) for arrays of the shape
  ``(nK, nJ, nI)``, I fastest, or one-dimensional in that cell order;
  ``"ijk"`` for arrays of the shape ``(nI, nJ, nK)``, K fastest (as many
  grid libraries hand out properties), or one-dimensional in that order.
  The shape alone never decides.
* Element types: int32, uint32, int64, uint64, float32, float64, in either
  byte order (a byte-swapped array is read through a native copy).  The
  arithmetic stays in that type: integer sums wrap around, integer averages
  truncate toward zero, float32 sums are single precision, added in
  ascending K (in selection order for a selection).  ``kmax`` starts from 0
  and ``kmin`` from the type's largest finite value, so NaN is passed over
  by both, while it makes a column NaN in ``ksum`` and ``kaverage``.
* Masked arrays and ``active``: a masked cell, or one where ``active``
  (boolean, or ACTNUM-like integers, nonzero = active) is false, takes no
  part.  The result is then a ``numpy.ma.MaskedArray`` masked at exactly
  those cells; its data there is 0.
"""

from __future__ import annotations

import functools
import math
import operator
from dataclasses import dataclass
from typing import Any, Literal

import numpy as np
from numpy.typing import ArrayLike, NDArray

from . import _engine
from ._threads import resolve as _resolve_threads
from ._arrays import engine_buffer, split_mask
from ._docs import filled

__all__ = ["kmax", "kmin", "ksum", "kaverage"]

Grid = Any  # a tessel.ReservoirTopology, a tessel.ReservoirSelectionTopology or an (nI, nJ, nK) tuple
Layout = Literal["kji", "ijk"]

# The element types of the native kernels, by NumPy type character.
_KERNEL_TYPES = "iIlLfd"
# Same width as C long on this platform: viewed as long, bits unchanged.
_AS_LONG = {"q": "l", "Q": "L"} if np.dtype("q").itemsize == np.dtype("l").itemsize else {}


def _values(function: str, values: np.ndarray) -> np.ndarray:
    """`values` in an element type of the kernels, in the machine's byte order."""
    char = values.dtype.char
    if char in _AS_LONG:
        values = values.view(np.dtype(_AS_LONG[char]).newbyteorder(values.dtype.byteorder))
        char = values.dtype.char
    if char not in _KERNEL_TYPES:
        raise TypeError(f"{function} takes int32, uint32, int64, uint64, float32 or float64 values, "
                        f"got {values.dtype}")
    if not values.dtype.isnative:
        values = values.astype(values.dtype.newbyteorder("="))
    return values


@dataclass(frozen=True)
class _Cells:
    """A grid of nI x nJ x nK cells, or a selection of its cells (`ijk`: an (m, 3) uint16 array of
    (i, j, k), in selection order)."""

    ni: int
    nj: int
    nk: int
    ijk: NDArray[np.uint16] | None = None


def grid_topology(function: str, grid: Any) -> _Cells:
    """The grid's shape (and cells) of a tessel topology or an (nI, nJ, nK) tuple."""
    tessel = tessel_package()
    if tessel is not None and isinstance(grid, tessel.ReservoirSelectionTopology):
        parent = grid.parent_topology
        return _Cells(parent.nI, parent.nJ, parent.nK, np.asarray(grid.selected_cells).astype(np.uint16))
    if tessel is not None and isinstance(grid, tessel.ReservoirTopology):
        return _Cells(grid.nI, grid.nJ, grid.nK)
    if isinstance(grid, tuple) and len(grid) == 3:
        try:
            dims = [operator.index(d) for d in grid]
        except TypeError:
            dims = []
        if len(dims) == 3 and all(0 <= d < 2**16 for d in dims):
            return _Cells(*dims)
        raise ValueError(f"{function}: a grid (nI, nJ, nK) takes whole numbers from 0 to 65535, got {grid}")
    raise TypeError(f"{function}: grid must be a kavra.tessel.ReservoirTopology, an (nI, nJ, nK) tuple or a "
                    f"kavra.tessel.ReservoirSelectionTopology, got {type(grid).__name__}")


@functools.cache
def tessel_package() -> Any:
    """The tessel package, when its native module is built (None otherwise)."""
    try:
        from kavra import tessel
    except ImportError:
        return None
    return tessel


@dataclass
class ColumnArrays:
    """A reduction's arguments, ready for the native kernel, and how to give its result back."""

    topology: _Cells  # the grid, or a selection: the caller's, or that of the cells that take part
    values: np.ndarray  # native element type and byte order; cell order (C-contiguous) or selection order
    cells: NDArray[np.intp] | None  # where the values came from, when only some cells take part
    shape: tuple[int, ...]  # of the caller's values
    ijk: bool  # the caller's layout is (nI, nJ, nK), K fastest
    mask: NDArray[np.bool_] | None  # of the result, in the caller's shape (None: not a masked result)

    def finish(self, result: np.ndarray) -> Any:
        if self.cells is not None:  # the cells that took no part hold 0
            full = np.zeros(math.prod(self.shape), dtype=result.dtype)
            full[self.cells] = result
            result = full
        if self.ijk:
            grid = self.topology
            result = _columns_ijk(result.reshape(grid.nk, grid.nj, grid.ni), whole=self.cells is None)
        result = result.reshape(self.shape)
        return result if self.mask is None else np.ma.MaskedArray(result, mask=self.mask)


def check_layout(where: str, layout: str) -> None:
    if layout not in ("kji", "ijk"):
        raise ValueError(f"{where}: layout must be 'kji' or 'ijk', not {layout!r}")


def check_grid_shape(where: str, shape: tuple[int, ...], dimensions: tuple[int, int, int],
                     layout: str) -> tuple[int, int, int]:
    """The 3-D shape of a grid of (nI, nJ, nK) `dimensions` in `layout`, after checking that values
    of `shape` fit it (in that shape, or flat)."""
    ni, nj, nk = dimensions
    grid_shape = (nk, nj, ni) if layout == "kji" else (ni, nj, nk)
    if shape not in ((ni * nj * nk,), grid_shape):
        raise ValueError(f"{where}: values of the shape {shape} do not fit the grid of {ni} x {nj} x {nk} "
                         f"cells: layout {layout!r} takes the shape {grid_shape} or ({ni * nj * nk},)")
    return grid_shape


def prepare_columns(function: str, values: ArrayLike, grid: Any, active: ArrayLike | None,
                    layout: str) -> ColumnArrays:
    """Checks the arguments of a reduction and brings the values into the kernels' form."""
    topology = grid_topology(function, grid)
    check_layout(function, layout)
    data, mask = split_mask(values)
    data = _values(function, data)
    selection = topology.ijk is not None
    if selection:
        if layout != "kji":
            raise ValueError(f"{function}: a selection's values are one per selected cell, in selection "
                             "order: layout applies to whole grids only")
        if data.shape != (len(topology.ijk),):
            raise ValueError(f"{function}: values of the shape {data.shape} do not fit a selection of "
                             f"{len(topology.ijk)} cells")
    else:
        ni, nj, nk = topology.ni, topology.nj, topology.nk
        check_grid_shape(function, data.shape, (ni, nj, nk), layout)
    given_shape = data.shape
    valid = taking_part(function, given_shape, mask, active)
    result_mask = None if valid is None else ~valid
    if result_mask is None and isinstance(values, np.ma.MaskedArray):
        result_mask = np.zeros(data.shape, dtype=bool)  # masked in, masked out
    if valid is not None and valid.all():
        valid = None

    ijk = layout == "ijk" and not selection
    if ijk:  # to cell order, I fastest
        data = data.reshape(ni, nj, nk).transpose(2, 1, 0)
        valid = None if valid is None else valid.reshape(ni, nj, nk).transpose(2, 1, 0)
    if valid is None:
        return ColumnArrays(topology, data if selection else engine_buffer(data), None, given_shape, ijk,
                            result_mask)
    cells = np.flatnonzero(valid)
    if selection:
        part = _Cells(topology.ni, topology.nj, topology.nk, topology.ijk[cells])
    else:  # the selection of those cells, in cell order: each column's sum in ascending K, as the grid kernel
        ijk_of = np.column_stack([cells % ni, (cells // ni) % nj, cells // (ni * nj)]).astype(np.uint16)
        part = _Cells(ni, nj, nk, ijk_of)
    return ColumnArrays(part, data[valid], cells, given_shape, ijk, result_mask)  # data[valid]: in cell order


def _run(name: str, cells: _Cells, values: np.ndarray, threads: int | None) -> np.ndarray:
    """The engine's reduction `name` ("KMax", ...): a whole grid's columns in chunks on threads, or
    the selected cells.  The engine holds the values' memory in place while it runs."""
    count = _resolve_threads(threads)
    if cells.ijk is None:
        result = np.empty(values.size, dtype=values.dtype)
        _engine.reduce_grid(name, engine_buffer(values).reshape(-1), result, max(1, cells.ni * cells.nj),
                            count)
        return result.reshape(values.shape)
    result = np.empty(len(cells.ijk), dtype=values.dtype)
    _engine.reduce_selection(name, engine_buffer(values), engine_buffer(cells.ijk), cells.ni,
                             cells.nj, result)
    return result


def _reduce(function: str, name: str, values: ArrayLike, grid: Any, active: ArrayLike | None,
            layout: str, threads: int | None = None) -> Any:
    if (active is None and layout == "kji" and type(values) is np.ndarray and values.dtype.char in _KERNEL_TYPES
            and values.dtype.isnative and values.flags.c_contiguous):
        cells = grid_topology(function, grid)  # the common case, in few steps: the kernel takes the array as it is
        if cells.ijk is None and values.shape in ((cells.ni * cells.nj * cells.nk,), (cells.nk, cells.nj, cells.ni)):
            return _run(name, cells, values, threads)
    columns = prepare_columns(function, values, grid, active, layout)
    return columns.finish(_run(name, columns.topology, columns.values, threads))


def taking_part(function: str, shape: tuple[int, ...], mask: NDArray[np.bool_] | None,
                active: ArrayLike | None) -> NDArray[np.bool_] | None:
    """Cells that take part (None: all of them)."""
    valid = None
    if active is not None:
        flags, _ = split_mask(active)
        if flags.dtype.kind not in "biu":
            raise TypeError(f"{function}: active must be a boolean mask (or 0/1 integers), got {flags.dtype}")
        if flags.shape != shape:
            raise ValueError(f"{function}: active has the shape {flags.shape}, values {shape}")
        valid = flags.astype(bool)
    if mask is not None:
        valid = ~mask if valid is None else valid & ~mask
    return valid


def _columns_ijk(result: np.ndarray, whole: bool) -> np.ndarray:
    """A result in cell order (nK, nJ, nI) laid out as (nI, nJ, nK), C-contiguous."""
    nk, nj, ni = result.shape
    if whole and nk:  # every cell of a column holds its column's value: spread one layer
        out = np.empty((ni, nj, nk), dtype=result.dtype)
        out[...] = result[0].T[:, :, None]
        return out
    return np.ascontiguousarray(result.transpose(2, 1, 0))


@filled
def kmax(values: ArrayLike, grid: Grid, *, active: ArrayLike | None = None, layout: Layout = "kji",
         threads: int | None = None) -> NDArray[Any]:
    """The largest value of each K column, in every cell of that column (0 if all are below 0).

    %(k_arguments)s

    %(k_raises)s

    Examples
    --------
    >>> import numpy as np
    >>> from kavra import kmax
    >>> print(kmax(np.array([1.0, 2.0, 3.0, 4.0]), (2, 1, 2)))
    [3. 4. 3. 4.]
    >>> print(kmax(np.array([[[1, 3]], [[2, 4]]], dtype=np.int32), (2, 1, 2), layout="ijk"))
    [[[3 3]]
    <BLANKLINE>
     [[4 4]]]
    """
    return _reduce("kmax", "KMax", values, grid, active, layout, threads)  # type: ignore[no-any-return]


@filled
def kmin(values: ArrayLike, grid: Grid, *, active: ArrayLike | None = None, layout: Layout = "kji",
         threads: int | None = None) -> NDArray[Any]:
    """The smallest value of each K column, in every cell of that column.

    %(k_arguments)s

    %(k_raises)s

    Examples
    --------
    >>> import numpy as np
    >>> from kavra import kmin
    >>> print(kmin(np.ma.masked_less([1.0, 2.0, 3.0, 4.0], 2.0), (2, 1, 2)))
    [-- 2.0 3.0 2.0]
    """
    return _reduce("kmin", "KMin", values, grid, active, layout, threads)  # type: ignore[no-any-return]


@filled
def ksum(values: ArrayLike, grid: Grid, *, active: ArrayLike | None = None, layout: Layout = "kji",
         threads: int | None = None) -> NDArray[Any]:
    """The sum of each K column, added in ascending K, in every cell of that column.

    %(k_arguments)s

    %(k_raises)s

    Examples
    --------
    >>> import numpy as np
    >>> from kavra import ksum
    >>> print(ksum(np.array([1.0, 2.0, 3.0, 4.0]), (2, 1, 2), active=[True, True, False, True]))
    [1.0 6.0 -- 6.0]
    """
    return _reduce("ksum", "KSum", values, grid, active, layout, threads)  # type: ignore[no-any-return]


@filled
def kaverage(values: ArrayLike, grid: Grid, *, active: ArrayLike | None = None,
             layout: Layout = "kji",
         threads: int | None = None) -> NDArray[Any]:
    """The mean of each K column, in every cell of that column (integers truncate toward zero).

    %(k_arguments)s

    %(k_raises)s

    Examples
    --------
    >>> import numpy as np
    >>> from kavra import kaverage
    >>> print(kaverage(np.array([-3, 0, 1, 2], dtype=np.int32), (1, 1, 4)))
    [0 0 0 0]
    """
    return _reduce("kaverage", "KAverage", values, grid, active, layout, threads)  # type: ignore[no-any-return]
