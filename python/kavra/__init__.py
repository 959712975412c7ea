"""kavra: reservoir-engineering cell calculations and K-column reductions.

The functions that take and give NumPy arrays (``one_over_bo``, ``kaverage``
and the others) and the table values of ``kavra.tables`` are the API to
start from.  Every name of the native extension ``kavra._kavracore`` (the
``Calc…`` functions over grid functions, ``KMax`` …, and the table classes
``TScalar``, ``TPVTOList`` …) is available here as well, in a build that
has that module (one that found Boost.Python for its Python).  Grid functions,
topologies and connection lists come from ``kavra.tessel``.
"""

from importlib import import_module as _import_module
from importlib import metadata as _metadata
from typing import TYPE_CHECKING as _TYPE_CHECKING
from typing import Any as _Any

from ._optional import optional as _optional

# Built where kavra found Boost.Python for this Python; a stand-in elsewhere.
_kavracore = _optional(__name__ + "._kavracore")
if _kavracore.__spec__ is not None:  # the module itself, not the stand-in for a missing one
    from ._kavracore import *  # noqa: F401,F403

try:
    __version__: str = _metadata.version("kavra")
except _metadata.PackageNotFoundError:  # a source tree that was never installed
    __version__ = "0+unknown"

# The NumPy-first layer is imported when first used, so that importing the
# native module alone (kavra._kavracore) runs nothing but its own import.
_LAYER = {
    "bubble_point_pressure": "calculations", "one_over_b": "calculations", "one_over_bo": "calculations",
    "one_over_bw": "calculations", "one_over_bg": "calculations", "rs_from_components": "calculations",
    "porosity": "calculations", "porosity_from_porv": "calculations", "bulk_volume": "calculations",
    "transmissibility_k": "calculations", "kmax": "reductions", "kmin": "reductions", "ksum": "reductions",
    "kaverage": "reductions", "column_map": "maps", "region_totals": "maps", "get_num_threads": "_threads",
    "set_num_threads": "_threads",
}

if _TYPE_CHECKING:  # "name as name": exported for type checkers
    from . import tables as tables
    from . import deck as deck
    from . import results as results
    from . import blackoil as blackoil
    from .calculations import bubble_point_pressure as bubble_point_pressure
    from .calculations import bulk_volume as bulk_volume
    from .calculations import one_over_b as one_over_b
    from .calculations import one_over_bg as one_over_bg
    from .calculations import one_over_bo as one_over_bo
    from .calculations import one_over_bw as one_over_bw
    from .calculations import porosity as porosity
    from .calculations import porosity_from_porv as porosity_from_porv
    from .calculations import rs_from_components as rs_from_components
    from .calculations import transmissibility_k as transmissibility_k
    from .reductions import kaverage as kaverage
    from .reductions import kmax as kmax
    from .reductions import kmin as kmin
    from .reductions import ksum as ksum
    from .maps import column_map as column_map
    from .maps import region_totals as region_totals
    from ._threads import get_num_threads as get_num_threads
    from ._threads import set_num_threads as set_num_threads


_SUBMODULES = ("tables", "calculations", "reductions", "maps", "deck", "results", "blackoil")


def __getattr__(name: str) -> _Any:
    if name in _SUBMODULES:
        return _import_module("." + name, __name__)
    if name in _LAYER:
        value = getattr(_import_module("." + _LAYER[name], __name__), name)
        globals()[name] = value
        return value
    raise AttributeError(f"module 'kavra' has no attribute {name!r}")


def __dir__() -> list[str]:
    return sorted({*globals(), *_LAYER, *_SUBMODULES})


__all__ = [*_LAYER, "tables"] + [name for name in dir(_kavracore) if not name.startswith("_")]
