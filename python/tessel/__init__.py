"""tessel: reservoir grids, selections of their cells, and grid functions.

* ``ReservoirTopology(nI, nJ, nK)``: a grid of nI x nJ x nK cells; cell
  (i, j, k) has the cell number ``i + nI * (j + nJ * k)``.
* ``ReservoirSelectionTopology(parent, cells)``: cells of a grid, an (n, 3)
  array-like of (i, j, k) in selection order.
* ``IntGridFunction``, ``FloatGridFunction``, ``DoubleGridFunction``: one value
  per element, built from a size (zero-filled) or from 1-D values (copied);
  ``.values`` is a writable NumPy view of the very same memory.
* ``SelectionViewGridFunction(selection, backing)``: one value per selected
  cell, stored in a ``DoubleGridFunction``.
* ``IntVector``: a list of cell numbers shared with the calculations, which
  may shorten it in place.
"""

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
