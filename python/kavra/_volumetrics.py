"""Volumetrics tables: bulk, net and pore volume and the fluids in place per zone, region and fluid.

The package gives :func:`volumetrics` and :func:`read_zones` as ``kavra.volumetrics`` and
``kavra.read_zones``.  :func:`volumetrics` gives the table that engineers hand on, in the columns of
fmu-dataio's ``inplace_volumes`` standard: the index columns ZONE, REGION and
FLUID (``"oil"``, ``"gas"``, ``"water"``), the values BULK, NET, PORV, HCPV,
STOIIP, GIIP, ASSOCIATEDGAS and ASSOCIATEDOIL, and WIIP (water in place at
surface conditions) beside them, one row per zone x region x fluid and a
``"Totals"`` row per fluid.  Its source is a simulation case at a report step
(:func:`kavra.results.read`) or a deck with the state of its cells.

Each cell belongs to the fluid zone of what it holds: the gas zone where it
holds free gas, else the oil zone where it holds liquid oil, else the water
zone.  A row adds up its zone's cells of one zone and region:

* BULK: the cells' bulk volume (the deck's :meth:`~kavra.deck.Deck.cell_volumes`);
* NET: BULK x NTG;
* PORV: the pore volume at reference conditions (the INIT's PORV, or the deck's
  :meth:`~kavra.deck.Deck.pore_volume`);
* HCPV: PORV x (So + Sg), the saturations taken into [0, 1]: PORV − HCPV, the
  water's pore volume, is never negative;
* STOIIP, ASSOCIATEDOIL: the oil in the liquid and vaporised in the gas;
* GIIP, ASSOCIATEDGAS: the free gas and the gas dissolved in the oil;
* WIIP: the water,

the fluids at surface conditions as :func:`kavra.blackoil.in_place` gives them,
or the simulator's own FIPOIL = STOIIP + ASSOCIATEDOIL, FIPGAS = GIIP +
ASSOCIATEDGAS and FIPWAT = WIIP where a results case's step holds them, added
up per row as :func:`kavra.region_totals` adds.  Each cell's quantities and row
are worked out and added up in one pass of the engine over the cells, on
kavra's threads (:func:`kavra.set_num_threads`), the same bits for any number
of them.  Cells outside the grid's active cells, or whose region number is
0 or below, take no part.
"""

from __future__ import annotations

import os
import pathlib
import re
import weakref
from collections.abc import Mapping
from typing import TYPE_CHECKING, Any, NamedTuple

import numpy as np
from numpy.typing import NDArray

from . import _engine
from ._arrays import engine_buffer
from ._threads import resolve as resolve_threads

if TYPE_CHECKING:
    import pandas

__all__ = ["volumetrics", "read_zones"]  # the package's names (kavra.volumetrics, kavra.read_zones)

FLUIDS = ("oil", "gas", "water")
"""The values of the FLUID column, in the order of the rows."""
INDEX_COLUMNS = ("FLUID", "ZONE", "REGION")
"""The index columns of the table (with SCENARIO first for many scenarios)."""
VALUE_COLUMNS = ("BULK", "NET", "PORV", "HCPV", "STOIIP", "GIIP", "ASSOCIATEDGAS", "ASSOCIATEDOIL", "WIIP")
"""The value columns of the table: those of the standard, then WIIP."""
TOTALS = "Totals"
"""The ZONE and REGION of the rows that add up every zone and region."""
ALL_ZONES = "All"
"""The ZONE of every row when no zones are given."""
NO_ZONE = "(no zone)"
"""The ZONE of the cells in layers that none of the zones given holds."""

# The unit of each column in each unit system: bulk and net volume in the length unit cubed,
# pore volumes in reservoir volume, fluids at surface conditions.
_UNITS = {
    "METRIC": ("m3", "rm3", "sm3", "sm3", "sm3"),
    "FIELD": ("ft3", "rb", "stb", "Mscf", "stb"),
    "LAB": ("cc", "rcc", "scc", "scc", "scc"),
    "PVT-M": ("m3", "rm3", "sm3", "sm3", "sm3"),
}
_ZONE_LINE = re.compile(r"""^\s*(?:'([^']*)'|"([^"]*)"|(\S+))\s+(\d+)\s*-\s*(\d+)\s*$""")
_STATE_FIELDS = ("pressure", "sw", "sg", "rs", "rv")
# The simulator's fluids in place per cell (RPTRST FIP): a results case's table takes them where a step has them.
_FIP_ARRAYS = ("FIPOIL", "FIPGAS", "FIPWAT")
# The most rows a table may have (zones x regions x fluids): a total per row is kept for each column.
_MOST_ROWS = 1 << 26


def column_units(units: str) -> dict[str, str]:
    """The unit of each value column of :func:`volumetrics` in a unit system.

    Parameters
    ----------
    units : str
        ``"METRIC"``, ``"FIELD"``, ``"LAB"`` or ``"PVT-M"``.

    Returns
    -------
    dict of str to str
        The unit of BULK, NET (the length unit cubed), PORV, HCPV (reservoir volume), STOIIP,
        ASSOCIATEDOIL, WIIP (liquid at surface conditions), GIIP and ASSOCIATEDGAS (gas).

    Examples
    --------
    >>> column_units("FIELD")["GIIP"], column_units("METRIC")["PORV"]
    ('Mscf', 'rm3')
    """
    if units not in _UNITS:
        raise ValueError(f"unit system {units!r} is not one of {', '.join(_UNITS)}")
    length3, reservoir, oil, gas, water = _UNITS[units]
    return {"BULK": length3, "NET": length3, "PORV": reservoir, "HCPV": reservoir, "STOIIP": oil, "GIIP": gas,
            "ASSOCIATEDGAS": gas, "ASSOCIATEDOIL": oil, "WIIP": water}


# --- zones and regions -----------------------------------------------------------------------

def read_zones(path: str | os.PathLike[str]) -> dict[str, tuple[int, int]]:
    """The zones of a zone file: lines ``'name' k1-k2`` (K from 1, both layers included).

    Lines that are empty or start with ``--`` or ``#`` are passed over; a name without
    spaces may go without quotes.

    Parameters
    ----------
    path : str or path-like
        The zone file.

    Returns
    -------
    dict of str to (int, int)
        The first and last layer of each zone, in file order.

    Raises
    ------
    FileNotFoundError
        No such file.
    ValueError
        A line of another form (the message names the file and the line), a zone named twice,
        a range whose first layer is below 1 or after its last.

    Examples
    --------
    >>> import pathlib, tempfile
    >>> path = pathlib.Path(tempfile.mkdtemp()) / "zones.lyr"
    >>> _ = path.write_text("-- zones of the model\\n'Upper Tarbert' 1-1\\n'Ness' 2 - 3\\n")
    >>> read_zones(path)
    {'Upper Tarbert': (1, 1), 'Ness': (2, 3)}
    """
    path = pathlib.Path(os.fspath(path))
    zones: dict[str, tuple[int, int]] = {}
    with open(path, encoding="utf-8", errors="replace") as lines:
        for number, line in enumerate(lines, start=1):
            text = line.strip()
            if not text or text.startswith(("--", "#")):
                continue
            found = _ZONE_LINE.match(text)
            if found is None:
                raise ValueError(f"{path}, line {number}: {text!r} is not a zone: write 'name' k1-k2")
            name = next(g for g in found.groups()[:3] if g is not None)
            if name in zones:
                raise ValueError(f"{path}, line {number}: the zone {name!r} is given twice")
            zones[name] = (int(found.group(4)), int(found.group(5)))
    if not zones:
        raise ValueError(f"{path} holds no zone: write one line 'name' k1-k2 per zone")
    return zones


def _layer_zones(zones: Mapping[str, Any], nk: int) -> tuple[NDArray[np.int32], list[str]]:
    """The zone index of each layer (from 0; len(names) for a layer of no zone) and the names."""
    names = [str(name) for name in zones]
    layers = np.full(nk, len(names), dtype=np.int32)
    for index, (name, span) in enumerate(zones.items()):
        try:
            k1, k2 = (int(k) for k in span)
        except (TypeError, ValueError):
            raise TypeError(f"zones: zone {name!r} must be a pair (k1, k2) of layers, got {span!r}") from None
        if not 1 <= k1 <= k2 <= nk:
            raise ValueError(f"zones: zone {name!r} spans layers {k1}-{k2}; the grid has layers 1-{nk} "
                             "(K from 1, k1 <= k2)")
        taken = layers[k1 - 1:k2] != len(names)
        if taken.any():
            other = names[int(layers[k1 - 1:k2][taken][0])]
            raise ValueError(f"zones: zones {other!r} and {name!r} both hold layer {k1 + int(np.argmax(taken))}")
        layers[k1 - 1:k2] = index
    if (layers == len(names)).any():
        names.append(NO_ZONE)
    return layers, names


def _numbering(values: Any, what: str, cells: int) -> NDArray[np.int64]:
    """Integer numbers per cell (regions, zones) as int64; masked cells and NaN are 0."""
    data = np.ma.getdata(values)
    mask = np.ma.getmaskarray(values) if np.ma.isMaskedArray(values) else None
    data = np.asarray(data)
    if data.dtype.kind == "f":
        bad = ~np.isfinite(data)
        if mask is not None:
            bad |= mask
        whole = np.where(bad, 0.0, data)
        if np.any(whole != np.round(whole)):
            raise ValueError(f"{what}: numbers per cell must be integers")
        data, mask = whole.astype(np.int64), bad
    elif data.dtype.kind not in "biu":
        raise TypeError(f"{what}: numbers per cell must be integers, got {data.dtype}")
    numbers = np.asarray(data, dtype=np.int64).reshape(-1)
    if numbers.size != cells:
        raise ValueError(f"{what}: {numbers.size} numbers for a grid of {cells} cells")
    if mask is not None:
        numbers = np.where(mask.reshape(-1), 0, numbers)
    return numbers


def _split_names(given: Any) -> tuple[Any, Mapping[Any, Any] | None]:
    """(what, names) of a `regions` or `zones` argument, which may be a pair (property or array, {number: name})."""
    if isinstance(given, tuple) and len(given) == 2 and isinstance(given[1], Mapping):
        return given[0], given[1]
    return given, None


def _sparse_groups(numbers: NDArray[np.int64],
                   names: Mapping[Any, Any] | None) -> tuple[NDArray[np.int64], list[str]]:
    """Cells' numbers (1, 2, ...; 0 for none) as group indices from 0 (-1 for none), and the group names:
    for a few numbers far larger than the grid, searched in the sorted ones."""
    present = np.unique(numbers[numbers > 0])
    index = np.where(numbers > 0, np.searchsorted(present, numbers), -1)
    names = names or {}
    return index, [str(names.get(int(n), n)) for n in present]


class _Groups(NamedTuple):
    """The group (zone or region, from 0) of each cell, as the engine's volume_totals takes it, and the
    groups' names."""

    numbers: NDArray[np.int32] | None  # a number per cell; None: each cell's layer is its number
    masked: NDArray[np.bool_] | None  # cells whose number takes no part (None: none)
    table: NDArray[np.int32]  # the group of each number (or layer), -1 for none
    layer_cells: int  # cells per layer, where numbers is None
    labels: list[str]

    def engine(self) -> tuple[Any, ...]:
        return self.numbers, self.masked, self.table, self.layer_cells


def _numbered_groups(values: Any, what: str, cells: int, names: Mapping[Any, Any] | None) -> _Groups:
    """The groups of the numbers per cell of `values` (1, 2, ...; 0 or below, masked or NaN: none), named
    by `names` (else by the numbers), in the order of the numbers."""
    data = np.ma.getdata(values)
    if data.dtype.kind == "i" and data.dtype.itemsize == 4 and data.size == cells:  # a property as read, as it is
        numbers, wide = engine_buffer(data).reshape(-1), None
        mask = np.ma.getmask(values)
        masked = None if mask is np.ma.nomask else engine_buffer(mask, np.bool_).reshape(-1)
    else:
        wide, masked = _numbering(values, what, cells), None
        numbers = wide
    largest = int(numbers.max()) if numbers.size else 0  # masked cells' numbers too: only the table's size
    if largest > max(4 * cells, 1 << 16):
        index, labels = _sparse_groups(_numbering(values, what, cells) if wide is None else wide, names)
        return _Groups(index.astype(np.int32), None, np.arange(len(labels), dtype=np.int32), 0, labels)
    if wide is not None:
        numbers = np.maximum(wide, 0).astype(np.int32)  # 0 <= numbers <= largest < 2**31
    counts = np.zeros(max(largest, 0) + 1, dtype=np.int64)
    _engine.number_counts(numbers, masked, counts, resolve_threads(None))
    present = np.flatnonzero(counts[1:]) + 1
    table = np.full(counts.size, -1, dtype=np.int32)
    table[present] = np.arange(present.size)
    names = names or {}
    return _Groups(numbers, masked, table, 0, [str(names.get(int(n), n)) for n in present])


# --- the state of the cells ------------------------------------------------------------------

def _state_value(state: Any, name: str) -> Any:
    if isinstance(state, Mapping):
        return state.get(name)
    return getattr(state, name, None)


def _checked_state(state: Any, cells: int) -> dict[str, Any]:
    """pressure, sw, sg, rs, rv (and pw, pg where given) of a state, each one value per cell or one value."""
    values: dict[str, Any] = {}
    for name in (*_STATE_FIELDS, "pw", "pg"):
        value = _state_value(state, name)
        if value is None:
            if name in ("pressure", "sw", "sg"):
                raise TypeError(f"state: has no {name!r} (a state holds pressure, sw, sg, rs and rv per cell, "
                                f"as attributes or keys), got {type(state).__name__}")
            continue
        array = np.ma.asanyarray(value)
        if array.size not in (1, cells):
            raise ValueError(f"state: {name} holds {array.size} values for a grid of {cells} cells")
        values[name] = array.reshape(-1) if array.size == cells else array.reshape(())
    return values


class _Cells:
    """One value per cell of everything a table adds up, and what the cells are."""

    def __init__(self, *, units: str, grid: Any, active: NDArray[np.bool_], bulk: Any, ntg: Any, porv: Any,
                 sw: Any, sg: Any, rs: Any, rv: Any, fluids: Any, live: bool, wet: bool,
                 region_source: Any, zone_source: Any, about: dict[str, Any]) -> None:
        self.units, self.grid, self.active = units, grid, active
        self.bulk, self.ntg, self.porv = bulk, ntg, porv
        self.sw, self.sg, self.rs, self.rv = sw, sg, rs, rv
        self.fluids, self.live, self.wet = fluids, live, wet
        self.region_source, self.zone_source, self.about = region_source, zone_source, about


def _reals(value: Any) -> NDArray[np.floating[Any]]:
    """`value` as float32 or float64 (float32 kept as it is, other types as float64)."""
    data = np.asarray(np.ma.getdata(value))
    return data if data.dtype.char in "fd" else data.astype(np.float64)


def _cell_values(value: Any, cells: int, what: str) -> NDArray[np.floating[Any]] | None:
    """A value per cell, or one for all, as the engine reads it (None stays None)."""
    if value is None:
        return None
    data = _reals(value)
    if data.size not in (1, cells):
        raise ValueError(f"volumetrics: {what} holds {data.size} values for a grid of {cells} cells")
    return engine_buffer(data).reshape(-1)


# --- the table -------------------------------------------------------------------------------

def _table(cells: _Cells, regions: Any, zones: Any, totals: bool) -> pandas.DataFrame:
    import pandas as pd

    grid = cells.grid
    n = grid.number_of_cells()
    region_spec, region_names = _split_names(regions)
    if isinstance(region_spec, str):
        region_groups = _numbered_groups(cells.region_source(region_spec), f"regions {region_spec!r}", n,
                                         region_names)
    else:
        region_groups = _numbered_groups(region_spec, "regions", n, region_names)

    if zones is None:
        zone_groups = _Groups(None, None, np.zeros(1, dtype=np.int32), max(n, 1), [ALL_ZONES])
    else:
        zone_spec, zone_names = _split_names(zones)
        if isinstance(zone_spec, os.PathLike) or (isinstance(zone_spec, str) and pathlib.Path(zone_spec).is_file()):
            zone_spec = read_zones(zone_spec)
        if isinstance(zone_spec, Mapping):
            layers, zone_labels = _layer_zones(zone_spec, grid.nK)
            zone_groups = _Groups(None, None, layers, max(grid.nI * grid.nJ, 1), zone_labels)
        elif isinstance(zone_spec, str):
            zone_groups = _numbered_groups(cells.zone_source(zone_spec), f"zones {zone_spec!r}", n, zone_names)
        else:
            zone_groups = _numbered_groups(zone_spec, "zones", n, zone_names)

    nz, nr = len(zone_groups.labels), len(region_groups.labels)
    count = nz * nr * len(FLUIDS)
    if count > _MOST_ROWS:
        raise ValueError(f"volumetrics: {nz} zones x {nr} regions x {len(FLUIDS)} fluids make {count} rows, more "
                         f"than the {_MOST_ROWS} a table takes: are the regions and zones numbered as meant?")
    # Each cell's saturations, fluids and volumes as they are (float32 read unconverted): the engine
    # works out So, HCPV, the liquid, vapour, free and dissolved parts, the fluid zone and the row of
    # each cell, and adds every column up per row, in one pass (core/reductions/Volumetrics.h).
    sw, sg = _reals(cells.sw), _reals(cells.sg)
    # saturations of float32: an So closer to 0 than float32's spacing at 1 is their rounding, and 0
    rounded = np.result_type(sw.dtype, sg.dtype) == np.float32
    oil, gas, water = cells.fluids
    values = tuple(_cell_values(value, n, what) for what, value in (
        ("sw", sw), ("sg", sg), ("oil", oil), ("gas", gas), ("water", water),
        ("rs", cells.rs if cells.live else None), ("rv", cells.rv if cells.wet else None),
        ("PORV", cells.porv), ("the bulk volume", cells.bulk), ("NTG", cells.ntg)))
    sums = np.zeros((len(VALUE_COLUMNS), count))
    row_cells = np.zeros(count, dtype=np.int64)
    if count and n:
        bad = _engine.volume_totals(values, bool(rounded), engine_buffer(cells.active, np.bool_).reshape(-1),
                                    zone_groups.engine(), region_groups.engine(), nr, sums, row_cells,
                                    resolve_threads(None))
        if bad >= 0:
            raise ValueError(f"state: Rs x Rv is 1 or more at cell {bad} (counting from 0), where no fluid can be "
                             "split into oil and gas")
    used = row_cells > 0
    sums = dict(zip(VALUE_COLUMNS, sums))
    zone_labels, region_labels = zone_groups.labels, region_groups.labels

    zone_of = np.repeat(np.arange(nz), nr * len(FLUIDS))
    region_of = np.tile(np.repeat(np.arange(nr), len(FLUIDS)), nz)
    fluid_of = np.tile(np.arange(len(FLUIDS)), nz * nr)
    frame = pd.DataFrame({
        "FLUID": [FLUIDS[f] for f in fluid_of[used]],
        "ZONE": [zone_labels[z] for z in zone_of[used]],
        "REGION": [region_labels[r] for r in region_of[used]],
        **{name: values[used] for name, values in sums.items()},
    })
    if totals:
        per_fluid = {name: values.reshape(-1, len(FLUIDS)).sum(axis=0) for name, values in sums.items()}
        # a fluid holds a Totals row where any cell is of it (and there is any row at all)
        held = used.reshape(-1, len(FLUIDS)).any(axis=0)
        total = pd.DataFrame({"FLUID": [f for f, h in zip(FLUIDS, held) if h],
                              "ZONE": TOTALS, "REGION": TOTALS,
                              **{name: values[held] for name, values in per_fluid.items()}})
        frame = pd.concat([frame, total], ignore_index=True)
    frame.attrs.update(cells.about)
    frame.attrs["units"] = cells.units
    frame.attrs["column_units"] = column_units(cells.units)
    return frame


# --- the sources -----------------------------------------------------------------------------

# The deck of each results case that volumetrics has read, while the case lives.
_DECKS: weakref.WeakKeyDictionary[Any, Any] = weakref.WeakKeyDictionary()


def _results_cells(case: Any, step: int | None) -> _Cells:
    from . import deck as decks

    if step is None:
        raise TypeError("volumetrics: a results case needs step=, one of its report steps "
                        f"{case.steps[0]}..{case.steps[-1]}" if case.steps else
                        f"volumetrics: the case {case.case.name} has no restart file to take the fluids from")
    deck = _DECKS.get(case)
    if deck is None:  # read once for a case: a table per report step reads the deck once
        deck_path = case.case.with_name(case.case.name + ".DATA")
        if not deck_path.exists():
            raise FileNotFoundError(f"volumetrics needs the deck of {case.case.name} (for its tables and cell "
                                    f"volumes): there is no {deck_path.name} beside the case")
        deck = _DECKS[case] = decks.read(deck_path)
    names, static = case.property_names(step), case.property_names()
    if set(_FIP_ARRAYS) <= set(names):  # the simulator's own fluids in place: read, not worked out again
        fluids = tuple(case.cell_property(name, step) for name in _FIP_ARRAYS)
        origin = "FIPOIL, FIPGAS, FIPWAT of the restart"
    else:
        fluids = case.in_place(step, deck)
        origin = "kavra.blackoil.in_place of the deck's PVT and the restart's state"

    def restart(name: str) -> Any:
        return case.cell_property(name, step) if name in names else None

    sw, sg = restart("SWAT"), restart("SGAS")
    about = {"source": str(case.case), "step": int(step), "fluids": origin}
    if step in case.steps:
        about["date"] = str(case.dates[case.steps.index(step)])
    return _Cells(units=case.units, grid=case.grid, active=case.active, bulk=deck.cell_volumes(),
                  ntg=case.cell_property("NTG") if "NTG" in static else 1.0, porv=case.cell_property("PORV"),
                  sw=np.float32(0.0) if sw is None else sw, sg=np.float32(0.0) if sg is None else sg,
                  rs=restart("RS"), rv=restart("RV"), fluids=fluids, live=deck.pvto is not None,
                  wet=deck.pvtg is not None, region_source=case.cell_property, zone_source=case.cell_property,
                  about=about)


def _deck_numbers(deck: Any) -> Any:
    """deck.cell_property, with the region keywords (FIPNUM, EQLNUM, ... : names that end in NUM) that
    the deck leaves out 1 in every cell, as the simulator takes them."""
    def read(name: str) -> Any:
        try:
            return deck.cell_property(name)
        except KeyError:
            if not str(name).upper().endswith("NUM"):
                raise
            return np.ones(deck.grid.number_of_cells(), dtype=np.int32)
    return read


def _deck_cells(deck: Any, state: Any) -> _Cells:
    from . import blackoil

    n = deck.grid.number_of_cells()
    values = _checked_state(state, n)
    active = deck.active
    pvtnum = deck.cell_property("PVTNUM")
    porv = deck.pore_volume()
    pressure = values["pressure"]
    if "OIL" not in deck.keywords and "WATER" in deck.keywords and "pw" in values:
        pressure = values["pw"]  # a gas-water system takes its pore volume at the water's pressure, as Flow
    fluids = blackoil.in_place(deck, np.where(active, pvtnum, 0), porv, pressure,
                               values["sw"], values["sg"], values.get("rs"), values.get("rv"),
                               pw=values.get("pw"), pg=values.get("pg"))
    return _Cells(units=deck.units, grid=deck.grid, active=active, bulk=deck.cell_volumes(),
                  ntg=np.nan_to_num(deck.cell_property("NTG")), porv=porv, sw=values["sw"],
                  sg=values["sg"], rs=values.get("rs"), rv=values.get("rv"), fluids=fluids,
                  live=deck.pvto is not None, wet=deck.pvtg is not None, region_source=_deck_numbers(deck),
                  zone_source=deck.cell_property, about={"source": "deck"})


def initial_state(deck: Any) -> Any:
    """The initial state of a deck's cells, ``kavra.equil.initial_state(deck)``: what
    :func:`volumetrics` takes for a deck given without `state`."""
    from . import equil

    return equil.initial_state(deck)


def case_or_deck(source: Any, deck_first: bool = False) -> tuple[str, Any]:
    """("results", case) or ("deck", deck) of what volumetrics was given; a .DATA path is a deck when
    no restart file is beside it, or when `deck_first` (a state is given)."""
    from . import results

    if isinstance(source, results.Results):
        return "results", source
    try:
        from . import deck as decks
    except ImportError:
        decks = None  # type: ignore[assignment]
    if decks is not None and isinstance(source, decks.Deck):
        return "deck", source
    if isinstance(source, (str, os.PathLike)):
        path = pathlib.Path(os.fspath(source))
        if path.suffix.upper() == ".DATA" and path.is_file():
            base = path.with_suffix("")
            has_results = any(base.with_name(base.name + ext).is_file() for ext in (".UNRST", ".X0000", ".unrst"))
            if deck_first or not has_results:
                if decks is None:
                    raise ImportError("volumetrics of a deck needs kavra.deck: pip install 'kavra[deck]'")
                return "deck", decks.read(path)
        return "results", results.read(path)
    raise TypeError(f"volumetrics: source must be a results case (kavra.results.read), a deck (kavra.deck.read) "
                    f"or the path of either, got {type(source).__name__}")


def volumetrics(source: Any, *, regions: Any = "FIPNUM", zones: Any = None, step: int | None = None,
                state: Any = None, totals: bool = True) -> pandas.DataFrame:
    """The volumetrics table of a case or a deck: volumes and fluids in place per zone, region and fluid.

    Parameters
    ----------
    source : kavra.results.Results, kavra.deck.Deck, str or path-like
        A simulation case (:func:`kavra.results.read`, with its deck ``CASE.DATA`` beside
        it) at report step `step`, or a deck with the state of its cells (`state`).  A
        path is read as a case, or as a deck when it is a ``.DATA`` file with no restart
        file beside it or `state` is given.
    regions : str, array_like of int, or (either, dict of int to str)
        The region of each cell: the name of an integer property of the source (FIPNUM,
        EQLNUM, SATNUM, ...) or one number per cell in cell order (I fastest); with a dict
        that names the numbers (``("FIPNUM", {1: "North", 2: "South"})``) the REGION column
        holds the names, else the numbers as text.  Cells numbered 0 or below take no part.
    zones : dict of str to (int, int), str, path-like, array_like of int, optional
        The zone of each cell: a dict of zone name to its first and last layer (K from 1,
        both included), a zone file of ``'name' k1-k2`` lines (see :func:`read_zones`), the
        name of an integer property, or one number per cell; a pair (property or array, dict
        of number to name) names the numbers.  Layers that no zone holds are the zone
        ``"(no zone)"``.  Default: one zone, ``"All"``.
    step : int, optional
        The report step of a results case (0: the equilibrated state).
    state : object or mapping, or dict of str to those, optional
        With a deck: ``pressure`` (oil), ``sw``, ``sg``, ``rs``, ``rv`` per cell (attributes
        or keys; ``rs``, ``rv`` may be None with dead oil or dry gas; ``pw`` and ``pg``, the
        phases' pressures, where known), in the deck's units; a
        :class:`kavra.equil.InitialState`.  Many scenarios give one long table with a
        SCENARIO column: a dict of scenario name to state, or an iterable of (name, state)
        pairs, each state taken in turn (``zip(names, kavra.equil.initial_state(deck,
        contacts=...))`` computes each when it comes).  Default: the deck's initial state,
        ``kavra.equil.initial_state(deck)``.
    totals : bool
        Add a row per fluid with ZONE and REGION ``"Totals"``: the sum of its rows.

    Returns
    -------
    pandas.DataFrame
        Columns FLUID, ZONE, REGION (SCENARIO first for many scenarios), then BULK, NET,
        PORV, HCPV, STOIIP, GIIP, ASSOCIATEDGAS, ASSOCIATEDOIL, WIIP, as described in the
        module's text; one row per zone x region x fluid zone that holds a cell, in that
        order.  ``df.attrs`` holds ``units`` (the source's unit system), ``column_units``
        (``{"BULK": "m3", "PORV": "rm3", "STOIIP": "sm3", ...}``: FIELD gives ft3, rb, stb
        and Mscf), ``source`` and, of a case, ``step``, ``date`` and ``fluids``: where the
        fluids came from.  A step whose restart holds the simulator's FIPOIL, FIPGAS and
        FIPWAT (RPTRST ``FIP``) gives those, split into liquid and vapour with its RS and
        RV; any other step, :meth:`kavra.results.Results.in_place` (the deck's PVT tables at
        the step's pressures and saturations).

    Raises
    ------
    TypeError
        A source of another kind; a results case without `step`; a state without pressure,
        sw or sg; region or zone numbers that are not integers.
    ValueError
        Numbers or state arrays of the wrong length; zones that overlap or lie outside the
        grid; a zone file of another form; Rs x Rv of 1 or more in a cell.
    KeyError
        A property or report step the source does not have (the message lists those it has).
    FileNotFoundError
        A path that names nothing; a case without its deck.
    ImportError
        pandas is not installed.

    Examples
    --------
    A deck with the state of its cells (here made up: one pressure, water below 8375 ft):

    >>> import numpy as np
    >>> import kavra.deck
    >>> from kavra import volumetrics
    >>> deck = kavra.deck.read(kavra.deck.example_path("SPE1CASE1"))   # FIELD, 10 x 10 x 3
    >>> sw = np.where(deck.cell_depths() > 8375.0, 1.0, 0.12)
    >>> state = {"pressure": 4800.0, "sw": sw, "sg": 0.0, "rs": 1.27, "rv": 0.0}
    >>> table = volumetrics(deck, state=state, zones={"Upper": (1, 2), "Lower": (3, 3)})
    >>> print(table[["FLUID", "ZONE", "REGION", "PORV", "HCPV", "STOIIP"]].round(-3).to_string(index=False))
    FLUID   ZONE REGION        PORV        HCPV      STOIIP
      oil  Upper      1 267161000.0 235102000.0 142332000.0
    water  Lower      1 267161000.0         0.0         0.0
      oil Totals Totals 267161000.0 235102000.0 142332000.0
    water Totals Totals 267161000.0         0.0         0.0
    >>> table.attrs["column_units"]["PORV"], table.attrs["column_units"]["STOIIP"]
    ('rb', 'stb')
    """
    try:
        import pandas  # noqa: F401
    except ImportError as error:
        raise ImportError("kavra.volumetrics gives a pandas DataFrame: pip install pandas") from error
    kind, source = case_or_deck(source, deck_first=state is not None)
    if kind == "results":
        if state is not None:
            raise TypeError("volumetrics: state= is for a deck; a results case takes its state at step=")
        return _table(_results_cells(source, step), regions, zones, totals)
    if step is not None:
        raise TypeError("volumetrics: step= is for a results case; a deck takes its state from state=")
    if state is None:
        state = initial_state(source)
    if _is_one_state(state):
        return _table(_deck_cells(source, state), regions, zones, totals)
    return scenarios(source, state, regions=regions, zones=zones, totals=totals)


def _is_one_state(state: Any) -> bool:
    """Whether `state` is one state (a mapping with a pressure, or an object with one), not scenarios."""
    if isinstance(state, Mapping):
        return "pressure" in state or not state
    return hasattr(state, "pressure") or not hasattr(state, "__iter__") or isinstance(state, (str, bytes))


def scenarios(deck: Any, states: Any, *, regions: Any = "FIPNUM", zones: Any = None,
              totals: bool = True) -> pandas.DataFrame:
    """The volumetrics of one deck for many states (the contacts of each scenario) as one long table:
    what :func:`volumetrics` gives for a `state` of many.

    Parameters
    ----------
    deck : kavra.deck.Deck
        The deck.
    states : dict of str to state, or iterable of (str, state)
        Each scenario's name and state, as `state` of :func:`volumetrics`; the states are
        taken one at a time, so an iterator of them holds one state at once.
    regions, zones, totals
        As for :func:`volumetrics`.

    Returns
    -------
    pandas.DataFrame
        The tables of :func:`volumetrics`, one after the other in the order of `states`,
        with a SCENARIO column first; ``attrs["scenarios"]`` lists the names.

    Examples
    --------
    Two made-up oil-water contacts of SPE1 (its three layers are 8335, 8360 and 8400 ft deep):

    >>> import numpy as np
    >>> import kavra, kavra.deck
    >>> deck = kavra.deck.read(kavra.deck.example_path("SPE1CASE1"))
    >>> depth = deck.cell_depths()
    >>> states = {f"OWC {owc} ft": {"pressure": 4800.0, "sw": np.where(depth > owc, 1.0, 0.12), "sg": 0.0,
    ...                            "rs": 1.27, "rv": 0.0} for owc in (8350, 8380)}
    >>> table = kavra.volumetrics(deck, state=states)
    >>> print(table[table.ZONE == "Totals"][["SCENARIO", "FLUID", "STOIIP"]].round(-3).to_string(index=False))
       SCENARIO FLUID      STOIIP
    OWC 8350 ft   oil  56933000.0
    OWC 8350 ft water         0.0
    OWC 8380 ft   oil 142332000.0
    OWC 8380 ft water         0.0
    """
    import pandas as pd

    pairs = states.items() if isinstance(states, Mapping) else states
    frames, names = [], []
    for number, pair in enumerate(pairs):
        try:
            name, state = pair
        except (TypeError, ValueError):
            raise TypeError(f"volumetrics: scenario {number} (counting from 0) must be a pair (name, state), "
                            f"got {type(pair).__name__}") from None
        frame = _table(_deck_cells(deck, state), regions, zones, totals)
        frame.insert(0, "SCENARIO", str(name))
        frames.append(frame)
        names.append(str(name))
        del state, pair  # one state at a time
    if not frames:
        raise ValueError("volumetrics: no scenarios given (state= holds none)")
    joined = pd.concat(frames, ignore_index=True)
    joined.attrs.update(frames[0].attrs)
    joined.attrs["scenarios"] = names
    return joined
