"""kavra.blackoil over dask arrays: ``kavra.dask.blackoil``.

Every function takes the arguments of the function of the same name in
:mod:`kavra.blackoil` (without ``out``) and gives, once computed, bit for bit
what that function gives on the whole arrays: each chunk is computed by it
(``map_blocks``, the tables one pickled key of the graph; see
:mod:`kavra.dask`).

Examples
--------
>>> import dask.array as da
>>> import kavra.dask
>>> from kavra.tables import PVDG
>>> gas = PVDG([[[100.0, 0.02, 0.01], [200.0, 0.01, 0.02]]])
>>> print(kavra.dask.blackoil.one_over_bg(gas, 1, da.from_array([150.0, 200.0], chunks=1)).compute())
[ 75. 100.]
"""

from __future__ import annotations

import sys
from collections.abc import Callable
from typing import TYPE_CHECKING, Any

import dask.array as da
import numpy as np
from numpy.typing import ArrayLike

from . import _dask_satfunc as _satfunc
from . import blackoil as _blackoil
from ._calls import CALLS
from ._dask_cells import forms

# The functions of kavra.blackoil, each with its Dask form (the table of calls says which): the
# cell calculations are built from their NumPy functions, in_place is written below.
__all__ = [name.rpartition(".")[2] for name, call in CALLS.items() if call.module == "blackoil" and call.dask]

globals().update(forms("blackoil", "kavra.dask.blackoil", table_word="table"))

if TYPE_CHECKING:  # the forms built from the table, for type checkers
    def __getattr__(name: str) -> Callable[..., da.Array]: ...


def in_place(deck_or_tables: Any, pvtnum: ArrayLike, porv: ArrayLike, p: ArrayLike, sw: ArrayLike, sg: ArrayLike,
             rs: ArrayLike | None = None, rv: ArrayLike | None = None, *, pw: ArrayLike | None = None,
             pg: ArrayLike | None = None, so: ArrayLike | None = None,
             ppcw: ArrayLike | None = None, satnum: ArrayLike | None = None) -> _blackoil.InPlace:
    """:func:`kavra.blackoil.in_place` over dask arrays: its steps with the lazy functions of this
    module (and, given a deck, the capillary pressures of :mod:`kavra.dask.satfunc`); gives three
    dask arrays of float64 (``ppcw`` and ``satnum``, given, are read whole)."""
    arrays = _blackoil.Arrays(sys.modules[__name__], lambda value: da.asarray(value).astype(np.float64),
                              lambda value: da.asarray(value).dtype, da.where, _satfunc.capillary_pressure)
    return _blackoil.fluids_in_place(arrays, deck_or_tables, pvtnum, porv, p, sw, sg, rs, rv, pw, pg, so, ppcw, satnum)

