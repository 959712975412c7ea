"""opm's SI numbers back in the deck's own units."""

from __future__ import annotations

import functools
from typing import Any

import numpy as np
from numpy.typing import NDArray

from ._opm import DeckError
from ._opm import Parser as _Parser
from ._opm import array_item as _array_item


class DeckUnits:
    """The unit conversion of a :class:`kavra.deck.Deck`: a base of ``Deck``, which gives it its
    unit system and the parsed deck."""

    units: str
    _parsed: Any

    def _deck_units(self, name: str, si: NDArray[np.float64], active: NDArray[np.bool_]) -> NDArray[np.float64]:
        """opm's SI numbers of property `name` in the active cells, in the deck's units: the deck's own
        number where opm's SI number converted back is that number but for the rounding of the
        conversion, else the SI number converted back."""
        factor = si_factor(self.units, name)
        if factor == 1.0:
            return si
        values = si / factor
        rest = np.ones(len(values), dtype=bool)
        if name in self._parsed:
            raw = np.array(_array_item(self._parsed[name], name).get_raw_data_list(), dtype=np.float64)
            if len(raw) == len(active):
                raw = raw[active]
                written = np.abs(values - raw) <= 4 * np.spacing(np.abs(raw))
                values[written] = raw[written]
                rest = ~written
        # An edited number: its shortest decimal form, where only the conversion's rounding
        # (a few units in the last place) stands between the two.
        distinct, where = np.unique(values[rest], return_inverse=True)
        short = np.array([float(f"{value:.15g}") for value in distinct])
        distinct = np.where(np.abs(short - distinct) <= 4 * np.spacing(np.abs(distinct)), short, distinct)
        values[rest] = distinct[where]
        return values


@functools.lru_cache(maxsize=None)
def si_factor(units: str, name: str) -> float:
    """What opm multiplies a number of keyword `name` in unit system `units` by to have it in SI
    (1 for a number without a unit), from a deck of that keyword alone."""
    # With the three phases and ENDSCALE: the parser refuses an end point without them.
    try:
        probe = _Parser().parse_string(f"RUNSPEC\nDIMENS\n 1 1 1 /\n{units}\nOIL\nWATER\nGAS\nENDSCALE\n/\n"
                                       f"GRID\n{name}\n 1 /\n")
    except (RuntimeError, ValueError) as error:
        raise DeckError(f"kavra cannot tell the unit of {name}: {error}") from error
    item = _array_item(probe[name], name)
    if item.is_int():
        return 1.0
    return float(item.get_SI_data_list()[0]) / float(item.get_raw_data_list()[0])
