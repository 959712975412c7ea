"""The initial state of a deck from EQUIL, as OPM Flow computes it before its first step.

Per equilibration region (EQLNUM), the pressure of each phase against depth is integrated
from the datum with the phase's density at its pressure (the PVT of :mod:`kavra.blackoil`),
by the classical fourth-order Runge-Kutta method in equal steps from the datum up to the
region's top and down to its bottom (``points`` steps each way, Flow's
``NumPressurePointsEquil``).  The phase of the datum's zone starts at the datum pressure;
each neighbouring phase starts at its contact with it, at that phase's pressure there less
(water) or plus (gas) the contact's capillary pressure (EQUIL items 3 to 6).  A contact at the
end of the region's span (beyond the cells) is read as Flow reads it: where its distance from
the curve's origin over the step, in metres, rounds to ``points`` or above, at the node one step
short of it (with 2000 steps some thousandths of a bar over tens of metres of oil: it depends
on the datum, with no pattern to the eye).  A cell reads
the curves linearly at its centre depth, and its saturations are where the capillary pressure
curves of its SATNUM table (SWOF or SWFN, SGOF or SGFN) reach the differences of the phase
pressures there.  A level curve (zero, or one value, throughout) places its phase by depth, as
Flow does: gas above the gas-oil contact and at it, water below the oil-water (gas-water)
contact, at the phase's highest saturation, its lowest on the other side, whatever the
contact's capillary pressure (which still offsets the phase's pressure curve); a cell (slice)
at the contact depth holds gas and no free water.  With ENDSCALE, a cell's SWL, SWU, SGL and
SGU map its saturations linearly onto the table's, and its PCW and PCG scale the table's
capillary pressures.  Where a saturation reaches its table's end (a cell all water, or gas down
to the connate water, or gas below the water's pressure, all water) the oil pressure is that
phase's pressure less (plus) the table's capillary pressure there, as Flow writes PRESSURE.
EQUIL item 9 of 0 takes the cell's centre; a negative N (default -5) the mean of the states
(oil pressure and saturations) at the centres of ``2 * abs(N)`` level slices of equal thickness; a
positive N the states at the same centres weighted as Flow weights them in a level cell, in
proportion to ``1/4 + abs(x) - x**2`` at a centre x from the cell's (in thicknesses
of the cell: near its top and bottom twice what it is at its middle; for 1 the mean of two,
as -1).  Flow takes N from -20 to 20, and so does kavra.  A positive N on a corner-point grid
kavra refuses: on tilted cells Flow's states then differ from that weighting (by up to 0.49 in
Sw on a test deck), where its states for a negative N are the level slices' mean.

Rs follows RSVD, or the saturated Rs at the bubble point of PBVD (EQUIL item 7 above 0),
capped at the saturated Rs of the cell's oil pressure; Rv likewise follows RVVD or PDVD (item
8).  A cell with free gas holds saturated oil (Rs saturated at its oil pressure), a cell with
oil saturated gas.  With item 7 (8) of 0 the ratio is the saturated one at the gas-oil
contact, capped the same way; Flow then wants the datum at that contact, and so does kavra.

SWATINIT gives a cell of the oil zone above the free water (Pcow above 0) that water saturation
(at least its lowest), its Pcow curve scaled to reach the Pcow there (``ppcw``, Flow's PPCW).
Where gas would then leave no room for oil, a cell with a SWATINIT keeps its water (SWATINIT's,
or its curve's where SWATINIT scales nothing, as at 1), the gas has the rest, and the curve is
scaled to reach there the difference between the oil pressure (the gas's less Pcog) and the
water's.  With level slices the slices are taken from the top down, each with the curve as
the slices above left it: the cell's curve is that of its deepest slice above the free water,
and its state the mean of the slices'.  Without oil Flow leaves SWATINIT unused (its step 0
is the same as without it), and so does kavra.

An equilibration region takes the PVT region (PVTNUM) of its first active cell for its
curves and its cells' Rs and Rv, as Flow does where they differ; the fluids in place take
each cell's own.

Not yet: end points from the ENPTVD family; EQUIL item 9 above 0 on a corner-point grid (how
Flow weights the slices of a tilted cell).

Examples
--------
>>> import kavra.deck, kavra.equil
>>> st = kavra.equil.initial_state(kavra.deck.read(kavra.deck.example_path("SPE1CASE1")))
>>> print(st.pressure.data[[0, 100, 200]].round(3))               # psia, top to bottom layer
[4782.3   4789.107 4800.   ]
"""

from __future__ import annotations

import math
import os
from typing import Any, Iterator, NamedTuple, Sequence

import numpy as np
from numpy.typing import NDArray

from . import _engine
from ._threads import resolve as _resolve_threads
from . import blackoil
from .blackoil import InPlace, in_place

__all__ = ["InitialState", "initial_state", "DEFAULT_POINTS"]

#: Steps of the integration from the datum each way (Flow's NumPressurePointsEquil default).
DEFAULT_POINTS = 2000

_SI_PRESSURE = {"METRIC": 1e5, "FIELD": 6894.757293168361, "LAB": 101325.0, "PVT-M": 101325.0}
_SI_LENGTH = {"METRIC": 1.0, "FIELD": 0.3048, "LAB": 0.01, "PVT-M": 1.0}
_SI_DENSITY = {"METRIC": 1.0, "FIELD": 0.45359237 / 0.3048 ** 3, "LAB": 1000.0, "PVT-M": 1.0}
_GRAVITY = 9.80665  # m/s2
_FIELD_SCF_PER_MSCF_IN_STB = 1000.0 * 0.028316846592 / 0.158987294928


class InitialState(NamedTuple):
    """The equilibrated state of every cell of the grid (I fastest, then J, then K), masked
    where the cell is inactive, in the deck's units.

    Attributes
    ----------
    pressure : numpy.ma.MaskedArray
        Oil pressure (barsa in METRIC, psia in FIELD), as Flow's PRESSURE; in a gas-water deck
        the gas pressure.
    pw, pg : numpy.ma.MaskedArray
        Water and gas pressure: ``pressure`` less the cell's Pcow, plus its Pcog.
    sw, sg : numpy.ma.MaskedArray
        Water and gas saturation.
    rs, rv : numpy.ma.MaskedArray
        Dissolved gas-oil and vaporised oil-gas ratio (0 without PVTO, PVTG).
    ppcw : numpy.ma.MaskedArray
        The cell's largest Pcow (Pcgw of a gas-water deck): its table's, scaled by its PCW,
        or what SWATINIT made it (Flow's PPCW); NaN without water.  (Flow writes a PPCW of 0
        in a gas-water deck with SWATINIT, which it leaves unused.)
    deck : kavra.deck.Deck
        The deck, for :meth:`in_place`.
    """

    pressure: np.ma.MaskedArray[Any, Any]
    pw: np.ma.MaskedArray[Any, Any]
    pg: np.ma.MaskedArray[Any, Any]
    sw: np.ma.MaskedArray[Any, Any]
    sg: np.ma.MaskedArray[Any, Any]
    rs: np.ma.MaskedArray[Any, Any]
    rv: np.ma.MaskedArray[Any, Any]
    ppcw: np.ma.MaskedArray[Any, Any]
    deck: Any

    def in_place(self, *, threads: int | None = None) -> InPlace:
        """Oil, gas and water in place per cell at surface conditions, as Flow's FIPOIL, FIPGAS
        and FIPWAT at step 0 (:func:`kavra.blackoil.in_place` on this state and the deck's pore
        volume, at the oil pressure, or in a gas-water deck the water's); masked where the cell
        is inactive.

        Parameters
        ----------
        threads : int, optional
            Threads for the cells (None: kavra's default).

        Returns
        -------
        kavra.blackoil.InPlace
            ``(oil, gas, water)`` per cell in surface volumes (sm3 in METRIC; stb, Mscf and
            stb in FIELD).
        """
        deck = self.deck
        mask = np.ma.getmaskarray(self.pressure)
        pvtnum = _region_numbers(deck, "PVTNUM")
        filled = [np.ma.filled(a, 0.0) for a in (self.pressure, self.sw, self.sg, self.rs, self.rv, self.pw, self.pg)]
        p, sw, sg, rs, rv, pw, pg = filled
        if "OIL" not in deck.keywords and "WATER" in deck.keywords:
            p = pw  # Flow's gas-water systems take the pore volume at the water pressure
        result = in_place(deck, np.where(mask, 1, pvtnum), deck.pore_volume(), p, sw, sg,
                          rs if deck.pvto is not None else None, rv if deck.pvtg is not None else None,
                          pw=pw, pg=pg, threads=threads)
        return InPlace(*(np.ma.MaskedArray(np.asarray(a), mask=mask) for a in result))


def _region_numbers(deck: Any, name: str) -> NDArray[np.int32]:
    """A region keyword's numbers per cell, 1 everywhere when the deck has none."""
    if name in deck.keywords:
        return np.ascontiguousarray(deck.cell_property(name), dtype=np.int32)
    return np.ones(deck.grid.number_of_cells(), dtype=np.int32)


def _phases(deck: Any) -> tuple[bool, bool, bool]:
    keywords = set(deck.keywords)
    return "OIL" in keywords, "WATER" in keywords, "GAS" in keywords


def _table_columns(deck: Any, names: tuple[str, ...], columns: int, pc: int) -> list[NDArray[np.float64]] | None:
    """Per saturation region: (saturation, Pc) of the first keyword of `names` in the deck."""
    for name in names:
        if name in deck.keywords:
            width = columns if name in ("SWOF", "SGOF") else columns - 1
            return [np.ascontiguousarray(t.reshape(-1, width)[:, [0, pc if width == columns else pc - 1]].T)
                    for t in deck.records(name)]
    return None


_SATURATION_PRESSURE = {"RSVD": "PBVD", "RVVD": "PDVD"}


def _ratio_table(deck: Any, keyword: str, record: Any, region: int, table: Any, saturated: Any,
                 pvt: int) -> tuple[Any, ...]:
    """How Rs (keyword RSVD) or Rv (RVVD) varies in the region: (depths, values, of_pressure) of
    RSVD/RVVD, or of PBVD/PDVD with of_pressure True; or (None, the saturated ratio at the
    contact) where EQUIL item 7 (8) is 0, Flow then wanting the datum at the gas-oil contact."""
    item = record.rsvd_table if keyword == "RSVD" else record.rvvd_table
    if not math.isnan(item) and item > 0:
        for name, of_pressure in ((keyword, False), (_SATURATION_PRESSURE[keyword], True)):
            if name in deck.keywords:
                rows = deck.records(name)[region].reshape(-1, 2)
                return np.ascontiguousarray(rows[:, 0]), np.ascontiguousarray(rows[:, 1]), of_pressure
        raise ValueError(f"initial_state: EQUIL item {7 if keyword == 'RSVD' else 8} of region {region + 1} asks for "
                         f"{keyword} or {_SATURATION_PRESSURE[keyword]}, which the deck lacks")
    if record.datum_depth != record.goc_depth:
        raise ValueError(f"initial_state: EQUIL region {region + 1} has no {keyword} table (item "
                         f"{7 if keyword == 'RSVD' else 8} of 0), so its datum must lie at its gas-oil contact, as "
                         f"Flow requires; it lies at {record.datum_depth:g}, the contact at {record.goc_depth:g}")
    return None, float(saturated(table, pvt, [record.datum_pressure])[0])


_END_POINTS = ("SWL", "SWU", "SGL", "SGU", "PCW", "PCG")


def _cell_end_points(deck: Any) -> list[Any]:
    """The cells' end points of the capillary pressure curves where the deck scales them
    (ENDSCALE), else None each (the cells take their table's): the deck's values, which are
    the table's where the deck gives a cell none, in the deck's units, 0 in the cells the
    simulator does not hold."""
    if "ENDSCALE" not in deck.keywords:
        return [None] * len(_END_POINTS)
    from .deck import DeckError  # kavra.deck needs opm; a deck in hand has it
    ends: list[Any] = []
    for name in _END_POINTS:
        try:
            values = deck.cell_property(name)
        except (KeyError, DeckError):  # a phase the deck lacks
            ends.append(None)
            continue
        ends.append(np.ascontiguousarray(np.nan_to_num(values, nan=0.0), dtype=np.float64))
    return ends


def _swatinit(deck: Any, oil: bool, water: bool) -> Any:
    """SWATINIT per cell, or None without it or where Flow leaves it unused (a deck without oil)."""
    try:
        values = deck.cell_property("SWATINIT")
    except KeyError:
        return None
    if not (oil and water):
        return None  # Flow's step 0 of a gas-water deck is the same with SWATINIT as without
    return np.ascontiguousarray(values, dtype=np.float64)


def _accuracy(item: float, region: int) -> int:
    """EQUIL item 9 of a region as the engine takes it: 0 the cell's centre, N the 2|N| level
    slices of the cell (their mean below 0, weighted as Flow's above), -5 where the deck leaves
    it to its default; a value Flow refuses, refused."""
    if math.isnan(item):
        return -5
    if item != int(item) or not -20 <= item <= 20:
        raise ValueError(f"initial_state: EQUIL item 9 of region {region + 1} is {item:g}; it must be a whole "
                         "number from -20 to 20, as Flow takes it (0 the cell centre, N the 2|N| level slices of "
                         "the cell)")
    return int(item)


def _pressure_items(record: Any) -> list[float]:
    """EQUIL items 1 to 6 of a record (datum, its pressure, the contacts and their capillary
    pressures), 0 where the deck leaves one out."""
    return [0.0 if math.isnan(v) else float(v) for v in record[:6]]


def _spans(depth: NDArray[np.float64], dz: NDArray[np.float64], cells: NDArray[np.bool_]) -> tuple[float, float]:
    return float((depth - dz / 2)[cells].min()), float((depth + dz / 2)[cells].max())


def initial_state(deck: Any, *, threads: int | None = None, points: int = DEFAULT_POINTS,
                  contacts: Sequence[tuple[float, float]] | None = None) -> Any:
    """The initial pressures, saturations and ratios of every cell from the deck's EQUIL.

    Parameters
    ----------
    deck : kavra.deck.Deck, str or os.PathLike
        The deck, or a path to read it from (:func:`kavra.deck.read`).  It needs a grid,
        EQUIL, DENSITY, the PVT tables of its phases and the capillary pressure tables.
    threads : int, optional
        Threads for the cells (None: kavra's default).  The numbers are the same for any count.
    points : int, optional
        Integration steps from the datum to each end of a region (Flow's
        NumPressurePointsEquil, 2000 by default).
    contacts : sequence of (float, float), optional
        Scenarios of contacts: each an (oil-water, gas-oil) pair of depths that replaces
        EQUIL items 3 and 5 in every region (NaN keeps the deck's), in the deck's length
        unit.  The grid, the tables and the cells' end points are read once for them all.

    Returns
    -------
    InitialState or iterator of InitialState
        The state per cell, masked where the cell is inactive; with `contacts`, an iterator
        of one per scenario, in their order, each computed when it is asked for (a state
        holds nine arrays of a value per cell: keep what you need of each, not all of them).

    Raises
    ------
    ValueError
        A deck without EQUIL, or EQUIL records fewer than the EQLNUM regions, or a phase
        without its tables; EQUIL item 7 (8) of 0 with the datum off the gas-oil contact, or
        above 0 without RSVD or PBVD (RVVD or PDVD), or item 9 outside -20 to 20, as Flow
        refuses them; `points` not a positive integer, `contacts` not pairs of numbers.
    NotImplementedError
        A feature not supported yet (EQUIL item 9 above 0 on a corner-point grid).

    Examples
    --------
    Oil in place of SPE1 (stb) as its oil-water contact moves up through the grid:

    >>> import kavra.deck, kavra.equil
    >>> deck = kavra.deck.read(kavra.deck.example_path("SPE1CASE1"))
    >>> states = kavra.equil.initial_state(deck, contacts=[(8450.0, np.nan), (8390.0, np.nan), (8350.0, np.nan)])
    >>> [int(s.in_place().oil.sum() // 1e6) for s in states]      # million stb, each state in turn
    [284, 142, 56]
    """
    if isinstance(deck, (str, os.PathLike)):
        from . import deck as _deck

        deck = _deck.read(deck)
    if not isinstance(points, (int, np.integer)) or isinstance(points, bool) or points < 1:
        raise ValueError(f"initial_state: points must be a positive integer, not {points!r}")
    if "EQUIL" not in deck.keywords:
        raise ValueError("initial_state: the deck has no EQUIL")
    setup = _Setup(deck, int(points), _resolve_threads(threads))
    if contacts is None:
        return setup.state(deck.equil)
    try:
        pairs = np.asarray(contacts, dtype=np.float64)
    except (TypeError, ValueError):
        pairs = np.zeros(0)
    if pairs.ndim != 2 or pairs.shape[1] != 2:
        raise ValueError("initial_state: contacts must be a sequence of (oil-water, gas-oil) depth pairs")
    return _scenarios(setup, pairs)


def _scenarios(setup: _Setup, pairs: NDArray[np.float64]) -> Iterator[InitialState]:
    """The states of the scenarios of contacts, each computed when it is asked for."""
    for owc, goc in pairs:
        yield setup.state(tuple(record._replace(owc_depth=record.owc_depth if math.isnan(owc) else float(owc),
                                                goc_depth=record.goc_depth if math.isnan(goc) else float(goc))
                                for record in setup.deck.equil))


class _Setup:
    """What the states of a deck share, read once: the grid, the regions, the tables, the
    cells' end points."""

    def __init__(self, deck: Any, points: int, threads: int) -> None:
        self.deck, self.points, self.threads = deck, points, threads
        self.oil, self.water, self.gas = _phases(deck)
        units = deck.units
        self.gravity = _GRAVITY * _SI_DENSITY[units] * _SI_LENGTH[units] / _SI_PRESSURE[units]
        self.metres = _SI_LENGTH[units]
        self.gas_factor = _FIELD_SCF_PER_MSCF_IN_STB if units == "FIELD" else 1.0
        self.active = np.ascontiguousarray(deck.active, dtype=np.uint8)
        self.depth = np.ascontiguousarray(deck.cell_depths(), dtype=np.float64)
        self.dz = np.ascontiguousarray(np.nan_to_num(np.asarray(deck.cell_property("DZ"), dtype=np.float64)))
        self.eqlnum, self.pvtnum, self.satnum = (_region_numbers(deck, k) for k in ("EQLNUM", "PVTNUM", "SATNUM"))
        self.oil_table = deck.pvto if deck.pvto is not None else deck.pvdo
        self.gas_table = deck.pvtg if deck.pvtg is not None else deck.pvdg
        self.live, self.wet = deck.pvto is not None and self.gas, deck.pvtg is not None and self.oil
        self.surface = np.atleast_2d(np.asarray(deck.density.regions, dtype=np.float64))
        water_pc = _table_columns(deck, ("SWOF", "SWFN"), 4, 3) if self.water else None
        gas_pc = _table_columns(deck, ("SGOF", "SGFN"), 4, 3) if self.gas else None
        empty = np.zeros(0)
        self.saturation = [[*(water_pc[t] if water_pc else (empty, empty)),
                            *(gas_pc[t] if gas_pc else (empty, empty))]
                           for t in range(max(len(water_pc or []), len(gas_pc or []), 1))]
        self.accuracy = [_accuracy(record.accuracy, r) for r, record in enumerate(deck.equil)]
        self.ends = _cell_end_points(deck) + [_swatinit(deck, self.oil, self.water)]
        self.used = int(self.eqlnum[self.active.astype(bool)].max(initial=0))
        if self.used > len(self.accuracy):
            raise ValueError(f"initial_state: EQLNUM reaches {self.used}; EQUIL has {len(self.accuracy)} records")
        weighted = [r for r, n in enumerate(self.accuracy[:self.used]) if n > 0]
        if weighted and "ZCORN" in deck.keywords:
            raise NotImplementedError(
                f"initial_state: EQUIL item 9 above 0 (region {weighted[0] + 1}) on a corner-point grid is not "
                "supported: Flow's states for it on tilted cells are not those of the weighted level slices "
                "that kavra takes (it takes them on the level cells of a DX, DY, DZ and TOPS grid); 0 and "
                "negative values are supported")

    def _curves(self, r: int, record: Any) -> list[Any]:
        """The phase pressures against depth of equilibration region r + 1."""
        deck = self.deck
        cells = self.active.astype(bool) & (self.eqlnum == r + 1)
        if not cells.any():
            return [np.zeros(0)] * 6
        top, bottom = _spans(self.depth, self.dz, cells)
        pvt = int(self.pvtnum[cells][0])
        for present, name, table in ((self.oil, "oil", self.oil_table), (self.gas, "gas", self.gas_table),
                                     (self.water, "water", deck.pvtw), (True, "DENSITY", deck.density)):
            if not present:
                continue
            if table is None:
                raise ValueError(f"initial_state: the deck has {name} but no table of it")
            if not 1 <= pvt <= len(table.regions):
                raise ValueError(f"initial_state: equilibration region {r + 1} lies in PVT region {pvt} (PVTNUM); "
                                 f"the {name} table has {len(table.regions)} region(s)")
        rs_table: tuple[Any, ...] = (None, -1.0)
        rv_table: tuple[Any, ...] = (None, -1.0)
        if self.live:
            rs_table = _ratio_table(deck, "RSVD", record, r, deck.pvto, blackoil.rs_sat, pvt)
        if self.wet:
            rv_table = _ratio_table(deck, "RVVD", record, r, deck.pvtg, blackoil.rv_sat, pvt)
        values = _pressure_items(record)
        return list(_engine.equil_region(
            self.oil_table._engine_tables() if self.oil else None,
            self.gas_table._engine_tables() if self.gas else None,
            deck.pvtw._engine_tables() if self.water else None, pvt, list(self.surface[pvt - 1]), self.gas_factor,
            rs_table, rv_table, values, [self.oil, self.water, self.gas], top, bottom, self.points, self.gravity,
            self.metres))

    def state(self, records: Sequence[Any]) -> InitialState:
        """The state of every cell with these EQUIL records."""
        curves = [self._curves(r, record) for r, record in enumerate(records[:self.used])]
        contacts = [tuple(_pressure_items(record)[2:5:2]) for record in records[:self.used]]
        n = self.depth.size
        out = [np.empty(n) for _ in range(6)]
        _engine.equil_cells(self.depth, self.dz, self.eqlnum, self.satnum, self.active, curves,
                            self.accuracy[:self.used], self.saturation, self.ends, [self.oil, self.water, self.gas],
                            self.threads, out, contacts)
        po, pw, pg, sw, sg, ppcw = out
        mask = ~self.active.astype(bool)
        rs, rv = np.zeros(n), np.zeros(n)
        if self.live or self.wet:
            rs, rv = _ratios(self.deck, records[:self.used], self.eqlnum, self.pvtnum, self.depth, po, pg, sw, sg,
                             mask, self.live, self.wet)
        if not self.gas:
            pg = np.full(n, np.nan)

        def masked(a: NDArray[np.float64]) -> np.ma.MaskedArray[Any, Any]:
            return np.ma.MaskedArray(np.where(mask, 0.0, a), mask=mask)

        return InitialState(masked(po), masked(pw), masked(pg), masked(sw), masked(sg), masked(rs), masked(rv),
                            masked(ppcw), self.deck)


def _ratios(deck: Any, records: Any, eqlnum: Any, pvtnum: Any, depth: Any, po: Any, pg: Any,
            sw: Any, sg: Any, mask: Any, live: bool, wet: bool) -> tuple[NDArray[np.float64], NDArray[np.float64]]:
    """Rs and Rv per cell: the saturated ratio at the cell's pressure where the other
    hydrocarbon phase is present, else the region's table (or the saturated ratio at the
    contact) capped at it."""
    n = depth.size
    rs, rv = np.zeros(n), np.zeros(n)
    for r, record in enumerate(records):
        cells = ~mask & (eqlnum == r + 1)
        if not cells.any():
            continue
        pvt = int(pvtnum[cells][0])  # the region's PVT region serves all its cells, as in Flow
        oil_present = 1.0 - sw[cells] - sg[cells] > 0
        for on, keyword, table, pressure, saturated, into, other in (
                (live, "RSVD", deck.pvto, po, blackoil.rs_sat, rs, sg[cells] > 0),
                (wet, "RVVD", deck.pvtg, pg, blackoil.rv_sat, rv, oil_present)):
            if not on:
                continue
            cap = np.asarray(saturated(table, pvt, pressure[cells]))
            how = _ratio_table(deck, keyword, record, r, table, saturated, pvt)
            if how[0] is None:
                target = np.full(cap.shape, how[1])
            else:
                target = np.interp(depth[cells], how[0], how[1])
                if how[2]:
                    target = np.asarray(saturated(table, pvt, target))
            # where the other phase is present the phase is saturated
            into[cells] = np.where(other, cap, np.minimum(target, cap))
    return rs, rv
