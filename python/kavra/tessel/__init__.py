"""kavra.tessel, the grid library: reservoir grids, selections of their cells, and grid functions.

* ``ReservoirTopology(nI, nJ, nK)``: a grid of nI x nJ x nK cells; cell
  (i, j, k) has the cell number ``i + nI * (j + nJ * k)``.
* ``ReservoirSelectionTopology(parent, cells)``: cells of a grid, an (n, 3)
  array-like of (i, j, k) in selection order.
* ``IntGridFunction``, ``FloatGridFunction``, ``DoubleGridFunction``: one value
  per element, built from a size (zero-filled) or from 1-D values (copied),
  or wrapping a NumPy array's own memory with ``.wrap(array)`` (no copy: the
  array must be one-dimensional, C-contiguous, aligned, writeable, in the
  machine's byte order and of exactly the element type).  ``.values`` is a
  writable NumPy view of the very same memory; ``np.asarray(gf)``, ``len``
  and indexing go through it.
* ``SelectionViewGridFunction(selection, backing)``: one value per selected
  cell, stored in a ``DoubleGridFunction``.
* ``IntVector``: a list of cell numbers shared with the calculations, which
  may shorten it in place.
"""

from importlib import metadata as _metadata

from kavra._optional import load as _load

_load(__name__ + "._tessel")  # an ImportError that says why, in a build without Boost.Python for this Python
from ._tessel import (  # noqa: F401
    IGridFunction,
    IIntTypeGridFunction,
    IFloatTypeGridFunction,
    IDoubleTypeGridFunction,
    IWritableIntTypeGridFunction,
    IWritableFloatTypeGridFunction,
    IWritableDoubleTypeGridFunction,
    IntGridFunction,
    FloatGridFunction,
    DoubleGridFunction,
    SelectionViewGridFunction,
    ITopology,
    ReservoirTopology,
    ReservoirSelectionTopology,
    IntVector,
)

try:
    __version__: str = _metadata.version("kavra")  # tessel ships in the kavra distribution
except _metadata.PackageNotFoundError:  # a source tree that was never installed
    __version__ = "0+unknown"

__all__ = [
    "IGridFunction",
    "IIntTypeGridFunction",
    "IFloatTypeGridFunction",
    "IDoubleTypeGridFunction",
    "IWritableIntTypeGridFunction",
    "IWritableFloatTypeGridFunction",
    "IWritableDoubleTypeGridFunction",
    "IntGridFunction",
    "FloatGridFunction",
    "DoubleGridFunction",
    "SelectionViewGridFunction",
    "ITopology",
    "ReservoirTopology",
    "ReservoirSelectionTopology",
    "IntVector",
]
