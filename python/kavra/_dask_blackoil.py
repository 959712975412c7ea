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

from typing import Any

import dask.array as da
import numpy as np
from numpy.typing import ArrayLike

from . import blackoil as _blackoil
from .dask import _cells, _check_table
from .tables import PVDG, PVDO, PVTG, PVTO, PVTW, ROCK

# in_place_from_arrays has no lazy form: it is arithmetic on a restart's arrays (given dask arrays, it computes them)
__all__ = [name for name in _blackoil.__all__ if name != "in_place_from_arrays"]


def _with_density(function: Any) -> Any:
    """`function` of kavra.blackoil with its table and DENSITY as one value (the graph's key)."""
    def chunk(tables: tuple[Any, Any], *arguments: Any, **keywords: Any) -> Any:
        return function(tables[0], tables[1], *arguments, **keywords)
    chunk.__name__ = function.__name__
    return chunk


def _phase(name: str, function: Any, kinds: tuple[type, ...], ratio: str) -> Any:
    def lazy(table: Any, pvtnum: ArrayLike, p: ArrayLike, r: ArrayLike | None = None) -> da.Array:
        _check_table(name, "table", table, kinds)
        return _cells(function, table, [pvtnum, p], {ratio: r})
    return lazy


def _density(name: str, kinds: tuple[type, ...], ratio: str | None) -> Any:
    chunk = _with_density(getattr(_blackoil, name))

    def lazy(table: Any, density: Any, pvtnum: ArrayLike, p: ArrayLike, r: ArrayLike | None = None) -> da.Array:
        _check_table(name, "table", table, kinds)
        return _cells(chunk, (table, density), [pvtnum, p], {} if ratio is None else {ratio: r})
    return lazy


def _plain(name: str, kind: type) -> Any:
    function = getattr(_blackoil, name)

    def lazy(table: Any, pvtnum: ArrayLike, value: ArrayLike) -> da.Array:
        _check_table(name, "table", table, (kind,))
        return _cells(function, table, [pvtnum, value])
    return lazy


one_over_bo = _phase("one_over_bo", _blackoil.one_over_bo, (PVTO, PVDO), "rs")
oil_viscosity = _phase("oil_viscosity", _blackoil.oil_viscosity, (PVTO, PVDO), "rs")
one_over_bg = _phase("one_over_bg", _blackoil.one_over_bg, (PVTG, PVDG), "rv")
gas_viscosity = _phase("gas_viscosity", _blackoil.gas_viscosity, (PVTG, PVDG), "rv")
oil_density = _density("oil_density", (PVTO, PVDO), "rs")
gas_density = _density("gas_density", (PVTG, PVDG), "rv")
water_density = _density("water_density", (PVTW,), None)
rs_sat = _plain("rs_sat", PVTO)
bubble_point = _plain("bubble_point", PVTO)
rv_sat = _plain("rv_sat", PVTG)
dew_point = _plain("dew_point", PVTG)
one_over_bw = _plain("one_over_bw", PVTW)
water_viscosity = _plain("water_viscosity", PVTW)
pore_volume_multiplier = _plain("pore_volume_multiplier", ROCK)


def in_place(deck_or_tables: Any, pvtnum: ArrayLike, porv: ArrayLike, p: ArrayLike, sw: ArrayLike, sg: ArrayLike,
             rs: ArrayLike | None = None, rv: ArrayLike | None = None, *, pw: ArrayLike | None = None,
             pg: ArrayLike | None = None, so: ArrayLike | None = None) -> _blackoil.InPlace:
    """:func:`kavra.blackoil.in_place` over dask arrays: its steps with the lazy functions of this
    module, the tables taken out of a deck first; gives three dask arrays of float64."""
    tables = _blackoil._tables_of(deck_or_tables)  # table values: one pickled key each
    arrays = _blackoil._Arrays(sys.modules[__name__], lambda value: da.asarray(value).astype(np.float64),
                               lambda value: da.asarray(value).dtype, da.where)
    return _blackoil.fluids_in_place(arrays, tables, pvtnum, porv, p, sw, sg, rs, rv, pw, pg, so)


for _name in (name for name in __all__ if name != "in_place"):  # in_place has its own text
    _lazy = globals()[_name]
    _lazy.__name__ = _lazy.__qualname__ = _name
    _lazy.__doc__ = (f"Chunk by chunk :func:`kavra.blackoil.{_name}` over dask arrays (same arguments, "
                     f"without ``out``); gives a dask.array.Array of float64.")

