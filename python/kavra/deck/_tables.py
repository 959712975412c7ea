"""The table values of :mod:`kavra.tables` built from the records of a deck's keywords."""

from __future__ import annotations

from collections.abc import Callable
from typing import Any

import numpy as np
from numpy.typing import NDArray

from ..tables import DENSITY, PVDG, PVDO, PVTG, PVTO, PVTW, ROCK
from ._opm import DeckError
from ._opm import defaulted as _defaulted
from ._opm import record_values as _record_values

# Table values that may be left to their default, because the default is zero
# in every unit system: PVTW viscosibility, ROCK compressibility (index of the
# value in the record).  Any other default would be a number the deck does not
# hold (opm fills in metric defaults whatever the deck's unit system).
_ZERO_DEFAULTS = {"PVTW": {4}, "ROCK": {1}}


def _checked_numbers(record: Any, keyword: str, where: str) -> NDArray[np.float64]:
    """A table record's numbers as written; DeckError where the deck left one out."""
    values = _record_values(record, where)
    allowed = _ZERO_DEFAULTS.get(keyword, set())
    for index, defaulted in enumerate(_defaulted(record, len(values))):
        if defaulted and not (index in allowed and values[index] == 0.0):
            raise DeckError(f"{where}: value {index + 1} is left to its default; a table needs "
                            f"every number written out")
    return values


def _count(keyword: str, found: int, regions: int) -> None:
    if found != regions:
        raise DeckError(f"{keyword} has {found} tables, TABDIMS gives {regions} PVT regions")


# --- the tables ----------------------------------------------------------------------------
# The numbers of each region go to the table class as they are: its constructor makes the
# checks of the numbers (lengths of records, finite numbers, rising keys, formation volume
# factors above 0), the same for a deck as for a table written by hand, and read() turns its
# ValueError into a DeckError.


def _record_table(cls: type[PVTO] | type[PVTG]) -> Callable[..., Any]:
    """PVTO and PVTG: records of a key and triples, regions ended by an empty record."""
    keyword = cls.keyword

    def build(parsed_keyword: Any, regions: int, units: str) -> Any:
        tables: list[list[NDArray[np.float64]]] = [[]]
        for record in parsed_keyword:
            if not record[1].get_raw_data_list():  # the empty record that ends a region
                tables.append([])
                continue
            number, index = len(tables), len(tables[-1]) + 1
            tables[-1].append(_checked_numbers(record, keyword, f"{keyword} region {number}, record {index}"))
        _count(keyword, len(tables), regions)
        return cls(tables, units=units)

    return build


def _dead_table(cls: type[PVDG] | type[PVDO]) -> Callable[..., Any]:
    keyword = cls.keyword

    def build(parsed_keyword: Any, regions: int, units: str) -> Any:
        _count(keyword, len(parsed_keyword), regions)
        tables = []
        for number, record in enumerate(parsed_keyword, start=1):
            numbers = _checked_numbers(record, keyword, f"{keyword} region {number}")
            if not len(numbers) or len(numbers) % 3:
                raise DeckError(f"{keyword} region {number}: expected rows of three numbers [p, b, mu], "
                                f"got {len(numbers)} numbers")
            tables.append(numbers.reshape(-1, 3))
        return cls(tables, units=units)

    return build


def _one_record(cls: type[PVTW] | type[ROCK] | type[DENSITY]) -> Callable[..., Any]:
    keyword = cls.keyword

    def build(parsed_keyword: Any, regions: int, units: str) -> Any:
        _count(keyword, len(parsed_keyword), regions)
        return cls([_checked_numbers(record, keyword, f"{keyword} region {number}")
                    for number, record in enumerate(parsed_keyword, start=1)], units=units)

    return build


BUILDERS: dict[str, Callable[..., Any]] = {
    "PVTO": _record_table(PVTO),
    "PVTG": _record_table(PVTG),
    "PVDG": _dead_table(PVDG),
    "PVDO": _dead_table(PVDO),
    "PVTW": _one_record(PVTW),
    "ROCK": _one_record(ROCK),
    "DENSITY": _one_record(DENSITY),
}
