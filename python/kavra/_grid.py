"""The grid of a deck or a simulation case (``kavra.deck``, ``kavra.results``):
a ``kavra.tessel.ReservoirTopology`` where this build has ``kavra.tessel``,
else a :class:`Grid`, which reads the same way and which every kavra function
takes as a grid, being an ``(nI, nJ, nK)`` tuple."""

from typing import Any, NamedTuple

from ._optional import NotBuilt


class Grid(NamedTuple):
    """A grid of nI x nJ x nK cells (cell (i, j, k) has the number ``i + nI * (j + nJ * k)``), as
    ``kavra.deck`` and ``kavra.results`` give it in a build without ``kavra.tessel``."""

    nI: int
    nJ: int
    nK: int

    def number_of_cells(self) -> int:
        """nI * nJ * nK."""
        return self.nI * self.nJ * self.nK


def reservoir_grid(ni: int, nj: int, nk: int) -> Any:
    """The grid of nI x nJ x nK cells; ValueError, in tessel's words, for a dimension outside [0, 65535]."""
    try:
        from . import tessel
    except NotBuilt:  # a build without Boost.Python: the same check, in Python
        for name, count in zip(Grid._fields, (ni, nj, nk)):
            if not 0 <= count <= 65535:
                raise ValueError(f"{name} = {count} is outside [0, 65535]") from None
        return Grid(ni, nj, nk)
    return tessel.ReservoirTopology(ni, nj, nk)
