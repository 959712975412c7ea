"""Black-oil properties per cell as the simulator evaluates its tables.

kavra's own calculations (``kavra.one_over_bo`` and the rest) are exact to
their definitions; a simulator of the ECLIPSE family reads the same tables
in its own way, and these functions give what it gives, to the last digits
it writes (checked against OPM Flow's restart arrays, every report step and
cell):

* PVDO and PVDG: 1/B and 1/(B·μ) linear in pressure, extended linearly past
  the table; the viscosity is their ratio.
* PVTO: a table in Rs and pressure.  Each record is a line of 1/B and of
  1/(B·μ) from its bubble point up; a record without undersaturated rows
  takes those of the next record that has them, moved to its own bubble
  point (pressures shifted, values scaled by the ratio of the saturated
  values).  At (p, Rs) the two records around Rs are read at the same
  distance above their own bubble points as p is above the bubble point
  of Rs, and mixed linearly in Rs.  Rs of saturated oil and the bubble
  point are linear along the saturated records, extended past them.
* PVTG: a table in pressure and Rv.  Each record is a line in Rv up to
  its saturated Rv; a record without undersaturated rows takes those of
  the next record that has them, shifted to its own saturated Rv and
  scaled as for oil, down to Rv = 0.  At (p, Rv) the two records around p
  are read at the same fraction of their own span of Rv, and mixed
  linearly in p.
* PVTW and ROCK: the exponential cut after its second-order term,
  ``1 + x + x**2/2``: 1/Bw with ``x = cw (p - p_ref)``, 1/(Bw·μw) with
  ``x = (cw - cv) (p - p_ref)``, the pore volume multiplier with
  ``x = cr (p - p_ref)``.
* Densities: ``b (rho_own + r rho_other)`` with the surface densities of
  DENSITY, r the dissolved (Rs) or vaporised (Rv) ratio.

Every function takes its tables first, then ``pvtnum``, then its per-cell
inputs, as the functions of :mod:`kavra` do (array-likes that broadcast,
masked arrays, ``out=``, ``threads=``; float32 inputs, such as a restart's
arrays, are read as they are), all in the tables' units.
"""

from __future__ import annotations

import sys
from collections.abc import Mapping
from typing import Any, NamedTuple

import numpy as np
from numpy.typing import ArrayLike, NDArray

from . import _engine
from . import satfunc as _satfunc
from ._arrays import checked_out, engine_buffer
from ._calls import CALLS, calculate, checked
from ._docs import filled
from ._threads import resolve as _resolve_threads
from .tables import PVDG, PVDO, PVTG, PVTO, PVTW, ROCK

__all__ = ["one_over_bo", "one_over_bg", "one_over_bw", "rs_sat", "rv_sat", "bubble_point", "dew_point",
           "oil_viscosity", "gas_viscosity", "water_viscosity", "oil_density", "gas_density", "water_density",
           "pore_volume_multiplier", "in_place", "in_place_from_arrays"]

# Stock-tank barrels per thousand standard cubic feet, as cubic feet: the FIELD
# factor between a ratio of surface volumes and a density (1 in the other systems).
_FIELD_SCF_PER_STB = 1000.0 * 0.028316846592 / 0.158987294928


def _phase(function: str, table: Any, live: type, dead: type, ratio_name: str, ratio: Any) -> str:
    """Which calculation a phase's table takes: the live one with its ratio, the dead one without."""
    if isinstance(table, live):
        if ratio is None:
            raise TypeError(f"{function}: a {live.__name__} table needs {ratio_name}")
        return "live"
    if isinstance(table, dead):
        if ratio is not None:
            raise TypeError(f"{function}: a {dead.__name__} table takes no {ratio_name}")
        return "dead"
    raise TypeError(f"{function}: the table must be a {live.__name__} or a {dead.__name__}, "
                    f"got {type(table).__name__}")


def _oil(function: str, oil: Any, pvtnum: Any, p: Any, rs: Any, out: Any, threads: Any) -> Any:
    live, dead = CALLS["blackoil." + function].engine  # the live-oil and the dead-oil calculation
    if _phase(function, oil, PVTO, PVDO, "rs", rs) == "live":
        return calculate(function, live, ("table", oil), pvtnum, [("p", p), ("rs", rs)], out, threads)
    return calculate(function, dead, ("table", oil), pvtnum, [("p", p)], out, threads)


def _gas(function: str, gas: Any, pvtnum: Any, p: Any, rv: Any, out: Any, threads: Any) -> Any:
    wet, dead = CALLS["blackoil." + function].engine  # the wet-gas and the dry-gas calculation
    if _phase(function, gas, PVTG, PVDG, "rv", rv) == "live":
        return calculate(function, wet, ("table", gas), pvtnum, [("p", p), ("rv", rv)], out, threads)
    return calculate(function, dead, ("table", gas), pvtnum, [("p", p)], out, threads)


@filled
def one_over_bo(oil: PVTO | PVDO, pvtnum: ArrayLike, p: ArrayLike, rs: ArrayLike | None = None, *,
                out: NDArray[Any] | None = None, threads: int | None = None) -> NDArray[np.float64]:
    """1/Bo per cell as the simulator evaluates the oil table.

    Parameters
    ----------
    %(oil)s
    %(pvtnum)s
    %(p)s
    %(rs_live)s
    %(out)s
    %(threads)s

    Returns
    -------
    ndarray of float64
        1/Bo per cell (sm3/rm3 in METRIC).

    %(raises_table)s

    Examples
    --------
    >>> from kavra.blackoil import one_over_bo
    >>> from kavra.tables import PVTO
    >>> oil = PVTO([[[50.0, 120.0, 1.25, 0.9], [80.0, 180.0, 1.35, 0.8, 300.0, 1.31, 0.9]]])
    >>> print(one_over_bo(oil, 1, [150.0, 250.0], [65.0, 50.0]).round(6))
    [0.77037  0.826463]
    """
    return _oil("one_over_bo", oil, pvtnum, p, rs, out, threads)


@filled
def oil_viscosity(oil: PVTO | PVDO, pvtnum: ArrayLike, p: ArrayLike, rs: ArrayLike | None = None, *,
                  out: NDArray[Any] | None = None, threads: int | None = None) -> NDArray[np.float64]:
    """Oil viscosity per cell: 1/Bo over 1/(Bo·μo), each as :func:`one_over_bo` reads it.

    Parameters
    ----------
    %(oil)s
    %(pvtnum)s
    %(p)s
    %(rs_live)s
    %(out)s
    %(threads)s

    Returns
    -------
    ndarray of float64
        Viscosity per cell in the table's unit (cP).

    %(raises_table)s

    Examples
    --------
    >>> from kavra.blackoil import oil_viscosity
    >>> from kavra.tables import PVDO
    >>> print(oil_viscosity(PVDO([[[100.0, 1.2, 1.0], [200.0, 1.1, 1.2]]]), 1, [150.0]).round(6))
    [1.095238]
    """
    return _oil("oil_viscosity", oil, pvtnum, p, rs, out, threads)


@filled
def one_over_bg(gas: PVTG | PVDG, pvtnum: ArrayLike, p: ArrayLike, rv: ArrayLike | None = None, *,
                out: NDArray[Any] | None = None, threads: int | None = None) -> NDArray[np.float64]:
    """1/Bg per cell as the simulator evaluates the gas table.

    Parameters
    ----------
    %(gas)s
    %(pvtnum)s
    %(p)s
    %(rv_wet)s
    %(out)s
    %(threads)s

    Returns
    -------
    ndarray of float64
        1/Bg per cell (sm3/rm3 in METRIC, Mscf/rb in FIELD).

    %(raises_table)s

    Examples
    --------
    >>> from kavra.blackoil import one_over_bg
    >>> from kavra.tables import PVDG
    >>> print(one_over_bg(PVDG([[[100.0, 0.02, 0.01], [200.0, 0.01, 0.02]]]), 1, [150.0]))
    [75.]
    """
    return _gas("one_over_bg", gas, pvtnum, p, rv, out, threads)


@filled
def gas_viscosity(gas: PVTG | PVDG, pvtnum: ArrayLike, p: ArrayLike, rv: ArrayLike | None = None, *,
                  out: NDArray[Any] | None = None, threads: int | None = None) -> NDArray[np.float64]:
    """Gas viscosity per cell: 1/Bg over 1/(Bg·μg), each as :func:`one_over_bg` reads it.

    Parameters
    ----------
    %(gas)s
    %(pvtnum)s
    %(p)s
    %(rv_wet)s
    %(out)s
    %(threads)s

    Returns
    -------
    ndarray of float64
        Viscosity per cell in the table's unit (cP).

    %(raises_table)s

    Examples
    --------
    >>> from kavra.blackoil import gas_viscosity
    >>> from kavra.tables import PVDG
    >>> print(gas_viscosity(PVDG([[[100.0, 0.02, 0.01], [200.0, 0.01, 0.02]]]), 1, [150.0]))
    [0.015]
    """
    return _gas("gas_viscosity", gas, pvtnum, p, rv, out, threads)


@filled
def rs_sat(pvto: PVTO, pvtnum: ArrayLike, p: ArrayLike, *, out: NDArray[Any] | None = None,
           threads: int | None = None) -> NDArray[np.float64]:
    """Rs of saturated oil per cell: linear in pressure along the PVTO records, extended past them.

    Parameters
    ----------
    %(pvto_value)s
    %(pvtnum)s
    %(p)s
    %(out)s
    %(threads)s

    Returns
    -------
    ndarray of float64
        Rs per cell in the table's Rs unit.

    %(raises_table)s

    Examples
    --------
    >>> from kavra.blackoil import rs_sat
    >>> from kavra.tables import PVTO
    >>> oil = PVTO([[[50.0, 120.0, 1.25, 0.9], [80.0, 180.0, 1.35, 0.8, 300.0, 1.31, 0.9]]])
    >>> print(rs_sat(oil, 1, [150.0, 240.0]))
    [ 65. 110.]
    """
    return calculate("rs_sat", "saturated_rs", ("table", checked("rs_sat", pvto, PVTO)), pvtnum, [("p", p)], out,
                     threads)


@filled
def bubble_point(pvto: PVTO, pvtnum: ArrayLike, rs: ArrayLike, *, out: NDArray[Any] | None = None,
                 threads: int | None = None) -> NDArray[np.float64]:
    """Bubble point pressure per cell: linear in Rs along the PVTO records, extended past them.

    Parameters
    ----------
    %(pvto_value)s
    %(pvtnum)s
    %(rs)s
    %(out)s
    %(threads)s

    Returns
    -------
    ndarray of float64
        Pressure per cell in the table's pressure unit.

    %(raises_table)s

    Examples
    --------
    >>> from kavra.blackoil import bubble_point
    >>> from kavra.tables import PVTO
    >>> oil = PVTO([[[50.0, 120.0, 1.25, 0.9], [80.0, 180.0, 1.35, 0.8, 300.0, 1.31, 0.9]]])
    >>> print(bubble_point(oil, 1, [65.0, 110.0]))
    [150. 240.]
    """
    return calculate("bubble_point", "bubble_point", ("table", checked("bubble_point", pvto, PVTO)), pvtnum,
                     [("rs", rs)], out, threads)


@filled
def rv_sat(pvtg: PVTG, pvtnum: ArrayLike, p: ArrayLike, *, out: NDArray[Any] | None = None,
           threads: int | None = None) -> NDArray[np.float64]:
    """Rv of saturated gas per cell: linear in pressure along the PVTG records, extended past them.

    Parameters
    ----------
    %(pvtg_value)s
    %(pvtnum)s
    %(p)s
    %(out)s
    %(threads)s

    Returns
    -------
    ndarray of float64
        Rv per cell in the table's Rv unit.

    %(raises_table)s

    Examples
    --------
    >>> from kavra.blackoil import rv_sat
    >>> from kavra.tables import PVTG
    >>> gas = PVTG([[[100.0, 0.02, 0.02, 0.01], [200.0, 0.04, 0.01, 0.02, 0.0, 0.009, 0.015]]])
    >>> print(rv_sat(gas, 1, [150.0]))
    [0.03]
    """
    return calculate("rv_sat", "saturated_rv", ("table", checked("rv_sat", pvtg, PVTG)), pvtnum, [("p", p)], out,
                     threads)


@filled
def dew_point(pvtg: PVTG, pvtnum: ArrayLike, rv: ArrayLike, *, out: NDArray[Any] | None = None,
              threads: int | None = None) -> NDArray[np.float64]:
    """Dew point pressure per cell: the pressure whose saturated Rv is `rv`.

    Along the saturated line in rising pressure, the first segment whose Rv reach `rv`; past
    them all, the segment at the nearer end, extended.  Where the saturated Rv falls and rises
    again (SPE3 below 1000 psia) a simulator may find another root, or none: see the README.

    Parameters
    ----------
    %(pvtg_value)s
    %(pvtnum)s
    rv : array_like of float
        Vaporised oil-gas ratio per cell, in the table's Rv unit.
    %(out)s
    %(threads)s

    Returns
    -------
    ndarray of float64
        Pressure per cell in the table's pressure unit.

    %(raises_table)s

    Examples
    --------
    >>> from kavra.blackoil import dew_point
    >>> from kavra.tables import PVTG
    >>> gas = PVTG([[[100.0, 0.02, 0.02, 0.01], [200.0, 0.04, 0.01, 0.02, 0.0, 0.009, 0.015]]])
    >>> print(dew_point(gas, 1, [0.03]))
    [150.]
    """
    return calculate("dew_point", "dew_point", ("table", checked("dew_point", pvtg, PVTG)), pvtnum, [("rv", rv)], out,
                     threads)


@filled
def one_over_bw(pvtw: PVTW, pvtnum: ArrayLike, p: ArrayLike, *, out: NDArray[Any] | None = None,
                threads: int | None = None) -> NDArray[np.float64]:
    """1/Bw per cell: ``(1 + x + x**2/2) / bw_ref`` with ``x = cw (p - p_ref)``.

    Parameters
    ----------
    %(pvtw_value)s
    %(pvtnum)s
    %(p)s
    %(out)s
    %(threads)s

    Returns
    -------
    ndarray of float64
        1/Bw per cell (sm3/rm3 in METRIC).

    %(raises_table)s

    Examples
    --------
    >>> from kavra.blackoil import one_over_bw
    >>> from kavra.tables import PVTW
    >>> print(one_over_bw(PVTW([[100.0, 1.0, 1e-4, 0.5, 0.0]]), 1, [100.0, 1100.0]))
    [1.    1.105]
    """
    return calculate("one_over_bw", "water_one_over_b", ("table", checked("one_over_bw", pvtw, PVTW)), pvtnum,
                     [("p", p)], out, threads)


@filled
def water_viscosity(pvtw: PVTW, pvtnum: ArrayLike, p: ArrayLike, *, out: NDArray[Any] | None = None,
                    threads: int | None = None) -> NDArray[np.float64]:
    """Water viscosity per cell: 1/Bw over ``(1 + y + y**2/2) / (bw_ref mu_ref)``, ``y = (cw - cv) (p - p_ref)``.

    Parameters
    ----------
    %(pvtw_value)s
    %(pvtnum)s
    %(p)s
    %(out)s
    %(threads)s

    Returns
    -------
    ndarray of float64
        Viscosity per cell in the table's unit (cP).

    %(raises_table)s

    Examples
    --------
    >>> from kavra.blackoil import water_viscosity
    >>> from kavra.tables import PVTW
    >>> print(water_viscosity(PVTW([[100.0, 1.0, 1e-4, 0.5, 0.0]]), 1, [100.0, 1100.0]))
    [0.5 0.5]
    """
    return calculate("water_viscosity", "water_viscosity", ("table", checked("water_viscosity", pvtw, PVTW)), pvtnum,
                     [("p", p)], out, threads)


@filled
def pore_volume_multiplier(rock: ROCK, pvtnum: ArrayLike, p: ArrayLike, *, out: NDArray[Any] | None = None,
                           threads: int | None = None) -> NDArray[np.float64]:
    """Pore volume multiplier per cell: ``1 + x + x**2/2`` with ``x = cr (p - p_ref)``.

    Parameters
    ----------
    rock : kavra.tables.ROCK
        Rock record per region (the PVT regions, as ROCKNUM defaults to them).
    %(pvtnum)s
    %(p)s
    %(out)s
    %(threads)s

    Returns
    -------
    ndarray of float64
        The pore volume at `p` over the pore volume at the reference pressure, per cell.

    %(raises_table)s

    Examples
    --------
    >>> from kavra.blackoil import pore_volume_multiplier
    >>> from kavra.tables import ROCK
    >>> print(pore_volume_multiplier(ROCK([[100.0, 1e-4]]), 1, [1100.0]))
    [1.105]
    """
    return calculate("pore_volume_multiplier", "pore_volume_multiplier",
                     ("table", checked("pore_volume_multiplier", rock, ROCK)), pvtnum, [("p", p)], out, threads)


def _densities(function: str, density: Any) -> NDArray[np.float64]:
    """The surface densities (oil, water, gas) per region, as an (n, 3) float64 array."""
    regions = getattr(density, "regions", density)
    values = np.asarray([np.asarray(r, dtype=np.float64).reshape(-1)[:3] for r in np.atleast_2d(regions)]
                        if not isinstance(regions, np.ndarray) else np.atleast_2d(regions), dtype=np.float64)
    if values.ndim != 2 or values.shape[1] != 3 or len(values) == 0:
        raise ValueError(f"{function}: density must hold (oil, water, gas) surface densities per region")
    return values


def _per_cell(densities: NDArray[np.float64], column: int, pvtnum: Any, factor: float,
              shape: tuple[int, ...]) -> NDArray[np.float64]:
    """A surface density for every cell: one value when the regions agree, else by region number."""
    values = densities[:, column] * factor
    if np.all(values == values[0]):
        return values[:1].copy()
    regions = np.broadcast_to(np.ma.getdata(pvtnum), shape).reshape(-1)
    inside = (regions >= 1) & (regions <= len(values))
    return np.where(inside, values[np.clip(regions, 1, len(values)) - 1], 0.0)


def _density(function: str, b: NDArray[np.float64], ratio: Any, own: NDArray[np.float64],
             other: NDArray[np.float64], out: Any, threads: int | None) -> Any:
    """``b (own + ratio other)`` per cell, into `out` when given (its mask, if it has one, becomes
    the result's)."""
    target = None if out is None else checked_out(function, out, np.shape(b))
    flat = engine_buffer(b, np.float64).reshape(-1)
    r = engine_buffer(np.broadcast_to(np.asarray(ratio, dtype=np.float64), np.shape(b))).reshape(-1) \
        if np.ndim(ratio) else np.array([float(ratio)])
    result = np.empty_like(flat)
    mask = np.ma.getmask(b)
    _engine.calculate("density_from_b", None, None, (flat, r, own, other), result, (function, "DENSITY", np.shape(b)),
                      _resolve_threads(threads))
    value = result.reshape(np.shape(b))
    if target is not None:
        np.copyto(target, value, casting="same_kind")
        if isinstance(out, np.ma.MaskedArray):
            out.mask = mask
            return out
        value = out
    return np.ma.MaskedArray(value, mask=mask) if mask is not np.ma.nomask else value


def _units_factor(table: Any) -> float:
    return _FIELD_SCF_PER_STB if getattr(table, "units", "METRIC") == "FIELD" else 1.0


@filled
def oil_density(oil: PVTO | PVDO, density: Any, pvtnum: ArrayLike, p: ArrayLike, rs: ArrayLike | None = None, *,
                out: NDArray[Any] | None = None, threads: int | None = None) -> Any:
    """Oil density per cell: ``(1/Bo) (rho_oil + Rs rho_gas)`` at surface densities.

    Parameters
    ----------
    %(oil)s
    %(density)s
    %(pvtnum)s
    %(p)s
    %(rs_live)s
    %(out)s
    %(threads)s

    Returns
    -------
    ndarray of float64
        Density per cell (kg/m3 in METRIC, lb/ft3 in FIELD).

    %(raises_table)s

    Examples
    --------
    >>> from kavra.blackoil import oil_density
    >>> from kavra.tables import PVDO
    >>> print(oil_density(PVDO([[[100.0, 1.25, 1.0], [200.0, 1.2, 1.2]]]), [[800.0, 1000.0, 1.0]], 1, [100.0]))
    [640.]
    """
    densities = _densities("oil_density", density)
    b = one_over_bo(oil, pvtnum, p, rs, threads=threads)
    k = _units_factor(oil)
    return _density("oil_density", b, 0.0 if rs is None else rs, _per_cell(densities, 0, pvtnum, 1.0, np.shape(b)),
                    _per_cell(densities, 2, pvtnum, k, np.shape(b)), out, threads)


@filled
def gas_density(gas: PVTG | PVDG, density: Any, pvtnum: ArrayLike, p: ArrayLike, rv: ArrayLike | None = None, *,
                out: NDArray[Any] | None = None, threads: int | None = None) -> Any:
    """Gas density per cell: ``(1/Bg) (rho_gas + Rv rho_oil)`` at surface densities.

    Parameters
    ----------
    %(gas)s
    %(density)s
    %(pvtnum)s
    %(p)s
    %(rv_wet)s
    %(out)s
    %(threads)s

    Returns
    -------
    ndarray of float64
        Density per cell (kg/m3 in METRIC, lb/ft3 in FIELD).

    %(raises_table)s

    Examples
    --------
    >>> from kavra.blackoil import gas_density
    >>> from kavra.tables import PVDG
    >>> print(gas_density(PVDG([[[100.0, 0.01, 0.01], [200.0, 0.005, 0.02]]]), [[800.0, 1000.0, 1.0]], 1, [100.0]))
    [100.]
    """
    densities = _densities("gas_density", density)
    b = one_over_bg(gas, pvtnum, p, rv, threads=threads)
    k = _units_factor(gas)
    return _density("gas_density", b, 0.0 if rv is None else rv, _per_cell(densities, 2, pvtnum, k, np.shape(b)),
                    _per_cell(densities, 0, pvtnum, 1.0, np.shape(b)), out, threads)


@filled
def water_density(pvtw: PVTW, density: Any, pvtnum: ArrayLike, p: ArrayLike, *,
                  out: NDArray[Any] | None = None, threads: int | None = None) -> Any:
    """Water density per cell: ``(1/Bw) rho_water`` at the surface density.

    Parameters
    ----------
    %(pvtw_value)s
    %(density)s
    %(pvtnum)s
    %(p)s
    %(out)s
    %(threads)s

    Returns
    -------
    ndarray of float64
        Density per cell (kg/m3 in METRIC, lb/ft3 in FIELD).

    %(raises_table)s

    Examples
    --------
    >>> from kavra.blackoil import water_density
    >>> from kavra.tables import PVTW
    >>> print(water_density(PVTW([[100.0, 1.0, 1e-4, 0.5, 0.0]]), [[800.0, 1000.0, 1.0]], 1, [1100.0]))
    [1105.]
    """
    densities = _densities("water_density", density)
    b = one_over_bw(pvtw, pvtnum, p, threads=threads)
    zero = np.zeros(1)
    return _density("water_density", b, 0.0, _per_cell(densities, 1, pvtnum, 1.0, np.shape(b)), zero, out, threads)


# --- fluids in place ------------------------------------------------------------------------

class InPlace(NamedTuple):
    """Oil, gas and water in place per cell at surface conditions, in the tables' surface units
    (sm3 in METRIC; stb, Mscf and stb in FIELD)."""

    oil: NDArray[np.float64]
    gas: NDArray[np.float64]
    water: NDArray[np.float64]


_TABLE_NAMES = ("pvto", "pvdo", "pvtg", "pvdg", "pvtw", "rock")
# The spacing of float32 at 1: an oil saturation 1 - Sw - Sg closer to 0 than this, of saturations
# given as float32, is the rounding of Sw and Sg, not oil.
_FLOAT32_SPACING = 2.0**-23


def tables_of(deck_or_tables: Any) -> dict[str, Any]:
    """The tables of a kavra.deck.Deck, or of a mapping (or object) with the attributes named so."""
    if isinstance(deck_or_tables, Mapping):
        return {name: deck_or_tables.get(name) for name in _TABLE_NAMES}
    return {name: getattr(deck_or_tables, name, None) for name in _TABLE_NAMES}


def _oil_saturation(arrays: Arrays, sw: Any, sg: Any) -> Any:
    """1 - Sw - Sg, in float64; 0 where that is within float32's spacing of 0 and Sw or Sg came as float32."""
    so = 1.0 - arrays.floats(sw) - arrays.floats(sg)
    if np.result_type(arrays.dtype(sw), arrays.dtype(sg)) == np.float32:
        so = arrays.where(abs(so) < _FLOAT32_SPACING, 0.0, so)
    return so


@filled
def in_place(deck_or_tables: Any, pvtnum: ArrayLike, porv: ArrayLike, p: ArrayLike, sw: ArrayLike, sg: ArrayLike,
             rs: ArrayLike | None = None, rv: ArrayLike | None = None, *, pw: ArrayLike | None = None,
             pg: ArrayLike | None = None, so: ArrayLike | None = None, ppcw: ArrayLike | None = None,
             satnum: ArrayLike | None = None, threads: int | None = None) -> InPlace:
    """Oil, gas and water in place per cell at surface conditions, as the simulator's FIP arrays.

    With the pore volume at pressure ``pv = porv * pore_volume_multiplier(rock, pvtnum, p)`` (no
    ROCK: ``porv``) and the 1/B of this module at each phase's pressure::

        oil   = pv * So / Bo + pv * Sg / Bg * Rv      (liquid, and vaporised in the gas)
        gas   = pv * Sg / Bg + pv * So / Bo * Rs      (free, and dissolved in the oil)
        water = pv * Sw / Bw

    what OPM Flow writes as FIPOIL, FIPGAS and FIPWAT.  A phase without a table (no gas table
    in a dead-oil deck, say) holds nothing; Rs counts only with a PVTO, Rv only with a PVTG.
    :func:`kavra.region_totals` adds them up per FIPNUM region.

    Parameters
    ----------
    deck_or_tables : kavra.deck.Deck or mapping
        The tables: ``pvto`` or ``pvdo``, ``pvtg`` or ``pvdg``, ``pvtw`` and ``rock``, as the
        attributes of a deck or the keys of a mapping (a missing one is None).  Given a deck,
        water and gas are at their own pressures unless ``pw`` and ``pg`` say otherwise:
        ``pw = p - Pcow``, ``pg = p + Pcog`` of :func:`kavra.satfunc.from_deck` at the cell's
        Sw and Sg, with its SATNUM region and end points, as the simulator takes them.  The
        inputs then hold one value per cell of the deck's whole grid (they broadcast to
        nI * nJ * nK values), in its cell order (I fastest, then J, then K): their cells are
        taken to be the deck's.  Cells the deck does not hold (outside ACTNUM) take no
        capillary pressure; nor does any cell of a deck without saturation tables.  A deck with
        SWATINIT needs ``ppcw`` for that (or ``pw`` and ``pg``).
    %(pvtnum)s
    porv : array_like of float
        Pore volume per cell at the reference pressure (an INIT's PORV), in reservoir volume
        (rm3 in METRIC, rb in FIELD).
    p : array_like of float
        Oil pressure per cell, in the tables' pressure unit; also the pressure of the pore
        volume, and of water and gas unless ``pw`` and ``pg`` say otherwise.
    sw, sg : array_like of float
        Water and gas saturation per cell (fraction of pore volume).
    rs : array_like of float, optional
        Dissolved gas-oil ratio per cell (with a PVTO), in the table's Rs unit.
    rv : array_like of float, optional
        Vaporised oil-gas ratio per cell (with a PVTG), in the table's Rv unit.
    pw, pg : array_like of float, optional
        Water and gas pressure per cell (``p`` minus and plus the capillary pressures).
        Default: ``p``, or with a deck ``p`` less its Pcow (plus its Pcog).
    so : array_like of float, optional
        Oil saturation per cell (a restart's SOIL).  Default ``1 - sw - sg``, taken as 0 within
        2**-23 of 0 when ``sw`` or ``sg`` is float32 (as a restart holds them): there the
        rounding of the saturations, not oil, would be left.
    ppcw : array_like of float, optional
        With a deck: each cell's largest Pcow as the simulator's initialisation left it, one
        per cell of the grid (deck pressure units), for :func:`kavra.satfunc.from_deck`.  A deck
        with SWATINIT needs it to take Pcow from the deck: the run's restart array PPCW
        (:meth:`kavra.results.Results.in_place` reads it), or
        ``kavra.equil.initial_state(deck).ppcw``, which equilibrates the deck (a full
        initialisation: seconds on a large grid), so compute it once and pass it to every step.
    satnum : array_like of int, optional
        With a deck: each cell's SATNUM region as the run took it (a case's INIT holds it), for
        :func:`kavra.satfunc.from_deck`; without it the deck's, whose reading builds opm's state
        of the deck's grid and properties (about 2 GB and 20 s for 10^7 cells).
    %(threads)s

    Returns
    -------
    InPlace
        ``(oil, gas, water)``, float64 arrays of the inputs' broadcast shape, masked where an
        input is, in surface volumes of the tables' units (sm3 in METRIC; stb, Mscf and stb in
        FIELD).

    Raises
    ------
    TypeError
        A table of the wrong kind, or as the functions of this module say.
    ValueError
        A PVTO without ``rs`` or a PVTG without ``rv``; inputs that do not broadcast; a region
        past a table (as the functions of this module say); given a deck, and ``pw`` or ``pg``
        to take from it, inputs of another number of cells than its grid, or saturation
        functions that :func:`kavra.satfunc.from_deck` refuses (SWATINIT without ``ppcw``).

    Examples
    --------
    >>> import kavra.deck
    >>> from kavra import blackoil
    >>> deck = kavra.deck.read(kavra.deck.example_path("SPE1CASE1"))   # FIELD, 10 x 10 x 3 cells
    >>> cells = deck.grid.number_of_cells()
    >>> fluids = blackoil.in_place(deck, 1, porv=1000.0, p=4800.0, sw=np.full(cells, 0.12), sg=0.0, rs=1.27)
    >>> print(fluids.oil[0].round(2), fluids.gas[0].round(2), fluids.water[0].round(2))   # stb, Mscf, stb
    532.76 676.6 117.57
    >>> tables = {"pvto": deck.pvto, "pvtw": deck.pvtw, "rock": deck.rock}   # tables alone: any cells
    >>> print(blackoil.in_place(tables, 1, [1000.0], [4800.0], [0.12], [0.0], [1.27]).oil.round(2))
    [532.76]
    """
    return fluids_in_place(_NUMPY, deck_or_tables, pvtnum, porv, p, sw, sg, rs, rv, pw, pg, so, ppcw, satnum,
                           threads=threads)


class Arrays(NamedTuple):
    """The steps of in_place over one kind of array: this module's functions and NumPy, or the
    lazy functions of kavra.dask.blackoil and dask.array."""

    functions: Any  # with one_over_bo, one_over_bg, one_over_bw and pore_volume_multiplier
    floats: Any     # an array-like as float64, its mask kept
    dtype: Any      # the element type of an array-like
    where: Any      # numpy.where, keeping masks
    capillary: Any  # (SaturationFunctions, sw, sg, **keywords) -> CapillaryPressure


def _is_deck(deck_or_tables: Any) -> bool:
    decks = sys.modules.get("kavra.deck")  # (a deck is read by kavra.deck: it is imported then)
    return decks is not None and isinstance(deck_or_tables, decks.Deck)


def _pressures(arrays: Arrays, deck: Any, p: Any, sw: Any, sg: Any, zero: Any, pw: Any, pg: Any, ppcw: Any,
               satnum: Any, keywords: dict[str, Any]) -> tuple[Any, Any]:
    """Water's and gas's pressures, those given or the deck's: p - Pcow and p + Pcog at the cells'
    saturations (0 in cells the deck does not hold)."""
    cells = int(np.prod(np.shape(zero)))
    grid = deck.grid
    if cells != grid.number_of_cells():
        raise ValueError(
            f"in_place: the inputs hold {cells} cells and the deck's grid {grid.number_of_cells()} "
            f"({grid.nI} x {grid.nJ} x {grid.nK}); with a deck, give one value per cell of its whole grid, in its "
            f"cell order (I fastest), or pass pw and pg")
    functions = _satfunc.from_deck(deck, ppcw=ppcw, satnum=satnum)  # refuses SWATINIT without ppcw
    pc = arrays.capillary(functions, arrays.floats(sw) + zero, arrays.floats(sg) + zero, **keywords)
    held = (np.asarray(functions.satnum) != 0).reshape(np.shape(zero))
    pressure = arrays.floats(p)
    return (pressure - arrays.where(held, pc.oil_water, 0.0) if pw is None else pw,
            pressure + arrays.where(held, pc.gas_oil, 0.0) if pg is None else pg)


def fluids_in_place(arrays: Arrays, deck_or_tables: Any, pvtnum: Any, porv: Any, p: Any, sw: Any, sg: Any,
                    rs: Any, rv: Any, pw: Any, pg: Any, so: Any, ppcw: Any = None, satnum: Any = None,
                    **keywords: Any) -> InPlace:
    """in_place over `arrays`: the same steps, in the same order, for NumPy and dask arrays."""
    tables = tables_of(deck_or_tables)
    f, floats = arrays.functions, arrays.floats
    oil = tables["pvto"] if tables["pvto"] is not None else tables["pvdo"]
    gas = tables["pvtg"] if tables["pvtg"] is not None else tables["pvdg"]
    live, wet = tables["pvto"] is not None, tables["pvtg"] is not None
    pv = floats(porv)
    zero = floats(0.0) * (pv + floats(p) + floats(sw) + floats(sg))  # 0.0 of the inputs' shape (and masks)
    if ((pw is None and tables["pvtw"] is not None) or (pg is None and gas is not None)) and _is_deck(
            deck_or_tables) and set(deck_or_tables.keywords) & set(_satfunc.TABLE_KEYWORDS):
        pw, pg = _pressures(arrays, deck_or_tables, p, sw, sg, zero, pw, pg, ppcw, satnum, keywords)
    pw = p if pw is None else pw
    pg = p if pg is None else pg
    if tables["rock"] is not None:
        pv = pv * f.pore_volume_multiplier(tables["rock"], pvtnum, p, **keywords)
    so = _oil_saturation(arrays, sw, sg) if so is None else floats(so)
    liquid = zero if oil is None else pv * so * f.one_over_bo(oil, pvtnum, p, rs if live else None, **keywords)
    del so  # each whole-grid part let go when it has been used: a few arrays of the grid at once, not a dozen
    free = zero if gas is None else pv * floats(sg) * f.one_over_bg(gas, pvtnum, pg, rv if wet else None,
                                                                     **keywords)
    water = zero if tables["pvtw"] is None else pv * floats(sw) * f.one_over_bw(tables["pvtw"], pvtnum, pw,
                                                                                 **keywords)
    del pv, pw, pg
    vaporised = free * floats(rv) if wet and rv is not None else zero
    dissolved = liquid * floats(rs) if live and rs is not None else zero
    oil_in_place = liquid + vaporised
    del liquid, vaporised
    gas_in_place = free + dissolved
    del free, dissolved
    return InPlace(oil_in_place, gas_in_place, water + zero)


_NUMPY = Arrays(sys.modules[__name__], lambda value: np.asanyarray(value, dtype=np.float64),
                lambda value: np.asarray(np.ma.getdata(value)).dtype, np.ma.where,
                lambda functions, sw, sg, **keywords: functions.capillary_pressure(sw, sg, **keywords))


# --- fluids in place from a restart's own arrays -----------------------------------------

def in_place_from_arrays(porv: ArrayLike, sw: ArrayLike, sg: ArrayLike, one_over_bo: ArrayLike | None,
                         one_over_bg: ArrayLike | None = None, one_over_bw: ArrayLike | None = None,
                         rs: ArrayLike | None = None, rv: ArrayLike | None = None, *,
                         so: ArrayLike | None = None) -> InPlace:
    """Oil, gas and water in place per cell at surface conditions, from the simulator's own 1/B.

    What :func:`in_place` gives from the tables, from the arrays that a restart holds instead
    (RPTRST ``BO BG BW RPORV``: 1OVERBO, 1OVERBG, 1OVERBW, RPORV, with RS and RV)::

        oil   = pv * So * 1OVERBO + pv * Sg * 1OVERBG * RV      (liquid, and vaporised in the gas)
        gas   = pv * Sg * 1OVERBG + pv * So * 1OVERBO * RS      (free, and dissolved in the oil)
        water = pv * Sw * 1OVERBW

    in float64, what OPM Flow writes as FIPOIL, FIPGAS and FIPWAT.

    Parameters
    ----------
    porv : array_like of float
        Pore volume per cell, in reservoir volume (rm3 in METRIC, rb in FIELD): a restart's
        RPORV (at the cell's pressure), or an INIT's PORV (at the reference pressure: the
        rock's compressibility is then left out).
    sw, sg : array_like of float
        Water and gas saturation per cell (fraction of pore volume; a restart's SWAT, SGAS).
    one_over_bo, one_over_bg, one_over_bw : array_like of float or None
        1/B of oil, gas and water per cell (surface volume per reservoir volume: a restart's
        1OVERBO, 1OVERBG, 1OVERBW); None for a phase the run does not have, which then holds
        nothing.
    rs : array_like of float, optional
        Dissolved gas-oil ratio per cell (a restart's RS); None: dead oil, no dissolved gas.
    rv : array_like of float, optional
        Vaporised oil-gas ratio per cell (a restart's RV); None: dry gas, no vaporised oil.
    so : array_like of float, optional
        Oil saturation per cell (a restart's SOIL).  Default ``1 - sw - sg``, taken as 0 within
        2**-23 of 0 when ``sw`` or ``sg`` is float32, as :func:`in_place` does.

    Returns
    -------
    InPlace
        ``(oil, gas, water)``, float64 arrays of the inputs' broadcast shape, masked where an
        input is, in the surface volumes of the arrays' units (sm3 in METRIC; stb, Mscf and
        stb in FIELD).

    Raises
    ------
    ValueError
        Inputs that do not broadcast to one shape.

    See Also
    --------
    in_place : the same from the deck's tables.
    kavra.results.Results.in_place : from a case's restart, with these arrays when there is no deck.

    Examples
    --------
    >>> from kavra import blackoil
    >>> fluids = blackoil.in_place_from_arrays(porv=[1000.0], sw=[0.2], sg=[0.1], one_over_bo=[0.8],
    ...                                        one_over_bg=[150.0], one_over_bw=[1.0], rs=[0.1], rv=[0.0])
    >>> print(fluids.oil, fluids.gas, fluids.water)
    [560.] [15056.] [200.]
    """
    def floats(value: Any) -> Any:
        return np.asanyarray(value, dtype=np.float64)

    def data_type(value: Any) -> np.dtype[Any]:
        return np.asarray(np.ma.getdata(value)).dtype

    pv, water_saturation, gas_saturation = floats(porv), floats(sw), floats(sg)
    if so is None:
        oil_saturation = 1.0 - water_saturation - gas_saturation
        if np.result_type(data_type(sw), data_type(sg)) == np.float32:  # the rounding of Sw and Sg, not oil
            oil_saturation = np.ma.where(abs(oil_saturation) < 2.0**-23, 0.0, oil_saturation)
    else:
        oil_saturation = floats(so)
    zero = 0.0 * (pv + water_saturation + gas_saturation + oil_saturation)  # of the inputs' shape and masks

    def phase(saturation: Any, inverse_b: ArrayLike | None) -> Any:
        return zero if inverse_b is None else pv * saturation * floats(inverse_b) + zero

    liquid, free = phase(oil_saturation, one_over_bo), phase(gas_saturation, one_over_bg)
    vaporised = zero if rv is None else free * floats(rv)
    dissolved = zero if rs is None else liquid * floats(rs)
    return InPlace(liquid + vaporised, free + dissolved, phase(water_saturation, one_over_bw))

