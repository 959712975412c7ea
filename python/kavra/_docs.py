"""Docstring pieces that several public functions share.

A docstring line that holds nothing but ``%(name)s`` is replaced by the piece
of that name, indented as the line is: the functions of ``kavra`` and
``kavra.dask`` describe an argument they share in one place.
"""

from __future__ import annotations

import inspect
from typing import Callable, TypeVar

F = TypeVar("F", bound=Callable[..., object])

_ACTIVE_LAYOUT = """\
active : array_like of bool, optional
    Cells that take part (ACTNUM), of the shape of ``values``.
layout : {"kji", "ijk"}
    ``"kji"``: shape (nK, nJ, nI) or flat with I fastest; ``"ijk"``: shape (nI, nJ, nK) or
    flat with K fastest."""
_DASK_VALUES_GRID = """\
values : dask or NumPy array
    One value per cell, of the shape given by ``layout`` or flat in its cell order.
grid : kavra.tessel.ReservoirTopology or (nI, nJ, nK) tuple
    The grid."""

PIECES = {
    "active_layout": _ACTIVE_LAYOUT,
    "dask_values_grid": _DASK_VALUES_GRID,
    "oil": """\
oil : PVTO or PVDO
    Live-oil (with `rs`) or dead-oil (without) table per PVT region.""",
    "rs_live": """\
rs : array_like of float, optional
    Dissolved gas-oil ratio per cell (PVTO only), in the table's Rs unit.""",
    "gas": """\
gas : PVTG or PVDG
    Wet-gas (with `rv`) or dry-gas (without) table per PVT region.""",
    "rv_wet": """\
rv : array_like of float, optional
    Vaporised oil-gas ratio per cell (PVTG only), in the table's Rv unit.""",
    "pvtg_value": """\
pvtg : kavra.tables.PVTG
    Wet-gas table per PVT region.""",
    "pvtw_value": """\
pvtw : kavra.tables.PVTW
    Water record per PVT region.""",
    "density": """\
density : kavra.tables.DENSITY or array_like
    Surface densities (oil, water, gas) per PVT region, in the tables' unit system.""",
    "pvto": """\
pvto : PVTO or TPVTOList
    Live-oil table per PVT region.""",
    "pvto_value": """\
pvto : kavra.tables.PVTO
    Live-oil table per PVT region.""",
    "pvtnum": """\
pvtnum : array_like of int
    PVT region per cell, from 1; a cell below 1 gets 0.0.""",
    "rs": """\
rs : array_like of float
    Dissolved gas-oil ratio per cell, in the table's Rs unit (sm3/sm3 in METRIC).""",
    "p": """\
p : array_like of float
    Pressure per cell, in the table's pressure unit (barsa in METRIC).""",
    "denominator_numerator": """\
denominator, numerator : array_like of float
    Component quantities per cell (oil and dissolved gas, say, in the units whose ratio
    is wanted).""",
    "poro_at_reference": """\
poro : array_like of float
    Porosity per cell at the reference pressure (fraction).""",
    "bulk_volume_porv": """\
bulk_volume, porv : array_like of float
    Bulk volume and pore volume per cell, in one volume unit (rm3 in METRIC).""",
    "porv": """\
porv : array_like of float
    Pore volume per cell (rm3 in METRIC).""",
    "poro": """\
poro : array_like of float
    Porosity per cell (fraction).""",
    "ntg": """\
ntg : array_like of float, optional
    Net-to-gross ratio per cell, applied after the division.""",
    "out": """\
out : ndarray, optional
    Where to write the result: the result's shape, a real floating dtype; it may overlap the
    inputs (they are read as if before any cell is written).""",
    "threads": """\
threads : int, optional
    Threads to run on (default: :func:`kavra.get_num_threads`); the result is the same for any number.""",
    "raises_table": """\
Raises
------
TypeError
    A table of another kind; region numbers that are not integers; an input that does not hold
    real numbers; an ``out`` that is not a NumPy array of a real floating dtype; ``threads`` that
    is not an integer.
ValueError
    Inputs whose shapes do not broadcast together; an ``out`` of another shape, read-only or
    hard-masked; a region number past the table, or a region whose table has no rows (the
    native failure is the ``__cause__``); ``threads`` below 1.""",
    "raises_plain": """\
Raises
------
TypeError
    An input that does not hold real numbers; an ``out`` that is not a NumPy array of a real
    floating dtype; ``threads`` that is not an integer.
ValueError
    Inputs whose shapes do not broadcast together; an ``out`` of another shape, read-only or
    hard-masked; ``threads`` below 1.""",
    "k_raises": """\
Raises
------
TypeError
    Values of an element type without a kernel (int32, uint32, int64, uint64, float32, float64
    are taken); a ``grid`` of another kind; ``threads`` that is not an integer.
ValueError
    A ``layout`` other than ``"kji"`` or ``"ijk"``; values (or ``active``) whose shape does not
    fit the grid or the selection; ``threads`` below 1.""",
    "k_arguments": f"""\
Parameters
----------
values : array_like
    One value per cell (see ``layout``), or one per selected cell of a selection.
grid : kavra.tessel.ReservoirTopology, (nI, nJ, nK) tuple or kavra.tessel.ReservoirSelectionTopology
    The grid, or the selection of its cells.
{_ACTIVE_LAYOUT}
threads : int, optional
    Threads to run on (default: :func:`kavra.get_num_threads`); the result is the same for any
    number.  A selection, and cells left out by ``active`` or a mask, take one thread.

Returns
-------
ndarray
    The input's shape and element type; masked where a cell took no part.""",
    "dask_k_arguments": f"""\
Parameters
----------
{_DASK_VALUES_GRID}
{_ACTIVE_LAYOUT}

Returns
-------
dask.array.Array
    The shape and element type of ``values``; masked where a cell took no part.""",
}


def filled(function: F) -> F:
    """`function` with the pieces its docstring names filled in (a no-op under ``python -OO``)."""
    if function.__doc__:
        lines: list[str] = []
        for line in function.__doc__.split("\n"):
            name = line.strip()
            if name.startswith("%(") and name.endswith(")s"):
                indent = line[: len(line) - len(line.lstrip())]
                lines.extend(indent + piece if piece else piece for piece in PIECES[name[2:-2]].split("\n"))
            else:
                lines.append(line)
        function.__doc__ = "\n".join(lines)
    return function


def _sections(doc: str) -> dict[str, list[str]]:
    """The lines of each numpydoc section of a cleaned docstring ("" for the text before the first)."""
    lines = doc.split("\n")
    sections: dict[str, list[str]] = {"": []}
    heading = ""
    index = 0
    while index < len(lines):
        line = lines[index]
        if index + 1 < len(lines) and line.strip() and lines[index + 1].strip() == "-" * len(line.strip()):
            heading = line.strip()
            sections[heading] = []
            index += 2
            continue
        sections[heading].append(line)
        index += 1
    return sections


def dask_form(function: Callable[..., object], path: str, tables: bool) -> str | None:
    """The docstring of the Dask form of `function` (``path``, as the documentation names it; `tables`:
    whether it takes tables): its summary, its parameters but ``out`` and ``threads``, its result as
    a dask array."""
    if not function.__doc__:  # python -OO
        return None
    doc = inspect.cleandoc(function.__doc__)
    sections = _sections(doc)
    summary = doc.split("\n\n")[0]
    parameters: list[str] = []
    keep = True
    for line in sections.get("Parameters", []):
        if line and not line[0].isspace():  # "name : type" starts an entry
            keep = line.split(" : ")[0].strip() not in ("out", "threads")
        if keep:
            parameters.append(line)
    while parameters and not parameters[-1].strip():
        parameters.pop()
    returns = sections.get("Returns", [])[1:]
    text = [summary, "",
            f"Chunk by chunk :func:`{path}` over dask arrays (see :mod:`kavra.dask`):",
            "the same arguments, without ``out`` and ``threads``" + (
                "; the tables are values of :mod:`kavra.tables`\n(a native list cannot be pickled into the "
                "task graph)." if tables else "."), "",
            "Parameters", "----------", *parameters, "",
            "Returns", "-------", "dask.array.Array of float64", *returns]
    return "\n".join(text).rstrip() + "\n"
