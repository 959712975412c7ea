"""kavra: reservoir-engineering cell calculations and K-column reductions.

The functions that take and give NumPy arrays (``one_over_bo``, ``kaverage``
and the others) and the table values of ``kavra.tables`` are the API to
start from.  Every name of the native extension ``kavra._kavracore`` (the
``Calc…`` functions over grid functions, ``KMax`` …, and the table classes
``TScalar``, ``TPVTOList`` …) is available here as well.  Grid functions,
topologies and connection lists come from the ``tessel`` package.
"""

from importlib import metadata as _metadata

from . import _kavracore
from ._kavracore import *  # noqa: F401,F403
from . import tables  # noqa: E402
from .calculations import (  # noqa: E402
    bubble_point_pressure,
    bulk_volume,
    one_over_b,
    one_over_bg,
    one_over_bo,
    one_over_bw,
    porosity,
    porosity_from_porv,
    rs_from_components,
    transmissibility_k,
)
from .reductions import kaverage, kmax, kmin, ksum  # noqa: E402

try:
    __version__: str = _metadata.version("kavra")
except _metadata.PackageNotFoundError:  # a source tree that was never installed
    __version__ = "0+unknown"

__all__ = [
    "bubble_point_pressure", "one_over_b", "one_over_bo", "one_over_bw", "one_over_bg",
    "rs_from_components", "porosity", "porosity_from_porv", "bulk_volume", "transmissibility_k",
    "kmax", "kmin", "ksum", "kaverage", "tables",
] + [name for name in dir(_kavracore) if not name.startswith("_")]
