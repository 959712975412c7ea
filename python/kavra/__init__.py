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
from . import tables as tables  # noqa: E402
# "name as name": exported for type checkers too.
from .calculations import bubble_point_pressure as bubble_point_pressure  # noqa: E402
from .calculations import bulk_volume as bulk_volume  # noqa: E402
from .calculations import one_over_b as one_over_b  # noqa: E402
from .calculations import one_over_bg as one_over_bg  # noqa: E402
from .calculations import one_over_bo as one_over_bo  # noqa: E402
from .calculations import one_over_bw as one_over_bw  # noqa: E402
from .calculations import porosity as porosity  # noqa: E402
from .calculations import porosity_from_porv as porosity_from_porv  # noqa: E402
from .calculations import rs_from_components as rs_from_components  # noqa: E402
from .calculations import transmissibility_k as transmissibility_k  # noqa: E402
from .reductions import kaverage as kaverage  # noqa: E402
from .reductions import kmax as kmax  # noqa: E402
from .reductions import kmin as kmin  # noqa: E402
from .reductions import ksum as ksum  # noqa: E402

try:
    __version__: str = _metadata.version("kavra")
except _metadata.PackageNotFoundError:  # a source tree that was never installed
    __version__ = "0+unknown"

__all__ = [
    "bubble_point_pressure", "one_over_b", "one_over_bo", "one_over_bw", "one_over_bg",
    "rs_from_components", "porosity", "porosity_from_porv", "bulk_volume", "transmissibility_k",
    "kmax", "kmin", "ksum", "kaverage", "tables",
] + [name for name in dir(_kavracore) if not name.startswith("_")]
