"""The table of kavra's calls, and the argument handling they share.

``CALLS`` holds one row per public function of the NumPy layer: the module
that defines it, the engine calculations it runs, the kinds of table it
takes, and how ``kavra.dask`` runs it.  From it come the package's own
names (``kavra.one_over_bo`` …), the Dask forms of the cell calculations
and the API pages; the tests hold each module's ``__all__`` and
``kavra._engine.CALCULATIONS`` against it.

Below the table: what every cell calculation does with its arguments on
the way to the engine (``calculate``), once for all modules.
"""

from __future__ import annotations

from typing import Any, NamedTuple

import numpy as np
from numpy.typing import NDArray

from . import _engine
from ._arrays import CellArrays, prepare_cells, ready_buffers
from ._optional import NotBuilt, load
from ._threads import resolve
from .tables import PVDG, PVDO, PVTG, PVTO, PVTW, ROCK


class Call(NamedTuple):
    """A row of the table of calls."""

    module: str                # the module of kavra that defines the function
    engine: tuple[str, ...]    # the engine's cell calculations it runs (kavra._engine.CALCULATIONS; a live
                               # phase's before the dead one's)
    tables: tuple[str, ...]    # the kinds of table it takes first (kavra.tables), as its failures name them
    dask: str | None           # "cells": kavra.dask runs it chunk by chunk, a form built from this row;
                               # "own": kavra.dask has a form of its own; None: no Dask form


# Public name (in kavra, or in kavra.blackoil as "blackoil.<name>") -> its row.  A function of
# kavra itself is one of the package's names; the others are reached through their module.
CALLS: dict[str, Call] = {
    "bubble_point_pressure": Call("calculations", ("bubble_point_pressure",), ("PVTO",), "cells"),
    "one_over_b": Call("calculations", ("one_over_b",), ("PVDO", "PVDG"), "cells"),
    "one_over_bo": Call("calculations", ("one_over_bo",), ("PVTO",), "cells"),
    "one_over_bw": Call("calculations", ("one_over_bw",), ("PVTW",), "cells"),
    "one_over_bg": Call("calculations", ("one_over_bg",), ("PVTG",), "cells"),
    "rs_from_components": Call("calculations", ("rs_from_components",), (), "cells"),
    "porosity": Call("calculations", ("porosity",), ("ROCK",), "cells"),
    "porosity_from_porv": Call("calculations", ("porosity_from_porv",), (), "cells"),
    "bulk_volume": Call("calculations", ("bulk_volume", "bulk_volume_times_ntg"), (), "cells"),
    "transmissibility_k": Call("calculations", (), (), None),
    "kmax": Call("reductions", (), (), "own"),
    "kmin": Call("reductions", (), (), "own"),
    "ksum": Call("reductions", (), (), "own"),
    "kaverage": Call("reductions", (), (), "own"),
    "column_map": Call("maps", (), (), "own"),
    "region_totals": Call("maps", (), (), None),
    "volumetrics": Call("_volumetrics", (), (), None),
    "read_zones": Call("_volumetrics", (), (), None),
    "get_num_threads": Call("_threads", (), (), None),
    "set_num_threads": Call("_threads", (), (), None),
    "blackoil.one_over_bo": Call("blackoil", ("live_oil_one_over_b", "dead_fluid_one_over_b"), ("PVTO", "PVDO"),
                                 "cells"),
    "blackoil.one_over_bg": Call("blackoil", ("wet_gas_one_over_b", "dead_fluid_one_over_b"), ("PVTG", "PVDG"),
                                 "cells"),
    "blackoil.one_over_bw": Call("blackoil", ("water_one_over_b",), ("PVTW",), "cells"),
    "blackoil.rs_sat": Call("blackoil", ("saturated_rs",), ("PVTO",), "cells"),
    "blackoil.rv_sat": Call("blackoil", ("saturated_rv",), ("PVTG",), "cells"),
    "blackoil.bubble_point": Call("blackoil", ("bubble_point",), ("PVTO",), "cells"),
    "blackoil.dew_point": Call("blackoil", ("dew_point",), ("PVTG",), "cells"),
    "blackoil.oil_viscosity": Call("blackoil", ("live_oil_viscosity", "dead_fluid_viscosity"), ("PVTO", "PVDO"),
                                   "cells"),
    "blackoil.gas_viscosity": Call("blackoil", ("wet_gas_viscosity", "dead_fluid_viscosity"), ("PVTG", "PVDG"),
                                   "cells"),
    "blackoil.water_viscosity": Call("blackoil", ("water_viscosity",), ("PVTW",), "cells"),
    "blackoil.oil_density": Call("blackoil", ("live_oil_one_over_b", "dead_fluid_one_over_b", "density_from_b"),
                                 ("PVTO", "PVDO"), "cells"),
    "blackoil.gas_density": Call("blackoil", ("wet_gas_one_over_b", "dead_fluid_one_over_b", "density_from_b"),
                                 ("PVTG", "PVDG"), "cells"),
    "blackoil.water_density": Call("blackoil", ("water_one_over_b", "density_from_b"), ("PVTW",), "cells"),
    "blackoil.pore_volume_multiplier": Call("blackoil", ("pore_volume_multiplier",), ("ROCK",), "cells"),
    "blackoil.in_place": Call("blackoil", (), (), "own"),
    "blackoil.in_place_from_arrays": Call("blackoil", (), (), None),
}

# The package's own names: name -> the module that defines it.
FACE: dict[str, str] = {name: call.module for name, call in CALLS.items() if "." not in name}


def names_of(module: str) -> list[str]:
    """The public functions that `module` defines, in the table's order."""
    return [name.rpartition(".")[2] for name, call in CALLS.items() if call.module == module]


# --- the arguments of a cell calculation ------------------------------------------------------

# The calculations of the engine's list (core/Calculations.h): name -> (region list, number of
# inputs, whether float32 inputs are read as they are).
_CALCULATIONS: dict[str, tuple[str | None, int, bool]] = _engine.CALCULATIONS
# The table values of each region list.
_VALUES: dict[str, tuple[type, ...]] = {
    name: tuple(kind for kind in (PVTO, PVTG, PVDG, PVDO, PVTW, ROCK) if kind._list_name == name)
    for name in _engine.RECORD_FIELDS}


def _native_list_class(name: str) -> Any:
    """The native list class `name` of kavra._kavracore; None where that module is not built."""
    try:  # (the package's own attribute is a stand-in in such a build: it is no class to test against)
        kavracore = load("kavra._kavracore")
    except NotBuilt:
        return None
    return getattr(kavracore, name)


def engine_tables(function: str, engine: str, name: str, table: Any) -> tuple[Any, str]:
    """The engine's tables of `table`, the argument `name` of `function`, for the calculation
    `engine` (a table value's own, built once; a native list's numbers as they stand), and the
    table's name in failures."""
    list_name = _CALCULATIONS[engine][0]
    assert list_name is not None
    values = _VALUES[list_name]
    if isinstance(table, values):
        return table._engine_tables(), type(table).__name__
    native = _native_list_class(list_name)
    if native is not None and isinstance(table, native):
        return values[0]._engine_tables_of(table), values[0].keyword if len(values) == 1 else list_name
    kinds = " or ".join(v.__name__ for v in values)
    raise TypeError(f"{function}: {name} must be a {kinds} table or a {list_name}, got {type(table).__name__}")


def checked(function: str, table: Any, kind: type) -> Any:
    """`table`, when it is a `kind`; else TypeError naming `function`."""
    if not isinstance(table, kind):
        raise TypeError(f"{function}: the table must be a {kind.__name__}, got {type(table).__name__}")
    return table


def cells(function: str, regions: tuple[str, Any] | None, inputs: list[tuple[str, Any]], out: Any,
          keep_out: bool = False, engine: str | None = None) -> CellArrays:
    """The buffers of a calculation: the caller's own when they are ready as they are (the engine
    holds them in place while it runs), else prepared ones.  `engine`: the engine's name of the
    calculation when it is not `function`."""
    ready = ready_buffers(None if regions is None else regions[1], [value for _, value in inputs], out)
    if ready is not None:
        first = 0 if regions is None else 1
        return CellArrays(function, out.shape, None if regions is None else ready[0], ready[first:-1],
                          ready[-1], None, out, None)
    floats = _CALCULATIONS[engine or function][2]
    return prepare_cells(function, regions, inputs, out, keep_out=keep_out, floats=floats)


def run(engine: str, tables: Any, kind: str, prepared: CellArrays, inputs: list[Any], threads: int) -> None:
    """The engine's calculation `engine` over prepared buffers, its result into ``prepared.result``;
    a failure is the engine's ValueError in kavra's words, ``out`` left as the failure left it."""
    words = (prepared.function, kind, prepared.shape)
    try:
        _engine.calculate(engine, tables, prepared.regions, tuple(inputs), prepared.result, words, threads)
    except ValueError:
        prepared.written(failed=True)
        raise


def calculate(function: str, engine: str, table: tuple[str, Any], pvtnum: Any, inputs: list[tuple[str, Any]],
              out: Any, threads: int | None, keep_out: bool = False) -> NDArray[np.float64]:
    """`function` (its name in failures) as the engine's calculation `engine` over a table: `table`
    is (argument name, value), then the region numbers and the named inputs per cell."""
    tables, kind = engine_tables(function, engine, table[0], table[1])
    count = resolve(threads)
    prepared = cells(function, ("pvtnum", pvtnum), inputs, out, keep_out, engine)
    run(engine, tables, kind, prepared, prepared.inputs, count)
    return prepared.finish()  # type: ignore[no-any-return]


def run_plain(function: str, steps: list[tuple[str, list[int]]], inputs: list[tuple[str, Any]],
              out: Any, threads: int | None) -> NDArray[np.float64]:
    """Calculations of the engine's list without tables, one after the other, each on inputs given
    by position (the result of the step before is the last input of a step that takes it)."""
    count = resolve(threads)
    prepared = cells(function, None, inputs, out)
    buffers = [*prepared.inputs, prepared.result]
    for engine, arguments in steps:
        run(engine, None, "", prepared, [buffers[a] for a in arguments], count)
    return prepared.finish()  # type: ignore[no-any-return]
